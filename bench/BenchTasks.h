#ifndef KORVO_BENCH_BENCHTASKS_H
#define KORVO_BENCH_BENCHTASKS_H

// Tasks and task populations that several benchmark programs measure.

#include <Korvo/Allocator.h>
#include <Korvo/Platform.h>
#include <Korvo/TaskScheduler.h>

#include <benchmark/benchmark.h>

#include <cstdint>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

namespace KorvoBench {

constexpr int runsPerBatch = 1000;

// Reports the CPU time of one of `runs` runs as the counter cpuPerRun.
inline void cpuPerRunIs(benchmark::State& state, double runs) {
   state.counters["cpuPerRun"] =
       benchmark::Counter(runs, benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

// Runs `remaining` times, rescheduling itself after each run but the last.
class Repeater : public Korvo::Task {
public:
   using Task::Task;
   void taskExecute() override {
      if (--remaining > 0) {
         scheduleTask();
      }
   }
   int remaining = 0;
};

// Runs `task` through the event loop: one warm-up batch, in which first-use
// allocations happen, then a batch of runsPerBatch runs per iteration. `timed()` is
// called right before the first timed batch, `done(runs)` right after the last, before
// the counter cpuPerRun is set.
template <typename Timed, typename Done>
void runBatches(benchmark::State& state, Repeater& task, Timed timed, Done done) {
   task.remaining = 2;
   task.scheduleTask();
   Korvo::Platform::doEventLoop();
   timed();
   for (auto _ : state) {
      task.remaining = runsPerBatch;
      task.scheduleTask();
      Korvo::Platform::doEventLoop();
   }
   const double runs = static_cast<double>(state.iterations()) * runsPerBatch;
   done(runs);
   cpuPerRunIs(state, runs);
}
inline void runBatches(benchmark::State& state, Repeater& task) {
   runBatches(
       state, task, [] {}, [](double) {});
}

// A root with n live tasks and n/10 dead names, every task run once with a work
// count; with `historyEvents`, the history holds that many events of further runs.
struct Population {
   class Worker : public Korvo::Task {
   public:
      using Task::Task;
      void taskExecute() override { taskWorkCountInc(3); }
   };

   std::shared_ptr<Korvo::TaskSchedulerRoot> root;
   std::vector<std::shared_ptr<Worker>> live;

   explicit Population(int64_t n, unsigned historyEvents = 0)
       : root(Korvo::schedulerRootKorvoNonShared("population")) {
      if (historyEvents != 0) {
         root->historyEntryCountIs(historyEvents);
      }
      const Korvo::TaskPriority priorities[] = {
          Korvo::TaskPriority::high, Korvo::TaskPriority::normal, Korvo::TaskPriority::low};
      for (int64_t i = 0; i < n + n / 10; ++i) {
         auto t = Korvo::makeShared<Worker>(root, priorities[i % 3],
                                            "subsystem;worker" + std::to_string(i));
         t->taskRunFromTest();
         live.push_back(std::move(t));
      }
      live.resize(static_cast<std::size_t>(n));  // the rest die: one dead name each
      for (unsigned i = 0; historyEvents != 0 && root->history()->size() < historyEvents; ++i) {
         live[i % live.size()]->scheduleTask();
         root->handleSchedulerRun();
      }
   }

   // Times `write(root, stream)` into a fresh string stream per iteration.
   template <typename Write>
   void timeWrite(benchmark::State& state, Write write) const {
      for (auto _ : state) {
         std::ostringstream os;
         write(*root, os);
         benchmark::DoNotOptimize(os.str().size());
      }
   }
};

}  // namespace KorvoBench

#endif
