#ifndef KORVO_BENCH_ALLOCATIONCOUNT_H
#define KORVO_BENCH_ALLOCATIONCOUNT_H

// Counts every heap allocation of a benchmark program, the library's included (its
// Allocator uses the aligned form), by replacing the global operator new and delete.
// Include it in exactly one translation unit of a program: the replacements are
// ordinary definitions. Read `allocations` before and after the timed loop.

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <new>

namespace KorvoBench {
inline std::atomic<uint64_t> allocations{0};

// Out of line so that no caller sees new and free paired and folds them away.
__attribute__((noinline)) inline void* countedAlloc(std::size_t size, std::size_t align) {
   allocations.fetch_add(1, std::memory_order_relaxed);
   void* p = nullptr;
   if (posix_memalign(&p, align < sizeof(void*) ? sizeof(void*) : align, size == 0 ? 1 : size) !=
       0) {
      throw std::bad_alloc();
   }
   return p;
}
__attribute__((noinline)) inline void release(void* p) noexcept {
   std::free(p);
}
}  // namespace KorvoBench

void* operator new(std::size_t size) {
   return KorvoBench::countedAlloc(size, alignof(std::max_align_t));
}
void* operator new(std::size_t size, std::align_val_t align) {
   return KorvoBench::countedAlloc(size, static_cast<std::size_t>(align));
}
void operator delete(void* p) noexcept {
   KorvoBench::release(p);
}
void operator delete(void* p, std::size_t) noexcept {
   KorvoBench::release(p);
}
void operator delete(void* p, std::align_val_t) noexcept {
   KorvoBench::release(p);
}
void operator delete(void* p, std::size_t, std::align_val_t) noexcept {
   KorvoBench::release(p);
}

#endif
