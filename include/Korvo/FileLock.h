#ifndef KORVO_FILELOCK_H
#define KORVO_FILELOCK_H

// An exclusive, non-blocking, whole-file lock on a lock file, so that only one
// process at a time holds a named resource.
//
// The lock is a Linux open-file-description (OFD) lock: it belongs to the open
// file, not to the process. Consequences a caller must know:
//  - Two FileLock objects on the same file conflict even inside one process.
//  - A forked child inherits the descriptor and so shares the parent's lock. The
//    child must not release() it (that would drop the parent's lock too; it is an
//    assertion failure) but may closeFd() its copy of the descriptor. Destroying a
//    still-holding FileLock in the child is the same misuse as release().
//  - The descriptor is close-on-exec, so the lock never leaks into exec'ed
//    programs.
//  - The lock file itself is left in place on release.
// A FileLock belongs to one thread. lock() sets the umask to 0 for a moment; that
// switch is process-wide.

#include <Korvo/Export.h>

#include <string>

namespace Korvo {

namespace Platform {
class DebugHandler;
}

// The fcntl() commands, as values: 37 and 36 on Linux, whatever the C headers
// at hand declare.
KORVO_EXPORT int cmd_F_OFD_SETLK();
KORVO_EXPORT int cmd_F_OFD_GETLK();

class KORVO_EXPORT FileLock {
public:
   // The lock file is directory + "/" + filename (filename alone when directory
   // is empty). Touches nothing on disk. A filename holding "/" is an assertion
   // failure. The handler must outlive the lock; steps trace at level 5,
   // failures returned to the caller at level 1.
   FileLock(Platform::DebugHandler& h, const std::string& directory, const std::string& filename);
   // Releases the lock when still held.
   ~FileLock();
   FileLock(const FileLock&) = delete;
   FileLock& operator=(const FileLock&) = delete;

   // Tries once, without waiting: creates the directory (0777) and the file
   // (0666) as needed and takes the lock. False when another open file holds a
   // lock on it (a second FileLock in this process counts) or the file cannot be
   // opened. With `allowReentry`, a lock this object already holds for the
   // calling process is reported as taken again without touching the file;
   // without it, locking twice fails as a conflict.
   bool lock(bool allowReentry = false);
   // Unlocks and closes. REQUIRES: held, and called by the process that locked.
   void release();
   // Closes this object's descriptor without unlocking. Other descriptors of the
   // same open file (a parent's, after fork) keep the lock. Harmless when not held.
   void closeFd();

   const std::string& directory() const { return directory_; }
   const std::string& file() const { return file_; }
   // The open descriptor while held, else -1.
   int fd() const { return fd_; }
   // The pid that took the lock, else -1. Left in place by closeFd().
   int ownerPid() const { return ownerPid_; }

private:
   Platform::DebugHandler& h_;
   std::string directory_;
   std::string file_;
   int fd_;
   int ownerPid_;
};

namespace Util {

// The pid of a process holding an OFD or POSIX lock on `lockFile`, found by
// matching the descriptors of every visible process against the file (device and
// inode) and reading their lock lines from /proc/<pid>/fdinfo. Processes are
// examined in ascending pid order and the first holder wins (after fork, parent
// and child share an OFD lock; the parent has the lower pid unless pids wrapped).
// 0 when nobody holds a lock on it, -1 when `lockFile` cannot be stat()ed. A
// non-root caller sees only its own user's processes. Traces details at level 9.
KORVO_EXPORT int readLockPid(Platform::DebugHandler& h, const std::string& lockFile);

}  // namespace Util
}  // namespace Korvo

#endif
