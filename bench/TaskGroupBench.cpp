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

#include "BenchTasks.h"

#include <benchmark/benchmark.h>

#include <vector>

namespace {

using KorvoBench::Repeater;
using KorvoBench::runBatches;

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
   KorvoBench::cpuPerRunIs(state, static_cast<double>(state.iterations() * state.range(0)));
   for (auto& t : tasks) {
      t->unscheduleTask();
   }
}
BENCHMARK(BM_TaskRunInSnapshotGroup)->Arg(1)->Arg(100);

}  // namespace

BENCHMARK_MAIN();
