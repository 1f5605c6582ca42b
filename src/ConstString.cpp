#include "Korvo/ConstString.h"

#include "Korvo/Exception.h"

namespace Korvo {

namespace {
constexpr const char* kSource = "ConstStringCache";
}

const std::string& ConstStringRef::emptyString() {
   static const std::string empty;
   return empty;
}

void ConstStringRef::Elem::refCountDecLast() const {
   KORVO_ASSERT_IN(kSource, refCount_ > 0,
                   "refCountDec() of \"" << text_ << "\" with no reference left");
   if (--refCount_ == 0) {
      cache_->eraseElem(this);
   }
}

ConstStringCache::~ConstStringCache() noexcept(false) {
   KORVO_ASSERT_IN(kSource, elems_.empty(), "Destroying ConstStringCache with open references");
}

const ConstStringRef::Elem* ConstStringCache::internElem(std::string_view text, unsigned refs) {
   auto it = elems_.find(text);
   if (it == elems_.end()) {
      it = elems_.emplace(this, std::string(text)).first;
   }
   it->refCountInc(refs);
   return &*it;
}

ConstStringRef ConstStringCache::intern(std::string_view text) {
   return ConstStringRef(internElem(text, 1));
}

void ConstStringCache::internPair(std::string_view text, ConstStringRef* first,
                                  ConstStringRef* second) {
   const ConstStringRef::Elem* elem = internElem(text, 2);
   *first = ConstStringRef(elem);
   *second = ConstStringRef(elem);
}

const ConstStringRef::Elem* ConstStringCache::find(std::string_view text) const {
   auto it = elems_.find(text);
   return it == elems_.end() ? nullptr : &*it;
}

void ConstStringCache::eraseElem(const ConstStringRef::Elem* elem) {
   auto it = elems_.find(std::string_view(elem->text()));
   // The element found by its text must be this very element: anything else means a
   // handle outlived its element or points into another cache.
   KORVO_ASSERT_IN(kSource, it != elems_.end() && &*it == elem,
                   "eraseElem() of \"" << elem->text() << "\" not found in its cache");
   elems_.erase(it);
}

}  // namespace Korvo
