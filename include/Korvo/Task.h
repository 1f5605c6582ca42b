#ifndef KORVO_TASK_H
#define KORVO_TASK_H

// Tasks: the unit of cooperative work of the scheduler.
//
// A daemon derives from Task, gives it a scheduler, a priority and a name, and calls
// scheduleTask() when it has work. The scheduler's root later calls taskExecute()
// once per scheduling, on the root's thread, strictly by priority and first in first
// out within one priority. A task never preempts: inside taskExecute() it asks
// taskShouldYield() and returns early when told to, calling scheduleTask() again if
// work remains.
//
//    class Flush : public Korvo::Task {
//     public:
//       Flush(std::shared_ptr<Korvo::TaskScheduler> s) : Task(s, TaskPriority::normal, "flush") {}
//       void taskExecute() override {
//          while (haveWork()) {
//             doOneUnit();
//             taskWorkCountInc(1);
//             if (taskShouldYield()) {
//                scheduleTask();  // back to the tail of its queue
//                return;
//             }
//          }
//       }
//    };
//
// Ownership: a task holds shared ownership of its scheduler, so a scheduler outlives
// its tasks. A task must itself be owned by a std::shared_ptr before the scheduler
// runs it (the run holds a reference, so releasing the last outside reference from
// inside taskExecute() is safe: the task is destroyed after its run ends). Deleting
// a task's memory inside its own taskExecute() is caught after the run by the magic
// number check (an assertion failure).
//
// Inside taskExecute() a task may reschedule itself (it goes to the tail of its
// queue and stays busy), unschedule or suspend itself, or change its quantum.
//
// Thread: everything here runs on the thread of the task's root scheduler;
// scheduleTask(), unscheduleTask() and taskScheduled() check the calling thread and
// fail "Executing in wrong thread ..." elsewhere (see TaskSchedulerRoot).

#include <Korvo/ConstString.h>
#include <Korvo/Export.h>
#include <Korvo/List.h>
#include <Korvo/TaskSchedulerHistory.h>
#include <Korvo/TaskStat.h>

#include <cstdint>
#include <memory>
#include <ostream>
#include <string>

namespace Korvo {

class TaskScheduler;
class TaskSchedulerRoot;
class TaskImpl;

// Every "now" of the scheduler (scheduling, dispatch, run times, latencies, timer
// tasks' history) is read from one source, the steady clock unless replaced here.
// Test seam: a program's tests replace the source to move the scheduler's time
// without sleeping; null restores the steady clock. Change it only while no other
// thread runs tasks.
using TaskTimeSource = TaskTimePoint (*)();
KORVO_EXPORT void taskTimeSourceIs(TaskTimeSource source);

class KORVO_EXPORT _TaskBase : public std::enable_shared_from_this<_TaskBase> {
public:
   _TaskBase(std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority,
             const std::string& name);
   _TaskBase(const _TaskBase&) = delete;
   _TaskBase& operator=(const _TaskBase&) = delete;

   virtual bool taskScheduled() const = 0;
   virtual bool taskShouldYield() const = 0;
   virtual void taskWorkCountInc(unsigned long n) = 0;
   virtual void taskWorkPendingIs(unsigned int n) = 0;
   // Called when the task gains or loses a pending run (see TaskImpl::taskBusyIs).
   virtual void handleTaskBusy() {}
   // Called when the task's statistics are reset.
   virtual void handleResetStats() {}
   virtual ~_TaskBase();

   TaskScheduler* taskScheduler() const { return scheduler_.get(); }
   const std::shared_ptr<TaskScheduler>& taskSchedulerPtr() const { return scheduler_; }
   const ConstStringRef& taskName() const { return taskName_; }
   const ConstStringRef& taskStatsName() const { return taskStatsName_; }
   // Interns the new name in the scheduler's cache; statistics of the task, once it
   // dies, are folded under this name.
   void taskStatsNameIs(const std::string& name);
   // The priority letter, a blank and the name: "N flush".
   const ConstStringRef& taskShortName() const { return taskShortName_; }
   TaskPriority taskPriority() const { return taskPriority_; }
   // The scheduler's history id, kept here so that recording an event need not reach
   // the scheduler.
   uint16_t taskSchedulerHistoryId() const { return schedulerHistoryId_; }

private:
   std::shared_ptr<TaskScheduler> scheduler_;
   ConstStringRef taskName_;
   ConstStringRef taskStatsName_;
   ConstStringRef taskShortName_;
   TaskPriority taskPriority_;
   uint16_t schedulerHistoryId_ = 0;
};

// "scheduler:priority:name@0x..."; "NULL" for a null task.
KORVO_EXPORT std::ostream& operator<<(std::ostream& os, const _TaskBase* task);

class KORVO_EXPORT TaskImpl : public _TaskBase {
public:
   enum class YieldMode : uint8_t { realTime = 0, virtualTime = 1, testYieldRatio = 2 };
   static constexpr uint32_t magicConstructed = 0x42BE5AFE;
   static constexpr uint32_t magicDestroyed = 0xDEADDEAD;

