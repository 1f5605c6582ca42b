// Virtual time: the loop jumps the thread's clock to the next timer instead of waiting.
#include "LibeventFactory.h"

#include "PlatformTestSupport.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/time.h>
#include <time.h>

#include <cmath>
#include <functional>
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

struct Timer : Korvo::Platform::TimeoutHandler {
   void arm(double seconds) {
      control->setTimeout(seconds);
      armedAt = Korvo::time();
   }
   void timeout() override {
      firedAt.push_back(Korvo::time());
      if (onTimeout)
         onTimeout();
   }
   double took(size_t n = 0) const { return firedAt.at(n) - armedAt; }

   std::shared_ptr<Korvo::Platform::TimerControl> control = Korvo::Platform::getTimerControl(this);
   std::function<void()> onTimeout;
   double armedAt = 0.0;
   std::vector<double> firedAt;
};

// A timer fires after its delay, give or take one step of libevent's clock, and late only by the
// real time that passes meanwhile: the library clock includes real time. A sanitizer build on a
// busy machine can stall for seconds, so the upper bound is wide: it catches a timer held back
// by a whole period, not a slow machine.
constexpr double lateness = 5.0;
const double early = KorvoTest::clockStep();

void expectTook(const Timer& timer, double delay) {
   ASSERT_EQ(timer.firedAt.size(), 1u);
   EXPECT_GE(timer.took(), delay - early);
   EXPECT_LT(timer.took(), delay + lateness);
}

int changes = 0;

TEST(VirtualTimeTest, OnlyTheMainThreadSwitchesAndJumpsNeedTheSwitch) {
   Korvo::Platform::registerFastForwardChangeNotifier([] { ++changes; });
   changes = 0;
   EXPECT_FALSE(Korvo::Platform::fastForward());
   for (const bool on : {true, true, false, false})
      Korvo::Platform::setFastForward(on);
   EXPECT_EQ(changes, 2);  // once per change

   std::string text;
   std::thread([&text] {
      text = assertionText([] { Korvo::Platform::setFastForward(true); });
      Korvo::leFree();
   }).join();
   EXPECT_THAT(text, HasSubstr("FastForward invoked from non-main thread"));
   EXPECT_FALSE(Korvo::Platform::fastForward());

   timeval delay;
   EXPECT_THAT(assertionText([] { Korvo::Platform::fastForwardBy(1.0); }),
               HasSubstr("Korvo::Platform::fastForwardBy( Time ) fast-forwarding disabled"));
   EXPECT_THAT(assertionText([&delay] { Korvo::fastForwardDelayToFirstTimer(&delay); }),
               HasSubstr("Called without fast forward enabled"));
   EXPECT_THAT(assertionText([] { Korvo::eventLoopFastForwardToFirstTimer(1.0); }),
               HasSubstr("Called without fastForward enabled"));
}

TEST(VirtualTimeTest, EachLoopRunnerJumpsAtMostItsSpan) {
   FastForwardOn on;
   Timer timer;
   const double start = Korvo::time();
   const double offsetBefore = Korvo::leVirtualTimeOffset();
   timer.arm(10.0);
   Korvo::Platform::doEventLoop(20.0);
   expectTook(timer, 10.0);
   EXPECT_GE(Korvo::time() - start, 20.0);
   EXPECT_LT(Korvo::time() - start, 20.0 + lateness);
   EXPECT_GT(Korvo::leVirtualTimeOffset() - offsetBefore, 15.0);  // nearly all of it jumped

   Timer waited;
   waited.arm(10.0);
   Korvo::Platform::doEventLoopInWaitfor(4.0);
   EXPECT_TRUE(waited.firedAt.empty());
   EXPECT_NEAR(waited.control->remainingTimeout(), 6.0, lateness);
   Korvo::Platform::doEventLoopInWaitfor(100.0);  // the timer is nearer than the span
   expectTook(waited, 10.0);

   Timer unbounded;
   unbounded.arm(100.0);
   Korvo::Platform::doEventLoop();
   expectTook(unbounded, 100.0);

   struct Callback : Korvo::Platform::CallbackHandler {
      int calls = 0;
      void callback() override { ++calls; }
   } callback;
   auto control = Korvo::Platform::getCallbackControl(&callback);
   control->requestCallback();
   Korvo::Platform::doEventLoop(0.0);  // a zero span runs what is due
   EXPECT_EQ(callback.calls, 1);
   EXPECT_THAT(assertionText([] { Korvo::Platform::doEventLoop(std::nan("")); }),
               HasSubstr("doEventLoop: seconds is NaN"));
}

// The library time at which the running loop pass started: libevent measures a delay given
// inside a handler from its cached time of that moment.
double passStart() {
   timeval cached, wall;
   event_base_gettimeofday_cached(Korvo::leBase(), &cached);
   const double now = Korvo::time();
   gettimeofday(&wall, nullptr);
   return now - (static_cast<double>(wall.tv_sec - cached.tv_sec) +
                 static_cast<double>(wall.tv_usec - cached.tv_usec) / 1e6);
}

