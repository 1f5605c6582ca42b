// Timers through a wheel-backed timer control, through the raw wheel library, and
// through a libevent timer control.
//
// - Start and stop of one timer while N others are pending, delays random over
//   0-60 s. The control's own cost is its start+stop less one clock_gettime (the
//   read a start must make) less the raw wheel's add+delete: BM_ClockGettime and
//   BM_RawWheelAddDelete give both in the same run. (A timer stopped before the
//   master timer is next set never reaches the raw wheel, so here the control does
//   no add or delete of its own; the expiry rows pay for the add.)
// - Expiry: N timers that re-arm themselves from their handlers with delays of
//   1-20 ms, each iteration running the loop for 20 ms of real time. "ns_per_fired"
//   is thread CPU time (so not the time spent waiting) per fired timer. Virtual time
//   would spare the waiting but add the cost of its jumps to every expiry.
//
// Every benchmark reports "allocs_per_op": the process's operator new calls (the
// library's included; libevent's own mallocs are not seen) per timed operation.

#include "AllocationCount.h"

#include <Korvo/Platform.h>
#include <Korvo/Timeouts.h>
#include <Korvo/TimerWheel.h>

#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <random>
#include <vector>

namespace {

struct Idle : Korvo::Platform::TimeoutHandler {
   void timeout() override {}
};

std::vector<double> randomDelays(size_t n, double low = 0.01, double high = 60.0) {
   std::mt19937_64 rng(42);
   std::uniform_real_distribution<double> dist(low, high);
   std::vector<double> delays(n);
   for (auto& d : delays)
      d = dist(rng);
   return delays;
}

double threadSeconds() {
   timespec ts;
   clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
   return double(ts.tv_sec) + double(ts.tv_nsec) * 1e-9;
}

// Allocations from construction to report(), per operation.
class AllocsPerOp {
public:
   AllocsPerOp() : before_(KorvoBench::allocations.load()) {}
   void report(benchmark::State& state, double ops) const {
      state.counters["allocs_per_op"] = double(KorvoBench::allocations.load() - before_) / ops;
   }

private:
   uint64_t before_;
};

constexpr size_t kDelays = 4096;

template <typename MakeControl>
void startStopWithPending(benchmark::State& state, MakeControl make) {
   const auto pendingCount = static_cast<size_t>(state.range(0));
   Idle handler;
   const auto delays = randomDelays(pendingCount + kDelays);
   std::vector<std::shared_ptr<Korvo::Platform::TimerControl>> pending;
   pending.reserve(pendingCount);
   for (size_t i = 0; i < pendingCount; ++i) {
      pending.push_back(make(&handler));
      pending.back()->setTimeout(delays[i]);
   }
   auto control = make(&handler);
   size_t i = 0;
   AllocsPerOp allocs;
   for (auto _ : state) {
      control->setTimeout(delays[pendingCount + (i++ % kDelays)]);
      control->delTimeout();
   }
   allocs.report(state, double(state.iterations()));
   state.counters["sizeof_event"] = sizeof(Korvo::TimerWheelEvent);
}

void BM_WheelControlStartStop(benchmark::State& state) {
   auto wheel = Korvo::getTimerWheel();
   startStopWithPending(state, [&](Korvo::Platform::TimeoutHandler* h) {
      return Korvo::Platform::getTimerControl(h, wheel);
   });
}
BENCHMARK(BM_WheelControlStartStop)->Arg(1000)->Arg(10000)->Arg(100000);

void BM_LibeventControlStartStop(benchmark::State& state) {
   startStopWithPending(state, [](Korvo::Platform::TimeoutHandler* h) {
      return Korvo::Platform::getTimerControl(h);
   });
}
BENCHMARK(BM_LibeventControlStartStop)->Arg(1000)->Arg(10000)->Arg(100000);

void BM_RawWheelAddDelete(benchmark::State& state) {
   const auto pendingCount = static_cast<size_t>(state.range(0));
   int error = 0;
   timeouts* wheel = timeouts_open(100, &error);
   timeouts_update(wheel, 1'000'000);
   const auto delays = randomDelays(pendingCount + kDelays);
   std::vector<timeout> records(pendingCount);
   for (size_t i = 0; i < pendingCount; ++i) {
      timeout_init(&records[i], TIMEOUT_ABS);
      timeouts_add(wheel, &records[i], 1'000'000 + static_cast<timeout_t>(delays[i] * 100));
   }
   timeout record;
   timeout_init(&record, TIMEOUT_ABS);
   size_t i = 0;
   AllocsPerOp allocs;
   for (auto _ : state) {
      const double d = delays[pendingCount + (i++ % kDelays)];
      timeouts_add(wheel, &record, 1'000'000 + static_cast<timeout_t>(d * 100));
      timeouts_del(wheel, &record);
   }
   allocs.report(state, double(state.iterations()));
   timeouts_close(wheel);
}
BENCHMARK(BM_RawWheelAddDelete)->Arg(1000)->Arg(10000)->Arg(100000);

void BM_ClockGettime(benchmark::State& state) {
   timespec ts;
   for (auto _ : state) {
      clock_gettime(CLOCK_MONOTONIC, &ts);
      benchmark::DoNotOptimize(ts);
   }
}
BENCHMARK(BM_ClockGettime);

void BM_KorvoTime(benchmark::State& state) {
   for (auto _ : state)
      benchmark::DoNotOptimize(Korvo::time());
}
BENCHMARK(BM_KorvoTime);

// A timer that re-arms itself on every expiry, with delays taken in turn from a
// shared table.
struct Rearming : Korvo::Platform::TimeoutHandler {
   std::shared_ptr<Korvo::Platform::TimerControl> control;
   const std::vector<double>* delays = nullptr;
   size_t* fired = nullptr;
   void timeout() override { control->setTimeout((*delays)[(*fired)++ % delays->size()]); }
};

template <typename MakeControl>
void expiryWithRearm(benchmark::State& state, MakeControl make) {
   const auto count = static_cast<size_t>(state.range(0));
   const auto delays = randomDelays(kDelays, 0.001, 0.02);
   size_t fired = 0;
   std::vector<Rearming> timers(count);
   for (size_t i = 0; i < count; ++i) {
      timers[i].control = make(&timers[i]);
      timers[i].delays = &delays;
      timers[i].fired = &fired;
      timers[i].control->setTimeout(delays[i % kDelays]);
   }
   // Warm up: every structure grows to its steady size here.
   Korvo::Platform::doEventLoop(0.1);
   fired = 0;
   double seconds = 0;
   AllocsPerOp allocs;
   for (auto _ : state) {
      const double start = threadSeconds();
      Korvo::Platform::doEventLoop(0.02);
      seconds += threadSeconds() - start;
   }
   allocs.report(state, double(fired));
   state.counters["ns_per_fired"] = fired ? seconds * 1e9 / double(fired) : 0;
   for (auto& t : timers)
      t.control.reset();
}

void BM_WheelControlExpiry(benchmark::State& state) {
   auto wheel = Korvo::getTimerWheel();
   expiryWithRearm(state, [&](Korvo::Platform::TimeoutHandler* h) {
      return Korvo::Platform::getTimerControl(h, wheel);
   });
}
BENCHMARK(BM_WheelControlExpiry)->Arg(1000)->Arg(10000);

void BM_LibeventControlExpiry(benchmark::State& state) {
   expiryWithRearm(state, [](Korvo::Platform::TimeoutHandler* h) {
      return Korvo::Platform::getTimerControl(h);
   });
}
BENCHMARK(BM_LibeventControlExpiry)->Arg(1000)->Arg(10000);

}  // namespace

BENCHMARK_MAIN();
