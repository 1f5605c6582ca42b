#include "TaskTestSupport.h"
#include "TestPeer.h"

#include <Korvo/Debug.h>
#include <Korvo/Task.h>
#include <Korvo/TaskScheduler.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <new>
#include <sstream>

using namespace KorvoTest;
using Korvo::TaskDuration;
using Korvo::TaskImpl;
using Korvo::TaskMaybeU32;
using Korvo::TaskPriority;
using Korvo::TaskStat;
using ::testing::HasSubstr;
using ::testing::StartsWith;

namespace {

template <typename T>
std::string streamed(const T& value) {
   std::ostringstream os;
   os << value;
   return os.str();
}

class TaskTest : public SchedulerFixture {};

}  // namespace

// ---------------------------------------------------------------------------------
// Value types

TEST(TaskValueTest, PriorityNamesAndStreamForms) {
   Korvo::throwOnAssertFailIs(true);
   const char* names[] = {"absolute", "high", "normal", "low", "scavenge", "oneBeyondLast"};
   const char* letters[] = {"A", "H", "N", "L", "S", "-"};
   for (unsigned v = 0; v <= 5; ++v) {
      EXPECT_EQ(TaskPriority(v).toStrep(), names[v]);
      EXPECT_EQ(TaskPriority(v).oneCharString(), letters[v]);
   }
   EXPECT_EQ(streamed(TaskPriority(TaskPriority::normal)), "normal");
   EXPECT_EQ(streamed(TaskPriority::scavenge), "scavenge");
   // The count itself is not a priority when streamed, though toStrep() names it.
   EXPECT_EQ(streamed(TaskPriority(TaskPriority::oneBeyondLast)), "invalidPriority=5");
   EXPECT_EQ(streamed(TaskPriority(200u)), "invalidPriority=200");
   EXPECT_THAT(assertionText([] { TaskPriority(7u).toStrep(); }),
               AllOf(StartsWith("TaskSchedulerCpp:"), HasSubstr("unexpected priority value 7")));
   EXPECT_THAT(assertionText([] { TaskPriority(9u).oneCharString(); }),
               HasSubstr("unexpected priority 9"));
   EXPECT_LT(TaskPriority(TaskPriority::high), TaskPriority(TaskPriority::low));
   Korvo::throwOnAssertFailIs(false);
}

TEST(TaskValueTest, KeysCountersAndDurations) {
   int a = 0, b = 0;
   EXPECT_EQ(Korvo::TaskKey(&a).toStrep(), "@" + Korvo::DisplayPointer(&a).toString());
   EXPECT_EQ(Korvo::TaskKey(nullptr).toStrep(), "@NULL");
   EXPECT_FALSE(Korvo::TaskKey(&a) == Korvo::TaskKey(&b));

   TaskMaybeU32 m;
   EXPECT_FALSE(m.hasValue());
   EXPECT_EQ(m.value(), 0xFFFFFFFFu);
   m.raise(5);
   m.raise(3);
   EXPECT_EQ(m.value(), 5u);
   m.raise(0x1FFFFFFFFull);  // saturates one below "none"
   EXPECT_EQ(m.value(), 0xFFFFFFFEu);
   EXPECT_TRUE(m.hasValue());
   m.clear();
   m.raise(0);
   EXPECT_EQ(m.value(), 0u);

   using Korvo::DisplayDuration;
   EXPECT_EQ(DisplayDuration(TaskDuration(750)).toString(), "750ns");
   EXPECT_EQ(DisplayDuration(TaskDuration(12500)).toString(), "12.500us");
   EXPECT_EQ(DisplayDuration(std::chrono::milliseconds(19)).toString(), "19.000ms");
   EXPECT_EQ(DisplayDuration(std::chrono::milliseconds(2250)).toString(), "2.250000s");
   EXPECT_EQ(DisplayDuration(TaskDuration(-3000000)).toString(), "-3.000ms");
   EXPECT_EQ(streamed(DisplayDuration(TaskDuration(0))), "0ns");
}

