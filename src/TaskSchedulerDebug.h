#ifndef KORVO_SRC_TASKSCHEDULERDEBUG_H
#define KORVO_SRC_TASKSCHEDULERDEBUG_H

// The trace handler shared by the scheduler's source files. Never installed.

#include "DebugComponent.h"

namespace Korvo::Impl {

// "TaskScheduler": tasks may be destroyed, and trace, from thread-exit and static
// destructors.
extern ComponentDebug taskSchedulerDebug;

}  // namespace Korvo::Impl

// KORVO_TRACE on that handler, for the run path's member functions: the line is built
// in a cold out-of-line function that copies what it prints, so that the hot path
// keeps a small frame and makes no call while the level is off.
#define KORVO_TASK_TRACE(level, msg)                                                            \
   do {                                                                                         \
      const ::Korvo::Platform::DebugHandler& korvoTaskH_ = ::Korvo::Impl::taskSchedulerDebug(); \
      if (__builtin_expect(korvoTaskH_.enabled(level), 0)) {                                    \
         [ =, this, &korvoTaskH_, func = __func__, line = __LINE__ ]()                          \
             __attribute__((noinline, cold)) {                                                  \
            (void)this;                                                                         \
            ::Korvo::Platform::Impl::TraceStream korvoTaskL_;                                   \
            ::Korvo::Platform::DebugStream& korvoTaskS_ = korvoTaskL_.stream();                 \
            korvoTaskS_ << msg;                                                                 \
            korvoTaskH_.dump(korvoTaskS_, (level), __FILE__, line, func);                       \
         }                                                                                      \
         ();                                                                                    \
      }                                                                                         \
   } while (0)

#endif
