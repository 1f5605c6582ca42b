#ifndef KORVO_SRC_TASKTIME_H
#define KORVO_SRC_TASKTIME_H

// The scheduler's clock. Not installed.

#include "Korvo/Task.h"

namespace Korvo {

namespace Impl {
extern TaskTimeSource taskTimeSource_;
}
// One indirect call to the steady clock, or to what taskTimeSourceIs() installed.
inline TaskTimePoint taskTime() {
   return Impl::taskTimeSource_();
}

}  // namespace Korvo

#endif
