// Timer tasks on a real root, the real wheel and the real loop, under virtual time.

#include <Korvo/Allocator.h>
#include <Korvo/Debug.h>
#include <Korvo/TaskScheduler.h>
#include <Korvo/TimerTask.h>

#include "PlatformTestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <functional>
#include <limits>
#include <random>
#include <sstream>
#include <thread>
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
   bool armed() const { return taskStatus().taskTimerRunning(); }
   bool queued() const { return taskStatus().taskOnRunQueue(); }
   std::vector<double> runTimes;
   std::function<void(Timer&)> body;
};

class TimerTaskTest : public ::testing::Test {
protected:
   void SetUp() override { root_ = Korvo::schedulerRootKorvoNonShared("timerRoot"); }
   void TearDown() override { root_.reset(); }
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
   std::shared_ptr<Korvo::TaskSchedulerRoot> root_;
};

// ---------------------------------------------------------------------------------
// Against a reference model

enum class State { idle, armed, queued };

struct Model {
   State state = State::idle;
   double expiry = inf;  // earliest library time a run may happen, while armed
};

State actualState(const Timer& t) {
   EXPECT_FALSE(t.armed() && t.queued()) << t.taskName();
   return t.armed() ? State::armed : t.queued() ? State::queued : State::idle;
}

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

// ---------------------------------------------------------------------------------
// Exact cases

TEST_F(TimerTaskTest, TransitionsStatusHistoryTracesAndExpirationTimes) {
   auto t = timer("edge");
   EXPECT_TRUE(t->taskStatus().taskTimer());
   EXPECT_EQ(t->currentExpirationTime(), inf);
   EXPECT_EQ(t->timerRemaining(), inf);
   Korvo::Platform::setTraceFormat("level");
   Korvo::Platform::setupKorvoDebug("TaskScheduler/89");
   testing::internal::CaptureStderr();
   t->scheduleTaskDelay(3.0);
   EXPECT_TRUE(t->armed() && t->taskScheduled() && t->taskBusy());
   EXPECT_EQ(root_->history()->event(1).eventType(), Korvo::TaskSchedulerEventType::timerStart);
   t->scheduleTaskLowestDelay(5.0);  // keeps 3 s
   EXPECT_LE(t->timerRemaining(), 3.0);
   t->scheduleTaskLowestDelay(1s);  // earlier: re-armed
   EXPECT_LE(t->timerRemaining(), 1.0);
   t->scheduleTaskDelay(0.0);  // disarmed and queued at once
   EXPECT_TRUE(!t->armed() && t->queued());
   const double before = Korvo::time();
   const double expiration = t->currentExpirationTime();  // "now" while queued
   EXPECT_TRUE(expiration >= before && expiration <= Korvo::time());
   t->scheduleTaskLowestDelay(2.0);  // stays queued, no timer
   EXPECT_TRUE(!t->armed() && t->queued());
   t->scheduleTaskDelay(2.0);  // dequeued and armed
   EXPECT_TRUE(t->armed() && !t->queued());
   t->scheduleTaskJitterUp(2.0, 0);
   t->scheduleTaskJitterUp(inf, 50);  // infinite: stopped
   EXPECT_TRUE(!t->taskScheduled() && !t->taskBusy());
   EXPECT_EQ(root_->history()->event(1).eventType(), Korvo::TaskSchedulerEventType::timerStop);
   t->stopTimerTask();
   const std::string text = testing::internal::GetCapturedStderr();
   Korvo::Platform::clearKorvoDebug("TaskScheduler/89");
   Korvo::Platform::setTraceFormat("date,time,tid,handle,level");
   std::ostringstream task;
   task << static_cast<const Korvo::_TaskBase*>(t.get());
   for (const std::string& line :
        {"8 Timer started " + task.str() + " delay 3", "8 Timer already running " + task.str(),
         "8 Already on runQueue " + task.str(),
         "9 Timer jitterUp " + task.str() + " delay 2 + 0 = 2",
         "9 Timer stopped " + task.str() + ", was running",
         "9 Timer stopped " + task.str() + ", was not running"}) {
      EXPECT_NE(text.find(line), std::string::npos) << line << "\n" << text;
   }
   const unsigned k = nextJitterStep();
   const double start = Korvo::time();
   t->scheduleTaskJitterDown(10.0, 100);
   EXPECT_NEAR(t->currentExpirationTime() - start, 10.0 - k * 0.1, 1e-3);
   t->scheduleTaskDelay(std::chrono::nanoseconds::max());
   EXPECT_FALSE(t->taskScheduled());
   doEventLoop(11.0);
   EXPECT_TRUE(t->runTimes.empty());
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
   };
   for (const auto& [call, message] : cases) {
      EXPECT_NE(KorvoTest::assertionText(call).find(message), std::string::npos) << message;
   }
   std::string wrongThread;
   std::thread([&] {
      wrongThread = KorvoTest::assertionText([&] { t->scheduleTaskDelay(1.0); });
   }).join();
   EXPECT_NE(wrongThread.find("Executing in wrong thread "), std::string::npos);
   EXPECT_FALSE(t->taskScheduled());  // none of them changed anything
   // A jitter of weeks in nanoseconds does not overflow; absurd delays are clamped.
   t->scheduleTaskJitterUp(std::chrono::nanoseconds(std::chrono::hours(24 * 60)), 100);
   EXPECT_GE(t->timerRemaining(), 24.0 * 60 * 3600 - 1);
   EXPECT_LE(t->timerRemaining(), 2 * 24.0 * 60 * 3600);
   t->scheduleTaskDelay(1e300);
   EXPECT_LE(t->timerRemaining(), Korvo::Platform::maxDelaySeconds);
}

