// The libevent back-end: the thread's base, fork, diagnostics, the loop runners and the
// two timeout operations we add to libevent.
#include "LibeventFactory.h"

#include "PlatformTestSupport.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <thread>

using namespace Korvo::Platform;
using KorvoTest::assertionText;
using KorvoTest::Handler;
using testing::HasSubstr;

namespace {

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
      EXPECT_EQ(event_base_get_num_events(base, EVENT_BASE_COUNT_ADDED), 0);
      Korvo::leFree();  // frees the adopted base
   }).join();
}

TEST(LibeventTest, DiagnosticsPickTheTraceLevelBySeverity) {
   Korvo::leInit();  // installs the callbacks
   event unassigned{};
   const auto log = [&unassigned] {
      for (const int severity : {EVENT_LOG_DEBUG, EVENT_LOG_MSG, EVENT_LOG_WARN, EVENT_LOG_ERR})
         Korvo::le_debug_cb(severity, "s");
      Korvo::le_debug_cb(EVENT_LOG_WARN, nullptr);
      event_add(&unassigned, nullptr);  // libevent's own warning
   };
   EXPECT_EQ(KorvoTest::traced("0123456789", log),
             "9 libevent: s\n5 libevent: s\n1 libevent: s\n0 libevent: s\n1 libevent: \n"
             "1 libevent: event_add: event has no event_base set.\n");
   EXPECT_THAT(assertionText([] { Korvo::le_debug_cb(7, "boom"); }),
               HasSubstr("invalid libevent severity:7 msg:boom"));
   EXPECT_THAT(assertionText([] { Korvo::le_fatal_cb(3); }), HasSubstr("libevent fatal error:3"));
}

TEST(LibeventTest, LoopsRefuseToNest) {
   Handler h;
   auto timer = getTimerControl(&h);
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

std::vector<intptr_t> order;

TEST(LibeventTest, FirstTimeoutAndShiftsMoveAllButPersistentTimeouts) {
   event_base* base = event_base_new();
   std::vector<event*> events;
   const auto add = [&](intptr_t id, int64_t micros, short what = 0) {
      events.push_back(event_new(
          base, -1, what, [](evutil_socket_t, short, void* id) { order.push_back(intptr_t(id)); },
          reinterpret_cast<void*>(id)));
      const timeval after = Korvo::timevalFromMicros(micros);
      event_add(events.back(), &after);
      return events.back();
   };
   const auto expiry = [](const event* ev) {
      timeval tv;
      EXPECT_TRUE(event_pending(ev, EV_TIMEOUT, &tv));
      return Korvo::microsFromTimeval(tv);
   };
   const auto shift = [base](int64_t micros) {
      const timeval tv = Korvo::timevalFromMicros(micros);
      return Korvo::event_base_timeout_subtract_offset(base, &tv);
   };
   timeval first;
   // A persistent timeout is never moved: expiries read against it are comparable over time.
   event* reference = add(-1, 36000000000LL, EV_PERSIST);  // not a first timeout either
   add(20, 20000000);
   event* e5 = add(5, 5000000);
   ASSERT_EQ(Korvo::event_base_get_first_timeout(base, &first), 0);
   EXPECT_EQ(Korvo::microsFromTimeval(first), expiry(e5));
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
      const int64_t moved = expiry(events[i]) - expiry(reference) - before[i];
      EXPECT_TRUE(moved >= -300 && moved <= -297) << i << " moved " << moved;
   }
   // Far enough that all are overdue: one pass runs them in their original order.
   shift(7200000000LL);
   event_base_loop(base, EVLOOP_ONCE | EVLOOP_NONBLOCK);
   ASSERT_EQ(order.size(), 1002u);
   EXPECT_EQ(std::vector<intptr_t>(order.begin(), order.begin() + 3),
             (std::vector<intptr_t>{5, 20, 0}));
   EXPECT_TRUE(std::is_sorted(order.begin() + 2, order.end()));
   EXPECT_EQ(Korvo::event_base_get_first_timeout(base, &first), -1);
   for (event* ev : events)
      event_free(ev);
   event_base_free(base);
}

}  // namespace
