#include "TaskTestSupport.h"

#include <Korvo/TaskScheduler.h>
#include <Korvo/Thread.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <future>
#include <sstream>
#include <thread>

using namespace KorvoTest;
using Korvo::TaskPriority;
using Korvo::TaskSchedulerRoot;
using ::testing::HasSubstr;
using ::testing::StartsWith;

namespace {

class RootTest : public SchedulerFixture {
protected:
   std::shared_ptr<LambdaTask> rootTask(TaskPriority p, const std::string& name,
                                        LambdaTask::Body body = {}) {
      return Korvo::makeShared<LambdaTask>(root_, p, name, std::move(body));
   }
};

// Frees the calling thread's event base when the thread ends; declared thread_local
// before the thread's root is made, so that it is destroyed after the root.
struct EventBaseOfThisThread {
   EventBaseOfThisThread() { Korvo::leInit(); }
   ~EventBaseOfThisThread() { Korvo::leFree(); }
};

// The text of an assertion raised by `statement` on a thread of its own.
template <typename F>
std::string assertionTextInThread(F statement) {
   std::string text;
   std::thread([&] { text = assertionText(statement); }).join();
   return text;
}

}  // namespace

TEST(RootSlotTest, EachThreadGetsItsOwnNamedRoot) {
   auto main1 = Korvo::schedulerRootKorvo();
   auto main2 = Korvo::schedulerRootKorvo();
   EXPECT_EQ(main1, main2);
   EXPECT_EQ(main1->schedulerName().str(), "main");
   EXPECT_TRUE(main1->isMainThread());

   std::weak_ptr<TaskSchedulerRoot> other;
   std::thread([&] {
      // Runs its destructor after the root slot's: the thread's event base goes last.
      thread_local EventBaseOfThisThread base;
      auto root = Korvo::schedulerRootKorvo();
      other = root;
      std::ostringstream id;
      id << "thread:" << std::this_thread::get_id();
      EXPECT_EQ(root->schedulerName().str(), id.str());
      EXPECT_EQ(root, Korvo::schedulerRootKorvo());
      EXPECT_NE(root, main1);
      EXPECT_FALSE(root->isMainThread());
   }).join();
   // The thread's slot let go of its root when the thread ended.
   EXPECT_TRUE(other.expired());

   // A non-shared root is never the thread's root.
   auto separate = Korvo::schedulerRootKorvoNonShared("separate");
   EXPECT_NE(separate, Korvo::schedulerRootKorvo());
   EXPECT_EQ(separate->schedulerName().str(), "separate");
}

TEST_F(RootTest, ConstructionBindsTheRootToItsThread) {
   EXPECT_TRUE(pthread_equal(root_->ownerThread(), pthread_self()));
   EXPECT_EQ(root_->ownerPid(), getpid());
   EXPECT_EQ(std::string(root_->ownerThreadName()), TaskSchedulerRoot::currentThreadName());
   EXPECT_EQ(root_->historyEntryCount(), 100u);
   EXPECT_EQ(root_->root(), root_.get());
   EXPECT_EQ(root_->history(), sched_->history());
   // The root is registered with itself; the test scheduler counts as a group.
   EXPECT_EQ(root_->registeredSchedulers().size(), 2u);
   EXPECT_EQ(root_->taskGroupCount(), 1u);
   EXPECT_EQ(root_->findSchedulerForTest("testRoot"), root_.get());
   EXPECT_EQ(root_->findSchedulerForTest("testSched"), sched_.get());
   EXPECT_EQ(root_->findSchedulerForTest("nothing"), nullptr);
   EXPECT_FALSE(root_->suspended());
   EXPECT_FALSE(root_->virtualTime());
   EXPECT_EQ(root_->taskTestYieldRatio(), 0);
   EXPECT_EQ(root_->defaultTaskQuantum(), std::chrono::milliseconds(20));
}

