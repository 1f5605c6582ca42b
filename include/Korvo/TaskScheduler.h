#ifndef KORVO_TASKSCHEDULER_H
#define KORVO_TASKSCHEDULER_H

// Task schedulers and the per-thread root scheduler.
//
// A TaskScheduler owns the run queues of a group of tasks (one queue pair per
// priority), the list of its registered tasks, per-priority counts and the folded
// statistics of its dead tasks. It owns no thread and no event source: something
// calls handleSchedulerRun(), which runs at most one task, and the scheduler asks to
// be called through requestSchedulerRun().
//
// Each thread has one TaskSchedulerRoot, from schedulerRootKorvo(). It is the
// scheduler of the thread's top-level tasks and a platform callback handler: when it
// becomes runnable it requests a callback from the thread's event loop and runs one
// task per callback, so the loop gets control back between any two tasks. It also
// holds the per-thread settings every task consults (suspension, virtual time, the
// test yield ratio, the thread check) and the thread's scheduler history.
//
// Pick order: strictly by priority, first in first out within one, with one
// anti-starvation rule: after c picks in a row at high (normal), one lower task goes
// first once c times the weighted backlog below (8 per normal + 1 per low task; for
// normal, 1 per low task) exceeds 64 (8) times the own backlog. Absolute tasks are
// never passed over; scavenge tasks run only when all other queues are empty.
//
// Time: a dispatch reads the clock once for its start, a run once for its end. A
// dispatch of the root from the event loop starts instead at the end of the root's
// previous run when nothing but the loop itself ran since: no handler was called
// through a control (the thread counts those calls), the loop was not left, the run
// did not throw. The loop's pass in between then counts to the next task's run time,
// and the root's scheduler latency of that dispatch is zero. So a task that
// reschedules itself costs one clock read per run. Work a program hangs on the event
// base itself, past the controls, is not seen and counts to the next run the same way.
//
// Ownership: schedulers are held by shared pointers (made with Korvo::makeShared);
// tasks hold their scheduler. Thread: a root and everything under it belong to the
// thread that made the root; no locks are taken on the scheduling path.

#include <Korvo/Export.h>
#include <Korvo/List.h>
#include <Korvo/Platform.h>
#include <Korvo/Task.h>
#include <Korvo/TaskSchedulerHistory.h>
#include <Korvo/TaskStat.h>
#include <Korvo/TimerWheel.h>

#include <pthread.h>
#include <sys/types.h>

#include <cstdint>
#include <map>
#include <memory>
#include <ostream>
#include <set>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace Korvo {

class TaskSchedulerRoot;
class LibeventCallbackControl;

// While non-zero the thread check is off (for programs that hand their scheduler
// structures to helper threads). The embedding program maintains it; the library
// only reads it.
extern "C" KORVO_EXPORT unsigned int auxThreadCount;

// The run queue of one priority: a persistent queue that scheduling appends to, and
// a temporary one that holds a snapshot while a task group runs its queue, so that
// tasks rescheduled during that run wait for the next one.
class KORVO_EXPORT TaskRunQueue {
public:
   using Queue = List<TaskImpl, ListLinkNode<TaskImpl>, &TaskImpl::taskRunQueueLink_>;

   TaskRunQueue() = default;
   TaskRunQueue(const TaskRunQueue&) = delete;
   TaskRunQueue& operator=(const TaskRunQueue&) = delete;

   // The queue that picks read: the temporary one during a snapshot.
   Queue& currentQueue() { return *currentQueue_; }

   uint32_t consecutivePicks() const { return consecutivePicks_; }
   uint64_t enqueued() const { return enqueued_; }
   uint64_t dispatched() const { return dispatched_; }
   uint64_t dispatchedAtLastClear() const { return dispatchedAtLastClear_; }
   // Tasks on the two queues.
   int64_t backlog() const { return static_cast<int64_t>(enqueued_ - dispatched_); }

