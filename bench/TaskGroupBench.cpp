// Cost of a child run inside a task group against the same task run directly under
// the root, both driven through doEventLoop() in the same program run.
//
// - BM_TaskRunUnderRoot (baseline): a task that reschedules itself, each run one
//   event-loop callback of the root.
// - BM_TaskRunInGroup: the same task in a group under the root (default mode, quantum
//   one second): the group's parent task runs the child's runs back to back within
//   its turns, so a child run costs the group's dispatch and one yield check.
// - BM_TaskRunInSnapshotGroup/N: N tasks in a group in snapshot mode, each queued
//   once per turn: one turn per batch of N child runs.

#include <Korvo/Allocator.h>
#include <Korvo/Platform.h>
#include <Korvo/TaskGroup.h>
#include <Korvo/TaskScheduler.h>

#include <benchmark/benchmark.h>

#include <vector>

namespace {

constexpr int runsPerBatch = 1000;

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

void runBatches(benchmark::State& state, Repeater& task) {
   task.remaining = 2;
   task.scheduleTask();
   Korvo::Platform::doEventLoop();  // warm up
   for (auto _ : state) {
      task.remaining = runsPerBatch;
      task.scheduleTask();
      Korvo::Platform::doEventLoop();
   }
   const double runs = static_cast<double>(state.iterations()) * runsPerBatch;
   state.counters["cpuPerRun"] =
       benchmark::Counter(runs, benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

void BM_TaskRunUnderRoot(benchmark::State& state) {
   auto root = Korvo::schedulerRootKorvoNonShared("bench");
   auto task = Korvo::makeShared<Repeater>(root, Korvo::TaskPriority::normal, "repeater");
   runBatches(state, *task);
}
BENCHMARK(BM_TaskRunUnderRoot);

void BM_TaskRunInGroup(benchmark::State& state) {
   auto root = Korvo::schedulerRootKorvoNonShared("bench");
   auto group = Korvo::TaskGroup::TaskGroupIs("group", Korvo::TaskPriority::normal, false, root);
   group->taskGroupQuantumIs(std::chrono::seconds(1));
   auto task = Korvo::makeShared<Repeater>(group, Korvo::TaskPriority::normal, "repeater");
   runBatches(state, *task);
}
BENCHMARK(BM_TaskRunInGroup);

class Once : public Korvo::Task {
public:
   using Task::Task;
   void taskExecute() override { scheduleTask(); }  // waits for the next turn
};

void BM_TaskRunInSnapshotGroup(benchmark::State& state) {
   auto root = Korvo::schedulerRootKorvoNonShared("bench");
   auto group = Korvo::TaskGroup::TaskGroupIs("group", Korvo::TaskPriority::normal, false, root);
   group->taskGroupQuantumIs(std::chrono::seconds(1));
   group->tasksPermittedMultipleRunsIs(false);
   std::vector<std::shared_ptr<Once>> tasks;
   for (int64_t i = 0; i < state.range(0); ++i) {
      tasks.push_back(Korvo::makeShared<Once>(group, Korvo::TaskPriority::normal, "once"));
      tasks.back()->scheduleTask();
   }
   for (auto _ : state) {
      root->handleSchedulerRun();  // one turn: every task once
   }
   const double runs = static_cast<double>(state.iterations() * state.range(0));
   state.counters["cpuPerRun"] =
       benchmark::Counter(runs, benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
   for (auto& t : tasks) {
      t->unscheduleTask();
   }
}
BENCHMARK(BM_TaskRunInSnapshotGroup)->Arg(1)->Arg(100);

}  // namespace

BENCHMARK_MAIN();
