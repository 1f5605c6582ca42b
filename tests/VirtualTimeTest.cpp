// Virtual time: the loop jumps the thread's clock to the next timer instead of waiting.
#include "LibeventFactory.h"

#include "PlatformTestSupport.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/time.h>
#include <time.h>

#include <cmath>
#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

using KorvoTest::assertionText;
using KorvoTest::FastForwardOn;
using testing::HasSubstr;

namespace {

double monotonic() {
   timespec ts;
   clock_gettime(CLOCK_MONOTONIC, &ts);
   return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

class Timer : public Korvo::Platform::TimeoutHandler {
public:
   Timer() : control(Korvo::Platform::getTimerControl(this)) {}
   void arm(double seconds) {
      control->setTimeout(seconds);
      armedAt = Korvo::time();
   }
   void timeout() override {
      firedAt.push_back(Korvo::time());
      if (onTimeout) {
         onTimeout();
      }
   }
   // Seconds from arming to the n-th firing.
   double took(size_t n = 0) const { return firedAt.at(n) - armedAt; }

   std::shared_ptr<Korvo::Platform::TimerControl> control;
   std::function<void()> onTimeout;
   double armedAt = 0.0;
   std::vector<double> firedAt;
};

// The library time at which the running loop pass started: libevent measures a
// delay given inside a handler from its cached time of that moment.
double passStart() {
   timeval cached;
   event_base_gettimeofday_cached(Korvo::leBase(), &cached);
   const double now = Korvo::time();
   timeval wall;
   gettimeofday(&wall, nullptr);
   const double sinceStart = static_cast<double>(wall.tv_sec - cached.tv_sec) +
                             static_cast<double>(wall.tv_usec - cached.tv_usec) / 1e6;
   return now - sinceStart;
}

class Callback : public Korvo::Platform::CallbackHandler {
public:
   Callback() : control(Korvo::Platform::getCallbackControl(this)) {}
   void callback() override { ++calls; }
   std::shared_ptr<Korvo::Platform::CallbackControl> control;
   int calls = 0;
};

// Under jumps a timer fires after its delay, give or take one step of libevent's clock,
// and later only by the deliberate 100us margin plus whatever real time passes
// meanwhile. The library clock includes real time, so upper bounds allow for a loaded
// machine.
// A sanitizer build on a busy 2-core machine can stall for seconds, so the bound is wide:
// what it catches is a timer held back by a whole period, not a slow machine.
constexpr double lateness = 5.0;
const double early = KorvoTest::clockStep();

int changes = 0;
void countChange() {
   ++changes;
}

TEST(VirtualTimeTest, SwitchingNotifiesOncePerChange) {
   Korvo::Platform::registerFastForwardChangeNotifier(&countChange);
   Korvo::Platform::registerFastForwardChangeNotifier(&countChange);  // kept once
   changes = 0;
   EXPECT_FALSE(Korvo::Platform::fastForward());
   Korvo::Platform::setFastForward(true);
   EXPECT_TRUE(Korvo::Platform::fastForward());
   EXPECT_EQ(changes, 1);
   Korvo::Platform::setFastForward(true);
   EXPECT_EQ(changes, 1);
   Korvo::Platform::setFastForward(false);
   EXPECT_EQ(changes, 2);
   Korvo::Platform::setFastForward(false);
   EXPECT_EQ(changes, 2);
}

TEST(VirtualTimeTest, OnlyTheMainThreadSwitches) {
   std::string text;
   std::thread other([&text] {
      text = assertionText([] { Korvo::Platform::setFastForward(true); });
      Korvo::leFree();
   });
   other.join();
   EXPECT_THAT(text, HasSubstr("FastForward invoked from non-main thread"));
   EXPECT_FALSE(Korvo::Platform::fastForward());
}

TEST(VirtualTimeTest, BoundedLoopCrossesItsSpanInJumps) {
   FastForwardOn on;
   Timer timer;
   const double start = Korvo::time();
   const double offsetBefore = Korvo::leVirtualTimeOffset();
   timer.arm(10.0);
   Korvo::Platform::doEventLoop(20.0);

   ASSERT_EQ(timer.firedAt.size(), 1u);
   EXPECT_GE(timer.took(), 10.0 - early);
   EXPECT_LT(timer.took(), 10.0 + lateness);
   EXPECT_GE(Korvo::time() - start, 20.0);
   EXPECT_LT(Korvo::time() - start, 20.0 + lateness);
   // Nearly all of it was jumped: the clock is ~20 s ahead of the monotonic one.
   EXPECT_GT(Korvo::leVirtualTimeOffset() - offsetBefore, 15.0);
}

TEST(VirtualTimeTest, AnHourOfTimersRunsInOrder) {
   FastForwardOn on;
   // 360 one-shot timers every 10 s, armed out of order, and one that re-arms itself
   // every second, 3600 times.
   constexpr int count = 360;
   std::vector<Timer> timers(count);
   std::vector<int> order;
   for (int k = 0; k < count; ++k) {
      const int i = (k * 7) % count;  // 7 and 360 are coprime: a permutation
      timers[i].onTimeout = [&order, i] { order.push_back(i); };
      timers[i].arm(10.0 * (i + 1));
   }
   Timer sentinel;  // pending through all the jumps
   sentinel.arm(7200.0);
   Timer ticker;
   std::vector<double> tickDue;  // the expiry each re-arm set, by the library clock
   ticker.onTimeout = [&ticker, &tickDue] {
      if (ticker.firedAt.size() < 3600) {
         ticker.control->setTimeout(1.0);
         tickDue.push_back(passStart() + 1.0);
      }
   };
   ticker.arm(1.0);

   const double realStart = monotonic();
   Korvo::Platform::doEventLoop(3700.0);

   ASSERT_EQ(order.size(), static_cast<size_t>(count));
   for (int i = 0; i < count; ++i) {
      EXPECT_EQ(order[i], i);
      EXPECT_GE(timers[i].took(), 10.0 * (i + 1) - early);
      EXPECT_LT(timers[i].took(), 10.0 * (i + 1) + lateness);
   }
   ASSERT_EQ(ticker.firedAt.size(), 3600u);
   // The ticker re-arms inside its handler, where the delay counts from the start of
   // that loop pass: how far before the handler that was depends on the machine's
   // speed, so "never early" is checked against the pass start of each re-arm.
   ASSERT_EQ(tickDue.size(), 3599u);
   for (size_t n = 1; n < ticker.firedAt.size(); ++n) {
      EXPECT_GE(ticker.firedAt[n], tickDue[n - 1] - early);
      EXPECT_LT(ticker.firedAt[n] - ticker.firedAt[n - 1], 1.0 + lateness);
   }
   EXPECT_LT(monotonic() - realStart, 600.0);  // an hour of timers, not an hour

   // Thousands of jumps moved the sentinel exactly as far as the clock: what it has
   // left plus what has passed is still its delay, to a step of libevent's clock (a
   // slip of a few microseconds per jump would add up to many milliseconds).
   double sum = 0.0;
   for (int attempt = 0; attempt < 100; ++attempt) {  // a reading not cut by preemption
      const double before = Korvo::time();
      const double remaining = sentinel.control->remainingTimeout();
      const double after = Korvo::time();
      sum = remaining + (before - sentinel.armedAt);
      if (after - before < 0.0001) {
         break;
      }
   }
   EXPECT_NEAR(sum, 7200.0, early + 0.0005);
}

TEST(VirtualTimeTest, FastForwardByMovesClockAndTimers) {
   FastForwardOn on;
   Timer soon;
   Timer later;
   soon.arm(3.0);
   later.arm(8.0);
   const double start = Korvo::time();
   Korvo::Platform::fastForwardBy(5.0);
   EXPECT_GE(Korvo::time() - start, 5.0);
   EXPECT_EQ(soon.control->remainingTimeout(), 0.0);
   EXPECT_NEAR(later.control->remainingTimeout(), 3.0, lateness);
   EXPECT_TRUE(soon.firedAt.empty());  // due, but only the loop runs it

   Korvo::Platform::doEventLoopInWaitfor(0.0);
   EXPECT_EQ(soon.firedAt.size(), 1u);
   EXPECT_TRUE(later.firedAt.empty());

   // The rest below a microsecond is cut off, not rounded.
   const double before = Korvo::leVirtualTimeOffset();
   Korvo::Platform::fastForwardBy(1.2345678);
   EXPECT_EQ(std::llround((Korvo::leVirtualTimeOffset() - before) * 1e6), 1234567);

   // Backwards is not a direction: a negative jump moves nothing.
   const double offset = Korvo::leVirtualTimeOffset();
   Korvo::Platform::fastForwardBy(-3.0);
   EXPECT_EQ(Korvo::leVirtualTimeOffset(), offset);
   EXPECT_THAT(assertionText([] { Korvo::Platform::fastForwardBy(std::nan("")); }),
               HasSubstr("seconds is NaN"));
}

TEST(VirtualTimeTest, JumpsNeedFastForward) {
   EXPECT_THAT(assertionText([] { Korvo::Platform::fastForwardBy(1.0); }),
               HasSubstr("Korvo::Platform::fastForwardBy( Time ) fast-forwarding disabled"));
   timeval delay;
   EXPECT_THAT(assertionText([&delay] { Korvo::fastForwardDelayToFirstTimer(&delay); }),
               HasSubstr("Called without fast forward enabled"));
   EXPECT_THAT(assertionText([] { Korvo::eventLoopFastForwardToFirstTimer(1.0); }),
               HasSubstr("Called without fastForward enabled"));
}

TEST(VirtualTimeTest, DelayToTheFirstTimer) {
   FastForwardOn on;
   timeval delay;
   Korvo::leInit();
   EXPECT_FALSE(Korvo::fastForwardDelayToFirstTimer(&delay));

   Timer timer;
   timer.arm(10.0);
   ASSERT_TRUE(Korvo::fastForwardDelayToFirstTimer(&delay));
   const double seconds = Korvo::secondsFromTimeval(delay);
   EXPECT_GT(seconds, 10.0 - lateness);
   EXPECT_LE(seconds, 10.0001);

   timer.arm(0.0);  // expiry already reached: no jump
   ASSERT_TRUE(Korvo::fastForwardDelayToFirstTimer(&delay));
   EXPECT_EQ(delay.tv_sec, 0);
   EXPECT_EQ(delay.tv_usec, 0);
   timer.control->delTimeout();
}

TEST(VirtualTimeTest, WaitforJumpsAtMostItsSpan) {
   FastForwardOn on;
   Timer timer;
   timer.arm(10.0);
   Korvo::Platform::doEventLoopInWaitfor(4.0);
   EXPECT_TRUE(timer.firedAt.empty());
   EXPECT_NEAR(timer.control->remainingTimeout(), 6.0, lateness);
   Korvo::Platform::doEventLoopInWaitfor(100.0);  // the timer is nearer than the span
   ASSERT_EQ(timer.firedAt.size(), 1u);
   EXPECT_GE(timer.took(), 10.0 - early);
   EXPECT_LT(timer.took(), 10.0 + lateness);
}

TEST(VirtualTimeTest, UnboundedLoopJumpsToTheFirstTimer) {
   FastForwardOn on;
   Timer timer;
   timer.arm(100.0);
   Korvo::Platform::doEventLoop();
   ASSERT_EQ(timer.firedAt.size(), 1u);
   EXPECT_GE(timer.took(), 100.0 - early);
   EXPECT_LT(timer.took(), 100.0 + lateness);
}

TEST(VirtualTimeTest, ZeroSpanRunsWhatIsDue) {
   FastForwardOn on;
   Callback callback;
   callback.control->requestCallback();
   Korvo::Platform::doEventLoop(0.0);
   EXPECT_EQ(callback.calls, 1);
   EXPECT_THAT(assertionText([] { Korvo::Platform::doEventLoop(std::nan("")); }),
               HasSubstr("doEventLoop: seconds is NaN"));
}

TEST(VirtualTimeTest, OffsetIsPerThreadAndNeverShrinks) {
   double offset = 0.0;
   {
      FastForwardOn on;
      const double before = Korvo::leVirtualTimeOffset();
      Korvo::Platform::fastForwardBy(2.0);
      offset = Korvo::leVirtualTimeOffset();
      EXPECT_GE(offset - before, 2.0);
      double otherOffset = -1.0;
      std::thread other([&otherOffset] { otherOffset = Korvo::leVirtualTimeOffset(); });
      other.join();
      EXPECT_EQ(otherOffset, 0.0);
   }
   // Switched off: the clock keeps its lead rather than running backwards.
   EXPECT_EQ(Korvo::leVirtualTimeOffset(), offset);
   EXPECT_GE(Korvo::time() - monotonic(), offset - lateness);
}

TEST(VirtualTimeTest, SwitchedOffMidLoopTheRestIsWaitedInRealTime) {
   Korvo::Platform::setFastForward(true);
   Timer timer;
   timer.onTimeout = [] { Korvo::Platform::setFastForward(false); };
   timer.arm(10.0);
   const double start = Korvo::time();
   const double realStart = monotonic();
   Korvo::Platform::doEventLoop(10.03);
   EXPECT_FALSE(Korvo::Platform::fastForward());
   EXPECT_EQ(timer.firedAt.size(), 1u);
   EXPECT_GE(Korvo::time() - start, 10.03);
   EXPECT_GE(monotonic() - realStart, 0.02);
}

// Timers added straight to libevent by other code, on a base adopted from it.
struct Stamp {
   std::vector<std::pair<int, double>>* log;
   int id;
};

void stampFired(evutil_socket_t, short, void* arg) {
   auto* stamp = static_cast<Stamp*>(arg);
   stamp->log->emplace_back(stamp->id, Korvo::time());
}

TEST(VirtualTimeTest, ForeignTimersOnARegisteredBaseFollowVirtualTime) {
   FastForwardOn on;
   std::vector<std::pair<int, double>> log;
   double start = 0.0;
   std::thread worker([&] {
      event_base* base = event_base_new();  // libevent's defaults, made by "others"
      Korvo::leRegisterBase(base);
      std::vector<Stamp> stamps{{&log, 600}, {&log, 1800}, {&log, 1200}};
      std::vector<event*> events;
      start = Korvo::time();
      for (Stamp& stamp : stamps) {
         events.push_back(event_new(base, -1, 0, &stampFired, &stamp));
         const timeval after{stamp.id, 0};
         event_add(events.back(), &after);
      }
      Timer ours;
      ours.onTimeout = [&log] { log.emplace_back(900, Korvo::time()); };
      ours.control->setTimeout(900.0);

      Korvo::Platform::doEventLoop(3600.0);
      for (event* ev : events) {
         event_free(ev);
      }
      ours.control.reset();
      Korvo::leFree();
   });
   worker.join();

   ASSERT_EQ(log.size(), 4u);
   const int expected[] = {600, 900, 1200, 1800};
   for (size_t i = 0; i < log.size(); ++i) {
      EXPECT_EQ(log[i].first, expected[i]);
      // libevent's default coarse clock may lag ours by one tick.
      EXPECT_GT(log[i].second - start, expected[i] - lateness);
      EXPECT_LT(log[i].second - start, expected[i] + lateness);
   }
}

}  // namespace