TEST(TaskValueTest, StatusBitsAndStatusString) {
   using Status = TaskStat::TaskStatus;
   Status s;
   s.taskTimerIs(true);
   s.taskSuspendedIs(true);
   EXPECT_EQ(s.bits(), 0x11);
   s.bitmaskSetBit(0x01, false);
   EXPECT_FALSE(s.taskTimer());
   EXPECT_TRUE(s.bitmaskHasBitSet(0x10));

   auto statusString = [](TaskPriority p, unsigned char bits) {
      return TaskStat(Korvo::ConstStringRef(), Korvo::TaskKey(), p, 0, TaskDuration(0), 0, 0,
                      TaskMaybeU32(), 0, TaskMaybeU32(), 0, 0, TaskDuration(0), TaskDuration(0),
                      TaskDuration(0), Status(bits))
          .taskStatusString();
   };
   EXPECT_EQ(statusString(TaskPriority::normal, 0x04), " N");  // queued: upper case
   EXPECT_EQ(statusString(TaskPriority::normal, 0x00), " n");
   EXPECT_EQ(statusString(TaskPriority::high, 0x08 | 0x01 | 0x02), "*h");  // running beats timer
   EXPECT_EQ(statusString(TaskPriority::low, 0x10 | 0x01 | 0x04), "SL");   // suspended beats timer
   EXPECT_EQ(statusString(TaskPriority::scavenge, 0x01 | 0x02), "Ts");
   EXPECT_EQ(statusString(TaskPriority::absolute, 0x01 | 0x04), "tA");
}

TEST(TaskValueTest, FoldingRecordsSumsCountsAndKeepsMaxima) {
   using ms = std::chrono::milliseconds;
   auto record = [](uint32_t runs, int totalMs, uint64_t work, float avg, TaskMaybeU32 workMark,
                    uint32_t pending, uint32_t v500, uint32_t v200, int maxRunMs, int lastMs,
                    int maxLatencyMs) {
      return TaskStat(Korvo::ConstStringRef(), Korvo::TaskKey(), TaskPriority::normal, runs,
                      ms(totalMs), work, avg, workMark, pending, TaskMaybeU32(), v500, v200,
                      ms(maxRunMs), ms(lastMs), ms(maxLatencyMs), TaskStat::TaskStatus());
   };
   TaskMaybeU32 seven;
   seven.valueIs(7);
   TaskStat a = record(3, 30, 100, 2.0f, TaskMaybeU32(), 1, 1, 2, 12, 5, 9);
   a.taskDeadCountIs(1);
   TaskStat b = record(4, 40, 50, 3.0f, seven, 2, 0, 1, 11, 6, 8);
   b.taskDeadCountIs(1);
   a += b;
   EXPECT_EQ(a.taskRunCount(), 7u);
   EXPECT_EQ(a.taskTotalRunTime(), ms(70));
   EXPECT_EQ(a.taskWorkCountTotal(), 150u);
   EXPECT_FLOAT_EQ(a.taskWorkCountDecayAverage(), 5.0f);
   EXPECT_EQ(a.taskWorkCountHighWaterMark().value(), 7u);  // a value wins over "none"
   EXPECT_FALSE(a.taskWorkPendingHighWaterMark().hasValue());
   EXPECT_EQ(a.taskWorkPending(), 3u);
   EXPECT_EQ(a.taskQuantumViolation500(), 1u);
   EXPECT_EQ(a.taskQuantumViolation200(), 3u);
   EXPECT_EQ(a.taskRunTimeHighWaterMark(), ms(12));
   EXPECT_EQ(a.taskLastSchedulingLatency(), ms(6));
   EXPECT_EQ(a.taskSchedulingLatencyHighWaterMark(), ms(9));
   EXPECT_EQ(a.taskDeadCount(), 2u);
}

