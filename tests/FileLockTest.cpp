#include <Korvo/FileLock.h>
#include <Korvo/Util.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "UtilParse.h"
#include "UtilTestSupport.h"

namespace {

using Korvo::FileLock;
using KorvoTest::CaptureHandler;
using KorvoTest::TempDir;
namespace Util = Korvo::Util;

// A helper process that does something with a file and then waits to be told to
// go, so the test can look at it meanwhile.
class Holder {
public:
   explicit Holder(const std::function<bool()>& setUp) {
      EXPECT_EQ(::pipe2(ready_, O_CLOEXEC), 0);
      EXPECT_EQ(::pipe2(go_, O_CLOEXEC), 0);
      pid_ = ::fork();
      if (pid_ == 0) {
         char c = setUp() ? 'y' : 'n';
         (void)!::write(ready_[1], &c, 1);
         (void)!::read(go_[0], &c, 1);
         ::_exit(0);
      }
      char c = 'n';
      EXPECT_EQ(::read(ready_[0], &c, 1), 1);
      ok_ = c == 'y';
   }
   ~Holder() {
      char c = 'g';
      (void)!::write(go_[1], &c, 1);
      ::waitpid(pid_, nullptr, 0);
      for (int fd : {ready_[0], ready_[1], go_[0], go_[1]}) {
         ::close(fd);
      }
   }
   pid_t pid() const { return pid_; }
   bool ok() const { return ok_; }

private:
   int ready_[2] = {-1, -1};
   int go_[2] = {-1, -1};
   pid_t pid_ = -1;
   bool ok_ = false;
};

class FileLockTest : public ::testing::Test {
protected:
   std::shared_ptr<CaptureHandler> capture_ = CaptureHandler::make();
   CaptureHandler& h_ = *capture_;
   TempDir dir_;
};

TEST_F(FileLockTest, CommandsAreTheLinuxValues) {
   EXPECT_EQ(Korvo::cmd_F_OFD_SETLK(), 37);
   EXPECT_EQ(Korvo::cmd_F_OFD_GETLK(), 36);
#ifdef F_OFD_SETLK
   EXPECT_EQ(Korvo::cmd_F_OFD_SETLK(), F_OFD_SETLK);
   EXPECT_EQ(Korvo::cmd_F_OFD_GETLK(), F_OFD_GETLK);
#endif
}

TEST_F(FileLockTest, LockCreatesTheFileAndReleaseKeepsIt) {
   const std::string directory = dir_ / "locks/deeper";
   FileLock lock(h_, directory, "daemon.lock");
   EXPECT_EQ(lock.file(), directory + "/daemon.lock");
   EXPECT_FALSE(std::filesystem::exists(directory)) << "construction touches nothing";
   EXPECT_EQ(lock.fd(), -1);
   EXPECT_EQ(lock.ownerPid(), -1);

   ASSERT_TRUE(lock.lock());
   EXPECT_EQ(KorvoTest::permissions(directory), 0777u);
   EXPECT_EQ(KorvoTest::permissions(lock.file()), 0666u);
   ASSERT_GE(lock.fd(), 0);
   EXPECT_EQ(::fcntl(lock.fd(), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
   EXPECT_EQ(lock.ownerPid(), ::getpid());
   EXPECT_TRUE(h_.has(5, "FileLock::lock() acquired lock on file:" + lock.file()));

   lock.release();
   EXPECT_EQ(lock.fd(), -1);
   EXPECT_EQ(lock.ownerPid(), -1);
   EXPECT_TRUE(std::filesystem::exists(lock.file()));
   EXPECT_TRUE(h_.has(5, "FileLock::release() released lock on file:" + lock.file()));

   FileLock bare(h_, "", "relative.lock");
   EXPECT_EQ(bare.file(), "relative.lock");
}

TEST_F(FileLockTest, TwoLocksOnOneFileConflictInOneProcess) {
   FileLock first(h_, dir_.path(), "one.lock");
   FileLock second(h_, dir_.path(), "one.lock");
   ASSERT_TRUE(first.lock());
   EXPECT_FALSE(second.lock());
   EXPECT_TRUE(h_.has(1, "FileLock::lock() error: conflicting lock held on file:" + second.file()));
   EXPECT_EQ(second.fd(), -1);
   EXPECT_EQ(second.ownerPid(), -1);
   first.release();
   EXPECT_TRUE(second.lock()) << "free again once released";
}

TEST_F(FileLockTest, ReentryOnlyWhenAskedFor) {
   FileLock lock(h_, dir_.path(), "re.lock");
   ASSERT_TRUE(lock.lock(true));
   const int fd = lock.fd();
   EXPECT_TRUE(lock.lock(true));
   EXPECT_TRUE(h_.has(5, "FileLock::lock() re-entry held by pid:" + std::to_string(::getpid()) +
                             " on file:" + lock.file()));
   EXPECT_EQ(lock.fd(), fd) << "re-entry does not open the file again";
   EXPECT_FALSE(lock.lock(false)) << "without re-entry the lock conflicts with itself";
   EXPECT_EQ(lock.fd(), fd) << "and the held lock is untouched";

   lock.closeFd();
   EXPECT_EQ(lock.ownerPid(), ::getpid()) << "closeFd() leaves the owner";
   FileLock other(h_, dir_.path(), "re.lock");
   EXPECT_TRUE(other.lock()) << "closing the only descriptor dropped the lock";
   EXPECT_FALSE(lock.lock(true)) << "re-entry needs a lock that is still held";
}

TEST_F(FileLockTest, DestroyingAHeldLockReleasesIt) {
   {
      FileLock scoped(h_, dir_.path(), "scoped.lock");
      ASSERT_TRUE(scoped.lock());
   }
   EXPECT_TRUE(h_.has(5, "FileLock::~FileLock() file:"));
   FileLock after(h_, dir_.path(), "scoped.lock");
   EXPECT_TRUE(after.lock());
}

TEST_F(FileLockTest, MisuseGoesThroughTheAssertionPath) {
   const std::string slash =
       KorvoTest::assertionText([&] { FileLock bad(h_, dir_.path(), "a/b"); });
   EXPECT_NE(slash.find("Korvo::FileLock::FileLock() unexpected '/' in filename: a/b"),
             std::string::npos)
       << slash;
   FileLock idle(h_, dir_.path(), "idle.lock");
   EXPECT_NE(KorvoTest::assertionText([&] { idle.release(); })
                 .find("FileLock::release() attempting to release a lock that is not currently "
                       "held. File:" +
                       idle.file()),
             std::string::npos);

   Util::fileWrite(h_, dir_ / "plain", "not a directory");
   FileLock underFile(h_, dir_ / "plain/sub", "x.lock");
   EXPECT_NE(KorvoTest::assertionText([&] { underFile.lock(); })
                 .find("FileLock::lock() unexpected mkpath() error " + (dir_ / "plain/sub") +
                       ": Not a directory"),
             std::string::npos);

   idle.closeFd();
   EXPECT_TRUE(h_.has(5, "FileLock::closeFd() no active fd: nothing to do"));
}

TEST_F(FileLockTest, UnwritableDirectoriesFailByReturnValue) {
   FileLock inProc(h_, "/proc", "korvo-test.lock");
   EXPECT_FALSE(inProc.lock());
   EXPECT_TRUE(h_.has(1, "FileLock::lock() error: could not open lock file:/proc/korvo-test.lock "))
       << h_.all();

   ASSERT_EQ(::chmod(dir_.path().c_str(), 0555), 0);
   const int code = KorvoTest::runUnprivileged([&] {
      FileLock denied(h_, dir_.path(), "denied.lock");
      return !denied.lock() && h_.has(1, "could not open lock file:") ? 0 : 1;
   });
   ::chmod(dir_.path().c_str(), 0700);
   if (code != KorvoTest::childSkipped) {
      EXPECT_EQ(code, 0);
   }
}

TEST_F(FileLockTest, AForkedChildMayCloseButNotRelease) {
   FileLock lock(h_, dir_.path(), "shared.lock");
   ASSERT_TRUE(lock.lock());
   const pid_t parent = ::getpid();
   const int code = KorvoTest::runInChild([&] {
      if (Util::readLockPid(h_, lock.file()) != parent) {
         return 1;  // parent and child share the lock; the lower pid is reported
      }
      const std::string text = KorvoTest::assertionText([&] { lock.release(); });
      const std::string expected =
          "FileLock::release() called from child process:" + std::to_string(::getpid()) +
          " of owner pid:" + std::to_string(parent);
      if (text.find(expected) == std::string::npos) {
         return 2;
      }
      lock.closeFd();
      FileLock mine(h_, dir_.path(), "shared.lock");
      if (mine.lock()) {
         return 3;  // the parent must still hold it
      }
      return lock.fd() == -1 ? 0 : 4;
   });
   EXPECT_EQ(code, 0);
   FileLock other(h_, dir_.path(), "shared.lock");
   EXPECT_FALSE(other.lock()) << "the child's closeFd() left the parent's lock alone";
   lock.release();
   EXPECT_TRUE(other.lock());
}

TEST_F(FileLockTest, ReleasingOrDestroyingInAForkedChildAborts) {
   GTEST_FLAG_SET(death_test_style, "fast");
   auto* lock = new FileLock(h_, dir_.path(), "death.lock");
   ASSERT_TRUE(lock->lock());
   // Death tests run their statement in a forked child: exactly the misuse.
   EXPECT_DEATH(lock->release(),
                "Korvo::Assert aborting because: FileLockCpp:release:[0-9]+: "
                "FileLock::release\\(\\) called from child process:");
   EXPECT_DEATH(delete lock, "called from child process:");
   delete lock;  // in the owner: releases
   FileLock after(h_, dir_.path(), "death.lock");
   EXPECT_TRUE(after.lock());
}

TEST_F(FileLockTest, ReadLockPidFindsTheHolderInAnotherProcess) {
   const std::string path = dir_ / "held.lock";
   {
      Holder holder([&] {
         static std::shared_ptr<CaptureHandler> quiet = CaptureHandler::make();
         auto* lock = new FileLock(*quiet, dir_.path(), "held.lock");  // held until _exit
         return lock->lock();
      });
      ASSERT_TRUE(holder.ok());
      EXPECT_EQ(Util::readLockPid(h_, path), holder.pid());
      EXPECT_TRUE(h_.has(5, "Util::readLockPid() found owner pid:" + std::to_string(holder.pid())));
   }
   EXPECT_EQ(Util::readLockPid(h_, path), 0) << "the holder has gone";

   {
      Holder posix([&] {
         const int fd = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
         struct flock request = {};
         request.l_type = F_WRLCK;
         request.l_whence = SEEK_SET;
         return fd >= 0 && ::fcntl(fd, F_SETLK, &request) == 0;
      });
      ASSERT_TRUE(posix.ok());
      EXPECT_EQ(Util::readLockPid(h_, path), posix.pid()) << "POSIX locks are found too";
   }

   {
      Holder lockElsewhere([&] {
         FileLock* other = new FileLock(h_, dir_.path(), "other.lock");
         return other->lock();
      });
      Holder openOnly([&] { return ::open(path.c_str(), O_RDONLY) >= 0; });
      ASSERT_TRUE(lockElsewhere.ok());
      ASSERT_TRUE(openOnly.ok());
      h_.clear();
      EXPECT_EQ(Util::readLockPid(h_, path), 0);
      EXPECT_TRUE(h_.has(5, "Util::readLockPid() pid:" + std::to_string(openOnly.pid()) +
                                " file:" + path + " is open, but not locked associated with lock"))
          << h_.all();
   }

   EXPECT_EQ(Util::readLockPid(h_, dir_ / "missing.lock"), -1);
}

TEST_F(FileLockTest, AfterReleaseAnotherProcessTakesTheLockAtOnce) {
   FileLock lock(h_, dir_.path(), "handover.lock");
   ASSERT_TRUE(lock.lock());
   auto tryInChild = [&] {
      return KorvoTest::runInChild([&] {
         lock.closeFd();  // the child's copy of the inherited descriptor
         FileLock mine(h_, dir_.path(), "handover.lock");
         const bool taken = mine.lock();
         if (taken) {
            mine.release();
         }
         return taken ? 0 : 1;
      });
   };
   EXPECT_EQ(tryInChild(), 1);
   lock.release();
   EXPECT_EQ(tryInChild(), 0);
}

TEST_F(FileLockTest, LockTextsAreRecognised) {
   EXPECT_TRUE(Util::lockTextHasHeldLock("1: OFDLCK ADVISORY  WRITE -1 08:01:1234 0 EOF\n"));
   EXPECT_TRUE(Util::lockTextHasHeldLock("2: POSIX  ADVISORY  READ 77 fe:00:1 0 100"));
   EXPECT_TRUE(Util::lockTextHasHeldLock(
       "pos:\t0\nflags:\t02100002\nmnt_id:\t24\nino:\t5\nlock:\t1: OFDLCK ADVISORY  WRITE -1 "
       "fe:00:5 0 EOF\n"));
   EXPECT_FALSE(Util::lockTextHasHeldLock("1: FLOCK  ADVISORY  WRITE 12 08:01:1 0 EOF"));
   EXPECT_FALSE(Util::lockTextHasHeldLock("1: -> POSIX  ADVISORY  WRITE 12 08:01:1 0 EOF"))
       << "a waiting request holds nothing";
   EXPECT_FALSE(Util::lockTextHasHeldLock("pos:\t0\nflags:\t02\nmnt_id:\t24\n"));
   EXPECT_FALSE(Util::lockTextHasHeldLock("POSIX OFDLCK"));
   EXPECT_FALSE(Util::lockTextHasHeldLock(""));
   EXPECT_FALSE(Util::lockTextHasHeldLock("lock:"));
}

}  // namespace