TEST_F(RootTest, SchedulerRegistryRefusesDuplicatesAndUnknowns) {
   EXPECT_THAT(assertionText([&] { root_->registerScheduler(sched_.get()); }),
               AllOf(StartsWith("TaskSchedulerCpp:"), HasSubstr("insert failed for testSched")));
   TestScheduler* raw = sched_.get();
   root_->unregisterScheduler(raw);
   EXPECT_THAT(assertionText([&] { root_->unregisterScheduler(raw); }),
               HasSubstr("delete failed for testSched"));
   root_->registerScheduler(raw);
}

TEST_F(RootTest, TotalRegisteredTaskCountSpansSchedulersAndSkipsBookmarks) {
   auto a = rootTask(TaskPriority::normal, "a");
   auto b = makeTask(TaskPriority::normal, "b");
   auto c = makeTask(TaskPriority::high, "c");
   EXPECT_EQ(root_->totalRegisteredTaskCount(), 3u);
   // A paused reset leaves its bookmark in the list; it is not counted.
   struct Slow : LambdaTask {
      using LambdaTask::LambdaTask;
      void handleResetStats() override { FakeClock::advance(30ms); }
   };
   auto slow1 = Korvo::makeShared<Slow>(sched_, TaskPriority::low, "slow1");
   auto slow2 = Korvo::makeShared<Slow>(sched_, TaskPriority::low, "slow2");
   sched_->resetStats();
   sched_->handleSchedulerRun();
   ASSERT_TRUE(sched_->resetStatsInProgress());
   EXPECT_EQ(root_->totalRegisteredTaskCount(), 6u);  // a, b, c, slow1, slow2, reset task
}

// ---------------------------------------------------------------------------------
// Thread binding

TEST_F(RootTest, UseFromAnotherThreadFailsUnlessTheCheckIsOff) {
   auto t = makeTask(TaskPriority::normal, "bound");
   const std::string text = assertionTextInThread([&] { t->scheduleTask(); });
   EXPECT_THAT(text, AllOf(StartsWith("TaskSchedulerCpp:"), HasSubstr("Executing in wrong thread "),
                           HasSubstr(") pid " + std::to_string(getpid()) +
                                     " scheduler belongs to thread ")));
   EXPECT_FALSE(t->taskScheduled());
   EXPECT_THAT(assertionTextInThread([&] { t->taskScheduled(); }),
               HasSubstr("Executing in wrong thread "));
   EXPECT_THAT(assertionTextInThread([&] { t->unscheduleTask(); }),
               HasSubstr("Executing in wrong thread "));
   EXPECT_THAT(assertionTextInThread([&] { makeTask(TaskPriority::low, "elsewhere"); }),
               HasSubstr("Executing in wrong thread "));

   root_->threadSanityDisabledIs(true);
   EXPECT_EQ(assertionTextInThread([&] { t->scheduleTask(); }), "");
   EXPECT_TRUE(t->taskScheduled());
   // A task of the root itself: scheduling it requests the loop's callback, from the
   // other thread; the root's switch covers that request too.
   auto rooted = rootTask(TaskPriority::normal, "rooted");
   EXPECT_EQ(assertionTextInThread([&] { rooted->scheduleTask(); }), "");
   EXPECT_TRUE(rooted->taskScheduled());
   rooted->unscheduleTask();
   root_->threadSanityDisabledIs(false);
   t->unscheduleTask();

   Korvo::auxThreadCount = 1;
   EXPECT_EQ(assertionTextInThread([&] { t->scheduleTask(); }), "");
   Korvo::auxThreadCount = 0;
   EXPECT_TRUE(t->taskScheduled());
   t->unscheduleTask();
}

TEST_F(RootTest, WrongThreadNamesBothThreads) {
   auto t = makeTask(TaskPriority::normal, "bound");
   std::string text;
   std::thread([&] {
      Korvo::threadNameIs("intruder");
      text = assertionText([&] { t->scheduleTask(); });
   }).join();
   EXPECT_THAT(text, HasSubstr("Executing in wrong thread intruder("));
   std::ostringstream owner;
   owner << " scheduler belongs to thread " << root_->ownerThread() << "("
         << root_->ownerThreadName() << ")";
   EXPECT_THAT(text, HasSubstr(owner.str()));
}

