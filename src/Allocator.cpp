#include "Korvo/Allocator.h"

namespace Korvo {

void MemTrack::alloc(const std::type_info&, std::size_t) noexcept {}
void MemTrack::dealloc(const std::type_info&, std::size_t) noexcept {}
void MemTrack::trackerIs(void*) noexcept {}

}  // namespace Korvo
