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
      ConstStringRef c = a;             // a copy adds a reference
      ConstStringRef d = std::move(c);  // a move does not
      EXPECT_EQ(a.elem(), b.elem());
      EXPECT_EQ(a.elem()->refCount(), 3u);
      EXPECT_TRUE(!c && c.str().empty());
      c = cache.intern("other");
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
      std::unordered_map<ConstStringRef, int, Korvo::ConstStringRefHash> counts{{a, 1}, {b, 2}};
      EXPECT_EQ(counts.size(), 1u);
      std::ostringstream os;
      os << name << statsName.c_str();
      EXPECT_EQ(os.str(), "tasktask");
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