// ---------------------------------------------------------------------------------
// Construction and identity

TEST_F(TaskTest, ConstructionNamesRegistersAndMarksTheTask) {
   auto t = makeTask(TaskPriority::normal, "flush");
   EXPECT_EQ(t->taskName().str(), "flush");
   EXPECT_EQ(t->taskStatsName().elem(), t->taskName().elem());  // one cache entry
   EXPECT_EQ(t->taskShortName().str(), "N flush");
   EXPECT_EQ(t->taskPriority(), TaskPriority::normal);
   EXPECT_EQ(t->taskMagicNumber(), 0x42BE5AFEu);
   EXPECT_EQ(t->taskQuantum(), std::chrono::milliseconds(20));
   EXPECT_TRUE(t->includeInDeadTask());
   EXPECT_FALSE(t->taskScheduled());
   EXPECT_TRUE(t->taskRegisteredLink_.isLinked());
   EXPECT_EQ(sched_->tasksPerPriority(TaskPriority::normal), 1u);
   EXPECT_EQ(streamed(static_cast<const Korvo::_TaskBase*>(t.get())),
             "testSched:normal:flush@" + Korvo::DisplayPointer(t.get()).toString());
   EXPECT_EQ(streamed(t.get()), streamed(static_cast<const Korvo::_TaskBase*>(t.get())));
   EXPECT_EQ(root_->history()->event(0).display(), "create     flush");

   t->taskStatsNameIs("flushers");
   EXPECT_EQ(t->taskStatsName().str(), "flushers");
   EXPECT_EQ(t->taskName().str(), "flush");

   sched_->defaultTaskQuantumIs(std::chrono::milliseconds(5));
   EXPECT_EQ(makeTask(TaskPriority::low, "later")->taskQuantum(), std::chrono::milliseconds(5));
}

TEST_F(TaskTest, ConstructionNeedsAScheduler) {
   EXPECT_THAT(assertionText([] { LambdaTask orphan(nullptr, TaskPriority::normal, "orphan"); }),
               AllOf(StartsWith("TaskSchedulerCpp:"), HasSubstr("Need a TaskScheduler")));
   // The plain-pointer form takes shared ownership from the scheduler itself.
   struct PlainTask : Korvo::Task {
      using Task::Task;
      void taskExecute() override {}
   };
   PlainTask fromPointer(sched_.get(), TaskPriority::high, "fromPointer");
   EXPECT_EQ(fromPointer.taskSchedulerPtr(), sched_);
   TestScheduler unowned("unowned", root_);
   EXPECT_THROW(PlainTask(&unowned, TaskPriority::high, "x"), std::bad_weak_ptr);
}

// ---------------------------------------------------------------------------------
// Scheduling, suspension, busy

TEST_F(TaskTest, SchedulingTwiceQueuesOnceAndKeepsTheFirstTime) {
   auto t = makeTask(TaskPriority::normal, "t");
   t->scheduleTask();
   const auto firstAt = t->taskScheduledAt();
   FakeClock::advance(5ms);
   t->scheduleTask();
   EXPECT_EQ(t->taskScheduledAt(), firstAt);
   EXPECT_EQ(sched_->runnableTaskCount(TaskPriority::normal), 1u);
   FakeClock::advance(3ms);
   sched_->handleSchedulerRun();
   EXPECT_EQ(t->runs, 1);
   EXPECT_EQ(t->taskLastSchedulingLatency(), 8ms);
   EXPECT_EQ(t->taskSchedulingLatencyHighWaterMark(), 8ms);
   EXPECT_FALSE(t->taskScheduled());
   EXPECT_EQ(t->taskStatus().bits(), 0);

   // Unscheduling a queued task counts its wait so far as latency.
   t->scheduleTask();
   FakeClock::advance(2ms);
   EXPECT_TRUE(t->taskStatus().taskOnRunQueue());
   t->unscheduleTask();
   t->unscheduleTask();  // harmless when not queued
   EXPECT_EQ(t->taskLastSchedulingLatency(), 2ms);
   EXPECT_EQ(t->taskSchedulingLatencyHighWaterMark(), 8ms);
   EXPECT_EQ(sched_->runnableTaskCount(), 0u);
}

