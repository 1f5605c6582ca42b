#ifndef KORVO_SRC_TASKTIME_H
#define KORVO_SRC_TASKTIME_H

// The scheduler's clock. Not installed.

#include "Korvo/Task.h"

#include <chrono>
#include <cstdint>
#include <ctime>

namespace Korvo {

namespace Impl {
// What taskTimeSourceIs() installed; null for the steady clock.
extern TaskTimeSource taskTimeSource_;
}  // namespace Impl
// The steady clock's own source (CLOCK_MONOTONIC) read in place, without the two
// calls of std::chrono::steady_clock::now(); or one call to what taskTimeSourceIs()
// installed.
inline TaskTimePoint taskTime() {
   if (__builtin_expect(Impl::taskTimeSource_ != nullptr, 0)) {
      return Impl::taskTimeSource_();
   }
   timespec ts;
   clock_gettime(CLOCK_MONOTONIC, &ts);
   return TaskTimePoint(
       std::chrono::nanoseconds(static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec));
}

}  // namespace Korvo

#endif