   // Starts a snapshot: every queued task moves, in order, to the temporary queue.
   void movePersistentToTemporary();
   // Ends it: leftovers of the snapshot go in front of what was scheduled meanwhile.
   void moveTemporaryToPersistent();

private:
   friend class TaskScheduler;
   friend class TaskImpl;
   friend class TestPeer;

   Queue persistent_;
   Queue temporary_;
   Queue* currentQueue_ = &persistent_;
   uint32_t consecutivePicks_ = 0;
   uint64_t enqueued_ = 0;
   uint64_t dispatched_ = 0;
   uint64_t dispatchedAtLastClear_ = 0;
};

class KORVO_EXPORT TaskScheduler : public std::enable_shared_from_this<TaskScheduler> {
public:
   using RegisteredList =
       BookmarkList<TaskImpl, BookmarkListLinkNode<TaskImpl>, &TaskImpl::taskRegisteredLink_>;
   using PriorityCounts = std::map<TaskPriority, uint32_t>;
   using DeadTaskStats = std::unordered_map<ConstStringRef, TaskStat, ConstStringRefHash>;
   static constexpr TaskDuration defaultTaskQuantumInitial = std::chrono::milliseconds(20);

   // `root` is the thread's root (not owned); the history is the root's, and `name`
   // is interned in its string cache.
   TaskScheduler(const std::string& name, TaskSchedulerRoot* root,
                 std::shared_ptr<TaskSchedulerHistory> history);
   TaskScheduler(const TaskScheduler&) = delete;
   TaskScheduler& operator=(const TaskScheduler&) = delete;

   // Whether a spread-out statistics reset is still walking.
   virtual bool resetStatsInProgress() const { return resetStatsInProgress_; }
   // The statistics report of this scheduler's tasks (see printStatsImpl() in
   // Korvo/TaskStat.h for the layout and an example): the dead table only with
   // `includeDead`; `skipNoRuns` leaves out live tasks that never ran; the name column
   // is at least `nameWidthMin` wide; at most `liveLimit`/`deadLimit` rows
   // (4294967295: all). Costs O(n log n) in the tasks and dead names, with no
   // effect on them.
   virtual void printStats(std::ostream& os, bool includeDead, bool skipNoRuns,
                           unsigned int nameWidthMin, unsigned int liveLimit,
                           unsigned int deadLimit) const;
   // The statistics for a monitoring system to scrape, in the Prometheus text
   // exposition format 0.0.4 (serve it as "text/plain; version=0.0.4"). Every series
   // carries a `scheduler` label; task series add `task` (tasks sharing a scheduler
   // and a name are summed into one series), priority series add `priority`:
   //   korvo_task_runs_total, korvo_task_run_seconds_total,
   //   korvo_task_quantum_violations_total{threshold="200"|"500"},
   //   korvo_task_work_units_total                        counters of live tasks
   //   korvo_task_work_pending, korvo_task_max_delay_seconds   gauges of live tasks
   //   korvo_dead_tasks_total, korvo_dead_task_runs_total,
   //   korvo_dead_task_run_seconds_total                  folded dead tasks per name
   //   korvo_scheduler_tasks{state="runnable"|"idle"}      gauge per priority
   //   korvo_scheduler_task_deaths_total, korvo_scheduler_runs_total  per priority
   //   korvo_scheduler_max_delay_seconds                  the largest scheduler slip
   //   korvo_history_capacity, korvo_history_events       the root's history
   // Counters restart from zero when the statistics are cleared, and a live task's
   // series moves to the dead families when it dies; monitoring systems read both
   // as a counter reset. Label values are escaped as the format wants (backslash,
   // double quote, newline) and invalid UTF-8 bytes become U+FFFD. Same cost as the
   // statistics report without its formatting; nothing it reads is changed.
   virtual void printMetrics(std::ostream& os) const;
   // Asks whoever drives this scheduler for one handleSchedulerRun().
   virtual void requestSchedulerRun() = 0;
   // Called when the set of tasks under forced test yielding turns non-empty or empty.
   virtual void handleTaskForceYieldInTest() = 0;
   // Links a new task into the registered list (called by the task's constructor).
   virtual void taskRegister(TaskImpl* task);
   virtual ~TaskScheduler();
   // One dispatch: runs at most one task and, after a task ran, requests the next
   // run. While the root is suspended it runs nothing. An exception from the task's
   // taskExecute() passes out of here (and out of doEventLoop()) with the task off
   // its queue; no further run is requested, so a caller that carries on calls
   // requestSchedulerRun() to resume the queued work. Virtual, so that the root's
   // version runs whatever the static type of the pointer it is called through.
   virtual void handleSchedulerRun();
   // Picks and unlinks the next task from priority `from` down, or null.
   TaskImpl* pickOneTask(const TaskTimePoint& now, TaskPriority from);
   // The anti-starvation rule: whether a task below `priority` goes first after
   // `consecutive` picks in a row at `priority`.
   bool attemptLowerPriorityBump(TaskPriority priority, unsigned int consecutive) const;
   void schedulerHasRunnableTasksIs(bool runnable, const TaskTimePoint& time);
   bool schedulerHasRunnableTasks() const { return hasRunnableTasks_; }
   // Takes `task` off `queue` for running, counting it as dispatched.
   void taskSchedulerUnlinkTask(const TaskTimePoint& now, TaskRunQueue& queue, TaskImpl* task);