TEST_F(TaskTest, SuspendedTasksStayOffTheQueueAndUnsuspendingQueuesThem) {
   auto t = makeTask(TaskPriority::normal, "s");
   t->taskSuspendedIs(true);
   EXPECT_EQ(root_->history()->event(0).display(), "suspendOn  s");
   t->scheduleTask();
   EXPECT_FALSE(t->taskScheduled());
   // The label fills its 11 characters, so the name follows without a blank.
   EXPECT_EQ(root_->history()->event(0).display(), "scheduleSuss");
   EXPECT_TRUE(t->taskStatus().taskSuspended());
   t->taskSuspendedIs(false);
   EXPECT_TRUE(t->taskScheduled());

   // Never scheduled while suspended: unsuspending still makes it runnable.
   auto u = makeTask(TaskPriority::normal, "u");
   u->taskSuspendedIs(true);
   u->taskSuspendedIs(true);  // unchanged: nothing recorded
   EXPECT_EQ(root_->history()->event(0).display(), "suspendOn  u");
   u->taskSuspendedIs(false);
   EXPECT_TRUE(u->taskScheduled());

   // Suspending a queued task takes it off; suspending itself in its run works too.
   t->taskSuspendedIs(true);
   EXPECT_FALSE(t->taskScheduled());
   u->bodyIs([](LambdaTask& self) {
      self.scheduleTask();
      self.taskSuspendedIs(true);
   });
   sched_->handleSchedulerRun();
   EXPECT_EQ(u->runs, 1);
   EXPECT_FALSE(u->taskScheduled());
   EXPECT_FALSE(u->taskBusy());
   // taskRunFromTest ignores suspension.
   u->taskRunFromTest();
   EXPECT_EQ(u->runs, 2);
}

TEST_F(TaskTest, BusyFollowsPendingRuns) {
   auto t = makeTask(TaskPriority::normal, "b");
   t->scheduleTask();
   EXPECT_TRUE(t->taskBusy());
   EXPECT_EQ(t->busyChanges, 1);
   sched_->handleSchedulerRun();
   EXPECT_FALSE(t->taskBusy());
   EXPECT_EQ(t->busyChanges, 2);
   // A task that reschedules itself during its run stays busy: no change reported.
   t->bodyIs([](LambdaTask& self) { self.scheduleTask(); });
   t->scheduleTask();
   sched_->handleSchedulerRun();
   sched_->handleSchedulerRun();
   EXPECT_EQ(t->runs, 3);
   EXPECT_TRUE(t->taskBusy());
   EXPECT_EQ(t->busyChanges, 3);
   t->unscheduleTask();
   EXPECT_FALSE(t->taskBusy());
   EXPECT_EQ(t->busyChanges, 4);
   const auto& h = *root_->history();
   EXPECT_EQ(h.event(0).display(), "idle       b");
   EXPECT_EQ(h.event(1).display(), "unschedule b");
}

// ---------------------------------------------------------------------------------
// Quantum accounting and yielding

