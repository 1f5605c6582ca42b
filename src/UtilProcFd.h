#ifndef KORVO_SRC_UTILPROCFD_H
#define KORVO_SRC_UTILPROCFD_H

// Walking every visible process's descriptor table under /proc, for the "who
// holds this" look-ups. Not installed.

#include <functional>
#include <string>

namespace Korvo {
namespace Platform {
class DebugHandler;
}

namespace Util::Impl {

struct ProcFd {
   int pid;
   std::string fdName;  // the descriptor number, as /proc lists it
   std::string path;    // "/proc/<pid>/fd/<fd>"
};

// Calls `visit` for each descriptor of each process in ascending pid order
// ("self" and "thread-self" are skipped, as is every process whose table cannot
// be read) until it returns true; returns that descriptor's pid, or 0. Messages
// start with `who`. Failing to open /proc itself is an assertion failure.
int findProcFd(Platform::DebugHandler& h, const char* who,
               const std::function<bool(const ProcFd&)>& visit);

}  // namespace Util::Impl
}  // namespace Korvo

#endif
