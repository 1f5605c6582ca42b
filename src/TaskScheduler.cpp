#define KORVO_SOURCE_FILE "TaskSchedulerCpp"
#include "Korvo/TaskScheduler.h"

#include "Korvo/Allocator.h"
#include "Korvo/Debug.h"
#include "Korvo/Exception.h"

#include "TaskSchedulerDebug.h"
#include "TaskTime.h"

namespace Korvo {

namespace Impl {
KORVO_COMPONENT_DEBUG(taskSchedulerDebug, "TaskScheduler");
}  // namespace Impl

using Impl::taskSchedulerDebug;
using EventType = TaskSchedulerEventType;

// The task that spreads a statistics reset over several runs.
class TaskScheduler::ResetStatsTask : public Task {
public:
   // The scheduler owns this task, so the task holds it without owning it: an owning
   // reference would keep the scheduler alive forever.
   explicit ResetStatsTask(TaskScheduler* scheduler)
       : Task(std::shared_ptr<TaskScheduler>(std::shared_ptr<TaskScheduler>(), scheduler),
              TaskPriority::normal, scheduler->schedulerName().str() + ";ResetStats") {}
   void taskExecute() override { taskScheduler()->handleResetStatsTaskRun(); }
};

// ---------------------------------------------------------------------------------
// Run queues

void TaskRunQueue::movePersistentToTemporary() {
   KORVO_ASSERT(temporary_.empty(), "The temporary run queue should always be empty at this point");
   temporary_.spliceBack(persistent_);
   currentQueue_ = &temporary_;
}

void TaskRunQueue::moveTemporaryToPersistent() {
   persistent_.spliceFront(temporary_);
   KORVO_ASSERT(temporary_.empty(), "The temporary run queue should always be empty at this point");
   currentQueue_ = &persistent_;
}

// ---------------------------------------------------------------------------------
// Construction

TaskScheduler::TaskScheduler(const std::string& name, TaskSchedulerRoot* root,
                             std::shared_ptr<TaskSchedulerHistory> history)
    : history_(std::move(history)),
      name_(history_->stringCache().intern(name)),
      root_(root),
      historyId_(history_->schedulerIdNew()),
      runRequestedAt_(taskTime()) {
   deadTaskStats_.max_load_factor(1.0f);
   forcedYieldTasks_.max_load_factor(1.0f);
}

TaskScheduler::~TaskScheduler() {
   resetStatsTaskRelease();
}

void TaskScheduler::resetStatsTaskRelease() {
   resetStatsBookmark_.unlink();
   resetStatsTask_.reset();
}

std::ostream& operator<<(std::ostream& os, const TaskScheduler* scheduler) {
   if (scheduler == nullptr) {
      return os << "NULL";
   }
   return os << scheduler->schedulerName();
}

// ---------------------------------------------------------------------------------
// Dispatch

void TaskScheduler::handleSchedulerRun() {
   TaskTimePoint end;
   dispatchAt(taskTime(), &end);
}

bool TaskScheduler::dispatchAt(const TaskTimePoint& now, TaskTimePoint* end) {
   lastRunAt_ = now;
   if (now - runRequestedAt_ > schedulerLatencyHighWaterMark_) {
      schedulerLatencyHighWaterMark_ = now - runRequestedAt_;
   }
   if (rootSuspended()) {
      KORVO_TRACE(taskSchedulerDebug, 8, this << " Suspended");
      recordEvent(now, EventType::schedulerRunIgnoredWhileSuspended);
      return false;
   }
   TaskImpl* task = pickOneTask(now, TaskPriority::absolute);
   if (task == nullptr) {
      schedulerHasRunnableTasksIs(false, now);
      return false;
   }
   // Held for the run, so that a task whose last outside reference goes during its
   // own run is destroyed only afterwards. Released on every way out.
   currentlyRunningTask_ = task->shared_from_this();
   struct Release {
      std::shared_ptr<_TaskBase>& held;
      ~Release() { held.reset(); }
   } release{currentlyRunningTask_};
   task->taskDoRun(now, end);
   KORVO_TASK_TRACE(8, this << " Scheduler completed task, request run");
   // Asked even when the queues are now empty: the next run finds nothing and
   // declares the scheduler idle, which keeps this path free of queue checks.
   runRequestedAt_ = *end;
   requestSchedulerRun();
   return true;
}

namespace {
// The bump rule, inline for the pick. Weights of absolute, high and normal. Absolute
// is never passed over, and low and scavenge never pass anyone, so only high and
// normal are tested; scavenge work never counts. The weights are part of the
// behaviour users tune against.
inline bool bumpDue(const TaskRunQueue* queues, unsigned p, uint32_t consecutive) {
   static constexpr uint32_t weight[] = {64, 8, 1};
   if (consecutive == 0 || (p != TaskPriority::high && p != TaskPriority::normal)) {
      return false;
   }
   uint32_t lowerWork = 0;
   for (unsigned x = p + 1; x <= TaskPriority::low; ++x) {
      lowerWork += static_cast<uint32_t>(queues[x].backlog()) * weight[x - 1];
   }
   return lowerWork * consecutive > static_cast<uint32_t>(queues[p].backlog()) * weight[p - 1];
}
}  // namespace

TaskImpl* TaskScheduler::pickOneTask(const TaskTimePoint& now, TaskPriority from) {
   for (unsigned p = from.value(); p < TaskPriority::count; ++p) {
      TaskRunQueue& queue = runQueues_[p];
      TaskImpl* task = queue.currentQueue().first();
      if (task == nullptr) {
         queue.consecutivePicks_ = 0;
         continue;
      }
      const uint32_t consecutive = queue.consecutivePicks_;
      if (bumpDue(runQueues_, p, consecutive)) {
         if (TaskImpl* lower = pickOneTask(now, TaskPriority(p + 1))) {
            queue.consecutivePicks_ = 0;
            return lower;
         }
      }
      queue.consecutivePicks_ = consecutive + 1;
      taskSchedulerUnlinkTask(now, queue, task);
      return task;
   }
   return nullptr;
}

bool TaskScheduler::attemptLowerPriorityBump(TaskPriority priority,
                                             unsigned int consecutive) const {
   return bumpDue(runQueues_, priority.value(), consecutive);
}

void TaskScheduler::taskSchedulerUnlinkTask(const TaskTimePoint& now, TaskRunQueue& queue,
                                            TaskImpl* task) {
   ++queue.dispatched_;
   KORVO_ASSERT(queue.enqueued_ >= queue.dispatched_, "");
   TaskRunQueue::Queue::remove(*task);
   task->doUpdateSchedulingLatency(now);
}

void TaskScheduler::enqueue(TaskImpl* task, const TaskTimePoint& now) {
   TaskRunQueue& queue = runQueues_[task->taskPriority()];
   queue.persistent_.pushBack(*task);
   ++queue.enqueued_;
   if (!hasRunnableTasks_) {
      schedulerHasRunnableTasksIs(true, now);
   }
}

void TaskScheduler::dequeueUnscheduled(TaskImpl* task) {
   --runQueues_[task->taskPriority()].enqueued_;
}

void TaskScheduler::schedulerHasRunnableTasksIs(bool runnable, const TaskTimePoint& time) {
   if (runnable == hasRunnableTasks_) {
      return;
   }
   hasRunnableTasks_ = runnable;
   if (runnable) {
      KORVO_TRACE(taskSchedulerDebug, 8, this << " Scheduler has runnable tasks, request run");
      recordEvent(time, EventType::schedulerRunnable);
      runRequestedAt_ = time;
      requestSchedulerRun();
   } else {
      recordEvent(time, EventType::schedulerIdle);
      KORVO_TRACE(taskSchedulerDebug, 8, this << " Scheduler idle");
   }
}

TaskDuration TaskScheduler::checkSchedulerLatency() {
   lastRunAt_ = taskTime();
   const TaskDuration latency = lastRunAt_ - runRequestedAt_;
   if (latency > schedulerLatencyHighWaterMark_) {
      schedulerLatencyHighWaterMark_ = latency;
   }
   return latency;
}

void TaskScheduler::taskRunQueuesMovePersistentToTemporary() {
   for (TaskRunQueue& queue : runQueues_) {
      queue.movePersistentToTemporary();
   }
}

void TaskScheduler::taskRunQueuesMoveTemporaryToPersistent() {
   for (TaskRunQueue& queue : runQueues_) {
      queue.moveTemporaryToPersistent();
   }
}

// ---------------------------------------------------------------------------------
// Counts

uint32_t TaskScheduler::runnableTaskCount(TaskPriority p) const {
   KORVO_ASSERT(p <= TaskPriority::scavenge, p.value());
   const int64_t n = runQueues_[p].backlog();
   KORVO_ASSERT(n >= 0, "Priority: " << p << " runnableTasks: " << n);
   return static_cast<uint32_t>(n);
}

uint32_t TaskScheduler::runnableTaskCount() const {
   uint32_t total = 0;
   for (unsigned p = 0; p < TaskPriority::count; ++p) {
      total += runnableTaskCount(TaskPriority(p));
   }
   return total;
}

uint64_t TaskScheduler::runTaskCount(TaskPriority p) const {
   KORVO_ASSERT(p <= TaskPriority::scavenge, p.value());
   return runQueues_[p].dispatched_ - runQueues_[p].dispatchedAtLastClear_;
}

uint32_t TaskScheduler::tasksPerPriority(TaskPriority p) const {
   auto it = tasksPerPriority_.find(p);
   return it == tasksPerPriority_.end() ? 0 : it->second;
}

uint32_t TaskScheduler::deadTasksPerPriority(TaskPriority p) const {
   auto it = deadTasksPerPriority_.find(p);
   return it == deadTasksPerPriority_.end() ? 0 : it->second;
}

void TaskScheduler::tasksPerPriorityInc(TaskPriority p) {
   ++tasksPerPriority_[p];
}

namespace {
template <typename Counts>
void countDec(Counts& counts, TaskPriority p) {
   uint32_t& n = counts[p];
   KORVO_ASSERT(n > 0, "Priority: " << p << " count: " << n);
   --n;
}
}  // namespace

void TaskScheduler::tasksPerPriorityDec(TaskPriority p) {
   countDec(tasksPerPriority_, p);
}

void TaskScheduler::deadTasksPerPriorityInc(TaskPriority p) {
   ++deadTasksPerPriority_[p];
}

void TaskScheduler::deadTasksPerPriorityDec(TaskPriority p) {
   countDec(deadTasksPerPriority_, p);
}

// ---------------------------------------------------------------------------------
// Registration and dead tasks

void TaskScheduler::taskRegister(TaskImpl* task) {
   sanityCheckThread();
   KORVO_ASSERT(task->taskPriority() <= TaskPriority::scavenge, task->taskPriority().value());
   KORVO_TRACE(taskSchedulerDebug, 4, this << " Register " << task);
   KORVO_ASSERT(!task->taskRegisteredLink_.isLinked(), "Task: " << task << " already registered");
   registeredTasks_.pushBack(*task);
   tasksPerPriorityInc(task->taskPriority());
   task->recordEvent(taskTime(), EventType::create);
}

void TaskScheduler::taskUnregister(TaskImpl* task) {
   sanityCheckThread();
   KORVO_TRACE(taskSchedulerDebug, 4, this << " Unregister " << task);
   KORVO_ASSERT(!task->taskRunQueueLink_.isLinked(),
                "Task: " << task << " scheduled on unregister");
   KORVO_ASSERT(task->taskRegisteredLink_.isLinked(), "Task: " << task << " not registered");
   updateDeadTaskStats(task);
   RegisteredList::remove(*task);
   task->recordEvent(taskTime(), EventType::deleteTask);
}

void TaskScheduler::updateDeadTaskStats(TaskImpl* task) {
   // Tasks left out of the dead-task record also stay in the live count of their
   // priority after they die.
   if (!task->includeInDeadTask()) {
      return;
   }
   const TaskPriority p = task->taskPriority();
   KORVO_ASSERT(p <= TaskPriority::scavenge, p.value());
   TaskStat stat = task->getStats();
   stat.taskNameIs(task->taskStatsName());
   KORVO_ASSERT(stat.taskDeadCount() == 0,
                "Task: " << task << " deadCount: " << stat.taskDeadCount());
   stat.taskDeadCountIs(1);
   deadTaskStatsInc(task->taskStatsName(), std::move(stat));
   KORVO_ASSERT(tasksPerPriority(p) != 0, "Task: " << task << " tasksPerPriority: " << 0);
   tasksPerPriorityDec(p);
   deadTasksPerPriorityInc(p);
}

void TaskScheduler::deadTaskStatsInc(const ConstStringRef& name, TaskStat stat) {
   auto it = deadTaskStats_.find(name);
   if (it == deadTaskStats_.end()) {
      deadTaskStats_.emplace(name, std::move(stat));
   } else {
      it->second += stat;
   }
}

void TaskScheduler::taskForceYieldInTestNotify(TaskImpl* task, bool on) {
   const bool wasEmpty = forcedYieldTasks_.empty();
   if (on) {
      forcedYieldTasks_.insert(task);
   } else {
      forcedYieldTasks_.erase(task);
   }
   if (wasEmpty != forcedYieldTasks_.empty()) {
      handleTaskForceYieldInTest();
   }
}

// ---------------------------------------------------------------------------------
// Statistics

void TaskScheduler::clearStatsCommon() {
   for (TaskRunQueue& queue : runQueues_) {
      queue.dispatchedAtLastClear_ = queue.dispatched_;
   }
   schedulerLatencyHighWaterMark_ = TaskDuration(0);
   deadTaskStats_.clear();
   deadTasksPerPriority_.clear();
}

void TaskScheduler::clearStats() {
   clearStatsCommon();
   for (TaskImpl& task : registeredTasks_) {
      task.resetStats();
   }
}

void TaskScheduler::resetStats() {
   if (resetStatsTask_ == nullptr) {
      struct Registering {
         bool& flag;
         ~Registering() { flag = false; }
      } registering{resetStatsTaskRegistering_};
      resetStatsTaskRegistering_ = true;
      resetStatsTask_ = makeShared<ResetStatsTask>(this);
   }
   // A reset asked for while one walks starts the walk again from the head.
   resetStatsBookmark_.unlink();
   resetStatsInProgress_ = true;
   resetStatsTask_->scheduleTask();
}

void TaskScheduler::handleResetStatsTaskRun() {
   if (!resetStatsInProgress_) {
      return;  // Run with nothing to do (e.g. after being unsuspended).
   }
   unsigned resetCount = 0;
   RegisteredList::Iterator it = registeredTasks_.resume(resetStatsBookmark_);
   for (; it != registeredTasks_.end(); ++it) {
      // Every run resets at least one task, so a long list always makes progress.
      if (resetCount > 0 && resetStatsTask_->taskShouldYield()) {
         resetStatsBookmark_.insertBefore(it);
         resetStatsTask_->taskWorkCountInc(resetCount);
         resetStatsTask_->scheduleTask();
         return;
      }
      it->resetStats();
      ++resetCount;
   }
   resetStatsTask_->taskWorkCountInc(resetCount);
   clearStatsCommon();
   resetStatsInProgress_ = false;
}

void TaskScheduler::getTaskStats(std::vector<TaskStat>* out, bool clear) const {
   if (clear) {
      out->clear();
   }
   for (const TaskImpl& task : registeredTasks_) {
      out->push_back(task.getStats());
   }
}

void TaskScheduler::getDeadTaskStats(std::vector<TaskStat>* out, bool clear) const {
   if (clear) {
      out->clear();
   }
   for (const auto& [name, stat] : deadTaskStats_) {
      out->push_back(stat);
   }
}

std::shared_ptr<TaskImpl> TaskScheduler::taskForTest(const std::string& name) {
   for (TaskImpl& task : registeredTasks_) {
      if (task.taskName().str() == name) {
         // Empty for a task that is not owned by a shared pointer.
         return std::static_pointer_cast<TaskImpl>(task.weak_from_this().lock());
      }
   }
   return nullptr;
}

TaskStat TaskScheduler::taskStatForTest(const std::string& name) const {
   for (const TaskImpl& task : registeredTasks_) {
      if (task.taskName().str() == name) {
         return task.getStats();
      }
   }
   return TaskStat();
}

TaskStat TaskScheduler::deadTaskStatForTest(const std::string& name) const {
   for (const auto& [statsName, stat] : deadTaskStats_) {
      if (statsName.str() == name) {
         return stat;
      }
   }
   return TaskStat();
}

}  // namespace Korvo
