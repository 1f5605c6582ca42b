// Cost of the scheduler's hot paths.
//
// - A trivial task run end to end through doEventLoop() (schedule -> callback ->
//   pick -> run), against a raw libevent event on the same thread's base that re-adds
//   itself with a zero timeout (how the loop delivers the root's callback). Heap
//   allocations are counted through a replaced global operator new.
//   The same runs with a counter for a clock show the share of the clock read a run
//   makes (its end; the next dispatch starts there, and the task's own schedule
//   during its run reads none).
// - pickOneTask() with 100, 1,000 and 10,000 tasks queued across four priorities,
//   each pick followed by the schedule that puts the task back: flat across sizes.

#include <Korvo/Allocator.h>
#include <Korvo/Platform.h>
#include <Korvo/TaskScheduler.h>

#include "AllocationCount.h"
#include "BenchTasks.h"
#include "TaskTime.h"

#include <benchmark/benchmark.h>
#include <event2/event.h>
#include <event2/event_struct.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <new>
#include <vector>

using KorvoBench::allocations;

namespace {

using KorvoBench::runsPerBatch;

// ---- Baseline: raw libevent.

struct RawCallback {
   event ev;
   int remaining = 0;
   static void fire(evutil_socket_t, short, void* arg) {
      auto* self = static_cast<RawCallback*>(arg);
      if (--self->remaining > 0) {
         static const timeval zero{0, 0};
         event_add(&self->ev, &zero);
      }
   }
};

void BM_RawLibeventZeroTimeoutCallback(benchmark::State& state) {
   Korvo::leInit();
   event_base* base = Korvo::leBase();
   RawCallback raw;
   event_assign(&raw.ev, base, -1, 0, &RawCallback::fire, &raw);
   const uint64_t before = allocations.load();
   for (auto _ : state) {
      raw.remaining = runsPerBatch;
      static const timeval zero{0, 0};
      event_add(&raw.ev, &zero);
      event_base_dispatch(base);
   }
   const double runs = static_cast<double>(state.iterations()) * runsPerBatch;
   state.counters["allocsPerRun"] = static_cast<double>(allocations.load() - before) / runs;
   KorvoBench::cpuPerRunIs(state, runs);
}
BENCHMARK(BM_RawLibeventZeroTimeoutCallback);

// ---- The scheduler through the loop.

using KorvoBench::Repeater;

// Each run: the task schedules itself, the root requests a callback, the loop calls
// back, the root picks and runs the task. A batch ends with one idle callback.
void BM_TaskRunThroughEventLoop(benchmark::State& state) {
   auto root = Korvo::schedulerRootKorvoNonShared("bench");
   auto task = Korvo::makeShared<Repeater>(root, Korvo::TaskPriority::normal, "repeater");
   uint64_t before = 0;
   KorvoBench::runBatches(
       state, *task, [&] { before = allocations.load(); },
       [&](double runs) {
          state.counters["allocsPerRun"] = static_cast<double>(allocations.load() - before) / runs;
       });
}
BENCHMARK(BM_TaskRunThroughEventLoop);

// The same runs with the scheduler's clock replaced by a counter: what a run costs
// beside its one clock read (its end, which also starts the next dispatch when no
// handler ran in between). BM_TaskTime gives the price of one.
Korvo::TaskTimePoint counterTime() {
   static int64_t ticks = 0;
   return Korvo::TaskTimePoint(std::chrono::nanoseconds(ticks += 100));
}

void BM_TaskRunThroughEventLoopCounterClock(benchmark::State& state) {
   auto root = Korvo::schedulerRootKorvoNonShared("bench");
   auto task = Korvo::makeShared<Repeater>(root, Korvo::TaskPriority::normal, "repeater");
   Korvo::taskTimeSourceIs(&counterTime);
   KorvoBench::runBatches(state, *task);
   Korvo::taskTimeSourceIs(nullptr);
}
BENCHMARK(BM_TaskRunThroughEventLoopCounterClock);

void BM_TaskTime(benchmark::State& state) {
   for (auto _ : state) {
      benchmark::DoNotOptimize(Korvo::taskTime());
   }
}
BENCHMARK(BM_TaskTime);

// One schedule and one run per loop entry: the run, the idle callback after it, and
// the loop's own entry and exit.
void BM_TaskScheduleAndRunOnce(benchmark::State& state) {
   auto root = Korvo::schedulerRootKorvoNonShared("bench");
   auto task = Korvo::makeShared<Repeater>(root, Korvo::TaskPriority::normal, "once");
   task->scheduleTask();
   Korvo::Platform::doEventLoop();
   const uint64_t before = allocations.load();
   for (auto _ : state) {
      task->scheduleTask();
      Korvo::Platform::doEventLoop();
   }
   state.counters["allocsPerRun"] =
       static_cast<double>(allocations.load() - before) / static_cast<double>(state.iterations());
}
BENCHMARK(BM_TaskScheduleAndRunOnce);

// ---- Picking.

class BenchScheduler : public Korvo::TaskScheduler {
public:
   explicit BenchScheduler(const std::shared_ptr<Korvo::TaskSchedulerRoot>& root)
       : TaskScheduler("benchSched", root.get(), root->history()) {}
   void requestSchedulerRun() override {}
   void handleTaskForceYieldInTest() override {}
};

class Idle : public Korvo::Task {
public:
   using Task::Task;
   void taskExecute() override {}
};

void BM_PickOneTaskAndRequeue(benchmark::State& state) {
   auto root = Korvo::schedulerRootKorvoNonShared("pickRoot");
   auto sched = Korvo::makeShared<BenchScheduler>(root);
   std::vector<std::shared_ptr<Idle>> tasks;
   const Korvo::TaskPriority priorities[] = {Korvo::TaskPriority::high, Korvo::TaskPriority::normal,
                                             Korvo::TaskPriority::low,
                                             Korvo::TaskPriority::scavenge};
   for (int64_t i = 0; i < state.range(0); ++i) {
      tasks.push_back(Korvo::makeShared<Idle>(sched, priorities[i % 4], "idle"));
      tasks.back()->scheduleTask();
   }
   const Korvo::TaskTimePoint now = Korvo::taskTime();
   const uint64_t before = allocations.load();
   for (auto _ : state) {
      Korvo::TaskImpl* task = sched->pickOneTask(now, Korvo::TaskPriority::absolute);
      task->scheduleTask();
   }
   state.counters["allocsPerPick"] =
       static_cast<double>(allocations.load() - before) / static_cast<double>(state.iterations());
   for (auto& t : tasks) {
      t->unscheduleTask();
   }
}
BENCHMARK(BM_PickOneTaskAndRequeue)->Arg(100)->Arg(1000)->Arg(10000);

}  // namespace

BENCHMARK_MAIN();
