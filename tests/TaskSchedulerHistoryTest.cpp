#include "TaskTestSupport.h"

#include <Korvo/TaskSchedulerHistory.h>

#include <sstream>

using namespace KorvoTest;
using Korvo::TaskSchedulerEventType;
using ::testing::EndsWith;
using ::testing::StartsWith;

namespace {

class HistoryTest : public SchedulerFixture {
protected:
   std::string printed(unsigned limit = 4294967295u) {
      std::ostringstream os;
      root_->printHistory(os, limit);
      return os.str();
   }
   void insertBusy(const Korvo::_TaskBase* task, int n) {
      for (int i = 0; i < n; ++i) {
         FakeClock::advance(1us);
         root_->history()->insert(FakeClock::now(), TaskSchedulerEventType::busy, task);
      }
   }
};

const std::string title =
    "Last 100 scheduler events, absolute timestamp and relative to last event\n" +
    std::string(72, '-') + "\n";

}  // namespace

TEST_F(HistoryTest, PrintShowsEventsNewestFirstInTheExactLayout) {
   root_->clearHistory();
   EXPECT_EQ(printed(), title + "\n");
   EXPECT_EQ(printed(0),
             "Last 0 scheduler events, absolute timestamp and relative to last event\n" +
                 std::string(70, '-') + "\n\n");
   auto t = makeTask(TaskPriority::normal, "flush");  // create
   FakeClock::advance(1500ns);
   t->scheduleTask();  // schedule, schedulerRunnable, busy
   FakeClock::advance(2ms);
   sched_->handleSchedulerRun();  // run start, run end, idle
   EXPECT_EQ(printed(),
             title +
                 "         1000002001500 ns since boot          0 µs idle       flush\n"
                 "         1000002001500 ns since boot          0 µs run end    flush\n"
                 "         1000002001500 ns since boot          0 µs run start  flush\n"
                 "         1000000001500 ns since boot       2000 µs busy       flush\n"
                 "         1000000001500 ns since boot       2000 µs schedulerRunnable testSched\n"
                 "         1000000001500 ns since boot       2000 µs schedule   flush\n"
                 "         1000000000000 ns since boot       2001 µs create     flush\n"
                 "\n");
   // Reaching the limit prints the note even when nothing is left over; the title
   // counts the limit.
   const std::string three = printed(7);
   EXPECT_THAT(three, StartsWith("Last 7 scheduler events"));
   EXPECT_THAT(three, EndsWith("create     flush\nTruncated due to requested limit\n\n"));
   const std::string two = printed(2);
   EXPECT_EQ(std::count(two.begin(), two.end(), '\n'), 2 + 2 + 1 + 1);
   EXPECT_THAT(two, EndsWith("run end    flush\nTruncated due to requested limit\n\n"));
}

TEST_F(HistoryTest, WrapsAroundKeepingTheNewestAndResizes) {
   auto t = makeTask(TaskPriority::normal, "w");
   root_->clearHistory();
   insertBusy(t.get(), 150);
   const Korvo::TaskSchedulerHistory& h = *root_->history();
   ASSERT_EQ(h.size(), 100u);
   EXPECT_EQ(h.event(99).time(), FakeClock::now() - 99us);  // the oldest 50 are gone
   const std::string all = printed();
   EXPECT_EQ(std::count(all.begin(), all.end(), '\n'), 2 + 100 + 1);
   EXPECT_THAT(all, EndsWith("        99 µs busy       w\n\n"));
   root_->historyEntryCountIs(10);  // shrinking keeps the newest
   ASSERT_EQ(h.size(), 10u);
   EXPECT_EQ(h.event(9).time(), FakeClock::now() - 9us);
   root_->historyEntryCountIs(20);  // growing keeps everything
   EXPECT_EQ(h.size(), 10u);
   insertBusy(t.get(), 15);
   EXPECT_EQ(h.size(), 20u);
   EXPECT_EQ(h.event(19).time(), FakeClock::now() - 19us);
}

TEST_F(HistoryTest, EventsKeepTheirNamesAliveAndCheckTheirKind) {
   auto t = makeTask(TaskPriority::normal, "ephemeral");
   t.reset();
   EXPECT_EQ(lastEvent(), "delete     ephemeral");  // the name lives on in the history
   root_->clearHistory();
   // The dead-task record holds it too, until statistics are cleared.
   EXPECT_NE(root_->stringCache().find("ephemeral"), nullptr);
   sched_->clearStats();
   EXPECT_EQ(root_->stringCache().find("ephemeral"), nullptr);

   auto u = makeTask(TaskPriority::normal, "u");
   const Korvo::TaskScheduler* s = sched_.get();
   const auto now = FakeClock::now();
   using E = Korvo::TaskSchedulerHistory::Event;
   EXPECT_THAT(assertionText([&] { E(now, TaskSchedulerEventType::schedulerIdle, u.get()); }),
               AllOf(StartsWith("TaskSchedulerCpp:Event:"), HasSubstr("EventType: 15")));
   EXPECT_THAT(assertionText([&] { E(now, TaskSchedulerEventType(24), u.get()); }),
               AllOf(HasSubstr("eventNeedTask"), HasSubstr("unexpected eventType=24")));
   EXPECT_THAT(assertionText([&] { E(now, TaskSchedulerEventType::busy, s); }),
               HasSubstr("EventType: 12"));
}
