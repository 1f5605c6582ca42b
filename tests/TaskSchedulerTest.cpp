#include "TaskTestSupport.h"
#include "TestPeer.h"

#include <Korvo/TaskScheduler.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <deque>
#include <random>
#include <string>
#include <vector>

using namespace KorvoTest;
using Korvo::TaskPriority;
using ::testing::HasSubstr;

namespace {

class TaskSchedulerTest : public SchedulerFixture {
protected:
   // Runs dispatches until one finds nothing; returns the names run, in order.
   std::vector<std::string> drain(int maxRuns = 10000) {
      std::vector<std::string> order;
      for (int i = 0; i < maxRuns && sched_->runnableTaskCount() > 0; ++i) {
         order.push_back(runOne());
      }
      return order;
   }
   std::string runOne() {
      lastRun_.clear();
      sched_->handleSchedulerRun();
      return lastRun_;
   }
   std::shared_ptr<LambdaTask> namedTask(TaskPriority p, const std::string& name,
                                         bool reschedule = false) {
      return makeTask(p, name, [this, reschedule](LambdaTask& self) {
         lastRun_ = self.taskName().str();
         if (reschedule) {
            self.scheduleTask();
         }
      });
   }

   std::string lastRun_;
};

// The pick rule, restated over plain deques: strict priority, first in first out,
// and after c picks in a row at high (normal) one lower task first once
// c * (8 * normal + low) > 64 * high  (c * low > 8 * normal).
class PickModel {
public:
   void schedule(int id, unsigned p) { queues_[p].push_back(id); }
   void unschedule(int id, unsigned p) {
      auto& q = queues_[p];
      q.erase(std::find(q.begin(), q.end(), id));
   }
   bool queued(int id, unsigned p) const {
      return std::find(queues_[p].begin(), queues_[p].end(), id) != queues_[p].end();
   }
   int pick(unsigned from = 0) {
      for (unsigned p = from; p < 5; ++p) {
         if (queues_[p].empty()) {
            picks_[p] = 0;
            continue;
         }
         if (bumps(p) && hasAnyBelow(p)) {
            const int lower = pick(p + 1);
            picks_[p] = 0;
            return lower;
         }
         ++picks_[p];
         const int id = queues_[p].front();
         queues_[p].pop_front();
         return id;
      }
      return -1;
   }

private:
   bool bumps(unsigned p) const {
      const uint32_t n1 = queues_[1].size(), n2 = queues_[2].size(), n3 = queues_[3].size();
      if (p == 1) {
         const uint32_t below = 8 * n2 + n3;
         return below != 0 && below * picks_[1] > 64 * n1;
      }
      if (p == 2) {
         return n3 != 0 && n3 * picks_[2] > 8 * n2;
      }
      return false;
   }
   bool hasAnyBelow(unsigned p) const {
      for (unsigned x = p + 1; x < 5; ++x) {
         if (!queues_[x].empty()) {
            return true;
         }
      }
      return false;
   }

   std::array<std::deque<int>, 5> queues_;
   std::array<uint32_t, 5> picks_{};
};

}  // namespace

// ---------------------------------------------------------------------------------
// Pick order

TEST_F(TaskSchedulerTest, TwoHighAndTenNormalGoHighNormalHigh) {
   std::vector<std::shared_ptr<LambdaTask>> tasks;
   for (int i = 0; i < 2; ++i) {
      tasks.push_back(namedTask(TaskPriority::high, "h" + std::to_string(i)));
   }
   for (int i = 0; i < 10; ++i) {
      tasks.push_back(namedTask(TaskPriority::normal, "n" + std::to_string(i)));
   }
   for (auto& t : tasks) {
      t->scheduleTask();
   }
   // Second pick: c = 1, 8 * 10 * 1 = 80 > 64 * 1 (one high task left).
   const auto order = drain();
   ASSERT_GE(order.size(), 3u);
   EXPECT_EQ(std::vector<std::string>(order.begin(), order.begin() + 3),
             (std::vector<std::string>{"h0", "n0", "h1"}));
   EXPECT_EQ(order.size(), 12u);
}

