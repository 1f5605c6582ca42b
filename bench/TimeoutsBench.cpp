// The timing wheel (timeouts_*) beside libevent's own timers (event_add / event_del on one
// event base), at 1k, 10k, 100k and 1M timers with random expiries over 0-60 s at 100 Hz.
//
// Per-operation figures are counters: each benchmark iteration times batches of N operations
// (manual timing, so that the untimed set-up of the next batch is left out) and a counter is the
// timed total divided by the operations done. The other benchmarks time one operation per
// iteration; read their CPU column.
//
// Add, re-add and delete (BM_WheelAddReAddDelete, BM_LibeventAddReAddDelete) are one row each,
// so that their ratios come from the same iterations under the same machine load. Each iteration
// adds the N timers to an empty set (add_ns), arms every one of them again with a new random
// expiry while all N are pending (readd_ns), then deletes them all (del_ns). All three phases
// visit the same records in the same order, a fixed random permutation: a daemon's timers are
// scattered over its heap, and a shared order gives every phase the same cache behaviour (each
// phase first touches a record a full batch after the previous phase did), so that no phase is
// charged misses the others are spared. Add and delete pass through the same pending counts
// (0 to N and back), re-add runs at N. del_per_add and readd_per_add are the ratios.
//
// The expiry benchmarks arm their records in array order; libevent's events come from event_new
// one after the other. Both therefore enjoy some locality that objects scattered over a heap
// would not.

#include <Korvo/Timeouts.h>

#include <benchmark/benchmark.h>
#include <event2/event.h>

#include <algorithm>
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

// What one timed section adds by reading the clock twice: the least of many empty sections.
double clockCost() {
   static const double cost = [] {
      double least = 1;
      for (int i = 0; i < 1000; i++) {
         double start = threadSeconds();
         least = std::min(least, threadSeconds() - start);
      }
      return least;
   }();
   return cost;
}

// Batches are timed on the thread's CPU clock: on a machine shared with other work, time spent
// descheduled would otherwise count as ours. Reading it is a system call (about 0.6 us on a
// virtual machine, as much as 0.6 ns per operation in a batch of 1000), so its cost is taken
// off: left in, it would push every ratio of small batches towards 1.
template <typename F>
double timed(F&& f) {
   double start = threadSeconds();
   f();
   return std::max(0.0, threadSeconds() - start - clockCost());
}

// A fixed random permutation of the elements, the order in which add, re-add and delete visit
// the timers.
template <typename P>
std::vector<P> shuffled(std::vector<P> items) {
   std::shuffle(items.begin(), items.end(), std::mt19937_64(3));
   return items;
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
      for (auto& r : recs) {
         timeout_init(&r, TIMEOUT_ABS);
         order.push_back(&r);
      }
      order = shuffled(std::move(order));
   }
   ~Wheel() { timeouts_close(T); }
   void addAll(const std::vector<timeout_t>& ticks, timeout_t base) {
      for (size_t i = 0; i < recs.size(); i++)
         timeouts_add(T, &recs[i], base + ticks[i]);
   }
   // The add, re-add and delete benchmarks' interface (see Libevent): batch i goes to order[i].
   using Batch = std::vector<timeout_t>;
   static Batch batch(size_t n, uint64_t seed) { return randomTicks(n, seed); }
   void add(const Batch& ticks) {
      for (size_t i = 0; i < order.size(); i++)
         timeouts_add(T, order[i], now_ + ticks[i]);
   }
   void delAll() {
      for (timeout* r : order)
         timeouts_del(T, r);
   }
   timeout_t now() const { return now_; }
   void updateTo(timeout_t tick) {
      now_ = tick;
      timeouts_update(T, tick);
   }

   timeouts* T;
   std::vector<timeout> recs;
   std::vector<timeout*> order;
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
      order = shuffled(events);
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
   void add(const Batch& tv) {
      for (size_t i = 0; i < order.size(); i++)
         event_add(order[i], &tv[i]);
   }
   void delAll() {
      for (auto* e : order)
         event_del(e);
   }
   void addAll(const std::vector<timeval>& tv) {
      for (size_t i = 0; i < events.size(); i++)
         event_add(events[i], &tv[i]);
   }
   std::vector<event*> events;
   std::vector<event*> order;
};

// ---- Both: `Timers` (Wheel or Libevent) makes a Batch of n expiries and adds it ---------

// Per iteration: add a batch to an empty set, re-add another batch while all are pending, delete
// all; each phase timed on its own (see the top of the file).
template <typename Timers>
void addReAddDelete(benchmark::State& state) {
   size_t n = size_t(state.range(0));
   Timers timers(n);
   const typename Timers::Batch first = Timers::batch(n, 1), second = Timers::batch(n, 2);
   double add = 0, reAdd = 0, del = 0;
   for (auto _ : state) {
      const double a = timed([&] { timers.add(first); });
      const double r = timed([&] { timers.add(second); });
      const double d = timed([&] { timers.delAll(); });
      state.SetIterationTime(a + r + d);
      add += a;
      reAdd += r;
      del += d;
   }
   const double ops = double(n) * double(state.iterations());
   state.counters["add_ns"] = add * 1e9 / ops;
   state.counters["readd_ns"] = reAdd * 1e9 / ops;
   state.counters["del_ns"] = del * 1e9 / ops;
   state.counters["readd_per_add"] = reAdd / add;
   state.counters["del_per_add"] = del / add;
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
   // Add, re-add and delete: one body serves both kinds of timers.
   benchmark::RegisterBenchmark("BM_WheelAddReAddDelete", addReAddDelete<Wheel>)
       ->Apply(batchOptions);
   benchmark::RegisterBenchmark("BM_LibeventAddReAddDelete", addReAddDelete<Libevent>)
       ->Apply(batchOptions);
   benchmark::RunSpecifiedBenchmarks();
   benchmark::Shutdown();
   return 0;
}