TEST_F(TaskTest, QuantumViolationsAreCountedAt200And500Percent) {
   TaskDuration runFor{0};
   auto t = makeTask(TaskPriority::normal, "q", [&](LambdaTask&) { FakeClock::advance(runFor); });
   t->taskQuantumIs(10ms);
   auto runOnce = [&](TaskDuration d) {
      runFor = d;
      t->scheduleTask();
      sched_->handleSchedulerRun();
   };
   runOnce(19ms);
   EXPECT_EQ(t->taskQuantumViolation200(), 0u);
   EXPECT_EQ(t->taskQuantumViolation500(), 0u);
   runOnce(20ms);
   EXPECT_EQ(t->taskQuantumViolation200(), 1u);
   runOnce(49ms);
   EXPECT_EQ(t->taskQuantumViolation200(), 2u);
   EXPECT_EQ(t->taskQuantumViolation500(), 0u);
   runOnce(50ms);
   EXPECT_EQ(t->taskQuantumViolation200(), 2u);
   EXPECT_EQ(t->taskQuantumViolation500(), 1u);
   runOnce(1ms);
   EXPECT_EQ(t->taskRunCount(), 5u);
   EXPECT_EQ(t->taskRunTimeHighWaterMark(), 50ms);
   EXPECT_EQ(t->taskTotalRunTime(), 139ms);

   const TaskStat s = t->getStats();
   EXPECT_EQ(s.taskRunCount(), 5u);
   EXPECT_EQ(s.taskQuantumViolation200(), 2u);
   EXPECT_EQ(s.taskQuantumViolation500(), 1u);
   EXPECT_EQ(s.taskTotalRunTime(), 139ms);
   EXPECT_EQ(s.taskKey(), Korvo::TaskKey(t.get()));
   EXPECT_EQ(s.taskDeadCount(), 0u);
}

TEST_F(TaskTest, QuantumSettersCheckTheirLimits) {
   auto t = makeTask(TaskPriority::normal, "q");
   t->taskQuantumIs(std::chrono::seconds(1));
   EXPECT_EQ(t->taskQuantum(), std::chrono::seconds(1));
   EXPECT_THAT(assertionText([&] { t->taskQuantumIs(std::chrono::seconds(1) + TaskDuration(1)); }),
               HasSubstr("Quantum: 1000000001"));
   EXPECT_THAT(assertionText([&] { t->taskQuantumNoCheckIs(TaskDuration(0)); }),
               HasSubstr("Quantum: 0"));
   EXPECT_THAT(assertionText([&] { t->taskQuantumNoCheckIs(TaskDuration(-5)); }),
               HasSubstr("Quantum: -5"));
   t->taskQuantumNoCheckIs(std::chrono::seconds(5));  // groups and tests may exceed a second
   EXPECT_EQ(t->taskQuantum(), std::chrono::seconds(5));
   EXPECT_EQ(t->taskQuantum(), std::chrono::seconds(5));
}

TEST_F(TaskTest, ShouldYieldInRealTimeComparesTheRunAgainstTheQuantum) {
   std::vector<bool> answers;
   auto t = makeTask(TaskPriority::normal, "y", [&](LambdaTask& self) {
      answers.push_back(self.taskShouldYield());
      FakeClock::advance(19ms);
      answers.push_back(self.taskShouldYield());
      FakeClock::advance(1ms);
      answers.push_back(self.taskShouldYield());
      FakeClock::advance(-25ms);  // a clock that went backwards yields
      answers.push_back(self.taskShouldYield());
   });
   EXPECT_EQ(assertionText([&] { t->taskShouldYield(); }), "");  // a task that never ran may ask
   t->scheduleTask();
   sched_->handleSchedulerRun();
   EXPECT_EQ(answers, (std::vector<bool>{false, false, true, true}));
   EXPECT_THAT(assertionText([&] { t->taskShouldYield(); }),
               HasSubstr("taskCurrentlyRunning: 0 taskRunCount: 1"));
}

