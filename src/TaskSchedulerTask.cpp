#define KORVO_SOURCE_FILE "TaskSchedulerCpp"
#include "Korvo/Task.h"

#include "Korvo/Debug.h"
#include "Korvo/Exception.h"
#include "Korvo/TaskScheduler.h"

#include "TaskSchedulerDebug.h"
#include "TaskTime.h"

namespace Korvo {

using Impl::taskSchedulerDebug;
using EventType = TaskSchedulerEventType;

namespace Impl {
TaskTimeSource taskTimeSource_ = nullptr;
}

void taskTimeSourceIs(TaskTimeSource source) {
   Impl::taskTimeSource_ = source;
}

// ---------------------------------------------------------------------------------
// _TaskBase

_TaskBase::_TaskBase(std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority,
                     const std::string& name)
    : scheduler_(std::move(scheduler)), taskPriority_(priority) {
   if (scheduler_ == nullptr) {
      return;  // TaskImpl reports the missing scheduler.
   }
   schedulerHistoryId_ = scheduler_->historyId();
   ConstStringCache& cache = scheduler_->stringCache();
   cache.internPair(name, &taskName_, &taskStatsName_);
   taskShortName_ = cache.intern(priority.oneCharString() + " " + name);
}

_TaskBase::~_TaskBase() {
   // The names go before the scheduler, whose history holds their cache.
   taskShortName_ = ConstStringRef();
   taskStatsName_ = ConstStringRef();
   taskName_ = ConstStringRef();
}

void _TaskBase::taskStatsNameIs(const std::string& name) {
   taskStatsName_ = scheduler_->stringCache().intern(name);
}

std::ostream& operator<<(std::ostream& os, const _TaskBase* task) {
   if (task == nullptr) {
      return os << "NULL";
   }
   return os << task->taskScheduler() << ":" << task->taskPriority() << ":" << task->taskName()
             << "@" << DisplayPointer(task);
}

// ---------------------------------------------------------------------------------
// TaskImpl: life cycle

TaskImpl::TaskImpl(std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority,
                   const std::string& name)
    : _TaskBase(std::move(scheduler), priority, name) {
   if (taskScheduler() != nullptr) {
      quantum_ = taskScheduler()->defaultTaskQuantum();
   }
   magic_ = magicConstructed;
   includeInDeadTaskIs(true);
   handleInitialized();
}

void TaskImpl::handleInitialized() {
   KORVO_ASSERT(taskScheduler() != nullptr, "Need a TaskScheduler");
   // Registered first: if registration fails, no scheduler holds this task anywhere.
   taskScheduler()->taskRegister(this);
   taskShouldYieldModeReevaluate();
}

TaskImpl::~TaskImpl() {
   taskForceYieldInTestIs(false);
   // An inherited (root) ratio would leave the task in the scheduler's forced-yield set.
   taskTestYieldRatioEffectiveIs(0);
   unscheduleTask();
   if (taskRegisteredLink_.isLinked()) {
      taskScheduler()->taskUnregister(this);
   }
   // A volatile store: the compiler must not drop it as dead, since reading it after
   // the object is gone is exactly what the magic check does.
   *static_cast<volatile uint32_t*>(&magic_) = magicDestroyed;
   TaskRunQueue::Queue::remove(*this);
   TaskScheduler::RegisteredList::remove(*this);
}

void TaskImpl::handleDestroy() {
   unscheduleTask();
   taskScheduler()->taskUnregister(this);
   *static_cast<volatile uint32_t*>(&magic_) = magicDestroyed;
}

// ---------------------------------------------------------------------------------
// TaskImpl: scheduling

bool TaskImpl::taskScheduled() const {
   sanityCheckThread();
   return taskRunQueueLink_.isLinked();
}

void TaskImpl::scheduleTask() {
   sanityCheckThread();
   // Idempotent: a queued task keeps its place and its scheduled-at time, so its
   // latency counts from the first request.
   if (taskRunQueueLink_.isLinked()) {
      return;
   }
   // The shortcut needs the task still running, busy and not suspended, so that it
   // changes nothing but the queue; anything else takes the full path below.
   if ((runFlags_ & runFlagInRun) != 0 && busy_ && !taskSuspended() &&
       taskScheduler()->schedulerHasRunnableTasks()) {
      scheduleInOwnRun();
      return;
   }
   const TaskTimePoint now = taskTime();
   if (taskSuspended()) {
      recordEvent(now, EventType::scheduleSus);
      return;
   }
   KORVO_TASK_TRACE(8, "Scheduled " << this);
   recordEvent(now, EventType::schedule);
   scheduledAt_ = now;
   taskScheduler()->enqueue(this, now);
   taskBusyIs(true, now);
}

// Inline: one caller, on the run path.
inline void TaskImpl::scheduleInOwnRun() {
   // The task cannot be picked before this run ends, so the run's end read stamps it
   // (taskDoRun) and no clock is read here. Nothing else changes: the task stays busy
   // and its scheduler runnable.
   KORVO_TASK_TRACE(8, "Scheduled " << this);
   recordEvent(runStart_, EventType::schedule);
   runFlags_ |= runFlagScheduledInRun;
   scheduledAt_ = runStart_;
   taskScheduler()->enqueue(this, runStart_);
}

void TaskImpl::unscheduleTask() {
   sanityCheckThread();
   const TaskTimePoint now = taskTime();
   unscheduleTaskPrivate(now);
   taskBusyIs(taskScheduled(), now);
}

void TaskImpl::unscheduleTaskPrivate(const TaskTimePoint& now) {
   if (!taskRunQueueLink_.isLinked()) {
      return;
   }
   KORVO_TRACE(taskSchedulerDebug, 8, "Unscheduled " << this);
   recordEvent(now, EventType::unschedule);
   TaskRunQueue::Queue::remove(*this);
   if ((runFlags_ & runFlagScheduledInRun) != 0) {
      // Queued during its own run, which goes on: it has not waited yet.
      runFlags_ &= ~runFlagScheduledInRun;
      scheduledAt_ = now;
   }
   doUpdateSchedulingLatency(now);
   taskScheduler()->dequeueUnscheduled(this);
}

void TaskImpl::taskSuspendedIs(bool suspended) {
   if (suspended == taskSuspended()) {
      return;
   }
   flags_ = suspended ? (flags_ | flagSuspended) : (flags_ & ~flagSuspended);
   const TaskTimePoint now = taskTime();
   if (suspended) {
      KORVO_TRACE(taskSchedulerDebug, 1, "Suspend " << this);
      recordEvent(now, EventType::suspendOn);
      unscheduleTask();
      return;
   }
   KORVO_TRACE(taskSchedulerDebug, 1, "Unsuspend " << this);
   recordEvent(now, EventType::suspendOff);
   // Always runnable after unsuspending, scheduled meanwhile or not: the task's run
   // must cope with having nothing to do.
   if (!taskScheduled()) {
      scheduleTask();
   }
}

void TaskImpl::taskBusyIs(bool busy, const TaskTimePoint& time) {
   if (busy == busy_) {
      return;
   }
   busy_ = busy;
   recordEvent(time, busy ? EventType::busy : EventType::idle);
   handleTaskBusy();
}

TaskStat::TaskStatus TaskImpl::taskStatus() const {
   TaskStat::TaskStatus status;
   status.taskOnRunQueueIs(taskRunQueueLink_.isLinked());
   status.taskCurrentlyRunningIs(currentlyRunning_);
   status.taskSuspendedIs(taskSuspended());
   return status;
}

void TaskImpl::includeInDeadTaskIs(bool include) {
   flags_ = include ? (flags_ | flagIncludeInDeadTask) : (flags_ & ~flagIncludeInDeadTask);
}

// ---------------------------------------------------------------------------------
// TaskImpl: quantum and yielding

void TaskImpl::taskQuantumIs(TaskDuration quantum) {
   KORVO_ASSERT(quantum <= std::chrono::seconds(1), "Quantum: " << quantum.count());
   taskQuantumNoCheckIs(quantum);
}

void TaskImpl::taskQuantumNoCheckIs(TaskDuration quantum) {
   if (quantum == quantum_) {
      return;
   }
   KORVO_ASSERT(quantum.count() > 0, "Quantum: " << quantum.count());
   quantum_ = quantum;
   const unsigned level = quantum == taskScheduler()->defaultTaskQuantum() ? 9 : 4;
   KORVO_TRACE(taskSchedulerDebug, level,
               "Set quantum " << this << " to " << DisplayDuration(quantum));
}

bool TaskImpl::taskShouldYield() const {
   KORVO_ASSERT(
       currentlyRunning_ || counters_.runCount == 0,
       "taskCurrentlyRunning: " << currentlyRunning_ << " taskRunCount: " << counters_.runCount);
   switch (yieldMode_) {
      case YieldMode::realTime: {
         const TaskTimePoint now = taskTime();
         // A clock that went backwards yields rather than run on unbounded.
         return now < runStart_ || now - runStart_ >= quantum_;
      }
      case YieldMode::virtualTime:
         UnimplementedException::throwException("No support for virtual timestamps");
      case YieldMode::testYieldRatio:
         ++testYieldCounter_;
         return testYieldCounter_ % testYieldRatioEffective_ == 0;
   }
   KORVO_FAIL("Unexpected value " << static_cast<unsigned>(yieldMode_));
}

void TaskImpl::taskTestYieldRatioIs(unsigned char ratio) {
   if (ratio == testYieldRatio_) {
      return;
   }
   testYieldRatio_ = ratio;
   recordEvent(taskTime(), ratio != 0 ? EventType::frcYieldOn : EventType::frcYieldOff);
   taskShouldYieldModeReevaluate();
}

void TaskImpl::taskTestYieldRatioEffectiveIs(unsigned char ratio) {
   if (ratio == testYieldRatioEffective_) {
      return;
   }
   testYieldCounter_ = 0;
   const bool wasOn = testYieldRatioEffective_ != 0;
   testYieldRatioEffective_ = ratio;
   if (wasOn != (ratio != 0)) {
      taskScheduler()->taskForceYieldInTestNotify(this, ratio != 0);
   }
}

void TaskImpl::taskShouldYieldModeReevaluate() {
   const TaskSchedulerRoot* r = root();
   taskTestYieldRatioEffectiveIs(testYieldRatio_ != 0 ? testYieldRatio_ : r->taskTestYieldRatio());
   const YieldMode mode = testYieldRatioEffective_ != 0 ? YieldMode::testYieldRatio
                          : r->virtualTime()            ? YieldMode::virtualTime
                                                        : YieldMode::realTime;
   if (mode == yieldMode_) {
      return;
   }
   yieldMode_ = mode;
   if (mode == YieldMode::virtualTime && currentlyRunning_) {
      UnimplementedException::throwException("No support for virtual timestamps");
   }
}

// ---------------------------------------------------------------------------------
// TaskImpl: work accounting and statistics

void TaskImpl::taskWorkCountInc(unsigned long n) {
   counters_.workCountTotal += n;
   if (!counters_.workCountHighWaterMark.hasValue()) {
      counters_.workCountDecayAverage = static_cast<float>(n);
   } else {
      counters_.workCountDecayAverage =
          (9.0f * counters_.workCountDecayAverage + static_cast<float>(n)) / 10.0f;
   }
   counters_.workCountHighWaterMark.raise(n);
}

void TaskImpl::taskWorkPendingIs(unsigned int n) {
   counters_.workPending = n;
   counters_.workPendingHighWaterMark.raise(n);
}

TaskStat TaskImpl::getStats() const {
   return TaskStat(taskName(), TaskKey(this), taskPriority(), counters_, taskStatus());
}

void TaskImpl::resetStats() {
   counters_ = TaskStat::RunCounters();
   handleResetStats();
}

// ---------------------------------------------------------------------------------
// TaskImpl: one run

void TaskImpl::taskDoRun(const TaskTimePoint& start, TaskTimePoint* end) {
   recordEvent(start, EventType::runStart);
   KORVO_ASSERT(!taskRunQueueLink_.isLinked(), this);
   KORVO_TASK_TRACE(8, "Running " << this);
   runStart_ = start;
   if (yieldMode_ == YieldMode::virtualTime) {
      UnimplementedException::throwException("No support for virtual timestamps");
   }
   ++counters_.runCount;
   currentlyRunning_ = true;
   runFlags_ = runFlagInRun;
   // The run may destroy the task (its destructor marks the magic number), so the
   // check reads through a pointer taken before the run and comes before any other
   // use of the object.
   const volatile uint32_t* magic = &magic_;
   try {
      taskExecute();
   } catch (...) {
      if (*magic == magicConstructed) {
         runEndStamp(taskTime());
      }
      throw;
   }
   if (*magic != magicConstructed) {
      failMagic(this, *magic);
   }
   currentlyRunning_ = false;
   *end = taskTime();
   runEndStamp(*end);
   accountRun(*end - runStart_);
   recordEvent(*end, EventType::runEnd);
   // A task queued again stays busy, whatever its class: no call is needed then.
   // Otherwise the virtual taskScheduled() decides (a timer task that re-armed itself
   // during its run stays busy).
   if (!busy_ || !taskRunQueueLink_.isLinked()) {
      taskBusyIs(taskScheduled(), *end);
   }
}

// Inline: one caller, on the run path.
inline void TaskImpl::runEndStamp(const TaskTimePoint& end) {
   if ((runFlags_ & runFlagScheduledInRun) != 0 && taskRunQueueLink_.isLinked()) {
      scheduledAt_ = end;
   }
   runFlags_ = 0;
}

void TaskImpl::failMagic(const void* task, uint32_t magic) {
   // Only the address: the rest of the task (its names, its scheduler) may be gone.
   KORVO_FAIL("Task: " << DisplayPointer(task) << " taskMagicNumber: " << magic
                       << " taskMagicNumberConstructed: " << magicConstructed);
}

// Inline: one caller, on the run path.
inline void TaskImpl::accountRun(TaskDuration elapsed) {
   if (quantum_.count() != 0 && elapsed >= 2 * quantum_) {
      KORVO_TASK_TRACE(5, "Ran " << this << " used " << DisplayDuration(elapsed) << " "
                                 << elapsed.count() * 100 / quantum_.count() << "% violation");
      if (elapsed < 5 * quantum_) {
         ++counters_.quantumViolation200;
      } else {
         ++counters_.quantumViolation500;
      }
   } else {
      KORVO_TASK_TRACE(7, "Ran " << this << " used " << DisplayDuration(elapsed));
   }
   if (elapsed > counters_.runTimeHighWaterMark) {
      counters_.runTimeHighWaterMark = elapsed;
   }
   counters_.totalRunTime += elapsed;
}

void TaskImpl::taskRunFromTest() {
   const TaskTimePoint now = taskTime();
   if (taskRunQueueLink_.isLinked()) {
      TaskScheduler* s = taskScheduler();
      s->taskSchedulerUnlinkTask(now, s->taskRunQueue(taskPriority()), this);
   }
   TaskTimePoint end;
   taskDoRun(now, &end);
}

void TaskImpl::taskRunAndRecordFromTest() {
   TaskScheduler* s = taskScheduler();
   s->checkSchedulerLatency();
   const TaskTimePoint now = s->lastRunAt();
   KORVO_ASSERT(taskPriority() <= TaskPriority::scavenge, taskPriority().value());
   if (taskRunQueueLink_.isLinked()) {
      s->taskSchedulerUnlinkTask(now, s->taskRunQueue(taskPriority()), this);
   } else {
      doUpdateSchedulingLatency(now);
   }
   TaskTimePoint end;
   taskDoRun(now, &end);
}

// ---------------------------------------------------------------------------------
// Task

Task::Task(TaskScheduler* scheduler, TaskPriority priority, const std::string& name)
    : TaskImpl(scheduler->shared_from_this(), priority, name) {}

}  // namespace Korvo
