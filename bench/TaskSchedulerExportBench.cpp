// Cost of the operator's exports. The timeline of a full history of 100,000 events
// (target: at most 50 ms), beside the history print of the same events as the
// baseline; the metrics over N live tasks and N/10 dead names, beside the statistics
// report of the same population.

#include "BenchTasks.h"

#include <benchmark/benchmark.h>

namespace {

using KorvoBench::Population;

void BM_WriteTimeline(benchmark::State& state) {
   Population(1000, static_cast<unsigned>(state.range(0)))
       .timeWrite(state, [](auto& root, auto& os) { root.writeTimeline(os); });
}
BENCHMARK(BM_WriteTimeline)->Arg(100000)->Unit(benchmark::kMillisecond);

void BM_PrintHistoryBaseline(benchmark::State& state) {
   Population(1000, static_cast<unsigned>(state.range(0)))
       .timeWrite(state, [](auto& root, auto& os) { root.printHistory(os, 4294967295u); });
}
BENCHMARK(BM_PrintHistoryBaseline)->Arg(100000)->Unit(benchmark::kMillisecond);

void BM_PrintMetrics(benchmark::State& state) {
   Population(state.range(0), 100).timeWrite(state, [](auto& root, auto& os) {
      root.printMetrics(os);
   });
}
BENCHMARK(BM_PrintMetrics)->Arg(10000)->Unit(benchmark::kMillisecond);

void BM_PrintStatsBaseline(benchmark::State& state) {
   Population(state.range(0), 100).timeWrite(state, [](auto& root, auto& os) {
      root.printStats(os, true, false, 0, 4294967295u, 4294967295u);
   });
}
BENCHMARK(BM_PrintStatsBaseline)->Arg(10000)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
