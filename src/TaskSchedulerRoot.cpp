#define KORVO_SOURCE_FILE "TaskSchedulerCpp"
#include "Korvo/Allocator.h"
#include "Korvo/Debug.h"
#include "Korvo/Exception.h"
#include "Korvo/TaskScheduler.h"
#include "Korvo/Thread.h"

#include "HandlerCall.h"
#include "LibeventFactory.h"
#include "TaskSchedulerDebug.h"
#include "TaskTime.h"

#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <iostream>
#include <sstream>
#include <thread>

namespace Korvo {

extern "C" {
KORVO_EXPORT unsigned int auxThreadCount = 0;
}

using Impl::taskSchedulerDebug;
using EventType = TaskSchedulerEventType;

TaskSchedulerRoot::TaskSchedulerRoot(const std::string& name)
    : TaskScheduler(name, this, makeShared<TaskSchedulerHistory>(historyEntryCountDefault)),
      ownerThread_(pthread_self()),
      ownerPid_(::getpid()),
      isMainThread_(Korvo::isMainThread()) {
   std::shared_ptr<LibeventCallbackControl> control = getLeCallbackControl(this);
   loopCallback_ = control.get();
   callbackControl_ = std::move(control);
   timerWheel_ = getTimerWheel();
   const std::string threadName = currentThreadName();
   std::strncpy(ownerThreadName_, threadName.c_str(), sizeof(ownerThreadName_) - 1);
   registerScheduler(this);
}

std::shared_ptr<TaskSchedulerRoot> TaskSchedulerRoot::TaskSchedulerRootIs(const std::string& name) {
   return makeShared<TaskSchedulerRoot>(name);
}

TaskSchedulerRoot::~TaskSchedulerRoot() {
   // The reset task reaches back into the root (thread check, settings), so it goes
   // while the root is still whole.
   resetStatsTaskRelease();
   unregisterScheduler(this);
}

// ---------------------------------------------------------------------------------
// Driving from the event loop

void TaskSchedulerRoot::requestSchedulerRun() {
   loopCallback_->requestCallback();
}

// Inline: the loop's callback is its hot caller.
inline void TaskSchedulerRoot::dispatchRoot(const TaskTimePoint& now) {
   runEndCalls_ = noRunEnd;
   // Tasks cannot run under virtual time, and a dispatch means real work is due.
   if (virtualTime_) {
      virtualTimeIs(false);
   }
   if (dispatchAt(now, &runEnd_)) {
      runEndCalls_ = Impl::handlerCallCount();
   }
}

void TaskSchedulerRoot::callback() {
   // A run's end read serves as the next dispatch's start when no client code ran in
   // between: then this callback is the only handler call since, and what passed is
   // the loop's own pass. Otherwise (a handler ran, the loop was left and entered
   // again, the run threw) the clock is read afresh.
   const TaskTimePoint now = Impl::handlerCallCount() == runEndCalls_ + 1 ? runEnd_ : taskTime();
   dispatchRoot(now);
}

void TaskSchedulerRoot::handleSchedulerRun() {
   dispatchRoot(taskTime());
}

bool TaskSchedulerRoot::resetStatsInProgress() const {
   for (const TaskScheduler* s : schedulers_) {
      if (s == this ? TaskScheduler::resetStatsInProgress() : s->resetStatsInProgress()) {
         return true;
      }
   }
   return false;
}

// ---------------------------------------------------------------------------------
// Scheduler registry

void TaskSchedulerRoot::registerScheduler(TaskScheduler* scheduler) {
   const bool inserted = schedulers_.insert(scheduler).second;
   KORVO_ASSERT(inserted, "insert failed for " << scheduler);
}

void TaskSchedulerRoot::unregisterScheduler(TaskScheduler* scheduler) {
   const bool erased = schedulers_.erase(scheduler) == 1;
   KORVO_ASSERT(erased, "delete failed for " << scheduler);
}

TaskScheduler* TaskSchedulerRoot::findSchedulerForTest(const std::string& name) const {
   for (TaskScheduler* s : schedulers_) {
      if (s->schedulerName().str() == name) {
         return s;
      }
   }
   return nullptr;
}

uint32_t TaskSchedulerRoot::totalRegisteredTaskCount() const {
   uint32_t total = 0;
   for (const TaskScheduler* s : schedulers_) {
      total += static_cast<uint32_t>(s->registeredTasks().count());
   }
   return total;
}

uint32_t TaskSchedulerRoot::taskGroupCount() const {
   return static_cast<uint32_t>(schedulers_.size() -
                                schedulers_.count(const_cast<TaskSchedulerRoot*>(this)));
}

// ---------------------------------------------------------------------------------
// Thread binding

std::string TaskSchedulerRoot::currentThreadName() {
   char name[16] = {};
   if (pthread_getname_np(pthread_self(), name, sizeof(name)) != 0) {
      return std::string();
   }
   return name;
}

void TaskSchedulerRoot::sanityCheckOtherThread() const {
   if (threadSanityDisabled_ || __atomic_load_n(&auxThreadCount, __ATOMIC_RELAXED) != 0) {
      return;
   }
   // A forked child goes on using its parent's structures in its single thread.
   if (::getpid() != ownerPid_) {
      return;
   }
   failWrongThread();
}

void TaskSchedulerRoot::failWrongThread() const {
   KORVO_FAIL("Executing in wrong thread "
              << currentThreadName() << "(" << pthread_self() << ") pid " << ::getpid()
              << " scheduler belongs to thread " << ownerThread_ << "(" << ownerThreadName_ << ")");
}

void TaskSchedulerRoot::threadSanityDisabledIs(bool disabled) {
   if (disabled == threadSanityDisabled_) {
      return;
   }
   threadSanityDisabled_ = disabled;
   // The root's loop callback is requested from wherever tasks are scheduled: with the
   // root's check off, the control's own check must not stop what the root allows.
   loopCallback_->threadCheckDisabledIs(disabled);
   KORVO_TRACE(taskSchedulerDebug, 1,
               this << (disabled ? " dis" : " en") << "able thread sanity checking");
}

// ---------------------------------------------------------------------------------
// Settings every task consults

void TaskSchedulerRoot::suspendedIs(bool suspended) {
   if (suspended == suspended_) {
      return;
   }
   suspended_ = suspended;
   const TaskTimePoint now = taskTime();
   if (suspended) {
      recordEvent(now, EventType::schedulerSuspended);
      return;
   }
   recordEvent(now, EventType::schedulerUnsuspended);
   // Runs requested while suspended were dropped; ask again so queued work resumes.
   runRequestedAtIs(now);
   requestSchedulerRun();
}

void TaskSchedulerRoot::virtualTimeIs(bool on) {
   if (on == virtualTime_) {
      return;
   }
   virtualTime_ = on;
   recordEvent(taskTime(),
               on ? EventType::schedulerVirtualTimeOn : EventType::schedulerVirtualTimeOff);
   taskShouldYieldModeReevaluate();
}

void TaskSchedulerRoot::taskTestYieldRatioIs(unsigned char ratio) {
   if (ratio == testYieldRatio_) {
      return;
   }
   testYieldRatio_ = ratio;
   recordEvent(taskTime(), ratio != 0 ? EventType::schedulerTestYieldRatioOn
                                      : EventType::schedulerTestYieldRatioOff);
   taskShouldYieldModeReevaluate();
}

void TaskSchedulerRoot::taskShouldYieldModeReevaluate() {
   for (TaskScheduler* s : schedulers_) {
      for (TaskImpl& task : s->registeredTasks()) {
         task.taskShouldYieldModeReevaluate();
      }
   }
}

int TaskSchedulerRoot::randomPercent() {
   // A seed of its own starting at 0: the same jitter sequence in every run.
   return ::rand_r(&randomSeed_) / 21474836;
}

void TaskSchedulerRoot::printHistoryStdErr() const {
   printHistory(std::cerr, 4294967295u);
}

// ---------------------------------------------------------------------------------
// The thread's root

std::shared_ptr<TaskSchedulerRoot> schedulerRootKorvoNonShared(const std::string& name) {
   return TaskSchedulerRoot::TaskSchedulerRootIs(name);
}

std::shared_ptr<TaskSchedulerRoot> schedulerRootKorvo() {
   // Released when the thread exits.
   thread_local std::shared_ptr<TaskSchedulerRoot> root;
   if (root == nullptr) {
      std::string name = "main";
      if (!Korvo::isMainThread()) {
         std::ostringstream id;
         id << "thread:" << std::this_thread::get_id();
         name = id.str();
      }
      root = schedulerRootKorvoNonShared(name);
   }
   return root;
}

}  // namespace Korvo
