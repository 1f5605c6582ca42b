#ifndef KORVO_FILEDESCRIPTORTASK_H
#define KORVO_FILEDESCRIPTORTASK_H

// File-descriptor tasks: react to a descriptor through the scheduler.
//
// A FileDescriptorTask watches one descriptor through an event-loop FdControl. When
// the loop reports it readable (writable), the task queues its inner read (write)
// task; when the scheduler runs that inner task, the user's taskExecuteReadable()
// (taskExecuteWritable()) is called. The two directions are two separately queued and
// separately counted tasks named "<name>:read" and "<name>:write" (two rows in the
// statistics), at the outer task's priority on its scheduler.
//
//    class Conn : public Korvo::FileDescriptorTask {
//     public:
//       Conn(std::shared_ptr<Korvo::TaskScheduler> s, int fd)
//           : FileDescriptorTask(s, TaskPriority::normal, "conn") {
//          taskWatchReadableIs(true);
//          taskWatchFdIs(fd);
//       }
//       void taskExecuteReadable() override { taskWorkCountInc(drain()); }
//       void taskExecuteWritable() override {
//          if (!flush()) taskWatchWritableIs(true);  // one-shot: ask again
//       }
//    };
//
// Directions: readable interest is persistent (the read task is queued on every
// readable report while it is on); writable interest is one-shot: it is switched off
// before each write run, so a handler with more to send calls taskWatchWritableIs(true)
// again.
//
// Decisions beyond the obvious:
// - A new task watches nothing: both interests are off in the task and in its inner
//   control alike, so taskWatchFdIs(fd) before taskWatchReadableIs(true) reports
//   nothing instead of tripping "readFdEvent() called with taskWatchReadable off"
//   (which stays for real misuse: a report for a direction that is not watched, or
//   "Notified about <fd> watching <fd>" for another descriptor).
// - taskWatchWritableIs(false) creates the write task even on a fresh task, where it
//   changes nothing else (its statistics row appears from then on).
// - taskWatchFdIs(fd) with the descriptor already watched does nothing; a descriptor
//   that cannot be watched (-1, closed) is an assertion failure ("flags >= 0").
//   Before closing a watched descriptor call taskWatchFdDel(): the kernel forgets a
//   closed file silently, and a reused number is then watched afresh by taskWatchFdIs.
// - Unsuspending (taskSuspendedIs(false)) queues only the directions that are
//   watched: an inner task is otherwise queued by every unsuspend.
// - taskShouldYield(), taskWorkCountInc() and taskWorkPendingIs() forward to the
//   direction that is running; outside a run they go to the read task.
// - An exception from taskExecuteReadable()/taskExecuteWritable() passes to the
//   scheduler (and out of doEventLoop()) and leaves the run marked in progress: every
//   later run of either direction then fails "Executing task already set". The task
//   is unusable from then on; a daemon that wants to survive handler exceptions
//   catches them inside its handlers, or destroys the task and makes a new one (the
//   task-backed fd control does the former through handleFdException()).
//
// Ownership: the task must be owned by a std::shared_ptr (each run holds a reference,
// so a handler may release the last outside reference, and the task then goes after
// the run). The inner tasks belong to the outer object and die with it; a queued inner
// task whose owner is gone runs as a no-op. Thread: the root scheduler's; the watch
// setters check it ("Executing in wrong thread ...").

#include <Korvo/Export.h>
#include <Korvo/Platform.h>
#include <Korvo/Task.h>
#include <Korvo/TaskStat.h>

#include <cstdint>
#include <memory>
#include <string>

namespace Korvo {

class KORVO_EXPORT FileDescriptorTask : public _TaskBase, private Platform::FdEventHandler {
public:
   FileDescriptorTask(std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority,
                      const std::string& name);
   // Takes shared ownership from the scheduler itself: throws std::bad_weak_ptr when
   // the scheduler is not owned by a std::shared_ptr.
   FileDescriptorTask(TaskScheduler* scheduler, TaskPriority priority, const std::string& name);

