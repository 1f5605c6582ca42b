#ifndef KORVO_SRC_TASKSCHEDULERDEBUG_H
#define KORVO_SRC_TASKSCHEDULERDEBUG_H

// The trace handler shared by the scheduler's source files. Never installed.

#include "DebugComponent.h"

namespace Korvo::Impl {

// "TaskScheduler": tasks may be destroyed, and trace, from thread-exit and static
// destructors.
extern ComponentDebug taskSchedulerDebug;

}  // namespace Korvo::Impl

// KORVO_TRACE on that handler for the run path's member functions.
#define KORVO_TASK_TRACE(level, msg) KORVO_COLD_TRACE(::Korvo::Impl::taskSchedulerDebug, level, msg)

#endif
