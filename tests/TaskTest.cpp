#include "TaskTestSupport.h"
#include "TestPeer.h"

#include <Korvo/Task.h>

#include <new>

using namespace KorvoTest;
using ::testing::StartsWith;

namespace {

using TaskTest = SchedulerFixture;

// Destroys itself in its own run, leaving its memory in place (a stand-in for
// "delete this" that the sanitizers can watch without a use-after-free).
struct SelfDestroyingTask : Korvo::Task {
   using Task::Task;
   void taskExecute() override { this->~SelfDestroyingTask(); }
};

}  // namespace

TEST(TaskValueTest, PrioritiesCountersAndDurations) {
   // The count itself is not a priority when streamed, though toStrep() names it.
   const TaskPriority count(TaskPriority::oneBeyondLast);
   EXPECT_EQ(testing::PrintToString(TaskPriority::scavenge) + testing::PrintToString(count) +
                 count.toStrep() + count.oneCharString(),
             "scavengeinvalidPriority=5oneBeyondLast-");
   EXPECT_THAT(assertionText([] { TaskPriority(7u).toStrep(); }),
               AllOf(StartsWith("TaskSchedulerCpp:"), HasSubstr("unexpected priority value 7")));
   EXPECT_THAT(assertionText([] { TaskPriority(9u).oneCharString(); }),
               HasSubstr("unexpected priority 9"));
   EXPECT_EQ(Korvo::TaskKey(nullptr).toStrep(), "@NULL");
   Korvo::TaskMaybeU32 m;
   m.raise(0x1FFFFFFFFull);  // saturates one below "none"
   m.raise(3);               // and only ever rises
   EXPECT_EQ(m.value(), 0xFFFFFFFEu);
   std::string durations;  // a negative one takes the unit of its magnitude
   for (long ns : {750l, 12500l, 19000000l, 2250000000l, -3000000l})
      durations += testing::PrintToString(Korvo::DisplayDuration(Korvo::TaskDuration(ns))) + " ";
   EXPECT_EQ(durations, "750ns 12.500us 19.000ms 2.250000s -3.000ms ");
}

TEST_F(TaskTest, ConstructionNamesAndRegistersTheTask) {
   auto t = makeTask(TaskPriority::normal, "flush");
   EXPECT_EQ(t->taskShortName().str(), "N flush");
   EXPECT_EQ((std::ostringstream() << t.get()).str(),
             "testSched:normal:flush@" + Korvo::DisplayPointer(t.get()).toString());
   sched_->defaultTaskQuantumIs(5ms);
   EXPECT_EQ(makeTask(TaskPriority::low, "later")->taskQuantum(), 5ms);
   EXPECT_THAT(assertionText([] { LambdaTask orphan(nullptr, TaskPriority::normal, "orphan"); }),
               AllOf(StartsWith("TaskSchedulerCpp:"), HasSubstr("Need a TaskScheduler")));
   // The plain-pointer form takes shared ownership from the scheduler itself.
   EXPECT_EQ(SelfDestroyingTask(sched_.get(), TaskPriority::high, "p").taskSchedulerPtr(), sched_);
   TestScheduler unowned("unowned", root_);
   EXPECT_THROW(SelfDestroyingTask(&unowned, TaskPriority::high, "x"), std::bad_weak_ptr);
}

TEST_F(TaskTest, SchedulingSuspensionAndBusy) {
   auto t = makeTask(TaskPriority::normal, "s");
   t->scheduleTask();
   FakeClock::advance(2ms);
   t->unscheduleTask();  // the wait so far counts as latency
   t->unscheduleTask();  // harmless when not queued
   EXPECT_EQ(t->taskLastSchedulingLatency(), 2ms);
   t->taskSuspendedIs(true);
   t->scheduleTask();
   // The label fills its 11 characters, so the name follows without a blank.
   EXPECT_EQ(lastEvent(), "scheduleSuss");
   t->taskSuspendedIs(false);  // queues it, even had it never been scheduled
   EXPECT_TRUE(t->taskScheduled());
   // Rescheduling itself in its run keeps it busy, with no change reported; suspending
   // itself after that leaves it idle.
   t->bodyIs([](LambdaTask& self) {
      self.scheduleTask();
      self.taskSuspendedIs(self.runs == 2);
   });
   sched_->handleSchedulerRun();
   EXPECT_EQ(t->busyChanges, 3);  // busy, idle, busy
   sched_->handleSchedulerRun();
   EXPECT_FALSE(t->taskScheduled() || t->taskBusy());
   // A run from a test does what a dispatch does.
   auto r = makeTask(TaskPriority::low, "recorded");
   r->scheduleTask();
   FakeClock::advance(4ms);
   r->taskRunAndRecordFromTest();
   EXPECT_EQ(r->taskLastSchedulingLatency(), 4ms);
   EXPECT_EQ(sched_->lastRunAt(), FakeClock::now());
   EXPECT_EQ(sched_->schedulerLatencyHighWaterMark(), 4ms);
   r->scheduleTask();
   r->taskRunFromTest();  // also takes a queued task off its queue
   EXPECT_EQ(sched_->runTaskCount(TaskPriority::low), 2u);
   EXPECT_EQ(sched_->runnableTaskCount(), 0u);
}

