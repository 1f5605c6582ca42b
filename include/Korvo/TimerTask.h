#ifndef KORVO_TIMERTASK_H
#define KORVO_TIMERTASK_H

// Timer tasks: tasks that become runnable when a delay has passed.
//
// A daemon derives from TimerTask, implements taskExecute() as for any task and arms
// it with one of the scheduling operations below. On expiry the task is queued at its
// own priority and runs when its scheduler picks it: never from inside the timer
// expiry itself, so taskExecute() always runs with the scheduler's statistics,
// quantum and history.
//
//    class Poll : public Korvo::TimerTask {
//     public:
//       Poll(std::shared_ptr<Korvo::TaskScheduler> s) : TimerTask(s, TaskPriority::low, "poll") {}
//       void taskExecute() override {
//          pollOnce();
//          scheduleTaskJitterUp(0.5, 10);  // again in 0.5 to 0.55 s
//       }
//    };
//
// The timers of all timer tasks of a thread live on the timer wheel of the root
// scheduler (TaskSchedulerRoot::timerWheel()), so arming or stopping costs a wheel
// insertion or removal, never a platform timer, and never allocates.
//
// States: idle (not armed, not queued), armed (timer running), queued (on the run
// queue). Every operation exists for seconds (double) and for nanoseconds:
// - scheduleTaskDelay(d): armed d from now, replacing any expiry and leaving the run
//   queue; 0 queues the task at once (as scheduleTask()); an infinite delay stops it.
// - scheduleTaskLowestDelay(d): keeps whichever expiry is earlier; a queued task stays
//   queued (it already has the lowest delay); an infinite delay is an assertion
//   failure ("delayIntoFuture: inf").
// - scheduleTaskJitterUp/Down(d, p): d plus/minus a jitter of 0 to p % of d in 101
//   steps, drawn from the root's generator (rand_r on TaskSchedulerRoot::randomSeed(),
//   shared by all timer tasks of the root and the same in every run); p above 100 and
//   a jitter larger than d (which a negative d gives) are assertion failures. A
//   result of exactly 0 queues the task at once.
// - scheduleTask(): disarms and queues; stopTimerTask(): disarms and dequeues.
// - scheduleTaskPeriodic(p): armed p from now, then at every expiry re-armed for the
//   next multiple of p counted from this call, before the task is queued. Expiries
//   are computed as start + n * p, never from a late "now", so a task ticking every
//   100 ms runs exactly 36,000 times in an hour however late each run starts. A
//   period missed entirely (the loop was busy past it) is skipped, not caught up: the
//   next expiry is the first multiple still ahead, and a task still queued when its
//   next expiry comes runs once. p must be finite and above 0 (else an assertion
//   failure "period: <p>", before anything changes); it is clamped to
//   Platform::maxDelaySeconds. Every other operation above (the task's own
//   taskExecute() may call it) ends the periodic mode; timerPeriod() tells the period,
//   0 when not periodic. While periodic the task is armed even when queued.
// Seconds are "infinite" only at +infinity, nanoseconds only at nanoseconds::max();
// finite delays above Platform::maxDelaySeconds (about 31.7 years) are clamped to it.
// A NaN delay is an assertion failure ("delayIntoFuture: nan") before anything
// changes. A negative delay arms a timer that is already due: the task is queued on
// the next pass of the event loop, not inside the call (unlike a delay of 0).
// Jitter in nanoseconds is computed exactly even where the 64-bit product
// k * p * d would overflow (delays of days).
//
// A task's own taskExecute() may re-arm, stop or schedule the task, or release the
// last reference to it (the running dispatch holds one until the run ends).
// Destroying an armed task stops its timer. Thread: every operation checks that it
// runs on the root scheduler's thread ("Executing in wrong thread ...").

#include <Korvo/Export.h>
#include <Korvo/Task.h>
#include <Korvo/TimerWheel.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

namespace Korvo {

class KORVO_EXPORT TimerTask : public TaskImpl, private TimerWheelEvent {
public:
   TimerTask(std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority,
             const std::string& name);
   // Takes shared ownership from the scheduler itself: throws std::bad_weak_ptr when
   // the scheduler is not owned by a std::shared_ptr.
   TimerTask(TaskScheduler* scheduler, TaskPriority priority, const std::string& name);
   ~TimerTask() override;

   // On the run queue, or armed.
   bool taskScheduled() const override;
   // Disarms, then queues as TaskImpl::scheduleTask() does.
   void scheduleTask() override;
   void taskRunFromTest() override;
   // TaskImpl's bits with the timer bit set and the timer-running bit.
   TaskStat::TaskStatus taskStatus() const override;

   void scheduleTaskDelay(double seconds);
   void scheduleTaskDelay(std::chrono::nanoseconds delay);
   void scheduleTaskLowestDelay(double seconds);
   void scheduleTaskLowestDelay(std::chrono::nanoseconds delay);
   void scheduleTaskJitterUp(double seconds, unsigned char maxJitterPercentage);
   void scheduleTaskJitterUp(std::chrono::nanoseconds delay, unsigned char maxJitterPercentage);
   void scheduleTaskJitterDown(double seconds, unsigned char maxJitterPercentage);
   void scheduleTaskJitterDown(std::chrono::nanoseconds delay, unsigned char maxJitterPercentage);
   void scheduleTaskPeriodic(double periodSeconds);
   void scheduleTaskPeriodic(std::chrono::nanoseconds period);
   // Disarms and takes the task off its run queue; harmless when idle.
   void stopTimerTask();
   // Seconds between periodic expiries; 0.0 when not periodic.
   double timerPeriod() const { return period_; }

   bool timerRunning() const { return timerRunning_; }
   // Seconds to the expiry; 0.0 once due; +infinity when not armed.
   double timerRemaining() const;
   // Korvo::time() when queued, the expiry when armed, else +infinity.
   double currentExpirationTime() const;

private:
   // The wheel's expiry: queues the task.
   void timeout() override;

   template <typename Delay>
   void _scheduleTaskLowestDelay(Delay delay);
   template <typename Delay>
   void _scheduleTaskJitterUp(Delay delay, unsigned char maxJitterPercentage);
   template <typename Delay>
   void _scheduleTaskJitterDown(Delay delay, unsigned char maxJitterPercentage);
   template <typename Delay>
   Delay jitterOffset(Delay delayIntoFuture, unsigned char maxJitterPercentage);
   template <typename Delay>
   void scheduleTaskDelayedPrivate(Delay delay, bool replace);
   bool doStartTimer(double seconds, bool replace);
   void doStopTimer();
   void startPeriod(double seconds);
   void rearmPeriod();
   const std::shared_ptr<TimerWheel>& timerWheel() const;

   bool timerRunning_ = false;
   // Periodic mode: expiry n is periodStart_ + n * period_.
   double period_ = 0.0;
   double periodStart_ = 0.0;
   uint64_t periodCount_ = 0;
};

}  // namespace Korvo

#endif
