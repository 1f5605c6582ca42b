#include <Korvo/Mappings.h>
#include <Korvo/Util.h>

#include <fcntl.h>
#include <sys/mman.h>

#include <filesystem>
#include <sstream>

#include "UtilTestSupport.h"

namespace {

using Korvo::MappingInfo;
using Korvo::MappingInfos;
using Korvo::PidMappings;

int globalData = 42;

const char* const sample =
    "00400000-00452000 r-xp 00000000 08:02 173521      /usr/bin/dbus-daemon\n"
    "00e03000-00e24000 rw-p 00051000 00:00 0                                  [heap]\n"
    "7f2c0000-7f2c1000 rw-p 00000000 00:00 0 \n"
    "7f2c1000-7f2c2000 ---p 0001c000 fe:01 99      /lib/libx.so\n"
    "7f2c2000-7f2c3000 r--p 0001c000 fe:01 99      /lib/libx.so\n";

template <typename T>
std::string shown(const T& value) {
   std::ostringstream os;
   os << value << ' ' << 255;
   return os.str();
}

TEST(MappingsTest, ParseReadsEveryColumnUntilALineDoesNotScan) {
   const MappingInfos infos = MappingInfos::parse(sample);
   ASSERT_EQ(infos.size(), 5u);
   EXPECT_EQ(shown(infos[0]),
             "MappingInfo { start:0x400000 end:0x452000 perms:r-xp offset:0x0 major:0x8 minor:0x2 "
             "inode:0x173521 path:/usr/bin/dbus-daemon } ff")
       << "the inode is read in hexadecimal, as displayed; the stream stays in hexadecimal";
   EXPECT_EQ(infos[1].offset, 0x51000u);
   EXPECT_EQ(infos[1].path, "[heap]");
   EXPECT_EQ(infos[2].path, "") << "anonymous";
   EXPECT_EQ(infos[3].major, 0xfeu);
   EXPECT_EQ(shown(MappingInfos::parse("1-a r 0 0:0 1 /x")),
             "MappingInfos [\nMappingInfo { start:0x1 end:0xa perms:r offset:0x0 major:0x0 "
             "minor:0x0 inode:0x1 path:/x }\n] ff");
   EXPECT_EQ(shown(MappingInfos()), "MappingInfos [\n] 255");

   const std::string longPath(5000, 'p');
   const std::pair<std::string, size_t> texts[] = {
       {"00400000-00401000 r-xp 0 08:02 7 /tmp/gone (deleted)\n1-2 r--p 0 0:0 8 /tmp/kept\n", 1},
       {"", 0},
       {"garbage\n", 0},
       {"00400000-00452000 r-xp", 0},
       {"00400000-00452000 r-xp 0 08:02 1", 1},  // a last line without newline
       {"1-2 r-xp 0 08:02 1 /a\nzz\n3-4 r 0 0:0 0\n", 1},
       {"1-2 r--p 0 0:0 0 /" + longPath + "\n3-4 r--p 0 0:0 0\n", 1},  // cut, and the end
       {"1-2 " + std::string(100, 'r') + " 0 0:0 0 /x\n", 0},
   };
   for (const auto& [text, count] : texts)
      EXPECT_EQ(MappingInfos::parse(text).size(), count) << text.substr(0, 80);
   EXPECT_EQ(MappingInfos::parse(texts[0].first)[0].path, "/tmp/gone");
   EXPECT_EQ(MappingInfos::parse(texts[6].first)[0].path.size(), 4096u);
}

TEST(MappingsTest, FindByHalfOpenAddressRangeOrByPathAndOffsetSkippingGuards) {
   const MappingInfos infos = MappingInfos::parse(sample);
   auto at = [&](uintptr_t a) { return infos.find(reinterpret_cast<const void*>(a)).start; };
   EXPECT_EQ(at(0x400000), 0x400000u);
   EXPECT_EQ(at(0x7f2c1fff), 0x7f2c1000u);
   EXPECT_EQ(at(0x7f2c2000), 0x7f2c2000u) << "the end is not part of a mapping";
   EXPECT_TRUE(infos.find(reinterpret_cast<const void*>(0x7f2c3000)).empty());
   EXPECT_TRUE(infos.find(nullptr).empty());
   EXPECT_EQ(infos.find("/lib/libx.so", 0x1c000).perms, "r--p");
   EXPECT_EQ(infos.find("/usr/bin/dbus-daemon", 0).perms, "r-xp");
   EXPECT_TRUE(infos.find("/usr/bin/dbus-daemon", 0x1000).empty());
   EXPECT_TRUE(MappingInfos::parse("1-2 ---p 0 0:0 1 /g\n").find("/g", 0).empty())
       << "a guard alone is not found";
}

TEST(MappingsTest, PidMappingsReadsAndKeepsAProcessesMaps) {
   KorvoTest::TempDir dir;
   const int fd = ::open(dir.file("mapped").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
   ASSERT_EQ(::ftruncate(fd, 3 * 4096), 0);
   void* guard = ::mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE, fd, 4096);
   void* readable = ::mmap(nullptr, 4096, PROT_READ, MAP_PRIVATE, fd, 4096);
   ASSERT_TRUE(guard != MAP_FAILED && readable != MAP_FAILED);

   const int pid = ::getpid();
   PidMappings::forget(pid);
   EXPECT_TRUE(PidMappings::mappingInfos(pid).empty()) << "nothing read yet";
   const MappingInfos infos = PidMappings::populate(pid);
   EXPECT_EQ(PidMappings::mappingInfos(pid).size(), infos.size());
   const MappingInfo data = infos.find(&globalData);
   EXPECT_EQ(data.perms.substr(0, 2), "rw") << data;
   EXPECT_EQ(data.path, std::filesystem::canonical("/proc/self/exe").string()) << data;
   const MappingInfo code = infos.find(reinterpret_cast<const void*>(&Korvo::Util::decodeMagic));
   EXPECT_EQ(code.perms[2], 'x') << code;
   EXPECT_NE(code.path.find("libKorvo.so"), std::string::npos) << code;
   int onStack = 0;
   EXPECT_EQ(infos.find(&onStack).path, "[stack]");
   const std::string canonical = std::filesystem::canonical(dir.file("mapped")).string();
   EXPECT_EQ(infos.find(guard).perms, "---p");
   EXPECT_EQ(infos.find(canonical, 4096).start, reinterpret_cast<uintptr_t>(readable)) << infos;
   ::munmap(guard, 4096);
   ::munmap(readable, 4096);
   ::close(fd);

   EXPECT_TRUE(PidMappings::populate(0x7ffffff0).empty());
   EXPECT_EQ(PidMappings::mappingInfos(pid).size(), infos.size())
       << "a failed read leaves other entries alone";
   PidMappings::forget(pid);
   EXPECT_TRUE(PidMappings::mappingInfos(pid).empty());

   int go[2];
   ASSERT_EQ(::pipe2(go, O_CLOEXEC), 0);
   const pid_t child = ::fork();
   if (child == 0) {
      char c;
      ::close(go[1]);
      ::_exit(static_cast<int>(::read(go[0], &c, 1)));
   }
   const MappingInfos childInfos = PidMappings::populate(child);
   EXPECT_FALSE(childInfos.find(&globalData).empty()) << "a fork has the same layout";
   ::close(go[1]);
   ::waitpid(child, nullptr, 0);
   ::close(go[0]);
   EXPECT_EQ(PidMappings::populate(child).size(), 0u);
   EXPECT_EQ(PidMappings::mappingInfos(child).size(), childInfos.size()) << "the old entry stays";
   PidMappings::forget(child);
}

}  // namespace
