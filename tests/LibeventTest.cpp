// The libevent back-end: the thread's base, fork, diagnostics, the loop runners and the
// two timeout operations we add to libevent.
#include "LibeventFactory.h"

#include <Korvo/Thread.h>

#include "PlatformTestSupport.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

using KorvoTest::assertionText;
using KorvoTest::Pipe;
using testing::HasSubstr;

namespace {

class Timer : public Korvo::Platform::TimeoutHandler {
public:
   Timer() : control(Korvo::Platform::getTimerControl(this)) {}
   void timeout() override {
      ++fired;
      if (onTimeout) {
         onTimeout();
      }
      if (throws) {
         throw std::runtime_error("timer");
      }
   }
   std::shared_ptr<Korvo::Platform::TimerControl> control;
   std::function<void()> onTimeout;
   int fired = 0;
   bool throws = false;
};

class Callback : public Korvo::Platform::CallbackHandler {
public:
   Callback() : control(Korvo::Platform::getCallbackControl(this)) {}
   void callback() override {
      ++calls;
      if (onCallback) {
         onCallback();
      }
   }
   std::shared_ptr<Korvo::Platform::CallbackControl> control;
   std::function<void()> onCallback;
   int calls = 0;
};

class Reader : public Korvo::Platform::FdEventHandler {
public:
   Reader() : control(Korvo::getLeFdControl(this)) {}
   void readFdEvent(int fd) override {
      char c;
      if (::read(fd, &c, 1) == 1) {
         got += c;
      }
      if (got.size() >= expected) {
         control->delFd();
      }
   }
   void writeFdEvent(int) override {}
   std::shared_ptr<Korvo::LibeventFdControl> control;
   std::string got;
   size_t expected = 1;
};

int addedEvents() {
   return event_base_get_num_events(Korvo::leBase(), EVENT_BASE_COUNT_ADDED);
}

template <typename Body>
void onNewThread(Body body) {
   std::thread thread(body);
   thread.join();
}

// ---- The thread's base.

TEST(LibeventBaseTest, EachThreadMakesItsBaseLazilyAndFreesItOnRequest) {
   Korvo::leInit();
   event_base* mine = Korvo::leBase();
   onNewThread([mine] {
      EXPECT_FALSE(Korvo::leInitialized());
      EXPECT_EQ(Korvo::leBase(), nullptr);
      {
         Timer timer;  // the first control makes the base
         EXPECT_TRUE(Korvo::leInitialized());
         EXPECT_NE(Korvo::leBase(), mine);
      }
      Korvo::leFree();
      EXPECT_FALSE(Korvo::leInitialized());
      Korvo::leFree();  // none: harmless
      // A loop call makes a new one.
      Korvo::Platform::doEventLoop(0.0);
      EXPECT_TRUE(Korvo::leInitialized());
      Korvo::leFree();
   });
   EXPECT_EQ(Korvo::leBase(), mine);
}

TEST(LibeventBaseTest, ThreadsBaseIsFreedWhenTheThreadEndsAndNoControlNeedsIt) {
   std::weak_ptr<event_base> idle;
   std::weak_ptr<event_base> used;
   std::shared_ptr<Korvo::Platform::TimerControl> kept;
   Timer handler;  // made here, so that its own control belongs to this thread
   onNewThread([&idle] { idle = Korvo::leBaseShare(); });
   EXPECT_TRUE(idle.expired());
   onNewThread([&used, &kept, &handler] {
      used = Korvo::leBaseShare();
      kept = Korvo::Platform::getTimerControl(&handler);
      kept->setTimeout(60.0);
   });
   EXPECT_FALSE(used.expired());  // a control outlives its thread and still needs it
   kept.reset();
   EXPECT_TRUE(used.expired());
}

TEST(LibeventBaseTest, RegisteringABase) {
   onNewThread([] {
      event_base* base = event_base_new();
      Korvo::leRegisterBase(base);
      EXPECT_EQ(Korvo::leBase(), base);
      Korvo::leRegisterBase(base);  // the same again: harmless
      EXPECT_EQ(Korvo::leBase(), base);

      event_base* other = event_base_new();
      const std::string expected =
          "Tried to register a base:" + Korvo::DisplayPointer(other).toString() +
          " but a thread_local  base already exists: " + Korvo::DisplayPointer(base).toString();
      EXPECT_THAT(assertionText([other] { Korvo::leRegisterBase(other); }), HasSubstr(expected));
      EXPECT_EQ(Korvo::leBase(), base);
      event_base_free(other);

      {
         Timer timer;
         timer.control->setTimeout(60.0);
         EXPECT_EQ(event_base_get_num_events(base, EVENT_BASE_COUNT_ADDED), 1);
      }
      EXPECT_EQ(event_base_get_num_events(base, EVENT_BASE_COUNT_ADDED), 0);
      Korvo::leFree();  // frees the adopted base
      EXPECT_FALSE(Korvo::leInitialized());
   });
}

TEST(LibeventBaseTest, PreciseTimerSwitchMakesTimersExactByTheLibraryClock) {
   // libevent reads EVENT_PRECISE_TIMER whenever it makes a base: a new thread's base
   // then counts on the clock Korvo::time() reads, and no timer fires early by it.
   // (Without it, libevent's coarse clock lets some of these fire a step early.)
   ASSERT_EQ(::setenv("EVENT_PRECISE_TIMER", "1", 1), 0);
   onNewThread([] {
      std::vector<std::unique_ptr<Timer>> timers;
      std::vector<double> armedAt;
      for (int i = 0; i < 20; ++i) {
         timers.push_back(std::make_unique<Timer>());
         armedAt.push_back(Korvo::time());
         timers.back()->control->setTimeout(0.0005 * (i + 1));
      }
      std::vector<double> firedAt(timers.size());
      for (size_t i = 0; i < timers.size(); ++i) {
         timers[i]->onTimeout = [&firedAt, i] { firedAt[i] = Korvo::time(); };
      }
      Korvo::Platform::doEventLoop();
      for (size_t i = 0; i < timers.size(); ++i) {
         EXPECT_GE(firedAt[i] - armedAt[i], 0.0005 * static_cast<double>(i + 1)) << i;
      }
      timers.clear();
      Korvo::leFree();
   });
   ::unsetenv("EVENT_PRECISE_TIMER");
}

TEST(LibeventBaseTest, ForkReinitWithoutABaseMakesOne) {
   onNewThread([] {
      Korvo::leForkReinit();
      EXPECT_TRUE(Korvo::leInitialized());
      Korvo::leFree();
   });
}

TEST(LibeventForkTest, ChildReinitialisesAndRunsItsOwnLoop) {
   Pipe shared;
   Reader reader;  // registered before the fork: the child inherits the watch
   reader.control->setFd(shared.readFd());
   ASSERT_FALSE(Korvo::Platform::isForkedChild());

   const pid_t pid = ::fork();
   ASSERT_GE(pid, 0);
   if (pid == 0) {
      int status = 0;
      if (!Korvo::Platform::isForkedChild()) {
         status |= 1;
      }
      Korvo::leForkReinit();
      Callback callback;
      Timer timer;
      callback.control->requestCallback();
      timer.control->setTimeout(0.001);
      reader.expected = 2;
      shared.put("cd");
      Korvo::Platform::doEventLoop();
      status |=
          (reader.got == "cd" ? 0 : 2) | (callback.calls == 1 ? 0 : 4) | (timer.fired == 1 ? 0 : 8);
      // Withdrawing the watch in the child must not touch the parent's.
      ::_exit(status);
   }
   int status = 0;
   ASSERT_EQ(::waitpid(pid, &status, 0), pid);
   ASSERT_TRUE(WIFEXITED(status));
   EXPECT_EQ(WEXITSTATUS(status), 0);
   EXPECT_FALSE(Korvo::Platform::isForkedChild());

   // The parent's watch survived the child's own use of the inherited event.
   shared.put("p");
   Korvo::Platform::doEventLoop();
   EXPECT_EQ(reader.got, "p");
}

// ---- Diagnostics.

TEST(LibeventDiagnosticsTest, SeverityPicksTheTraceLevel) {
   std::string text;
   {
      KorvoTest::TraceCapture traces("0123456789");
      Korvo::le_debug_cb(EVENT_LOG_DEBUG, "d");
      Korvo::le_debug_cb(EVENT_LOG_MSG, "m");
      Korvo::le_debug_cb(EVENT_LOG_WARN, "w");
      Korvo::le_debug_cb(EVENT_LOG_ERR, "e");
      Korvo::le_debug_cb(EVENT_LOG_WARN, nullptr);
      text = traces.text();
   }
   EXPECT_EQ(text, "9 libevent: d\n5 libevent: m\n1 libevent: w\n0 libevent: e\n1 libevent: \n");

   {
      KorvoTest::TraceCapture traces("01");  // the defaults: debug and msg stay silent
      Korvo::le_debug_cb(EVENT_LOG_DEBUG, "d");
      Korvo::le_debug_cb(EVENT_LOG_MSG, "m");
      EXPECT_EQ(traces.text(), "");
   }

   EXPECT_THAT(assertionText([] { Korvo::le_debug_cb(7, "boom"); }),
               HasSubstr("invalid libevent severity:7 msg:boom"));
   EXPECT_THAT(assertionText([] { Korvo::le_fatal_cb(3); }), HasSubstr("libevent fatal error:3"));
}

TEST(LibeventDiagnosticsTest, LibeventWarningsReachTheTraceChannel) {
   Korvo::leInit();  // installs the callbacks
   event unassigned{};
   std::string text;
   {
      KorvoTest::TraceCapture traces("1");
      EXPECT_EQ(event_add(&unassigned, nullptr), -1);
      text = traces.text();
   }
   EXPECT_THAT(text, HasSubstr("1 libevent: event_add: event has no event_base set."));
}

// ---- Loop runners.

TEST(LibeventLoopTest, BoundedLoopRunsItsSpanAndRemovesItsBreakEvent) {
   Korvo::leInit();
   const double start = Korvo::time();
   Korvo::eventLoopTimeout(0.02);
   EXPECT_GE(Korvo::time() - start, 0.02);
   EXPECT_EQ(addedEvents(), 0);

   Timer timer;
   timer.throws = true;
   timer.control->setTimeout(0.0);
   EXPECT_THROW(Korvo::Platform::doEventLoop(3600.0), std::runtime_error);
   EXPECT_EQ(timer.fired, 1);
   EXPECT_EQ(addedEvents(), 0);  // the break event is gone too
}

TEST(LibeventLoopTest, BreakEventsAreNeitherTimersNorMovedByJumps) {
   Korvo::leInit();
   Timer jumper;
   Timer after;
   int firstTimeouts = -2;
   jumper.onTimeout = [&firstTimeouts, &after] {
      timeval first;
      firstTimeouts = Korvo::event_base_get_first_timeout(Korvo::leBase(), &first);
      Korvo::Platform::setFastForward(true);
      Korvo::Platform::fastForwardBy(100.0);
      Korvo::Platform::setFastForward(false);
      after.control->setTimeout(0.001);
   };
   jumper.control->setTimeout(0.0);
   // The span is real time: the jump inside it neither ends it early nor lengthens it.
   Korvo::eventLoopTimeout(0.5);
   EXPECT_EQ(firstTimeouts, -1);  // only the loop's own end was pending
   EXPECT_EQ(after.fired, 1);
}

TEST(LibeventLoopTest, LoopCallFromInsideAHandlerIsRefused) {
   Callback callback;
   callback.onCallback = [] { Korvo::Platform::doEventLoop(); };
   callback.control->requestCallback();
   EXPECT_THAT(assertionText([] { Korvo::Platform::doEventLoop(); }),
               HasSubstr("doEventLoop called from inside the running event loop"));
   EXPECT_EQ(callback.calls, 1);
   // Nor may the base be freed under the loop's feet.
   callback.onCallback = [] { Korvo::leFree(); };
   callback.control->requestCallback();
   EXPECT_THAT(assertionText([] { Korvo::Platform::doEventLoop(); }),
               HasSubstr("leFree called from inside the running event loop"));
   EXPECT_EQ(callback.calls, 2);
   // And the loop works afterwards.
   callback.onCallback = nullptr;
   callback.control->requestCallback();
   Korvo::Platform::doEventLoop();
   EXPECT_EQ(callback.calls, 3);
}

// ---- Timeout operations over libevent's public interface, on a base of others.

struct Fired {
   std::vector<int>* order;
   int id;
};

void recordFired(evutil_socket_t, short, void* arg) {
   auto* f = static_cast<Fired*>(arg);
   f->order->push_back(f->id);
}

int64_t micros(const timeval& tv) {
   return Korvo::microsFromTimeval(tv);
}

int64_t expiryOf(const event* ev) {
   timeval tv;
   EXPECT_TRUE(event_pending(ev, EV_TIMEOUT, &tv));
   return micros(tv);
}

class ForeignBaseTest : public testing::Test {
protected:
   // libevent's defaults: coarse clock, cached time. Not registered with us.
   ForeignBaseTest() : base_(event_base_new()) {
      // A persistent timeout is never moved: expiries read against it are comparable
      // over time, while libevent may re-map its clock to the wall clock in between.
      reference_ = addTimer(-1, 36000000000LL, EV_PERSIST);
   }
   ~ForeignBaseTest() override {
      for (event* ev : events_) {
         event_free(ev);
      }
      event_base_free(base_);
   }

