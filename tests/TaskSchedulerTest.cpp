#include "TaskTestSupport.h"

#include <array>
#include <deque>
#include <random>
#include <vector>

using namespace KorvoTest;

namespace {

using TaskSchedulerTest = SchedulerFixture;

// The pick rule, restated over plain deques: strict priority, first in first out,
// and after c picks in a row at high (normal) one lower task first once
// c * (8 * normal + low) > 64 * high  (c * low > 8 * normal).
class PickModel {
public:
   void schedule(int id, unsigned p) { queues_[p].push_back(id); }
   void unschedule(int id, unsigned p) { std::erase(queues_[p], id); }
   bool queued(int id, unsigned p) const {
      return std::count(queues_[p].begin(), queues_[p].end(), id);
   }
   int pick(unsigned from = 0) {
      for (unsigned p = from; p < 5; ++p) {
         if (queues_[p].empty()) {
            picks_[p] = 0;
         } else if (bumps(p)) {
            const int lower = pick(p + 1);
            picks_[p] = 0;
            return lower;
         } else {
            ++picks_[p];
            const int id = queues_[p].front();
            queues_[p].pop_front();
            return id;
         }
      }
      return -1;
   }

private:
   bool bumps(unsigned p) const {
      const uint32_t n1 = queues_[1].size(), n2 = queues_[2].size(), n3 = queues_[3].size();
      return (p == 1 && (8 * n2 + n3) * picks_[1] > 64 * n1) || (p == 2 && n3 * picks_[2] > 8 * n2);
   }

   std::array<std::deque<int>, 5> queues_;
   std::array<uint32_t, 5> picks_{};
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
      std::vector<std::shared_ptr<LambdaTask>> tasks;
      std::vector<unsigned> priorities;
      int lastRun = -1;
      const int taskCount = 6 + static_cast<int>(gen() % 20);
      for (int id = 0; id < taskCount; ++id) {
         const unsigned p = gen() % 5;
         const bool again = gen() % 3 == 0;
         priorities.push_back(p);
         tasks.push_back(makeTask(TaskPriority(p), "t", [&, id, p, again](LambdaTask& self) {
            lastRun = id;
            if (again) {
               self.scheduleTask();
               model.schedule(id, p);
            }
         }));
      }
      for (int step = 0; step < 3000; ++step) {
         const unsigned op = gen() % 10;
         const int id = static_cast<int>(gen() % taskCount);
         const bool queued = model.queued(id, priorities[id]);
         if (op < 4) {
            tasks[id]->scheduleTask();
            if (!queued) {
               model.schedule(id, priorities[id]);
            }
         } else if (op < 5) {
            tasks[id]->unscheduleTask();
            if (queued) {
               model.unschedule(id, priorities[id]);
            }
         } else {
            lastRun = -1;
            sched_->handleSchedulerRun();
            ASSERT_EQ(lastRun, model.pick()) << "seed " << seed << " step " << step;
         }
         uint32_t count = 0;
         for (auto& t : tasks) {
            count += t->taskScheduled();
         }
         ASSERT_EQ(sched_->runnableTaskCount(), count);
      }
      for (auto& t : tasks) {
         t->unscheduleTask();
      }
      sched_->handleSchedulerRun();  // idle: the next seed starts with no picks counted
   }
}

TEST_F(TaskSchedulerTest, BumpThresholds) {
   std::vector<std::shared_ptr<LambdaTask>> tasks;
   for (int i = 0; i < 56; ++i) {  // 2 high, 1 normal, 3 low, 50 scavenge
      tasks.push_back(makeTask(TaskPriority(i < 2 ? 1u : i < 3 ? 2u : i < 6 ? 3u : 4u), "x"));
      tasks.back()->scheduleTask();
   }
   // high: (8 * 1 + 3) * c > 64 * 2 first at c = 12; normal: 3 * c > 8 * 1 first at c = 3.
   EXPECT_FALSE(sched_->attemptLowerPriorityBump(TaskPriority::high, 11));
   EXPECT_TRUE(sched_->attemptLowerPriorityBump(TaskPriority::high, 12));
   EXPECT_FALSE(sched_->attemptLowerPriorityBump(TaskPriority::normal, 2));
   EXPECT_TRUE(sched_->attemptLowerPriorityBump(TaskPriority::normal, 3));
   for (auto p : {TaskPriority::absolute, TaskPriority::low, TaskPriority::scavenge}) {
      EXPECT_FALSE(sched_->attemptLowerPriorityBump(p, 1000000));
   }
   for (auto& t : tasks) {
      t->unscheduleTask();
   }
}

