#include <Korvo/ConstString.h>

#include <gtest/gtest.h>

#include <sstream>
#include <unordered_map>

using Korvo::ConstStringCache;
using Korvo::ConstStringRef;

TEST(ConstStringTest, HandlesShareOneCountedElementThatLeavesWithTheLast) {
   ConstStringCache cache, other;
   {
      ConstStringRef a = cache.intern("flush"), b = cache.intern(std::string("flush"));
      ASSERT_EQ(a.elem(), b.elem());
      EXPECT_EQ(a.elem()->refCount(), 2u);
      EXPECT_STREQ(b.c_str(), "flush");
      ConstStringRef c = a;             // a copy adds a reference
      ConstStringRef d = std::move(c);  // a move does not
      EXPECT_EQ(a.elem()->refCount(), 3u);
      EXPECT_FALSE(c);
      EXPECT_EQ(c.str(), "");
      c = cache.intern("other");
      EXPECT_EQ(cache.size(), 2u);
      c = d;  // dropping "other" takes it out of the cache
      EXPECT_EQ(cache.find("other"), nullptr);
      const ConstStringRef& alias = c;
      c = alias;
      EXPECT_EQ(a.elem()->refCount(), 4u) << "self-assignment keeps handle and count";

      ConstStringRef name, statsName;
      cache.internPair("task", &name, &statsName);
      EXPECT_EQ(statsName.elem()->refCount(), 2u);
      // Handles of different caches compare by text; one cache's by identity.
      ConstStringRef x = other.intern("flush"), y = other.intern("task");
      EXPECT_TRUE(a == x && !(a == y) && !(a == ConstStringRef()) && !(ConstStringRef() == a));
      std::unordered_map<ConstStringRef, int, Korvo::ConstStringRefHash> counts;
      ++counts[a], ++counts[b], ++counts[name];
      EXPECT_EQ(counts.size(), 2u);
      std::ostringstream os;
      os << name;
      EXPECT_EQ(os.str(), "task");
   }
   EXPECT_EQ(cache.size(), 0u);
   EXPECT_EQ(other.size(), 0u);
}

TEST(ConstStringDeathTest, DestroyingCacheWithOpenReferencesFails) {
   EXPECT_DEATH(
       {
          auto* cache = new ConstStringCache;
          static ConstStringRef survivor;
          survivor = cache->intern("leftover");
          delete cache;
       },
       "Korvo::Assert aborting because: ConstStringCache:.*Destroying ConstStringCache with open "
       "references");
}
