#define KORVO_SOURCE_FILE "FileLockCpp"
#include "Korvo/FileLock.h"

#include "Korvo/Debug.h"
#include "Korvo/Exception.h"
#include "Korvo/Util.h"
#include "UtilImpl.h"
#include "UtilParse.h"
#include "UtilProcFd.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace Korvo {

using Util::Impl::errorText;

int cmd_F_OFD_SETLK() {
   return 37;
}

int cmd_F_OFD_GETLK() {
   return 36;
}

namespace {

// A whole-file lock request: start 0, length 0 (to the end, however it grows).
struct flock wholeFile(short type) {
   struct flock request = {};
   request.l_type = type;
   request.l_whence = SEEK_SET;
   request.l_start = 0;
   request.l_len = 0;
   request.l_pid = 0;  // must be 0 for OFD locks
   return request;
}

}  // namespace

FileLock::FileLock(Platform::DebugHandler& h, const std::string& directory,
                   const std::string& filename)
    : h_(h), directory_(directory), fd_(-1), ownerPid_(-1) {
   KORVO_ASSERT(filename.find('/') == std::string::npos,
                "Korvo::FileLock::FileLock() unexpected '/' in filename: " << filename);
   file_ = directory.empty() ? filename : directory + "/" + filename;
}

FileLock::~FileLock() {
   KORVO_TRACE(h_, 5, "FileLock::~FileLock() file:" << file_);
   if (fd_ >= 0) {
      release();
   }
}

bool FileLock::lock(bool allowReentry) {
   KORVO_TRACE(h_, 5, "FileLock::lock() file:" << file_);
   if (allowReentry && fd_ >= 0 && ownerPid_ == ::getpid()) {
      KORVO_TRACE(h_, 5,
                  "FileLock::lock() re-entry held by pid:" << ownerPid_ << " on file:" << file_);
      return true;
   }
   if (!directory_.empty() && Util::mkpath(directory_, 0777) != 0) {
      KORVO_FAIL("FileLock::lock() unexpected mkpath() error " << directory_ << ": "
                                                               << errorText(errno));
   }
   int fd;
   {
      Util::Impl::UmaskZero umaskZero;
      // Close-on-exec from the start, so no exec in another thread can inherit
      // the descriptor (and with it the lock) in between.
      fd = ::open(file_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
   }
   if (fd < 0) {
      KORVO_TRACE(
          h_, 1,
          "FileLock::lock() error: could not open lock file:" << file_ << " " << errorText(errno));
      return false;
   }
   struct flock request = wholeFile(F_WRLCK);
   if (::fcntl(fd, cmd_F_OFD_SETLK(), &request) != 0) {
      const int err = errno;
      ::close(fd);
      // POSIX lets a conflict come back as EACCES too.
      KORVO_ASSERT(err == EAGAIN || err == EACCES,
                   "FileLock::lock() unexpected error: " << errorText(err) << " file:" << file_);
      KORVO_TRACE(h_, 1, "FileLock::lock() error: conflicting lock held on file:" << file_);
      errno = err;
      return false;
   }
   KORVO_TRACE(h_, 5, "FileLock::lock() acquired lock on file:" << file_);
   fd_ = fd;
   ownerPid_ = ::getpid();
   return true;
}

void FileLock::release() {
   KORVO_TRACE(h_, 5, "FileLock::release() file:" << file_);
   KORVO_ASSERT(fd_ >= 0,
                "FileLock::release() attempting to release a lock that is not currently held. File:"
                    << file_);
   // Unlocking an OFD lock from a forked child would drop the parent's lock too:
   // they share the open file.
   KORVO_ASSERT(::getpid() == ownerPid_, "FileLock::release() called from child process:"
                                             << ::getpid() << " of owner pid:" << ownerPid_);
   struct flock request = wholeFile(F_UNLCK);
   KORVO_ASSERT(::fcntl(fd_, cmd_F_OFD_SETLK(), &request) == 0,
                "FileLock::release() unexpected error:" << errorText(errno) << " file:" << file_);
   closeFd();
   ownerPid_ = -1;
   KORVO_TRACE(h_, 5, "FileLock::release() released lock on file:" << file_);
}

void FileLock::closeFd() {
   KORVO_TRACE(h_, 5, "FileLock::closeFd() file:" << file_ << " fd:" << fd_);
   if (fd_ < 0) {
      KORVO_TRACE(h_, 5, "FileLock::closeFd() no active fd: nothing to do");
      return;
   }
   // Linux releases the descriptor even when close() reports an error, so it is
   // forgotten either way; retrying could close someone else's new descriptor.
   if (::close(fd_) != 0) {
      KORVO_TRACE(
          h_, 1,
          "FileLock::closeFd() error: " << errorText(errno) << " file:" << file_ << " fd:" << fd_);
   } else {
      KORVO_TRACE(h_, 5, "FileLock::closeFd() closed fd for file:" << file_);
   }
   fd_ = -1;
}

namespace Util {
namespace {

bool sameFile(const struct stat& a, const struct stat& b) {
   return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

// True when descriptor `fd` of a process refers to the lock file and carries a
// granted lock on it.
bool holdsLock(DebugHandler& h, const Impl::ProcFd& fd, const struct stat& lockStat) {
   struct stat st;
   if (::stat(fd.path.c_str(), &st) != 0) {
      KORVO_TRACE(h, 5, "Util::readLockPid() stat " << fd.path << " failed:" << errorText(errno));
      return false;
   }
   if (!sameFile(st, lockStat)) {
      return false;
   }
   char target[4096];
   const ssize_t n = ::readlink(fd.path.c_str(), target, sizeof(target) - 1);
   if (n < 0) {
      KORVO_TRACE(
          h, 5,
          "Util::readLockPid() readlink of file:" << fd.path << " failed " << errorText(errno));
   }
   target[n < 0 ? 0 : n] = '\0';
   KORVO_TRACE(h, 9, "Util::readLockPid() lock " << fd.path << "'s file is:" << target);
   const std::string fdinfo = "/proc/" + std::to_string(fd.pid) + "/fdinfo/" + fd.fdName;
   if (lockTextHasHeldLock(fileRead(h, fdinfo))) {
      return true;
   }
   KORVO_TRACE(h, 5,
               "Util::readLockPid() pid:" << fd.pid << " file:" << target
                                          << " is open, but not locked associated with lock");
   return false;
}

}  // namespace

int readLockPid(DebugHandler& h, const std::string& lockFile) {
   KORVO_TRACE(h, 9, "Util::readLockPid() lockName:" << lockFile);
   struct stat lockStat;
   if (::stat(lockFile.c_str(), &lockStat) != 0) {
      KORVO_TRACE(h, 1, "Util::readLockPid() cannot stat " << lockFile << ": " << errorText(errno));
      return -1;
   }
   // The kernel's table is only a quick test: with no OFD or POSIX lock anywhere
   // there is no holder to look for. Its device numbers cannot be matched with a
   // stat() result on every file system (overlay file systems lock the layer
   // below), so the holder is found through the descriptors instead.
   const std::string table = fileRead(h, "/proc/locks");
   KORVO_TRACE(h, 9, "Util::readLockPid() /proc/locks:\n" << table);
   if (!lockTextHasHeldLock(table)) {
      return 0;
   }
   return Impl::findProcFd(h, "Util::readLockPid()",
                           [&](const Impl::ProcFd& fd) { return holdsLock(h, fd, lockStat); });
}

}  // namespace Util
}  // namespace Korvo
