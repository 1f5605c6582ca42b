#include <Korvo/Allocator.h>

#include <gtest/gtest.h>

TEST(AllocatorTest, MakesSharedObjects) {
   auto value = Korvo::makeShared<std::pair<int, int>>(7, 8);
   std::weak_ptr<std::pair<int, int>> weak = value;
   EXPECT_EQ(value->second, 8);
   value.reset();
   EXPECT_TRUE(weak.expired());
}