   // Registers the task with its scheduler (fails "Need a TaskScheduler" without
   // one); its quantum starts at the scheduler's default.
   TaskImpl(std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority,
            const std::string& name);

   bool taskScheduled() const override;
   // In real time: whether the run has used its quantum (one clock read). Under a
   // test yield ratio r: true on every r-th call. Under virtual time: throws
   // UnimplementedException. Asking outside a run of a task that has run before is
   // an assertion failure.
   bool taskShouldYield() const override;
   // Adds n units of work done: total, decaying average (9:1), high-water mark.
   void taskWorkCountInc(unsigned long n) override;
   void taskWorkPendingIs(unsigned int n) override;
   // Unschedules, unregisters (folding statistics into the dead-task record), then
   // marks the task destroyed.
   ~TaskImpl() override;

   // Puts the task at the tail of its priority's queue unless it is queued already
   // (then nothing changes, not even the scheduled-at time) or suspended (then it is
   // only recorded). Safe inside the task's own taskExecute(); there it reads no
   // clock: the task cannot be picked before the run ends, so its scheduled-at time
   // (which its next scheduling latency counts from) is the run's end (unscheduled
   // before that, it counts no wait), and the "schedule" event, recorded in its place
   // in the history, carries the run's start.
   virtual void scheduleTask();
   // Runs the task now, outside the scheduler, ignoring suspension. Test hook.
   virtual void taskRunFromTest();
   virtual TaskStat::TaskStatus taskStatus() const;
   // The task's work; called by the scheduler on the root's thread.
   virtual void taskExecute() = 0;

   // Takes the task off its run queue (harmless when not queued).
   void unscheduleTask();
   // Unscheduled, unregistered and marked destroyed; for owners that tear a task
   // down before its destructor runs.
   void handleDestroy();

   // A suspended task is never queued; unsuspending always queues it.
   void taskSuspendedIs(bool suspended);
   bool taskSuspended() const { return (flags_ & flagSuspended) != 0; }
   // The task has a pending run. The scheduler sets it after every schedule,
   // unschedule and run; a change calls handleTaskBusy().
   void taskBusyIs(bool busy, const TaskTimePoint& time);
   bool taskBusy() const { return busy_; }

   TaskDuration taskQuantum() const { return quantum_; }
   // Quanta above one second are assertion failures; use taskQuantumNoCheckIs() to
   // exceed it (task groups, tests).
   void taskQuantumIs(TaskDuration quantum);
   void taskQuantumNoCheckIs(TaskDuration quantum);

   // Whether the task's statistics are folded into the dead-task record when it dies.
   void includeInDeadTaskIs(bool include);
   bool includeInDeadTask() const { return (flags_ & flagIncludeInDeadTask) != 0; }
   bool taskCurrentlyRunning() const { return currentlyRunning_; }
   uint32_t taskMagicNumber() const { return magic_; }
   YieldMode taskShouldYieldMode() const { return yieldMode_; }

   // Statistics.
   TaskStat getStats() const;
   uint32_t taskRunCount() const { return counters_.runCount; }
   TaskTimePoint taskScheduledAt() const { return scheduledAt_; }
   TaskTimePoint taskRunStart() const { return runStart_; }
   TaskDuration taskTotalRunTime() const { return counters_.totalRunTime; }
   TaskDuration taskRunTimeHighWaterMark() const { return counters_.runTimeHighWaterMark; }
   TaskDuration taskLastSchedulingLatency() const { return counters_.lastSchedulingLatency; }
   TaskDuration taskSchedulingLatencyHighWaterMark() const {
      return counters_.schedulingLatencyHighWaterMark;
   }
   uint64_t taskWorkCountTotal() const { return counters_.workCountTotal; }
   float taskWorkCountDecayAverage() const { return counters_.workCountDecayAverage; }
   TaskMaybeU32 taskWorkCountHighWaterMark() const { return counters_.workCountHighWaterMark; }
   uint32_t taskWorkPending() const { return counters_.workPending; }
   TaskMaybeU32 taskWorkPendingHighWaterMark() const { return counters_.workPendingHighWaterMark; }
   uint32_t taskQuantumViolation200() const { return counters_.quantumViolation200; }
   uint32_t taskQuantumViolation500() const { return counters_.quantumViolation500; }
   // Zeroes the statistics and calls handleResetStats().
   void resetStats();

