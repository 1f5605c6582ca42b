// The libevent back-end: the thread's base, fork, diagnostics, the loop runners and the
// two timeout operations we add to libevent.
#include "LibeventFactory.h"

#include <Korvo/Thread.h>

#include "PlatformTestSupport.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <algorithm>
#include <stdexcept>
#include <thread>

using namespace Korvo::Platform;
using KorvoTest::assertionText;
using KorvoTest::Handler;
using testing::HasSubstr;

namespace {

int added(event_base* base = Korvo::leBase()) {
   return event_base_get_num_events(base, EVENT_BASE_COUNT_ADDED);
}

TEST(LibeventTest, EachThreadHasItsOwnBaseForAsLongAsItsControlsNeedIt) {
   Korvo::leInit();
   event_base* mine = Korvo::leBase();
   std::weak_ptr<event_base> used;
   std::shared_ptr<TimerControl> kept;
   Handler h;
   std::thread([&] {
      EXPECT_EQ(Korvo::leBase(), nullptr);
      kept = getTimerControl(&h);  // the first control makes the base
      EXPECT_NE(Korvo::leBase(), mine);
      used = Korvo::leBaseShare();
      Korvo::leFree();
      Korvo::leFree();        // none: harmless
      Korvo::leForkReinit();  // without a base, makes one
      EXPECT_TRUE(Korvo::leInitialized());
   }).join();
   EXPECT_FALSE(used.expired());  // a control outlives its thread and still needs it
   kept.reset();
   EXPECT_TRUE(used.expired());

   std::thread([] {
      event_base *base = event_base_new(), *other = event_base_new();
      Korvo::leRegisterBase(base);
      Korvo::leRegisterBase(base);  // the same again: harmless
      EXPECT_THAT(assertionText([other] { Korvo::leRegisterBase(other); }),
                  HasSubstr("Tried to register a base:" + Korvo::DisplayPointer(other).toString() +
                            " but a thread_local  base already exists: " +
                            Korvo::DisplayPointer(base).toString()));
      event_base_free(other);
      Handler timer;
      getTimerControl(&timer)->setTimeout(60.0);  // withdrawn with its control
      EXPECT_EQ(added(base), 0);
      Korvo::leFree();  // frees the adopted base
   }).join();
}

TEST(LibeventTest, ForkedChildReinitialisesAndRunsItsOwnLoop) {
   KorvoTest::Pipe pipe;
   Handler h;  // watched before the fork: the child inherits the watch
   struct Reader : FdEventHandler {
      void readFdEvent(int fd) override {
         char c;
         got += ::read(fd, &c, 1) == 1 ? std::string(1, c) : "";
         control->delFd();
      }
      void writeFdEvent(int) override {}
      std::shared_ptr<Korvo::LibeventFdControl> control = Korvo::getLeFdControl(this);
      std::string got;
   } reader;
   reader.control->setFd(pipe.readFd());
   const pid_t pid = ::fork();
   if (pid == 0) {
      Korvo::leForkReinit();
      auto callback = getCallbackControl(&h);
      callback->requestCallback();
      pipe.put("c");
      doEventLoop();
      ::_exit(isForkedChild() && reader.got == "c" && h.calls() == 1 ? 0 : 1);
   }
   int status = 0;
   ASSERT_EQ(::waitpid(pid, &status, 0), pid);
   EXPECT_EQ(status, 0);
   EXPECT_FALSE(isForkedChild());
   pipe.put("p");  // the parent's watch survived the child's use of the inherited event
   doEventLoop();
   EXPECT_EQ(reader.got, "p");
}

TEST(LibeventTest, DiagnosticsPickTheTraceLevelBySeverity) {
   Korvo::leInit();  // installs the callbacks
   event unassigned{};
   KorvoTest::TraceCapture traces("0123456789");
   for (const int severity : {EVENT_LOG_DEBUG, EVENT_LOG_MSG, EVENT_LOG_WARN, EVENT_LOG_ERR})
      Korvo::le_debug_cb(severity, "s");
   Korvo::le_debug_cb(EVENT_LOG_WARN, nullptr);
   EXPECT_EQ(event_add(&unassigned, nullptr), -1);  // libevent's own warning
   EXPECT_EQ(traces.text(),
             "9 libevent: s\n5 libevent: s\n1 libevent: s\n0 libevent: s\n1 libevent: \n"
             "1 libevent: event_add: event has no event_base set.\n");
   EXPECT_THAT(assertionText([] { Korvo::le_debug_cb(7, "boom"); }),
               HasSubstr("invalid libevent severity:7 msg:boom"));
   EXPECT_THAT(assertionText([] { Korvo::le_fatal_cb(3); }), HasSubstr("libevent fatal error:3"));
}

TEST(LibeventTest, LoopRunners) {
   Handler h, after;
   auto timer = getTimerControl(&h), afterTimer = getTimerControl(&after);
   // A jump inside a span of real time neither ends it early nor is the span's end a timer.
   int firstTimeouts = -2;
   h.then = [&] {
      timeval first;
      firstTimeouts = Korvo::event_base_get_first_timeout(Korvo::leBase(), &first);
      KorvoTest::FastForwardOn on;
      fastForwardBy(100.0);
      afterTimer->setTimeout(0.001);
   };
   timer->setTimeout(0.0);
   const double start = Korvo::time();
   Korvo::eventLoopTimeout(0.5);
   EXPECT_GE(Korvo::time() - start, 100.5 - KorvoTest::clockStep());
   EXPECT_EQ(firstTimeouts, -1);
   EXPECT_EQ(after.calls(), 1);
   EXPECT_EQ(added(), 0);  // the break event is gone

   h.then = [] { throw std::runtime_error("timer"); };
   timer->setTimeout(0.0);
   EXPECT_THROW(doEventLoop(3600.0), std::runtime_error);
   EXPECT_EQ(added(), 0);  // also when a handler throws
   // Neither a loop nor freeing the base from inside the loop.
   const std::pair<std::function<void()>, const char*> refused[] = {
       {[] { doEventLoop(); }, "doEventLoop called from inside the running event loop"},
       {[] { Korvo::leFree(); }, "leFree called from inside the running event loop"}};
   for (const auto& [call, text] : refused) {
      h.then = call;
      timer->setTimeout(0.0);
      EXPECT_THAT(assertionText([] { doEventLoop(); }), HasSubstr(text));
   }
}

// ---- Timeout operations over libevent's public interface, on a base of others (libevent's
// defaults: coarse clock, cached time; not registered with us).

int64_t expiry(const event* ev) {
   timeval tv;
   EXPECT_TRUE(event_pending(ev, EV_TIMEOUT, &tv));
   return Korvo::microsFromTimeval(tv);
}

TEST(LibeventTest, FirstTimeoutAndShiftsMoveAllButPersistentTimeouts) {
   event_base* base = event_base_new();
   std::vector<int> order;
   std::vector<std::pair<std::vector<int>*, int>> ids;
   ids.reserve(2000);
   std::vector<event*> events;
   const auto add = [&](int id, int64_t micros, short what = 0) {
      ids.emplace_back(&order, id);
      events.push_back(event_new(
          base, -1, what,
          [](evutil_socket_t, short, void* arg) {
             auto* id = static_cast<std::pair<std::vector<int>*, int>*>(arg);
             id->first->push_back(id->second);
          },
          &ids.back()));
      const timeval after = Korvo::timevalFromMicros(micros);
      event_add(events.back(), &after);
      return events.back();
   };
   const auto shift = [base](int64_t micros) {
      const timeval tv = Korvo::timevalFromMicros(micros);
      return Korvo::event_base_timeout_subtract_offset(base, &tv);
   };
   timeval first;
   // A persistent timeout is never moved: expiries read against it are comparable over time.
   event* reference = add(-1, 36000000000LL, EV_PERSIST);
   EXPECT_EQ(Korvo::event_base_get_first_timeout(base, &first), -1);
   add(20, 20000000);
   event* e5 = add(5, 5000000);
   ASSERT_EQ(Korvo::event_base_get_first_timeout(base, &first), 0);
   EXPECT_EQ(Korvo::microsFromTimeval(first), expiry(e5));
   Korvo::event_base_now(base, &first);
   EXPECT_NEAR(double(expiry(e5) - Korvo::microsFromTimeval(first)), 5e6, 20000.0);
   EXPECT_EQ(shift(-1), -1);
   EXPECT_EQ(shift(0), 0);

   // Each shift re-adds every event while libevent's clock moves on, in whole steps: no slip
   // may pile up. With libevent's precise clock (EVENT_PRECISE_TIMER) a re-add may, rarely,
   // land a microsecond late; never early.
   for (int i = 0; i < 1000; ++i)
      add(i, 3600000000LL + 1000LL * i);
   std::vector<int64_t> before;
   for (event* ev : events)
      before.push_back(expiry(ev) - expiry(reference));
   for (int k = 0; k < 300; ++k)
      ASSERT_EQ(shift(1), 1002);
   for (size_t i = 1; i < events.size(); ++i) {
      EXPECT_LE(expiry(events[i]) - expiry(reference) - before[i], -297) << i;
      EXPECT_GE(expiry(events[i]) - expiry(reference) - before[i], -300) << i;
   }
   // Far enough that all are overdue: one pass runs them in their original order.
   shift(7200000000LL);
   event_base_loop(base, EVLOOP_ONCE | EVLOOP_NONBLOCK);
   ASSERT_EQ(order.size(), 1002u);
   EXPECT_EQ(std::vector<int>(order.begin(), order.begin() + 3), (std::vector<int>{5, 20, 0}));
   EXPECT_TRUE(std::is_sorted(order.begin() + 2, order.end()));
   EXPECT_EQ(Korvo::event_base_get_first_timeout(base, &first), -1);
   for (event* ev : events)
      event_free(ev);
   event_base_free(base);
}

}  // namespace
