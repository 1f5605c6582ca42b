// One timer started and stopped while N others are pending: through a wheel-backed
// timer control, through the raw wheel library, and through a libevent timer
// control. Delays are random over 0-60 s.

#include <Korvo/Platform.h>
#include <Korvo/Timeouts.h>
#include <Korvo/TimerWheel.h>

#include <benchmark/benchmark.h>

#include <memory>
#include <random>
#include <vector>

namespace {

struct Idle : Korvo::Platform::TimeoutHandler {
   void timeout() override {}
};

std::vector<double> randomDelays(size_t n) {
   std::mt19937_64 rng(42);
   std::uniform_real_distribution<double> dist(0.01, 60.0);
   std::vector<double> delays(n);
   for (auto& d : delays)
      d = dist(rng);
   return delays;
}

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
   for (auto _ : state) {
      control->setTimeout(delays[pendingCount + (i++ % kDelays)]);
      control->delTimeout();
   }
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
   for (auto _ : state) {
      const double d = delays[pendingCount + (i++ % kDelays)];
      timeouts_add(wheel, &record, 1'000'000 + static_cast<timeout_t>(d * 100));
      timeouts_del(wheel, &record);
   }
   timeouts_close(wheel);
}
BENCHMARK(BM_RawWheelAddDelete)->Arg(1000)->Arg(10000)->Arg(100000);

}  // namespace

BENCHMARK_MAIN();
