#include <Korvo/FileLock.h>
#include <Korvo/Util.h>

#include <fcntl.h>
#include <sys/stat.h>

#include <filesystem>

#include "UtilTestSupport.h"

namespace {

using Korvo::FileLock;
using KorvoTest::assertionText;
namespace Util = Korvo::Util;

// A child process that runs `setUp` and then waits until the object goes, so the
// test can look at what it holds meanwhile.
class Holder {
public:
   explicit Holder(const std::function<bool()>& setUp) {
      EXPECT_EQ(::pipe2(ready_, O_CLOEXEC) | ::pipe2(go_, O_CLOEXEC), 0);
      if ((pid = ::fork()) == 0) {
         char c = setUp() ? 'y' : 'n';
         (void)!::write(ready_[1], &c, 1);
         (void)!::read(go_[0], &c, 1);
         ::_exit(0);
      }
      char c = 'n';
      ok = ::read(ready_[0], &c, 1) == 1 && c == 'y';
   }
   ~Holder() {
      (void)!::write(go_[1], "g", 1);
      ::waitpid(pid, nullptr, 0);
      for (int fd : {ready_[0], ready_[1], go_[0], go_[1]})
         ::close(fd);
   }
   pid_t pid = -1;
   bool ok = false;

private:
   int ready_[2] = {-1, -1};
   int go_[2] = {-1, -1};
};

class FileLockTest : public ::testing::Test {
protected:
   std::shared_ptr<KorvoTest::CaptureHandler> capture_ =
       std::make_shared<KorvoTest::CaptureHandler>();
   KorvoTest::CaptureHandler& h_ = *capture_;
   KorvoTest::TempDir dir_;
};

TEST_F(FileLockTest, LockCreatesTheFileConflictsAndReleases) {
   EXPECT_EQ(Korvo::cmd_F_OFD_SETLK(), F_OFD_SETLK);
   EXPECT_EQ(Korvo::cmd_F_OFD_GETLK(), F_OFD_GETLK);
   const std::string directory = dir_ / "locks/deeper";
   FileLock lock(h_, directory, "daemon.lock"), second(h_, directory, "daemon.lock");
   EXPECT_EQ(lock.file(), directory + "/daemon.lock");
   EXPECT_FALSE(std::filesystem::exists(directory)) << "construction touches nothing";
   ASSERT_TRUE(lock.lock());
   EXPECT_EQ(KorvoTest::permissions(directory), 0777u);
   EXPECT_EQ(KorvoTest::permissions(lock.file()), 0666u);
   EXPECT_EQ(::fcntl(lock.fd(), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
   EXPECT_EQ(lock.ownerPid(), ::getpid());

   EXPECT_FALSE(second.lock()) << "two locks on one file conflict, even in one process";
   EXPECT_TRUE(h_.has(1, "FileLock::lock() error: conflicting lock held on file:" + lock.file()));
   EXPECT_EQ(second.fd(), -1);
   lock.release();
   EXPECT_EQ(lock.ownerPid(), -1);
   EXPECT_TRUE(std::filesystem::exists(lock.file()));
   EXPECT_TRUE(second.lock()) << "free again once released";
   EXPECT_EQ(FileLock(h_, "", "relative.lock").file(), "relative.lock");
}

TEST_F(FileLockTest, ReentryOnlyWhenAskedForAndDestroyingReleases) {
   auto lock = std::make_unique<FileLock>(h_, dir_.path(), "re.lock");
   ASSERT_TRUE(lock->lock(true));
   const int fd = lock->fd();
   EXPECT_TRUE(lock->lock(true));
   EXPECT_EQ(lock->fd(), fd) << "re-entry does not open the file again";
   EXPECT_FALSE(lock->lock(false)) << "without re-entry the lock conflicts with itself";
   EXPECT_EQ(lock->fd(), fd) << "and the held lock is untouched";
   FileLock other(h_, dir_.path(), "re.lock");
   lock.reset();
   ASSERT_TRUE(other.lock()) << "destroying a held lock released it";
   other.closeFd();
   EXPECT_EQ(other.ownerPid(), ::getpid()) << "closeFd() leaves the owner";
   FileLock third(h_, dir_.path(), "re.lock");
   EXPECT_TRUE(third.lock()) << "closing the only descriptor dropped the lock";
   EXPECT_FALSE(other.lock(true)) << "re-entry needs a lock that is still held";
}

TEST_F(FileLockTest, MisuseGoesThroughTheAssertionPathAndFailuresByReturnValue) {
   Util::fileWrite(h_, dir_ / "plain", "not a directory");
   FileLock idle(h_, dir_.path(), "idle.lock"), underFile(h_, dir_ / "plain/sub", "x.lock");
   const std::pair<std::function<void()>, std::string> misuses[] = {
       {[&] { FileLock(h_, dir_.path(), "a/b"); },
        "Korvo::FileLock::FileLock() unexpected '/' in filename: a/b"},
       {[&] { idle.release(); },
        "FileLock::release() attempting to release a lock that is not currently held. File:" +
            idle.file()},
       {[&] { underFile.lock(); },
        "FileLock::lock() unexpected mkpath() error " + (dir_ / "plain/sub") + ": Not a directory"},
   };
   for (const auto& [call, text] : misuses)
      EXPECT_NE(assertionText(call).find(text), std::string::npos) << text;
   idle.closeFd();  // nothing to close

   FileLock inProc(h_, "/proc", "korvo-test.lock");
   EXPECT_FALSE(inProc.lock());
   EXPECT_TRUE(
       h_.has(1, "FileLock::lock() error: could not open lock file:/proc/korvo-test.lock "));
   ASSERT_EQ(::chmod(dir_.path().c_str(), 0555), 0);
   const int code = KorvoTest::runUnprivileged(
       [&] { return FileLock(h_, dir_.path(), "denied.lock").lock() ? 1 : 0; });
   ::chmod(dir_.path().c_str(), 0700);
   if (code != KorvoTest::childSkipped) {
      EXPECT_EQ(code, 0) << "an unwritable directory";
   }
}

TEST_F(FileLockTest, AForkedChildMayCloseButNotRelease) {
   FileLock lock(h_, dir_.path(), "shared.lock");
   ASSERT_TRUE(lock.lock());
   const pid_t parent = ::getpid();
   const int code = KorvoTest::runInChild([&] {
      const std::string expected =
          "FileLock::release() called from child process:" + std::to_string(::getpid()) +
          " of owner pid:" + std::to_string(parent);
      if (assertionText([&] { lock.release(); }).find(expected) == std::string::npos)
         return 1;
      lock.closeFd();
      return FileLock(h_, dir_.path(), "shared.lock").lock() ? 2 : 0;  // the parent holds it
   });
   EXPECT_EQ(code, 0);
   FileLock other(h_, dir_.path(), "shared.lock");
   EXPECT_FALSE(other.lock()) << "the child's closeFd() left the parent's lock alone";

   GTEST_FLAG_SET(death_test_style, "fast");
   auto* owned = new FileLock(h_, dir_.path(), "death.lock");
   ASSERT_TRUE(owned->lock());
   // Death tests run their statement in a forked child: exactly the misuse.
   EXPECT_DEATH(owned->release(),
                "Korvo::Assert aborting because: FileLockCpp:release:[0-9]+: "
                "FileLock::release\\(\\) called from child process:");
   EXPECT_DEATH(delete owned, "called from child process:");
   delete owned;  // in the owner: releases
   EXPECT_TRUE(FileLock(h_, dir_.path(), "death.lock").lock());
}

TEST_F(FileLockTest, ReadLockPidFindsTheHolderInAnotherProcess) {
   const std::string path = dir_ / "held.lock";
   {
      Holder holder([&] { return (new FileLock(h_, dir_.path(), "held.lock"))->lock(); });
      ASSERT_TRUE(holder.ok);
      EXPECT_EQ(Util::readLockPid(h_, path), holder.pid);
   }
   EXPECT_EQ(Util::readLockPid(h_, path), 0) << "the holder has gone";
   {
      Holder posix([&] {
         struct flock request = {};
         request.l_type = F_WRLCK;
         return ::fcntl(::open(path.c_str(), O_RDWR | O_CLOEXEC), F_SETLK, &request) == 0;
      });
      ASSERT_TRUE(posix.ok);
      EXPECT_EQ(Util::readLockPid(h_, path), posix.pid) << "POSIX locks are found too";
   }
   {
      Holder lockElsewhere([&] { return (new FileLock(h_, dir_.path(), "other.lock"))->lock(); });
      Holder openOnly([&] { return ::open(path.c_str(), O_RDONLY) >= 0; });
      ASSERT_TRUE(lockElsewhere.ok && openOnly.ok);
      EXPECT_EQ(Util::readLockPid(h_, path), 0) << "open, but not locked";
   }
   EXPECT_EQ(Util::readLockPid(h_, dir_ / "missing.lock"), -1);

   const std::pair<const char*, bool> texts[] = {
       {"1: OFDLCK ADVISORY  WRITE -1 08:01:1234 0 EOF\n", true},
       {"2: POSIX  ADVISORY  READ 77 fe:00:1 0 100", true},
       {"pos:\t0\nflags:\t02100002\nlock:\t1: OFDLCK ADVISORY  WRITE -1 fe:00:5 0 EOF\n", true},
       {"1: FLOCK  ADVISORY  WRITE 12 08:01:1 0 EOF", false},
       {"1: -> POSIX  ADVISORY  WRITE 12 08:01:1 0 EOF", false},  // a waiting request
       {"pos:\t0\nflags:\t02\nmnt_id:\t24\n", false},
       {"POSIX OFDLCK", false},
       {"lock:", false},
   };
   for (const auto& [text, held] : texts)
      EXPECT_EQ(Util::lockTextHasHeldLock(text), held) << text;
}

}  // namespace
