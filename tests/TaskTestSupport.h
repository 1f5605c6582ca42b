#ifndef KORVO_TESTS_TASKTESTSUPPORT_H
#define KORVO_TESTS_TASKTESTSUPPORT_H

// Shared pieces of the scheduler tests: a clock the tests move by hand, a scheduler
// driven by the test instead of the event loop, and tasks whose work is a lambda.

#include <Korvo/Allocator.h>
#include <Korvo/Exception.h>
#include <Korvo/TaskScheduler.h>

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>

namespace KorvoTest {

using namespace std::chrono_literals;

// The scheduler's clock, moved only by advance().
class FakeClock {
public:
   static Korvo::TaskTimePoint now() { return now_; }
   static void advance(Korvo::TaskDuration d) { now_ += d; }
   static void install() {
      now_ = Korvo::TaskTimePoint(std::chrono::seconds(1000));
      Korvo::taskTimeSourceIs(&FakeClock::now);
   }
   static void uninstall() { Korvo::taskTimeSourceIs(nullptr); }

private:
   static inline Korvo::TaskTimePoint now_{};
};

// A scheduler under the root that the test drives: it counts run requests and
// forced-yield notifications instead of asking the event loop.
class TestScheduler : public Korvo::TaskScheduler {
public:
   TestScheduler(const std::string& name, const std::shared_ptr<Korvo::TaskSchedulerRoot>& root)
       : TaskScheduler(name, root.get(), root->history()), rootRef_(root) {
      root->registerScheduler(this);
   }
   ~TestScheduler() override { rootRef_->unregisterScheduler(this); }

   void requestSchedulerRun() override { ++runRequests; }
   void handleTaskForceYieldInTest() override { ++forceYieldNotifications; }

   int runRequests = 0;
   int forceYieldNotifications = 0;

private:
   std::shared_ptr<Korvo::TaskSchedulerRoot> rootRef_;
};

// A task whose work is a function of itself.
class LambdaTask : public Korvo::Task {
public:
   using Body = std::function<void(LambdaTask&)>;
   LambdaTask(std::shared_ptr<Korvo::TaskScheduler> scheduler, Korvo::TaskPriority priority,
              const std::string& name, Body body = {})
       : Task(std::move(scheduler), priority, name), body_(std::move(body)) {}

   void taskExecute() override {
      ++runs;
      if (body_) {
         body_(*this);
      }
   }
   void bodyIs(Body body) { body_ = std::move(body); }
   void handleTaskBusy() override { ++busyChanges; }
   void handleResetStats() override { ++resetCalls; }

   int runs = 0;
   int busyChanges = 0;
   int resetCalls = 0;

private:
   Body body_;
};

// Throwing assertions, a fake clock, a root of its own and a test scheduler under it.
class SchedulerFixture : public ::testing::Test {
protected:
   void SetUp() override {
      Korvo::throwOnAssertFailIs(true);
      FakeClock::install();
      root_ = Korvo::schedulerRootKorvoNonShared("testRoot");
      sched_ = Korvo::makeShared<TestScheduler>("testSched", root_);
   }
   void TearDown() override {
      sched_.reset();
      root_.reset();
      FakeClock::uninstall();
      Korvo::throwOnAssertFailIs(false);
   }

   std::shared_ptr<LambdaTask> makeTask(Korvo::TaskPriority p, const std::string& name,
                                        LambdaTask::Body body = {}) {
      return Korvo::makeShared<LambdaTask>(sched_, p, name, std::move(body));
   }

   std::shared_ptr<Korvo::TaskSchedulerRoot> root_;
   std::shared_ptr<TestScheduler> sched_;
};

}  // namespace KorvoTest

#endif
