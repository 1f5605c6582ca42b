// Timer tasks on a real root, the real wheel and the real loop, under virtual time.

#include <Korvo/Allocator.h>
#include <Korvo/TaskScheduler.h>
#include <Korvo/TimerTask.h>

#include "PlatformTestSupport.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <limits>
#include <random>
#include <utility>
#include <vector>

namespace {

using Korvo::TaskPriority;
using Korvo::TimerTask;
using namespace std::chrono_literals;
using Korvo::Platform::doEventLoop;
constexpr double inf = std::numeric_limits<double>::infinity();

class Timer : public TimerTask {
public:
   Timer(std::shared_ptr<Korvo::TaskScheduler> s, const std::string& name)
       : TimerTask(std::move(s), TaskPriority::normal, name) {}
   void taskExecute() override {
      runTimes.push_back(Korvo::time());
      if (body) {
         body(*this);
      }
   }
   std::vector<double> runTimes;
   std::function<void(Timer&)> body;
};

class TimerTaskTest : public ::testing::Test {
protected:
   std::shared_ptr<Timer> timer(const std::string& name) {
      return Korvo::makeShared<Timer>(root_, name);
   }
   // The percentage step the next jitter will draw.
   unsigned nextJitterStep() const {
      unsigned seed = root_->randomSeed();
      return static_cast<unsigned>(::rand_r(&seed)) / 21474836u;
   }

   KorvoTest::ThrowOnAssert throwing_;
   KorvoTest::FastForwardOn fastForward_;
   std::shared_ptr<Korvo::TaskSchedulerRoot> root_ = Korvo::schedulerRootKorvoNonShared("timer");
};

enum class State { idle, armed, queued };

struct Model {
   State state = State::idle;
   double expiry = inf;  // earliest library time a run may happen, while armed
};

State actualState(const Timer& t) {
   const bool armed = t.taskStatus().taskTimerRunning(), queued = t.taskStatus().taskOnRunQueue();
   EXPECT_FALSE(armed && queued) << t.taskName();
   return armed ? State::armed : queued ? State::queued : State::idle;
}

}  // namespace