TEST_F(TimerTaskTest, RunsFromTheSchedulerAndSurvivesItsOwnHandler) {
   auto t = timer("self");
   // Re-armed in the past from its own run: once more on the next pass, then done.
   int rearms = 2;
   t->body = [&](Timer& self) {
      if (--rearms >= 0) {
         self.scheduleTaskDelay(rearms == 1 ? -1.0 : 0.02);
      }
   };
   const double start = Korvo::time();
   t->scheduleTaskDelay(0.5);
   doEventLoop(0.49);
   EXPECT_TRUE(t->runTimes.empty());
   doEventLoop(1.0);
   ASSERT_EQ(t->runTimes.size(), 3u);
   EXPECT_GE(t->runTimes[0], start + 0.5);
   EXPECT_GE(t->runTimes[2], t->runTimes[1] + 0.02);
   EXPECT_FALSE(t->taskBusy());
   // Released by its own run while re-armed: the timer goes with it.
   std::weak_ptr<Timer> weak = t;
   t->body = [&](Timer& self) {
      self.scheduleTaskDelay(0.1);
      t.reset();
   };
   t->scheduleTask();
   doEventLoop(0.5);
   EXPECT_TRUE(weak.expired());
   // Destroyed while armed and while queued: nothing fires afterwards.
   auto armed = timer("armed");
   auto queued = timer("queued");
   armed->scheduleTaskDelay(0.1);
   queued->scheduleTask();
   armed.reset();
   queued.reset();
   doEventLoop(0.5);
}

TEST_F(TimerTaskTest, PeriodicRunsDoNotDriftAndSkipMissedPeriods) {
   auto t = timer("tick");
   const double start = Korvo::time();
   t->scheduleTaskPeriodic(100ms);
   const double first = t->currentExpirationTime();
   EXPECT_TRUE(t->armed() && t->taskBusy());
   EXPECT_DOUBLE_EQ(t->timerPeriod(), 0.1);
   doEventLoop(3600.0 + 0.05);  // a virtual hour
   ASSERT_EQ(t->runTimes.size(), 36000u);
   for (size_t i = 0; i < t->runTimes.size(); i += 997) {
      EXPECT_GE(t->runTimes[i], start + 0.1 * static_cast<double>(i + 1) - 1e-6) << i;
      EXPECT_LT(t->runTimes[i], start + 0.1 * static_cast<double>(i + 1) + 0.05) << i;
   }
   // A run 0.35 s late: the three periods it covered are skipped, the grid is kept.
   t->runTimes.clear();
   t->body = [](Timer&) {
      static bool once = true;
      if (std::exchange(once, false)) {
         Korvo::Platform::fastForwardBy(0.35);
      }
   };
   const double from = Korvo::time();
   doEventLoop(1.0);
   EXPECT_LE(t->runTimes.size(), 8u);
   EXPECT_GE(t->runTimes.size(), 6u);
   EXPECT_NEAR(std::remainder(t->currentExpirationTime() - first, 0.1), 0.0, 1e-6);
   EXPECT_GT(t->currentExpirationTime(), from + 1.0 - 0.1);
   // Any other operation ends the periodic mode; bad periods change nothing.
   t->scheduleTaskDelay(0.5);
   EXPECT_EQ(t->timerPeriod(), 0.0);
   for (double bad : {0.0, -1.0, inf, std::nan("")}) {
      EXPECT_NE(KorvoTest::assertionText([&] { t->scheduleTaskPeriodic(bad); }).find("period: "),
                std::string::npos);
   }
   EXPECT_NE(KorvoTest::assertionText([&] { t->scheduleTaskPeriodic(0ns); }).find("period: "),
             std::string::npos);
   EXPECT_EQ(t->timerPeriod(), 0.0);
   t->runTimes.clear();
   doEventLoop(2.0);
   EXPECT_EQ(t->runTimes.size(), 1u);
}

}  // namespace
