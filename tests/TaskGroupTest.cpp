#include "TaskTestSupport.h"
#include "TestPeer.h"

#include <Korvo/TaskGroup.h>

#include <algorithm>
#include <array>
#include <random>
#include <stdexcept>

using namespace KorvoTest;
using Korvo::TaskGroup;

namespace {

using TaskGroupTest = SchedulerFixture;
constexpr int kGroups = 4, kLeavesPerSched = 4, kLeaves = kLeavesPerSched * (kGroups + 1);

// A leaf's k-th run: runs so many ms, then maybe schedules a leaf, itself or another
// (-1: none).
std::pair<int, int> actionOf(unsigned seed, int leaf, int k) {
   std::mt19937 r(seed * 100003 + leaf * 1009 + k);
   return {int(r() % 12), r() % 5 < 2 ? leaf : r() % 3 == 0 ? kGroups + int(r() % kLeaves) : -1};
}

// Schedulers as lists in arrival order: a pick takes the first task of the highest
// priority (none is bumped here). Scheduler 0 is the top one, g + 1 is group g; nodes
// are the parent tasks of the groups, then the leaves.
struct Model {
   struct Sched {
      std::vector<int> queue{}, snapshot{};  // a snapshot turn reads only `snapshot`
      bool runnable = false, multi = true;
      int parentNode = -1, quantumMs = 0;
      unsigned long work = 0, pending = 0;  // dispatches, even those finding nothing
   };
   unsigned seed;
   std::vector<Sched> scheds{kGroups + 1};
   // Per node, but `log`: the leaves in the order they ran.
   std::vector<int> schedOf{}, priority{}, log{}, runs = std::vector<int>(kGroups + kLeaves);
   long nowMs = 0;

   bool queued(int n) {
      const Sched& s = scheds[schedOf[n]];
      return std::ranges::count(s.queue, n) + std::ranges::count(s.snapshot, n) != 0;
   }
   void schedule(int n) {
      Sched& s = scheds[schedOf[n]];
      if (queued(n))
         return;
      s.queue.push_back(n);
      if (!std::exchange(s.runnable, true) && s.parentNode >= 0)
         schedule(s.parentNode);  // the group asks its parent for a turn
   }
   void dispatch(Sched& s) {
      ++s.work;
      auto& q = s.multi ? s.queue : s.snapshot;
      const auto it = std::ranges::min_element(q, {}, [&](int n) { return priority[n]; });
      s.runnable = it != q.end();  // a dispatch that finds nothing ends the turn
      if (!s.runnable)
         return;
      const int n = *it;
      q.erase(it);
      ++runs[n];
      n < kGroups ? turn(scheds[n + 1]) : leafRun(n);
      if (s.parentNode >= 0)
         schedule(s.parentNode);  // every run asks for the next
   }
   void leafRun(int n) {
      const auto [ms, next] = actionOf(seed, n, runs[n] - 1);
      log.push_back(n);
      nowMs += ms;
      if (next >= 0)
         schedule(next);
   }
   void turn(Sched& s) {
      const long startMs = nowMs;
      if (!s.multi)
         std::swap(s.queue, s.snapshot);
      // Until a dispatch finds nothing or the quantum is spent.
      for (bool more = s.runnable; more; more = s.runnable && nowMs - startMs < s.quantumMs)
         dispatch(s);
      // Left over from the snapshot first, then what came during the turn.
      s.snapshot.insert(s.snapshot.end(), s.queue.begin(), s.queue.end());
      s.queue = std::exchange(s.snapshot, {});
      s.pending = s.queue.size();
      s.runnable = s.pending != 0;
      if (s.runnable)
         schedule(s.parentNode);  // still queued, unless a snapshot ran dry
      else
         std::erase(scheds[schedOf[s.parentNode]].queue, s.parentNode);
   }
};

}  // namespace

