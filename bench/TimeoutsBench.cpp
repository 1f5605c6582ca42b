// The timing wheel (timeouts_*) beside libevent's own timers (event_add / event_del on one
// event base), at 1k, 10k, 100k and 1M timers with random expiries over 0-60 s at 100 Hz.
//
// Per-operation figures are the "ns_per_op" counter: each benchmark iteration times a batch of N
// operations (manual timing, so that the untimed set-up of the next batch is left out) and the
// counter is the timed total divided by the operations done. The other benchmarks time one
// operation per iteration; read their CPU column.
//
// The records sit in one array and are armed in array order; libevent's events come from
// event_new one after the other. Both therefore enjoy some locality that objects scattered over
// a heap would not.

#include <Korvo/Timeouts.h>

#include <benchmark/benchmark.h>
#include <event2/event.h>

#include <chrono>
#include <cstdint>
#include <ctime>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

constexpr timeout_t kHz = 100;
constexpr timeout_t kSpan = 60 * kHz;           // expiries over 0-60 s
constexpr timeout_t kStart = 1'234'567'891;     // an arbitrary "now", as a monotonic clock gives
constexpr timeout_t kFar = timeout_t(1) << 22;  // ~11.6 h at 100 Hz: nothing due for a long while

double threadSeconds() {
   timespec ts;
   clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
   return double(ts.tv_sec) + double(ts.tv_nsec) * 1e-9;
}

// Batches are timed on the thread's CPU clock: on a machine shared with other work, time spent
// descheduled would otherwise count as ours. (Reading it costs a system call, which a batch of
// 1000 operations or more makes negligible.)
template <typename F>
double timed(F&& f) {
   double start = threadSeconds();
   f();
   return threadSeconds() - start;
}

// Ticks in [1, kSpan], one per timer; seeded so that every run measures the same work.
std::vector<timeout_t> randomTicks(size_t n, uint64_t seed) {
   std::mt19937_64 rng(seed);
   std::uniform_int_distribution<timeout_t> dist(1, kSpan);
   std::vector<timeout_t> ticks(n);
   for (auto& t : ticks)
      t = dist(rng);
   return ticks;
}

// Accumulates timed seconds and operations over a benchmark's iterations.
struct PerOp {
   double seconds = 0;
   double ops = 0;
   void add(benchmark::State& state, double s, size_t n) {
      state.SetIterationTime(s);
      seconds += s;
      ops += double(n);
   }
   void report(benchmark::State& state) const {
      state.counters["ns_per_op"] = ops ? seconds * 1e9 / ops : 0;
   }
};

// ---- The wheel ------------------------------------------------------------------------------

struct Wheel {
   explicit Wheel(size_t n) : T(timeouts_open(kHz, nullptr)), recs(n) {
      timeouts_update(T, kStart);
      for (auto& r : recs)
         timeout_init(&r, TIMEOUT_ABS);
   }
   ~Wheel() { timeouts_close(T); }
   void addAll(const std::vector<timeout_t>& ticks, timeout_t base) {
      for (size_t i = 0; i < recs.size(); i++)
         timeouts_add(T, &recs[i], base + ticks[i]);
   }
   void delAll() {
      for (auto& r : recs)
         timeouts_del(T, &r);
   }
   using Batch = std::vector<timeout_t>;
   static Batch batch(size_t n, uint64_t seed) { return randomTicks(n, seed); }
   void add(const Batch& ticks) { addAll(ticks, now()); }
   timeout_t now() const { return now_; }
   void updateTo(timeout_t tick) {
      now_ = tick;
      timeouts_update(T, tick);
   }

   timeouts* T;
   std::vector<timeout> recs;
   timeout_t now_ = kStart;
};

