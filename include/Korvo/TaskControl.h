#ifndef KORVO_TASKCONTROL_H
#define KORVO_TASKCONTROL_H

// Platform controls served by tasks.
//
// The factories below return the same TimerControl, CallbackControl and FdControl
// interfaces as the event-loop factories of Korvo/Platform.h, served by a task of a
// chosen scheduler, priority and name instead: a handler written for the platform
// moves under the scheduler unchanged. The loop then only wakes the scheduler; the
// handler runs when the scheduler picks the task, with the task's statistics
// (one row per control, two for an fd control: "<name>:read", "<name>:write"),
// quantum and history.
//
//    auto timer = Korvo::Platform::getTimerControl(this, scheduler, TaskPriority::low, "poll");
//    timer->setTimeout(0.5);  // this->timeout() runs as the task "poll", in 0.5 s or later
//
// What differs from the event-loop controls, on purpose:
// - Exceptions. A timer or callback control catches nothing: an exception from
//   timeout() or callback() reaches the scheduler and leaves doEventLoop();
//   handleTimeoutException()/handleCallbackException() are never asked. The scheduler
//   then requests no further run, so a daemon that carries on calls
//   requestSchedulerRun() on its root. An fd control keeps the event-loop policy:
//   handleFdException(fd) decides, true swallows the exception (the control keeps
//   watching), false rethrows it (and, as for any FileDescriptorTask, leaves the
//   control unusable: "Executing task already set").
// - Timing. setTimeout(0) and requestCallback() run the handler on a later pass of
//   the scheduler, never inside the call; requests before the run coalesce into one.
//   remainingTimeout() is 0.0 from the expiry until the handler runs, as the platform
//   contract says (the timer task itself reports +infinity once it is queued).
//   setTimeout(+infinity) stops the timer (an event-loop timer clamps it to
//   Platform::maxDelaySeconds, as both do with finite delays above it).
// Everything else follows the platform contracts: one pending expiry per timer;
// read interest on and persistent from the start, write interest one-shot;
// descriptors are never closed. clearEvents() is delFd(): it also forgets the
// descriptor, while the interests stay, so a later setFd() resumes with them.
//
// A signal control made here watches its signal on the thread's loop as
// Platform::getSignalControl(handler, signo) does (the same process-wide rules and
// assertion failures) and runs signalReceived() as the task: deliveries before the
// run coalesce into one run, and nothing is caught, as for timers and callbacks.
//
// Ownership: a control lives as long as the returned pointer; its handler belongs to
// the client and must outlive it. A handler may destroy its own control inside its
// call (the run holds a reference until it returns). Thread: the scheduler's root
// thread; every operation checks it. The name has no default: it names statistics.

#include <Korvo/Export.h>
#include <Korvo/FileDescriptorTask.h>
#include <Korvo/Platform.h>
#include <Korvo/Task.h>
#include <Korvo/TimerTask.h>

#include <memory>
#include <string>

namespace Korvo {

class TaskScheduler;

namespace Platform {

class KORVO_EXPORT TaskTimerControl : public TimerTask, public TimerControl {
public:
   TaskTimerControl(::Korvo::Platform::TimeoutHandler* handler,
                    std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority,
                    const std::string& name);
   ~TaskTimerControl() override;
   // handler->timeout(), nothing caught.
   void taskExecute() override;
   void setTimeout(double seconds) override;
   void delTimeout() override;
   double remainingTimeout() const override;

private:
   ::Korvo::Platform::TimeoutHandler* handler_;
};

class KORVO_EXPORT TaskCallbackControl : public Task, public CallbackControl {
public:
   TaskCallbackControl(::Korvo::Platform::CallbackHandler* handler,
                       std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority,
                       const std::string& name);
   ~TaskCallbackControl() override;
   // handler->callback(), nothing caught.
   void taskExecute() override;
   void requestCallback() override;
   void cancelCallback() override;
   bool pendingCallback() const override;

private:
   ::Korvo::Platform::CallbackHandler* handler_;
};

class KORVO_EXPORT TaskFdControl : public FileDescriptorTask, public FdControl {
public:
   TaskFdControl(::Korvo::Platform::FdEventHandler* handler,
                 std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority,
                 const std::string& name);
   ~TaskFdControl() override;
   // handler->readFdEvent(getFd()), an exception offered to handleFdException().
   void taskExecuteReadable() override;
   // handler->writeFdEvent(getFd()), likewise.
   void taskExecuteWritable() override;
   void setReads(bool on) override;
   void setWrites(bool on) override;
   void setFd(int fd) override;
   void delFd() override;
   int getFd() const override;
   // The same as delFd().
   void clearEvents() override;

private:
   ::Korvo::Platform::FdEventHandler* handler_;
};

class KORVO_EXPORT TaskSignalControl : public Task, public SignalControl, private SignalHandler {
public:
   TaskSignalControl(::Korvo::Platform::SignalHandler* handler, int signo,
                     std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority,
                     const std::string& name);
   ~TaskSignalControl() override;
   // handler->signalReceived(signalNumber()), nothing caught.
   void taskExecute() override;
   int signalNumber() const override;

private:
   // The loop's delivery: queues the task.
   void signalReceived(int signo) override;

   ::Korvo::Platform::SignalHandler* handler_;
   std::shared_ptr<SignalControl> loopControl_;
};

// Controls served by a task of `scheduler` at `priority`, named `name`. A null
// handler is an assertion failure.
KORVO_EXPORT std::shared_ptr<TimerControl> getTimerControl(TimeoutHandler* handler,
                                                           std::shared_ptr<TaskScheduler> scheduler,
                                                           TaskPriority priority, std::string name);
KORVO_EXPORT std::shared_ptr<CallbackControl> getCallbackControl(
    CallbackHandler* handler, std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority,
    std::string name);
KORVO_EXPORT std::shared_ptr<FdControl> getFdControl(FdEventHandler* handler,
                                                     std::shared_ptr<TaskScheduler> scheduler,
                                                     TaskPriority priority, std::string name);

KORVO_EXPORT std::shared_ptr<SignalControl> getSignalControl(
    SignalHandler* handler, int signo, std::shared_ptr<TaskScheduler> scheduler,
    TaskPriority priority, std::string name);

}  // namespace Platform
}  // namespace Korvo

#endif
