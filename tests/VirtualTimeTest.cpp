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
   EXPECT_THAT(assertionText([] { fastForwardBy(1.0); }),
               HasSubstr("Korvo::Platform::fastForwardBy( Time ) fast-forwarding disabled"));
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

TEST(VirtualTimeTest, LoopsJumpTheirSpanWithoutSlipOrEarlyFiring) {
   KorvoTest::FastForwardOn on;
   Handler h;
   auto timer = getTimerControl(&h);
   const double start = Korvo::time(), offset = Korvo::leVirtualTimeOffset();
   timer->setTimeout(10.0);
   doEventLoop(20.0);
   expectTook(h.at.at(0) - start, 10.0);
   expectTook(Korvo::time() - start, 20.0);
   EXPECT_GT(Korvo::leVirtualTimeOffset() - offset, 15.0);  // nearly all of it jumped

   const double unboundedStart = Korvo::time();
   timer->setTimeout(100.0);
   doEventLoop();
   expectTook(h.at.at(1) - unboundedStart, 100.0);

   EXPECT_THAT(assertionText([] { doEventLoop(std::nan("")); }),
               HasSubstr("doEventLoop: seconds is NaN"));

   // A timer that re-arms itself every second, 3600 times, past one that stays pending.
   Handler ticker, sentinel;
   auto tick = getTimerControl(&ticker), sentinelTimer = getTimerControl(&sentinel);
   const double sentinelArming = Korvo::time();
   sentinelTimer->setTimeout(7200.0);
   const double sentinelArmed = Korvo::time();
   std::vector<double> tickDue;  // the expiry each re-arm set, by the library clock
   ticker.then = [&] {
      if (ticker.calls() < 3600) {
         tick->setTimeout(1.0);
         tickDue.push_back(passStart() + 1.0);
      }
   };
   tick->setTimeout(1.0);
   doEventLoop(3700.0);
   ASSERT_EQ(ticker.calls(), 3600);
   for (size_t n = 1; n < 3600; ++n) {
      EXPECT_GE(ticker.at[n], tickDue[n - 1] - early);
      EXPECT_LT(ticker.at[n] - ticker.at[n - 1], 1.0 + lateness);
   }
   // The jumps moved the sentinel exactly as far as the clock, to a step of libevent's clock (a
   // slip of microseconds per jump would add up to milliseconds): its expiry and the time its
   // remainder was read at lie between the clock readings taken around them.
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
      Handler soon, later;
      auto soonTimer = getTimerControl(&soon), laterTimer = getTimerControl(&later);
      soonTimer->setTimeout(3.0);
      laterTimer->setTimeout(8.0);
      fastForwardBy(5.0);
      EXPECT_EQ(soonTimer->remainingTimeout(), 0.0);  // due, but only the loop runs it
      EXPECT_NEAR(laterTimer->remainingTimeout(), 3.0, lateness);
      doEventLoopInWaitfor(0.0);
      EXPECT_EQ(soon.calls() + later.calls(), 1);

      // The rest below a microsecond is cut off, not rounded; backwards moves nothing.
      const double base = Korvo::leVirtualTimeOffset();
      fastForwardBy(1.2345678);
      EXPECT_EQ(std::llround((Korvo::leVirtualTimeOffset() - base) * 1e6), 1234567);
      offset = Korvo::leVirtualTimeOffset();
      fastForwardBy(-3.0);
      EXPECT_EQ(Korvo::leVirtualTimeOffset(), offset);
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
   EXPECT_EQ(h.calls(), 1);
   EXPECT_GE(Korvo::time() - start, 10.03);
   EXPECT_LT(Korvo::leVirtualTimeOffset() - offset, 10.01);
}

}  // namespace
