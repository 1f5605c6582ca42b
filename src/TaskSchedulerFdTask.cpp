#define KORVO_SOURCE_FILE "TaskSchedulerCpp"
#include "Korvo/FileDescriptorTask.h"

#include "Korvo/Allocator.h"
#include "Korvo/Exception.h"
#include "Korvo/TaskScheduler.h"

#include "TaskTime.h"

namespace Korvo {

// ---------------------------------------------------------------------------------
// The inner tasks

class FileDescriptorTask::ReadWriteTaskBase : public Task {
public:
   ReadWriteTaskBase(FileDescriptorTask* owner, const std::string& suffix)
       : Task(owner->taskSchedulerPtr(), owner->taskPriority(), owner->taskName().str() + suffix),
         owner_(owner) {}
   // The outer task counts as busy while either direction is queued.
   void handleTaskBusy() override {
      if (owner_ != nullptr) {
         owner_->taskBusyIs(owner_->taskScheduled(), taskTime());
      }
   }
   void ownerClear() { owner_ = nullptr; }

protected:
   FileDescriptorTask* owner_;
};

class FileDescriptorTask::ReadTask : public ReadWriteTaskBase {
public:
   explicit ReadTask(FileDescriptorTask* owner) : ReadWriteTaskBase(owner, ":read") {}
   void taskExecute() override {
      if (owner_ != nullptr) {
         owner_->_taskExecuteReadable();
      }
   }
   // Only the read side passes a reset on, so the owner hears of it once.
   void handleResetStats() override {
      if (owner_ != nullptr) {
         owner_->handleResetStats();
      }
   }
};

class FileDescriptorTask::WriteTask : public ReadWriteTaskBase {
public:
   explicit WriteTask(FileDescriptorTask* owner) : ReadWriteTaskBase(owner, ":write") {}
   void taskExecute() override {
      if (owner_ != nullptr) {
         owner_->_taskExecuteWritable();
      }
   }
};

// ---------------------------------------------------------------------------------
// Life cycle

FileDescriptorTask::FileDescriptorTask(std::shared_ptr<TaskScheduler> scheduler,
                                       TaskPriority priority, const std::string& name)
    : _TaskBase(std::move(scheduler), priority, name),
      fdControl_(Platform::getFdControl(this)),
      readTask_(makeShared<ReadTask>(this)) {
   // An event-loop control starts with read interest on; the task starts with both
   // off, and the two must agree or a readable descriptor would report a direction
   // the task does not watch.
   fdControl_->setReads(false);
}

FileDescriptorTask::FileDescriptorTask(TaskScheduler* scheduler, TaskPriority priority,
                                       const std::string& name)
    : FileDescriptorTask(scheduler->shared_from_this(), priority, name) {}

FileDescriptorTask::~FileDescriptorTask() {
   readTask_->ownerClear();
   if (writeTask_ != nullptr) {
      writeTask_->ownerClear();
   }
   writeTask_.reset();
   readTask_.reset();
   fdControl_.reset();
}

void FileDescriptorTask::sanityCheckThread() const {
   taskScheduler()->root()->sanityCheckCurrentRunningThread();
}

// ---------------------------------------------------------------------------------
// Watching

int FileDescriptorTask::taskWatchFd() const {
   return fdControl_->getFd();
}

void FileDescriptorTask::unscheduleBoth() {
   readTask_->unscheduleTask();
   if (writeTask_ != nullptr) {
      writeTask_->unscheduleTask();
   }
}

void FileDescriptorTask::taskWatchFdIs(int fd) {
   sanityCheckThread();
   if (fd == taskWatchFd()) {
      return;
   }
   unscheduleBoth();
   fdControl_->setFd(fd);
}

void FileDescriptorTask::taskWatchFdDel() {
   sanityCheckThread();
   unscheduleBoth();
   fdControl_->delFd();
}

void FileDescriptorTask::taskWatchReadableIs(bool on) {
   sanityCheckThread();
   if (on == watchReadable_) {
      return;
   }
   watchReadable_ = on;
   fdControl_->setReads(on);
   if (!on) {
      readTask_->unscheduleTask();
   }
}

void FileDescriptorTask::taskWatchWritableIs(bool on) {
   sanityCheckThread();
   // Before the no-change test on purpose: even a fresh task told "false" gets its
   // write task (and its statistics row).
   checkCreateWriteTask();
   if (on == watchWritable_) {
      return;
   }
   watchWritable_ = on;
   fdControl_->setWrites(on);
   if (!on) {
      writeTask_->unscheduleTask();
   }
}

void FileDescriptorTask::checkCreateWriteTask() {
   if (writeTask_ != nullptr) {
      return;
   }
   auto write = makeShared<WriteTask>(this);
   // Under forced yielding the quantum is deliberately not copied.
   if (readTask_->taskTestYieldRatio() != 1) {
      write->taskQuantumIs(readTask_->taskQuantum());
   }
   write->taskSuspendedIs(readTask_->taskSuspended());
   write->taskTestYieldRatioIs(readTask_->taskTestYieldRatio());
   writeTask_ = std::move(write);
}

void FileDescriptorTask::scheduleTaskReadable() {
   readTask_->scheduleTask();
}

void FileDescriptorTask::scheduleTaskWritable() {
   checkCreateWriteTask();
   writeTask_->scheduleTask();
}

void FileDescriptorTask::readFdEvent(int fd) {
   KORVO_ASSERT(watchReadable_, "readFdEvent() called with taskWatchReadable off");
   KORVO_ASSERT(fd == taskWatchFd(), "Notified about " << fd << " watching " << taskWatchFd());
   scheduleTaskReadable();
}

void FileDescriptorTask::writeFdEvent(int fd) {
   KORVO_ASSERT(watchWritable_, "writeFdEvent() called with taskWatchWritable off");
   KORVO_ASSERT(fd == taskWatchFd(), "Notified about " << fd << " watching " << taskWatchFd());
   scheduleTaskWritable();
}

// ---------------------------------------------------------------------------------
// Runs

void FileDescriptorTask::_taskExecuteReadable() {
   // Held for the whole run: the handler may drop the last outside reference.
   const std::shared_ptr<_TaskBase> self = shared_from_this();
   KORVO_ASSERT(watchReadable_, "ReadTask should only run if taskWatchReadable");
   KORVO_ASSERT(executingTask_ == nullptr, "Executing task already set");
   executingTask_ = readTask_.get();
   taskExecuteReadable();
   executingTask_ = nullptr;
}

void FileDescriptorTask::_taskExecuteWritable() {
   const std::shared_ptr<_TaskBase> self = shared_from_this();
   // Writable interest is one-shot: spent before the handler runs, which asks again
   // if it still has data to send.
   taskWatchWritableIs(false);
   KORVO_ASSERT(executingTask_ == nullptr, "Executing task already set");
   executingTask_ = writeTask_.get();
   taskExecuteWritable();
   executingTask_ = nullptr;
}

TaskImpl* FileDescriptorTask::currentTask() const {
   return executingTask_ != nullptr ? executingTask_ : readTask_.get();
}

bool FileDescriptorTask::taskShouldYield() const {
   return currentTask()->taskShouldYield();
}

void FileDescriptorTask::taskWorkCountInc(unsigned long n) {
   currentTask()->taskWorkCountInc(n);
}

void FileDescriptorTask::taskWorkPendingIs(unsigned int n) {
   currentTask()->taskWorkPendingIs(n);
}

void FileDescriptorTask::taskBusyIs(bool busy, const TaskTimePoint&) {
   if (busy == busy_) {
      return;
   }
   busy_ = busy;
   handleTaskBusy();
}

// ---------------------------------------------------------------------------------
// Statistics and settings of the two directions

bool FileDescriptorTask::taskScheduled() const {
   return taskScheduledReadable() || taskScheduledWritable();
}

uint64_t FileDescriptorTask::taskWorkCountReadableTotal() const {
   return readTask_->taskWorkCountTotal();
}
float FileDescriptorTask::taskWorkCountReadableDecayAvg() const {
   return readTask_->taskWorkCountDecayAverage();
}
TaskMaybeU32 FileDescriptorTask::taskWorkCountReadableHighWaterMark() const {
   return readTask_->taskWorkCountHighWaterMark();
}
uint32_t FileDescriptorTask::taskWorkPendingReadable() const {
   return readTask_->taskWorkPending();
}
TaskMaybeU32 FileDescriptorTask::taskWorkPendingReadableHighWaterMark() const {
   return readTask_->taskWorkPendingHighWaterMark();
}
uint32_t FileDescriptorTask::taskRunCountReadable() const {
   return readTask_->taskRunCount();
}
bool FileDescriptorTask::taskScheduledReadable() const {
   return readTask_->taskScheduled();
}

namespace {
TaskMaybeU32 zeroMark() {
   TaskMaybeU32 zero;
   zero.valueIs(0);
   return zero;
}
}  // namespace

uint64_t FileDescriptorTask::taskWorkCountWritableTotal() const {
   return writeTask_ != nullptr ? writeTask_->taskWorkCountTotal() : 0;
}
float FileDescriptorTask::taskWorkCountWritableDecayAvg() const {
   return writeTask_ != nullptr ? writeTask_->taskWorkCountDecayAverage() : 0.0f;
}
TaskMaybeU32 FileDescriptorTask::taskWorkCountWritableHighWaterMark() const {
   return writeTask_ != nullptr ? writeTask_->taskWorkCountHighWaterMark() : zeroMark();
}
uint32_t FileDescriptorTask::taskWorkPendingWritable() const {
   return writeTask_ != nullptr ? writeTask_->taskWorkPending() : 0;
}
TaskMaybeU32 FileDescriptorTask::taskWorkPendingWritableHighWaterMark() const {
   return writeTask_ != nullptr ? writeTask_->taskWorkPendingHighWaterMark() : zeroMark();
}
uint32_t FileDescriptorTask::taskRunCountWritable() const {
   return writeTask_ != nullptr ? writeTask_->taskRunCount() : 0;
}
bool FileDescriptorTask::taskScheduledWritable() const {
   return writeTask_ != nullptr && writeTask_->taskScheduled();
}
uint32_t FileDescriptorTask::taskRunCount() const {
   return taskRunCountReadable() + taskRunCountWritable();
}

void FileDescriptorTask::taskWorkCountReadableInc(unsigned long n) {
   readTask_->taskWorkCountInc(n);
}
void FileDescriptorTask::taskWorkPendingReadableIs(unsigned int n) {
   readTask_->taskWorkPendingIs(n);
}
void FileDescriptorTask::taskWorkCountWritableInc(unsigned long n) {
   KORVO_ASSERT(writeTask_ != nullptr, "WriteTask not created by taskWatchWritableIs( true )");
   writeTask_->taskWorkCountInc(n);
}
void FileDescriptorTask::taskWorkPendingWritableIs(unsigned int n) {
   KORVO_ASSERT(writeTask_ != nullptr, "WriteTask not created by taskWatchWritableIs( true )");
   writeTask_->taskWorkPendingIs(n);
}

void FileDescriptorTask::taskQuantumIs(TaskDuration quantum) {
   readTask_->taskQuantumIs(quantum);
   if (writeTask_ != nullptr) {
      writeTask_->taskQuantumIs(quantum);
   }
}
TaskDuration FileDescriptorTask::taskQuantum() const {
   return readTask_->taskQuantum();
}
void FileDescriptorTask::taskSuspendedIs(bool suspended) {
   readTask_->taskSuspendedIs(suspended);
   if (writeTask_ != nullptr) {
      writeTask_->taskSuspendedIs(suspended);
   }
   // Unsuspending queues a task whether it had work or not; a direction that is not
   // watched must not run (the read side would fail its watch check).
   if (!suspended && !watchReadable_) {
      readTask_->unscheduleTask();
   }
   if (!suspended && !watchWritable_ && writeTask_ != nullptr) {
      writeTask_->unscheduleTask();
   }
}
bool FileDescriptorTask::taskSuspended() const {
   return readTask_->taskSuspended();
}
void FileDescriptorTask::taskTestYieldRatioIs(unsigned char ratio) {
   readTask_->taskTestYieldRatioIs(ratio);
   if (writeTask_ != nullptr) {
      writeTask_->taskTestYieldRatioIs(ratio);
   }
}
unsigned char FileDescriptorTask::taskTestYieldRatio() const {
   return readTask_->taskTestYieldRatio();
}
void FileDescriptorTask::taskForceYieldInTestIs(bool on) {
   readTask_->taskForceYieldInTestIs(on);
   if (writeTask_ != nullptr) {
      writeTask_->taskForceYieldInTestIs(on);
   }
}
bool FileDescriptorTask::taskForceYieldInTest() const {
   return readTask_->taskTestYieldRatio() == 1;
}

}  // namespace Korvo