TEST_F(TimerTaskTest, RandomOperationsAgreeWithAReferenceModel) {
   constexpr int kTasks = 24;
   std::mt19937 rng(7);
   std::vector<std::shared_ptr<Timer>> tasks;
   std::vector<Model> model(kTasks);
   for (int i = 0; i < kTasks; ++i) {
      tasks.push_back(timer("t" + std::to_string(i)));
   }
   // One of the four arming operations (seconds or nanoseconds where the result is
   // exact in both); returns the delay the task should have used.
   auto arm = [&](Timer& t, unsigned kind, double d, unsigned char pct) -> double {
      const auto dn = std::chrono::nanoseconds(std::llround(d * 1e9));
      const bool ns = rng() % 2 == 0;
      const double k = nextJitterStep();
      switch (kind) {
         case 0:
            ns ? t.scheduleTaskDelay(dn) : t.scheduleTaskDelay(d);
            return d;
         case 1:
            ns ? t.scheduleTaskLowestDelay(dn) : t.scheduleTaskLowestDelay(d);
            return d;
         case 2:
            t.scheduleTaskJitterUp(d, pct);
            return d + k * (pct * d) / 10000.0;
         default:
            t.scheduleTaskJitterDown(d, pct);
            return d - k * (pct * d) / 10000.0;
      }
   };
   // After each step: the state, and while armed the exact expiry.
   auto check = [&](int j, int step) {
      ASSERT_EQ(actualState(*tasks[j]), model[j].state) << tasks[j]->taskName() << " " << step;
      if (model[j].state == State::armed) {
         ASSERT_EQ(tasks[j]->currentExpirationTime(), model[j].expiry) << step;
      }
   };
   std::vector<size_t> runsBefore(kTasks);
   auto runLoop = [&](double seconds, int step) {
      for (int j = 0; j < kTasks; ++j) {
         runsBefore[j] = tasks[j]->runTimes.size();
      }
      doEventLoop(seconds);
      const double end = Korvo::time();
      for (int j = 0; j < kTasks; ++j) {
         Timer& u = *tasks[j];
         Model& n = model[j];
         const size_t ran = u.runTimes.size() - runsBefore[j];
         ASSERT_LE(ran, 1u) << u.taskName() << " ran twice, step " << step;
         if (ran == 1) {
            ASSERT_NE(n.state, State::idle) << u.taskName();
            ASSERT_GE(u.runTimes.back(), n.expiry) << u.taskName() << " ran early";
            n = Model();
         } else if (n.state == State::armed && n.expiry <= end) {
            // Due by now; whether its run has come yet depends on the machine.
            n.state = actualState(u);
            ASSERT_NE(n.state, State::idle) << u.taskName() << " lost its run";
            n.expiry = n.state == State::queued ? -inf : n.expiry;
         }
         check(j, step);
      }
   };
   for (int step = 0; step < 10000; ++step) {
      const int i = static_cast<int>(rng() % kTasks);
      Timer& t = *tasks[i];
      Model& m = model[i];
      const unsigned op = rng() % 10;
      const double before = Korvo::time();
      // As the wheel reports it: 0 once due.
      const double remaining = m.state == State::armed ? std::max(m.expiry - before, 0.0) : inf;
      if (op == 9) {
         ASSERT_NO_FATAL_FAILURE(runLoop(static_cast<double>(rng() % 4) * 0.1, step));
         continue;
      } else if (op == 7) {
         t.stopTimerTask();
         m = Model();
      } else if (op == 8) {
         t.scheduleTask();
         m = Model{State::queued, -inf};
      } else {
         const unsigned kind = op % 4;
         const unsigned r = rng() % 8;  // 0, -0.05 (not for jitter: it asserts), 0.01..1
         const double d = r == 0 ? 0.0 : r == 1 && kind < 2 ? -0.05 : (rng() % 100 + 1) / 100.0;
         const double asked = arm(t, kind, d, static_cast<unsigned char>(rng() % 101));
         const bool lowest = kind == 1;
         if (lowest && m.state == State::queued) {
            // Already has the lowest delay possible.
         } else if (asked == 0.0) {
            m = Model{State::queued, -inf};
         } else if (lowest && std::abs(asked - remaining) < 1e-3) {
            // Too close to call from outside: take what the task decided.
            m.expiry = std::min(m.expiry, t.currentExpirationTime());
         } else if (!lowest || asked < remaining) {
            const double expiry = t.currentExpirationTime();
            ASSERT_GE(expiry + 1e-9, before + asked);
            ASSERT_LE(expiry, Korvo::time() + asked + 1e-9);
            m = Model{State::armed, expiry};
         }
      }
      ASSERT_NO_FATAL_FAILURE(check(i, step));
   }
   // Every outstanding arming runs exactly once, none early.
   ASSERT_NO_FATAL_FAILURE(runLoop(2.0, -1));
   doEventLoop();
   size_t total = 0;
   for (int j = 0; j < kTasks; ++j) {
      total += tasks[j]->runTimes.size();
      EXPECT_EQ(actualState(*tasks[j]), State::idle) << tasks[j]->taskName();
   }
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
   for (const auto& [call, message] : cases) {
      EXPECT_THAT(KorvoTest::assertionText(call), testing::HasSubstr(message));
   }
   EXPECT_EQ(t->currentExpirationTime(), inf);  // none of them changed anything
   // A jitter of weeks in nanoseconds does not overflow; absurd delays are clamped,
   // infinite ones stop the timer.
   t->scheduleTaskJitterUp(std::chrono::nanoseconds(std::chrono::hours(24 * 60)), 100);
   EXPECT_GE(t->timerRemaining(), 24.0 * 60 * 3600 - 1);
   EXPECT_LE(t->timerRemaining(), 2 * 24.0 * 60 * 3600);
   t->scheduleTaskDelay(1e300);
   EXPECT_LE(t->timerRemaining(), Korvo::Platform::maxDelaySeconds);
   t->scheduleTaskJitterUp(inf, 50);
   EXPECT_FALSE(t->taskBusy());
   t->scheduleTaskDelay(std::chrono::nanoseconds::max());
   EXPECT_EQ(t->timerRemaining(), inf);
   t->scheduleTask();
   EXPECT_LT(t->currentExpirationTime(), inf);  // "now" while queued
}

// Library time also moves with real time, so a slow machine may run a period late or
// skip it: what holds whatever the speed is that no run is early and the grid is kept.
TEST_F(TimerTaskTest, PeriodicRunsDoNotDriftAndSkipMissedPeriods) {
   auto t = timer("tick");
   const double start = Korvo::time();
   t->scheduleTaskPeriodic(100ms);
   const double first = t->currentExpirationTime();
   EXPECT_DOUBLE_EQ(t->timerPeriod(), 0.1);
   auto onTheGrid = [&] {
      EXPECT_NEAR(std::remainder(t->currentExpirationTime() - first, 0.1), 0.0, 1e-6);
      EXPECT_GT(t->currentExpirationTime(), Korvo::time());
   };
   doEventLoop(3600.0 + 0.05);  // a virtual hour
   ASSERT_LE(t->runTimes.size(), 36000u);
   for (size_t i = 0; i < t->runTimes.size(); i += 997) {
      EXPECT_GE(t->runTimes[i], start + 0.1 * static_cast<double>(i + 1) - 1e-6) << i;
   }
   onTheGrid();
   // A run 0.35 s late: the three periods it covered are skipped, not run in a burst.
   t->body = [](Timer&) {
      static bool once = true;
      if (std::exchange(once, false)) {
         Korvo::Platform::fastForwardBy(0.35);
      }
   };
   t->runTimes.clear();
   doEventLoop(1.0);
   EXPECT_LE(t->runTimes.size(), 8u);
   onTheGrid();
   t->scheduleTaskDelay(0.5);  // any other operation ends the periodic mode
   EXPECT_EQ(t->timerPeriod(), 0.0);
}