TEST(VirtualTimeTest, AnHourOfTimersRunsInOrder) {
   FastForwardOn on;
   // 360 one-shot timers every 10 s, armed out of order, and one that re-arms itself every
   // second, 3600 times.
   constexpr int count = 360;
   std::vector<Timer> timers(count);
   std::vector<int> order;
   for (int k = 0; k < count; ++k) {
      const int i = (k * 7) % count;  // 7 and 360 are coprime: a permutation
      timers[i].onTimeout = [&order, i] { order.push_back(i); };
      timers[i].arm(10.0 * (i + 1));
   }
   Timer sentinel;  // pending through all the jumps
   const double sentinelArming = Korvo::time();
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
   Korvo::Platform::doEventLoop(3700.0);

   ASSERT_EQ(order.size(), static_cast<size_t>(count));
   for (int i = 0; i < count; ++i) {
      EXPECT_EQ(order[i], i);
      EXPECT_GE(timers[i].took(), 10.0 * (i + 1) - early);
      EXPECT_LT(timers[i].took(), 10.0 * (i + 1) + lateness);
   }
   ASSERT_EQ(tickDue.size(), 3599u);
   ASSERT_EQ(ticker.firedAt.size(), 3600u);
   for (size_t n = 1; n < ticker.firedAt.size(); ++n) {
      EXPECT_GE(ticker.firedAt[n], tickDue[n - 1] - early);
      EXPECT_LT(ticker.firedAt[n] - ticker.firedAt[n - 1], 1.0 + lateness);
   }
   // Thousands of jumps moved the sentinel exactly as far as the clock, to a step of libevent's
   // clock (a slip of microseconds per jump would add up to milliseconds): its expiry and the
   // time its remainder was read at lie between the clock readings taken around them.
   const double before = Korvo::time();
   const double remaining = sentinel.control->remainingTimeout();
   const double after = Korvo::time();
   EXPECT_GE(remaining, 7200.0 - (after - sentinelArming) - early - 0.0005);
   EXPECT_LE(remaining, 7200.0 - (before - sentinel.armedAt) + early + 0.0005);
}

TEST(VirtualTimeTest, FastForwardByMovesClockAndTimersOfThisThreadOnly) {
   double offset = 0.0;
   {
      FastForwardOn on;
      timeval delay;
      Korvo::leInit();
      EXPECT_FALSE(Korvo::fastForwardDelayToFirstTimer(&delay));
      Timer soon, later;
      soon.arm(3.0);
      later.arm(8.0);
      ASSERT_TRUE(Korvo::fastForwardDelayToFirstTimer(&delay));
      EXPECT_GT(Korvo::secondsFromTimeval(delay), 3.0 - lateness);
      EXPECT_LE(Korvo::secondsFromTimeval(delay), 3.0001);

      const double start = Korvo::time();
      Korvo::Platform::fastForwardBy(5.0);
      EXPECT_GE(Korvo::time() - start, 5.0);
      EXPECT_EQ(soon.control->remainingTimeout(), 0.0);
      EXPECT_NEAR(later.control->remainingTimeout(), 3.0, lateness);
      ASSERT_TRUE(Korvo::fastForwardDelayToFirstTimer(&delay));  // reached: no jump
      EXPECT_EQ(delay.tv_sec + delay.tv_usec, 0);
      EXPECT_TRUE(soon.firedAt.empty());  // due, but only the loop runs it
      Korvo::Platform::doEventLoopInWaitfor(0.0);
      EXPECT_EQ(soon.firedAt.size(), 1u);
      EXPECT_TRUE(later.firedAt.empty());

      // The rest below a microsecond is cut off, not rounded; backwards moves nothing.
      const double base = Korvo::leVirtualTimeOffset();
      Korvo::Platform::fastForwardBy(1.2345678);
      EXPECT_EQ(std::llround((Korvo::leVirtualTimeOffset() - base) * 1e6), 1234567);
      offset = Korvo::leVirtualTimeOffset();
      Korvo::Platform::fastForwardBy(-3.0);
      EXPECT_EQ(Korvo::leVirtualTimeOffset(), offset);
      EXPECT_THAT(assertionText([] { Korvo::Platform::fastForwardBy(std::nan("")); }),
                  HasSubstr("seconds is NaN"));
      double otherOffset = -1.0;
      std::thread([&otherOffset] { otherOffset = Korvo::leVirtualTimeOffset(); }).join();
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

TEST(VirtualTimeTest, ForeignTimersOnARegisteredBaseFollowVirtualTime) {
   FastForwardOn on;
   std::vector<std::pair<int, double>> log;
   double start = 0.0;
   std::thread([&] {
      event_base* base = event_base_new();  // libevent's defaults, made by "others"
      Korvo::leRegisterBase(base);
      std::vector<Stamp> stamps{{&log, 600}, {&log, 1800}, {&log, 1200}};
      std::vector<event*> events;
      start = Korvo::time();
      for (Stamp& stamp : stamps) {
         events.push_back(event_new(
             base, -1, 0,
             [](evutil_socket_t, short, void* arg) {
                auto* stamp = static_cast<Stamp*>(arg);
                stamp->log->emplace_back(stamp->id, Korvo::time());
             },
             &stamp));
         const timeval after{stamp.id, 0};
         event_add(events.back(), &after);
      }
      Timer ours;
      ours.onTimeout = [&log] { log.emplace_back(900, Korvo::time()); };
      ours.arm(900.0);
      Korvo::Platform::doEventLoop(3600.0);
      for (event* ev : events)
         event_free(ev);
      ours.control.reset();
      Korvo::leFree();
   }).join();

   ASSERT_EQ(log.size(), 4u);
   const int expected[] = {600, 900, 1200, 1800};
   for (size_t i = 0; i < log.size(); ++i) {
      EXPECT_EQ(log[i].first, expected[i]);
      EXPECT_GT(log[i].second - start, expected[i] - lateness);
      EXPECT_LT(log[i].second - start, expected[i] + lateness);
   }
}

}  // namespace
