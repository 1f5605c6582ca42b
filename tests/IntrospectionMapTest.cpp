#include <Korvo/IntrospectionMap.h>

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

namespace {

using Korvo::IntrospectionMap;

TEST(IntrospectionMapTest, DumpHexShowsBytesInMemoryOrder) {
   const unsigned char bytes[] = {0x00, 0x0f, 0xa0, 0xff};
   EXPECT_EQ(Korvo::dumpHex(bytes, 4), "00 0f a0 ff");
   EXPECT_EQ(Korvo::dumpHex(bytes, 0), "");
   EXPECT_EQ(Korvo::dumpHex(nullptr, 8), "NULL");
}

// Threads register, replace, look up and remove printers of their own names.
TEST(IntrospectionMapTest, PrintersAreReplacedAndRemovedUnderThreads) {
   const size_t before = IntrospectionMap::printers();
   std::vector<std::thread> threads;
   for (int t = 0; t < 4; ++t) {
      threads.emplace_back([t] {
         const std::string name = "IntrospectionMapTest::T" + std::to_string(t);
         for (int i = 0; i < 200; ++i) {
            IntrospectionMap::printerIs(name,
                                        [i](const void*, int n) { return std::to_string(i + n); });
            EXPECT_EQ(IntrospectionMap::printer(name)(nullptr, 1), std::to_string(i + 1));
         }
         IntrospectionMap::printerIs(name, nullptr);
         EXPECT_FALSE(IntrospectionMap::printer(name));
      });
   }
   for (std::thread& thread : threads)
      thread.join();
   EXPECT_EQ(IntrospectionMap::printers(), before);
}

}  // namespace
