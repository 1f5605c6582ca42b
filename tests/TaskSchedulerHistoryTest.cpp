#include "TaskTestSupport.h"

#include <Korvo/TaskSchedulerHistory.h>

using namespace KorvoTest;

namespace {

using HistoryTest = SchedulerFixture;

const std::string title =
    "Last 100 scheduler events, absolute timestamp and relative to last event\n" +
    std::string(72, '-') + "\n";

}  // namespace

TEST_F(HistoryTest, PrintShowsEventsNewestFirstInTheExactLayout) {
   auto printed = [&](unsigned limit = 4294967295u) {
      std::ostringstream os;
      root_->printHistory(os, limit);
      return os.str();
   };
   root_->historyEntryCountIs(100);  // unchanged
   root_->clearHistory();
   EXPECT_EQ(printed(), title + "\n");
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
   // The title counts the limit; reaching it prints a note, even with nothing left over.
   EXPECT_THAT(printed(7),
               testing::EndsWith("create     flush\nTruncated due to requested limit\n\n"));
   EXPECT_EQ(printed(1),
             "Last 1 scheduler events, absolute timestamp and relative to last event\n" +
                 std::string(70, '-') + "\n" +
                 "         1000002001500 ns since boot          0 µs idle       flush\n"
                 "Truncated due to requested limit\n\n");
}

TEST_F(HistoryTest, EventsKeepTheirNamesAliveAndCheckTheirKind) {
   makeTask(TaskPriority::normal, "ephemeral");     // gone at once
   EXPECT_EQ(lastEvent(), "delete     ephemeral");  // the name lives on in the history
   root_->clearHistory();
   // The dead-task record holds it too, until statistics are cleared.
   EXPECT_NE(root_->stringCache().find("ephemeral"), nullptr);
   sched_->clearStats();
   EXPECT_EQ(root_->stringCache().find("ephemeral"), nullptr);

   auto u = makeTask(TaskPriority::normal, "u");
   using E = Korvo::TaskSchedulerHistory::Event;
   using enum Korvo::TaskSchedulerEventType;
   EXPECT_THAT(assertionText([&] { E(FakeClock::now(), schedulerIdle, u.get()); }),
               AllOf(HasSubstr("TaskSchedulerCpp:Event:"), HasSubstr("EventType: 15")));
   EXPECT_THAT(
       assertionText([&] { E(FakeClock::now(), Korvo::TaskSchedulerEventType(24), u.get()); }),
       AllOf(HasSubstr("eventNeedTask"), HasSubstr("unexpected eventType=24")));
   EXPECT_THAT(assertionText([&] { E(FakeClock::now(), busy, sched_.get()); }),
               HasSubstr("EventType: 12"));
}