   event* addTimer(int id, int64_t afterMicros, short what = 0, int fd = -1,
                   const timeval* common = nullptr) {
      fired_.push_back(Fired{&order_, id});
      event* ev = event_new(base_, fd, what, &recordFired, &fired_.back());
      events_.push_back(ev);
      const timeval after = Korvo::timevalFromMicros(afterMicros);
      event_add(ev, common ? common : &after);
      return ev;
   }
   int64_t relative(const event* ev) { return expiryOf(ev) - expiryOf(reference_); }

   event_base* base_;
   event* reference_;
   std::vector<event*> events_;
   std::vector<int> order_;
   std::deque<Fired> fired_;
};

TEST_F(ForeignBaseTest, FirstTimeoutIsTheEarliestPendingOne) {
   timeval first;
   EXPECT_EQ(Korvo::event_base_get_first_timeout(base_, &first), -1);  // persistent only

   Pipe pipe;
   addTimer(0, 0, EV_READ | EV_PERSIST, pipe.readFd());  // no timeout: not counted
   EXPECT_EQ(Korvo::event_base_get_first_timeout(base_, &first), -1);

   event* late = addTimer(1, 20000000);
   event* early = addTimer(2, 5000000, EV_READ, pipe.readFd());  // fd event with a timeout
   ASSERT_EQ(Korvo::event_base_get_first_timeout(base_, &first), 0);
   EXPECT_EQ(micros(first), expiryOf(early));

   timeval now;
   Korvo::event_base_now(base_, &now);
   ASSERT_EQ(Korvo::event_base_get_first_timeout(base_, &first), 0);
   EXPECT_NEAR(static_cast<double>(micros(first) - micros(now)), 5e6, 20000.0);

   event_del(early);
   ASSERT_EQ(Korvo::event_base_get_first_timeout(base_, &first), 0);
   EXPECT_EQ(micros(first), expiryOf(late));
}

TEST_F(ForeignBaseTest, ShiftMovesEveryTimeoutAndKeepsTheOrder) {
   const timeval fifteen{15, 0};
   const timeval* common = event_base_init_common_timeout(base_, &fifteen);
   Pipe pipe;
   event* e20 = addTimer(20, 20000000);
   event* e5 = addTimer(5, 5000000);
   event* e10 = addTimer(10, 10000000, EV_READ, pipe.readFd());
   event* e15 = addTimer(15, 0, 0, -1, common);
   const std::vector<event*> all{e5, e10, e15, e20};
   std::vector<int64_t> before;
   for (event* ev : all) {
      before.push_back(relative(ev));
   }

   const timeval four{4, 0};
   EXPECT_GE(Korvo::event_base_timeout_subtract_offset(base_, &four), 4);
   for (size_t i = 0; i < all.size(); ++i) {
      EXPECT_EQ(relative(all[i]) - before[i], -4000000) << i;
   }

   // Far enough that all are overdue: one pass runs them in their original order.
   const timeval hour{3600, 0};
   Korvo::event_base_timeout_subtract_offset(base_, &hour);
   event_base_loop(base_, EVLOOP_ONCE | EVLOOP_NONBLOCK);
   EXPECT_EQ(order_, (std::vector<int>{5, 10, 15, 20}));
   timeval first;
   EXPECT_EQ(Korvo::event_base_get_first_timeout(base_, &first), -1);
}

TEST_F(ForeignBaseTest, ManySmallShiftsAddUpExactly) {
   // Each shift re-adds every event; the clock moves on meanwhile (and libevent's coarse
   // clock in whole steps), yet no slip may pile up.
   std::vector<event*> timers;
   std::vector<int64_t> before;
   for (int i = 0; i < 1000; ++i) {
      timers.push_back(addTimer(i, 3600000000LL + 1000LL * i));
      before.push_back(relative(timers.back()));
   }
   const timeval micro{0, 1};
   for (int k = 0; k < 300; ++k) {
      ASSERT_EQ(Korvo::event_base_timeout_subtract_offset(base_, &micro), 1000);
   }
   for (size_t i = 0; i < timers.size(); ++i) {
      // With libevent's precise clock (EVENT_PRECISE_TIMER) a re-add may, rarely, land a
      // microsecond late; never early.
      const int64_t moved = relative(timers[i]) - before[i];
      EXPECT_LE(moved, -297) << i;
      EXPECT_GE(moved, -300) << i;
   }
}

TEST_F(ForeignBaseTest, ShiftRefusesNegativeAndSkipsPersistentTimeouts) {
   event* timer = addTimer(1, 10000000);
   event* periodic = addTimer(2, 10000000, EV_PERSIST);
   const int64_t timerBefore = relative(timer);
   const int64_t periodicBefore = relative(periodic);

   const timeval negative = Korvo::timevalFromMicros(-1);
   EXPECT_EQ(Korvo::event_base_timeout_subtract_offset(base_, &negative), -1);
   const timeval zero{0, 0};
   EXPECT_EQ(Korvo::event_base_timeout_subtract_offset(base_, &zero), 0);
   EXPECT_EQ(relative(timer), timerBefore);

   const timeval two{2, 0};
   EXPECT_EQ(Korvo::event_base_timeout_subtract_offset(base_, &two), 1);
   EXPECT_EQ(relative(timer), timerBefore - 2000000);
   EXPECT_EQ(relative(periodic), periodicBefore);  // its period is kept: not moved
   timeval first;
   ASSERT_EQ(Korvo::event_base_get_first_timeout(base_, &first), 0);
   EXPECT_EQ(micros(first), expiryOf(timer));
}

TEST_F(ForeignBaseTest, ExpiredButNotRunTimeoutsStayFirst) {
   // Inside a pass: the first callback shifts while the second is already due.
   struct Shifter {
      event_base* base;
      std::vector<int>* order;
   };
   event* due = addTimer(2, 0);
   event* later = addTimer(3, 60000000);
   Shifter shifter{base_, &order_};
   event* first = event_new(
       base_, -1, 0,
       [](evutil_socket_t, short, void* arg) {
          auto* s = static_cast<Shifter*>(arg);
          s->order->push_back(1);
          const timeval minute{61, 0};
          Korvo::event_base_timeout_subtract_offset(s->base, &minute);
       },
       &shifter);
   events_.push_back(first);
   const timeval zero{0, 0};
   event_del(due);
   event_add(first, &zero);
   event_add(due, &zero);
   ::usleep(static_cast<useconds_t>((KorvoTest::clockStep() + 0.001) * 1e6));  // both due
   for (int pass = 0; pass < 3 && order_.size() < 3; ++pass) {
      event_base_loop(base_, EVLOOP_ONCE | EVLOOP_NONBLOCK);
   }
   ASSERT_EQ(order_.size(), 3u);
   EXPECT_EQ(order_[0] + order_[1], 3);  // the two that were due, in either order
   EXPECT_EQ(order_[2], 3);              // the moved one after them
   (void)later;
}

}  // namespace
