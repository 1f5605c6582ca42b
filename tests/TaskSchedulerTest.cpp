#include "TaskTestSupport.h"

#include <array>
#include <deque>
#include <random>

using namespace KorvoTest;

namespace {

using TaskSchedulerTest = SchedulerFixture;

// The pick rule, restated over plain deques: strict priority, first in first out,
// and after c picks in a row at high (normal) one lower task first once
// c * (8 * normal + low) > 64 * high  (c * low > 8 * normal).
struct PickModel {
   void schedule(int id, unsigned p) {
      if (std::ranges::count(queues[p], id) == 0)
         queues[p].push_back(id);
   }
   int pick(unsigned p = 0) {
      while (p < 5 && queues[p].empty())
         picks[p++] = 0;
      if (p == 5)
         return -1;
      const uint32_t n1 = queues[1].size(), n2 = queues[2].size(), n3 = queues[3].size();
      if ((p == 1 && (8 * n2 + n3) * picks[1] > 64 * n1) || (p == 2 && n3 * picks[2] > 8 * n2)) {
         picks[p] = 0;
         return pick(p + 1);
      }
      ++picks[p];
      const int id = queues[p].front();
      queues[p].pop_front();
      return id;
   }
   std::array<std::deque<int>, 5> queues;
   std::array<uint32_t, 5> picks{};
};

// A task whose statistics take 10 ms of fake time to reset.
struct SlowReset : LambdaTask {
   using LambdaTask::LambdaTask;
   void handleResetStats() override {
      ++resetCalls;
      FakeClock::advance(10ms);
   }
};

}  // namespace

// Random schedules of self-rescheduling and one-shot tasks across all priorities,
// checked pick by pick against the model.
TEST_F(TaskSchedulerTest, PickOrderMatchesTheReferenceModel) {
   for (unsigned seed = 1; seed <= 12; ++seed) {
      std::mt19937 gen(seed);
      PickModel model;
      auto sched = Korvo::makeShared<TestScheduler>("pick", root_);  // no picks counted yet
      std::vector<std::shared_ptr<LambdaTask>> tasks;
      int lastRun = -1;
      const int taskCount = 6 + static_cast<int>(gen() % 20);
      for (int id = 0; id < taskCount; ++id) {
         auto body = [&, id](LambdaTask& self) {
            lastRun = id;
            if (id % 3 == 0)  // every third task queues itself again
               self.scheduleTask();
         };
         tasks.push_back(makeTask(TaskPriority(gen() % 5), "t", body, sched));
      }
      for (int step = 0; step < 3000; ++step) {
         const unsigned op = gen() % 10;
         const int id = static_cast<int>(gen() % taskCount);
         const unsigned p = tasks[id]->taskPriority().value();
         if (op < 4) {
            tasks[id]->scheduleTask();
            model.schedule(id, p);
         } else if (op < 5) {
            tasks[id]->unscheduleTask();
            std::erase(model.queues[p], id);
         } else {
            const int expected = model.pick();
            if (expected % 3 == 0)  // its run queues it again
               model.schedule(expected, tasks[expected]->taskPriority().value());
            lastRun = -1;
            sched->handleSchedulerRun();
            ASSERT_EQ(lastRun, expected) << "seed " << seed << " step " << step;
         }
         ASSERT_EQ(sched->runnableTaskCount(),
                   std::ranges::count_if(tasks, [](auto& t) { return t->taskScheduled(); }));
      }
   }
}

TEST_F(TaskSchedulerTest, MisuseFailsWithItsMessage) {
   auto t = makeTask(TaskPriority::normal, "t");
   auto gone = makeTask(TaskPriority::low, "gone");
   gone->handleDestroy();  // unregistered early
   auto& queue = sched_->taskRunQueue(TaskPriority::normal);
   t->scheduleTask();
   queue.movePersistentToTemporary();  // a dispatch's snapshot, holding t
   const std::pair<std::function<void()>, const char*> cases[] = {
       {[&] { sched_->taskRegister(t.get()); }, " already registered"},
       {[&] { sched_->taskUnregister(t.get()); }, " scheduled on unregister"},
       {[&] { queue.movePersistentToTemporary(); },
        "The temporary run queue should always be empty at this point"},
       {[&] { sched_->tasksPerPriorityDec({}); }, "Priority: absolute count: 0"},
       {[&] { sched_->runTaskCount(TaskPriority(6u)); }, "6"},
       {[&] { t->taskQuantumIs(1s + 1ns); }, "Quantum: 1000000001"},
       {[&] { t->taskQuantumNoCheckIs(-5ns); }, "Quantum: -5"},
       {[&] { sched_->taskUnregister(gone.get()); }, " not registered"},
   };
   for (const auto& [call, message] : cases)
      EXPECT_THAT(assertionText(call), HasSubstr(message));
   queue.moveTemporaryToPersistent();
}