TEST_F(TaskTest, ShouldYieldByRealTimeTestRatioAndVirtualTime) {
   std::vector<bool> answers;
   auto t = makeTask(TaskPriority::normal, "y", [&](LambdaTask& self) {
      for (auto step : {0ms, 19ms, 1ms, -25ms}) {  // a step backwards yields too
         FakeClock::advance(step);
         answers.push_back(self.taskShouldYield());
      }
   });
   // A change of the ratio restarts its count.
   for (auto [ratio, expected] : {std::pair{0, std::vector{false, false, true, true}},
                                  {1, {true, true, true, true}},
                                  {2, {false, true, false, true}},
                                  {3, {false, false, true, false}}}) {
      t->taskTestYieldRatioIs(ratio);
      answers.clear();
      t->taskRunFromTest();
      EXPECT_EQ(answers, expected) << ratio;
   }
   EXPECT_THAT(assertionText([&] { t->taskShouldYield(); }),
               HasSubstr("taskCurrentlyRunning: 0 taskRunCount: 4"));
   // Virtual time reaching a task throws, unless a test ratio decides.
   root_->virtualTimeIs(true);
   t->taskTestYieldRatioIs(0);
   EXPECT_THROW(makeTask({}, "v")->taskShouldYield(), Korvo::UnimplementedException);
   EXPECT_THAT([&] { t->taskRunFromTest(); }, testing::ThrowsMessage<Korvo::UnimplementedException>(
                                                  HasSubstr("No support for virtual timestamps")));
   root_->virtualTimeIs(false);
   t->bodyIs([&](LambdaTask&) { root_->virtualTimeIs(true); });  // throws from the switch
   EXPECT_THROW(t->taskRunFromTest(), Korvo::UnimplementedException);
}

// The scheduler hears when its set of tasks under a test ratio turns empty or not;
// the root's ratio applies to tasks without their own.
TEST_F(TaskTest, ForcedYieldAndTheRootsRatio) {
   auto t = makeTask(TaskPriority::normal, "t"), other = makeTask(TaskPriority::normal, "o");
   t->taskTestYieldRatioIs(3);
   EXPECT_EQ(sched_->forceYieldNotifications, 1);
   auto inRoot = makeTask(TaskPriority::normal, "inRoot", {}, root_);
   root_->taskTestYieldRatioIs(1);
   EXPECT_EQ(other->taskTestYieldRatioEffective() * 10 + t->taskTestYieldRatioEffective(), 13);
   EXPECT_EQ(makeTask(TaskPriority::normal, "late")->taskTestYieldRatioEffective(), 1);
   root_->taskTestYieldRatioIs(0);
   EXPECT_EQ(other->taskShouldYieldMode(), Korvo::TaskImpl::YieldMode::realTime);
   t->taskTestYieldRatioIs(0);
   other->taskForceYieldInTestIs(true);
   t->taskForceYieldInTestIs(true);
   EXPECT_EQ(Korvo::TestPeer::taskForceYieldInTestCount(*sched_), 2u);
   t.reset();  // a dying task leaves the set
   other->taskForceYieldInTestIs(false);
   EXPECT_EQ(sched_->forceYieldNotifications, 4);
}

// Its magic number gives it away; by default that is fatal.
TEST_F(TaskTest, ATaskDestroyedInItsOwnRunIsCaughtByTheMagicNumber) {
   alignas(SelfDestroyingTask) unsigned char storage[sizeof(SelfDestroyingTask)];
   std::shared_ptr<SelfDestroyingTask> task(new (storage) SelfDestroyingTask(sched_, {}, "gone"),
                                            [](SelfDestroyingTask*) {});
   task->scheduleTask();
   EXPECT_DEATH((Korvo::throwOnAssertFailIs(false), sched_->handleSchedulerRun()),
                "Korvo::Assert aborting because: TaskSchedulerCpp:.* taskMagicNumber: 3735936685");
   EXPECT_THAT(assertionText([&] { sched_->handleSchedulerRun(); }),
               HasSubstr(" taskMagicNumber: 3735936685 taskMagicNumberConstructed: 1119771390"));
   EXPECT_EQ(sched_->deadTaskStatForTest("gone").taskDeadCount(), 1u);
}

TEST_F(TaskTest, RunsThatThrowOrReleaseOrDestroyTheTask) {
   auto t = makeTask({}, "thrower", [](LambdaTask&) { throw std::runtime_error("boom"); });
   t->scheduleTask();
   EXPECT_THROW(sched_->handleSchedulerRun(), std::runtime_error);
   EXPECT_EQ(sched_->runRequests, 1);  // this dispatch stops: no further run asked
   EXPECT_TRUE(t->taskCurrentlyRunning() && sched_->currentlyRunningTask() == nullptr);
   t.reset();
   // Releasing the last reference during the run destroys the task afterwards.
   auto u = makeTask(TaskPriority::normal, "shortLived");
   u->bodyIs([&](LambdaTask&) { u.reset(); });
   u->scheduleTask();
   sched_->handleSchedulerRun();
   EXPECT_EQ(lastEvent(), "delete     shortLived");
   // handleDestroy() tears down early, a queued task too; the destructor then does not
   // unregister twice.
   auto v = makeTask(TaskPriority::high, "early");
   v->scheduleTask();
   v->handleDestroy();
   EXPECT_EQ(v->taskMagicNumber(), 0xDEADDEADu);
   EXPECT_TRUE(sched_->registeredTasks().empty() && sched_->runnableTaskCount() == 0);
   v.reset();
}