TEST_F(TaskSchedulerTest, RunRequestsAndLatencyFollowTheRunnableState) {
   auto a = makeTask(TaskPriority::normal, "a"), b = makeTask(TaskPriority::normal, "b");
   a->scheduleTask();
   b->scheduleTask();
   EXPECT_EQ(sched_->runRequests, 1);  // only the first task into an idle scheduler asks
   FakeClock::advance(3ms);
   // Every run asks for the next, even with the queues now empty; one finding nothing goes idle.
   for (int requests : {2, 3, 3}) {
      sched_->handleSchedulerRun();
      EXPECT_EQ(sched_->runRequests, requests);
   }
   EXPECT_EQ(lastEvent(), "schedulerIdle testSched");
   EXPECT_EQ(sched_->schedulerLatencyHighWaterMark(), 3ms);
   a->scheduleTask();
   EXPECT_EQ(sched_->runRequests, 4);
   FakeClock::advance(7ms);
   EXPECT_EQ(sched_->checkSchedulerLatency(), 7ms);
   EXPECT_EQ(sched_->schedulerLatencyHighWaterMark(), 7ms);
   a->unscheduleTask();
}

TEST_F(TaskSchedulerTest, SnapshotsAndRegistrationMisuse) {
   auto a = makeTask(TaskPriority::normal, "a"), b = makeTask(TaskPriority::normal, "b");
   auto& queue = sched_->taskRunQueue(TaskPriority::normal);
   a->scheduleTask();
   queue.movePersistentToTemporary();
   b->scheduleTask();  // to the persistent queue, not into the snapshot
   EXPECT_THAT(assertionText([&] { queue.movePersistentToTemporary(); }),
               HasSubstr("The temporary run queue should always be empty at this point"));
   queue.moveTemporaryToPersistent();
   EXPECT_THAT(assertionText([&] { sched_->taskRegister(a.get()); }),
               HasSubstr(" already registered"));
   EXPECT_THAT(assertionText([&] { sched_->taskUnregister(a.get()); }),
               HasSubstr(" scheduled on unregister"));
   drain(*sched_);
   EXPECT_EQ(a->runs + b->runs, 2);
   sched_->taskUnregister(a.get());
   EXPECT_THAT(assertionText([&] { sched_->taskUnregister(a.get()); }),
               AllOf(HasSubstr("Task: testSched:normal:a@"), HasSubstr(" not registered")));
   sched_->taskRegister(a.get());  // let the destructor unregister it normally
   EXPECT_THAT(assertionText([&] { sched_->tasksPerPriorityDec(TaskPriority::low); }),
               HasSubstr("Priority: low count: 0"));
   EXPECT_THAT(assertionText([&] { sched_->runTaskCount(TaskPriority(6u)); }), HasSubstr("6"));
}

