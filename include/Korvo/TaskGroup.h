#ifndef KORVO_TASKGROUP_H
#define KORVO_TASKGROUP_H

// Task groups: a subsystem's many tasks with one bounded share of the thread.
//
// A TaskGroup is a TaskScheduler whose tasks do not compete directly with the tasks
// of the scheduler above it (its parent: the root, another scheduler, or another
// group). The whole group stands in its parent as one task, its ParentTask, named
// "TaskGroup;" followed by the group's name, at the group's priority and with one
// quantum (taskGroupQuantumIs()). When the parent runs that task, the group runs
// its own tasks, by its own priorities and pick rules, until the quantum is spent or
// nothing in the group is runnable:
//
//    auto flows = Korvo::TaskGroup::TaskGroupIs("flows", TaskPriority::normal, false,
//                                               Korvo::schedulerRootKorvo());
//    flows->taskGroupQuantumIs(5ms);                  // the whole group: 5 ms per turn
//    auto t = Korvo::makeShared<FlowTask>(flows, ...); // tasks are made on the group
//
// The parent task is queued in the parent exactly while the group has runnable
// work: scheduling into an idle group queues it, and a turn that leaves nothing
// runnable takes it off again. Its statistics row shows the group's share of the
// thread, and its work count adds up the child dispatches of each turn (the last
// dispatch of a turn that drains the group finds nothing and is counted too).
//
// Snapshot mode, tasksPermittedMultipleRunsIs(false): a turn runs only the tasks
// queued when it starts, each at most once; a task (re)scheduled during the turn
// waits for the next one, and the parent task is queued again for it. By default
// (true) a task that reschedules itself may run again in the same turn.
//
// With the priority check on, every task registered in the group must have the
// group's priority ("taskPriority( low ) != taskGroupPriority( high )" otherwise).
// The group's own statistics-reset task (normal priority) is exempt.
//
// Ownership: make groups with TaskGroupIs() (a group must be owned by a
// std::shared_ptr: each turn holds a reference, so a child may drop the last outside
// reference during the turn). The group owns its parent task; the parent task holds
// the parent scheduler, so a parent outlives its groups, and the group's tasks hold
// the group. The group registers itself with the root for the root's walks and
// reports (TaskSchedulerRoot::printStats() includes the group's tasks).
//
// Statistics: resetting the parent task's statistics (e.g. by resetStats() of the
// parent) resets the group's as well, through the group's own reset task.
//
// Exceptions: an exception from a child's taskExecute() passes out of the parent
// task's run to the parent scheduler's caller. The group stays usable: a snapshot
// is ended (queued tasks keep their order) and, if the group still has work, its
// parent task stays queued, so driving the parent again resumes the group.
//
// Thread: a group and its parent belong to the root's thread; nothing is locked.

#include <Korvo/Export.h>
#include <Korvo/Task.h>
#include <Korvo/TaskScheduler.h>

#include <memory>
#include <string>

namespace Korvo {

class KORVO_EXPORT TaskGroup : public TaskScheduler {
public:
   // The group's stand-in in its parent scheduler. Owned by the group; its
   // back-pointer is cleared when the group goes away, after which its runs do
   // nothing.
   class KORVO_EXPORT ParentTask : public Task {
   public:
      ParentTask(std::shared_ptr<TaskScheduler> parent, TaskPriority priority,
                 const std::string& name, TaskGroup* group)
          : Task(std::move(parent), priority, name), group_(group) {}

      // One turn of the group.
      void taskExecute() override;
      // Resets the group's statistics too.
      void handleResetStats() override;
      TaskGroup* taskGroup() const { return group_; }

   private:
      friend class TaskGroup;
      TaskGroup* group_;
   };

   // Prefer TaskGroupIs(). `parent` must belong to the calling thread's root.
   TaskGroup(std::string name, TaskPriority priority, bool priorityCheck,
             std::shared_ptr<TaskScheduler> parent);
   static std::shared_ptr<TaskGroup> TaskGroupIs(std::string name, TaskPriority priority,
                                                 bool priorityCheck,
                                                 std::shared_ptr<TaskScheduler> parent);

   // Queues the parent task: the group has work.
   void requestSchedulerRun() override;
   // Passes forced test yielding of any task in the group on to the parent task.
   void handleTaskForceYieldInTest() override;
   void taskRegister(TaskImpl* task) override;
   ~TaskGroup() override;

   // The parent task's quantum: the group's share per turn. The checked setter
   // refuses more than one second, as for any task.
   TaskDuration taskGroupQuantum() const { return parentTask_->taskQuantum(); }
   void taskGroupQuantumIs(TaskDuration quantum) { parentTask_->taskQuantumIs(quantum); }
   void taskGroupQuantumNoCheckIs(TaskDuration quantum) {
      parentTask_->taskQuantumNoCheckIs(quantum);
   }
   bool tasksPermittedMultipleRuns() const { return tasksPermittedMultipleRuns_; }
   void tasksPermittedMultipleRunsIs(bool permitted) { tasksPermittedMultipleRuns_ = permitted; }
   TaskPriority taskGroupPriority() const { return priority_; }
   bool taskGroupPriorityCheck() const { return priorityCheck_; }
   TaskScheduler* parentScheduler() const { return parentScheduler_; }

   const std::shared_ptr<ParentTask>& parentTask() const { return parentTask_; }
   uint32_t parentTaskRunCount() const { return parentTask_->taskRunCount(); }
   bool parentTaskScheduled() const { return parentTask_->taskScheduled(); }

   // Test hooks: make the parent task yield after every child run; run one turn now.
   bool taskGroupForceYieldInTest() const { return forceYieldInTest_; }
   void taskGroupForceYieldInTestIs(bool on);
   void taskGroupRunFromTest() { parentTask_->taskRunFromTest(); }

private:
   void runTurn(ParentTask& parent);
   void dispatchUntilYield(ParentTask& parent, unsigned long* count);
   void endTurn(ParentTask& parent, unsigned long count);
   void recoverFromChildException(ParentTask& parent);

   std::shared_ptr<ParentTask> parentTask_;
   TaskScheduler* parentScheduler_;
   TaskPriority priority_;
   bool priorityCheck_;
   bool forceYieldInTest_ = false;
   bool tasksPermittedMultipleRuns_ = true;
};

}  // namespace Korvo

#endif