TEST(RootForkTest, AForkedChildPassesTheThreadCheck) {
   Korvo::throwOnAssertFailIs(true);
   // The root and its task are made, and in the end destroyed, by a helper thread.
   std::promise<std::shared_ptr<LambdaTask>> made;
   std::promise<void> done;
   std::thread owner([&] {
      thread_local EventBaseOfThisThread base;
      auto root = Korvo::schedulerRootKorvoNonShared("forkRoot");
      auto mine = Korvo::makeShared<LambdaTask>(root, TaskPriority::normal, "forked");
      made.set_value(mine);
      done.get_future().wait();
   });
   std::shared_ptr<LambdaTask> task = made.get_future().get();
   // Here, in the parent, this thread is the wrong one.
   EXPECT_THAT(assertionText([&] { task->scheduleTask(); }),
               HasSubstr("Executing in wrong thread"));

   const pid_t child = fork();
   if (child == 0) {
      // The child's only thread is not the owner, but the process is another one.
      const bool ok = assertionText([&] {
                         task->scheduleTask();
                         task->taskRunFromTest();
                      }).empty() &&
                      task->runs == 1;
      _exit(ok ? 0 : 1);
   }
   int status = 0;
   ASSERT_EQ(waitpid(child, &status, 0), child);
   EXPECT_TRUE(WIFEXITED(status));
   EXPECT_EQ(WEXITSTATUS(status), 0);
   EXPECT_EQ(task->runs, 0);

   task.reset();
   done.set_value();
   owner.join();
   Korvo::throwOnAssertFailIs(false);
}

// ---------------------------------------------------------------------------------
// Suspension, yield settings, virtual time

TEST_F(RootTest, SuspensionHoldsEveryDispatchUntilResumed) {
   auto a = rootTask(TaskPriority::normal, "a");
   auto b = makeTask(TaskPriority::normal, "b");
   a->scheduleTask();
   b->scheduleTask();
   root_->suspendedIs(true);
   EXPECT_EQ(root_->history()->event(0).display(), "schedulerSuspended testRoot");
   root_->handleSchedulerRun();
   sched_->handleSchedulerRun();
   EXPECT_EQ(a->runs + b->runs, 0);
   EXPECT_EQ(root_->history()->event(0).display(), "schedulerRunIgnoredWhileSuspended testSched");
   EXPECT_EQ(root_->history()->event(1).display(), "schedulerRunIgnoredWhileSuspended testRoot");
   const int requests = sched_->runRequests;
   sched_->handleSchedulerRun();
   EXPECT_EQ(sched_->runRequests, requests);  // an ignored run asks for nothing
   EXPECT_TRUE(a->taskScheduled());

   FakeClock::advance(5ms);
   root_->suspendedIs(false);
   EXPECT_EQ(root_->history()->event(0).display(), "schedulerUnsuspended testRoot");
   EXPECT_EQ(root_->runRequestedAt(), FakeClock::now());
   root_->handleSchedulerRun();
   sched_->handleSchedulerRun();
   EXPECT_EQ(a->runs, 1);  // no new schedule was needed
   EXPECT_EQ(b->runs, 1);
}