TEST_F(TaskSchedulerTest, CountsAndStatisticsOfLiveAndDeadTasks) {
   auto a = makeTask(TaskPriority::high, "worker1"), b = makeTask(TaskPriority::high, "worker2");
   auto c = makeTask(TaskPriority::low, "c"), quiet = makeTask(TaskPriority::normal, "quiet");
   a->taskStatsNameIs("worker");
   b->taskStatsNameIs("worker");
   quiet->includeInDeadTaskIs(false);
   a->scheduleTask();
   b->taskWorkCountInc(5);
   std::vector<Korvo::TaskStat> stats{Korvo::TaskStat()};
   sched_->getTaskStats(&stats, false);  // appends
   ASSERT_EQ(stats.size(), 5u);
   EXPECT_EQ(stats[1].taskStatusString() + stats[2].taskStatusString(), " H h");
   EXPECT_EQ(sched_->taskStatForTest("c").taskKey(), Korvo::TaskKey(c.get()));
   b->scheduleTask();
   c->scheduleTask();
   drain(*sched_);
   EXPECT_EQ(sched_->runTaskCount(TaskPriority::high), 2u);
   a.reset();
   b.reset();
   quiet.reset();
   const Korvo::TaskStat dead = sched_->deadTaskStatForTest("worker");
   EXPECT_EQ(dead.taskName().str(), "worker");
   EXPECT_EQ(dead.taskDeadCount(), 2u);
   EXPECT_EQ(dead.taskRunCount(), 2u);
   EXPECT_EQ(dead.taskWorkCountTotal(), 5u);
   // A task kept out of the dead record also stays in the live count.
   EXPECT_EQ(sched_->tasksPerPriority(TaskPriority::normal), 1u);
   EXPECT_EQ(sched_->deadTasksPerPriority(TaskPriority::high), 2u);
   sched_->getDeadTaskStats(&stats, true);
   EXPECT_EQ(stats.size(), 1u);
   c->taskWorkPendingIs(4);
   sched_->clearStats();
   EXPECT_EQ(sched_->runTaskCount(TaskPriority::low), 0u);
   EXPECT_EQ(sched_->deadTasksPerPriority(TaskPriority::high), 0u);
   EXPECT_EQ(sched_->schedulerLatencyHighWaterMark(), 0ms);
   EXPECT_EQ(c->resetCalls, 1);
   EXPECT_FALSE(c->taskWorkPendingHighWaterMark().hasValue());
}

// The reset task walks the registered tasks, resetting them until its quantum
// (20 ms: two slow tasks) is used, and keeps its place with a bookmark.
TEST_F(TaskSchedulerTest, ResetStatsWalksWithABookmarkWhileTasksComeAndGo) {
   std::vector<std::shared_ptr<SlowReset>> tasks;
   auto add = [&](const std::string& name) {
      tasks.push_back(Korvo::makeShared<SlowReset>(sched_, TaskPriority::normal, name));
      tasks.back()->taskWorkCountInc(1);
   };
   for (int i = 0; i < 7; ++i) {
      add("s" + std::to_string(i));
   }
   auto inRoot = makeTask(TaskPriority::low, "inRoot", {}, root_);
   sched_->resetStats();
   EXPECT_TRUE(root_->resetStatsInProgress());  // the root looks at its schedulers too
   auto resetTask = sched_->taskForTest("testSched;ResetStats");
   sched_->handleSchedulerRun();
   EXPECT_EQ(tasks[1]->resetCalls - tasks[2]->resetCalls, 1);
   // The bookmark holds the place but is not a task.
   EXPECT_EQ(root_->totalRegisteredTaskCount(), 9u);
   tasks[2].reset();
   tasks[0].reset();
   add("late");
   int runs = 1;
   for (; sched_->resetStatsInProgress(); ++runs) {
      sched_->handleSchedulerRun();
   }
   EXPECT_EQ(runs, 4);
   for (auto& t : tasks) {
      EXPECT_TRUE(t == nullptr ||
                  (t->resetCalls == 1 && !t->taskWorkCountHighWaterMark().hasValue()));
   }
   // The walk reset itself too, then counted the tasks of its last run as work.
   EXPECT_TRUE(resetTask->taskWorkCountHighWaterMark().hasValue());
   sched_->resetStats();  // reuses the same task
   EXPECT_EQ(sched_->taskForTest("testSched;ResetStats"), resetTask);
   drain(*sched_);
   EXPECT_EQ(tasks[1]->resetCalls, 2);
}
