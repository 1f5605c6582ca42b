// Timer tasks on a real root, the real wheel and the real loop, under virtual time.

#include <Korvo/TimerTask.h>

#include "TaskTestSupport.h"

#include <array>
#include <cmath>
#include <limits>
#include <random>

namespace {

using namespace KorvoTest;
using Korvo::Platform::doEventLoop;
constexpr double inf = std::numeric_limits<double>::infinity();

struct Timer : Korvo::TimerTask {
   using TimerTask::TimerTask;
   void taskExecute() override {
      runTimes.push_back(Korvo::time());
      nextExpiries.push_back(currentExpirationTime());
      if (runFor > 0.0)
         Korvo::Platform::fastForwardBy(std::exchange(runFor, 0.0));
   }
   std::vector<double> runTimes, nextExpiries;  // the expiry after each run: periodic only
   double runFor = 0.0;                         // virtual seconds the next run takes
};

struct TimerTaskTest : ::testing::Test {
   std::shared_ptr<Timer> timer(const std::string& name) {
      return Korvo::makeShared<Timer>(root_, TaskPriority::normal, name);
   }

   ThrowOnAssert throwing_;
   FastForwardOn fastForward_;
   std::shared_ptr<Korvo::TaskSchedulerRoot> root_ = Korvo::schedulerRootKorvoNonShared("timer");
};

}  // namespace

// Random operations on many tasks against a model of each: +inf idle, -inf queued,
// otherwise armed to that expiry (the earliest library time a run may happen).
TEST_F(TimerTaskTest, RandomOperationsAgreeWithAReferenceModel) {
   constexpr int kTasks = 24;
   std::mt19937 rng(7);
   std::vector<std::shared_ptr<Timer>> tasks;
   std::vector<double> model(kTasks, inf);
   size_t total = 0;
   for (int i = 0; i < kTasks; ++i)
      tasks.push_back(timer("t" + std::to_string(i)));
   // The operations, in seconds and, where the result is exact in both, in nanoseconds.
   auto ns = [](double d) { return std::chrono::nanoseconds(std::llround(d * 1e9)); };
   const std::function<void(Timer&, double, unsigned char)> ops[] = {
       [](Timer& t, double d, auto) { t.scheduleTaskDelay(d); },
       [&](Timer& t, double d, auto) { t.scheduleTaskDelay(ns(d)); },
       [](Timer& t, double d, auto) { t.scheduleTaskLowestDelay(d); },
       [&](Timer& t, double d, auto) { t.scheduleTaskLowestDelay(ns(d)); },
       [](Timer& t, double d, auto pct) { t.scheduleTaskJitterUp(d, pct); },
       [](Timer& t, double d, auto pct) { t.scheduleTaskJitterDown(d, pct); },
       [](Timer& t, auto, auto) { t.stopTimerTask(); },
       [](Timer& t, auto, auto) { t.scheduleTask(); },
   };
   auto check = [&](int j) {
      const Timer& t = *tasks[j];
      ASSERT_EQ(t.taskStatus().taskOnRunQueue(), model[j] == -inf) << t.taskName();
      ASSERT_EQ(t.taskStatus().taskTimerRunning(), std::isfinite(model[j])) << t.taskName();
      const double expiry = t.currentExpirationTime();  // "now" while queued
      ASSERT_TRUE(model[j] == -inf ? expiry <= Korvo::time() : expiry == model[j]) << t.taskName();
   };
   // Each task runs at most once, never early and never while idle; one that fell due
   // may still wait in the wheel or on the queue, depending on the machine.
   auto runLoop = [&](double seconds) {
      doEventLoop(seconds);
      const double end = Korvo::time();
      for (int j = 0; j < kTasks; ++j) {
         Timer& t = *tasks[j];
         ASSERT_LE(t.runTimes.size(), 1u) << t.taskName();
         if (!t.runTimes.empty()) {
            ASSERT_GE(t.runTimes.back(), model[j]) << t.taskName() << " ran early";
            model[j] = inf;
            ++total;
         } else if (model[j] <= end && t.taskStatus().taskOnRunQueue()) {
            model[j] = -inf;
         }
         t.runTimes.clear();
         ASSERT_NO_FATAL_FAILURE(check(j));
      }
   };
   for (int step = 0; step < 10000; ++step) {
      const unsigned kind = rng() % 9;
      if (kind == 8) {
         ASSERT_NO_FATAL_FAILURE(runLoop(static_cast<double>(rng() % 4) * 0.1)) << step;
         continue;
      }
      const int i = static_cast<int>(rng() % kTasks);
      double& m = model[i];
      const double before = Korvo::time();
      const double remaining = std::max(m - before, 0.0);  // as the wheel has it: 0 once due
      const unsigned r = rng() % 8;  // 0, -0.05 (not for jitter: it asserts), 0.01..1
      const double d = r == 0 ? 0.0 : r == 1 && kind < 4 ? -0.05 : (rng() % 100 + 1) / 100.0;
      const auto pct = static_cast<unsigned char>(rng() % 101);
      unsigned seed = root_->randomSeed();  // the percentage step the jitter will draw
      const double jitter = static_cast<unsigned>(::rand_r(&seed)) / 21474836u * (pct * d) / 1e4;
      const double asked = std::array{d, d, d, d, d + jitter, d - jitter, inf, 0.0}[kind];
      ops[kind](*tasks[i], d, pct);
      const bool lowest = kind == 2 || kind == 3;
      if (asked == 0.0) {
         m = -inf;
      } else if (lowest && (m == -inf || std::abs(asked - remaining) < 1e-3)) {
         m = std::min(m, tasks[i]->currentExpirationTime());  // queued, or too close to call
      } else if (!lowest || asked < remaining) {
         m = tasks[i]->currentExpirationTime();
         ASSERT_GE(m + 1e-9, before + asked);
         ASSERT_LE(m, Korvo::time() + asked + 1e-9);
      }
      ASSERT_NO_FATAL_FAILURE(check(i)) << step;
   }
   // Every outstanding arming runs exactly once, none early.
   ASSERT_NO_FATAL_FAILURE(runLoop(2.0));
   ASSERT_NO_FATAL_FAILURE(runLoop(1.0));
   EXPECT_EQ(model, std::vector<double>(kTasks, inf));
   EXPECT_GT(total, 500u);
}