TEST_F(TaskTest, TestYieldRatiosCountChecksAndOwnRatioWins) {
   std::vector<bool> answers;
   int checks = 4;
   auto t = makeTask(TaskPriority::normal, "r", [&](LambdaTask& self) {
      for (int i = 0; i < checks; ++i) {
         answers.push_back(self.taskShouldYield());
      }
   });
   auto runAndCollect = [&] {
      answers.clear();
      t->taskRunFromTest();
      return answers;
   };
   t->taskTestYieldRatioIs(1);
   EXPECT_EQ(t->taskShouldYieldMode(), TaskImpl::YieldMode::testYieldRatio);
   EXPECT_EQ(runAndCollect(), (std::vector<bool>{true, true, true, true}));
   t->taskTestYieldRatioIs(2);
   EXPECT_EQ(runAndCollect(), (std::vector<bool>{false, true, false, true}));
   checks = 1;
   EXPECT_EQ(runAndCollect(), (std::vector<bool>{false}));
   t->taskTestYieldRatioIs(3);  // a change restarts the count
   checks = 3;
   EXPECT_EQ(runAndCollect(), (std::vector<bool>{false, false, true}));
   EXPECT_EQ(root_->history()->event(1).display(), "run start  r");

   // The root's ratio applies to tasks without their own; the own ratio wins.
   auto other = makeTask(TaskPriority::normal, "o");
   root_->taskTestYieldRatioIs(1);
   EXPECT_EQ(other->taskTestYieldRatioEffective(), 1);
   EXPECT_EQ(t->taskTestYieldRatioEffective(), 3);
   t->taskTestYieldRatioIs(0);
   EXPECT_EQ(t->taskTestYieldRatioEffective(), 1);
   root_->taskTestYieldRatioIs(0);
   EXPECT_EQ(t->taskShouldYieldMode(), TaskImpl::YieldMode::realTime);
   EXPECT_EQ(other->taskTestYieldRatioEffective(), 0);
}

TEST_F(TaskTest, ForcedYieldSetNotifiesTheSchedulerOnEmptyTransitions) {
   auto a = makeTask(TaskPriority::normal, "a");
   auto b = makeTask(TaskPriority::normal, "b");
   a->taskForceYieldInTestIs(true);
   EXPECT_EQ(root_->history()->event(0).display(), "frcYieldOn a");
   EXPECT_EQ(sched_->forceYieldNotifications, 1);
   b->taskForceYieldInTestIs(true);
   EXPECT_EQ(sched_->forceYieldNotifications, 1);
   EXPECT_EQ(Korvo::TestPeer::taskForceYieldInTestCount(*sched_), 2u);
   a->taskForceYieldInTestIs(false);
   EXPECT_EQ(root_->history()->event(0).display(), "frcYieldOffa");
   EXPECT_EQ(sched_->forceYieldNotifications, 1);
   b.reset();  // a dying task leaves the set
   EXPECT_EQ(sched_->forceYieldNotifications, 2);
   EXPECT_EQ(Korvo::TestPeer::taskForceYieldInTestCount(*sched_), 0u);
   // Inherited from the root, too.
   root_->taskTestYieldRatioIs(4);
   EXPECT_EQ(Korvo::TestPeer::taskForceYieldInTestCount(*sched_), 1u);
   a.reset();
   EXPECT_EQ(Korvo::TestPeer::taskForceYieldInTestCount(*sched_), 0u);
}

TEST_F(TaskTest, VirtualTimeReachingATaskThrows) {
   auto t = makeTask(TaskPriority::normal, "v");
   root_->virtualTimeIs(true);
   EXPECT_EQ(t->taskShouldYieldMode(), TaskImpl::YieldMode::virtualTime);
   try {
      t->taskRunFromTest();
      FAIL() << "ran under virtual time";
   } catch (const Korvo::UnimplementedException& e) {
      EXPECT_EQ(e.message(), "No support for virtual timestamps");
   }
   EXPECT_EQ(t->runs, 0);
   EXPECT_THROW(t->taskShouldYield(), Korvo::UnimplementedException);
   // A test ratio takes precedence over virtual time.
   t->taskTestYieldRatioIs(1);
   t->taskRunFromTest();
   EXPECT_EQ(t->runs, 1);
   t->taskTestYieldRatioIs(0);
   root_->virtualTimeIs(false);

   // Switching virtual time on under a running task throws from the switch.
   t->bodyIs([&](LambdaTask&) { root_->virtualTimeIs(true); });
   EXPECT_THROW(t->taskRunFromTest(), Korvo::UnimplementedException);
   root_->virtualTimeIs(false);
}

