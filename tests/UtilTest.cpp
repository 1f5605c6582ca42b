// Files and paths.

#include <Korvo/Util.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>

#include "UtilTestSupport.h"

namespace {

using KorvoTest::CaptureHandler;
using KorvoTest::TempDir;
namespace Util = Korvo::Util;

std::string slurp(const std::string& path) {
   std::ifstream in(path, std::ios::binary);
   return std::string(std::istreambuf_iterator<char>(in), {});
}

class UtilTest : public ::testing::Test {
protected:
   std::shared_ptr<CaptureHandler> capture_ = CaptureHandler::make();
   CaptureHandler& h_ = *capture_;
   TempDir dir_;
};

TEST_F(UtilTest, MkpathCreatesEveryMissingLevelWithExactlyTheMode) {
   const mode_t oldUmask = ::umask(077);
   const std::string deep = dir_ / "a/b/c";
   EXPECT_EQ(Util::mkpath(deep, 0751), 0);
   EXPECT_EQ(::umask(oldUmask), 077) << "mkpath must restore the caller's umask";
   for (const char* level : {"a", "a/b", "a/b/c"}) {
      EXPECT_TRUE(KorvoTest::isDirectory(dir_ / level)) << level;
      EXPECT_EQ(KorvoTest::permissions(dir_ / level), 0751u) << level;
   }
   EXPECT_EQ(Util::mkpath(deep, 0700), 0) << "an existing directory is success";
   EXPECT_EQ(KorvoTest::permissions(deep), 0751u) << "and is left as it was";
   EXPECT_EQ(Util::mkpath(deep + "/", 0700), 0) << "a trailing slash names the same directory";
}

TEST_F(UtilTest, MkpathReportsWhatCannotBeCreated) {
   Util::fileWrite(h_, dir_ / "file", "x");
   EXPECT_EQ(Util::mkpath(dir_ / "file", 0755), 0) << "an existing non-directory passes, by design";

   errno = 0;
   EXPECT_EQ(Util::mkpath(dir_ / "file/sub/deeper", 0755), -1);
   EXPECT_EQ(errno, ENOTDIR);
   EXPECT_EQ(Util::mkpath("", 0755), -1);

   ASSERT_EQ(::chmod(dir_.path().c_str(), 0555), 0);
   const int code = KorvoTest::runUnprivileged([&] {
      errno = 0;
      const bool failed = Util::mkpath(dir_ / "locked/inner", 0755) == -1 && errno == EACCES;
      return failed && !KorvoTest::isDirectory(dir_ / "locked") ? 0 : 1;
   });
   ::chmod(dir_.path().c_str(), 0700);
   if (code == KorvoTest::childSkipped) {
      GTEST_SKIP() << "cannot drop privileges";
   }
   EXPECT_EQ(code, 0) << "an unwritable parent gives -1 with EACCES";
}

TEST_F(UtilTest, TrimpathRemovesTheTrailingDirectoriesDeepestFirst) {
   ASSERT_EQ(Util::mkpath(dir_ / "a/b/c/d", 0755), 0);
   EXPECT_EQ(Util::trimpath(dir_ / "a/b/c/d", "c/d"), 0);
   EXPECT_TRUE(KorvoTest::isDirectory(dir_ / "a/b"));
   EXPECT_FALSE(std::filesystem::exists(dir_ / "a/b/c"));
   EXPECT_EQ(Util::trimpath(dir_ / "a/b/c/d", "c/d"), 0) << "directories already gone pass";

   ASSERT_EQ(Util::mkpath(dir_ / "x/y/z", 0755), 0);
   Util::fileWrite(h_, dir_ / "x/y/keep", "data");
   errno = 0;
   EXPECT_EQ(Util::trimpath(dir_ / "x/y/z", "y/z"), -1);
   EXPECT_EQ(errno, ENOTEMPTY);
   EXPECT_FALSE(std::filesystem::exists(dir_ / "x/y/z")) << "what was removed stays removed";
   EXPECT_TRUE(std::filesystem::exists(dir_ / "x/y/keep"));

   ASSERT_EQ(Util::mkpath(dir_ / "p/q", 0755), 0);
   EXPECT_EQ(Util::trimpath(dir_ / "p/q", "/q"), 0) << "a leading slash on the trailing part";
   EXPECT_TRUE(KorvoTest::isDirectory(dir_ / "p"));
}

TEST_F(UtilTest, TrimpathRejectsBadArgumentsThroughTheAssertionPath) {
   auto trim = [](const std::string& absolute, const std::string& trailing) {
      return KorvoTest::assertionText([&] { Util::trimpath(absolute, trailing); });
   };
   const std::string empty = trim("", "a");
   EXPECT_EQ(empty.rfind("UtilCpp:trimpath:", 0), 0u) << empty;
   EXPECT_NE(empty.find(": absolute path is empty"), std::string::npos) << empty;
   EXPECT_NE(trim("a/b", "b").find("absolute path is not absolute"), std::string::npos);
   EXPECT_NE(trim("/a/b", "").find("trailing path is empty"), std::string::npos);
   EXPECT_NE(trim("/a/b", "/a/b").find("trailing path longer than absolute path"),
             std::string::npos);
   EXPECT_NE(trim("/a", "/a/b").find("trailing path longer than absolute path"), std::string::npos);
   EXPECT_NE(trim("/a/b", "c").find("trailing path is not a terminal substring of absolute path"),
             std::string::npos);
}

TEST_F(UtilTest, FileWriteAndReadRoundTripAnyBytes) {
   const std::string path = dir_ / "data";
   const mode_t oldUmask = ::umask(077);
   Util::fileWrite(h_, path, "hello\n");
   ::umask(oldUmask);
   EXPECT_EQ(KorvoTest::permissions(path), 0666u);
   EXPECT_EQ(Util::fileRead(h_, path), "hello\n");
   EXPECT_EQ(Util::fileRead(h_, path, true), "hello");

   Util::fileWrite(h_, path, "x");
   EXPECT_EQ(slurp(path), "x") << "an existing file is truncated";

   std::string binary(1 << 20, '\0');
   for (size_t i = 0; i < binary.size(); ++i) {
      binary[i] = static_cast<char>(i * 7);
   }
   Util::fileWrite(h_, path, binary);
   EXPECT_EQ(Util::fileRead(h_, path), binary);

   Util::fileWrite(h_, path, "two\n\n");
   EXPECT_EQ(Util::fileRead(h_, path, true), "two\n") << "only one newline is stripped";
   EXPECT_TRUE(h_.has(5, "Util::fileRead() read "));
   EXPECT_EQ(Util::fileRead(h_, "/proc/sys/kernel/ostype", true), "Linux")
       << "files that report size 0 are read whole";
}

TEST_F(UtilTest, FileWriteFailuresThrowUnlessToldNotTo) {
   const std::string path = dir_ / "missing/file";
   try {
      Util::fileWrite(h_, path, "data");
      ADD_FAILURE() << "no exception";
   } catch (const Korvo::RuntimeException& e) {
      EXPECT_EQ(e.message(),
                "Util::fileWrite() unable to open " + path + " reason:No such file or directory");
   }
   h_.clear();
   EXPECT_NO_THROW(Util::fileWrite(h_, path, "data", true));
   EXPECT_TRUE(h_.has(0, "Util::fileWrite() unable to open " + path + " reason:")) << h_.all();

   EXPECT_THROW(Util::fileWrite(h_, dir_.path(), "data"), Korvo::RuntimeException)
       << "a directory cannot be written";

   ASSERT_EQ(::chmod(dir_.path().c_str(), 0555), 0);
   const int code = KorvoTest::runUnprivileged([&] {
      Util::fileWrite(h_, dir_ / "denied", "data", true);
      bool threw = false;
      try {
         Util::fileWrite(h_, dir_ / "denied", "data");
      } catch (const Korvo::RuntimeException&) {
         threw = true;
      }
      return threw && !std::filesystem::exists(dir_ / "denied") ? 0 : 1;
   });
   ::chmod(dir_.path().c_str(), 0700);
   if (code != KorvoTest::childSkipped) {
      EXPECT_EQ(code, 0) << "an unwritable directory";
   }
}

TEST_F(UtilTest, FileReadOfWhatCannotBeReadIsEmpty) {
   EXPECT_EQ(Util::fileRead(h_, dir_ / "missing"), "");
   EXPECT_TRUE(h_.has(5, "Util::fileRead() unable to open file " + (dir_ / "missing")));
   EXPECT_EQ(Util::fileRead(h_, dir_.path()), "");
   EXPECT_TRUE(h_.has(5, "Util::fileRead() failed to read from " + dir_.path())) << h_.all();
}

TEST_F(UtilTest, FileExistsRemoveAndSize) {
   const std::string path = dir_ / "f";
   EXPECT_FALSE(Util::fileExists(h_, path));
   EXPECT_TRUE(h_.has(5, "Util::fileExists() checking if " + path + " exists, stat result: -1"));
   Util::fileWrite(h_, path, "12345");
   EXPECT_TRUE(Util::fileExists(h_, path));
   EXPECT_EQ(Util::fileSize(h_, path), 5u);

   const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
   EXPECT_EQ(Util::fileSize(h_, fd), 5u);
   ::close(fd);
   EXPECT_EQ(Util::fileSize(h_, -1), 0u);
   EXPECT_TRUE(h_.has(5, "Util::fileSize() unable to fstat fd -1: "));
   EXPECT_EQ(Util::fileSize(h_, dir_ / "none"), 0u);
   EXPECT_TRUE(h_.has(5, "Util::fileSize() unable to stat file " + (dir_ / "none") + ": "));

   h_.clear();
   EXPECT_TRUE(Util::fileRemove(h_, path));
   EXPECT_TRUE(h_.has(5, "Util::fileRemove() removed file " + path));
   EXPECT_FALSE(Util::fileExists(h_, path));
   h_.clear();
   EXPECT_TRUE(Util::fileRemove(h_, path)) << "already absent";
   EXPECT_TRUE(h_.lines().empty()) << "and silently so: " << h_.all();

   EXPECT_FALSE(Util::fileRemove(h_, dir_.path())) << "a directory is not unlinked";
   EXPECT_TRUE(h_.has(0, "Util::fileRemove() unlink() error " + dir_.path() + ": "));
}

TEST_F(UtilTest, TruncateAndTouch) {
   const std::string path = dir_ / "t";
   Util::fileWrite(h_, path, "123456");
   const int fd = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
   EXPECT_EQ(Util::truncate(h_, path, fd, 3), 0);
   EXPECT_EQ(slurp(path), "123");
   ::close(fd);
   EXPECT_EQ(Util::truncate(h_, path, -1, 3), -1);
   EXPECT_TRUE(h_.has(0, "Util::truncate() ftruncate() size:3 " + path + " error: "));

   const std::string fresh = dir_ / "fresh";
   const mode_t oldUmask = ::umask(077);
   EXPECT_TRUE(Util::touch(h_, fresh));
   ::umask(oldUmask);
   EXPECT_EQ(KorvoTest::permissions(fresh), 0666u);
   EXPECT_EQ(Util::fileSize(h_, fresh), 0u);

   // An old time, so a change by touch() could not hide in the same second.
   const timespec old[2] = {{1000000000, 0}, {1000000000, 0}};
   ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), old, 0), 0);
   EXPECT_TRUE(Util::touch(h_, path));
   struct stat st;
   ASSERT_EQ(::stat(path.c_str(), &st), 0);
   EXPECT_EQ(st.st_mtim.tv_sec, 1000000000);
   EXPECT_EQ(st.st_atim.tv_sec, 1000000000);
   EXPECT_EQ(slurp(path), "123");

   EXPECT_FALSE(Util::touch(h_, dir_ / "missing/file"));
   EXPECT_TRUE(h_.has(1, "Util::touch() unable to open " + (dir_ / "missing/file")));
}

TEST_F(UtilTest, GetCwdNamesTheWorkingDirectoryAndThrowsWhenItIsGone) {
   EXPECT_EQ(Util::getCwd(h_), std::filesystem::current_path().string());
   const std::string doomed = dir_ / "doomed";
   ASSERT_EQ(Util::mkpath(doomed, 0755), 0);
   const int code = KorvoTest::runInChild([&] {
      if (::chdir(doomed.c_str()) != 0 || ::rmdir(doomed.c_str()) != 0) {
         return 2;
      }
      try {
         Util::getCwd(h_);
      } catch (const Korvo::RuntimeException& e) {
         const bool traced = h_.has(0, "Util::getCwd() getcwd()");
         return e.message().rfind("Util::getCwd() getcwd()", 0) == 0 && traced ? 0 : 3;
      }
      return 1;
   });
   EXPECT_EQ(code, 0);
}

}  // namespace
