#include <Korvo/Mappings.h>

#include "TestSupport.h"

using Korvo::MappingInfos;
using Korvo::PidMappings;

const std::string sample =
    "00400000-00452000 r-xp 00000000 08:02 173521      /usr/bin/dbus-daemon\n"
    "00e03000-00e24000 rw-p 00051000 00:00 0                                  [heap]\n"
    "7f2c0000-7f2c1000 rw-p 00000000 00:00 0 \n"
    "7f2c1000-7f2c2000 ---p 0001c000 fe:01 99      /lib/libx.so\n"
    "7f2c2000-7f2c3000 r--p 0001c000 fe:01 99      /lib/libx.so\n";

TEST(MappingsTest, ParseDisplayAndFind) {
   const MappingInfos infos = MappingInfos::parse(sample);
   std::ostringstream shown;
   shown << infos[0] << ' ' << 255 << MappingInfos::parse(sample.substr(0, 71)) << MappingInfos();
   EXPECT_EQ(shown.str(),
             "MappingInfo { start:0x400000 end:0x452000 perms:r-xp offset:0x0 major:0x8 minor:0x2 "
             "inode:0x173521 path:/usr/bin/dbus-daemon } ffMappingInfos [\nMappingInfo { "
             "start:0x400000 end:0x452000 perms:r-xp offset:0x0 major:0x8 minor:0x2 inode:0x173521 "
             "path:/usr/bin/dbus-daemon }\n]MappingInfos [\n]")
       << "the inode is read in hexadecimal, as displayed; the stream stays in hexadecimal";
   ASSERT_EQ(infos.size(), 5u);
   EXPECT_TRUE(infos[1].path == "[heap]" && infos[2].path.empty()) << "the third is anonymous";
   // Reading stops at the first line that does not scan, or after an overlong path.
   const MappingInfos gone =
       MappingInfos::parse("1-2 r 0 8:2 7 /tmp/gone (deleted)\n3-4 r 0 0:0 8 /x\n");
   const MappingInfos cut =
       MappingInfos::parse("1-2 r 0 0:0 0 /" + std::string(5000, 'p') + "\n3-4 r 0 0:0 0\n");
   EXPECT_TRUE(gone.size() == 1 && gone[0].path == "/tmp/gone");
   EXPECT_TRUE(cut.size() == 1 && cut[0].path.size() == 4096u);
   auto at = [&](uintptr_t a) { return infos.find(reinterpret_cast<const void*>(a)).start; };
   EXPECT_EQ(at(0x7f2c1fff), 0x7f2c1000u);
   EXPECT_EQ(at(0x7f2c2000), 0x7f2c2000u) << "the end is not part of a mapping";
   EXPECT_EQ(infos.find("/lib/libx.so", 0x1c000).perms, "r--p");
   EXPECT_TRUE(infos.find("/usr/bin/dbus-daemon", 0x1000).empty());
   EXPECT_TRUE(MappingInfos::parse("1-2 ---p 0 0:0 1 /g\n").find("/g", 0).empty())
       << "a guard alone is not found";
}

TEST(MappingsTest, PidMappingsReadsAndKeepsAProcessesMaps) {
   const int pid = ::getpid();
   PidMappings::forget(pid);
   EXPECT_TRUE(PidMappings::mappingInfos(pid).empty()) << "nothing read yet";
   const MappingInfos infos = PidMappings::populate(pid);
   EXPECT_EQ(PidMappings::mappingInfos(pid).size(), infos.size());
   const auto code = infos.find(reinterpret_cast<const void*>(&::getpid));
   EXPECT_EQ(code.perms[2], 'x') << code;
   EXPECT_EQ(infos.find(code.path, code.offset).start, code.start) << code;
   int onStack = 0;
   EXPECT_EQ(infos.find(&onStack).path, "[stack]");
   EXPECT_TRUE(PidMappings::populate(0x7ffffff0).empty());  // and changes nothing:
   EXPECT_EQ(PidMappings::mappingInfos(pid).size(), infos.size());
   PidMappings::forget(pid);
   EXPECT_TRUE(PidMappings::mappingInfos(pid).empty());
}
