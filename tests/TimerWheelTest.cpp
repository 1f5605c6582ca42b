// The timer wheel on virtual time: no test waits for real.

#include <Korvo/TimerWheel.h>

#include "PlatformTestSupport.h"
#include "TestPeer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <random>
#include <stdexcept>
#include <vector>

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
      ASSERT_EQ(self.at.size() + started.at.size() + restarted.at.size(), 3u);
      EXPECT_GE(self.at.at(1), self.at[0] + delay);
      EXPECT_GE(started.at.at(0), other.at.at(0) + delay);
      EXPECT_EQ(Korvo::TestPeer::expiringSoonCount(*wheel), 0u);
      Korvo::Platform::doEventLoop(1.0);
      EXPECT_GE(restarted.at.at(0), other.at[0] + 1.0);
      EXPECT_TRUE(stopped.at.empty());
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
   control->delTimeout();
   Korvo::Platform::doEventLoop(2.0);
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
      EXPECT_EQ(events[i].state(),
                events[i].running() ? TimerWheelState::inTimerWheel : TimerWheelState::notLinked);
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
      const Event& event = events[fired[k]];
      EXPECT_EQ(fired[k], expected[k].second) << k;
      EXPECT_GE(event.at.at(0), expected[k].first);
      EXPECT_EQ(event.at.size(), 1u);
      EXPECT_EQ(event.state(), TimerWheelState::notLinked);
      EXPECT_EQ(event.remainingTimeout(), infinity);
   }
   EXPECT_EQ(wheel->masterExpiry(), infinity);
}

TEST_F(TimerWheelTest, SoakFiresWithinOneTickAndNeverEarly) {
   // Timers restart themselves and each other from their handlers, the past included, while
   // others wait in the expiring-soon map: the master timer must follow whichever is due first.
   // Few timers, so that waiting for the wrong one shows as lateness. The library clock includes
   // real time, so a slow machine may make a timer late by the real time passed since the
   // virtual clock last jumped, and by no more.
   std::mt19937 rng(11);
   std::uniform_real_distribution<double> delay(-0.005, 0.03);
   std::vector<Event> events(10);
   std::vector<double> expiries(events.size());
   const auto start = [&](size_t i, double d) {
      wheel->timerStart(&events[i], d);
      expiries[i] = std::max(events[i].expirationTime(), Korvo::time());  // past: due at once
   };
   const auto real = [] { return Korvo::time() - Korvo::leVirtualTimeOffset(); };
   double offset = Korvo::leVirtualTimeOffset(), lastReal = real(), jumpReal = lastReal;
   size_t fired = 0;
   for (size_t i = 0; i < events.size(); ++i) {
      events[i].then = [&, i] {
         ++fired;
         if (Korvo::leVirtualTimeOffset() != offset) {
            offset = Korvo::leVirtualTimeOffset();
            jumpReal = lastReal;
         }
         lastReal = real();
         const double late = events[i].at.back() - expiries[i];
         EXPECT_GE(late, 0.0) << i;
         EXPECT_LE(late - (lastReal - jumpReal), 0.01) << i;
         if (events[i].at.size() < 1000)
            start(i, delay(rng));
         const size_t peer = rng() % events.size();
         if (peer != i && events[peer].running() && rng() % 4 == 0)
            start(peer, delay(rng));
      };
   }
   for (size_t i = 0; i < events.size(); ++i)
      start(i, delay(rng) * 30);
   Korvo::Platform::doEventLoop(20.0);
   EXPECT_EQ(fired, 1000 * events.size());
}

}  // namespace
