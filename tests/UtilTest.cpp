// Files and paths.

#include <Korvo/Util.h>

#include <fcntl.h>

#include <filesystem>

#include "UtilTestSupport.h"

namespace Util = Korvo::Util;
namespace fs = std::filesystem;
using KorvoTest::modeOf;
using UtilTest = KorvoTest::UtilFixture;

TEST_F(UtilTest, MkpathAndTrimpath) {
   const mode_t oldUmask = ::umask(077);
   EXPECT_EQ(Util::mkpath(dir_ / "a/b/c", 0751), 0);
   EXPECT_EQ(::umask(oldUmask), 077) << "mkpath restores the caller's umask";
   EXPECT_EQ(Util::mkpath(dir_ / "a/b/c/", 0700), 0) << "an existing directory is left alone";
   EXPECT_TRUE(modeOf(dir_ / "a") == 040751u && modeOf(dir_ / "a/b/c") == 040751u);
   Util::fileWrite(h_, dir_ / "file", "x");
   EXPECT_TRUE(Util::mkpath(dir_ / "file/sub", 0755) == -1 && Util::mkpath("", 0755) == -1);

   EXPECT_EQ(Util::trimpath(dir_ / "a/b/c", "/b/c"), 0);
   EXPECT_TRUE(fs::exists(dir_ / "a") && !fs::exists(dir_ / "a/b"));
   EXPECT_EQ(Util::trimpath(dir_ / "a/b/c", "b/c"), 0) << "directories already gone pass";
   EXPECT_EQ(Util::trimpath(dir_.path(), dir_.path().substr(1)), -1) << "not empty";
   EXPECT_NE(KorvoTest::assertionText([&] {
                Util::trimpath("/a/c", "b");
             }).find("trailing path is not a terminal substring of absolute path"),
             std::string::npos);
}

TEST_F(UtilTest, FilesAreWrittenReadAndRemoved) {
   const std::string path = dir_ / "data";
   const mode_t oldUmask = ::umask(077);
   Util::fileWrite(h_, path, "hello\n");
   EXPECT_TRUE(Util::touch(h_, dir_ / "fresh"));
   ::umask(oldUmask);
   EXPECT_TRUE(modeOf(path) == 0100666 && modeOf(dir_ / "fresh") == 0100666);
   EXPECT_EQ(Util::fileRead(h_, path, true), "hello");
   const std::string binary(1 << 20, '\0');  // long, and with zero bytes
   Util::fileWrite(h_, path, binary);
   EXPECT_EQ(Util::fileRead(h_, path), binary);
   Util::fileWrite(h_, path, "two\n\n");
   EXPECT_EQ(Util::fileRead(h_, path, true), "two\n") << "truncated; one newline is stripped";
   EXPECT_EQ(Util::fileRead(h_, "/proc/sys/kernel/ostype", true), "Linux") << "size 0 in stat";
   EXPECT_EQ(Util::fileRead(h_, dir_ / "missing") + Util::fileRead(h_, dir_.path()), "");

   EXPECT_EQ(Util::fileSize(h_, path), 5u);
   const int fd = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
   EXPECT_EQ(Util::truncate(h_, path, fd, 3), 0);
   EXPECT_EQ(Util::fileSize(h_, fd), 3u);
   ::close(fd);
   EXPECT_EQ(Util::truncate(h_, path, -1, 3), -1);
   EXPECT_EQ(Util::fileSize(h_, -1) + Util::fileSize(h_, dir_ / "none"), 0u);
   EXPECT_TRUE(Util::touch(h_, path));
   EXPECT_EQ(Util::fileSize(h_, path), 3u) << "an existing file is left as it is";
   EXPECT_FALSE(Util::touch(h_, dir_ / "missing/file"));

   EXPECT_TRUE(Util::fileExists(h_, path) && Util::fileRemove(h_, path));
   EXPECT_FALSE(Util::fileExists(h_, path));
   EXPECT_TRUE(Util::fileRemove(h_, path)) << "already absent";
   EXPECT_FALSE(Util::fileRemove(h_, dir_.path())) << "a directory is not unlinked";
}

TEST_F(UtilTest, FailuresToWriteThrowUnlessToldNotToAndAGoneCwdThrows) {
   const std::string path = dir_ / "missing/file";
   try {
      Util::fileWrite(h_, path, "data");
      ADD_FAILURE() << "no exception";
   } catch (const Korvo::RuntimeException& e) {
      EXPECT_EQ(e.message(),
                "Util::fileWrite() unable to open " + path + " reason:No such file or directory");
   }
   Util::fileWrite(h_, path, "data", true);
   EXPECT_THROW(Util::fileWrite(h_, dir_.path(), "data"), Korvo::RuntimeException);

   const std::string cwd = Util::getCwd(h_);
   EXPECT_EQ(cwd, fs::current_path().string());
   auto getCwdOfAGoneDirectory = [&] {
      if (::chdir(dir_.path().c_str()) == 0 && ::rmdir(dir_.path().c_str()) == 0)
         Util::getCwd(h_);
   };
   EXPECT_THROW(getCwdOfAGoneDirectory(), Korvo::RuntimeException);
   ASSERT_EQ(::chdir(cwd.c_str()), 0);
}