TEST_F(TaskSchedulerTest, ASelfReschedulingTaskLetsOneLowerTaskThroughAfterNineRuns) {
   auto high = namedTask(TaskPriority::high, "H", true);
   auto normal = namedTask(TaskPriority::normal, "N");
   high->scheduleTask();
   normal->scheduleTask();
   std::vector<std::string> order;
   for (int i = 0; i < 10; ++i) {
      order.push_back(runOne());
   }
   // 8 * 9 = 72 > 64, while at eight 64 is not greater than 64.
   std::vector<std::string> expected(9, "H");
   expected.push_back("N");
   EXPECT_EQ(order, expected);
   // The bump restarted the high count from zero: nine more before the next one.
   normal->scheduleTask();
   order.clear();
   for (int i = 0; i < 10; ++i) {
      order.push_back(runOne());
   }
   EXPECT_EQ(order, expected);
   // Without lower work the high task runs on and on.
   order.clear();
   for (int i = 0; i < 50; ++i) {
      order.push_back(runOne());
   }
   EXPECT_EQ(order, std::vector<std::string>(50, "H"));
   high->unscheduleTask();
}

TEST_F(TaskSchedulerTest, OneLevelDownNormalYieldsToLowAfterNineRuns) {
   auto normal = namedTask(TaskPriority::normal, "N", true);
   auto low = namedTask(TaskPriority::low, "L");
   normal->scheduleTask();
   low->scheduleTask();
   std::vector<std::string> order;
   for (int i = 0; i < 10; ++i) {
      order.push_back(runOne());
   }
   std::vector<std::string> expected(9, "N");
   expected.push_back("L");
   EXPECT_EQ(order, expected);
   normal->unscheduleTask();
}

TEST_F(TaskSchedulerTest, AbsoluteIsNeverPassedOverAndScavengeWaitsForEmptyQueues) {
   auto absolute = namedTask(TaskPriority::absolute, "A", true);
   auto low = namedTask(TaskPriority::low, "L");
   auto scavenge = namedTask(TaskPriority::scavenge, "S");
   absolute->scheduleTask();
   low->scheduleTask();
   scavenge->scheduleTask();
   for (int i = 0; i < 200; ++i) {
      ASSERT_EQ(runOne(), "A");
   }
   absolute->unscheduleTask();
   auto normal = namedTask(TaskPriority::normal, "N", true);
   normal->scheduleTask();
   // Scavenge work never counts toward a bump; low gets through, scavenge does not.
   std::vector<std::string> order;
   for (int i = 0; i < 30; ++i) {
      order.push_back(runOne());
   }
   EXPECT_EQ(std::count(order.begin(), order.end(), "L"), 1);
   EXPECT_EQ(std::count(order.begin(), order.end(), "S"), 0);
   normal->unscheduleTask();
   EXPECT_EQ(drain(), (std::vector<std::string>{"S"}));
   EXPECT_EQ(runOne(), "");  // nothing left: the scheduler goes idle
   EXPECT_FALSE(sched_->schedulerHasRunnableTasks());
}

TEST_F(TaskSchedulerTest, FirstInFirstOutAndSelfReschedulingGoesToTheTail) {
   auto a = namedTask(TaskPriority::normal, "a", true);
   auto b = namedTask(TaskPriority::normal, "b");
   auto c = namedTask(TaskPriority::normal, "c");
   a->scheduleTask();
   b->scheduleTask();
   c->scheduleTask();
   EXPECT_EQ(runOne(), "a");
   EXPECT_EQ(runOne(), "b");
   EXPECT_EQ(runOne(), "c");
   EXPECT_EQ(runOne(), "a");
   a->unscheduleTask();
}