   void taskUnregister(TaskImpl* task);
   void tasksPerPriorityInc(TaskPriority p);
   void tasksPerPriorityDec(TaskPriority p);
   void deadTasksPerPriorityInc(TaskPriority p);
   void deadTasksPerPriorityDec(TaskPriority p);
   uint32_t tasksPerPriority(TaskPriority p) const;
   uint32_t deadTasksPerPriority(TaskPriority p) const;
   void _tasksPerPriority(PriorityCounts* out) const { *out = tasksPerPriority_; }
   // Folds a dying task's statistics into the record of its stats name.
   void updateDeadTaskStats(TaskImpl* task);
   void deadTaskStatsInc(const ConstStringRef& name, TaskStat stat);

   // Tasks queued at `p` (on either queue of the pair).
   uint32_t runnableTaskCount(TaskPriority p) const;
   uint32_t runnableTaskCount() const;
   // Tasks dispatched at `p` since the last statistics clear.
   uint64_t runTaskCount(TaskPriority p) const;

   TaskDuration defaultTaskQuantum() const { return defaultTaskQuantum_; }
   // Applies to tasks created later.
   void defaultTaskQuantumIs(TaskDuration quantum) { defaultTaskQuantum_ = quantum; }
   // Marks a run as starting now; returns the wait since the run was requested.
   TaskDuration checkSchedulerLatency();
   TaskDuration schedulerLatencyHighWaterMark() const { return schedulerLatencyHighWaterMark_; }
   TaskTimePoint runRequestedAt() const { return runRequestedAt_; }
   void runRequestedAtIs(const TaskTimePoint& time) { runRequestedAt_ = time; }
   TaskTimePoint lastRunAt() const { return lastRunAt_; }

   TaskRunQueue& taskRunQueue(TaskPriority p) { return runQueues_[p]; }
   void taskRunQueuesMovePersistentToTemporary();
   void taskRunQueuesMoveTemporaryToPersistent();

   void taskForceYieldInTestNotify(TaskImpl* task, bool on);

   // Statistics: clearStats() resets every task at once; resetStats() spreads the
   // same work over runs of a ";ResetStats" task of this scheduler (restarting the
   // walk when one is in progress).
   void clearStats();
   void resetStats();
   void clearStatsCommon();
   // Per priority that has had tasks: runnable, idle and dead tasks, runs since the
   // last clear.
   TaskSchedulerQueueStats queueStats() const;
   // Appends one record per live task (bookmarks skipped); `clear` empties the vector
   // first, so a caller can gather several schedulers into one vector.
   void getTaskStats(std::vector<TaskStat>* out, bool clear) const;
   // The same for the dead-task records, one per stats name.
   void getDeadTaskStats(std::vector<TaskStat>* out, bool clear) const;

