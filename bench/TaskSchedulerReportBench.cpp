// Cost of the statistics report: TaskSchedulerRoot::printStats() over N live tasks
// (every one has run, with work counts) and N/10 dead names, written to a string
// stream. Baseline: gathering the same records (getTaskStats/getDeadTaskStats)
// without printing. Target: 10,000 live and 1,000 dead in at most 20 ms, and linear
// apart from the sort.

#include "BenchTasks.h"

#include <benchmark/benchmark.h>

#include <vector>

namespace {

using KorvoBench::Population;

void BM_PrintStats(benchmark::State& state) {
   Population(state.range(0)).timeWrite(state, [](auto& root, auto& os) {
      root.printStats(os, true, false, 0, 4294967295u, 4294967295u);
   });
   state.SetComplexityN(state.range(0));
}
BENCHMARK(BM_PrintStats)->Arg(1000)->Arg(10000)->Unit(benchmark::kMillisecond)->Complexity();

void BM_GatherStatsOnly(benchmark::State& state) {
   Population pop(state.range(0));
   for (auto _ : state) {
      std::vector<Korvo::TaskStat> live;
      std::vector<Korvo::TaskStat> dead;
      pop.root->getTaskStats(&live, true);
      pop.root->getDeadTaskStats(&dead, true);
      benchmark::DoNotOptimize(live.size() + dead.size());
   }
}
BENCHMARK(BM_GatherStatsOnly)->Arg(1000)->Arg(10000)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
