#include <Korvo/IntrospectionMap.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <thread>
#include <vector>

namespace {

TEST(DumpHexTest, BytesInMemoryOrder) {
   const unsigned char bytes[] = {0x00, 0x0f, 0xa0, 0xff};
   EXPECT_EQ(Korvo::dumpHex(bytes, 4), "00 0f a0 ff");
   EXPECT_EQ(Korvo::dumpHex(bytes, 1), "00");
   const uint32_t word = 0x01020304;  // little-endian machine: lowest byte first
   EXPECT_EQ(Korvo::dumpHex(&word, 4), "04 03 02 01");
}

TEST(DumpHexTest, NothingToShow) {
   const char c = 'x';
   EXPECT_EQ(Korvo::dumpHex(&c, 0), "");
   EXPECT_EQ(Korvo::dumpHex(&c, -3), "");
   EXPECT_EQ(Korvo::dumpHex(nullptr, 0), "");
   EXPECT_EQ(Korvo::dumpHex(nullptr, 8), "NULL");
}

TEST(IntrospectionMapTest, RegisterReplaceRemove) {
   using Korvo::IntrospectionMap;
   const size_t before = IntrospectionMap::printers();
   EXPECT_FALSE(IntrospectionMap::printer("IntrospectionMapTest::T"));

   IntrospectionMap::printerIs("IntrospectionMapTest::T",
                               [](const void*, int size) { return "one " + std::to_string(size); });
   ASSERT_TRUE(IntrospectionMap::printer("IntrospectionMapTest::T"));
   EXPECT_EQ(IntrospectionMap::printer("IntrospectionMapTest::T")(nullptr, 3), "one 3");
   EXPECT_EQ(IntrospectionMap::printers(), before + 1);

   IntrospectionMap::printerIs("IntrospectionMapTest::T", [](const void*, int) { return "two"; });
   EXPECT_EQ(IntrospectionMap::printer("IntrospectionMapTest::T")(nullptr, 0), "two");
   EXPECT_EQ(IntrospectionMap::printers(), before + 1);

   IntrospectionMap::printerIs("IntrospectionMapTest::T", nullptr);
   EXPECT_FALSE(IntrospectionMap::printer("IntrospectionMapTest::T"));
   EXPECT_EQ(IntrospectionMap::printers(), before);
}

TEST(IntrospectionMapTest, ThreadsRegisterAndLookUpTogether) {
   using Korvo::IntrospectionMap;
   std::vector<std::thread> threads;
   for (int t = 0; t < 4; ++t) {
      threads.emplace_back([t] {
         const std::string name = "IntrospectionMapTest::Thread" + std::to_string(t);
         for (int i = 0; i < 200; ++i) {
            IntrospectionMap::printerIs(name, [i](const void*, int) { return std::to_string(i); });
            EXPECT_EQ(IntrospectionMap::printer(name)(nullptr, 0), std::to_string(i));
         }
         IntrospectionMap::printerIs(name, nullptr);
      });
   }
   for (std::thread& thread : threads) {
      thread.join();
   }
}

}  // namespace
