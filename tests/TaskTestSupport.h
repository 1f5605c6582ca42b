#ifndef KORVO_TESTS_TASKTESTSUPPORT_H
#define KORVO_TESTS_TASKTESTSUPPORT_H

// Shared pieces of the scheduler tests: a clock the tests move by hand, a scheduler
// driven by the test instead of the event loop, and tasks whose work is a lambda.

#include <Korvo/Allocator.h>
#include <Korvo/TaskScheduler.h>

#include "PlatformTestSupport.h"

#include <gmock/gmock.h>

#include <functional>

namespace KorvoTest {

using namespace std::chrono_literals;
using Korvo::TaskPriority;
using ::testing::HasSubstr;

// The scheduler's clock while one of these lives, moved only by advance().
struct FakeClock {
   FakeClock() {
      now_ = Korvo::TaskTimePoint(std::chrono::seconds(1000));
      Korvo::taskTimeSourceIs(&FakeClock::now);
   }
   ~FakeClock() { Korvo::taskTimeSourceIs(nullptr); }
   static Korvo::TaskTimePoint now() { return now_; }
   static void advance(Korvo::TaskDuration d) { now_ += d; }
   static inline Korvo::TaskTimePoint now_{};
};

// A scheduler under the root that the test drives: it counts run requests and
// forced-yield notifications instead of asking the event loop.
struct TestScheduler : Korvo::TaskScheduler {
   TestScheduler(const std::string& name, const std::shared_ptr<Korvo::TaskSchedulerRoot>& root)
       : TaskScheduler(name, root.get(), root->history()), rootRef_(root) {
      root->registerScheduler(this);
   }
   ~TestScheduler() override { rootRef_->unregisterScheduler(this); }
   void requestSchedulerRun() override { ++runRequests; }
   void handleTaskForceYieldInTest() override { ++forceYieldNotifications; }
   int runRequests = 0, forceYieldNotifications = 0;
   std::shared_ptr<Korvo::TaskSchedulerRoot> rootRef_;
};

// A task whose work is a function of itself.
struct LambdaTask : Korvo::Task {
   using Body = std::function<void(LambdaTask&)>;
   LambdaTask(std::shared_ptr<Korvo::TaskScheduler> scheduler, TaskPriority priority,
              const std::string& name, Body body = {})
       : Task(std::move(scheduler), priority, name), body_(std::move(body)) {}
   void taskExecute() override {
      ++runs;
      if (body_)
         body_(*this);
   }
   void bodyIs(Body body) { body_ = std::move(body); }
   void handleTaskBusy() override { ++busyChanges; }
   void handleResetStats() override { ++resetCalls; }
   int runs = 0, busyChanges = 0, resetCalls = 0;
   Body body_;
};

// Throwing assertions, a fake clock, a root of its own and a test scheduler under it.
class SchedulerFixture : public ::testing::Test {
protected:
   // A task on `on`, the test scheduler by default.
   std::shared_ptr<LambdaTask> makeTask(TaskPriority p, const std::string& name,
                                        LambdaTask::Body body = {},
                                        std::shared_ptr<Korvo::TaskScheduler> on = nullptr) {
      return Korvo::makeShared<LambdaTask>(on ? on : sched_, p, name, std::move(body));
   }
   // Dispatches on `s` until nothing is queued there.
   static void drain(Korvo::TaskScheduler& s) {
      while (s.runnableTaskCount() != 0)
         s.handleSchedulerRun();
   }
   std::string lastEvent(unsigned back = 0) { return root_->history()->event(back).display(); }

   ThrowOnAssert throwing_;
   FakeClock clock_;
   std::shared_ptr<Korvo::TaskSchedulerRoot> root_ = Korvo::schedulerRootKorvoNonShared("testRoot");
   std::shared_ptr<TestScheduler> sched_ = Korvo::makeShared<TestScheduler>("testSched", root_);
};

// Passes of the real loop: descriptors need no time, only passes (one task runs per pass).
inline void pump(int passes = 20) {
   for (int i = 0; i < passes; ++i)
      Korvo::Platform::doEventLoop(0.0);
}

}  // namespace KorvoTest

#endif
