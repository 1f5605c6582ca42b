// The timer wheel on virtual time: no test waits for real.

#include <Korvo/Exception.h>
#include <Korvo/Platform.h>
#include <Korvo/TimerWheel.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <random>
#include <stdexcept>
#include <vector>

namespace {

using Korvo::TimerWheel;
using Korvo::TimerWheelEvent;
using Korvo::TimerWheelState;

struct Event : TimerWheelEvent {
   ~Event() override { Korvo::getTimerWheel()->timerStop(this); }
   std::function<void()> onTimeout;
   std::vector<double> firedAt;
   void timeout() override {
      firedAt.push_back(Korvo::time());
      if (onTimeout)
         onTimeout();
   }
};

class TimerWheelTest : public ::testing::Test {
protected:
   void SetUp() override {
      Korvo::throwOnAssertFailIs(true);
      Korvo::Platform::setFastForward(true);
      wheel = Korvo::getTimerWheel();
   }
   void TearDown() override {
      Korvo::Platform::setFastForward(false);
      Korvo::throwOnAssertFailIs(false);
   }
   void startAt(Event& event, double expiry) { wheel->timerStartAt(&event, expiry); }
   std::shared_ptr<TimerWheel> wheel;
};

TEST_F(TimerWheelTest, NeverFiresEarly) {
   Event e;
   const double start = Korvo::time();
   wheel->timerStart(&e, 0.015);
   EXPECT_EQ(e.state(), TimerWheelState::inTimerWheel);
   EXPECT_LE(wheel->masterExpiry(), start + 0.015);
   Korvo::Platform::doEventLoop(0.012);
   EXPECT_TRUE(e.firedAt.empty());
   // Its tick has come but its time has not: it waits in the expiring-soon map,
   // with the master timer set for the exact remainder.
   if (e.state() == TimerWheelState::inTimersExpiryingSoon) {
      EXPECT_EQ(wheel->masterExpiry(), e.expirationTime());
   }
   Korvo::Platform::doEventLoop(0.01);
   ASSERT_EQ(e.firedAt.size(), 1u);
   EXPECT_GE(e.firedAt[0], start + 0.015);
   EXPECT_EQ(e.state(), TimerWheelState::notLinked);
   EXPECT_FALSE(e.running());
   EXPECT_EQ(e.remainingTimeout(), TimerWheelEvent::infinity());
   // Nothing left: the master timer's timeout is gone.
   EXPECT_EQ(wheel->masterExpiry(), TimerWheelEvent::infinity());
   EXPECT_EQ(wheel->masterTimer()->remainingTimeout(), TimerWheelEvent::infinity());
}

TEST_F(TimerWheelTest, EqualExpiriesFireInStartOrderAndRestartsMove) {
   Event a, b, c;
   std::vector<char> order;
   a.onTimeout = [&] { order.push_back('a'); };
   b.onTimeout = [&] { order.push_back('b'); };
   c.onTimeout = [&] { order.push_back('c'); };
   const double expiry = Korvo::time() + 0.5;
   startAt(b, expiry);
   startAt(a, expiry);
   startAt(c, expiry + 0.001);
   // Restarting for the same absolute expiry changes nothing (b stays first)...
   startAt(b, expiry);
   EXPECT_EQ(b.state(), TimerWheelState::inTimerWheel);
   Korvo::Platform::doEventLoop(1.0);
   EXPECT_EQ(order, (std::vector<char>{'b', 'a', 'c'}));

   // ...a different one moves the timer.
   order.clear();
   wheel->timerStart(&a, 0.2);
   wheel->timerStart(&b, 0.1);
   wheel->timerStart(&a, 0.05);
   Korvo::Platform::doEventLoop(1.0);
   EXPECT_EQ(order, (std::vector<char>{'a', 'b'}));
   EXPECT_EQ(a.firedAt.size(), 2u);
}

TEST_F(TimerWheelTest, HandlersMayStartAndStopOtherTimers) {
   Event first, victim, restarted, chained;
   const double expiry = Korvo::time() + 1.0;
   startAt(first, expiry);
   startAt(victim, expiry);     // due in the same pass, stopped before it runs
   startAt(restarted, expiry);  // restarted for later by the first handler
   first.onTimeout = [&] {
      if (first.firedAt.size() > 1)
         return;
      wheel->timerStop(&victim);
      wheel->timerStart(&restarted, 2.0);
      wheel->timerStart(&chained, 0.0);
      wheel->timerStart(&first, 3.0);  // and itself
   };
   Korvo::Platform::doEventLoop(1.5);
   EXPECT_EQ(first.firedAt.size(), 1u);
   EXPECT_TRUE(victim.firedAt.empty());
   EXPECT_TRUE(restarted.firedAt.empty());
   EXPECT_EQ(chained.firedAt.size(), 1u);
   Korvo::Platform::doEventLoop(5.0);
   EXPECT_EQ(restarted.firedAt.size(), 1u);
   EXPECT_GE(restarted.firedAt[0], expiry + 2.0);
   EXPECT_EQ(first.firedAt.size(), 2u);
   EXPECT_TRUE(victim.firedAt.empty());
}

TEST_F(TimerWheelTest, HandlersMayRearmAtAnyDelayDuringThePass) {
   // A start at a time already past sets the master timer from inside the pass,
   // which drops the entries the pass has emptied: the pass must not hold on to one.
   for (const double delay : {-1.0, 0.0, 0.004, 0.02}) {
      SCOPED_TRACE(delay);
      Event self, other, stopped, started;
      const double expiry = Korvo::time() + 0.1;
      startAt(self, expiry);
      startAt(other, expiry);
      startAt(stopped, expiry + 0.001);
      self.onTimeout = [&] {
         if (self.firedAt.size() == 1)
            wheel->timerStart(&self, delay);
      };
      other.onTimeout = [&] {
         wheel->timerStop(&stopped);
         wheel->timerStart(&started, delay);
      };
      Korvo::Platform::doEventLoop(0.5);
      ASSERT_EQ(self.firedAt.size(), 2u);
      EXPECT_GE(self.firedAt[1], self.firedAt[0] + delay);
      EXPECT_EQ(other.firedAt.size(), 1u);
      EXPECT_TRUE(stopped.firedAt.empty());
      ASSERT_EQ(started.firedAt.size(), 1u);
      EXPECT_GE(started.firedAt[0], other.firedAt[0] + delay);
      EXPECT_EQ(wheel->expiringSoonCount(), 0u);
      EXPECT_EQ(wheel->masterExpiry(), TimerWheelEvent::infinity());
   }
}

TEST_F(TimerWheelTest, ThrowingHandlerLosesNoTimer) {
   Event thrower, later, sameTime;
   thrower.onTimeout = [] { throw std::runtime_error("handler failed"); };
   const double expiry = Korvo::time() + 0.3;
   startAt(thrower, expiry);
   startAt(sameTime, expiry);
   wheel->timerStart(&later, 0.6);
   EXPECT_THROW(Korvo::Platform::doEventLoop(1.0), std::runtime_error);
   EXPECT_EQ(thrower.firedAt.size(), 1u);
   EXPECT_TRUE(sameTime.firedAt.empty());
   EXPECT_EQ(sameTime.state(), TimerWheelState::inTimersExpiryingSoon);
   // The master timer was re-armed for what is still due.
   EXPECT_LE(wheel->masterExpiry(), Korvo::time());
   Korvo::Platform::doEventLoop(1.0);
   EXPECT_EQ(sameTime.firedAt.size(), 1u);
   EXPECT_EQ(later.firedAt.size(), 1u);
   // And new timers still arm it.
   Event fresh;
   wheel->timerStart(&fresh, 0.25);
   Korvo::Platform::doEventLoop(0.5);
   EXPECT_EQ(fresh.firedAt.size(), 1u);
}

TEST_F(TimerWheelTest, BadDelays) {
   Event past, nan;
   wheel->timerStart(&past, -1e9);
   EXPECT_EQ(past.remainingTimeout(), 0.0);
   Korvo::Platform::doEventLoop(0.1);
   EXPECT_EQ(past.firedAt.size(), 1u);
   EXPECT_THROW(wheel->timerStart(&nan, std::nan("")), Korvo::AssertException);
   EXPECT_FALSE(nan.running());
}

TEST_F(TimerWheelTest, WheelControlBehavesLikeATimerControl) {
   struct Handler : Korvo::Platform::TimeoutHandler {
      int fired = 0;
      void timeout() override { ++fired; }
   } handler;
   auto control = Korvo::Platform::getTimerControl(&handler, wheel);
   EXPECT_EQ(control->remainingTimeout(), TimerWheelEvent::infinity());
   control->setTimeout(10.0);
   EXPECT_GT(control->remainingTimeout(), 9.0);
   control->setTimeout(2.0);  // re-arming replaces
   EXPECT_LE(control->remainingTimeout(), 2.0);
   Korvo::Platform::doEventLoop(3.0);
   EXPECT_EQ(handler.fired, 1);
   control->setTimeout(1.0);
   control->delTimeout();
   control->delTimeout();
   Korvo::Platform::doEventLoop(2.0);
   EXPECT_EQ(handler.fired, 1);
   control->setTimeout(1.0);
   control.reset();  // destroying a running control stops its timer
   Korvo::Platform::doEventLoop(2.0);
   EXPECT_EQ(handler.fired, 1);
}

TEST(TimerWheelDeathTest, DestroyingARunningEventAborts) {
   GTEST_FLAG_SET(death_test_style, "threadsafe");
   EXPECT_DEATH(
       {
          auto wheel = Korvo::getTimerWheel();
          struct Bare : TimerWheelEvent {
             void timeout() override {}
          };
          auto* bare = new Bare();
          wheel->timerStart(bare, 1.0);
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
   for (size_t i = 0; i < events.size(); ++i) {
      events[i].onTimeout = [&fired, i] { fired.push_back(i); };
      wheel->timerStart(&events[i], delay(rng));
      if (i % 5 == 0)
         wheel->timerStart(&events[i], delay(rng));  // moved
      if (i % 7 == 0)
         wheel->timerStop(&events[i]);  // cancelled
   }
   for (size_t i = 0; i < events.size(); ++i) {
      if (events[i].running())
         expected.emplace_back(events[i].expirationTime(), i);
   }
   std::stable_sort(expected.begin(), expected.end());
   Korvo::Platform::doEventLoop(61.0);
   ASSERT_EQ(fired.size(), expected.size());
   for (size_t k = 0; k < fired.size(); ++k) {
      EXPECT_EQ(events[fired[k]].firedAt.size(), 1u);
      EXPECT_EQ(fired[k], expected[k].second) << k;
      EXPECT_GE(events[fired[k]].firedAt[0], expected[k].first);
   }
   EXPECT_EQ(wheel->masterExpiry(), TimerWheelEvent::infinity());
}

// Real time passed since the last jump of the virtual clock, as far as the handlers
// can tell: the library clock includes real time, so a slow machine may make a
// timer late by that much, and only by that much.
class Lateness {
public:
   Lateness() : offset_(Korvo::leVirtualTimeOffset()), beforeJump_(real()), last_(beforeJump_) {}
   // How late a timer firing now is, less the real time since the jump.
   double excess(double late) {
      const double now = real();
      if (Korvo::leVirtualTimeOffset() != offset_) {
         offset_ = Korvo::leVirtualTimeOffset();
         beforeJump_ = last_;
      }
      last_ = now;
      return late - (now - beforeJump_);
   }

private:
   static double real() { return Korvo::time() - Korvo::leVirtualTimeOffset(); }
   double offset_;
   double beforeJump_;
   double last_;
};

TEST_F(TimerWheelTest, SoakFiresWithinOneTickAndNeverEarly) {
   // Timers restart themselves and each other from their handlers, the past
   // included, while others wait in the expiring-soon map: the master timer must
   // follow whichever is due first. Few timers, so that waiting for the wrong one
   // shows as lateness.
   std::mt19937 rng(11);
   std::uniform_real_distribution<double> delay(-0.005, 0.03);
   std::vector<Event> events(10);
   std::vector<double> expiries(events.size());
   const auto start = [&](size_t i, double d) {
      wheel->timerStart(&events[i], d);
      // A start in the past is due at once, not late.
      expiries[i] = std::max(events[i].expirationTime(), Korvo::time());
   };
   Lateness lateness;
   size_t fired = 0;
   for (size_t i = 0; i < events.size(); ++i) {
      Event& event = events[i];
      event.onTimeout = [&, i] {
         ++fired;
         const double late = event.firedAt.back() - expiries[i];
         EXPECT_GE(late, 0.0) << i;
         EXPECT_LE(lateness.excess(late), 0.01) << i;
         if (event.firedAt.size() < 1000)
            start(i, delay(rng));
         Event& peer = events[rng() % events.size()];
         if (&peer != &event && peer.running() && rng() % 4 == 0)
            start(static_cast<size_t>(&peer - events.data()), delay(rng));
      };
   }
   for (size_t i = 0; i < events.size(); ++i)
      start(i, delay(rng) * 30);
   Korvo::Platform::doEventLoop(20.0);
   EXPECT_EQ(fired, 1000 * events.size());
   for (const Event& event : events)
      EXPECT_FALSE(event.running());
}

}  // namespace
