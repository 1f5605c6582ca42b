// Cost of the operator's exports. The timeline of a full history of 100,000 events
// (target: at most 50 ms), beside the history print of the same events as the
// baseline; the metrics over N live tasks and N/10 dead names, beside the statistics
// report of the same population.

#include <Korvo/Allocator.h>
#include <Korvo/TaskScheduler.h>

#include <benchmark/benchmark.h>

#include <sstream>
#include <string>
#include <vector>

namespace {

class Worker : public Korvo::Task {
public:
   using Task::Task;
   void taskExecute() override { taskWorkCountInc(3); }
};

struct Population {
   std::shared_ptr<Korvo::TaskSchedulerRoot> root;
   std::vector<std::shared_ptr<Worker>> live;

   Population(int64_t n, unsigned historyEvents)
       : root(Korvo::schedulerRootKorvoNonShared("export")) {
      root->historyEntryCountIs(historyEvents);
      const Korvo::TaskPriority priorities[] = {
          Korvo::TaskPriority::high, Korvo::TaskPriority::normal, Korvo::TaskPriority::low};
      for (int64_t i = 0; i < n + n / 10; ++i) {
         auto t = Korvo::makeShared<Worker>(root, priorities[i % 3],
                                            "subsystem;worker" + std::to_string(i));
         t->taskRunFromTest();
         live.push_back(std::move(t));
      }
      live.resize(static_cast<std::size_t>(n));
      // Fill the history with runs.
      for (unsigned i = 0; root->history()->size() < historyEvents; ++i) {
         live[i % live.size()]->scheduleTask();
         root->handleSchedulerRun();
      }
   }
};

void BM_WriteTimeline(benchmark::State& state) {
   Population pop(1000, static_cast<unsigned>(state.range(0)));
   for (auto _ : state) {
      std::ostringstream os;
      pop.root->writeTimeline(os);
      benchmark::DoNotOptimize(os.str().size());
   }
}
BENCHMARK(BM_WriteTimeline)->Arg(100000)->Unit(benchmark::kMillisecond);

void BM_PrintHistoryBaseline(benchmark::State& state) {
   Population pop(1000, static_cast<unsigned>(state.range(0)));
   for (auto _ : state) {
      std::ostringstream os;
      pop.root->printHistory(os, 4294967295u);
      benchmark::DoNotOptimize(os.str().size());
   }
}
BENCHMARK(BM_PrintHistoryBaseline)->Arg(100000)->Unit(benchmark::kMillisecond);

void BM_PrintMetrics(benchmark::State& state) {
   Population pop(state.range(0), 100);
   for (auto _ : state) {
      std::ostringstream os;
      pop.root->printMetrics(os);
      benchmark::DoNotOptimize(os.str().size());
   }
}
BENCHMARK(BM_PrintMetrics)->Arg(10000)->Unit(benchmark::kMillisecond);

void BM_PrintStatsBaseline(benchmark::State& state) {
   Population pop(state.range(0), 100);
   for (auto _ : state) {
      std::ostringstream os;
      pop.root->printStats(os, true, false, 0, 4294967295u, 4294967295u);
      benchmark::DoNotOptimize(os.str().size());
   }
}
BENCHMARK(BM_PrintStatsBaseline)->Arg(10000)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
