#include <Korvo/Mappings.h>
#include <Korvo/Util.h>

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <sstream>

#include "UtilTestSupport.h"

namespace {

using Korvo::MappingInfo;
using Korvo::MappingInfos;
using Korvo::PidMappings;

int globalData = 42;

const char* const sample =
    "00400000-00452000 r-xp 00000000 08:02 173521      /usr/bin/dbus-daemon\n"
    "00651000-00652000 r--p 00051000 08:02 173521      /usr/bin/dbus-daemon\n"
    "00e03000-00e24000 rw-p 00000000 00:00 0                                  [heap]\n"
    "7f2c0000-7f2c1000 rw-p 00000000 00:00 0 \n"
    "7f2c1000-7f2c2000 ---p 0001c000 fe:01 99      /lib/libx.so\n"
    "7f2c2000-7f2c3000 r--p 0001c000 fe:01 99      /lib/libx.so\n"
    "7ffc0000-7ffc1000 rw-p 00000000 00:00 0                          [stack]\n";

TEST(MappingsTest, ParseReadsEveryColumn) {
   const MappingInfos infos = MappingInfos::parse(sample);
   ASSERT_EQ(infos.size(), 7u);
   const MappingInfo& first = infos[0];
   EXPECT_EQ(first.start, 0x400000u);
   EXPECT_EQ(first.end, 0x452000u);
   EXPECT_EQ(first.perms, "r-xp");
   EXPECT_EQ(first.offset, 0u);
   EXPECT_EQ(first.major, 8u);
   EXPECT_EQ(first.minor, 2u);
   EXPECT_EQ(first.inode, 0x173521u) << "the inode column is read in hexadecimal, as displayed";
   EXPECT_EQ(first.path, "/usr/bin/dbus-daemon");
   EXPECT_EQ(infos[1].offset, 0x51000u);
   EXPECT_EQ(infos[2].path, "[heap]");
   EXPECT_EQ(infos[3].path, "") << "anonymous";
   EXPECT_EQ(infos[4].major, 0xfeu);
   EXPECT_EQ(infos[6].path, "[stack]");

   EXPECT_TRUE(MappingInfo().empty());
   EXPECT_EQ(MappingInfo(), MappingInfo{});
   EXPECT_FALSE(first.empty());
}

TEST(MappingsTest, ReadingStopsAtTheFirstLineThatDoesNotScan) {
   const std::string deleted =
       "00400000-00401000 r-xp 00000000 08:02 7 /tmp/gone (deleted)\n"
       "00401000-00402000 r--p 00000000 08:02 8 /tmp/kept\n";
   const MappingInfos infos = MappingInfos::parse(deleted);
   ASSERT_EQ(infos.size(), 1u) << "a path with a blank ends the reading, by design";
   EXPECT_EQ(infos[0].path, "/tmp/gone");

   EXPECT_EQ(MappingInfos::parse("").size(), 0u);
   EXPECT_EQ(MappingInfos::parse("garbage\n").size(), 0u);
   EXPECT_EQ(MappingInfos::parse("00400000-00452000 r-xp").size(), 0u);
   EXPECT_EQ(MappingInfos::parse("00400000-00452000 r-xp 0 08:02 1").size(), 1u)
       << "a last line without newline";
   EXPECT_EQ(
       MappingInfos::parse("00400000-00452000 r-xp 0 08:02 1 /a\nzz\n00-01 r 0 0:0 0\n").size(),
       1u);

   const std::string longPath(5000, 'p');
   const MappingInfos cut =
       MappingInfos::parse("1-2 r--p 0 0:0 0 /" + longPath + "\n3-4 r--p 0 0:0 0\n");
   ASSERT_EQ(cut.size(), 1u) << "an overlong path is cut and the reading ends";
   EXPECT_EQ(cut[0].path.size(), 4096u);
   const std::string longPerms = "1-2 " + std::string(100, 'r') + " 0 0:0 0 /x\n";
   EXPECT_EQ(MappingInfos::parse(longPerms).size(), 0u);
}

TEST(MappingsTest, FindByAddressUsesHalfOpenRanges) {
   MappingInfos infos;
   MappingInfo low;
   low.start = 0x1000;
   low.end = 0x2000;
   low.path = "low";
   MappingInfo high = low;
   high.start = 0x2000;
   high.end = 0x3000;
   high.path = "high";
   infos.insert(low);
   infos.insert(high);
   auto at = [&](uintptr_t a) { return infos.find(reinterpret_cast<const void*>(a)).path; };
   EXPECT_EQ(at(0x1000), "low");
   EXPECT_EQ(at(0x1fff), "low");
   EXPECT_EQ(at(0x2000), "high") << "the end is not part of a mapping";
   EXPECT_EQ(at(0x2fff), "high");
   EXPECT_TRUE(infos.find(reinterpret_cast<const void*>(0x3000)).empty());
   EXPECT_TRUE(infos.find(reinterpret_cast<const void*>(0xfff)).empty());
   EXPECT_TRUE(infos.find(nullptr).empty());
   EXPECT_TRUE(MappingInfos().find(reinterpret_cast<const void*>(0x1000)).empty());
}

TEST(MappingsTest, FindByPathAndOffsetSkipsGuards) {
   const MappingInfos infos = MappingInfos::parse(sample);
   const MappingInfo found = infos.find("/lib/libx.so", 0x1c000);
   EXPECT_EQ(found.perms, "r--p");
   EXPECT_EQ(found.start, 0x7f2c2000u);
   EXPECT_EQ(infos.find("/usr/bin/dbus-daemon", 0).perms, "r-xp");
   EXPECT_TRUE(infos.find("/usr/bin/dbus-daemon", 0x1000).empty());
   EXPECT_TRUE(infos.find("/lib/liby.so", 0x1c000).empty());
   EXPECT_TRUE(MappingInfos::parse("1-2 ---p 0 0:0 1 /g\n").find("/g", 0).empty())
       << "a guard alone is not found";
}

TEST(MappingsTest, DisplayForms) {
   const MappingInfos infos = MappingInfos::parse(sample);
   std::ostringstream one;
   one << infos[0] << ' ' << 255;
   EXPECT_EQ(one.str(),
             "MappingInfo { start:0x400000 end:0x452000 perms:r-xp offset:0x0 major:0x8 minor:0x2 "
             "inode:0x173521 path:/usr/bin/dbus-daemon } ff")
       << "and the stream stays in hexadecimal";

   std::ostringstream list;
   list << MappingInfos::parse(std::string(sample).substr(0, 71));
   EXPECT_EQ(list.str(),
             "MappingInfos [\nMappingInfo { start:0x400000 end:0x452000 perms:r-xp offset:0x0 "
             "major:0x8 minor:0x2 inode:0x173521 path:/usr/bin/dbus-daemon }\n]");
   std::ostringstream none;
   none << MappingInfos();
   EXPECT_EQ(none.str(), "MappingInfos [\n]");
}

TEST(MappingsTest, PidMappingsOfThisProcess) {
   const int pid = ::getpid();
   PidMappings::forget(pid);
   EXPECT_TRUE(PidMappings::mappingInfos(pid).empty()) << "nothing read yet";

   const MappingInfos infos = PidMappings::populate(pid);
   ASSERT_GT(infos.size(), 10u);
   EXPECT_EQ(PidMappings::mappingInfos(pid).size(), infos.size());

   const MappingInfo data = infos.find(&globalData);
   EXPECT_EQ(data.perms.substr(0, 2), "rw") << data;
   EXPECT_EQ(data.path, std::filesystem::canonical("/proc/self/exe").string()) << data;
   const MappingInfo code = infos.find(reinterpret_cast<const void*>(&::getpid));
   EXPECT_EQ(code.perms[2], 'x') << code;
   EXPECT_NE(code.path.find("libc.so"), std::string::npos) << code;
   int onStack = 0;
   EXPECT_EQ(infos.find(&onStack).path, "[stack]");

   EXPECT_TRUE(PidMappings::populate(0x7ffffff0).empty());
   EXPECT_TRUE(PidMappings::mappingInfos(pid).size() == infos.size())
       << "a failed read leaves other entries alone";
   PidMappings::forget(pid);
   EXPECT_TRUE(PidMappings::mappingInfos(pid).empty());
   PidMappings::forget(pid);
}

TEST(MappingsTest, GuardMappingsOfARealFileAreSkipped) {
   KorvoTest::TempDir dir;
   const std::string path = dir / "mapped";
   const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
   ASSERT_GE(fd, 0);
   ASSERT_EQ(::ftruncate(fd, 3 * 4096), 0);
   void* guard = ::mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE, fd, 4096);
   void* readable = ::mmap(nullptr, 4096, PROT_READ, MAP_PRIVATE, fd, 4096);
   ASSERT_NE(guard, MAP_FAILED);
   ASSERT_NE(readable, MAP_FAILED);