TEST_F(TaskSchedulerTest, CountsAndStatisticsOfLiveAndDeadTasks) {
   auto a = makeTask(TaskPriority::high, "worker1"), b = makeTask(TaskPriority::high, "worker2");
   auto c = makeTask(TaskPriority::low, "c"), quiet = makeTask(TaskPriority::normal, "quiet");
   a->taskStatsNameIs("worker"), b->taskStatsNameIs("worker");
   quiet->includeInDeadTaskIs(false);
   a->scheduleTask();
   b->taskWorkCountInc(5);
   std::vector<Korvo::TaskStat> stats{Korvo::TaskStat()};
   sched_->getTaskStats(&stats, false);  // appends
   ASSERT_EQ(stats.size(), 5u);
   EXPECT_EQ(sched_->taskStatForTest("c").taskKey(), Korvo::TaskKey(c.get()));
   EXPECT_EQ(sched_->taskStatForTest("?").taskName().str(), "");
   EXPECT_EQ(sched_->deadTaskStatForTest("?").taskName().str(), "");
   b->scheduleTask(), c->scheduleTask();
   drain(*sched_);
   a.reset(), b.reset(), quiet.reset();
   const Korvo::TaskStat dead = sched_->deadTaskStatForTest("worker");
   EXPECT_EQ(std::tuple(dead.taskDeadCount(), dead.taskRunCount(), dead.taskWorkCountTotal()),
             std::tuple(2u, 2u, 5ul));
   // A task kept out of the dead record also stays in the live count.
   EXPECT_EQ(sched_->tasksPerPriority(TaskPriority::normal), 1u);
   EXPECT_EQ(sched_->deadTasksPerPriority(TaskPriority::high), 2u);
   sched_->getDeadTaskStats(&stats, true);
   EXPECT_EQ(stats.size(), 1u);
   sched_->clearStats();
   EXPECT_EQ(sched_->runTaskCount(TaskPriority::low), 0u);
   EXPECT_EQ(sched_->deadTasksPerPriority(TaskPriority::high), 0u);
   EXPECT_EQ(c->resetCalls, 1);
   EXPECT_FALSE(c->taskWorkPendingHighWaterMark().hasValue());
   EXPECT_EQ(c->taskWorkCountDecayAverage(), 0.0f);
}

// The reset task walks the registered tasks, resetting them until its quantum
// (20 ms: two slow tasks) is used, and keeps its place with a bookmark.
TEST_F(TaskSchedulerTest, ResetStatsWalksWithABookmarkWhileTasksComeAndGo) {
   std::vector<std::shared_ptr<SlowReset>> tasks;
   auto add = [&](const std::string& name) {
      tasks.push_back(Korvo::makeShared<SlowReset>(sched_, TaskPriority::normal, name));
      tasks.back()->taskWorkCountInc(1);
   };
   for (int i = 0; i < 7; ++i)
      add("s" + std::to_string(i));
   auto inRoot = makeTask(TaskPriority::low, "inRoot", {}, root_);
   sched_->resetStats();
   EXPECT_TRUE(root_->resetStatsInProgress());  // the root looks at its schedulers too
   sched_->handleSchedulerRun();
   EXPECT_EQ(tasks[1]->resetCalls - tasks[2]->resetCalls, 1);
   // The bookmark holds the place but is not a task.
   EXPECT_EQ(root_->totalRegisteredTaskCount(), 9u);
   tasks[2].reset(), tasks[0].reset();
   add("late");
   int runs = 1;
   for (; sched_->resetStatsInProgress(); ++runs)
      sched_->handleSchedulerRun();
   EXPECT_EQ(runs, 4);
   for (auto& t : tasks)
      EXPECT_TRUE(!t || (t->resetCalls == 1 && !t->taskWorkCountHighWaterMark().hasValue()));
   // The walk reset itself too, then counted the tasks of its last run as work.
   EXPECT_TRUE(
       sched_->taskForTest("testSched;ResetStats")->taskWorkCountHighWaterMark().hasValue());
}
