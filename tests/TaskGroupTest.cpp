#include "TaskTestSupport.h"

#include <Korvo/TaskGroup.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <deque>
#include <random>
#include <sstream>
#include <stdexcept>

using namespace KorvoTest;
using Korvo::TaskGroup;
using Korvo::TaskPriority;

namespace {

class TaskGroupTest : public SchedulerFixture {
protected:
   std::shared_ptr<TaskGroup> group(const std::string& name, TaskPriority p = TaskPriority::normal,
                                    bool check = false) {
      return TaskGroup::TaskGroupIs(name, p, check, sched_);
   }
   std::shared_ptr<LambdaTask> child(const std::shared_ptr<TaskGroup>& g, TaskPriority p,
                                     const std::string& name, LambdaTask::Body body = {}) {
      return Korvo::makeShared<LambdaTask>(g, p, name, std::move(body));
   }
};

// What a leaf task does on its k-th run: run for some time, then maybe reschedule
// itself and maybe schedule another leaf.
struct Action {
   int ms;
   bool again;
   int other;  // -1: none
};

// The turn of a group as plain queues. Schedulers: 0 is the top (the test
// scheduler), g + 1 is group g. Nodes: the leaves, then one parent task per group.
struct Model {
   struct Sched {
      std::deque<int> queue[TaskPriority::count], temporary[TaskPriority::count];
      bool snapshot = false, runnable = false, multi = true;
      int parentNode = -1;
      long quantumMs = 0;
   };
   struct Node {
      int sched, priority, group;  // group: -1 for a leaf
   };
   std::vector<Sched> scheds;
   std::vector<Node> nodes;
   std::vector<bool> queued;
   std::vector<std::vector<Action>>* actions;
   std::vector<int> runs, log;
   std::vector<unsigned long> workCount;
   std::vector<std::size_t> lastPending;
   long nowMs = 0;

