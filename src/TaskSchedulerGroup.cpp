#define KORVO_SOURCE_FILE "TaskSchedulerCpp"
#include "Korvo/Allocator.h"
#include "Korvo/Exception.h"
#include "Korvo/TaskGroup.h"

#include "TaskTime.h"

namespace Korvo {

TaskGroup::TaskGroup(std::string name, TaskPriority priority, bool priorityCheck,
                     std::shared_ptr<TaskScheduler> parent)
    : TaskScheduler(name, parent->root(), parent->root()->history()),
      parentScheduler_(parent.get()),
      priority_(priority),
      priorityCheck_(priorityCheck) {
   defaultTaskQuantumIs(parent->defaultTaskQuantum());
   root()->registerScheduler(this);
   try {
      parentTask_ = makeShared<ParentTask>(std::move(parent), priority, "TaskGroup;" + name, this);
   } catch (...) {
      // No destructor runs for a half-made group: leave no dangling entry in the root.
      root()->unregisterScheduler(this);
      throw;
   }
}

std::shared_ptr<TaskGroup> TaskGroup::TaskGroupIs(std::string name, TaskPriority priority,
                                                  bool priorityCheck,
                                                  std::shared_ptr<TaskScheduler> parent) {
   return makeShared<TaskGroup>(std::move(name), priority, priorityCheck, std::move(parent));
}

TaskGroup::~TaskGroup() {
   taskGroupForceYieldInTestIs(false);
   // The reset task's teardown calls back into this object's overrides, so it goes
   // while the group is still a TaskGroup.
   resetStatsTaskRelease();
   // The parent scheduler may still hold the parent task (when the group dies at the
   // end of its own turn); from now on its runs do nothing.
   parentTask_->group_ = nullptr;
   root()->unregisterScheduler(this);
}

void TaskGroup::taskRegister(TaskImpl* task) {
   if (priorityCheck_ && task->taskPriority() != priority_ && !resetStatsTaskRegistering()) {
      KORVO_FAIL("taskPriority( " << task->taskPriority() << " ) != taskGroupPriority( "
                                  << priority_ << " )");
   }
   TaskScheduler::taskRegister(task);
}

void TaskGroup::requestSchedulerRun() {
   // Null only while the constructor makes the parent task.
   if (parentTask_ != nullptr) {
      parentTask_->scheduleTask();
   }
}

void TaskGroup::handleTaskForceYieldInTest() {
   parentTask_->taskForceYieldInTestIs(taskForceYieldInTestCount() != 0);
}

void TaskGroup::taskGroupForceYieldInTestIs(bool on) {
   if (on == forceYieldInTest_) {
      return;
   }
   forceYieldInTest_ = on;
   // Counted like a task of the group under forced yield, so that the parent task
   // yields after every child run.
   taskForceYieldInTestNotify(parentTask_.get(), on);
}

// ---------------------------------------------------------------------------------
// One turn

void TaskGroup::ParentTask::taskExecute() {
   if (group_ == nullptr) {
      return;
   }
   // Held for the turn: a child may drop the last outside reference to the group.
   const std::shared_ptr<TaskScheduler> hold = group_->shared_from_this();
   group_->runTurn(*this);
}

void TaskGroup::ParentTask::handleResetStats() {
   if (group_ != nullptr) {
      group_->resetStats();
   }
}

void TaskGroup::runTurn(ParentTask& parent) {
   // In snapshot mode the picks read only what was queued when the turn began;
   // tasks scheduled meanwhile wait on the persistent queues for the next turn.
   if (!tasksPermittedMultipleRuns_) {
      taskRunQueuesMovePersistentToTemporary();
   }
   unsigned long count = 0;
   try {
      dispatchUntilYield(parent, &count);
   } catch (...) {
      recoverFromChildException(parent);
      throw;
   }
   if (!tasksPermittedMultipleRuns_) {
      taskRunQueuesMoveTemporaryToPersistent();
   }
   endTurn(parent, count);
}

void TaskGroup::dispatchUntilYield(ParentTask& parent, unsigned long* count) {
   // Runs until a dispatch finds nothing (which clears the runnable flag) or the
   // group's quantum is spent; there is no other bound.
   while (schedulerHasRunnableTasks()) {
      ++*count;
      handleSchedulerRun();
      if (parent.taskShouldYield()) {
         break;
      }
   }
}

void TaskGroup::endTurn(ParentTask& parent, unsigned long count) {
   parent.taskWorkCountInc(count);
   const uint32_t pending = runnableTaskCount();
   parent.taskWorkPendingIs(pending);
   const TaskTimePoint now = taskTime();
   if (pending == 0) {
      // Each child dispatch asked for another turn; with nothing left, withdraw it.
      if (schedulerHasRunnableTasks()) {
         schedulerHasRunnableTasksIs(false, now);
      }
      if (parent.taskScheduled()) {
         parent.unscheduleTask();
      }
   } else if (tasksPermittedMultipleRuns_) {
      KORVO_ASSERT(parent.taskScheduled(), "TaskGroup parentTask should be scheduled.");
      KORVO_ASSERT(schedulerHasRunnableTasks(), "The TaskGroup should have runnable tasks");
   } else {
      // The snapshot ran dry while tasks wait on the persistent queues.
      parent.scheduleTask();
      schedulerHasRunnableTasksIs(true, now);
   }
}

void TaskGroup::recoverFromChildException(ParentTask& parent) {
   if (!tasksPermittedMultipleRuns_) {
      taskRunQueuesMoveTemporaryToPersistent();
   }
   // The throwing dispatch asked for no further run. Leave the parent task queued
   // exactly when work is left, as a completed turn does, so that the group resumes
   // when the parent scheduler is driven again.
   const TaskTimePoint now = taskTime();
   if (runnableTaskCount() != 0) {
      parent.scheduleTask();
      schedulerHasRunnableTasksIs(true, now);
   } else {
      schedulerHasRunnableTasksIs(false, now);
      parent.unscheduleTask();
   }
}

}  // namespace Korvo
