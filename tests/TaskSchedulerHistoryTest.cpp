#include "TaskTestSupport.h"

#include <Korvo/TaskScheduler.h>
#include <Korvo/TaskSchedulerHistory.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>

using namespace KorvoTest;
using Korvo::TaskPriority;
using Korvo::TaskSchedulerEventType;
using Korvo::TaskSchedulerHistory;
using ::testing::HasSubstr;

namespace {

class HistoryTest : public SchedulerFixture {
protected:
   std::string printed(unsigned limit) {
      std::ostringstream os;
      root_->printHistory(os, limit);
      return os.str();
   }
   void insertTaskEvents(const Korvo::_TaskBase* task, int n, Korvo::TaskDuration step) {
      for (int i = 0; i < n; ++i) {
         FakeClock::advance(step);
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
   auto t = makeTask(TaskPriority::normal, "flush");  // create
   FakeClock::advance(1500ns);
   t->scheduleTask();  // schedule, schedulerRunnable, busy
   FakeClock::advance(2ms);
   sched_->handleSchedulerRun();  // run start, run end, idle
   const std::string expected =
       title +
       "         1000002001500 ns since boot          0 µs idle       flush\n"
       "         1000002001500 ns since boot          0 µs run end    flush\n"
       "         1000002001500 ns since boot          0 µs run start  flush\n"
       "         1000000001500 ns since boot       2000 µs busy       flush\n"
       "         1000000001500 ns since boot       2000 µs schedulerRunnable testSched\n"
       "         1000000001500 ns since boot       2000 µs schedule   flush\n"
       "         1000000000000 ns since boot       2001 µs create     flush\n"
       "\n";
   EXPECT_EQ(printed(4294967295u), expected);
   EXPECT_EQ(root_->history()->size(), 7u);
}

TEST_F(HistoryTest, LimitsAndTruncation) {
   root_->clearHistory();
   EXPECT_EQ(printed(0),
             "Last 0 scheduler events, absolute timestamp and relative to last event\n" +
                 std::string(70, '-') + "\n\n");
   EXPECT_EQ(printed(4294967295u), title + "\n");  // empty history

   auto t = makeTask(TaskPriority::low, "t");
   root_->clearHistory();
   insertTaskEvents(t.get(), 3, 1us);
   // Reaching the limit prints the note even when nothing is left over.
   const std::string three = printed(3);
   EXPECT_THAT(three, ::testing::StartsWith("Last 3 scheduler events"));
   EXPECT_THAT(three, ::testing::EndsWith("busy       t\nTruncated due to requested limit\n\n"));
   const std::string two = printed(2);
   EXPECT_EQ(std::count(two.begin(), two.end(), '\n'), 2 + 2 + 1 + 1);
   EXPECT_THAT(two, HasSubstr("Truncated due to requested limit\n"));
   EXPECT_THAT(printed(4294967295u), ::testing::Not(HasSubstr("Truncated")));
   // The title counts the capacity, not the events held.
   EXPECT_THAT(printed(4294967295u), ::testing::StartsWith("Last 100 scheduler events"));
}

TEST_F(HistoryTest, WrapsAroundKeepingTheNewestAndResizes) {
   auto t = makeTask(TaskPriority::normal, "w");
   root_->clearHistory();
   for (int i = 0; i < 150; ++i) {
      FakeClock::advance(1us);
      root_->history()->insert(FakeClock::now(), TaskSchedulerEventType::busy, t.get());
   }
   const TaskSchedulerHistory& h = *root_->history();
   ASSERT_EQ(h.size(), 100u);
   EXPECT_EQ(h.event(0).time(), FakeClock::now());
   EXPECT_EQ(h.event(99).time(), FakeClock::now() - 99us);  // the oldest 50 are gone
   const std::string all = printed(4294967295u);
   EXPECT_EQ(std::count(all.begin(), all.end(), '\n'), 2 + 100 + 1);
   EXPECT_THAT(all, HasSubstr("        99 µs busy       w\n\n"));

   root_->historyEntryCountIs(100);  // unchanged: nothing happens
   EXPECT_EQ(h.size(), 100u);
   root_->historyEntryCountIs(10);  // shrinking keeps the newest
   EXPECT_EQ(root_->historyEntryCount(), 10u);
   ASSERT_EQ(h.size(), 10u);
   EXPECT_EQ(h.event(0).time(), FakeClock::now());
   EXPECT_EQ(h.event(9).time(), FakeClock::now() - 9us);
   root_->historyEntryCountIs(20);  // growing keeps everything
   EXPECT_EQ(h.size(), 10u);
   insertTaskEvents(t.get(), 15, 1us);
   EXPECT_EQ(h.size(), 20u);
   EXPECT_EQ(h.event(19).time(), FakeClock::now() - 19us);
}

TEST_F(HistoryTest, EventsKeepTheirNamesAliveAndCheckTheirKind) {
   auto t = makeTask(TaskPriority::normal, "ephemeral");
   t->scheduleTask();
   t.reset();
   // The task is gone; its name lives on in the history.
   EXPECT_EQ(root_->history()->event(0).display(), "delete     ephemeral");
   EXPECT_NE(root_->stringCache().find("ephemeral"), nullptr);
   root_->clearHistory();
   // The dead-task record holds it too, until statistics are cleared.
   EXPECT_NE(root_->stringCache().find("ephemeral"), nullptr);
   sched_->clearStats();
   EXPECT_EQ(root_->stringCache().find("ephemeral"), nullptr);

   auto u = makeTask(TaskPriority::normal, "u");
   EXPECT_THAT(assertionText([&] {
                  TaskSchedulerHistory::Event(FakeClock::now(),
                                              TaskSchedulerEventType::schedulerIdle, u.get());
               }),
               AllOf(::testing::StartsWith("TaskSchedulerCpp:Event:"), HasSubstr("EventType: 15")));
   EXPECT_THAT(assertionText([&] {
                  TaskSchedulerHistory::Event(FakeClock::now(), TaskSchedulerEventType(24),
                                              u.get());
               }),
               AllOf(HasSubstr("eventNeedTask"), HasSubstr("unexpected eventType=24")));
   EXPECT_THAT(assertionText([&] {
                  TaskSchedulerHistory::Event(
                      FakeClock::now(), TaskSchedulerEventType::busy,
                      static_cast<const Korvo::TaskScheduler*>(sched_.get()));
               }),
               HasSubstr("EventType: 12"));
}

TEST_F(HistoryTest, EveryEventTypeHasItsLabel) {
   auto t = makeTask(TaskPriority::normal, "x");
   const char* taskLabels[] = {"schedule   ", "unschedule ", "run start  ", "run end    ",
                               "timerStart ", "timerStop  ", "suspendOn  ", "suspendOff ",
                               "scheduleSus", "frcYieldOn ", "frcYieldOff", "idle       ",
                               "busy       ", "create     ", "delete     "};
   for (unsigned type = 0; type <= 14; ++type) {
      TaskSchedulerHistory::Event e(FakeClock::now(), TaskSchedulerEventType(type), t.get());
      EXPECT_EQ(e.display(), std::string(taskLabels[type]) + "x");
      EXPECT_EQ(std::string(taskLabels[type]).size(), 11u);
   }
   const char* schedulerLabels[] = {"schedulerIdle ",
                                    "schedulerRunnable ",
                                    "schedulerSuspended ",
                                    "schedulerUnsuspended ",
                                    "schedulerRunIgnoredWhileSuspended ",
                                    "schedulerVirtualTimeOn ",
                                    "schedulerVirtualTimeOff ",
                                    "schedulerTestYieldRatioOn ",
                                    "schedulerTestYieldRatioOff "};
   for (unsigned type = 15; type <= 23; ++type) {
      TaskSchedulerHistory::Event e(FakeClock::now(), TaskSchedulerEventType(type),
                                    static_cast<const Korvo::TaskScheduler*>(sched_.get()));
      EXPECT_EQ(e.display(), std::string(schedulerLabels[type - 15]) + "testSched");
   }
}
