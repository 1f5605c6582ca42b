// The libevent back-end: the thread's base, fork, diagnostics, the loop runners and the
// two timeout operations we add to libevent.
#include "LibeventFactory.h"

#include <Korvo/Thread.h>

#include "PlatformTestSupport.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
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

struct Timer : Korvo::Platform::TimeoutHandler {
   void timeout() override {
      ++fired;
      if (onTimeout)
         onTimeout();
   }
   std::shared_ptr<Korvo::Platform::TimerControl> control = Korvo::Platform::getTimerControl(this);
   std::function<void()> onTimeout;
   int fired = 0;
};

struct Reader : Korvo::Platform::FdEventHandler {
   void readFdEvent(int fd) override {
      char c;
      if (::read(fd, &c, 1) == 1)
         got += c;
      if (got.size() >= expected)
         control->delFd();
   }
   void writeFdEvent(int) override {}
   std::shared_ptr<Korvo::LibeventFdControl> control = Korvo::getLeFdControl(this);
   std::string got;
   size_t expected = 1;
};

int addedEvents(event_base* base = Korvo::leBase()) {
   return event_base_get_num_events(base, EVENT_BASE_COUNT_ADDED);
}

TEST(LibeventTest, EachThreadHasItsOwnBaseForAsLongAsItsControlsNeedIt) {
   Korvo::leInit();
   event_base* mine = Korvo::leBase();
   std::weak_ptr<event_base> used;
   std::shared_ptr<Korvo::Platform::TimerControl> kept;
   Timer handler;
   std::thread([&] {
      EXPECT_EQ(Korvo::leBase(), nullptr);
      kept = Korvo::Platform::getTimerControl(&handler);  // the first control makes the base
      EXPECT_NE(Korvo::leBase(), mine);
      used = Korvo::leBaseShare();
      kept->setTimeout(60.0);
      Korvo::leFree();
      EXPECT_FALSE(Korvo::leInitialized());
      Korvo::leFree();                    // none: harmless
      Korvo::Platform::doEventLoop(0.0);  // a loop call makes a new one
      EXPECT_TRUE(Korvo::leInitialized());
      Korvo::leFree();
      Korvo::leForkReinit();  // without a base, makes one
      EXPECT_TRUE(Korvo::leInitialized());
   }).join();
   EXPECT_EQ(Korvo::leBase(), mine);
   EXPECT_FALSE(used.expired());  // a control outlives its thread and still needs it
   kept.reset();
   EXPECT_TRUE(used.expired());

   std::thread([] {
      event_base* base = event_base_new();
      Korvo::leRegisterBase(base);
      Korvo::leRegisterBase(base);  // the same again: harmless
      event_base* other = event_base_new();
      EXPECT_THAT(assertionText([other] { Korvo::leRegisterBase(other); }),
                  HasSubstr("Tried to register a base:" + Korvo::DisplayPointer(other).toString() +
                            " but a thread_local  base already exists: " +
                            Korvo::DisplayPointer(base).toString()));
      event_base_free(other);
      EXPECT_EQ(Korvo::leBase(), base);
      Timer timer;
      timer.control->setTimeout(60.0);
      EXPECT_EQ(addedEvents(base), 1);
      timer.control.reset();
      EXPECT_EQ(addedEvents(base), 0);
      Korvo::leFree();  // frees the adopted base
   }).join();
}

TEST(LibeventTest, ForkedChildReinitialisesAndRunsItsOwnLoop) {
   Pipe shared;
   Reader reader;  // registered before the fork: the child inherits the watch
   reader.control->setFd(shared.readFd());
   ASSERT_FALSE(Korvo::Platform::isForkedChild());
   const pid_t pid = ::fork();
   if (pid == 0) {
      Korvo::leForkReinit();
      Timer timer;
      timer.control->setTimeout(0.001);
      reader.expected = 2;
      shared.put("cd");
      Korvo::Platform::doEventLoop();
      ::_exit(Korvo::Platform::isForkedChild() && reader.got == "cd" && timer.fired == 1 ? 0 : 1);
   }
   int status = 0;
   ASSERT_EQ(::waitpid(pid, &status, 0), pid);
   EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
   // The parent's watch survived the child's own use of the inherited event.
   shared.put("p");
   Korvo::Platform::doEventLoop();
   EXPECT_EQ(reader.got, "p");
}