   const ConstStringRef& schedulerName() const { return name_; }
   TaskSchedulerRoot* root() const { return root_; }
   // The id that this scheduler's history events carry.
   uint16_t historyId() const { return historyId_; }
   const std::shared_ptr<TaskSchedulerHistory>& history() const { return history_; }
   ConstStringCache& stringCache() const { return history_->stringCache(); }
   const RegisteredList& registeredTasks() const { return registeredTasks_; }
   RegisteredList& registeredTasks() { return registeredTasks_; }
   const DeadTaskStats& deadTaskStats() const { return deadTaskStats_; }
   // The task currently run by handleSchedulerRun(), or null.
   const std::shared_ptr<_TaskBase>& currentlyRunningTask() const { return currentlyRunningTask_; }

   // Test look-ups by name (linear).
   std::shared_ptr<TaskImpl> taskForTest(const std::string& name);
   TaskStat taskStatForTest(const std::string& name) const;
   TaskStat deadTaskStatForTest(const std::string& name) const;

   void recordEvent(const TaskTimePoint& time, TaskSchedulerEventType type) const {
      history_->insert(time, type, this);
   }

protected:
   // handleSchedulerRun() with its dispatch time given: true when a task ran, with
   // *end the time its run ended.
   bool dispatchAt(const TaskTimePoint& now, TaskTimePoint* end);
   // Destroys the reset-statistics task while the scheduler is still whole.
   void resetStatsTaskRelease();
   // True while the scheduler's own reset-statistics task registers (taskRegister()
   // overrides may exempt it from their rules).
   bool resetStatsTaskRegistering() const { return resetStatsTaskRegistering_; }
   // Tasks under forced yield; a task group passes "any" on to its parent task.
   std::size_t taskForceYieldInTestCount() const { return forcedYieldTasks_.size(); }

private:
   friend class TaskImpl;
   friend class TestPeer;
   class ResetStatsTask;

   void handleResetStatsTaskRun();
   void enqueue(TaskImpl* task, const TaskTimePoint& now);
   void dequeueUnscheduled(TaskImpl* task);
   inline bool rootSuspended() const;
   inline void sanityCheckThread() const;

   // First, so that it is destroyed after every name handle below.
   std::shared_ptr<TaskSchedulerHistory> history_;
   ConstStringRef name_;
   TaskSchedulerRoot* root_;
   uint16_t historyId_;
   DeadTaskStats deadTaskStats_;
   RegisteredList registeredTasks_;
   TaskRunQueue runQueues_[TaskPriority::count];
   TaskTimePoint runRequestedAt_;
   TaskTimePoint lastRunAt_;
   TaskDuration defaultTaskQuantum_ = defaultTaskQuantumInitial;
   TaskDuration schedulerLatencyHighWaterMark_{0};
   PriorityCounts tasksPerPriority_;
   PriorityCounts deadTasksPerPriority_;
   bool hasRunnableTasks_ = false;
   std::shared_ptr<_TaskBase> currentlyRunningTask_;
   std::unordered_set<TaskImpl*> forcedYieldTasks_;
   std::shared_ptr<ResetStatsTask> resetStatsTask_;
   RegisteredList::Bookmark resetStatsBookmark_;
   bool resetStatsInProgress_ = false;
   bool resetStatsTaskRegistering_ = false;
};

// The scheduler's name.
KORVO_EXPORT std::ostream& operator<<(std::ostream& os, const TaskScheduler* scheduler);

class KORVO_EXPORT TaskSchedulerRoot : public TaskScheduler, private Platform::CallbackHandler {
public:
   static constexpr unsigned int historyEntryCountDefault = 100;

