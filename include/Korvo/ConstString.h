#ifndef KORVO_CONSTSTRING_H
#define KORVO_CONSTSTRING_H

// Interned, reference-counted constant strings.
//
// A ConstStringCache stores each distinct text once; a ConstStringRef is a handle
// to one stored text. Handles compare and hash by identity, so names that are
// compared or used as map keys often (task and scheduler names) cost one pointer.
//
// Ownership: a handle keeps its element alive; the element is freed when its last
// handle goes. The cache must outlive every handle into it: destroying a cache that
// still holds elements is an assertion failure. Thread: a cache and its handles
// belong to one thread (the thread of the root scheduler that holds the cache);
// nothing here is locked and the counts are not atomic.

#include <Korvo/Export.h>

#include <cstddef>
#include <functional>
#include <ostream>
#include <string>
#include <string_view>
#include <unordered_set>

namespace Korvo {

class ConstStringCache;

class KORVO_EXPORT ConstStringRef {
public:
   // One interned text and its reference count.
   class KORVO_EXPORT Elem {
   public:
      Elem(ConstStringCache* cache, std::string text) : cache_(cache), text_(std::move(text)) {}

      ConstStringCache* cache() const { return cache_; }
      const std::string& text() const { return text_; }
      unsigned refCount() const { return refCount_; }
      void refCountInc(unsigned n = 1) const { refCount_ += n; }
      // The last release removes the element from its cache and frees it.
      void refCountDec() const {
         if (__builtin_expect(refCount_ > 1, 1)) {
            --refCount_;
            return;
         }
         refCountDecLast();
      }

   private:
      void refCountDecLast() const;

      ConstStringCache* cache_;
      std::string text_;
      mutable unsigned refCount_ = 0;
   };

   ConstStringRef() = default;
   ConstStringRef(const ConstStringRef& other) : elem_(other.elem_) {
      if (elem_ != nullptr) {
         elem_->refCountInc();
      }
   }
   ConstStringRef(ConstStringRef&& other) noexcept : elem_(other.elem_) { other.elem_ = nullptr; }
   ConstStringRef& operator=(const ConstStringRef& other) {
      const Elem* elem = other.elem_;  // read first: `other` may be this handle
      if (elem != nullptr) {
         elem->refCountInc();
      }
      release();
      elem_ = elem;
      return *this;
   }
   ConstStringRef& operator=(ConstStringRef&& other) noexcept {
      if (this != &other) {
         release();
         elem_ = other.elem_;
         other.elem_ = nullptr;
      }
      return *this;
   }
   ~ConstStringRef() { release(); }

   // The text; the empty string for a null handle.
   const std::string& str() const { return elem_ != nullptr ? elem_->text() : emptyString(); }
   const char* c_str() const { return str().c_str(); }
   const Elem* elem() const { return elem_; }
   explicit operator bool() const { return elem_ != nullptr; }

   // Handles from one cache are equal exactly when they name the same element;
   // handles from different caches fall back to comparing texts.
   friend bool operator==(const ConstStringRef& a, const ConstStringRef& b) {
      if (a.elem_ == b.elem_) {
         return true;
      }
      if (a.elem_ == nullptr || b.elem_ == nullptr || a.elem_->cache() == b.elem_->cache()) {
         return false;
      }
      return a.elem_->text() == b.elem_->text();
   }

   friend std::ostream& operator<<(std::ostream& os, const ConstStringRef& s) {
      return os << s.str();
   }

private:
   friend class ConstStringCache;
   // Adopts one reference that the caller already counted.
   explicit ConstStringRef(const Elem* elem) : elem_(elem) {}

   void release() {
      if (elem_ != nullptr) {
         elem_->refCountDec();
         elem_ = nullptr;
      }
   }
   static const std::string& emptyString();

   const Elem* elem_ = nullptr;
};

// Hashes a handle by identity; use only for handles of one cache.
struct ConstStringRefHash {
   std::size_t operator()(const ConstStringRef& s) const noexcept {
      return std::hash<const void*>()(s.elem());
   }
};

class KORVO_EXPORT ConstStringCache {
public:
   ConstStringCache() = default;
   ConstStringCache(const ConstStringCache&) = delete;
   ConstStringCache& operator=(const ConstStringCache&) = delete;
   // Fails "Destroying ConstStringCache with open references" when any handle into
   // the cache is still alive.
   ~ConstStringCache() noexcept(false);

   // A handle to the element holding `text`, inserting it when absent.
   ConstStringRef intern(std::string_view text);
   // Two handles to one element, counted in one step (a task's name and stats name).
   void internPair(std::string_view text, ConstStringRef* first, ConstStringRef* second);

   // Number of distinct texts held.
   std::size_t size() const { return elems_.size(); }
   // The element holding `text`, or null.
   const ConstStringRef::Elem* find(std::string_view text) const;

private:
   friend class ConstStringRef::Elem;

   struct ElemHash {
      using is_transparent = void;
      std::size_t operator()(std::string_view s) const noexcept {
         return std::hash<std::string_view>()(s);
      }
      std::size_t operator()(const ConstStringRef::Elem& e) const noexcept {
         return (*this)(std::string_view(e.text()));
      }
   };
   struct ElemEqual {
      using is_transparent = void;
      static std::string_view view(std::string_view s) { return s; }
      static std::string_view view(const ConstStringRef::Elem& e) { return e.text(); }
      template <typename A, typename B>
      bool operator()(const A& a, const B& b) const noexcept {
         return view(a) == view(b);
      }
   };

   const ConstStringRef::Elem* internElem(std::string_view text, unsigned refs);
   void eraseElem(const ConstStringRef::Elem* elem);

   std::unordered_set<ConstStringRef::Elem, ElemHash, ElemEqual> elems_;
};

}  // namespace Korvo

#endif
