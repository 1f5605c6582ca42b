#define KORVO_SOURCE_FILE "TaskSchedulerCpp"
#include "Korvo/TimerTask.h"

#include "Korvo/Debug.h"
#include "Korvo/Exception.h"
#include "Korvo/TaskScheduler.h"

#include "TaskSchedulerDebug.h"
#include "TaskTime.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace Korvo {

using Impl::taskSchedulerDebug;
using EventType = TaskSchedulerEventType;
using Nanoseconds = std::chrono::nanoseconds;

namespace {

bool infiniteDelay(double seconds) {
   return seconds > std::numeric_limits<double>::max();
}
bool infiniteDelay(Nanoseconds delay) {
   return delay == Nanoseconds::max();
}

bool isNan(double seconds) {
   return std::isnan(seconds);
}
bool isNan(Nanoseconds) {
   return false;
}

double toSeconds(double seconds) {
   return seconds;
}
double toSeconds(Nanoseconds delay) {
   return static_cast<double>(delay.count()) / 1e9;
}

// Delays in traces: seconds as numbers, nanoseconds as the library prints durations.
double traced(double seconds) {
   return seconds;
}
DisplayDuration traced(Nanoseconds delay) {
   return DisplayDuration(delay);
}

double jitterOf(double delay, unsigned k, unsigned char percentage) {
   // This order of evaluation is part of the contract: the offsets are reproducible.
   return static_cast<double>(k) * (static_cast<double>(percentage) * delay) / 10000.0;
}
Nanoseconds jitterOf(Nanoseconds delay, unsigned k, unsigned char percentage) {
   // k * (p * d) / 10000 truncating toward zero, in 128 bits: equal to the 64-bit
   // arithmetic wherever that does not overflow, and still right for delays of days.
   const __int128 product = static_cast<__int128>(k) * (static_cast<__int128>(percentage) *
                                                        static_cast<__int128>(delay.count()));
   return Nanoseconds(static_cast<int64_t>(product / 10000));
}

double addDelay(double a, double b) {
   return a + b;
}
Nanoseconds addDelay(Nanoseconds a, Nanoseconds b) {
   int64_t sum = 0;
   if (__builtin_add_overflow(a.count(), b.count(), &sum)) {
      return Nanoseconds::max();
   }
   return Nanoseconds(sum);
}

}  // namespace

// ---------------------------------------------------------------------------------
// Life cycle

TimerTask::TimerTask(std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority,
                     const std::string& name)
    : TaskImpl(std::move(scheduler), priority, name) {}

TimerTask::TimerTask(TaskScheduler* scheduler, TaskPriority priority, const std::string& name)
    : TaskImpl(scheduler->shared_from_this(), priority, name) {}

TimerTask::~TimerTask() {
   // The wheel event must be unlinked before its own destructor checks it.
   stopTimerTask();
}

const std::shared_ptr<TimerWheel>& TimerTask::timerWheel() const {
   return root()->timerWheel();
}

// ---------------------------------------------------------------------------------
// Queries

bool TimerTask::taskScheduled() const {
   sanityCheckThread();
   return taskRunQueueLink_.isLinked() || timerRunning_;
}

TaskStat::TaskStatus TimerTask::taskStatus() const {
   TaskStat::TaskStatus status = TaskImpl::taskStatus();
   status.taskTimerIs(true);
   status.taskTimerRunningIs(timerRunning_);
   return status;
}

double TimerTask::timerRemaining() const {
   const double remaining = TimerWheelEvent::remainingTimeout();
   return infiniteDelay(remaining) ? std::numeric_limits<double>::infinity() : remaining;
}

double TimerTask::currentExpirationTime() const {
   sanityCheckThread();
   if (taskRunQueueLink_.isLinked()) {
      return Korvo::time();
   }
   if (timerRunning_) {
      return expirationTime();
   }
   return std::numeric_limits<double>::infinity();
}

// ---------------------------------------------------------------------------------
// Disarming, expiry and immediate runs

void TimerTask::doStopTimer() {
   timerRunning_ = false;
   period_ = 0.0;
   delTimeout(timerWheel());
}

