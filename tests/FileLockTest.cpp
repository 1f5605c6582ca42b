#include <Korvo/FileLock.h>
#include <Korvo/Util.h>

#include <fcntl.h>

#include <filesystem>

#include "UtilParse.h"
#include "UtilTestSupport.h"

using Korvo::FileLock;
using KorvoTest::assertionText;
namespace Util = Korvo::Util;
using FileLockTest = KorvoTest::UtilFixture;

TEST_F(FileLockTest, LockCreatesTheFileConflictsAndReleases) {
   EXPECT_EQ(Korvo::cmd_F_OFD_GETLK(), F_OFD_GETLK);
   const std::string directory = dir_ / "locks/deeper";
   FileLock lock(h_, directory, "daemon.lock"), second(h_, directory, "daemon.lock");
   EXPECT_FALSE(std::filesystem::exists(directory)) << "construction touches nothing";
   ASSERT_TRUE(lock.lock());
   EXPECT_TRUE(KorvoTest::modeOf(directory) == 040777 && KorvoTest::modeOf(lock.file()) == 0100666);
   EXPECT_FALSE(second.lock()) << "two locks on one file conflict, even in one process";
   EXPECT_TRUE(lock.lock(true)) << "unless re-entry is asked for";
   lock.release();
   EXPECT_EQ(lock.ownerPid(), -1);
   EXPECT_FALSE(FileLock(h_, "/proc", "korvo.lock").lock()) << "an unwritable directory";
   {
      FileLock scoped(h_, dir_.path(), "x.lock");
      EXPECT_TRUE(scoped.lock());
   }
   ASSERT_TRUE(second.lock() && second.lock(true) && FileLock(h_, dir_.path(), "x.lock").lock())
       << "free again once released or destroyed";
   second.closeFd();
   second.closeFd();  // nothing left to close
   EXPECT_TRUE(lock.lock()) << "closing the only descriptor dropped the lock";
   EXPECT_FALSE(second.lock(true)) << "re-entry needs a lock that is still held";
}

TEST_F(FileLockTest, MisuseGoesThroughTheAssertionPath) {
   Util::fileWrite(h_, dir_ / "plain", "");
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
}

TEST_F(FileLockTest, AForkedChildMayCloseButNotRelease) {
   FileLock lock(h_, dir_.path(), "shared.lock");
   ASSERT_TRUE(lock.lock());
   auto closeInChild = [&] {
      lock.closeFd();
      ::_exit(FileLock(h_, dir_.path(), "shared.lock").lock() ? 1 : 0);
   };
   EXPECT_EXIT(closeInChild(), ::testing::ExitedWithCode(0), "") << "the parent still holds it";
   EXPECT_FALSE(FileLock(h_, dir_.path(), "shared.lock").lock())
       << "the child's closeFd() left the parent's lock alone";
   GTEST_FLAG_SET(death_test_style, "fast");
   // Death tests run their statement in a forked child: exactly the misuse.
   EXPECT_DEATH(lock.release(),
                "Korvo::Assert aborting because: FileLockCpp:release:[0-9]+: "
                "FileLock::release\\(\\) called from child process:[0-9]+ of owner pid:" +
                    std::to_string(::getpid()));
   EXPECT_DEATH(lock.~FileLock(), "called from child process:");
}

TEST_F(FileLockTest, ReadLockPidFindsTheHolderInAnotherProcess) {
   const std::string path = dir_ / "held.lock";
   pid_t pid = KorvoTest::holder([&] { (new FileLock(h_, dir_.path(), "held.lock"))->lock(); });
   EXPECT_EQ(Util::readLockPid(h_, path), pid);
   ::kill(pid, SIGKILL);
   ::waitpid(pid, nullptr, 0);
   EXPECT_EQ(Util::readLockPid(h_, path), 0) << "the holder has gone";
   pid = KorvoTest::holder([&] { ::open(path.c_str(), O_RDONLY); });
   EXPECT_EQ(Util::readLockPid(h_, path), 0) << "open, but not locked";
   ::kill(pid, SIGKILL);
   ::waitpid(pid, nullptr, 0);
   EXPECT_EQ(Util::readLockPid(h_, dir_ / "missing.lock"), -1);

   const std::pair<const char*, bool> texts[] = {
       {"lock:\t1: OFDLCK ADVISORY  WRITE -1 08:01:1234 0 EOF\n", true},
       {"2: POSIX  ADVISORY  READ 77 fe:00:1 0 100", true},  // a lock of fcntl(F_SETLK)
       {"1: FLOCK  ADVISORY  WRITE 12 08:01:1 0 EOF", false},
       {"1: -> POSIX  ADVISORY  WRITE 12 08:01:1 0 EOF", false},  // a waiting request
   };
   for (const auto& [text, held] : texts)
      EXPECT_EQ(Util::lockTextHasHeldLock(text), held) << text;
}