TEST_F(RootTest, RootYieldRatioReachesEveryTaskWithoutItsOwn) {
   std::vector<bool> answers;
   auto collect = [&](LambdaTask& self) {
      for (int i = 0; i < 3; ++i) {
         answers.push_back(self.taskShouldYield());
      }
   };
   auto inRoot = rootTask(TaskPriority::normal, "inRoot", collect);
   auto inGroup = makeTask(TaskPriority::normal, "inGroup", collect);
   auto own = makeTask(TaskPriority::normal, "own", collect);
   own->taskTestYieldRatioIs(3);
   root_->taskTestYieldRatioIs(1);
   EXPECT_EQ(root_->history()->event(0).display(), "schedulerTestYieldRatioOn testRoot");
   for (auto* t : {inRoot.get(), inGroup.get()}) {
      answers.clear();
      t->taskRunFromTest();
      EXPECT_EQ(answers, (std::vector<bool>{true, true, true})) << t->taskName();
   }
   answers.clear();
   own->taskRunFromTest();
   EXPECT_EQ(answers, (std::vector<bool>{false, false, true}));
   // Tasks created while the ratio is on inherit it at once.
   auto late = makeTask(TaskPriority::normal, "late", collect);
   EXPECT_EQ(late->taskTestYieldRatioEffective(), 1);
   root_->taskTestYieldRatioIs(0);
   EXPECT_EQ(root_->history()->event(0).display(), "schedulerTestYieldRatioOff testRoot");
   EXPECT_EQ(late->taskShouldYieldMode(), Korvo::TaskImpl::YieldMode::realTime);
   EXPECT_EQ(own->taskTestYieldRatioEffective(), 3);
}

TEST_F(RootTest, ADispatchSwitchesVirtualTimeOffBeforeTheTaskRuns) {
   Korvo::TaskImpl::YieldMode modeInRun = Korvo::TaskImpl::YieldMode::virtualTime;
   auto t = rootTask(TaskPriority::normal, "v",
                     [&](LambdaTask& self) { modeInRun = self.taskShouldYieldMode(); });
   t->scheduleTask();
   root_->virtualTimeIs(true);
   EXPECT_EQ(root_->history()->event(0).display(), "schedulerVirtualTimeOn testRoot");
   EXPECT_EQ(t->taskShouldYieldMode(), Korvo::TaskImpl::YieldMode::virtualTime);
   root_->handleSchedulerRun();
   EXPECT_FALSE(root_->virtualTime());
   EXPECT_EQ(t->runs, 1);
   EXPECT_EQ(modeInRun, Korvo::TaskImpl::YieldMode::realTime);
   // Its switch-off is recorded before the run.
   bool sawOff = false;
   for (unsigned i = 0; i < root_->history()->size(); ++i) {
      const std::string d = root_->history()->event(i).display();
      if (d == "run start  v") {
         EXPECT_FALSE(sawOff) << "virtual time went off after the run started";
      }
      sawOff = sawOff || d == "schedulerVirtualTimeOff testRoot";
   }
   EXPECT_TRUE(sawOff);
}

TEST_F(RootTest, RandomPercentIsReproduciblePerRoot) {
   auto other = Korvo::schedulerRootKorvoNonShared("other");
   unsigned int seed = 0;
   bool sawHigh = false;
   for (int i = 0; i < 2000; ++i) {
      const int expected = rand_r(&seed) / 21474836;
      const int value = root_->randomPercent();
      ASSERT_EQ(value, expected);
      ASSERT_EQ(other->randomPercent(), value);
      ASSERT_GE(value, 0);
      ASSERT_LE(value, 100);
      sawHigh = sawHigh || value > 90;
   }
   EXPECT_TRUE(sawHigh);
}

// ---------------------------------------------------------------------------------
// Through the event loop

namespace {

class LoopTest : public ::testing::Test {
protected:
   void SetUp() override {
      Korvo::throwOnAssertFailIs(true);
      root_ = Korvo::schedulerRootKorvoNonShared("loopRoot");
   }
   void TearDown() override {
      root_.reset();
      Korvo::throwOnAssertFailIs(false);
   }
   std::shared_ptr<LambdaTask> task(TaskPriority p, const std::string& name,
                                    LambdaTask::Body body = {}) {
      return Korvo::makeShared<LambdaTask>(root_, p, name, std::move(body));
   }