   void schedule(int n) {
      if (queued[n]) {
         return;
      }
      queued[n] = true;
      Sched& s = scheds[nodes[n].sched];
      s.queue[nodes[n].priority].push_back(n);
      if (!s.runnable) {
         s.runnable = true;
         requestRun(s);
      }
   }
   void requestRun(Sched& s) {
      if (s.parentNode >= 0) {
         schedule(s.parentNode);
      }
   }
   void unschedule(int n) {
      Sched& s = scheds[nodes[n].sched];
      for (auto* q : {&s.queue[nodes[n].priority], &s.temporary[nodes[n].priority]}) {
         q->erase(std::remove(q->begin(), q->end(), n), q->end());
      }
      queued[n] = false;
   }
   void dispatch(Sched& s) {
      for (int p = 0; p < int(TaskPriority::count); ++p) {
         auto& q = s.snapshot ? s.temporary[p] : s.queue[p];
         if (!q.empty()) {
            const int n = q.front();
            q.pop_front();
            queued[n] = false;
            run(n);
            requestRun(s);
            return;
         }
      }
      s.runnable = false;
   }
   void run(int n) {
      ++runs[n];
      if (nodes[n].group >= 0) {
         turn(nodes[n].group, nowMs);
         return;
      }
      log.push_back(n);
      const Action& a = (*actions)[n][(runs[n] - 1) % (*actions)[n].size()];
      nowMs += a.ms;
      if (a.again) {
         schedule(n);
      }
      if (a.other >= 0) {
         schedule(a.other);
      }
   }
   std::size_t pending(const Sched& s) const {
      std::size_t n = 0;
      for (int p = 0; p < int(TaskPriority::count); ++p) {
         n += s.queue[p].size() + s.temporary[p].size();
      }
      return n;
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
      if (!s.multi) {
         for (int p = 0; p < int(TaskPriority::count); ++p) {
            s.temporary[p].insert(s.temporary[p].end(), s.queue[p].begin(), s.queue[p].end());
            s.queue[p].swap(s.temporary[p]);
            s.temporary[p].clear();
         }
         s.snapshot = false;
      }
      workCount[g] += count;
      lastPending[g] = pending(s);
      if (lastPending[g] == 0) {
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

// Random leaves in four groups, one nested two deep, against the model: the same
// runs in the same order, the same work counts, and each parent task queued exactly
// while its group has runnable work.
TEST_F(TaskGroupTest, TurnsMatchAReferenceModel) {
   const TaskPriority priorities[] = {TaskPriority::absolute, TaskPriority::low,
                                      TaskPriority::scavenge};  // never bumped: strict order
   for (unsigned seed = 1; seed <= 40; ++seed) {
      std::mt19937 rng(seed);
      auto pick = [&](int n) { return static_cast<int>(rng() % n); };
      const int groupParent[] = {-1, -1, 0, 2};  // group 2 inside 0, group 3 inside 2
      const int leavesPerSched = 4, groupCount = 4, leafCount = leavesPerSched * (groupCount + 1);
      Model m;
      std::vector<std::vector<Action>> actions(leafCount);
      m.actions = &actions;
      m.scheds.resize(groupCount + 1);
      std::vector<std::shared_ptr<TaskGroup>> groups;
      for (int g = 0; g < groupCount; ++g) {
         const TaskPriority p = priorities[pick(3)];
         auto parent = groupParent[g] < 0
                           ? std::shared_ptr<Korvo::TaskScheduler>(sched_)
                           : std::shared_ptr<Korvo::TaskScheduler>(groups[groupParent[g]]);
         groups.push_back(TaskGroup::TaskGroupIs("g" + std::to_string(g), p, false, parent));
         Model::Sched& s = m.scheds[g + 1];
         s.multi = pick(2) == 0;
         s.quantumMs = 1 + pick(40);
         groups[g]->tasksPermittedMultipleRunsIs(s.multi);
         groups[g]->taskGroupQuantumIs(std::chrono::milliseconds(s.quantumMs));
         s.parentNode = leafCount + g;
      }
      std::vector<std::shared_ptr<LambdaTask>> leaves;
      std::vector<int> realLog;
      for (int n = 0; n < leafCount; ++n) {
         const int schedIndex = n / leavesPerSched;
         const TaskPriority p = priorities[pick(3)];
         for (int k = 0; k < 8; ++k) {
            actions[n].push_back({pick(12), pick(5) < 2, pick(4) == 0 ? pick(leafCount) : -1});
         }
         auto owner = schedIndex == 0
                          ? std::shared_ptr<Korvo::TaskScheduler>(sched_)
                          : std::shared_ptr<Korvo::TaskScheduler>(groups[schedIndex - 1]);
         leaves.push_back(Korvo::makeShared<LambdaTask>(
             owner, p, "leaf" + std::to_string(n), [&, n](LambdaTask& t) {
                realLog.push_back(n);
                const Action& a = actions[n][(t.runs - 1) % actions[n].size()];
                FakeClock::advance(std::chrono::milliseconds(a.ms));
                if (a.again) {
                   t.scheduleTask();
                }
                if (a.other >= 0) {
                   leaves[a.other]->scheduleTask();
                }
             }));
         m.nodes.push_back({schedIndex, int(p.value()), -1});
      }
      for (int g = 0; g < groupCount; ++g) {
         const int parentSched = groupParent[g] + 1;
         m.nodes.push_back({parentSched, int(groups[g]->taskGroupPriority().value()), g});
      }
      m.queued.assign(m.nodes.size(), false);
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
         m.nowMs = 0;
         sched_->handleSchedulerRun();
         m.dispatch(m.scheds[0]);
         ASSERT_EQ(FakeClock::now() - start, std::chrono::milliseconds(m.nowMs)) << seed;
         ASSERT_EQ(realLog, m.log) << "seed " << seed << " step " << step;
         for (int g = 0; g < groupCount; ++g) {
            ASSERT_EQ(groups[g]->parentTaskScheduled(), m.queued[leafCount + g]) << seed;
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
      EXPECT_EQ(root_->taskGroupCount(), 1u);  // only the test scheduler is left
   }
}

TEST_F(TaskGroupTest, StandsInItsParentAsOneTask) {
   sched_->defaultTaskQuantumIs(7ms);
   auto g = group("flows", TaskPriority::high, true);
   EXPECT_EQ(g->parentTask()->taskName().str(), "TaskGroup;flows");
   EXPECT_EQ(g->parentTask()->taskScheduler(), sched_.get());
   EXPECT_EQ(g->parentTask()->taskPriority(), TaskPriority::high);
   EXPECT_EQ(g->defaultTaskQuantum(), 7ms);
   EXPECT_EQ(g->taskGroupQuantum(), 7ms);
   EXPECT_EQ(root_->findSchedulerForTest("flows"), g.get());
   EXPECT_THAT(assertionText([&] { child(g, TaskPriority::low, "odd"); }),
               ::testing::HasSubstr("taskPriority( low ) != taskGroupPriority( high )"));
   EXPECT_THAT(assertionText([&] { g->taskGroupQuantumIs(2s); }), ::testing::HasSubstr("Quantum"));
   g->taskGroupQuantumNoCheckIs(2s);
   EXPECT_EQ(g->taskGroupQuantum(), 2s);

   // Snapshot mode: a child that reschedules itself runs once per turn.
   auto a = child(g, TaskPriority::high, "a", [](LambdaTask& t) { t.scheduleTask(); });
   auto b = child(g, TaskPriority::high, "b");
   g->tasksPermittedMultipleRunsIs(false);
   EXPECT_FALSE(g->parentTaskScheduled());
   a->scheduleTask();
   b->scheduleTask();
   EXPECT_TRUE(g->parentTaskScheduled());
   sched_->handleSchedulerRun();
   EXPECT_EQ(a->runs, 1);
   EXPECT_EQ(b->runs, 1);
   EXPECT_TRUE(g->parentTaskScheduled());  // a waits for the next turn
   EXPECT_EQ(g->parentTask()->taskWorkPending(), 1u);
   sched_->handleSchedulerRun();
   EXPECT_EQ(a->runs, 2);
   // Drained: the group leaves its parent's queue.
   a->bodyIs({});
   sched_->handleSchedulerRun();
   EXPECT_FALSE(g->parentTaskScheduled());
   EXPECT_FALSE(g->schedulerHasRunnableTasks());
   EXPECT_EQ(g->parentTaskRunCount(), 3u);

   // Forced yield: of the group, or of any of its tasks, reaches the parent task.
   g->taskGroupForceYieldInTestIs(true);
   EXPECT_EQ(g->parentTask()->taskTestYieldRatio(), 1);
   a->scheduleTask();
   b->scheduleTask();
   sched_->handleSchedulerRun();
   EXPECT_EQ(a->runs + b->runs, 4 + 1);  // one child per turn
   g->taskGroupForceYieldInTestIs(false);
   EXPECT_EQ(g->parentTask()->taskTestYieldRatio(), 0);
   b->taskForceYieldInTestIs(true);
   EXPECT_EQ(g->parentTask()->taskTestYieldRatio(), 1);
   b->taskForceYieldInTestIs(false);
   EXPECT_EQ(g->parentTask()->taskTestYieldRatio(), 0);

   // Resetting the parent task's statistics resets the group's, through the group's
   // own reset task (exempt from the priority check).
   g->taskGroupRunFromTest();
   EXPECT_GT(a->taskRunCount(), 0u);
   sched_->clearStats();
   EXPECT_TRUE(g->resetStatsInProgress());
   EXPECT_TRUE(g->parentTaskScheduled());
   while (sched_->runnableTaskCount() != 0) {
      sched_->handleSchedulerRun();
   }
   EXPECT_FALSE(root_->resetStatsInProgress());
   EXPECT_EQ(a->resetCalls, 1);
   EXPECT_EQ(a->taskRunCount(), 0u);
}

TEST_F(TaskGroupTest, SurvivesAThrowingChildAndDiesCleanlyInItsOwnTurn) {
   auto g = group("doomed");
   g->tasksPermittedMultipleRunsIs(false);
   auto thrower = child(g, TaskPriority::normal, "thrower",
                        [](LambdaTask&) { throw std::runtime_error("child failed"); });
   auto later = child(g, TaskPriority::low, "later");
   thrower->scheduleTask();
   later->scheduleTask();
   EXPECT_THROW(sched_->handleSchedulerRun(), std::runtime_error);
   // The snapshot was ended and the group is still queued for its remaining work.
   EXPECT_FALSE(g->taskRunQueue(TaskPriority::low).snapshotActive());
   EXPECT_TRUE(g->parentTaskScheduled());
   sched_->handleSchedulerRun();
   EXPECT_EQ(later->runs, 1);
   EXPECT_FALSE(g->parentTaskScheduled());

   // The last task drops the last references to itself and to the group during the
   // group's turn: both go once the turn ends, the parent task once the parent's
   // dispatch ends.
   std::weak_ptr<TaskGroup> weak = g;
   g.reset();
   thrower.reset();
   later->bodyIs([&](LambdaTask&) { later.reset(); });
   later->scheduleTask();
   sched_->handleSchedulerRun();
   EXPECT_TRUE(weak.expired());
   EXPECT_EQ(root_->findSchedulerForTest("doomed"), nullptr);
   EXPECT_EQ(sched_->deadTaskStatForTest("TaskGroup;doomed").taskDeadCount(), 1u);
   EXPECT_EQ(sched_->runnableTaskCount(), 0u);
}
