#ifndef KORVO_NETNS_H
#define KORVO_NETNS_H

// Entering a network namespace by name, the way `ip netns` names them.
//
// A name is looked up as follows:
//  - DEFAULT_NS ("default"): the namespace of the init process as this process
//    sees it, /proc/1/ns/net; when that cannot be opened (no right to look at
//    pid 1, as in some sandboxes), /var/run/netns/default, where a namespace may
//    have been bind-mounted under that name.
//  - A name starting with "/": that namespace file itself (for instance
//    /proc/<pid>/ns/net).
//  - Any other name: /var/run/netns/<name>, as `ip netns add` makes them. The
//    empty name, names holding "/" and the names "." and ".." are refused
//    (EINVAL).
// Switching needs CAP_SYS_ADMIN. The switch applies to the calling thread only.

#include <Korvo/Export.h>

#include <string>

namespace Korvo::NetNs {

inline constexpr const char* DEFAULT_NS = "default";

// Moves the calling thread into the namespace `name`; `flags` is the nstype of
// setns(2) (CLONE_NEWNET to insist on a network namespace, 0 for any). 0 on
// success; -1 with errno (ENOENT, EACCES, EPERM, EINVAL, ...) otherwise, the
// thread staying where it was.
KORVO_EXPORT int setnsByName(const std::string& name, int flags);

}  // namespace Korvo::NetNs

#endif