   std::shared_ptr<TaskSchedulerRoot> root_;
   std::vector<std::string> order_;
};

// A client of the loop that asks for one callback at a time.
class Poker : public Korvo::Platform::CallbackHandler {
public:
   explicit Poker(std::vector<std::string>* order)
       : order_(order), control_(Korvo::Platform::getCallbackControl(this)) {}
   void callback() override {
      order_->push_back("poke");
      if (--remaining_ > 0) {
         control_->requestCallback();
      }
   }
   void start(int n) {
      remaining_ = n;
      control_->requestCallback();
   }

private:
   std::vector<std::string>* order_;
   std::shared_ptr<Korvo::Platform::CallbackControl> control_;
   int remaining_ = 0;
};

}  // namespace

TEST_F(LoopTest, TheLoopRunsOneTaskPerCallbackByPriorityAndStopsWhenIdle) {
   auto record = [this](LambdaTask& self) { order_.push_back(self.taskName().str()); };
   auto low = task(TaskPriority::low, "low", record);
   auto high = task(TaskPriority::high, "high", record);
   auto normal1 = task(TaskPriority::normal, "normal1", record);
   auto normal2 = task(TaskPriority::normal, "normal2", record);
   low->scheduleTask();
   normal1->scheduleTask();
   high->scheduleTask();
   normal2->scheduleTask();
   Korvo::Platform::doEventLoop();  // returns once the root is idle: nothing left registered
   EXPECT_EQ(order_, (std::vector<std::string>{"high", "normal1", "normal2", "low"}));
   EXPECT_FALSE(root_->schedulerHasRunnableTasks());
   EXPECT_EQ(root_->runTaskCount(TaskPriority::normal), 2u);
}

TEST_F(LoopTest, TheLoopGetsControlBackBetweenAnyTwoTasks) {
   int left = 4;
   auto busy = task(TaskPriority::absolute, "busy", [&](LambdaTask& self) {
      order_.push_back("busy");
      if (--left > 0) {
         self.scheduleTask();
      }
   });
   Poker poker(&order_);
   busy->scheduleTask();
   poker.start(3);
   Korvo::Platform::doEventLoop();
   ASSERT_EQ(order_.size(), 7u);
   // Neither side runs twice in a row while the other has work: one callback each.
   for (size_t i = 1; i < 6; ++i) {
      EXPECT_NE(order_[i], order_[i - 1]) << i;
   }
}

TEST_F(LoopTest, SuspendedRootsRunNothingUntilResumed) {
   auto t = task(TaskPriority::normal, "t");
   root_->suspendedIs(true);
   t->scheduleTask();
   Korvo::Platform::doEventLoop();  // the one callback is ignored and asks for no other
   EXPECT_EQ(t->runs, 0);
   EXPECT_TRUE(t->taskScheduled());
   root_->suspendedIs(false);
   Korvo::Platform::doEventLoop();
   EXPECT_EQ(t->runs, 1);
}

TEST_F(LoopTest, VirtualTimeIsOffByTheTimeTheLoopRunsATask) {
   auto t = task(TaskPriority::normal, "v",
                 [](LambdaTask& self) { EXPECT_FALSE(self.taskShouldYield()); });
   t->scheduleTask();
   root_->virtualTimeIs(true);
   Korvo::Platform::doEventLoop();
   EXPECT_EQ(t->runs, 1);
   EXPECT_FALSE(root_->virtualTime());
}

TEST_F(LoopTest, AnExceptionFromATaskLeavesTheLoop) {
   auto t = task(TaskPriority::normal, "thrower",
                 [](LambdaTask&) { throw std::runtime_error("task failed"); });
   auto after = task(TaskPriority::low, "after");
   t->scheduleTask();
   after->scheduleTask();
   EXPECT_THROW(Korvo::Platform::doEventLoop(), std::runtime_error);
   EXPECT_EQ(after->runs, 0);
   // The failed dispatch asked for no further run, and the root still counts as
   // runnable (so a new schedule would not ask either): the caller resumes it.
   root_->requestSchedulerRun();
   Korvo::Platform::doEventLoop();
   EXPECT_EQ(after->runs, 1);
}
