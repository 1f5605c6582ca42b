#ifndef KORVO_SRC_TASKSCHEDULERDEBUG_H
#define KORVO_SRC_TASKSCHEDULERDEBUG_H

// The trace handler shared by the scheduler's source files. Never installed.

#include "Korvo/Debug.h"

namespace Korvo::Impl {

// "TaskScheduler"; made at library load and never destroyed, because tasks may be
// destroyed (and trace) from thread-exit and static destructors.
extern Platform::DebugHandler& taskSchedulerDebug;

}  // namespace Korvo::Impl

#endif
