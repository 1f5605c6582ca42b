#include <Korvo/Exception.h>
#include <Korvo/List.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <random>
#include <vector>

namespace {

struct Item {
   explicit Item(int v) : value(v) {}
   int value;
   Korvo::ListLinkNode<Item> queueLink;
   Korvo::BookmarkListLinkNode<Item> allLink;
};

using Queue = Korvo::List<Item, Korvo::ListLinkNode<Item>, &Item::queueLink>;
using All = Korvo::BookmarkList<Item, Korvo::BookmarkListLinkNode<Item>, &Item::allLink>;

template <typename L>
std::vector<int> values(const L& list) {
   std::vector<int> out;
   for (const Item& item : list) {
      out.push_back(item.value);
   }
   return out;
}

class ListTest : public ::testing::Test {
protected:
   void SetUp() override { Korvo::throwOnAssertFailIs(true); }
   void TearDown() override { Korvo::throwOnAssertFailIs(false); }
};

}  // namespace

TEST_F(ListTest, InsertRemoveAndSplice) {
   Item a(1), b(2), c(3), d(4);
   Queue q;
   EXPECT_TRUE(q.empty());
   EXPECT_EQ(q.first(), nullptr);
   q.pushBack(b);
   q.pushFront(a);
   q.pushBack(d);
   auto it = q.begin();
   ++it;
   ++it;
   q.insertBefore(it, c);
   EXPECT_EQ(values(q), (std::vector<int>{1, 2, 3, 4}));
   EXPECT_EQ(q.first(), &a);
   EXPECT_EQ(q.count(), 4u);
   EXPECT_TRUE(c.queueLink.isLinked());

   Queue::remove(b);  // no list needed: the node knows its neighbours
   EXPECT_FALSE(b.queueLink.isLinked());
   Queue::remove(b);  // harmless when unlinked
   EXPECT_EQ(values(q), (std::vector<int>{1, 3, 4}));

   Queue other;
   other.pushBack(b);
   q.spliceFront(other);
   EXPECT_TRUE(other.empty());
   EXPECT_EQ(values(q), (std::vector<int>{2, 1, 3, 4}));
   other.spliceBack(q);
   EXPECT_EQ(values(other), (std::vector<int>{2, 1, 3, 4}));
   EXPECT_TRUE(q.empty());
   // One element can sit on a plain list and a bookmark list at once (two nodes).
   All all;
   all.pushBack(a);
   EXPECT_TRUE(a.allLink.isLinked() && a.queueLink.isLinked());
   while (Item* first = other.first()) {
      Queue::remove(*first);
   }
   Queue::remove(a);
   All::remove(a);
}

TEST_F(ListTest, LinkingALinkedElementFails) {
   Item a(1);
   Queue q1, q2;
   q1.pushBack(a);
   auto failure = [&](auto f) {
      try {
         f();
      } catch (const Korvo::AssertException& e) {
         return e.message();
      }
      return std::string();
   };
   const std::string text = failure([&] { q2.pushBack(a); });
   EXPECT_EQ(text.rfind("IntrusiveLinkedListBase:", 0), 0u) << text;
   EXPECT_NE(text.find("!( element.*ptrToLinkNode ).isLinked()"), std::string::npos) << text;
   EXPECT_NE(failure([&] { q1.pushFront(a); }), "");
   EXPECT_NE(failure([&] { q2.insertBefore(q2.end(), a); }), "");
   EXPECT_TRUE(q2.empty());
   EXPECT_EQ(q1.count(), 1u);
   Queue::remove(a);

   All all;
   All::Bookmark mark;
   mark.insertBefore(all.end());
   const std::string twice = failure([&] { mark.insertBefore(all.end()); });
   EXPECT_EQ(twice.rfind("IntrusiveBookmarkLinkedList:", 0), 0u) << twice;
   EXPECT_NE(twice.find("!link.isLinked()"), std::string::npos) << twice;
}

TEST_F(ListTest, BookmarksAreInvisibleToIterationFirstAndCount) {
   Item a(1), b(2);
   All all;
   All::Bookmark m1, m2, m3;
   m1.insertBefore(all.end());
   EXPECT_TRUE(all.empty());
   EXPECT_EQ(all.first(), nullptr);
   EXPECT_EQ(all.count(), 0u);
   all.pushBack(a);
   m2.insertBefore(all.end());
   m3.insertBefore(all.end());
   all.pushBack(b);
   // Nodes: m1 a m2 m3 b
   EXPECT_EQ(all.first(), &a);
   EXPECT_EQ(all.count(), 2u);
   EXPECT_EQ(values(all), (std::vector<int>{1, 2}));
   // Through the virtual test as well as by iteration.
   Korvo::BookmarkListLinkNode<Item> bookmarkKind;
   bookmarkKind.kind = Korvo::BookmarkListLinkNode<Item>::kindBookmark;
   EXPECT_TRUE(all.isBookmark(bookmarkKind));
   EXPECT_FALSE(all.isBookmark(a.allLink));
   m1.unlink();
   m2.unlink();
   m3.unlink();
   All::remove(a);
   All::remove(b);
}