// Random leaves in four groups, one nested two deep, against the model: the same runs
// in the same order and time, the same counts, and each parent task queued exactly
// while its group has runnable work.
TEST_F(TaskGroupTest, TurnsMatchAReferenceModel) {
   const int groupParent[] = {0, 0, 1, 3};  // 2 inside 0, 3 inside 2
   for (unsigned seed = 1; seed <= 40; ++seed) {
      std::mt19937 rng(seed);
      auto pick = [&](int n) { return static_cast<int>(rng() % n); };
      Model m{.seed = seed};
      std::vector<std::shared_ptr<Korvo::TaskScheduler>> scheds{sched_};
      std::vector<std::shared_ptr<Korvo::Task>> tasks;  // by node
      std::vector<int> real;                            // the leaf runs, beside the model's
      for (int n = 0; n < kGroups + kLeaves; ++n) {
         m.schedOf.push_back(n >= kGroups ? (n - kGroups) / kLeavesPerSched : groupParent[n]);
         m.priority.push_back(std::array{0, 3, 4}[pick(3)]);  // never bumped: strict order
         const TaskPriority p(unsigned(m.priority.back()));
         if (n >= kGroups) {
            tasks.push_back(makeTask(
                p, "leaf",
                [&, n](LambdaTask& t) {
                   const auto [ms, next] = actionOf(seed, n, t.runs - 1);
                   real.push_back(n);
                   FakeClock::advance(std::chrono::milliseconds(ms));
                   if (next >= 0)
                      tasks[next]->scheduleTask();
                },
                scheds[m.schedOf.back()]));
            continue;
         }
         Model::Sched& s = m.scheds[n + 1];
         s = {.multi = pick(2) == 0, .parentNode = n, .quantumMs = 1 + pick(40)};
         auto group = TaskGroup::TaskGroupIs("g", p, false, scheds[groupParent[n]]);
         group->tasksPermittedMultipleRunsIs(s.multi);
         group->taskGroupQuantumIs(std::chrono::milliseconds(s.quantumMs));
         scheds.push_back(group);
         tasks.push_back(group->parentTask());
      }
      const Korvo::TaskTimePoint start = FakeClock::now();
      for (int step = 0; step < 150; ++step) {
         for (int k = pick(3); k > 0; --k) {
            const int n = kGroups + pick(kLeaves);
            tasks[n]->scheduleTask();
            m.schedule(n);
         }
         sched_->handleSchedulerRun();
         m.dispatch(m.scheds[0]);
         ASSERT_EQ(real, m.log) << "seed " << seed << " step " << step;
         ASSERT_EQ(FakeClock::now() - start, std::chrono::milliseconds(m.nowMs)) << seed;
         for (int g = 0; g < kGroups; ++g) {
            ASSERT_EQ(tasks[g]->taskScheduled(), m.queued(g)) << seed << " group " << g;
            ASSERT_EQ(tasks[g]->taskScheduled(), scheds[g + 1]->runnableTaskCount() != 0);
            ASSERT_EQ(tasks[g]->taskRunCount(), unsigned(m.runs[g]));
            ASSERT_EQ(tasks[g]->taskWorkCountTotal(), m.scheds[g + 1].work);
            ASSERT_EQ(tasks[g]->taskWorkPending(), m.scheds[g + 1].pending);
         }
      }
   }
   EXPECT_EQ(root_->taskGroupCount(), 1u);  // the test scheduler alone: the groups are gone
}

// A group in its parent: one task at the group's priority, which forced yields and
// statistics resets reach; a throwing child ends a snapshot turn and leaves the group
// queued for the rest; a group whose last references go during its own turn goes when
// the turn ends.
TEST_F(TaskGroupTest, StandsInItsParentAsOneTask) {
   auto g = TaskGroup::TaskGroupIs("flows", TaskPriority::high, true, sched_);
   EXPECT_THAT(assertionText([&] { makeTask(TaskPriority::low, "odd", {}, g); }),
               HasSubstr("taskPriority( low ) != taskGroupPriority( high )"));
   g->taskGroupQuantumNoCheckIs(2s);
   auto a = makeTask(g->taskGroupPriority(), "a", {}, g);
   auto b = makeTask(g->parentTask()->taskPriority(), "b", {}, g);
   g->taskGroupForceYieldInTestIs(true);
   a->scheduleTask();
   b->scheduleTask();
   sched_->handleSchedulerRun();
   EXPECT_EQ(a->runs + b->runs, int(g->parentTaskRunCount()));  // one child per turn
   g->taskGroupForceYieldInTestIs(false);
   b->taskForceYieldInTestIs(true);
   EXPECT_EQ(g->parentTask()->taskTestYieldRatio(), 1);
   b->taskForceYieldInTestIs(false);
   // The group's own reset task is exempt from the priority check.
   g->taskGroupRunFromTest();
   sched_->clearStats();
   drain(*sched_);
   EXPECT_EQ(a->taskRunCount(), 0u);
   EXPECT_FALSE(root_->resetStatsInProgress() || g->parentTaskScheduled());
   g->tasksPermittedMultipleRunsIs(false);
   a->bodyIs([](auto&) { throw std::runtime_error("child failed"); });
   b->bodyIs([&](LambdaTask&) { b.reset(); });
   a->scheduleTask();
   b->scheduleTask();
   EXPECT_THROW(sched_->handleSchedulerRun(), std::runtime_error);
   EXPECT_FALSE(Korvo::TestPeer::snapshotActive(g->taskRunQueue(TaskPriority::high)));
   const std::weak_ptr<TaskGroup> weak = std::exchange(g, nullptr);
   a.reset();
   sched_->handleSchedulerRun();
   EXPECT_TRUE(weak.expired() && root_->findSchedulerForTest("flows") == nullptr);
   EXPECT_EQ(sched_->deadTaskStatForTest("TaskGroup;flows").taskDeadCount(), 1u);
}
