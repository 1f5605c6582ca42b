#include "TaskTestSupport.h"

#include <Korvo/Thread.h>

#include <sys/wait.h>
#include <unistd.h>

#include <sstream>
#include <thread>

using namespace KorvoTest;
using ::testing::StartsWith;

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
   auto main = Korvo::schedulerRootKorvo();
   EXPECT_EQ(main, Korvo::schedulerRootKorvo());
   EXPECT_EQ(main->schedulerName().str(), "main");
   std::weak_ptr<Korvo::TaskSchedulerRoot> other;
   std::thread([&] {
      // Runs its destructor after the root slot's: the thread's event base goes last.
      thread_local EventBaseOfThisThread base;
      other = Korvo::schedulerRootKorvo();
      std::ostringstream id;
      id << "thread:" << std::this_thread::get_id();
      EXPECT_EQ(other.lock()->schedulerName().str(), id.str());
   }).join();
   EXPECT_TRUE(other.expired());  // the thread's slot let go of its root when it ended
}

TEST_F(RootTest, RegistryAndThreadBinding) {
   EXPECT_EQ(root_->findSchedulerForTest("testSched"), sched_.get());
   EXPECT_THAT(assertionText([&] { root_->registerScheduler(sched_.get()); }),
               AllOf(StartsWith("TaskSchedulerCpp:"), HasSubstr("insert failed for testSched")));
   root_->unregisterScheduler(sched_.get());
   EXPECT_THAT(assertionText([&] { root_->unregisterScheduler(sched_.get()); }),
               HasSubstr("delete failed for testSched"));
   root_->registerScheduler(sched_.get());

   auto t = makeTask(TaskPriority::normal, "bound"),
        rooted = makeTask(TaskPriority::low, "r", {}, root_);
   std::ostringstream owner;
   owner << ") pid " << getpid() << " scheduler belongs to thread " << root_->ownerThread() << "("
         << root_->ownerThreadName() << ")";
   EXPECT_THAT(assertionTextInThread([&] { t->scheduleTask(); }),
               AllOf(HasSubstr("Executing in wrong thread intruder("), HasSubstr(owner.str())));
   EXPECT_THAT(assertionTextInThread([&] { makeTask(TaskPriority::low, "elsewhere"); }),
               HasSubstr("Executing in wrong thread "));
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
      const pid_t child = fork();
      if (child == 0) {
         _exit(assertionText([&] { t->scheduleTask(); }).empty() ? 0 : 1);
      }
      int status = 0;
      EXPECT_EQ(waitpid(child, &status, 0), child);
      EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
   }).join();
   rooted->unscheduleTask();
}

// Through the event loop: one task per callback, by priority, in turn with the loop's
// other clients; suspension and virtual time.
TEST(RootLoopTest, TheLoopDrivesTheRoot) {
   ThrowOnAssert throwing;
   auto root = Korvo::schedulerRootKorvoNonShared("loopRoot");
   std::vector<std::string> order;
   auto task = [&](TaskPriority p, const char* name, int again = 0) {
      return Korvo::makeShared<LambdaTask>(root, p, name, [&order, again](LambdaTask& self) {
         order.push_back(self.taskName().str());
         if (self.runs <= again) {
            self.scheduleTask();
         }
      });
   };
   auto low = task(TaskPriority::low, "low"), high = task(TaskPriority::high, "high");
   auto normal = task(TaskPriority::normal, "normal", 1);
   for (auto* t : {low.get(), normal.get(), high.get()}) {
      t->scheduleTask();
   }
   // A client asking for one callback at a time, three times.
   Handler poker;
   auto poke = Korvo::Platform::getCallbackControl(&poker);
   poker.then = [&] {
      order.push_back("poke");
      if (poker.calls() < 3) {
         poke->requestCallback();
      }
   };
   poke->requestCallback();
   root->virtualTimeIs(true);
   Korvo::Platform::doEventLoop();  // returns once nothing is left registered
   EXPECT_EQ(order,
             (std::vector<std::string>{"high", "poke", "normal", "poke", "normal", "poke", "low"}));
   EXPECT_FALSE(root->virtualTime());  // off by the time the loop runs a task
   root->suspendedIs(true);
   low->scheduleTask();
   Korvo::Platform::doEventLoop();  // the one callback is ignored and asks for no other
   EXPECT_EQ(low->runs, 1);
}