TEST_F(TimerTaskTest, BadInputFailsWithItsMessageOrIsBounded) {
   auto t = timer("bad");
   const std::pair<std::function<void()>, const char*> cases[] = {
       {[&] { t->scheduleTaskLowestDelay(inf); }, "delayIntoFuture: inf"},
       {[&] { t->scheduleTaskLowestDelay(std::chrono::nanoseconds::max()); }, "delayIntoFuture: "},
       {[&] { t->scheduleTaskDelay(std::nan("")); }, "delayIntoFuture: nan"},
       {[&] { t->scheduleTaskJitterUp(1.0, 101); }, "maxJitterPercentage: e > 100"},
       {[&] { t->scheduleTaskJitterDown(-1.0, 10); }, "offset( "},
       {[&] { t->scheduleTaskJitterUp(-1s, 10); }, " ) > delayIntoFuture( "},
       {[&] { t->scheduleTaskPeriodic(0ns); }, "period: "},
       {[&] { t->scheduleTaskPeriodic(std::nan("")); }, "period: "},
   };
   for (const auto& [call, message] : cases)
      EXPECT_THAT(assertionText(call), HasSubstr(message));
   EXPECT_EQ(t->currentExpirationTime(), inf);  // none of them changed anything
   // A jitter of weeks in nanoseconds does not overflow; absurd delays are clamped,
   // infinite ones stop the timer.
   t->scheduleTaskJitterUp(std::chrono::nanoseconds(std::chrono::hours(24 * 60)), 100);
   EXPECT_NEAR(t->timerRemaining(), 1.5 * 24 * 60 * 3600, 0.5 * 24 * 60 * 3600);
   t->scheduleTaskDelay(1e300);
   EXPECT_LE(t->timerRemaining(), Korvo::Platform::maxDelaySeconds);
   t->scheduleTaskJitterUp(inf, 50);
   EXPECT_FALSE(t->taskBusy());
   t->scheduleTaskDelay(std::chrono::nanoseconds::max());
   EXPECT_EQ(t->timerRemaining(), inf);
}

// Library time also moves with real time, so a slow machine may run a period late or
// skip it: what holds whatever the speed is that no run is early, each run has a period
// of its own, and the grid is kept.
TEST_F(TimerTaskTest, PeriodicRunsDoNotDriftAndSkipMissedPeriods) {
   auto t = timer("tick");
   t->scheduleTaskPeriodic(100ms);
   const double first = t->currentExpirationTime();
   EXPECT_DOUBLE_EQ(t->timerPeriod(), 0.1);
   t->runFor = 0.55;  // the first run takes this long: the periods it covers are skipped
   doEventLoop(600.0);
   ASSERT_GT(t->runTimes.size(), 1000u);
   for (size_t i = 0; i < t->runTimes.size(); ++i) {
      const double due = i == 0 ? first : t->nextExpiries[i - 1];
      EXPECT_GE(t->runTimes[i], due) << i;
      EXPECT_GE(t->nextExpiries[i], due + (i == 1 ? 0.5 : 0.1) - 1e-6) << i;
      EXPECT_NEAR(std::remainder(t->nextExpiries[i] - first, 0.1), 0.0, 1e-6) << i;
   }
   t->scheduleTaskDelay(0.5);  // any other operation ends the periodic mode
   EXPECT_EQ(t->timerPeriod(), 0.0);
}