   const MappingInfos infos = PidMappings::populate(::getpid());
   const std::string canonical = std::filesystem::canonical(path).string();
   EXPECT_EQ(infos.find(guard).perms, "---p");
   const MappingInfo found = infos.find(canonical, 4096);
   EXPECT_EQ(found.perms, "r--p") << infos;
   EXPECT_EQ(found.start, reinterpret_cast<uintptr_t>(readable));
   EXPECT_TRUE(infos.find(canonical, 0).empty());

   ::munmap(guard, 4096);
   ::munmap(readable, 4096);
   ::close(fd);
   PidMappings::forget(::getpid());
}

TEST(MappingsTest, PidMappingsOfAnotherProcess) {
   int go[2];
   ASSERT_EQ(::pipe2(go, O_CLOEXEC), 0);
   const pid_t child = ::fork();
   if (child == 0) {
      ::close(go[1]);
      char c;
      (void)!::read(go[0], &c, 1);
      ::_exit(0);
   }
   const MappingInfos infos = PidMappings::populate(child);
   EXPECT_FALSE(infos.find(&globalData).empty()) << "a fork has the same layout";
   EXPECT_EQ(PidMappings::mappingInfos(child).size(), infos.size());
   ::close(go[1]);
   ::waitpid(child, nullptr, 0);
   ::close(go[0]);
   EXPECT_EQ(PidMappings::populate(child).size(), 0u);
   EXPECT_EQ(PidMappings::mappingInfos(child).size(), infos.size()) << "the old entry stays";
   PidMappings::forget(child);
}

}  // namespace
