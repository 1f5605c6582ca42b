#ifndef KORVO_ALLOCATOR_H
#define KORVO_ALLOCATOR_H

#include <Korvo/Export.h>

#include <cstddef>
#include <memory>
#include <new>
#include <typeinfo>
#include <utility>

namespace Korvo {

// Accounting hooks called on every allocation and release made through
// Korvo::Allocator. This build accounts nothing; a memory-tracking build of an
// application may interpose its own definitions.
struct KORVO_EXPORT MemTrack {
   static void alloc(const std::type_info& type, std::size_t bytes) noexcept;
   static void dealloc(const std::type_info& type, std::size_t bytes) noexcept;
   static void trackerIs(void* tracker) noexcept;
};

// The allocator every shared object of the library is made with:
// std::allocate_shared(Allocator<T>(), ...) puts the object and its control block
// in one allocation and reports both to MemTrack under the control block's type.
template <typename T>
class Allocator {
public:
   using value_type = T;

   Allocator() noexcept = default;
   template <typename U>
   Allocator(const Allocator<U>&) noexcept {}

   T* allocate(std::size_t n) {
      const std::size_t bytes = n * sizeof(T);
      T* p = static_cast<T*>(::operator new(bytes, std::align_val_t(alignof(T))));
      MemTrack::alloc(typeid(T), bytes);
      return p;
   }
   void deallocate(T* p, std::size_t n) noexcept {
      MemTrack::dealloc(typeid(T), n * sizeof(T));
      ::operator delete(p, std::align_val_t(alignof(T)));
   }

   template <typename U>
   bool operator==(const Allocator<U>&) const noexcept {
      return true;
   }
};

// Shorthand for the library's way of making a shared object.
template <typename T, typename... Args>
std::shared_ptr<T> makeShared(Args&&... args) {
   return std::allocate_shared<T>(Allocator<T>(), std::forward<Args>(args)...);
}

}  // namespace Korvo

#endif
