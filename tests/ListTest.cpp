#include <Korvo/List.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <random>
#include <vector>

#include "TestSupport.h"

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
   for (const Item& item : list)
      out.push_back(item.value);
   return out;
}

TEST(ListTest, SpliceDoubleLinkingAndDestruction) {
   Item a(1), b(2), c(3);
   All::Bookmark mark;
   {
      Queue q, other;
      q.pushBack(b);
      q.pushFront(a);
      other.pushBack(c);
      q.spliceFront(other);
      EXPECT_EQ(values(q), (std::vector<int>{3, 1, 2}));
      Queue::remove(c);
      Queue::remove(c);  // harmless when unlinked
      other.pushBack(c);
      q.spliceBack(other);
      EXPECT_TRUE(other.empty());
      EXPECT_EQ(values(q), (std::vector<int>{1, 2, 3}));

      const std::string text =
          KorvoTest::assertionText([&] { other.insertBefore(other.end(), a); });
      EXPECT_EQ(text.rfind("IntrusiveLinkedListBase:", 0), 0u) << text;
      EXPECT_NE(text.find("!( element.*ptrToLinkNode ).isLinked()"), std::string::npos) << text;
      EXPECT_TRUE(other.empty());

      All all;
      all.pushBack(a);  // one element on two lists through its two nodes
      mark.insertBefore(all.end());
      const std::string twice = KorvoTest::assertionText([&] { mark.insertBefore(all.end()); });
      EXPECT_EQ(twice.rfind("IntrusiveBookmarkLinkedList:", 0), 0u) << twice;
      EXPECT_NE(twice.find("!link.isLinked()"), std::string::npos) << twice;
      EXPECT_TRUE(all.isBookmark(*std::prev(all.end().raw())));
      EXPECT_FALSE(all.isBookmark(a.allLink));
   }
   // A destroyed list leaves its elements and bookmarks unlinked and reusable.
   EXPECT_FALSE(a.queueLink.isLinked() || b.queueLink.isLinked() || a.allLink.isLinked());
   EXPECT_FALSE(mark.isLinked());
   Queue again;
   again.pushBack(a);
   EXPECT_EQ(again.first(), &a);
   Queue::remove(a);
}

TEST(ListTest, PausedWalkResumesAfterItsBookmark) {
   std::vector<std::unique_ptr<Item>> items;
   All all;
   for (int i = 0; i < 6; ++i) {
      items.push_back(std::make_unique<Item>(i));
      all.pushBack(*items.back());
   }
   All::Bookmark mark, other;
   std::vector<int> seen;
   All::Iterator it = all.resume(mark);  // an unlinked bookmark starts at the head
   for (int n = 0; n < 2; ++n, ++it)
      seen.push_back(it->value);
   mark.insertBefore(it);
   // Meanwhile the element after the bookmark goes, one before it goes, one is added,
   // and a second bookmark sits right behind the first.
   All::remove(*items[2]);
   All::remove(*items[0]);
   items.push_back(std::make_unique<Item>(6));
   all.pushBack(*items.back());
   other.insertBefore(++all.begin());
   for (it = all.resume(mark); it != all.end(); it++)
      seen.push_back(it->value);
   EXPECT_FALSE(mark.isLinked());
   EXPECT_EQ(seen, (std::vector<int>{0, 1, 3, 4, 5, 6}));
   EXPECT_EQ(all.count(), 5u);
   other.unlink();
   while (Item* first = all.first())
      All::remove(*first);
}

// Random operations against a std::deque model, bookmarks sprinkled in.
TEST(ListTest, RandomOperationsMatchADequeModel) {
   std::mt19937 gen(12345);
   std::vector<std::unique_ptr<Item>> pool;
   for (int i = 0; i < 64; ++i)
      pool.push_back(std::make_unique<Item>(i));
   All list;
   std::deque<int> model;
   std::vector<std::unique_ptr<All::Bookmark>> marks(4);
   auto at = [&](size_t pos) { return std::next(list.begin(), static_cast<long>(pos)); };
   for (int step = 0; step < 20000; ++step) {
      Item& item = *pool[gen() % pool.size()];
      const bool linked = item.allLink.isLinked();
      const size_t pos = gen() % (model.size() + 1);
      auto& mark = marks[gen() % marks.size()];
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
            if (!linked) {
               list.insertBefore(at(pos), item);
               model.insert(model.begin() + static_cast<long>(pos), item.value);
            }
            break;
         case 3:
            if (linked) {
               All::remove(item);
               model.erase(std::find(model.begin(), model.end(), item.value));
            }
            break;
         case 4:
            if (mark && mark->isLinked()) {
               mark->unlink();
            } else {
               mark = std::make_unique<All::Bookmark>();
               mark->insertBefore(at(pos));
            }
            break;
         default:
            mark.reset();  // destroying a linked bookmark unlinks it
      }
      ASSERT_EQ(list.count(), model.size());
      ASSERT_EQ(values(list), std::vector<int>(model.begin(), model.end())) << "step " << step;
      ASSERT_EQ(list.first() ? list.first()->value : -1, model.empty() ? -1 : model.front());
   }
   marks.clear();
   while (Item* first = list.first())
      All::remove(*first);
}

}  // namespace