TEST_F(ListTest, PausedWalkSurvivesChangesAroundItsBookmark) {
   std::vector<std::unique_ptr<Item>> items;
   All all;
   for (int i = 0; i < 6; ++i) {
      items.push_back(std::make_unique<Item>(i));
      all.pushBack(*items.back());
   }
   All::Bookmark mark;
   std::vector<int> seen;
   // First leg: visit two elements, then pause before the third.
   All::Iterator it = all.resume(mark);  // unlinked bookmark: start at the head
   for (int n = 0; n < 2; ++n, ++it) {
      seen.push_back(it->value);
   }
   mark.insertBefore(it);
   // Meanwhile: the element after the bookmark goes, one goes before it, one is added.
   All::remove(*items[2]);
   All::remove(*items[0]);
   items.push_back(std::make_unique<Item>(6));
   all.pushBack(*items.back());
   // A second bookmark right after the first must be skipped too.
   All::Bookmark other;
   other.insertBefore(all.begin() == all.end() ? all.end() : ++all.begin());
   for (it = all.resume(mark); it != all.end(); ++it) {
      seen.push_back(it->value);
   }
   EXPECT_FALSE(mark.isLinked());
   EXPECT_EQ(seen, (std::vector<int>{0, 1, 3, 4, 5, 6}));
   other.unlink();
   while (Item* first = all.first()) {
      All::remove(*first);
   }
}

TEST_F(ListTest, DestroyedListLeavesElementsUnlinked) {
   Item a(1), b(2);
   All::Bookmark mark;
   {
      Queue q;
      q.pushBack(a);
      q.pushBack(b);
      All all;
      all.pushBack(a);
      mark.insertBefore(all.end());
   }
   EXPECT_FALSE(a.queueLink.isLinked());
   EXPECT_FALSE(b.queueLink.isLinked());
   EXPECT_FALSE(a.allLink.isLinked());
   EXPECT_FALSE(mark.isLinked());
   Queue again;
   again.pushBack(a);  // usable again
   EXPECT_EQ(again.first(), &a);
   Queue::remove(a);
}

// Random operations against a std::deque model, bookmarks sprinkled in.
TEST_F(ListTest, RandomOperationsMatchADequeModel) {
   std::mt19937 gen(12345);
   std::vector<std::unique_ptr<Item>> pool;
   for (int i = 0; i < 64; ++i) {
      pool.push_back(std::make_unique<Item>(i));
   }
   All list;
   std::deque<int> model;
   std::vector<std::unique_ptr<All::Bookmark>> marks(4);
   for (int step = 0; step < 20000; ++step) {
      Item& item = *pool[gen() % pool.size()];
      const bool linked = item.allLink.isLinked();
      switch (gen() % 6) {
         case 0:
            if (!linked) {
               list.pushBack(item);
               model.push_back(item.value);
            }
            break;
         case 1:
            if (!linked) {
               list.pushFront(item);
               model.push_front(item.value);
            }
            break;
         case 2:
            if (!linked && !model.empty()) {
               const size_t pos = gen() % (model.size() + 1);
               auto it = list.begin();
               std::advance(it, pos);
               list.insertBefore(it, item);
               model.insert(model.begin() + pos, item.value);
            }
            break;
         case 3:
            if (linked) {
               All::remove(item);
               model.erase(std::find(model.begin(), model.end(), item.value));
            }
            break;
         case 4: {
            auto& mark = marks[gen() % marks.size()];
            if (mark && mark->isLinked()) {
               mark->unlink();
            } else {
               mark = std::make_unique<All::Bookmark>();
               auto it = list.begin();
               std::advance(it, model.empty() ? 0 : gen() % (model.size() + 1));
               mark->insertBefore(it);
            }
            break;
         }
         case 5:
            marks[gen() % marks.size()].reset();  // destroying a linked bookmark unlinks it
            break;
      }
      ASSERT_EQ(list.count(), model.size());
      ASSERT_EQ(values(list), std::vector<int>(model.begin(), model.end())) << "step " << step;
      ASSERT_EQ(list.first() ? list.first()->value : -1, model.empty() ? -1 : model.front());
   }
   marks.clear();
   while (Item* first = list.first()) {
      All::remove(*first);
   }
}