TEST_F(TaskTest, WorkCountersKeepTotalsAverageAndMarks) {
   auto t = makeTask(TaskPriority::normal, "w");
   EXPECT_FALSE(t->taskWorkCountHighWaterMark().hasValue());
   t->taskWorkCountInc(10);
   EXPECT_FLOAT_EQ(t->taskWorkCountDecayAverage(), 10.0f);  // the first count is the average
   t->taskWorkCountInc(20);
   EXPECT_FLOAT_EQ(t->taskWorkCountDecayAverage(), 11.0f);  // (9 * 10 + 20) / 10
   t->taskWorkCountInc(0);
   EXPECT_FLOAT_EQ(t->taskWorkCountDecayAverage(), 9.9f);
   EXPECT_EQ(t->taskWorkCountTotal(), 30u);
   EXPECT_EQ(t->taskWorkCountHighWaterMark().value(), 20u);
   t->taskWorkCountInc(0x100000000ul);
   EXPECT_EQ(t->taskWorkCountHighWaterMark().value(), 0xFFFFFFFEu);
   EXPECT_EQ(t->taskWorkCountTotal(), 0x100000000ul + 30);

   t->taskWorkPendingIs(7);
   t->taskWorkPendingIs(3);
   EXPECT_EQ(t->taskWorkPending(), 3u);
   EXPECT_EQ(t->taskWorkPendingHighWaterMark().value(), 7u);

   t->resetStats();
   EXPECT_EQ(t->resetCalls, 1);
   EXPECT_EQ(t->taskWorkCountTotal(), 0u);
   EXPECT_FALSE(t->taskWorkCountHighWaterMark().hasValue());
   EXPECT_FALSE(t->taskWorkPendingHighWaterMark().hasValue());
}

// ---------------------------------------------------------------------------------
// Runs that end badly

namespace {

// Destroys itself in its own run, leaving its memory in place (a stand-in for
// "delete this" that the sanitizers can watch without a use-after-free).
class SelfDestroyingTask : public Korvo::Task {
public:
   using Task::Task;
   void taskExecute() override { this->~SelfDestroyingTask(); }
};

}  // namespace

TEST_F(TaskTest, ATaskDestroyedInItsOwnRunIsCaughtByTheMagicNumber) {
   alignas(SelfDestroyingTask) unsigned char storage[sizeof(SelfDestroyingTask)];
   std::shared_ptr<SelfDestroyingTask> task(
       new (storage) SelfDestroyingTask(sched_, TaskPriority::normal, "selfDestroyer"),
       [](SelfDestroyingTask*) {});
   task->scheduleTask();
   const std::string text = assertionText([&] { sched_->handleSchedulerRun(); });
   EXPECT_THAT(text, AllOf(StartsWith("TaskSchedulerCpp:"),
                           HasSubstr(" taskMagicNumber: 3735936685 taskMagicNumberConstructed: "
                                     "1119771390")));
   EXPECT_EQ(sched_->currentlyRunningTask(), nullptr);
   EXPECT_EQ(sched_->runRequests, 1);  // only the first schedule asked; the failed run did not
   task.reset();
   // The destructor unregistered it and folded its statistics.
   EXPECT_EQ(sched_->deadTaskStatForTest("selfDestroyer").taskDeadCount(), 1u);
}