void TimerTask::stopTimerTask() {
   sanityCheckThread();
   period_ = 0.0;
   const TaskTimePoint now = taskTime();
   if (timerRunning_) {
      KORVO_TRACE(taskSchedulerDebug, 9, "Timer stopped " << this << ", was running");
      recordEvent(now, EventType::timerStop);
      doStopTimer();
   } else {
      KORVO_TRACE(taskSchedulerDebug, 9, "Timer stopped " << this << ", was not running");
   }
   unscheduleTaskPrivate(now);
   taskBusyIs(false, now);  // neither armed nor queued
}

void TimerTask::timeout() {
   // Only queued here: the work runs when the scheduler picks the task, never inside
   // the wheel's expiry pass.
   timerRunning_ = false;
   if (period_ > 0.0) {
      rearmPeriod();
   }
   TaskImpl::scheduleTask();
}

void TimerTask::rearmPeriod() {
   // Counted from the start, not from now: a late expiry does not move the later ones,
   // and periods already over are skipped rather than run in a burst.
   const double now = Korvo::time();
   uint64_t next = periodCount_ + 1;
   if (!(periodStart_ + static_cast<double>(next) * period_ > now)) {
      next = static_cast<uint64_t>(std::floor((now - periodStart_) / period_)) + 1;
   }
   periodCount_ = next;
   timerWheel()->timerStartAt(this, periodStart_ + static_cast<double>(next) * period_);
   timerRunning_ = true;
}

void TimerTask::startPeriod(double seconds) {
   KORVO_ASSERT(seconds > 0.0 && !infiniteDelay(seconds), "period: " << seconds);
   const TaskTimePoint now = taskTime();
   unscheduleTaskPrivate(now);
   if (timerRunning_) {
      doStopTimer();
   }
   period_ = std::min(seconds, Platform::maxDelaySeconds);
   periodStart_ = Korvo::time();
   periodCount_ = 1;
   timerWheel()->timerStartAt(this, periodStart_ + period_);
   timerRunning_ = true;
   KORVO_TRACE(taskSchedulerDebug, 8, "Timer periodic " << this << " period " << period_);
   recordEvent(now, EventType::timerStart);
   taskBusyIs(true, now);  // armed
}

void TimerTask::scheduleTaskPeriodic(double periodSeconds) {
   sanityCheckThread();
   startPeriod(periodSeconds);
}

void TimerTask::scheduleTaskPeriodic(Nanoseconds period) {
   sanityCheckThread();
   KORVO_ASSERT(period > Nanoseconds(0) && !infiniteDelay(period),
                "period: " << DisplayDuration(period));
   startPeriod(toSeconds(period));
}

void TimerTask::scheduleTask() {
   sanityCheckThread();
   period_ = 0.0;
   if (timerRunning_) {
      doStopTimer();
   }
   TaskImpl::scheduleTask();
}

void TimerTask::taskRunFromTest() {
   period_ = 0.0;
   if (timerRunning_) {
      doStopTimer();
   }
   TaskImpl::taskRunFromTest();
}

// ---------------------------------------------------------------------------------
// Arming

bool TimerTask::doStartTimer(double seconds, bool replace) {
   // Written as "not (new >= remaining)" so that an unordered comparison arms too.
   if (replace || !(seconds >= TimerWheelEvent::remainingTimeout())) {
      setTimeout(timerWheel(), seconds);
      return true;
   }
   return false;
}

template <typename Delay>
void TimerTask::scheduleTaskDelayedPrivate(Delay delay, bool replace) {
   if (delay == Delay(0)) {
      scheduleTask();
      return;
   }
   KORVO_ASSERT(!isNan(delay), "delayIntoFuture: " << traced(delay));
   const TaskTimePoint now = taskTime();
   if (period_ > 0.0) {
      // Whatever the delay, the task leaves periodic mode: its next run is this one.
      doStopTimer();
   }
   if (!replace && taskRunQueueLink_.isLinked()) {
      KORVO_TRACE(taskSchedulerDebug, 8, "Already on runQueue " << this);
      return;
   }
   if (replace) {
      unscheduleTaskPrivate(now);
   }
   // Clamped as the event-loop timers clamp: a wheel tick of 1e300 s does not exist.
   const double seconds = std::min(toSeconds(delay), Platform::maxDelaySeconds);
   if (doStartTimer(seconds, replace)) {
      timerRunning_ = true;
      KORVO_TRACE(taskSchedulerDebug, 8, "Timer started " << this << " delay " << seconds);
      recordEvent(now, EventType::timerStart);
      taskBusyIs(true, now);  // armed
      return;
   }
   KORVO_TRACE(taskSchedulerDebug, 8,
               "Timer already running " << this << " expire " << expirationTime());
   KORVO_ASSERT(timerRunning_, "Task: " << this);
}