   // Binds the root to the calling thread and obtains its event-loop callback and the
   // thread's timer wheel (getTimerWheel()).
   explicit TaskSchedulerRoot(const std::string& name);
   // A new root, not installed as the thread's root.
   static std::shared_ptr<TaskSchedulerRoot> TaskSchedulerRootIs(const std::string& name);

   // True while any registered scheduler is walking a statistics reset.
   bool resetStatsInProgress() const override;
   // The report over the root and every registered scheduler (task groups): queue
   // counts summed, the largest slip, all live and dead records in one table each.
   void printStats(std::ostream& os, bool includeDead, bool skipNoRuns, unsigned int nameWidthMin,
                   unsigned int liveLimit, unsigned int deadLimit) const override;
   // printStats(std::cerr, true, false, 20, 4294967295, 4294967295): every row, both
   // tables aligned.
   void printStatsStdErr() const;
   // queueStats() summed over the root and its registered schedulers.
   TaskSchedulerQueueStats queueStatsRoot() const;
   // The metrics of the root and every registered scheduler, one set of families.
   void printMetrics(std::ostream& os) const override;
   // One event-loop callback; requests made while one is pending give one callback.
   void requestSchedulerRun() override;
   void handleTaskForceYieldInTest() override {}
   ~TaskSchedulerRoot() override;

   // The event loop's entry: switches virtual time off, then runs one dispatch.
   void handleSchedulerRun() override;

   void registerScheduler(TaskScheduler* scheduler);
   void unregisterScheduler(TaskScheduler* scheduler);
   const std::set<TaskScheduler*>& registeredSchedulers() const { return schedulers_; }

   // Fails "Executing in wrong thread ..." when called off the owner thread, unless
   // the check is disabled, auxThreadCount is non-zero, or this is a forked child.
   void sanityCheckCurrentRunningThread() const {
      if (__builtin_expect(pthread_equal(pthread_self(), ownerThread_) == 0, 0)) {
         sanityCheckOtherThread();
      }
   }
   void threadSanityDisabledIs(bool disabled);
   bool threadSanityDisabled() const { return threadSanityDisabled_; }
   // The calling thread's name as the system reports it; empty on failure.
   static std::string currentThreadName();
   pthread_t ownerThread() const { return ownerThread_; }
   pid_t ownerPid() const { return ownerPid_; }
   const char* ownerThreadName() const { return ownerThreadName_; }
   bool isMainThread() const { return isMainThread_; }
   // The wheel that times this root's timer tasks.
   const std::shared_ptr<TimerWheel>& timerWheel() const { return timerWheel_; }

   // While suspended, every dispatch of every scheduler under the root runs nothing;
   // unsuspending requests a run, so queued work resumes without new schedules.
   void suspendedIs(bool suspended);
   bool suspended() const { return suspended_; }
   // Tasks cannot run under virtual time; a dispatch switches it off first.
   void virtualTimeIs(bool on);
   bool virtualTime() const { return virtualTime_; }
   // Every task without its own ratio yields on every r-th check; 0 is off.
   void taskTestYieldRatioIs(unsigned char ratio);
   unsigned char taskTestYieldRatio() const { return testYieldRatio_; }
   // Re-evaluates the yield mode of every task of every registered scheduler.
   void taskShouldYieldModeReevaluate();

   // 0 to 100 from the root's own generator; the same sequence in every run.
   // Timer-task jitter draws from it too.
   int randomPercent();
   // The generator's state (rand_r), 0 at construction.
   unsigned int randomSeed() const { return randomSeed_; }

   TaskScheduler* findSchedulerForTest(const std::string& name) const;
   // Registered tasks of all registered schedulers, bookmarks not counted.
   uint32_t totalRegisteredTaskCount() const;
   // Registered schedulers other than the root itself.
   uint32_t taskGroupCount() const;