TEST(LibeventTest, DiagnosticsPickTheTraceLevelBySeverity) {
   Korvo::leInit();  // installs the callbacks
   event unassigned{};
   KorvoTest::TraceCapture traces("0123456789");
   Korvo::le_debug_cb(EVENT_LOG_DEBUG, "d");
   Korvo::le_debug_cb(EVENT_LOG_MSG, "m");
   Korvo::le_debug_cb(EVENT_LOG_WARN, "w");
   Korvo::le_debug_cb(EVENT_LOG_ERR, "e");
   Korvo::le_debug_cb(EVENT_LOG_WARN, nullptr);
   EXPECT_EQ(event_add(&unassigned, nullptr), -1);  // libevent's own warning
   EXPECT_EQ(traces.text(),
             "9 libevent: d\n5 libevent: m\n1 libevent: w\n0 libevent: e\n1 libevent: \n"
             "1 libevent: event_add: event has no event_base set.\n");
   EXPECT_THAT(assertionText([] { Korvo::le_debug_cb(7, "boom"); }),
               HasSubstr("invalid libevent severity:7 msg:boom"));
   EXPECT_THAT(assertionText([] { Korvo::le_fatal_cb(3); }), HasSubstr("libevent fatal error:3"));
}

TEST(LibeventTest, LoopRunners) {
   Korvo::leInit();
   const double start = Korvo::time();
   Korvo::eventLoopTimeout(0.02);
   EXPECT_GE(Korvo::time() - start, 0.02);
   EXPECT_EQ(addedEvents(), 0);  // the break event is gone

   // A jump inside a span of real time neither ends it early nor is the span's end a timer.
   Timer jumper, after;
   int firstTimeouts = -2;
   jumper.onTimeout = [&] {
      timeval first;
      firstTimeouts = Korvo::event_base_get_first_timeout(Korvo::leBase(), &first);
      KorvoTest::FastForwardOn on;
      Korvo::Platform::fastForwardBy(100.0);
      after.control->setTimeout(0.001);
   };
   jumper.control->setTimeout(0.0);
   Korvo::eventLoopTimeout(0.5);
   EXPECT_EQ(firstTimeouts, -1);
   EXPECT_EQ(after.fired, 1);

   jumper.onTimeout = [] { throw std::runtime_error("timer"); };
   jumper.control->setTimeout(0.0);
   EXPECT_THROW(Korvo::Platform::doEventLoop(3600.0), std::runtime_error);
   EXPECT_EQ(addedEvents(), 0);  // also when a handler throws

   // Neither a loop nor freeing the base from inside the loop.
   const std::pair<std::function<void()>, const char*> refused[] = {
       {[] { Korvo::Platform::doEventLoop(); }, "doEventLoop called from inside the running"},
       {[] { Korvo::leFree(); }, "leFree called from inside the running event loop"}};
   for (const auto& [call, text] : refused) {
      jumper.onTimeout = call;
      jumper.control->setTimeout(0.0);
      EXPECT_THAT(assertionText([] { Korvo::Platform::doEventLoop(); }), HasSubstr(text));
   }
   jumper.onTimeout = nullptr;
   jumper.control->setTimeout(0.0);
   Korvo::Platform::doEventLoop();
   EXPECT_EQ(jumper.fired, 5);
}

// ---- Timeout operations over libevent's public interface, on a base of others.

struct Fired {
   std::vector<int>* order;
   int id;
};

class ForeignBaseTest : public testing::Test {
public:
   // libevent's defaults (coarse clock, cached time); not registered with us. A persistent
   // timeout is never moved: expiries read against it are comparable over time.
   ForeignBaseTest() : base_(event_base_new()), reference_(add(-1, 36000000000LL, EV_PERSIST)) {}
   ~ForeignBaseTest() override {
      for (event* ev : events_)
         event_free(ev);
      event_base_free(base_);
   }
   event* add(int id, int64_t afterMicros, short what = 0, int fd = -1) {
      fired_.push_back(Fired{&order_, id});
      events_.push_back(event_new(
          base_, fd, what,
          [](evutil_socket_t, short, void* arg) {
             static_cast<Fired*>(arg)->order->push_back(static_cast<Fired*>(arg)->id);
          },
          &fired_.back()));
      const timeval after = Korvo::timevalFromMicros(afterMicros);
      event_add(events_.back(), &after);
      return events_.back();
   }
   static int64_t expiry(const event* ev) {
      timeval tv;
      EXPECT_TRUE(event_pending(ev, EV_TIMEOUT, &tv));
      return Korvo::microsFromTimeval(tv);
   }
   int64_t relative(const event* ev) { return expiry(ev) - expiry(reference_); }
   int64_t first() {
      timeval tv;
      return Korvo::event_base_get_first_timeout(base_, &tv) ? -1 : Korvo::microsFromTimeval(tv);
   }
   int shift(int64_t micros) {
      const timeval tv = Korvo::timevalFromMicros(micros);
      return Korvo::event_base_timeout_subtract_offset(base_, &tv);
   }

