// Virtual time: the loop jumps the thread's clock to the next timer instead of waiting.
#include "LibeventFactory.h"

#include "PlatformTestSupport.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/time.h>

#include <cmath>
#include <thread>
#include <vector>

using namespace Korvo::Platform;
using KorvoTest::assertionText;
using KorvoTest::Handler;
using testing::HasSubstr;

namespace {

// A timer fires after its delay, give or take one step of libevent's clock, and late only by the
// real time that passes meanwhile: the library clock includes real time. A sanitizer build on a
// busy machine can stall for seconds, so the upper bound is wide: it catches a timer held back
// by a whole period, not a slow machine.
constexpr double lateness = 5.0;
const double early = KorvoTest::clockStep();

void expectTook(double took, double delay) {
   EXPECT_GE(took, delay - early);
   EXPECT_LT(took, delay + lateness);
}

int changes = 0;

TEST(VirtualTimeTest, OnlyTheMainThreadSwitchesAndJumpsNeedTheSwitch) {
   registerFastForwardChangeNotifier([] { ++changes; });
   changes = 0;
   for (const bool on : {true, true, false, false})
      setFastForward(on);
   EXPECT_EQ(changes, 2);  // once per change
   std::string text;
   std::thread([&text] {
      text = assertionText([] { setFastForward(true); });
      Korvo::leFree();
   }).join();
   EXPECT_THAT(text, HasSubstr("FastForward invoked from non-main thread"));
   EXPECT_FALSE(fastForward());
   timeval delay;
   EXPECT_THAT(assertionText([] { fastForwardBy(1.0); }),
               HasSubstr("Korvo::Platform::fastForwardBy( Time ) fast-forwarding disabled"));
   EXPECT_THAT(assertionText([&delay] { Korvo::fastForwardDelayToFirstTimer(&delay); }),
               HasSubstr("Called without fast forward enabled"));
   EXPECT_THAT(assertionText([] { Korvo::eventLoopFastForwardToFirstTimer(1.0); }),
               HasSubstr("Called without fastForward enabled"));
}

TEST(VirtualTimeTest, EachLoopRunnerJumpsAtMostItsSpan) {
   KorvoTest::FastForwardOn on;
   Handler h;
   auto timer = getTimerControl(&h);
   const double start = Korvo::time(), offset = Korvo::leVirtualTimeOffset();
   timer->setTimeout(10.0);
   doEventLoop(20.0);
   expectTook(h.at.at(0) - start, 10.0);
   expectTook(Korvo::time() - start, 20.0);
   EXPECT_GT(Korvo::leVirtualTimeOffset() - offset, 15.0);  // nearly all of it jumped

   const double waitStart = Korvo::time();
   timer->setTimeout(10.0);
   doEventLoopInWaitfor(4.0);
   EXPECT_NEAR(timer->remainingTimeout(), 6.0, lateness);
   doEventLoopInWaitfor(100.0);  // the timer is nearer than the span
   expectTook(h.at.at(1) - waitStart, 10.0);

   const double unboundedStart = Korvo::time();
   timer->setTimeout(100.0);
   doEventLoop();
   expectTook(h.at.at(2) - unboundedStart, 100.0);

   auto callback = getCallbackControl(&h);
   callback->requestCallback();
   doEventLoop(0.0);  // a zero span runs what is due
   EXPECT_EQ(h.calls(), 4);
   EXPECT_THAT(assertionText([] { doEventLoop(std::nan("")); }),
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
   KorvoTest::FastForwardOn on;
   // 360 one-shot timers every 10 s, armed out of order, and one that re-arms itself every
   // second, 3600 times.
   std::vector<Handler> handlers(361);
   std::vector<std::shared_ptr<TimerControl>> timers;
   std::vector<int> order;
   for (int i = 0; i < 361; ++i)
      timers.push_back(getTimerControl(&handlers[i]));
   const double start = Korvo::time();
   for (int k = 0; k < 360; ++k) {
      const int i = (k * 7) % 360;  // 7 and 360 are coprime: a permutation
      handlers[i].then = [&order, i] { order.push_back(i); };
      timers[i]->setTimeout(10.0 * (i + 1));
   }
   Handler sentinel;  // pending through all the jumps
   auto sentinelTimer = getTimerControl(&sentinel);
   const double sentinelArming = Korvo::time();
   sentinelTimer->setTimeout(7200.0);
   const double sentinelArmed = Korvo::time();
   Handler& ticker = handlers[360];
   std::vector<double> tickDue;  // the expiry each re-arm set, by the library clock
   ticker.then = [&] {
      if (ticker.calls() < 3600) {
         timers[360]->setTimeout(1.0);
         tickDue.push_back(passStart() + 1.0);
      }
   };
   timers[360]->setTimeout(1.0);
   doEventLoop(3700.0);

   ASSERT_EQ(order.size(), 360u);
   for (int i = 0; i < 360; ++i) {
      EXPECT_EQ(order[i], i);
      EXPECT_GE(handlers[i].at.at(0) - start, 10.0 * (i + 1) - early);
   }
   ASSERT_EQ(ticker.calls(), 3600);
   ASSERT_EQ(tickDue.size(), 3599u);
   for (size_t n = 1; n < 3600; ++n) {
      EXPECT_GE(ticker.at[n], tickDue[n - 1] - early);
      EXPECT_LT(ticker.at[n] - ticker.at[n - 1], 1.0 + lateness);
   }
   // Thousands of jumps moved the sentinel exactly as far as the clock, to a step of libevent's
   // clock (a slip of microseconds per jump would add up to milliseconds): its expiry and the
   // time its remainder was read at lie between the clock readings taken around them.
   const double before = Korvo::time();
   const double remaining = sentinelTimer->remainingTimeout();
   const double after = Korvo::time();
   EXPECT_GE(remaining, 7200.0 - (after - sentinelArming) - early - 0.0005);
   EXPECT_LE(remaining, 7200.0 - (before - sentinelArmed) + early + 0.0005);
}

TEST(VirtualTimeTest, FastForwardByMovesClockAndTimersOfThisThreadOnly) {
   double offset = 0.0;
   {
      KorvoTest::FastForwardOn on;
      timeval delay;
      Korvo::leInit();
      EXPECT_FALSE(Korvo::fastForwardDelayToFirstTimer(&delay));
      Handler soon, later;
      auto soonTimer = getTimerControl(&soon), laterTimer = getTimerControl(&later);
      soonTimer->setTimeout(3.0);
      laterTimer->setTimeout(8.0);
      ASSERT_TRUE(Korvo::fastForwardDelayToFirstTimer(&delay));
      EXPECT_GT(Korvo::secondsFromTimeval(delay), 3.0 - lateness);
      EXPECT_LE(Korvo::secondsFromTimeval(delay), 3.0001);
      const double start = Korvo::time();
      fastForwardBy(5.0);
      EXPECT_GE(Korvo::time() - start, 5.0);
      EXPECT_EQ(soonTimer->remainingTimeout(), 0.0);
      EXPECT_NEAR(laterTimer->remainingTimeout(), 3.0, lateness);
      ASSERT_TRUE(Korvo::fastForwardDelayToFirstTimer(&delay));  // reached: no jump
      EXPECT_EQ(delay.tv_sec + delay.tv_usec, 0);
      EXPECT_EQ(soon.calls(), 0);  // due, but only the loop runs it
      doEventLoopInWaitfor(0.0);
      EXPECT_EQ(soon.calls() + later.calls(), 1);

      // The rest below a microsecond is cut off, not rounded; backwards moves nothing.
      const double base = Korvo::leVirtualTimeOffset();
      fastForwardBy(1.2345678);
      EXPECT_EQ(std::llround((Korvo::leVirtualTimeOffset() - base) * 1e6), 1234567);
      offset = Korvo::leVirtualTimeOffset();
      fastForwardBy(-3.0);
      EXPECT_EQ(Korvo::leVirtualTimeOffset(), offset);
      EXPECT_THAT(assertionText([] { fastForwardBy(std::nan("")); }), HasSubstr("seconds is NaN"));
      std::thread([] { EXPECT_EQ(Korvo::leVirtualTimeOffset(), 0.0); }).join();
   }
   // Switched off: the clock keeps its lead rather than running backwards.
   EXPECT_EQ(Korvo::leVirtualTimeOffset(), offset);

   // Switched off from inside a jumping loop: the rest of the span is waited in real time.
   setFastForward(true);
   Handler h;
   h.then = [] { setFastForward(false); };
   auto timer = getTimerControl(&h);
   timer->setTimeout(10.0);
   const double start = Korvo::time();
   doEventLoop(10.03);
   EXPECT_FALSE(fastForward());
   EXPECT_EQ(h.calls(), 1);
   EXPECT_GE(Korvo::time() - start, 10.03);
   EXPECT_GE(Korvo::leVirtualTimeOffset() - offset, 5.0);
   EXPECT_LT(Korvo::leVirtualTimeOffset() - offset, 10.01);
}

}  // namespace