template <typename Delay>
void TimerTask::_scheduleTaskLowestDelay(Delay delay) {
   KORVO_ASSERT(!infiniteDelay(delay), "delayIntoFuture: " << traced(delay));
   scheduleTaskDelayedPrivate(delay, false);
}

template <typename Delay>
Delay TimerTask::jitterOffset(Delay delayIntoFuture, unsigned char maxJitterPercentage) {
   // The percentage is written as the raw byte, not as digits: the established text.
   KORVO_ASSERT(maxJitterPercentage <= 100,
                "maxJitterPercentage: " << static_cast<char>(maxJitterPercentage) << " > 100");
   const auto k = static_cast<unsigned>(root()->randomPercent());
   const Delay offset = jitterOf(delayIntoFuture, k, maxJitterPercentage);
   KORVO_ASSERT(!(offset > delayIntoFuture), "offset( " << traced(offset)
                                                        << " ) > delayIntoFuture( "
                                                        << traced(delayIntoFuture) << " )");
   return offset;
}

template <typename Delay>
void TimerTask::_scheduleTaskJitterUp(Delay delay, unsigned char maxJitterPercentage) {
   if (infiniteDelay(delay)) {
      stopTimerTask();
      return;
   }
   const Delay offset = jitterOffset(delay, maxJitterPercentage);
   const Delay result = addDelay(delay, offset);
   KORVO_TRACE(taskSchedulerDebug, 9,
               "Timer jitterUp " << this << " delay " << traced(delay) << " + " << traced(offset)
                                 << " = " << traced(result));
   scheduleTaskDelayedPrivate(result, true);
}

template <typename Delay>
void TimerTask::_scheduleTaskJitterDown(Delay delay, unsigned char maxJitterPercentage) {
   if (infiniteDelay(delay)) {
      stopTimerTask();
      return;
   }
   const Delay offset = jitterOffset(delay, maxJitterPercentage);
   const Delay result = delay - offset;
   KORVO_TRACE(taskSchedulerDebug, 9,
               "Timer jitterDown " << this << " delay " << traced(delay) << " - " << traced(offset)
                                   << " = " << traced(result));
   scheduleTaskDelayedPrivate(result, true);
}

void TimerTask::scheduleTaskDelay(double seconds) {
   sanityCheckThread();
   if (infiniteDelay(seconds)) {
      stopTimerTask();
      return;
   }
   scheduleTaskDelayedPrivate(seconds, true);
}

void TimerTask::scheduleTaskDelay(Nanoseconds delay) {
   sanityCheckThread();
   if (infiniteDelay(delay)) {
      stopTimerTask();
      return;
   }
   scheduleTaskDelayedPrivate(delay, true);
}

void TimerTask::scheduleTaskLowestDelay(double seconds) {
   sanityCheckThread();
   _scheduleTaskLowestDelay(seconds);
}

void TimerTask::scheduleTaskLowestDelay(Nanoseconds delay) {
   sanityCheckThread();
   _scheduleTaskLowestDelay(delay);
}

void TimerTask::scheduleTaskJitterUp(double seconds, unsigned char maxJitterPercentage) {
   sanityCheckThread();
   _scheduleTaskJitterUp(seconds, maxJitterPercentage);
}

void TimerTask::scheduleTaskJitterUp(Nanoseconds delay, unsigned char maxJitterPercentage) {
   sanityCheckThread();
   _scheduleTaskJitterUp(delay, maxJitterPercentage);
}

void TimerTask::scheduleTaskJitterDown(double seconds, unsigned char maxJitterPercentage) {
   sanityCheckThread();
   _scheduleTaskJitterDown(seconds, maxJitterPercentage);
}

void TimerTask::scheduleTaskJitterDown(Nanoseconds delay, unsigned char maxJitterPercentage) {
   sanityCheckThread();
   _scheduleTaskJitterDown(delay, maxJitterPercentage);
}

}  // namespace Korvo