// Random schedules of self-rescheduling and one-shot tasks across all priorities,
// checked pick by pick against the model.
TEST_F(TaskSchedulerTest, PickOrderMatchesTheReferenceModel) {
   for (unsigned seed = 1; seed <= 12; ++seed) {
      std::mt19937 gen(seed);
      PickModel model;
      std::vector<std::shared_ptr<LambdaTask>> tasks;
      std::vector<unsigned> priorities;
      std::vector<bool> selfRescheduling;
      int lastRun = -1;
      const int taskCount = 6 + static_cast<int>(gen() % 20);
      for (int id = 0; id < taskCount; ++id) {
         const unsigned p = gen() % 5;
         const bool again = gen() % 3 == 0;
         priorities.push_back(p);
         selfRescheduling.push_back(again);
         tasks.push_back(makeTask(TaskPriority(p), "t" + std::to_string(id),
                                  [&, id, p, again](LambdaTask& self) {
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
         if (op < 4) {
            tasks[id]->scheduleTask();
            if (!model.queued(id, priorities[id])) {
               model.schedule(id, priorities[id]);
            }
         } else if (op < 5) {
            tasks[id]->unscheduleTask();
            if (model.queued(id, priorities[id])) {
               model.unschedule(id, priorities[id]);
            }
         } else {
            lastRun = -1;
            sched_->handleSchedulerRun();
            const int expected = model.pick();
            ASSERT_EQ(lastRun, expected) << "seed " << seed << " step " << step;
         }
         uint32_t queued = 0;
         for (int i = 0; i < taskCount; ++i) {
            queued += tasks[i]->taskScheduled();
         }
         ASSERT_EQ(sched_->runnableTaskCount(), queued);
      }
      for (auto& t : tasks) {
         t->unscheduleTask();
      }
      sched_->handleSchedulerRun();
   }
}

TEST_F(TaskSchedulerTest, BumpRuleArithmetic) {
   std::vector<std::shared_ptr<LambdaTask>> tasks;
   auto queue = [&](TaskPriority p, int n) {
      for (int i = 0; i < n; ++i) {
         tasks.push_back(makeTask(p, "x"));
         tasks.back()->scheduleTask();
      }
   };
   queue(TaskPriority::high, 2);
   queue(TaskPriority::normal, 1);
   queue(TaskPriority::low, 3);
   queue(TaskPriority::scavenge, 50);
   // high: (8 * 1 + 3) * c > 64 * 2 first at c = 12.
   EXPECT_FALSE(sched_->attemptLowerPriorityBump(TaskPriority::high, 11));
   EXPECT_TRUE(sched_->attemptLowerPriorityBump(TaskPriority::high, 12));
   // normal: 3 * c > 8 * 1 first at c = 3.
   EXPECT_FALSE(sched_->attemptLowerPriorityBump(TaskPriority::normal, 2));
   EXPECT_TRUE(sched_->attemptLowerPriorityBump(TaskPriority::normal, 3));
   for (auto p : {TaskPriority::absolute, TaskPriority::low, TaskPriority::scavenge}) {
      EXPECT_FALSE(sched_->attemptLowerPriorityBump(p, 1000000));
   }
   EXPECT_EQ(sched_->pickOneTask(sched_->lastRunAt(), TaskPriority::oneBeyondLast), nullptr);
   for (auto& t : tasks) {
      t->unscheduleTask();
   }
   // Nothing below: never bumps.
   queue(TaskPriority::normal, 1);
   EXPECT_FALSE(sched_->attemptLowerPriorityBump(TaskPriority::normal, 1000000));
   tasks.back()->unscheduleTask();
}

// ---------------------------------------------------------------------------------
// Runs, requests and snapshots

TEST_F(TaskSchedulerTest, RunRequestsFollowTheRunnableState) {
   auto a = namedTask(TaskPriority::normal, "a");
   auto b = namedTask(TaskPriority::normal, "b");
   a->scheduleTask();
   EXPECT_EQ(sched_->runRequests, 1);  // the first task into an idle scheduler asks
   b->scheduleTask();
   EXPECT_EQ(sched_->runRequests, 1);
   // schedule a, schedulerRunnable, busy a, schedule b, busy b (newest first below)
   EXPECT_EQ(root_->history()->event(3).display(), "schedulerRunnable testSched");
   FakeClock::advance(3ms);
   runOne();
   EXPECT_EQ(sched_->runRequests, 2);  // every run asks for the next
   EXPECT_EQ(sched_->schedulerLatencyHighWaterMark(), 3ms);
   runOne();
   EXPECT_EQ(sched_->runRequests, 3);  // even with the queues now empty
   EXPECT_TRUE(sched_->schedulerHasRunnableTasks());
   EXPECT_EQ(runOne(), "");  // the next finds nothing and goes idle
   EXPECT_EQ(sched_->runRequests, 3);
   EXPECT_FALSE(sched_->schedulerHasRunnableTasks());
   EXPECT_EQ(root_->history()->event(0).display(), "schedulerIdle testSched");
   a->scheduleTask();
   EXPECT_EQ(sched_->runRequests, 4);

   FakeClock::advance(7ms);
   EXPECT_EQ(sched_->checkSchedulerLatency(), 7ms);
   EXPECT_EQ(sched_->schedulerLatencyHighWaterMark(), 7ms);
   a->unscheduleTask();
}

TEST_F(TaskSchedulerTest, SnapshotKeepsNewSchedulesForTheNextRound) {
   auto a = namedTask(TaskPriority::normal, "a", true);
   auto b = namedTask(TaskPriority::normal, "b");
   auto c = namedTask(TaskPriority::normal, "c");
   auto h = namedTask(TaskPriority::high, "h");
   a->scheduleTask();
   b->scheduleTask();
   sched_->taskRunQueuesMovePersistentToTemporary();
   EXPECT_TRUE(Korvo::TestPeer::snapshotActive(sched_->taskRunQueue(TaskPriority::normal)));
   c->scheduleTask();         // goes to the persistent queue, not into the snapshot
   EXPECT_EQ(runOne(), "a");  // a reschedules itself: persistent queue too
   EXPECT_EQ(sched_->runnableTaskCount(TaskPriority::normal), 3u);
   sched_->taskRunQueuesMoveTemporaryToPersistent();
   // Leftovers of the snapshot (b) come first, then what was scheduled meanwhile.
   h->scheduleTask();
   EXPECT_EQ(drain(4), (std::vector<std::string>{"h", "b", "c", "a"}));
   a->unscheduleTask();

   sched_->taskRunQueuesMovePersistentToTemporary();
   b->scheduleTask();
   sched_->taskRunQueuesMoveTemporaryToPersistent();
   b->unscheduleTask();

   // A second snapshot while one holds tasks is a broken invariant.
   b->scheduleTask();
   auto& queue = sched_->taskRunQueue(TaskPriority::normal);
   queue.movePersistentToTemporary();
   c->scheduleTask();
   EXPECT_THAT(assertionText([&] { queue.movePersistentToTemporary(); }),
               HasSubstr("The temporary run queue should always be empty at this point"));
   queue.moveTemporaryToPersistent();
   EXPECT_EQ(drain(), (std::vector<std::string>{"b", "c"}));
}

// ---------------------------------------------------------------------------------
// Registration, counts and dead tasks

TEST_F(TaskSchedulerTest, RegistrationMisuseFails) {
   auto t = namedTask(TaskPriority::normal, "t");
   EXPECT_THAT(assertionText([&] { sched_->taskRegister(t.get()); }),
               HasSubstr(" already registered"));
   t->scheduleTask();
   EXPECT_THAT(assertionText([&] { sched_->taskUnregister(t.get()); }),
               HasSubstr(" scheduled on unregister"));
   t->unscheduleTask();
   sched_->taskUnregister(t.get());
   EXPECT_THAT(assertionText([&] { sched_->taskUnregister(t.get()); }),
               AllOf(HasSubstr("Task: testSched:normal:t@"), HasSubstr(" not registered")));
   EXPECT_EQ(sched_->deadTaskStatForTest("t").taskDeadCount(), 1u);  // folded once
   EXPECT_THAT(assertionText([&] { sched_->tasksPerPriorityDec(TaskPriority::low); }),
               HasSubstr("Priority: low count: 0"));
   EXPECT_THAT(assertionText([&] { sched_->runnableTaskCount(TaskPriority(5u)); }), HasSubstr("5"));
   EXPECT_THAT(assertionText([&] { sched_->runTaskCount(TaskPriority(6u)); }), HasSubstr("6"));
   sched_->taskRegister(t.get());  // let the destructor unregister it normally
}

TEST_F(TaskSchedulerTest, CountsTrackQueuedAndDispatchedTasks) {
   auto a = namedTask(TaskPriority::high, "a");
   auto b = namedTask(TaskPriority::high, "b");
   auto c = namedTask(TaskPriority::low, "c");
   a->scheduleTask();
   b->scheduleTask();
   c->scheduleTask();
   EXPECT_EQ(sched_->runnableTaskCount(TaskPriority::high), 2u);
   EXPECT_EQ(sched_->runnableTaskCount(), 3u);
   b->unscheduleTask();
   EXPECT_EQ(sched_->runnableTaskCount(TaskPriority::high), 1u);
   drain();
   EXPECT_EQ(sched_->runTaskCount(TaskPriority::high), 1u);
   EXPECT_EQ(sched_->runTaskCount(TaskPriority::low), 1u);
   EXPECT_EQ(sched_->runnableTaskCount(), 0u);
   EXPECT_EQ(sched_->tasksPerPriority(TaskPriority::high), 2u);
   Korvo::TaskScheduler::PriorityCounts counts;
   sched_->_tasksPerPriority(&counts);
   EXPECT_EQ(counts.size(), 2u);  // only priorities that ever had a task
   EXPECT_EQ(counts[TaskPriority::low], 1u);
   sched_->clearStats();
   EXPECT_EQ(sched_->runTaskCount(TaskPriority::high), 0u);
   a->scheduleTask();
   drain();
   EXPECT_EQ(sched_->runTaskCount(TaskPriority::high), 1u);
}

TEST_F(TaskSchedulerTest, DeadTasksAreFoldedByStatsName) {
   auto a = namedTask(TaskPriority::normal, "worker1");
   auto b = namedTask(TaskPriority::normal, "worker2");
   auto quiet = namedTask(TaskPriority::normal, "quiet");
   a->taskStatsNameIs("worker");
   b->taskStatsNameIs("worker");
   quiet->includeInDeadTaskIs(false);
   a->scheduleTask();
   b->scheduleTask();
   b->taskWorkCountInc(5);
   drain();
   EXPECT_EQ(sched_->tasksPerPriority(TaskPriority::normal), 3u);
   a.reset();
   b.reset();
   quiet.reset();
   const Korvo::TaskStat dead = sched_->deadTaskStatForTest("worker");
   EXPECT_EQ(dead.taskDeadCount(), 2u);
   EXPECT_EQ(dead.taskRunCount(), 2u);
   EXPECT_EQ(dead.taskWorkCountTotal(), 5u);
   EXPECT_EQ(dead.taskName().str(), "worker");
   EXPECT_EQ(sched_->deadTaskStatForTest("quiet").taskDeadCount(), 0u);
   // A task kept out of the dead record also stays in the live count.
   EXPECT_EQ(sched_->tasksPerPriority(TaskPriority::normal), 1u);
   EXPECT_EQ(sched_->deadTasksPerPriority(TaskPriority::normal), 2u);
   std::vector<Korvo::TaskStat> stats;
   sched_->getDeadTaskStats(&stats, true);
   ASSERT_EQ(stats.size(), 1u);
   EXPECT_EQ(stats[0].taskDeadCount(), 2u);
   sched_->clearStats();
   EXPECT_EQ(sched_->deadTaskStatForTest("worker").taskDeadCount(), 0u);
   EXPECT_EQ(sched_->deadTasksPerPriority(TaskPriority::normal), 0u);
}

TEST_F(TaskSchedulerTest, LiveStatisticsAndTestLookups) {
   auto a = namedTask(TaskPriority::high, "alpha");
   auto b = namedTask(TaskPriority::low, "beta");
   a->scheduleTask();
   std::vector<Korvo::TaskStat> stats{Korvo::TaskStat()};
   sched_->getTaskStats(&stats, false);  // appends
   ASSERT_EQ(stats.size(), 3u);
   EXPECT_EQ(stats[1].taskName().str(), "alpha");
   EXPECT_EQ(stats[1].taskStatusString(), " H");
   EXPECT_EQ(stats[2].taskStatusString(), " l");
   sched_->getTaskStats(&stats, true);
   EXPECT_EQ(stats.size(), 2u);
   EXPECT_EQ(sched_->taskForTest("beta"), b);
   EXPECT_EQ(sched_->taskForTest("gamma"), nullptr);
   EXPECT_EQ(sched_->taskStatForTest("alpha").taskKey(), Korvo::TaskKey(a.get()));
   EXPECT_EQ(sched_->taskStatForTest("gamma").taskName().str(), "");
   a->unscheduleTask();
}

// ---------------------------------------------------------------------------------
// Statistics reset

TEST_F(TaskSchedulerTest, ClearStatsResetsEveryTaskAtOnce) {
   auto a = namedTask(TaskPriority::normal, "a");
   auto b = namedTask(TaskPriority::high, "b");
   for (auto* t : {a.get(), b.get()}) {
      t->scheduleTask();
      t->taskWorkCountInc(3);
      t->taskWorkPendingIs(4);
   }
   FakeClock::advance(2ms);
   drain();
   sched_->clearStats();
   for (auto* t : {a.get(), b.get()}) {
      EXPECT_EQ(t->taskRunCount(), 0u);
      EXPECT_EQ(t->taskWorkCountTotal(), 0u);
      EXPECT_EQ(t->taskWorkPending(), 0u);
      EXPECT_FALSE(t->taskWorkPendingHighWaterMark().hasValue());
      EXPECT_EQ(t->taskLastSchedulingLatency(), 0ms);
      EXPECT_EQ(t->resetCalls, 1);
   }
   EXPECT_EQ(sched_->schedulerLatencyHighWaterMark(), 0ms);
}

namespace {
// A task whose statistics take 10 ms of fake time to reset.
struct SlowReset : LambdaTask {
   using LambdaTask::LambdaTask;
   void handleResetStats() override {
      ++resetCalls;
      FakeClock::advance(10ms);
   }
};
}  // namespace

TEST_F(TaskSchedulerTest, ResetStatsWalksWithABookmarkWhileTasksComeAndGo) {
   std::vector<std::shared_ptr<SlowReset>> tasks;
   for (int i = 0; i < 7; ++i) {
      tasks.push_back(
          Korvo::makeShared<SlowReset>(sched_, TaskPriority::normal, "s" + std::to_string(i)));
      tasks.back()->taskWorkCountInc(1);
   }
   EXPECT_FALSE(sched_->resetStatsInProgress());
   sched_->resetStats();
   EXPECT_TRUE(sched_->resetStatsInProgress());
   EXPECT_TRUE(root_->resetStatsInProgress());  // the root looks at its schedulers too
   auto resetTask = sched_->taskForTest("testSched;ResetStats");
   ASSERT_NE(resetTask, nullptr);
   EXPECT_EQ(resetTask->taskPriority(), TaskPriority::normal);
   EXPECT_TRUE(resetTask->taskScheduled());
   EXPECT_EQ(sched_->registeredTasks().count(), 8u);

   sched_->handleSchedulerRun();  // resets s0 and s1, pauses before s2
   EXPECT_EQ(tasks[1]->resetCalls, 1);
   EXPECT_EQ(tasks[2]->resetCalls, 0);
   EXPECT_TRUE(sched_->resetStatsInProgress());
   // The bookmark holds the place but is not a task.
   EXPECT_EQ(sched_->registeredTasks().count(), 8u);
   EXPECT_EQ(root_->totalRegisteredTaskCount(), 8u);
   // Tasks come and go around the bookmark.
   tasks[2].reset();
   tasks[0].reset();
   tasks.push_back(Korvo::makeShared<SlowReset>(sched_, TaskPriority::normal, "late"));
   tasks.back()->taskWorkCountInc(1);
   int runs = 1;
   while (sched_->resetStatsInProgress() && runs < 100) {
      sched_->handleSchedulerRun();
      ++runs;
   }
   EXPECT_FALSE(sched_->resetStatsInProgress());
   EXPECT_FALSE(root_->resetStatsInProgress());
   EXPECT_EQ(runs, 4);
   for (auto& t : tasks) {
      if (t != nullptr) {
         EXPECT_EQ(t->resetCalls, 1) << t->taskName();
         EXPECT_FALSE(t->taskWorkCountHighWaterMark().hasValue()) << t->taskName();
      }
   }
   // The walk reset itself too, then counted the tasks of its last run as work.
   EXPECT_TRUE(resetTask->taskWorkCountHighWaterMark().hasValue());
   EXPECT_EQ(sched_->registeredTasks().count(), 7u);
   // A later reset reuses the same task.
   sched_->resetStats();
   EXPECT_EQ(sched_->taskForTest("testSched;ResetStats"), resetTask);
   while (sched_->resetStatsInProgress()) {
      sched_->handleSchedulerRun();
   }
   EXPECT_EQ(tasks[1]->resetCalls, 2);
}

TEST_F(TaskSchedulerTest, ResetStatsYieldsBetweenTasksAndResumesAtTheBookmark) {
   std::vector<std::shared_ptr<SlowReset>> slow;
   for (int i = 0; i < 5; ++i) {
      slow.push_back(
          Korvo::makeShared<SlowReset>(sched_, TaskPriority::normal, "s" + std::to_string(i)));
   }
   sched_->resetStats();
   // Per run: reset one (10 ms), not yet at the quantum, reset a second (20 ms), yield.
   std::vector<int> resetAfterRun;
   while (sched_->resetStatsInProgress()) {
      sched_->handleSchedulerRun();
      int total = 0;
      for (auto& s : slow) {
         total += s->resetCalls;
      }
      resetAfterRun.push_back(total);
   }
   EXPECT_EQ(resetAfterRun, (std::vector<int>{2, 4, 5}));
   for (auto& s : slow) {
      EXPECT_EQ(s->resetCalls, 1);
   }
}