TEST(TaskDeathTest, ATaskDestroyedInItsOwnRunAbortsByDefault) {
   EXPECT_DEATH(
       {
          FakeClock::install();
          auto root = Korvo::schedulerRootKorvoNonShared("deathRoot");
          alignas(SelfDestroyingTask) static unsigned char storage[sizeof(SelfDestroyingTask)];
          auto* task = new (storage) SelfDestroyingTask(root, TaskPriority::normal, "gone");
          task->scheduleTask();
          task->taskRunFromTest();
       },
       "Korvo::Assert aborting because: TaskSchedulerCpp:.* taskMagicNumber: 3735936685");
}

TEST_F(TaskTest, AnExceptionFromTheRunPassesOutAndStopsThisDispatch) {
   auto t = makeTask(TaskPriority::normal, "thrower",
                     [](LambdaTask&) { throw std::runtime_error("boom"); });
   t->scheduleTask();
   EXPECT_EQ(sched_->runRequests, 1);
   EXPECT_THROW(sched_->handleSchedulerRun(), std::runtime_error);
   EXPECT_EQ(sched_->currentlyRunningTask(), nullptr);
   EXPECT_EQ(sched_->runRequests, 1);
   EXPECT_FALSE(t->taskScheduled());
   EXPECT_TRUE(t->taskCurrentlyRunning());  // left as the run left it
   EXPECT_EQ(t->taskRunCount(), 1u);
}

TEST_F(TaskTest, ReleasingTheLastReferenceDuringTheRunDestroysTheTaskAfterwards) {
   auto t = makeTask(TaskPriority::normal, "shortLived");
   std::weak_ptr<LambdaTask> watch = t;
   t->bodyIs([&](LambdaTask&) {
      t.reset();
      EXPECT_FALSE(watch.expired());  // the dispatch still holds it
   });
   watch.lock()->scheduleTask();
   sched_->handleSchedulerRun();
   EXPECT_TRUE(watch.expired());
   EXPECT_EQ(sched_->deadTaskStatForTest("shortLived").taskRunCount(), 1u);
}

TEST_F(TaskTest, DestroyingAQueuedTaskUnschedulesAndUnregistersIt) {
   auto t = makeTask(TaskPriority::high, "queued");
   t->scheduleTask();
   EXPECT_EQ(sched_->runnableTaskCount(TaskPriority::high), 1u);
   t.reset();
   EXPECT_EQ(sched_->runnableTaskCount(TaskPriority::high), 0u);
   EXPECT_TRUE(sched_->registeredTasks().empty());
   EXPECT_EQ(root_->history()->event(0).display(), "delete     queued");

   // handleDestroy() tears down early; the destructor then does not unregister twice.
   auto u = makeTask(TaskPriority::high, "early");
   u->scheduleTask();
   u->handleDestroy();
   EXPECT_EQ(u->taskMagicNumber(), 0xDEADDEADu);
   EXPECT_FALSE(u->taskScheduled());
   EXPECT_TRUE(sched_->registeredTasks().empty());
   u.reset();
   EXPECT_EQ(sched_->deadTaskStatForTest("early").taskDeadCount(), 1u);
}

TEST_F(TaskTest, RunAndRecordFromTestDoesWhatADispatchDoes) {
   auto t = makeTask(TaskPriority::low, "recorded");
   t->scheduleTask();
   FakeClock::advance(4ms);
   t->taskRunAndRecordFromTest();
   EXPECT_EQ(t->runs, 1);
   EXPECT_EQ(t->taskLastSchedulingLatency(), 4ms);
   EXPECT_EQ(sched_->runTaskCount(TaskPriority::low), 1u);
   EXPECT_EQ(sched_->runnableTaskCount(TaskPriority::low), 0u);
   EXPECT_EQ(sched_->lastRunAt(), FakeClock::now());
   EXPECT_GE(sched_->schedulerLatencyHighWaterMark(), 4ms);
   // taskRunFromTest also takes a queued task off its queue as a dispatch.
   t->scheduleTask();
   t->taskRunFromTest();
   EXPECT_EQ(sched_->runTaskCount(TaskPriority::low), 2u);
   EXPECT_EQ(t->runs, 2);
}
