#include "TaskTestSupport.h"
#include "TestPeer.h"

#include <Korvo/TaskGroup.h>

#include <deque>
#include <random>
#include <stdexcept>

using namespace KorvoTest;
using Korvo::TaskGroup;
using Queues = std::deque<int>[TaskPriority::count];

namespace {

using TaskGroupTest = SchedulerFixture;

// A leaf's k-th run: runs `ms`, then maybe reschedules itself and another leaf (-1: none).
struct Action {
   int ms, again, other;
};

// Schedulers and tasks as plain queues. Scheduler 0 is the top one, g + 1 is group g;
// nodes are the leaves, then one parent task per group.
struct Model {
   struct Sched {
      Queues queue, temporary;
      bool snapshot = false, runnable = false, multi = true;
      int parentNode = -1;
      long quantumMs = 0;
   };
   struct Node {
      int sched, priority, group;  // group -1: a leaf
   };
   std::vector<Sched> scheds;
   std::vector<Node> nodes;
   std::vector<std::vector<Action>> actions;
   std::vector<int> runs, log, queued;
   std::vector<unsigned long> workCount, lastPending;
   long nowMs = 0;

   void schedule(int n) {
      Sched& s = scheds[nodes[n].sched];
      if (std::exchange(queued[n], 1)) {
         return;
      }
      s.queue[nodes[n].priority].push_back(n);
      if (!std::exchange(s.runnable, true) && s.parentNode >= 0) {
         schedule(s.parentNode);  // the group asks its parent for a turn
      }
   }
   void unschedule(int n) {
      Sched& s = scheds[nodes[n].sched];
      for (auto* q : {&s.queue[nodes[n].priority], &s.temporary[nodes[n].priority]}) {
         q->erase(std::remove(q->begin(), q->end(), n), q->end());
      }
      queued[n] = 0;
   }
   void dispatch(Sched& s) {
      for (auto& q : s.snapshot ? s.temporary : s.queue) {
         if (!q.empty()) {
            const int n = q.front();
            q.pop_front();
            queued[n] = 0;
            run(n);
            if (s.parentNode >= 0) {
               schedule(s.parentNode);  // every run asks for the next
            }
            return;
         }
      }
      s.runnable = false;
   }
   void run(int n) {
      const int k = runs[n]++;
      if (nodes[n].group >= 0) {
         return turn(nodes[n].group, nowMs);
      }
      log.push_back(n);
      const Action& a = actions[n][k % actions[n].size()];
      nowMs += a.ms;
      if (a.again) {
         schedule(n);
      }
      if (a.other >= 0) {
         schedule(a.other);
      }
   }
   void turn(int g, long startMs) {
      Sched& s = scheds[g + 1];
      if (!s.multi) {
         std::swap(s.queue, s.temporary);
         s.snapshot = true;
      }
      unsigned long count = 0;
      while (s.runnable) {
         ++count;
         dispatch(s);
         if (nowMs - startMs >= s.quantumMs) {
            break;
         }
      }
      std::size_t pending = 0;
      for (int p = 0; p < int(TaskPriority::count); ++p) {
         s.temporary[p].insert(s.temporary[p].end(), s.queue[p].begin(), s.queue[p].end());
         s.queue[p].swap(s.temporary[p]);
         s.temporary[p].clear();
         pending += s.queue[p].size();
      }
      s.snapshot = false;
      workCount[g] += count;
      lastPending[g] = pending;
      if (pending == 0) {
         s.runnable = false;
         unschedule(s.parentNode);
      } else if (s.multi) {
         EXPECT_TRUE(queued[s.parentNode] && s.runnable);
      } else {
         schedule(s.parentNode);
         s.runnable = true;
      }
   }
};

}  // namespace

