#include <Korvo/Allocator.h>

#include <gtest/gtest.h>

namespace {

struct Widget {
   explicit Widget(int v) : value(v) {}
   int value;
};

TEST(AllocatorTest, MakesSharedObjectsInOneAllocation) {
   auto w = Korvo::makeShared<Widget>(7);
   ASSERT_TRUE(w);
   EXPECT_EQ(w->value, 7);
   EXPECT_EQ(w.use_count(), 1);
   std::weak_ptr<Widget> weak = w;
   w.reset();
   EXPECT_TRUE(weak.expired());
}

}  // namespace
