#ifndef KORVO_LIST_H
#define KORVO_LIST_H

// Intrusive doubly linked lists over link nodes embedded in their elements.
//
//    struct Job { ListLinkNode<Job> queueLink_; ... };
//    List<Job, ListLinkNode<Job>, &Job::queueLink_> queue;
//
// The lists sit on Boost.Intrusive's circular list in safe-link mode: nothing is
// allocated, every insertion and removal is constant time, and a node knows whether
// it is linked. An element is on at most one list per link node; linking it twice
// is an assertion failure. The list does not own its elements: destroying a list
// leaves every node it held unlinked, and an element must be off its lists (or the
// list gone) before the element is destroyed.
//
// BookmarkList adds bookmarks: nodes owned by a walker rather than by an element,
// which hold a place in the list while elements come and go. Iteration, first()
// and count() skip them, so a bookmark is never seen as an element.
//
// Thread: none of this is locked; a list belongs to its owner's thread.

#include <Korvo/Exception.h>

#include <boost/intrusive/list.hpp>
#include <boost/intrusive/parent_from_member.hpp>

#include <cstddef>
#include <cstdint>
#include <iterator>

namespace Korvo {
namespace Impl {
using ListHook =
    boost::intrusive::list_member_hook<boost::intrusive::link_mode<boost::intrusive::safe_link>>;
}

// The link node of a plain List. Unlinked: both pointers null.
template <typename ElementType>
struct ListLinkNode {
   bool isLinked() const { return link.is_linked(); }
   Impl::ListHook link;
};

// The link node of a BookmarkList: a node embedded in an element (kind 0) or the
// node of a Bookmark (kind 1).
template <typename ElementType>
struct BookmarkListLinkNode {
   static constexpr uint32_t kindElement = 0;
   static constexpr uint32_t kindBookmark = 1;
   bool isLinked() const { return link.is_linked(); }
   Impl::ListHook link;
   uint32_t kind = kindElement;
};

template <typename ElementType, typename LinkNodeType, LinkNodeType ElementType::*ptrToLinkNode,
          typename ElementPtrType = void>
class ListImpl {
protected:
   using NodeList = boost::intrusive::list<
       LinkNodeType,
       boost::intrusive::member_hook<LinkNodeType, Impl::ListHook, &LinkNodeType::link>,
       boost::intrusive::constant_time_size<false>>;
   using NodeAlgorithms = typename NodeList::node_algorithms;
   using ValueTraits = typename NodeList::value_traits;

   static constexpr bool hasBookmarks = requires(const LinkNodeType& n) { n.kind; };
   static bool bookmarkNode(const LinkNodeType& n) {
      if constexpr (hasBookmarks) {
         return n.kind == LinkNodeType::kindBookmark;
      } else {
         return false;
      }
   }

public:
   // Iterators yield elements only; bookmark nodes are stepped over.
   template <bool isConst>
   class IteratorT {
      using Raw = std::conditional_t<isConst, typename NodeList::const_iterator,
                                     typename NodeList::iterator>;

   public:
      using iterator_category = std::forward_iterator_tag;
      using value_type = ElementType;
      using difference_type = std::ptrdiff_t;
      using pointer = std::conditional_t<isConst, const ElementType*, ElementType*>;
      using reference = std::conditional_t<isConst, const ElementType&, ElementType&>;

      IteratorT() = default;
      IteratorT(Raw cur, Raw end) : cur_(cur), end_(end) { skipBookmarks(); }
      // Iterator converts to ConstIterator.
      template <bool otherConst, typename = std::enable_if_t<isConst && !otherConst>>
      IteratorT(const IteratorT<otherConst>& other) : cur_(other.raw()), end_(other.rawEnd()) {}

      reference operator*() const { return *elementOf(&*cur_); }
      pointer operator->() const { return elementOf(&*cur_); }
      IteratorT& operator++() {
         ++cur_;
         skipBookmarks();
         return *this;
      }
      IteratorT operator++(int) {
         IteratorT before = *this;
         ++*this;
         return before;
      }
      friend bool operator==(const IteratorT& a, const IteratorT& b) { return a.cur_ == b.cur_; }

      Raw raw() const { return cur_; }
      Raw rawEnd() const { return end_; }

   private:
      void skipBookmarks() {
         if constexpr (hasBookmarks) {
            while (cur_ != end_ && bookmarkNode(*cur_)) {
               ++cur_;
            }
         }
      }
      Raw cur_;
      Raw end_;
   };
   using Iterator = IteratorT<false>;
   using ConstIterator = IteratorT<true>;

   ListImpl() = default;
   ListImpl(const ListImpl&) = delete;
   ListImpl& operator=(const ListImpl&) = delete;
   virtual bool isBookmark(const LinkNodeType&) const { return false; }
   // The underlying list resets every node it still holds to the unlinked state.
   virtual ~ListImpl() = default;