   unsigned int historyEntryCount() const { return history()->entryCount(); }
   void historyEntryCountIs(unsigned int n) { history()->entryCountIs(n); }
   void clearHistory() { history()->clear(); }
   // limit 4294967295 prints every event without a truncation note.
   void printHistory(std::ostream& os, unsigned int limit) const { history()->print(os, limit); }
   void printHistoryStdErr() const;
   // The history as a timeline in the Trace Event Format (JSON), which Perfetto's UI
   // (ui.perfetto.dev, "Open trace file") and chrome://tracing open. One track per
   // scheduler, named after it, in a process named after the root:
   // - each task run is a complete event ("ph":"X") named after the task, with the
   //   task, scheduler and priority as args; a run whose start fell out of the window
   //   begins at the window's first event (arg "truncated"), one still running when
   //   the timeline is written is an open begin event ("ph":"B");
   // - timer start/stop, suspend on/off, schedule while suspended, force-yield on/off,
   //   create and delete are instant events on the task's track, the scheduler's
   //   own events (suspended, virtual time, yield ratio) instant events on its track;
   // - schedule/unschedule and task idle/busy are left out: the runs show them;
   // - "runnable" is a counter track, one series per scheduler, 1 while it has
   //   runnable tasks.
   // Timestamps are microseconds of the steady clock (with nanosecond decimals), so
   // timelines of one boot line up. Names are JSON-escaped, invalid UTF-8 bytes
   // become U+FFFD. The timeline shows only what the history holds: to investigate,
   // raise historyEntryCountIs() (24 bytes per event; 1,000,000 events = 24 MB) before
   // the interesting period and write the timeline after it. Costs no memory beyond
   // the history; linear in the events (100k events in a few tens of ms). Thread: the
   // root's; events of schedulers that are gone are put on a track "scheduler#<id>".
   void writeTimeline(std::ostream& os) const;

private:
   static constexpr uint64_t noRunEnd = ~uint64_t(0);

   void callback() override;
   void dispatchRoot(const TaskTimePoint& now);
   [[noreturn]] void failWrongThread() const;
   void sanityCheckOtherThread() const;

   std::set<TaskScheduler*> schedulers_;
   std::shared_ptr<Platform::CallbackControl> callbackControl_;
   // The same control, requested without a virtual call.
   LibeventCallbackControl* loopCallback_ = nullptr;
   // The end of the last task run of a loop callback, and the thread's handler-call
   // count then (noRunEnd: none to reuse).
   TaskTimePoint runEnd_;
   uint64_t runEndCalls_ = noRunEnd;
   std::shared_ptr<TimerWheel> timerWheel_;
   pthread_t ownerThread_;
   pid_t ownerPid_;
   char ownerThreadName_[16] = {};
   bool threadSanityDisabled_ = false;
   bool suspended_ = false;
   bool virtualTime_ = false;
   bool isMainThread_ = false;
   unsigned char testYieldRatio_ = 0;
   unsigned int randomSeed_ = 0;
};

// The calling thread's root, made on first use ("main" on the main thread, else
// "thread:<id>") and released when the thread exits.
KORVO_EXPORT std::shared_ptr<TaskSchedulerRoot> schedulerRootKorvo();
// A new root that is not installed as the thread's root.
KORVO_EXPORT std::shared_ptr<TaskSchedulerRoot> schedulerRootKorvoNonShared(
    const std::string& name);

// The hot helpers of scheduling and dispatch, inline now that every class is complete.
inline bool TaskScheduler::rootSuspended() const {
   return root_->suspended();
}
inline void TaskScheduler::sanityCheckThread() const {
   root_->sanityCheckCurrentRunningThread();
}
inline TaskSchedulerRoot* TaskImpl::root() const {
   return taskScheduler()->root();
}
inline void TaskImpl::sanityCheckThread() const {
   root()->sanityCheckCurrentRunningThread();
}
inline void TaskImpl::recordEvent(const TaskTimePoint& time, TaskSchedulerEventType type) const {
   taskScheduler()->history()->insert(time, type, this);
}

}  // namespace Korvo

#endif
