#include <Korvo/List.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <deque>
#include <random>
#include <vector>

#include "TestSupport.h"

using ::testing::HasSubstr;

struct Item {
   explicit Item(int v = 0) : value(v) {}
   int value;
   Korvo::ListLinkNode<Item> queueLink;
   Korvo::BookmarkListLinkNode<Item> allLink;
};
using Queue = Korvo::List<Item, Korvo::ListLinkNode<Item>, &Item::queueLink>;
using All = Korvo::BookmarkList<Item, Korvo::BookmarkListLinkNode<Item>, &Item::allLink>;

template <typename L>
std::deque<int> values(const L& list) {
   std::deque<int> out;
   for (auto it = list.begin(); it != list.end(); it++)
      out.push_back(it->value);
   return out;
}

TEST(ListTest, SpliceLinkTwiceAndDestroy) {
   Item a{1}, b{2}, c{3};
   All::Bookmark mark;
   {
      Queue q, other;
      q.pushBack(b);
      other.pushFront(a);
      q.spliceFront(other);
      other.pushBack(c);
      q.spliceBack(other);
      EXPECT_EQ(values(q), (std::deque<int>{1, 2, 3}));
      EXPECT_THAT(KorvoTest::assertionText([&] { other.pushBack(a); }),
                  HasSubstr("!( element.*ptrToLinkNode ).isLinked()"));
      All all;
      all.pushBack(a);  // one element on two lists through its two nodes
      EXPECT_FALSE(all.isBookmark(a.allLink));
      mark.insertBefore(all.end());
      EXPECT_THAT(KorvoTest::assertionText([&] { mark.insertBefore(all.end()); }),
                  HasSubstr("IntrusiveBookmarkLinkedList:insertBefore:"));
   }
   // A destroyed list leaves its elements and bookmarks unlinked.
   EXPECT_FALSE(a.queueLink.isLinked() || a.allLink.isLinked() || mark.isLinked());
}

// Random operations against a std::deque model, bookmarks sprinkled in.
TEST(ListTest, RandomOperationsMatchADequeModel) {
   std::mt19937 gen(12345);
   std::vector<Item> pool(64);
   All list;
   std::deque<int> model;
   std::vector<std::unique_ptr<All::Bookmark>> marks(4);
   for (int step = 0; step < 20000; ++step) {
      const int value = static_cast<int>(gen() % pool.size());
      Item& item = pool[value];
      item.value = value;
      const size_t pos = gen() % (model.size() + 1);
      auto& mark = marks[gen() % marks.size()];
      const unsigned action = gen() % 6;
      if (action < 3 && !item.allLink.isLinked()) {
         list.insertBefore(std::next(list.begin(), pos), item);
         model.insert(model.begin() + pos, value);
      } else if (action == 3 && item.allLink.isLinked()) {
         All::remove(item);
         model.erase(std::find(model.begin(), model.end(), value));
      } else if (action == 4) {
         mark = std::make_unique<All::Bookmark>();  // destroying a linked one unlinks it
         mark->insertBefore(std::next(list.begin(), pos));
      } else if (action == 5 && mark) {
         mark->unlink();
      }
      ASSERT_EQ(list.count(), model.size());
      ASSERT_EQ(values(list), model) << "step " << step;
      ASSERT_EQ(list.first() ? list.first()->value : -1, model.empty() ? -1 : model.front());
   }
}
