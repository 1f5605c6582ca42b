#ifndef KORVO_UTIL_H
#define KORVO_UTIL_H

// Blocking system helpers for daemons: files and paths, local sockets in the
// default network namespace, and a process looking at itself through /proc.
//
// Conventions shared by everything here:
//  - Functions that take a DebugHandler& report what they did on it: failures at
//    level 0 or 1, routine steps at level 5, fine detail at level 8 and 9. The
//    rest trace on the library's utilities handler, "KorvoUtil".
//  - Expected failures (a missing file, a process that has exited, a full disk)
//    come back as return values (-1, 0, false, an empty string) with errno left as
//    the failing call set it. Only the functions that say so throw.
//  - Misuse and answers from the kernel that cannot happen go through the
//    library's assertion path (Korvo/Exception.h).
//  - Every call blocks the calling thread; none takes a lock.
//  - Parsers of /proc texts are exported next to the readers that use them, so a
//    saved snapshot (or a test) can be parsed exactly as the live file is.

#include <Korvo/Export.h>

#include <sys/socket.h>

#include <cstddef>
#include <istream>
#include <optional>
#include <string>

namespace Korvo {

namespace Platform {
class DebugHandler;
}

namespace Util {

using Platform::DebugHandler;

// ---------------------------------------------------------------------------
// Files and paths

// Creates `path` and any missing parents, each with exactly `mode` (the umask is
// set to 0 meanwhile; that switch is process-wide). 0 when the directory exists
// afterwards; an existing non-directory at `path` also gives 0. -1 on failure,
// with errno set.
KORVO_EXPORT int mkpath(const std::string& path, unsigned mode);

// Removes the directories named by `trailing` below `absolute`, deepest first:
// trimpath("/a/b/c/d", "c/d") removes /a/b/c/d, then /a/b/c. Directories already
// gone are passed over. 0 on success; -1 when a directory could not be removed
// (those removed before stay removed). REQUIRES: `absolute` starts with "/",
// `trailing` is non-empty, strictly shorter than `absolute` and ends it;
// anything else is an assertion failure.
KORVO_EXPORT int trimpath(const std::string& absolute, const std::string& trailing);

// Creates or truncates `path` (permissions 0666, umask 0 meanwhile) and writes
// `data` in one call. Throws RuntimeException when the file cannot be opened,
// written or closed, unless `noThrow`; the failure is traced at level 0 either
// way. A short write is traced, not retried and not an error.
KORVO_EXPORT void fileWrite(DebugHandler& h, const std::string& path, const std::string& data,
                            bool noThrow = false);

// The whole contents of `path`, any bytes; "" when it cannot be opened or read
// (a directory, say), traced at level 5. Files that report size 0, as those
// under /proc do, are read whole. With `stripNewline`, one trailing "\n" is
// removed (handy for one-line files such as those under /proc/sys).
KORVO_EXPORT std::string fileRead(DebugHandler& h, const std::string& path,
                                  bool stripNewline = false);

// True when stat() of `path` succeeds.
KORVO_EXPORT bool fileExists(DebugHandler& h, const std::string& path);

// True when `path` was removed or was already absent (the latter silently).
KORVO_EXPORT bool fileRemove(DebugHandler& h, const std::string& path);

// Size in bytes; 0 both for an empty file and on failure.
KORVO_EXPORT size_t fileSize(DebugHandler& h, const std::string& path);
KORVO_EXPORT size_t fileSize(DebugHandler& h, int fd);

// ftruncate(fd, length): 0 or -1. `path` only names the file in the message.
KORVO_EXPORT int truncate(DebugHandler& h, const std::string& path, int fd, size_t length);

// Opens `path` for writing, creating it when missing (0666, umask 0 meanwhile),
// and closes it again. True when that worked; false (traced at level 1) when it
// could not be opened, for instance in an unwritable directory or when the file
// is not writable. Neither the contents nor the times of an existing file
// change.
KORVO_EXPORT bool touch(DebugHandler& h, const std::string& path);

// The working directory; throws RuntimeException when getcwd() fails.
KORVO_EXPORT std::string getCwd(DebugHandler& h);

// ---------------------------------------------------------------------------
// Local sockets. Names are abstract (Linux-only, no file system entry) and
// bounded by the address: at most 107 characters are used.

constexpr size_t maxSocketNameLength = 107;

// socket(2) made in the default network namespace (NetNs.h), even when the
// calling thread lives in another; the thread is back in its own namespace when
// the call returns. Where the process has no namespace support, or no right to
// switch, the socket is made in the current namespace. -1 with errno on failure.
KORVO_EXPORT int socket(DebugHandler& h, int domain, int type, int protocol);

// Fills `address` (a sockaddr_un, or storage at least that large) for the
// abstract `name`, cut to 107 characters. Returns the address length to pass to
// bind()/connect(): 3 + the length of the name used (no terminator).
KORVO_EXPORT socklen_t createSockaddr(DebugHandler& h, void* address, const std::string& name);

// An AF_UNIX SOCK_SEQPACKET socket with SO_REUSEADDR, made by Util::socket() and
// bound to the abstract `name`. Throws RuntimeException when bind() fails (for
// instance when the name is taken); failures to create or configure the socket
// are assertion failures. The caller owns the descriptor.
KORVO_EXPORT int createAndBindSocket(DebugHandler& h, const std::string& name);

// SO_SNDBUF of `sd` set to `size`; 0. REQUIRES: sd >= 0 and size >= 1; those and
// a refused setsockopt() are assertion failures. The kernel caps (and doubles)
// the value; bound it by SYSTEM_MAX_SEND_BUFFER_SIZE() first.
KORVO_EXPORT int setSocketSendBufferSize(int sd, int size);

// /proc/sys/net/core/wmem_max, read once per process. 8388608 (8 MiB) when the
// file does not exist or does not hold a number.
KORVO_EXPORT int SYSTEM_MAX_SEND_BUFFER_SIZE();

// The pid of a process that has the abstract socket `name` open, found through
// /proc/net/unix and the processes' descriptor tables (lowest pid first). 0 when
// no socket of that name exists in the caller's network namespace or no visible
// process holds it (a non-root caller sees only its own user's processes).
KORVO_EXPORT int readSocketPid(DebugHandler& h, const std::string& name);

// ---------------------------------------------------------------------------
// Process introspection

// Address of `name` in the running program or any library loaded into it
// (only symbols in a dynamic symbol table are found), or null. A failure is
// traced at level 1 and its loader text kept for resolveSymError().
KORVO_EXPORT void* resolveSym(DebugHandler& h, const char* name);
// The loader's text for the calling thread's last failed resolveSym(), or null;
// then forgets it. The text stays valid until the thread's next call of this
// function.
KORVO_EXPORT const char* resolveSymError();

// A magic number as text: the eight bytes of `value` in memory order (least
// significant first) read as a C string, so a magic made of ASCII letters prints
// as its letters; the text stops at the first zero byte.
KORVO_EXPORT std::string decodeMagic(unsigned long value);

// Writes "CANARY:" + text to the system log (LOG_LOCAL5, LOG_DEBUG, with the
// pid) and traces the same line on `h` at level 5. Opens and closes the log
// itself, replacing any openlog() settings of the process.
KORVO_EXPORT void emitCanaryLog(DebugHandler& h, const std::string& text);

// The start time of process `pid` (field 22 of /proc/<pid>/stat: clock ticks
// since boot) as the kernel writes it; "" when the file cannot be read (the
// process has exited). A stat line that cannot hold the field is an assertion
// failure. The second form traces on "KorvoUtil".
KORVO_EXPORT std::string readProcStartTime(DebugHandler& h, int pid);
KORVO_EXPORT std::string readProcStartTime(int pid);

// The name of process `pid` from the "Name:" line of /proc/<pid>/status,
// trimmed; "" when the file cannot be read, has no such line or an empty name.
// `quiet` is for callers that expect the process may have gone: its two
// "not found" messages are then traced at level 5 instead of level 1. The
// second form traces on "KorvoUtil".
KORVO_EXPORT std::string readProcTitle(DebugHandler& h, int pid, bool quiet = false);
KORVO_EXPORT std::string readProcTitle(int pid, bool quiet = false);

// The command line of process `pid` from /proc/<pid>/cmdline, the arguments
// joined by single blanks; "" when the file cannot be read or is empty (a kernel
// thread, a zombie). Failures are traced at level 5.
KORVO_EXPORT std::string readPidCmdline(DebugHandler& h, int pid);

// The demangled name of the dynamic type whose virtual table `vptr` points into
// (the first word of a polymorphic object, see vptrOf), such as
// "Korvo::RuntimeException". The pointer is checked before anything is read
// through it, so a stale or wild value is safe to pass: the result is then
// "Bad vptr:" followed by the pointer, and that is traced on "KorvoUtil" at
// level 1. Costs a few system calls; meant for diagnostics.
KORVO_EXPORT std::string typenameFromVptr(const void* vptr);

// The virtual table pointer of a polymorphic object (its first word).
inline const void* vptrOf(const void* object) {
   return *static_cast<const void* const*>(object);
}

// The name of the live debug handler at address `handler`, as trace lines show
// it; "" for null. A pointer that is not a live handler registered with the
// library gives "unknown handler " and the pointer, and is never dereferenced.
// Takes the library lock; costs a walk over every live handler.
KORVO_EXPORT std::string traceHandleName(const void* handler);

// Sets bit 3 of /proc/self/coredump_filter, so that core dumps of this process
// include shared memory. A filter file that cannot be opened is traced on
// "KorvoUtil" at level 1 and left alone; one that does not hold a number is an
// assertion failure.
KORVO_EXPORT void includeShmemInCore();

}  // namespace Util

// The process-wide default wait for "wait for ..." helpers, in seconds: the
// decimal number in WAITFOR_DEFAULT, read on the first call and kept. +infinity
// (no limit) when the variable is unset, or when it does not convert (then
// "Parsing the WAITFOR_DEFAULT env. variable failed" goes to stderr once).
KORVO_EXPORT double waitForDefaultTimeout();

// Hooks of a heap checker loaded into the process, for code that manages its
// own memory and wants it checked too. Only looked up when HEAPCHECK is set in
// the environment (to anything); null otherwise, or when the checker is absent.
namespace HeapChecker {
// HeapChecker_RecordClientAlloc
KORVO_EXPORT void* resolveAllocSym(Platform::DebugHandler& h);
// HeapChecker_RecordClientFree
KORVO_EXPORT void* resolveFreeSym(Platform::DebugHandler& h);
}  // namespace HeapChecker

}  // namespace Korvo

#endif
