// Timer tasks and task-backed controls against what they are built on.
//
// - Arming: scheduleTaskDelay + stopTimerTask of an idle timer task while 100k timer
//   tasks are armed, beside the wheel's own timerStart + timerStop and a libevent timer
//   control's setTimeout + delTimeout, each with 100k armed timers of its kind.
// - Expiry to run: 100k timer tasks due at once, from the master timer's firing to the
//   last taskExecute(), beside 100k libevent timer controls firing their handlers, and
//   beside 100k plain tasks queued at once (the scheduler's share: one loop pass each).
// - Fd ping-pong: one byte each way over a socketpair, both ends served by task-backed
//   fd controls, beside both ends served by libevent fd controls.
// Heap allocations per operation are counted through a replaced global operator new.

#include <Korvo/Allocator.h>
#include <Korvo/Platform.h>
#include <Korvo/TaskControl.h>
#include <Korvo/TaskScheduler.h>
#include <Korvo/TimerTask.h>
#include <Korvo/TimerWheel.h>

#include "AllocationCount.h"

#include <benchmark/benchmark.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <memory>
#include <new>
#include <random>
#include <vector>

using KorvoBench::allocations;

namespace {

using Korvo::TaskPriority;
namespace P = Korvo::Platform;

constexpr size_t kArmed = 100000;
constexpr size_t kDelays = 4096;

std::vector<double> randomDelays(size_t n) {
   std::mt19937_64 rng(42);
   std::uniform_real_distribution<double> dist(0.01, 60.0);
   std::vector<double> delays(n);
   for (auto& d : delays) {
      d = dist(rng);
   }
   return delays;
}

// A task of kind `Base` that counts its runs.
template <typename Base>
class RunCounting : public Base {
public:
   RunCounting(std::shared_ptr<Korvo::TaskScheduler> s, uint64_t* runs)
       : Base(std::move(s), TaskPriority::normal, "bench"), runs_(runs) {}
   void taskExecute() override { ++*runs_; }

private:
   uint64_t* runs_;
};
using CountingTimer = RunCounting<Korvo::TimerTask>;
using CountingTask = RunCounting<Korvo::Task>;

struct Counting : P::TimeoutHandler {
   void timeout() override { ++runs; }
   uint64_t runs = 0;
};

struct WheelEvent : Korvo::TimerWheelEvent {
   void timeout() override {}
};

void reportAllocations(benchmark::State& state, uint64_t before, double perIteration) {
   state.counters["allocs_per_op"] = static_cast<double>(allocations.load() - before) /
                                     (static_cast<double>(state.iterations()) * perIteration);
}

// ---------------------------------------------------------------------------------
// Arming an idle timer while 100k are armed

// Arms kArmed timers, `arm(i, delay)` each, then times one `cycle(delay)` (arm one more
// timer and stop it) per iteration.
template <typename Arm, typename Cycle>
void cycleAmongArmed(benchmark::State& state, Arm arm, Cycle cycle) {
   const auto delays = randomDelays(kArmed + kDelays);
   for (size_t i = 0; i < kArmed; ++i) {
      arm(i, delays[i]);
   }
   size_t i = 0;
   const uint64_t before = allocations.load();
   for (auto _ : state) {
      cycle(delays[kArmed + (i++ % kDelays)]);
   }
   reportAllocations(state, before, 1.0);
}

void BM_TimerTaskArmStop(benchmark::State& state) {
   auto root = Korvo::schedulerRootKorvoNonShared("bench");
   uint64_t runs = 0;
   std::vector<std::shared_ptr<CountingTimer>> armed;
   auto task = Korvo::makeShared<CountingTimer>(root, &runs);
   cycleAmongArmed(
       state,
       [&](size_t, double delay) {
          armed.push_back(Korvo::makeShared<CountingTimer>(root, &runs));
          armed.back()->scheduleTaskDelay(delay);
       },
       [&](double delay) {
          task->scheduleTaskDelay(delay);
          task->stopTimerTask();
       });
}
BENCHMARK(BM_TimerTaskArmStop);

void BM_WheelStartStop(benchmark::State& state) {
   auto wheel = Korvo::getTimerWheel();
   std::vector<WheelEvent> armed(kArmed);
   WheelEvent event;
   cycleAmongArmed(
       state, [&](size_t i, double delay) { wheel->timerStart(&armed[i], delay); },
       [&](double delay) {
          wheel->timerStart(&event, delay);
          wheel->timerStop(&event);
       });
   for (auto& e : armed) {
      wheel->timerStop(&e);
   }
}
BENCHMARK(BM_WheelStartStop);

void BM_LibeventTimerSetDel(benchmark::State& state) {
   Counting handler;
   std::vector<std::shared_ptr<P::TimerControl>> armed;
   auto control = P::getTimerControl(&handler);
   cycleAmongArmed(
       state,
       [&](size_t, double delay) {
          armed.push_back(P::getTimerControl(&handler));
          armed.back()->setTimeout(delay);
       },
       [&](double delay) {
          control->setTimeout(delay);
          control->delTimeout();
       });
}
BENCHMARK(BM_LibeventTimerSetDel);

// ---------------------------------------------------------------------------------
// 100k due at once: master timer to the last run, per timer

// Per iteration: `armAll()` (untimed) arms kArmed timers due at once, then one loop
// call jumps to their expiry and returns once every one has run. Reports time and
// allocations per timer and whether `runs` counted every run.
template <typename ArmAll>
void expiryToRun(benchmark::State& state, ArmAll armAll, const uint64_t& runs) {
   uint64_t allocs = 0;
   for (auto _ : state) {
      state.PauseTiming();
      armAll();
      const uint64_t before = allocations.load();
      state.ResumeTiming();
      P::doEventLoop();
      allocs += allocations.load() - before;
   }
   const double timers = static_cast<double>(state.iterations() * kArmed);
   state.counters["ns_per_timer"] =
       benchmark::Counter(timers, benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
   state.counters["allocs_per_timer"] = static_cast<double>(allocs) / timers;
   state.counters["runs_ok"] = runs == state.iterations() * kArmed;
}

void BM_TimerTaskExpiryToRun(benchmark::State& state) {
   P::setFastForward(true);
   auto root = Korvo::schedulerRootKorvoNonShared("bench");
   uint64_t runs = 0;
   std::vector<std::shared_ptr<CountingTimer>> tasks;
   for (size_t i = 0; i < kArmed; ++i) {
      tasks.push_back(Korvo::makeShared<CountingTimer>(root, &runs));
   }
   expiryToRun(
       state,
       [&] {
          for (auto& t : tasks) {
             t->scheduleTaskDelay(1.0);
          }
       },
       runs);
   P::setFastForward(false);
}
BENCHMARK(BM_TimerTaskExpiryToRun)->Unit(benchmark::kMillisecond);

// The scheduler's share of the above: 100k plain tasks queued at once, run to the last.

void BM_QueuedTasksToRun(benchmark::State& state) {
   auto root = Korvo::schedulerRootKorvoNonShared("bench");
   uint64_t runs = 0;
   std::vector<std::shared_ptr<CountingTask>> tasks;
   for (size_t i = 0; i < kArmed; ++i) {
      tasks.push_back(Korvo::makeShared<CountingTask>(root, &runs));
   }
   for (auto _ : state) {
      state.PauseTiming();
      for (auto& t : tasks) {
         t->scheduleTask();
      }
      state.ResumeTiming();
      P::doEventLoop();
   }
   state.counters["ns_per_task"] =
       benchmark::Counter(static_cast<double>(state.iterations() * kArmed),
                          benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}
BENCHMARK(BM_QueuedTasksToRun)->Unit(benchmark::kMillisecond);

void BM_LibeventTimerExpiryToRun(benchmark::State& state) {
   P::setFastForward(true);
   Counting handler;
   std::vector<std::shared_ptr<P::TimerControl>> controls;
   for (size_t i = 0; i < kArmed; ++i) {
      controls.push_back(P::getTimerControl(&handler));
   }
   expiryToRun(
       state,
       [&] {
          for (auto& c : controls) {
             c->setTimeout(1.0);
          }
       },
       handler.runs);
   P::setFastForward(false);
}
BENCHMARK(BM_LibeventTimerExpiryToRun)->Unit(benchmark::kMillisecond);

// ---------------------------------------------------------------------------------
// Fd ping-pong: one byte each way per round trip

constexpr int kRoundTrips = 1000;

// One end: answers every byte; the pinging end counts round trips and stops the watch
// of both ends after the last one, so that the loop runs dry.
struct End : P::FdEventHandler {
   void readFdEvent(int fd) override {
      char byte;
      if (::read(fd, &byte, 1) != 1) {
         return;
      }
      if (pinger && ++roundTrips == kRoundTrips) {
         control->delFd();
         peer->control->delFd();
         return;
      }
      (void)!::write(fd, &byte, 1);
   }
   void writeFdEvent(int) override {}
   std::shared_ptr<P::FdControl> control;
   End* peer = nullptr;
   bool pinger = false;
   int roundTrips = 0;
};

template <typename MakeControl>
void pingPong(benchmark::State& state, MakeControl make) {
   int fds[2];
   if (::socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0) {
      state.SkipWithError("socketpair");
      return;
   }
   End ping;
   End pong;
   ping.control = make(&ping, "ping");
   pong.control = make(&pong, "pong");
   ping.peer = &pong;
   pong.peer = &ping;
   ping.pinger = true;
   for (auto _ : state) {
      ping.roundTrips = 0;
      ping.control->setFd(fds[0]);
      pong.control->setFd(fds[1]);
      (void)!::write(fds[0], "x", 1);
      P::doEventLoop();
   }
   state.counters["ns_per_round_trip"] =
       benchmark::Counter(static_cast<double>(state.iterations() * kRoundTrips),
                          benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
   ::close(fds[0]);
   ::close(fds[1]);
}

void BM_TaskFdPingPong(benchmark::State& state) {
   auto root = Korvo::schedulerRootKorvoNonShared("bench");
   pingPong(state, [&](P::FdEventHandler* h, const char* name) {
      return P::getFdControl(h, root, TaskPriority::normal, name);
   });
}
BENCHMARK(BM_TaskFdPingPong)->Unit(benchmark::kMicrosecond);

void BM_LibeventFdPingPong(benchmark::State& state) {
   pingPong(state, [](P::FdEventHandler* h, const char*) { return P::getFdControl(h); });
}
BENCHMARK(BM_LibeventFdPingPong)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
