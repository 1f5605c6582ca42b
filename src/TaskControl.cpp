#define KORVO_SOURCE_FILE "TaskControlCpp"
#include "Korvo/TaskControl.h"

#include "HandlerCall.h"
#include "Korvo/Allocator.h"
#include "Korvo/Exception.h"
#include "Korvo/TaskScheduler.h"

namespace Korvo::Platform {

// ---------------------------------------------------------------------------------
// Timer

TaskTimerControl::TaskTimerControl(TimeoutHandler* handler,
                                   std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority,
                                   const std::string& name)
    : TimerTask(std::move(scheduler), priority, name), handler_(handler) {}

TaskTimerControl::~TaskTimerControl() = default;

void TaskTimerControl::taskExecute() {
   // Deliberately outside any try: the exception is the scheduler's.
   handler_->timeout();
}

void TaskTimerControl::setTimeout(double seconds) {
   scheduleTaskDelay(seconds);
}

void TaskTimerControl::delTimeout() {
   stopTimerTask();
}

double TaskTimerControl::remainingTimeout() const {
   // Expired and waiting for its run: due, not idle.
   return taskRunQueueLink_.isLinked() ? 0.0 : timerRemaining();
}

// ---------------------------------------------------------------------------------
// Callback

TaskCallbackControl::TaskCallbackControl(CallbackHandler* handler,
                                         std::shared_ptr<TaskScheduler> scheduler,
                                         TaskPriority priority, const std::string& name)
    : Task(std::move(scheduler), priority, name), handler_(handler) {}

TaskCallbackControl::~TaskCallbackControl() = default;

void TaskCallbackControl::taskExecute() {
   handler_->callback();
}

void TaskCallbackControl::requestCallback() {
   scheduleTask();
}

void TaskCallbackControl::cancelCallback() {
   unscheduleTask();
}

bool TaskCallbackControl::pendingCallback() const {
   return taskScheduled();
}

// ---------------------------------------------------------------------------------
// Descriptor

TaskFdControl::TaskFdControl(::Korvo::Platform::FdEventHandler* handler,
                             std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority,
                             const std::string& name)
    : FileDescriptorTask(std::move(scheduler), priority, name), handler_(handler) {
   // Every fd control starts with read interest on, so that setFd() alone watches.
   taskWatchReadableIs(true);
}

TaskFdControl::~TaskFdControl() = default;

void TaskFdControl::taskExecuteReadable() {
   const int fd = getFd();
   Impl::callHandler([&] { handler_->readFdEvent(fd); },
                     [&] { return handler_->handleFdException(fd); });
}

void TaskFdControl::taskExecuteWritable() {
   const int fd = getFd();
   Impl::callHandler([&] { handler_->writeFdEvent(fd); },
                     [&] { return handler_->handleFdException(fd); });
}

void TaskFdControl::setReads(bool on) {
   taskWatchReadableIs(on);
}

void TaskFdControl::setWrites(bool on) {
   taskWatchWritableIs(on);
}

void TaskFdControl::setFd(int fd) {
   taskWatchFdIs(fd);
}

void TaskFdControl::delFd() {
   taskWatchFdDel();
}

int TaskFdControl::getFd() const {
   return taskWatchFd();
}

void TaskFdControl::clearEvents() {
   taskWatchFdDel();
}

// ---------------------------------------------------------------------------------
// Signal

TaskSignalControl::TaskSignalControl(SignalHandler* handler, int signo,
                                     std::shared_ptr<TaskScheduler> scheduler,
                                     TaskPriority priority, const std::string& name)
    : Task(std::move(scheduler), priority, name),
      handler_(handler),
      loopControl_(Platform::getSignalControl(static_cast<SignalHandler*>(this), signo)) {}

TaskSignalControl::~TaskSignalControl() = default;

void TaskSignalControl::signalReceived(int) {
   scheduleTask();
}

void TaskSignalControl::taskExecute() {
   handler_->signalReceived(loopControl_->signalNumber());
}

int TaskSignalControl::signalNumber() const {
   return loopControl_->signalNumber();
}

// ---------------------------------------------------------------------------------
// Factories

std::shared_ptr<TimerControl> getTimerControl(TimeoutHandler* handler,
                                              std::shared_ptr<TaskScheduler> scheduler,
                                              TaskPriority priority, std::string name) {
   KORVO_ASSERT(handler != nullptr, "getTimerControl: null handler");
   return makeShared<TaskTimerControl>(handler, std::move(scheduler), priority, name);
}

std::shared_ptr<CallbackControl> getCallbackControl(CallbackHandler* handler,
                                                    std::shared_ptr<TaskScheduler> scheduler,
                                                    TaskPriority priority, std::string name) {
   KORVO_ASSERT(handler != nullptr, "getCallbackControl: null handler");
   return makeShared<TaskCallbackControl>(handler, std::move(scheduler), priority, name);
}

std::shared_ptr<FdControl> getFdControl(FdEventHandler* handler,
                                        std::shared_ptr<TaskScheduler> scheduler,
                                        TaskPriority priority, std::string name) {
   KORVO_ASSERT(handler != nullptr, "getFdControl: null handler");
   return makeShared<TaskFdControl>(handler, std::move(scheduler), priority, name);
}

std::shared_ptr<SignalControl> getSignalControl(SignalHandler* handler, int signo,
                                                std::shared_ptr<TaskScheduler> scheduler,
                                                TaskPriority priority, std::string name) {
   KORVO_ASSERT(handler != nullptr, "getSignalControl: null handler");
   return makeShared<TaskSignalControl>(handler, signo, std::move(scheduler), priority, name);
}

}  // namespace Korvo::Platform
