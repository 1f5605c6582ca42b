#include <Korvo/IntrospectionMap.h>

#include <gtest/gtest.h>

#include <thread>

using Korvo::IntrospectionMap;

// Two threads register, replace, look up and remove printers of their own names.
TEST(IntrospectionMapTest, PrintersUnderThreadsAndHexDumps) {
   const size_t before = IntrospectionMap::printers();
   auto use = [](const std::string& name) {
      for (int i = 0; i < 200; ++i) {
         IntrospectionMap::printerIs(name,
                                     [i](const void*, int n) { return std::to_string(i + n); });
         EXPECT_EQ(IntrospectionMap::printer(name)(nullptr, 1), std::to_string(i + 1));
      }
      IntrospectionMap::printerIs(name, nullptr);
      EXPECT_FALSE(IntrospectionMap::printer(name));
   };
   std::thread other(use, "IntrospectionMapTest::Other");
   use("IntrospectionMapTest::Main");
   other.join();
   EXPECT_EQ(IntrospectionMap::printers(), before);
   const unsigned char bytes[] = {0x00, 0x0f, 0xa0, 0xff};
   EXPECT_EQ(Korvo::dumpHex(bytes, 4) + Korvo::dumpHex(bytes, 0) + Korvo::dumpHex(nullptr, 8),
             "00 0f a0 ffNULL");
}
