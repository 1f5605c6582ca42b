#include <Korvo/ConstString.h>

#include <gtest/gtest.h>

using Korvo::ConstStringCache;
using Korvo::ConstStringRef;

TEST(ConstStringTest, HandlesShareOneCountedElementThatLeavesWithTheLast) {
   ConstStringCache cache, other;
   {
      ConstStringRef a = cache.intern("flush"), b = a, empty;
      EXPECT_EQ(a.elem()->refCount(), 2u);
      EXPECT_STREQ(b.c_str(), "flush");
      EXPECT_TRUE(!empty && empty.str().empty());
      ConstStringRef x = other.intern("flush"), y = other.intern("task");
      EXPECT_TRUE(a == x && !(a == y)) << "handles of different caches compare by text";
   }
   EXPECT_EQ(cache.size(), 0u);
}

TEST(ConstStringDeathTest, DestroyingCacheWithOpenReferencesFails) {
   auto* cache = new ConstStringCache;
   static ConstStringRef survivor = cache->intern("leftover");
   EXPECT_DEATH(delete cache,
                "Korvo::Assert aborting because: ConstStringCache:.*Destroying ConstStringCache "
                "with open references");
   survivor = ConstStringRef();
   delete cache;
}
