#include <Korvo/ConstString.h>
#include <Korvo/Exception.h>

#include <gtest/gtest.h>

#include <unordered_map>

using Korvo::ConstStringCache;
using Korvo::ConstStringRef;

TEST(ConstStringTest, InterningSharesOneCountedElement) {
   ConstStringCache cache;
   {
      ConstStringRef a = cache.intern("flush");
      ConstStringRef b = cache.intern(std::string("flush"));
      ASSERT_EQ(a.elem(), b.elem());
      EXPECT_EQ(a.elem()->refCount(), 2u);
      EXPECT_EQ(cache.size(), 1u);
      EXPECT_EQ(a, b);
      EXPECT_EQ(a.str(), "flush");
      EXPECT_STREQ(b.c_str(), "flush");

      ConstStringRef c = a;  // copy adds a reference
      EXPECT_EQ(a.elem()->refCount(), 3u);
      ConstStringRef d = std::move(c);  // move does not
      EXPECT_EQ(a.elem()->refCount(), 3u);
      EXPECT_FALSE(c);
      c = cache.intern("other");
      EXPECT_EQ(cache.size(), 2u);
      c = d;  // reassigning drops "other", which leaves the cache
      EXPECT_EQ(cache.size(), 1u);
      EXPECT_EQ(cache.find("other"), nullptr);
      EXPECT_EQ(a.elem()->refCount(), 4u);
      const ConstStringRef& alias = c;
      c = alias;  // self-assignment keeps the handle and the count
      EXPECT_EQ(a.elem()->refCount(), 4u);
   }
   // Dropping every handle removes the element.
   EXPECT_EQ(cache.size(), 0u);
   EXPECT_EQ(cache.find("flush"), nullptr);
}

TEST(ConstStringTest, PairTakesTwoReferencesInOneStep) {
   ConstStringCache cache;
   ConstStringRef name, statsName;
   cache.internPair("task", &name, &statsName);
   ASSERT_EQ(name.elem(), statsName.elem());
   EXPECT_EQ(name.elem()->refCount(), 2u);
   name = ConstStringRef();
   EXPECT_EQ(statsName.elem()->refCount(), 1u);
   EXPECT_EQ(cache.size(), 1u);
}

TEST(ConstStringTest, NullHandlesAndComparisonAcrossCaches) {
   ConstStringRef empty;
   EXPECT_FALSE(empty);
   EXPECT_EQ(empty.str(), "");
   EXPECT_EQ(empty, ConstStringRef());

   ConstStringCache one, two;
   ConstStringRef a = one.intern("x"), b = two.intern("x"), c = two.intern("y");
   EXPECT_EQ(a, b);  // different caches compare by text
   EXPECT_FALSE(a == c);
   EXPECT_FALSE(a == empty);
   EXPECT_FALSE(empty == a);

   // Identity hashing makes handles usable as keys of one cache's map.
   std::unordered_map<ConstStringRef, int, Korvo::ConstStringRefHash> counts;
   counts[b] += 1;
   counts[two.intern("x")] += 1;
   counts[c] += 1;
   EXPECT_EQ(counts.size(), 2u);
   EXPECT_EQ(counts[b], 2);
}

TEST(ConstStringTest, ManyTextsStayDistinctAndAllLeave) {
   ConstStringCache cache;
   std::vector<ConstStringRef> refs;
   for (int i = 0; i < 1000; ++i) {
      refs.push_back(cache.intern("name" + std::to_string(i % 250)));
   }
   EXPECT_EQ(cache.size(), 250u);
   EXPECT_EQ(cache.find("name7")->refCount(), 4u);
   for (size_t i = 0; i < refs.size(); ++i) {
      EXPECT_EQ(refs[i].str(), "name" + std::to_string(i % 250));
   }
   refs.clear();
   EXPECT_EQ(cache.size(), 0u);
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