// Expiry as an event loop drives it: sleep for timeouts_timeout() ticks, update, take every due
// record with timeouts_get. Includes the cascades from the upper level and the wake-ups for them.
void BM_WheelExpire(benchmark::State& state) {
   size_t n = size_t(state.range(0));
   Wheel w(n);
   auto ticks = randomTicks(n, 1);
   PerOp perOp;
   for (auto _ : state) {
      w.addAll(ticks, w.now());
      size_t fired = 0;
      perOp.add(state, timed([&] {
                   while (fired < n) {
                      w.updateTo(w.now() + timeouts_timeout(w.T));
                      while (timeouts_get(w.T))
                         fired++;
                   }
                }),
                n);
   }
   perOp.report(state);
}

// Expiry in one update over the whole 60 s, then draining the expired queue.
void BM_WheelExpireAtOnce(benchmark::State& state) {
   size_t n = size_t(state.range(0));
   Wheel w(n);
   auto ticks = randomTicks(n, 1);
   PerOp perOp;
   for (auto _ : state) {
      timeout_t base = w.now();
      w.addAll(ticks, base);
      size_t fired = 0;
      perOp.add(state, timed([&] {
                   w.updateTo(base + kSpan);
                   while (timeouts_get(w.T))
                      fired++;
                }),
                n);
      if (fired != n)
         state.SkipWithError("not every timer fired");
   }
   perOp.report(state);
}

// An update by one tick with nothing due, the timers being far ahead.
void BM_WheelUpdateNothingDue(benchmark::State& state) {
   size_t n = size_t(state.range(0));
   Wheel w(n);
   auto ticks = randomTicks(n, 1);
   w.addAll(ticks, w.now() + kFar);
   timeout_t limit = w.now() + kFar;
   timeout_t now = w.now();
   for (auto _ : state) {
      if (++now >= limit) {
         state.PauseTiming();
         w.addAll(ticks, now + kFar);
         limit = now + kFar;
         state.ResumeTiming();
      }
      timeouts_update(w.T, now);
   }
   if (timeouts_expired(w.T))
      state.SkipWithError("something expired");
}

void BM_WheelTimeout(benchmark::State& state) {
   size_t n = size_t(state.range(0));
   Wheel w(n);
   w.addAll(randomTicks(n, 1), w.now());
   for (auto _ : state)
      benchmark::DoNotOptimize(timeouts_timeout(w.T));
}

// ---- libevent -----------------------------------------------------------------------------

event_base* base() {
   static event_base* b = event_base_new();
   return b;
}

size_t libeventFired = 0;

void onTimeout(evutil_socket_t, short, void*) {
   libeventFired++;
}

timeval toTimeval(timeout_t ticks) {
   return timeval{time_t(ticks / kHz), suseconds_t((ticks % kHz) * (1000000 / kHz))};
}

struct Libevent {
   explicit Libevent(size_t n) : events(n) {
      for (auto& e : events)
         e = evtimer_new(base(), onTimeout, nullptr);
   }
   ~Libevent() {
      for (auto* e : events)
         event_free(e);
   }
   static std::vector<timeval> timevals(const std::vector<timeout_t>& ticks) {
      std::vector<timeval> tv;
      for (auto t : ticks)
         tv.push_back(toTimeval(t));
      return tv;
   }
   using Batch = std::vector<timeval>;
   static Batch batch(size_t n, uint64_t seed) { return timevals(randomTicks(n, seed)); }
   void add(const Batch& tv) { addAll(tv); }
   void addAll(const std::vector<timeval>& tv) {
      for (size_t i = 0; i < events.size(); i++)
         event_add(events[i], &tv[i]);
   }
   void delAll() {
      for (auto* e : events)
         event_del(e);
   }
   std::vector<event*> events;
};

// ---- Both: `Timers` (Wheel or Libevent) makes a Batch of n expiries and adds it ---------

// Per iteration, adds a batch and deletes it again; only one of the two is reported.
template <typename Timers, bool reportDelete>
void addDeleteBatches(benchmark::State& state) {
   size_t n = size_t(state.range(0));
   Timers timers(n);
   auto batch = Timers::batch(n, 1);
   PerOp perOp;
   for (auto _ : state) {
      const double addSeconds = timed([&] { timers.add(batch); });
      const double deleteSeconds = timed([&] { timers.delAll(); });
      perOp.add(state, reportDelete ? deleteSeconds : addSeconds, n);
   }
   perOp.report(state);
}