   static ElementType* elementOf(LinkNodeType* node) {
      return boost::intrusive::get_parent_from_member(node, ptrToLinkNode);
   }
   static const ElementType* elementOf(const LinkNodeType* node) {
      return boost::intrusive::get_parent_from_member(node, ptrToLinkNode);
   }
   static LinkNodeType& nodeOf(ElementType& element) { return element.*ptrToLinkNode; }

   // An element may be on one list per link node at a time.
   static void beingLinked(const ElementType& element) {
      if (__builtin_expect((element.*ptrToLinkNode).isLinked(), 0)) {
         failLinked();
      }
   }

   void pushBack(ElementType& element) {
      beingLinked(element);
      list_.push_back(nodeOf(element));
   }
   void pushFront(ElementType& element) {
      beingLinked(element);
      list_.push_front(nodeOf(element));
   }
   void insertBefore(const ConstIterator& pos, ElementType& element) {
      beingLinked(element);
      list_.insert(pos.raw(), nodeOf(element));
   }
   // Takes a linked element off whatever list holds it (constant time; the node knows
   // its neighbours). Harmless for an unlinked element.
   static void remove(ElementType& element) { unlinkNode(nodeOf(element)); }

   // Moves every node of `other` to the end / the front of this list, keeping order.
   void spliceBack(ListImpl& other) { list_.splice(list_.end(), other.list_); }
   void spliceFront(ListImpl& other) { list_.splice(list_.begin(), other.list_); }

   // The first element, bookmarks skipped; null when there is none.
   ElementType* first() {
      Iterator it = begin();
      return it == end() ? nullptr : &*it;
   }
   const ElementType* first() const {
      ConstIterator it = begin();
      return it == end() ? nullptr : &*it;
   }
   // No element (a list holding only bookmarks is empty).
   bool empty() const { return first() == nullptr; }
   // Elements, bookmarks not counted. Linear.
   std::size_t count() const { return static_cast<std::size_t>(std::distance(begin(), end())); }

   Iterator begin() { return Iterator(list_.begin(), list_.end()); }
   Iterator end() { return Iterator(list_.end(), list_.end()); }
   ConstIterator begin() const { return ConstIterator(list_.cbegin(), list_.cend()); }
   ConstIterator end() const { return ConstIterator(list_.cend(), list_.cend()); }

protected:
   [[noreturn]] __attribute__((noinline, cold)) static void failLinked() {
      KORVO_FAIL_IN("IntrusiveLinkedListBase", "!( element.*ptrToLinkNode ).isLinked()");
      __builtin_unreachable();
   }
   static void unlinkNode(LinkNodeType& node) {
      if (node.isLinked()) {
         auto n = ValueTraits::to_node_ptr(node);
         NodeAlgorithms::unlink(n);
         NodeAlgorithms::init(n);
      }
   }

   NodeList list_;
};

template <typename ElementType, typename LinkNodeType, LinkNodeType ElementType::*ptrToLinkNode,
          typename ElementPtrType = void>
class List : public ListImpl<ElementType, LinkNodeType, ptrToLinkNode, ElementPtrType> {};

template <typename ElementType, typename LinkNodeType, LinkNodeType ElementType::*ptrToLinkNode,
          typename ElementPtrType = void>
class BookmarkList : public ListImpl<ElementType, LinkNodeType, ptrToLinkNode, ElementPtrType> {
   using Base = ListImpl<ElementType, LinkNodeType, ptrToLinkNode, ElementPtrType>;

public:
   using typename Base::ConstIterator;
   using typename Base::Iterator;

   // A walker's place in a list. Owned by the walker; unlinks itself when destroyed.
   class Bookmark {
   public:
      Bookmark() { node_.kind = LinkNodeType::kindBookmark; }
      Bookmark(const Bookmark&) = delete;
      Bookmark& operator=(const Bookmark&) = delete;
      ~Bookmark() { unlink(); }

      // Links the bookmark before `pos`; it must not be in a list already.
      void insertBefore(const ConstIterator& pos) {
         KORVO_ASSERT_IN("IntrusiveBookmarkLinkedList", !node_.link.is_linked(),
                         "!link.isLinked()");
         Base::NodeAlgorithms::link_before(pos.raw().pointed_node(),
                                           Base::ValueTraits::to_node_ptr(node_));
      }
      bool isLinked() const { return node_.isLinked(); }
      void unlink() { Base::unlinkNode(node_); }

   private:
      friend BookmarkList;
      LinkNodeType node_;
   };

   bool isBookmark(const LinkNodeType& node) const override {
      return node.kind == LinkNodeType::kindBookmark;
   }

   // Resumes a paused walk: the first element after the bookmark (or end()), with the
   // bookmark taken out of the list. An unlinked bookmark resumes at the head.
   Iterator resume(Bookmark& bookmark) {
      if (!bookmark.isLinked()) {
         return this->begin();
      }
      auto next = std::next(Base::NodeList::s_iterator_to(bookmark.node_));
      bookmark.unlink();
      return Iterator(next, this->list_.end());
   }
};

}  // namespace Korvo

#endif