   // Either direction queued.
   bool taskScheduled() const override;
   bool taskShouldYield() const override;
   void taskWorkCountInc(unsigned long n) override;
   void taskWorkPendingIs(unsigned int n) override;
   ~FileDescriptorTask() override;

   // The user's work, run by the scheduler.
   virtual void taskExecuteReadable() = 0;
   virtual void taskExecuteWritable() = 0;
   // The inner control's reports: they queue the matching direction.
   void readFdEvent(int fd) override;
   void writeFdEvent(int fd) override;

   // The watched descriptor, or -1.
   int taskWatchFd() const;
   // Dequeues both directions and watches `fd` with the current interests.
   void taskWatchFdIs(int fd);
   // Dequeues both directions and forgets the descriptor (never closes it); the
   // interests stay as they are.
   void taskWatchFdDel();
   bool taskWatchReadable() const { return watchReadable_; }
   void taskWatchReadableIs(bool on);
   bool taskWatchWritable() const { return watchWritable_; }
   void taskWatchWritableIs(bool on);
   // Queue a direction without waiting for the descriptor.
   void scheduleTaskReadable();
   void scheduleTaskWritable();
   void checkCreateWriteTask();

   // Per-direction statistics; the writable ones are 0 (false) until the write task
   // exists.
   uint64_t taskWorkCountReadableTotal() const;
   float taskWorkCountReadableDecayAvg() const;
   TaskMaybeU32 taskWorkCountReadableHighWaterMark() const;
   uint32_t taskWorkPendingReadable() const;
   TaskMaybeU32 taskWorkPendingReadableHighWaterMark() const;
   uint32_t taskRunCountReadable() const;
   bool taskScheduledReadable() const;
   uint64_t taskWorkCountWritableTotal() const;
   float taskWorkCountWritableDecayAvg() const;
   TaskMaybeU32 taskWorkCountWritableHighWaterMark() const;
   uint32_t taskWorkPendingWritable() const;
   TaskMaybeU32 taskWorkPendingWritableHighWaterMark() const;
   uint32_t taskRunCountWritable() const;
   bool taskScheduledWritable() const;
   // Read runs plus write runs.
   uint32_t taskRunCount() const;

   // Work accounting during a run; the writable forms fail an assertion before the
   // write task exists.
   void taskWorkCountReadableInc(unsigned long n);
   void taskWorkPendingReadableIs(unsigned int n);
   void taskWorkCountWritableInc(unsigned long n);
   void taskWorkPendingWritableIs(unsigned int n);

   // Settings of both directions (read from the read task).
   void taskQuantumIs(TaskDuration quantum);
   TaskDuration taskQuantum() const;
   void taskSuspendedIs(bool suspended);
   bool taskSuspended() const;
   void taskTestYieldRatioIs(unsigned char ratio);
   unsigned char taskTestYieldRatio() const;
   void taskForceYieldInTestIs(bool on);
   bool taskForceYieldInTest() const;

   // Busy while either direction is queued; a change calls handleTaskBusy().
   void taskBusyIs(bool busy, const TaskTimePoint& time);
   bool taskBusy() const { return busy_; }

private:
   class ReadWriteTaskBase;
   class ReadTask;
   class WriteTask;

   void _taskExecuteReadable();
   void _taskExecuteWritable();
   void unscheduleBoth();
   void sanityCheckThread() const;
   TaskImpl* currentTask() const;

   bool watchReadable_ = false;
   bool watchWritable_ = false;
   std::shared_ptr<Platform::FdControl> fdControl_;
   std::shared_ptr<ReadTask> readTask_;
   std::shared_ptr<WriteTask> writeTask_;
   TaskImpl* executingTask_ = nullptr;
   bool busy_ = false;
};

}  // namespace Korvo

#endif
