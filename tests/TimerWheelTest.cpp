// The timer wheel on virtual time: no test waits for real.

#include <Korvo/TimerWheel.h>

#include "PlatformTestSupport.h"
#include "TestPeer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <stdexcept>

using Korvo::TimerWheelEvent;
using Korvo::TimerWheelState;

namespace {

constexpr double infinity = TimerWheelEvent::infinity();

struct Event : TimerWheelEvent {
   ~Event() override { Korvo::getTimerWheel()->timerStop(this); }
   void timeout() override {
      at.push_back(Korvo::time());
      if (then)
         then();
   }
   std::function<void()> then;
   std::vector<double> at;
};

struct TimerWheelTest : testing::Test {
   KorvoTest::ThrowOnAssert throwing;
   KorvoTest::FastForwardOn fastForward;
   std::shared_ptr<Korvo::TimerWheel> wheel = Korvo::getTimerWheel();
};

TEST_F(TimerWheelTest, HandlersMayStartAndStopTimersAtAnyDelayDuringThePass) {
   // A start at a time already past sets the master timer from inside the pass, which drops the
   // entries the pass has emptied: the pass must not hold on to one.
   for (const double delay : {-1.0, 0.0, 0.004, 0.02}) {
      SCOPED_TRACE(delay);
      Event self, other, stopped, restarted, started;
      const double expiry = Korvo::time() + 0.1;
      for (Event* e : {&self, &other, &restarted})
         wheel->timerStartAt(e, expiry);
      wheel->timerStartAt(&stopped, expiry + 0.001);
      self.then = [&] {
         if (self.at.size() == 1)
            wheel->timerStart(&self, delay);
      };
      other.then = [&] {
         wheel->timerStop(&stopped);
         wheel->timerStart(&restarted, 1.0);
         wheel->timerStart(&started, delay);
      };
      Korvo::Platform::doEventLoop(0.5);
      EXPECT_EQ(Korvo::TestPeer::expiringSoonCount(*wheel), 0u);
      Korvo::Platform::doEventLoop(1.0);
      EXPECT_GE(self.at.at(1), self.at[0] + delay);
      EXPECT_GE(started.at.at(0), other.at.at(0) + delay);
      EXPECT_GE(restarted.at.at(0), other.at[0] + 1.0);
      EXPECT_EQ(self.at.size() + started.at.size() + restarted.at.size() + stopped.at.size(), 4u);
      EXPECT_EQ(wheel->masterExpiry(), infinity);
      EXPECT_EQ(Korvo::TestPeer::masterTimer(*wheel)->remainingTimeout(), infinity);
   }
}

TEST_F(TimerWheelTest, ThrowingHandlerLosesNoTimer) {
   Event thrower, later, sameTime, fresh;
   thrower.then = [] { throw std::runtime_error("handler failed"); };
   wheel->timerStartAt(&thrower, Korvo::time() + 0.3);
   wheel->timerStartAt(&sameTime, thrower.expirationTime());
   wheel->timerStart(&later, 0.6);
   EXPECT_THROW(Korvo::Platform::doEventLoop(1.0), std::runtime_error);
   EXPECT_EQ(sameTime.state(), TimerWheelState::inTimersExpiryingSoon);
   EXPECT_LE(wheel->masterExpiry(), Korvo::time());  // re-armed for what is still due
   wheel->timerStart(&fresh, 0.25);
   Korvo::Platform::doEventLoop(1.0);
   for (const Event* e : {&thrower, &sameTime, &later, &fresh})
      EXPECT_EQ(e->at.size(), 1u);
}

TEST_F(TimerWheelTest, ControlAndBadDelays) {
   KorvoTest::Handler h;
   auto control = Korvo::Platform::getTimerControl(&h, wheel);
   EXPECT_EQ(control->remainingTimeout(), infinity);
   control->setTimeout(10.0);
   control->setTimeout(-1e9);  // re-arming replaces; the past is due at once
   EXPECT_EQ(control->remainingTimeout(), 0.0);
   EXPECT_THROW(control->setTimeout(std::nan("")), Korvo::AssertException);
   Korvo::Platform::doEventLoop(1.0);
   control->setTimeout(1.0);
   control->delTimeout();
   control->setTimeout(1.0);
   control.reset();  // destroying a running control stops its timer
   Korvo::Platform::doEventLoop(2.0);
   EXPECT_EQ(h.calls(), 1);
}

TEST(TimerWheelDeathTest, DestroyingARunningEventAborts) {
   GTEST_FLAG_SET(death_test_style, "threadsafe");
   struct Bare : TimerWheelEvent {
      void timeout() override {}
   };
   EXPECT_DEATH(
       {
          auto* bare = new Bare();
          Korvo::getTimerWheel()->timerStart(bare, 1.0);
          delete bare;
       },
       "destroyed while inTimerWheel");
}

TEST_F(TimerWheelTest, RandomTimersFireOnceInOrderAndNeverEarly) {
   std::mt19937 rng(13);
   std::uniform_real_distribution<double> delay(0.0, 60.0);
   std::vector<Event> events(2000);
   std::vector<std::pair<double, size_t>> expected;
   std::vector<size_t> fired;
   const double base = Korvo::time();
   for (size_t i = 0; i < events.size(); ++i) {
      events[i].then = [&fired, i] { fired.push_back(i); };
      // Every third shares a whole second with others: equal expiries fire in start order.
      wheel->timerStartAt(&events[i], base + (i % 3 ? delay(rng) : std::floor(delay(rng))));
      if (i % 5 == 0)
         wheel->timerStart(&events[i], delay(rng));  // moved
      if (i % 7 == 0)
         wheel->timerStop(&events[i]);  // cancelled
   }
   for (size_t i = 0; i < events.size(); ++i) {
      if (events[i].running() && i % 2 == 0)
         wheel->timerStartAt(&events[i], events[i].expirationTime());  // the same: no move
      if (events[i].running())
         expected.emplace_back(events[i].expirationTime(), i);
   }
   std::sort(expected.begin(), expected.end());
   // The master timer is never set later than the earliest timer still waiting.
   for (int step = 0; step < 130 && fired.size() < expected.size(); ++step) {
      EXPECT_LE(wheel->masterExpiry(), expected[fired.size()].first);
      Korvo::Platform::doEventLoop(0.5);
   }
   ASSERT_EQ(fired.size(), expected.size());
   for (size_t k = 0; k < fired.size(); ++k) {
      EXPECT_EQ(fired[k], expected[k].second) << k;
      EXPECT_GE(events[fired[k]].at.at(0), expected[k].first);
      EXPECT_EQ(events[fired[k]].state(), TimerWheelState::notLinked);
   }
   EXPECT_EQ(wheel->masterExpiry(), infinity);
}

}  // namespace