// Random leaves in four groups, one nested two deep, against the model: the same runs
// in the same order and time, the same work counts, and each parent task queued
// exactly while its group has runnable work.
TEST_F(TaskGroupTest, TurnsMatchAReferenceModel) {
   const TaskPriority priorities[] = {TaskPriority::absolute, TaskPriority::low,
                                      TaskPriority::scavenge};  // never bumped: strict order
   const int groupParent[] = {-1, -1, 0, 2};                    // 2 inside 0, 3 inside 2
   const int groupCount = 4, leavesPerSched = 4, leafCount = leavesPerSched * (groupCount + 1);
   for (unsigned seed = 1; seed <= 40; ++seed) {
      std::mt19937 rng(seed);
      auto pick = [&](int n) { return static_cast<int>(rng() % n); };
      Model m;
      m.scheds.resize(groupCount + 1);
      std::vector<std::shared_ptr<Korvo::TaskScheduler>> scheds{sched_};
      std::vector<std::shared_ptr<TaskGroup>> groups;
      for (int g = 0; g < groupCount; ++g) {
         groups.push_back(TaskGroup::TaskGroupIs("g" + std::to_string(g), priorities[pick(3)],
                                                 false, scheds[groupParent[g] + 1]));
         scheds.push_back(groups[g]);
         Model::Sched& s = m.scheds[g + 1];
         s.multi = pick(2) == 0;
         s.quantumMs = 1 + pick(40);
         s.parentNode = leafCount + g;
         groups[g]->tasksPermittedMultipleRunsIs(s.multi);
         groups[g]->taskGroupQuantumIs(std::chrono::milliseconds(s.quantumMs));
      }
      std::vector<std::shared_ptr<LambdaTask>> leaves;
      std::vector<int> real;  // the runs of the leaves, beside the model's
      for (int n = 0; n < leafCount; ++n) {
         m.actions.emplace_back();
         for (int k = 0; k < 8; ++k) {
            m.actions[n].push_back({pick(12), pick(5) < 2, pick(4) == 0 ? pick(leafCount) : -1});
         }
         const TaskPriority p = priorities[pick(3)];
         m.nodes.push_back({n / leavesPerSched, int(p.value()), -1});
         leaves.push_back(Korvo::makeShared<LambdaTask>(
             scheds[n / leavesPerSched], p, "leaf", [&, n](LambdaTask& t) {
                real.push_back(n);
                const Action& a = m.actions[n][(t.runs - 1) % m.actions[n].size()];
                FakeClock::advance(std::chrono::milliseconds(a.ms));
                if (a.again) {
                   t.scheduleTask();
                }
                if (a.other >= 0) {
                   leaves[a.other]->scheduleTask();
                }
             }));
      }
      for (int g = 0; g < groupCount; ++g) {
         m.nodes.push_back({groupParent[g] + 1, int(groups[g]->taskGroupPriority().value()), g});
      }
      m.queued.assign(m.nodes.size(), 0);
      m.runs.assign(m.nodes.size(), 0);
      m.workCount.assign(groupCount, 0);
      m.lastPending.assign(groupCount, 0);
      for (int step = 0; step < 150; ++step) {
         for (int k = pick(3); k > 0; --k) {
            const int n = pick(leafCount);
            leaves[n]->scheduleTask();
            m.schedule(n);
         }
         const Korvo::TaskTimePoint start = FakeClock::now();
         real.clear();
         sched_->handleSchedulerRun();
         m.log.clear();
         m.nowMs = 0;
         m.dispatch(m.scheds[0]);
         ASSERT_EQ(real, m.log) << "seed " << seed << " step " << step;
         ASSERT_EQ(FakeClock::now() - start, std::chrono::milliseconds(m.nowMs)) << seed;
         for (int g = 0; g < groupCount; ++g) {
            ASSERT_EQ(groups[g]->parentTaskScheduled(), m.queued[leafCount + g] != 0) << seed;
            ASSERT_EQ(groups[g]->parentTaskScheduled(), groups[g]->runnableTaskCount() != 0);
         }
      }
      for (int g = 0; g < groupCount; ++g) {
         EXPECT_EQ(groups[g]->parentTaskRunCount(), unsigned(m.runs[leafCount + g]));
         EXPECT_EQ(groups[g]->parentTask()->taskWorkCountTotal(), m.workCount[g]);
         EXPECT_EQ(groups[g]->parentTask()->taskWorkPending(), m.lastPending[g]);
      }
      leaves.clear();
      groups.clear();
      scheds.clear();
      EXPECT_EQ(root_->taskGroupCount(), 1u);  // the test scheduler alone
   }
}

TEST_F(TaskGroupTest, StandsInItsParentAsOneTask) {
   auto g = TaskGroup::TaskGroupIs("flows", TaskPriority::high, true, sched_);
   EXPECT_THAT(assertionText([&] { makeTask(TaskPriority::low, "odd", {}, g); }),
               HasSubstr("taskPriority( low ) != taskGroupPriority( high )"));
   g->taskGroupQuantumNoCheckIs(2s);
   // Forced yield of the group, or of any of its tasks, reaches the parent task.
   auto a = makeTask(
       TaskPriority::high, "a", [](LambdaTask& t) { t.scheduleTask(); }, g);
   auto b = makeTask(TaskPriority::high, "b", {}, g);
   g->taskGroupForceYieldInTestIs(true);
   a->scheduleTask();
   b->scheduleTask();
   sched_->handleSchedulerRun();
   EXPECT_EQ(a->runs + b->runs, 1);  // one child per turn
   g->taskGroupForceYieldInTestIs(false);
   b->taskForceYieldInTestIs(true);
   EXPECT_EQ(g->parentTask()->taskTestYieldRatio(), 1);
   b->taskForceYieldInTestIs(false);
   // Resetting the parent task's statistics resets the group's, through the group's
   // own reset task (exempt from the priority check).
   a->bodyIs({});
   g->taskGroupRunFromTest();
   sched_->clearStats();
   drain(*sched_);
   EXPECT_EQ(a->taskRunCount(), 0u);
   EXPECT_FALSE(root_->resetStatsInProgress() || g->parentTaskScheduled());
}

TEST_F(TaskGroupTest, SurvivesAThrowingChildAndDiesCleanlyInItsOwnTurn) {
   auto g = TaskGroup::TaskGroupIs("doomed", TaskPriority::normal, false, sched_);
   g->tasksPermittedMultipleRunsIs(false);
   auto thrower = makeTask(
       TaskPriority::normal, "thrower", [](auto&) { throw std::runtime_error("child failed"); }, g);
   auto later = makeTask(TaskPriority::low, "later", {}, g);
   thrower->scheduleTask();
   later->scheduleTask();
   EXPECT_THROW(sched_->handleSchedulerRun(), std::runtime_error);
   // The snapshot has ended, and the group is still queued for its remaining work.
   EXPECT_FALSE(Korvo::TestPeer::snapshotActive(g->taskRunQueue(TaskPriority::low)));
   sched_->handleSchedulerRun();
   EXPECT_EQ(later->runs, 1);
   // The last task drops the last references to itself, and so to the group, during
   // the group's turn: the group goes when the turn ends.
   std::weak_ptr<TaskGroup> weak = g;
   g.reset();
   thrower.reset();
   later->bodyIs([&](LambdaTask&) { later.reset(); });
   later->scheduleTask();
   sched_->handleSchedulerRun();
   EXPECT_TRUE(weak.expired());
   EXPECT_EQ(root_->findSchedulerForTest("doomed"), nullptr);
   EXPECT_EQ(sched_->deadTaskStatForTest("TaskGroup;doomed").taskDeadCount(), 1u);
}
