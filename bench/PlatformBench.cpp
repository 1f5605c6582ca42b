// The libevent controls beside raw libevent doing the same work, and the cost of a
// virtual-time jump per pending timer.
//
// Our bases are libevent's defaults, and so is the baseline. For scale, the raw round
// trip also runs on a base with libevent's precise timer (EVENT_PRECISE_TIMER), which
// costs a timerfd system call on every pass of the loop.
#include "LibeventFactory.h"

#include <benchmark/benchmark.h>

#include <cstdint>
#include <memory>
#include <vector>

namespace {

constexpr int64_t batch = 1000;

event_base* makeRawBase(bool precise) {
   if (!precise) {
      return event_base_new();
   }
   event_config* config = event_config_new();
   event_config_set_flag(config, EVENT_BASE_FLAG_PRECISE_TIMER);
   event_base* base = event_base_new_with_config(config);
   event_config_free(config);
   return base;
}

const char* baseLabel(bool precise) {
   return precise ? "raw, precise timer" : "raw, libevent defaults";
}

// ---- Callback round trip: a request made from the callback itself, run by the loop.

struct RawRoundTrip {
   event* ev = nullptr;
   int64_t remaining = 0;
};

void rawRoundTrip(evutil_socket_t, short, void* arg) {
   auto* trip = static_cast<RawRoundTrip*>(arg);
   if (--trip->remaining > 0) {
      const timeval zero{0, 0};
      event_add(trip->ev, &zero);
   }
}

void BM_RawZeroTimeoutRoundTrip(benchmark::State& state) {
   const bool precise = state.range(0) != 0;
   event_base* base = makeRawBase(precise);
   RawRoundTrip trip;
   trip.ev = event_new(base, -1, 0, &rawRoundTrip, &trip);
   for (auto _ : state) {
      trip.remaining = batch;
      const timeval zero{0, 0};
      event_add(trip.ev, &zero);
      event_base_dispatch(base);
   }
   state.SetItemsProcessed(state.iterations() * batch);
   state.SetLabel(baseLabel(precise));
   event_free(trip.ev);
   event_base_free(base);
}
BENCHMARK(BM_RawZeroTimeoutRoundTrip)->Arg(0)->Arg(1);

class Pinger : public Korvo::Platform::CallbackHandler {
public:
   Pinger() : control(Korvo::Platform::getCallbackControl(this)) {}
   void callback() override {
      if (--remaining > 0) {
         control->requestCallback();
      }
   }
   std::shared_ptr<Korvo::Platform::CallbackControl> control;
   int64_t remaining = 0;
};

void BM_CallbackControlRoundTrip(benchmark::State& state) {
   Pinger pinger;
   for (auto _ : state) {
      pinger.remaining = batch;
      pinger.control->requestCallback();
      Korvo::Platform::doEventLoop();
   }
   state.SetItemsProcessed(state.iterations() * batch);
}
BENCHMARK(BM_CallbackControlRoundTrip);

// ---- Arming and cancelling a timer.

void ignore(evutil_socket_t, short, void*) {}

void BM_RawEventAddDel(benchmark::State& state) {
   event_base* base = makeRawBase(false);
   event* ev = event_new(base, -1, 0, &ignore, nullptr);
   const timeval second{1, 0};
   for (auto _ : state) {
      event_add(ev, &second);
      event_del(ev);
   }
   state.SetItemsProcessed(state.iterations());
   event_free(ev);
   event_base_free(base);
}
BENCHMARK(BM_RawEventAddDel);

class Idle : public Korvo::Platform::TimeoutHandler {
public:
   void timeout() override {}
};

void BM_TimerControlSetDel(benchmark::State& state) {
   Idle idle;
   std::shared_ptr<Korvo::Platform::TimerControl> control = Korvo::Platform::getTimerControl(&idle);
   for (auto _ : state) {
      control->setTimeout(1.0);
      control->delTimeout();
   }
   state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_TimerControlSetDel);

// ---- Virtual-time jumps over N pending timers.

struct PendingTimers {
   explicit PendingTimers(int64_t n) : handler(), controls() {
      controls.reserve(static_cast<size_t>(n));
      for (int64_t i = 0; i < n; ++i) {
         controls.push_back(Korvo::Platform::getTimerControl(&handler));
         // Spread over an hour, far beyond anything the jumps below reach.
         controls.back()->setTimeout(3600.0 + 3600.0 * static_cast<double>(i) / n);
      }
   }
   Idle handler;
   std::vector<std::shared_ptr<Korvo::Platform::TimerControl>> controls;
};

void perTimer(benchmark::State& state) {
   state.counters["per_timer"] = benchmark::Counter(
       static_cast<double>(state.range(0)),
       benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

// A jump moves every pending timeout: walk, sort, re-add.
void BM_FastForwardJump(benchmark::State& state) {
   PendingTimers timers(state.range(0));
   Korvo::Platform::setFastForward(true);
   for (auto _ : state) {
      Korvo::Platform::fastForwardBy(0.000001);
   }
   Korvo::Platform::setFastForward(false);
   perTimer(state);
}
BENCHMARK(BM_FastForwardJump)->Arg(10)->Arg(1000)->Arg(100000)->Unit(benchmark::kMicrosecond);

// Finding the first timer, which every jump of the loop starts with: one walk.
void BM_FirstTimeout(benchmark::State& state) {
   PendingTimers timers(state.range(0));
   timeval first;
   for (auto _ : state) {
      Korvo::event_base_get_first_timeout(Korvo::leBase(), &first);
   }
   benchmark::DoNotOptimize(first);
   perTimer(state);
}
BENCHMARK(BM_FirstTimeout)->Arg(10)->Arg(1000)->Arg(100000)->Unit(benchmark::kMicrosecond);

// The floor a jump over the public interface cannot go below: adding every pending
// event again, in expiry order.
void BM_RawReaddAll(benchmark::State& state) {
   const int64_t n = state.range(0);
   event_base* base = makeRawBase(false);
   std::vector<event*> events;
   for (int64_t i = 0; i < n; ++i) {
      events.push_back(event_new(base, -1, 0, &ignore, nullptr));
      const timeval after = Korvo::timevalFromMicros(3600000000LL + 3600000000LL * i / n);
      event_add(events.back(), &after);
   }
   int64_t shift = 0;
   for (auto _ : state) {
      ++shift;
      for (int64_t i = 0; i < n; ++i) {
         const timeval after =
             Korvo::timevalFromMicros(3600000000LL + 3600000000LL * i / n - shift);
         event_add(events[static_cast<size_t>(i)], &after);
      }
   }
   perTimer(state);
   for (event* ev : events) {
      event_free(ev);
   }
   event_base_free(base);
}
BENCHMARK(BM_RawReaddAll)->Arg(10)->Arg(1000)->Arg(100000)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