// Every timer armed again with a new expiry while it is pending.
template <typename Timers>
void reAddBatches(benchmark::State& state) {
   size_t n = size_t(state.range(0));
   Timers timers(n);
   typename Timers::Batch batches[2] = {Timers::batch(n, 1), Timers::batch(n, 2)};
   timers.add(batches[0]);
   PerOp perOp;
   size_t round = 0;
   for (auto _ : state) {
      auto& next = batches[++round % 2];
      perOp.add(state, timed([&] { timers.add(next); }), n);
   }
   timers.delAll();
   perOp.report(state);
}

// libevent runs on the real clock, so its timers are given random timeouts below 1 ms, left to
// become due (untimed), and then one non-blocking loop pass fires them all: the min-heap pops
// and the callbacks, as the wheel's expiry above does its updates and timeouts_get.
void BM_LibeventExpire(benchmark::State& state) {
   size_t n = size_t(state.range(0));
   Libevent ev(n);
   std::mt19937_64 rng(1);
   std::vector<timeval> tv(n);
   for (auto& t : tv)
      t = timeval{0, suseconds_t(rng() % 1000)};
   PerOp perOp;
   for (auto _ : state) {
      ev.addAll(tv);
      std::this_thread::sleep_for(std::chrono::milliseconds(12));  // past a coarse clock tick
      libeventFired = 0;
      perOp.add(state, timed([&] {
                   while (libeventFired < n)
                      event_base_loop(base(), EVLOOP_NONBLOCK);
                }),
                n);
   }
   perOp.report(state);
}

void sizes(benchmark::internal::Benchmark* b) {
   for (long n : {1000L, 10000L, 100000L, 1000000L})
      b->Arg(n);
}

void batchOptions(benchmark::internal::Benchmark* b) {
   sizes(b);
   b->UseManualTime()->Unit(benchmark::kMicrosecond);
}

#define KORVO_BATCH_BENCH(name) BENCHMARK(name)->Apply(batchOptions)

KORVO_BATCH_BENCH(BM_WheelExpire);
KORVO_BATCH_BENCH(BM_WheelExpireAtOnce);
KORVO_BATCH_BENCH(BM_LibeventExpire);
BENCHMARK(BM_WheelUpdateNothingDue)->Apply(sizes);
BENCHMARK(BM_WheelTimeout)->Apply(sizes);

}  // namespace

int main(int argc, char** argv) {
   benchmark::Initialize(&argc, argv);
   benchmark::AddCustomContext("sizeof(struct timeout)", std::to_string(sizeof(struct timeout)));
   benchmark::AddCustomContext("timeouts_sizeof() (the wheel)", std::to_string(timeouts_sizeof()));
   benchmark::AddCustomContext("libevent struct event",
                               std::to_string(event_get_struct_event_size()));
   benchmark::AddCustomContext("libevent method", event_base_get_method(base()));
   // Add, delete and re-add: one body each serves both kinds of timers.
   const std::pair<const char*, void (*)(benchmark::State&)> batchBenchmarks[] = {
       {"BM_WheelAdd", addDeleteBatches<Wheel, false>},
       {"BM_LibeventAdd", addDeleteBatches<Libevent, false>},
       {"BM_WheelDel", addDeleteBatches<Wheel, true>},
       {"BM_LibeventDel", addDeleteBatches<Libevent, true>},
       {"BM_WheelReAdd", reAddBatches<Wheel>},
       {"BM_LibeventReAdd", reAddBatches<Libevent>},
   };
   for (const auto& [name, function] : batchBenchmarks) {
      benchmark::RegisterBenchmark(name, function)->Apply(batchOptions);
   }
   benchmark::RunSpecifiedBenchmarks();
   benchmark::Shutdown();
   return 0;
}
