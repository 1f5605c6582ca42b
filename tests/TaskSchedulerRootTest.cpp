#include "TaskTestSupport.h"

#include <Korvo/Thread.h>

#include <thread>

using namespace KorvoTest;

namespace {

using RootTest = SchedulerFixture;

// Frees the calling thread's event base when the thread ends; declared thread_local
// before the thread's root is made, so that it is destroyed after the root.
struct EventBaseOfThisThread {
   EventBaseOfThisThread() { Korvo::leInit(); }
   ~EventBaseOfThisThread() { Korvo::leFree(); }
};

// The text of an assertion raised by `statement` on a thread of its own.
std::string assertionTextInThread(const std::function<void()>& statement) {
   std::string text;
   std::thread([&] {
      Korvo::threadNameIs("intruder");
      text = assertionText(statement);
   }).join();
   return text;
}

}  // namespace

TEST(RootSlotTest, EachThreadGetsItsOwnNamedRoot) {
   EXPECT_EQ(Korvo::schedulerRootKorvo(), Korvo::schedulerRootKorvo());
   EXPECT_EQ(Korvo::schedulerRootKorvo()->schedulerName().str(), "main");
   std::weak_ptr<Korvo::TaskSchedulerRoot> other;
   std::thread([&] {
      // Runs its destructor after the root slot's: the thread's event base goes last.
      thread_local EventBaseOfThisThread base;
      other = Korvo::schedulerRootKorvo();
      EXPECT_EQ(other.lock()->schedulerName().str(),
                "thread:" + testing::PrintToString(std::this_thread::get_id()));
   }).join();
   EXPECT_TRUE(other.expired());  // the thread's slot let go of its root when it ended
}

TEST_F(RootTest, RegistryAndThreadBinding) {
   EXPECT_EQ(root_->findSchedulerForTest("testSched"), sched_.get());
   EXPECT_THAT(
       assertionText([&] { root_->registerScheduler(sched_.get()); }),
       AllOf(testing::StartsWith("TaskSchedulerCpp:"), HasSubstr("insert failed for testSched")));
   root_->unregisterScheduler(sched_.get());
   EXPECT_THAT(assertionText([&] { root_->unregisterScheduler(sched_.get()); }),
               HasSubstr("delete failed for testSched"));
   root_->registerScheduler(sched_.get());

   auto t = makeTask({}, "bound"), rooted = makeTask({}, "rooted", {}, root_);
   std::ostringstream owner;
   owner << ") pid " << getpid() << " scheduler belongs to thread " << root_->ownerThread() << "("
         << root_->ownerThreadName() << ")";
   EXPECT_THAT(assertionTextInThread([&] { t->scheduleTask(); }),
               AllOf(HasSubstr("Executing in wrong thread intruder("), HasSubstr(owner.str())));
   // Off by the root's switch, which covers the loop callback a root task requests too,
   // and while auxiliary threads are declared.
   root_->threadSanityDisabledIs(true);
   EXPECT_EQ(assertionTextInThread([&] { rooted->scheduleTask(); }), "");
   root_->threadSanityDisabledIs(false);
   Korvo::auxThreadCount = 1;
   EXPECT_EQ(assertionTextInThread([&] { t->scheduleTask(); }), "");
   Korvo::auxThreadCount = 0;
   EXPECT_TRUE(t->taskScheduled() && rooted->taskScheduled());
   t->unscheduleTask();
   // A child forked by another thread is that thread alone, but in another process.
   std::thread([&] {
      EXPECT_EXIT((t->scheduleTask(), _exit(0)), testing::ExitedWithCode(0), "");
   }).join();
}

// Through the event loop: one task per callback, by priority, in turn with the loop's
// other clients; suspension and virtual time.
TEST(RootLoopTest, TheLoopDrivesTheRoot) {
   ThrowOnAssert throwing;
   auto root = Korvo::schedulerRootKorvoNonShared("loopRoot");
   std::string order;
   std::vector<std::shared_ptr<LambdaTask>> tasks;
   for (auto p :
        {TaskPriority::low, TaskPriority::high, TaskPriority::normal, TaskPriority::normal}) {
      tasks.push_back(Korvo::makeShared<LambdaTask>(root, p, "t", [&order](LambdaTask& self) {
         order += self.taskPriority().oneCharString();
      }));
      tasks.back()->scheduleTask();
   }
   Handler poker;  // a client asking for one callback at a time, three times
   auto poke = Korvo::Platform::getCallbackControl(&poker);
   poker.then = [&] {
      order += "p";
      if (poker.calls() < 3)
         poke->requestCallback();
   };
   poke->requestCallback();
   root->virtualTimeIs(true);
   Korvo::Platform::doEventLoop();  // returns once nothing is left registered
   EXPECT_EQ(order, "HpNpNpL");
   EXPECT_FALSE(root->virtualTime());  // off by the time the loop runs a task
   root->suspendedIs(true);
   tasks[0]->scheduleTask();
   Korvo::Platform::doEventLoop();  // the one callback is ignored and asks for no other
   EXPECT_EQ(tasks[0]->runs, 1);
}

TEST(RootLoopTest, ARunsEndStartsTheNextDispatchUnlessAHandlerRanBetween) {
   FakeClock restores;  // a clock of one microsecond per read: the figures count reads
   Korvo::taskTimeSourceIs([] { return FakeClock::advance(1us), FakeClock::now(); });
   Handler between;
   auto poke = Korvo::Platform::getCallbackControl(&between);
   std::vector<int64_t> latencies;  // before runs 1 (fresh), 2 (after `between`), 3 (shared)
   auto task = Korvo::makeShared<LambdaTask>(
       Korvo::schedulerRootKorvoNonShared("reads"), TaskPriority::normal, "again", [&](auto& t) {
          latencies.push_back(t.taskLastSchedulingLatency().count() / 1000);
          t.runs == 1 ? poke->requestCallback() : void();
          t.runs < 3 ? t.scheduleTask() : void();  // stamped with the run's end
       });
   task->scheduleTask();
   Korvo::Platform::doEventLoop();
   EXPECT_EQ(latencies, (std::vector<int64_t>{1, 1, 0}));
   EXPECT_EQ(task->taskTotalRunTime(), 3us);  // one read per run
}