   event_base* base_;
   std::vector<event*> events_;
   std::vector<int> order_;
   std::deque<Fired> fired_;
   event* reference_;
};

TEST_F(ForeignBaseTest, FirstTimeoutAndShiftsOfAllButPersistentTimeouts) {
   Pipe pipe;
   add(0, 0, EV_READ | EV_PERSIST, pipe.readFd());  // no timeout: not counted
   EXPECT_EQ(first(), -1);
   event* e20 = add(20, 20000000);
   event* e5 = add(5, 5000000, EV_READ, pipe.readFd());  // an fd event with a timeout
   event* periodic = add(10, 10000000, EV_PERSIST);
   EXPECT_EQ(first(), expiry(e5));
   timeval now;
   Korvo::event_base_now(base_, &now);
   EXPECT_NEAR(static_cast<double>(first() - Korvo::microsFromTimeval(now)), 5e6, 20000.0);

   const int64_t before[] = {relative(e5), relative(e20), relative(periodic)};
   EXPECT_EQ(shift(-1), -1);
   EXPECT_EQ(shift(0), 0);
   EXPECT_EQ(shift(4000000), 2);
   EXPECT_EQ(relative(e5) - before[0], -4000000);
   EXPECT_EQ(relative(e20) - before[1], -4000000);
   EXPECT_EQ(relative(periodic), before[2]);  // its period is kept: not moved
   event_del(e5);
   EXPECT_EQ(first(), expiry(e20));
   // Far enough that all are overdue: one pass runs them in their original order.
   add(15, 15000000);
   event_del(events_[1]);
   shift(3600000000LL);
   event_base_loop(base_, EVLOOP_ONCE | EVLOOP_NONBLOCK);
   EXPECT_EQ(order_, (std::vector<int>{15, 20}));
}

TEST_F(ForeignBaseTest, ManySmallShiftsAddUpExactly) {
   // Each shift re-adds every event while libevent's clock moves on, in whole steps: no slip
   // may pile up.
   std::vector<event*> timers;
   std::vector<int64_t> before;
   for (int i = 0; i < 1000; ++i) {
      timers.push_back(add(i, 3600000000LL + 1000LL * i));
      before.push_back(relative(timers.back()));
   }
   for (int k = 0; k < 300; ++k)
      ASSERT_EQ(shift(1), 1000);
   for (size_t i = 0; i < timers.size(); ++i) {
      // With libevent's precise clock (EVENT_PRECISE_TIMER) a re-add may, rarely, land a
      // microsecond late; never early.
      EXPECT_LE(relative(timers[i]) - before[i], -297) << i;
      EXPECT_GE(relative(timers[i]) - before[i], -300) << i;
   }
}

TEST_F(ForeignBaseTest, ExpiredButNotRunTimeoutsStayFirst) {
   // Inside a pass: the first callback shifts while the second is already due.
   event* due = add(2, 0);
   add(3, 60000000);
   events_.push_back(event_new(
       base_, -1, 0,
       [](evutil_socket_t, short, void* arg) {
          auto* self = static_cast<ForeignBaseTest*>(arg);
          self->order_.push_back(1);
          self->shift(61000000);
       },
       this));
   const timeval zero{0, 0};
   event_del(due);
   event_add(events_.back(), &zero);
   event_add(due, &zero);
   ::usleep(static_cast<useconds_t>((KorvoTest::clockStep() + 0.001) * 1e6));  // both due
   for (int pass = 0; pass < 3 && order_.size() < 3; ++pass)
      event_base_loop(base_, EVLOOP_ONCE | EVLOOP_NONBLOCK);
   ASSERT_EQ(order_.size(), 3u);
   EXPECT_EQ(order_[0] + order_[1], 3);  // the two that were due, in either order
   EXPECT_EQ(order_[2], 3);              // the moved one after them
}

}  // namespace