   // One run: called by the scheduler (after taking the task off its queue) and by the
   // test hooks. `start` is the dispatch time; *end receives the time the run ended.
   // An exception from taskExecute() passes through with the task still marked running.
   void taskDoRun(const TaskTimePoint& start, TaskTimePoint* end);
   // Records the queue wait ending at `now` as the last scheduling latency.
   TaskDuration doUpdateSchedulingLatency(const TaskTimePoint& now) {
      counters_.lastSchedulingLatency = now - scheduledAt_;
      if (counters_.lastSchedulingLatency > counters_.schedulingLatencyHighWaterMark) {
         counters_.schedulingLatencyHighWaterMark = counters_.lastSchedulingLatency;
      }
      return counters_.lastSchedulingLatency;
   }

   // Test hooks.
   // Does for this task what one dispatch of the scheduler does.
   void taskRunAndRecordFromTest();
   // The task's own ratio; 0 inherits the root's. Ratio r yields on every r-th check.
   void taskTestYieldRatioIs(unsigned char ratio);
   unsigned char taskTestYieldRatio() const { return testYieldRatio_; }
   // Ratio 1 (yield at every check) or 0.
   void taskForceYieldInTestIs(bool on) { taskTestYieldRatioIs(on ? 1 : 0); }
   void taskTestYieldRatioEffectiveIs(unsigned char ratio);
   unsigned char taskTestYieldRatioEffective() const { return testYieldRatioEffective_; }
   // Recomputes the yield mode from the task's ratio and the root's settings; throws
   // UnimplementedException when virtual time reaches a running task.
   void taskShouldYieldModeReevaluate();

protected:
   inline void recordEvent(const TaskTimePoint& time, TaskSchedulerEventType type) const;
   // Takes the task off its run queue without the busy report (harmless when not
   // queued); for subclasses that report busyness once after several changes.
   void unscheduleTaskPrivate(const TaskTimePoint& now);
   // Defined in Korvo/TaskScheduler.h, where schedulers are complete.
   inline void sanityCheckThread() const;
   inline TaskSchedulerRoot* root() const;

private:
   friend class TaskScheduler;
   friend class TaskRunQueue;

   static constexpr uint8_t flagSuspended = 0x01;
   static constexpr uint8_t flagIncludeInDeadTask = 0x02;
   // runFlags_: inside taskDoRun(); scheduled itself during that run.
   static constexpr uint8_t runFlagInRun = 0x01;
   static constexpr uint8_t runFlagScheduledInRun = 0x02;

   void handleInitialized();
   void scheduleInOwnRun();
   void runEndStamp(const TaskTimePoint& end);
   void accountRun(TaskDuration elapsed);
   [[noreturn]] static void failMagic(const void* task, uint32_t magic);

   uint8_t testYieldRatio_ = 0;
   uint8_t testYieldRatioEffective_ = 0;
   mutable uint8_t testYieldCounter_ = 0;
   bool busy_ = false;
   uint8_t flags_ = 0;
   YieldMode yieldMode_ = YieldMode::realTime;
   bool currentlyRunning_ = false;
   uint8_t runFlags_ = 0;
   TaskDuration quantum_{0};
   TaskTimePoint scheduledAt_;
   TaskTimePoint runStart_;
   TaskStat::RunCounters counters_;
   uint32_t magic_ = 0;

public:
   // Membership in one run queue, and in the scheduler's registered-task list. A task
   // is queued exactly when taskRunQueueLink_ is linked.
   ListLinkNode<TaskImpl> taskRunQueueLink_;
   BookmarkListLinkNode<TaskImpl> taskRegisteredLink_;
};

class KORVO_EXPORT Task : public TaskImpl {
public:
   Task(std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority, const std::string& name)
       : TaskImpl(std::move(scheduler), priority, name) {}
   // Takes shared ownership from the scheduler itself: throws std::bad_weak_ptr when
   // the scheduler is not owned by a std::shared_ptr.
   Task(TaskScheduler* scheduler, TaskPriority priority, const std::string& name);

   bool taskScheduled() const override { return TaskImpl::taskScheduled(); }
   void scheduleTask() override { TaskImpl::scheduleTask(); }
   void taskRunFromTest() override { TaskImpl::taskRunFromTest(); }
   TaskStat::TaskStatus taskStatus() const override { return TaskImpl::taskStatus(); }
};

inline TaskSchedulerHistory::Event::Event(const TaskTimePoint& time, TaskSchedulerEventType type,
                                          const _TaskBase* task)
    : eventType_(type),
      priority_(task->taskPriority()),
      schedulerId_(task->taskSchedulerHistoryId()),
      time_(time),
      name_(task->taskName()) {
   if (__builtin_expect(static_cast<unsigned>(type) > lastTaskEvent, 0)) {
      failTaskEventType(type);
   }
}

inline void TaskSchedulerHistory::insert(const TaskTimePoint& time, TaskSchedulerEventType type,
                                         const _TaskBase* task) {
   events_.push_front(Event(time, type, task));
}

}  // namespace Korvo

#endif
