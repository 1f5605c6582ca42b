// Cost of the statistics report: TaskSchedulerRoot::printStats() over N live tasks
// (every one has run, with work counts) and N/10 dead names, written to a string
// stream. Baseline: gathering the same records (getTaskStats/getDeadTaskStats)
// without printing. Target: 10,000 live and 1,000 dead in at most 20 ms, and linear
// apart from the sort.

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

   explicit Population(int64_t n) : root(Korvo::schedulerRootKorvoNonShared("report")) {
      const Korvo::TaskPriority priorities[] = {
          Korvo::TaskPriority::high, Korvo::TaskPriority::normal, Korvo::TaskPriority::low};
      for (int64_t i = 0; i < n + n / 10; ++i) {
         auto t = Korvo::makeShared<Worker>(root, priorities[i % 3],
                                            "subsystem;worker" + std::to_string(i));
         t->taskRunFromTest();
         live.push_back(std::move(t));
      }
      live.resize(static_cast<std::size_t>(n));  // the rest die: one dead name each
   }
};

void BM_PrintStats(benchmark::State& state) {
   Population pop(state.range(0));
   for (auto _ : state) {
      std::ostringstream os;
      pop.root->printStats(os, true, false, 0, 4294967295u, 4294967295u);
      benchmark::DoNotOptimize(os.str().size());
   }
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
