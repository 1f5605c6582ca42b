#include "TaskTestSupport.h"

#include <cstdlib>
#include <sstream>

using namespace KorvoTest;

// The event's priority and scheduler id use padding: an event stays three words.
static_assert(sizeof(Korvo::TaskSchedulerHistory::Event) == 24);

namespace {

using ExportTest = SchedulerFixture;

// How a trace viewer reads the timeline: python's json module loads it, and every event has the
// fields a viewer places it by. Printed: the event phases, then each complete event in order, its
// name through ascii(), duration in ns, priority and scheduler.
constexpr const char* viewer = R"(
import json, sys
events = json.load(open(sys.argv[1], encoding='utf-8'))['traceEvents']
assert all({'ph', 'name', 'pid', 'tid'} <= e.keys() for e in events)
print(*sorted({e['ph'] for e in events}))
for e in [e for e in events if e['ph'] == 'X']:
    print(ascii(e['name']), round(e['dur'] * 1000), e['args']['priority'], e['args']['scheduler'])
)";

}  // namespace

// Both exports of one history and one set of statistics: metrics as Prometheus scrapes them, and
// the timeline as a trace viewer loads it.
TEST_F(ExportTest, MetricsAndTimelineShowTheStatistics) {
   // What JSON and labels escape, characters of two and three bytes, then bytes that start no
   // well-formed sequence (bad second bytes, a bad third, a stray continuation, a cut-off end),
   // each read back as one U+FFFD.
   const std::string oddName = "\"\\\n\x01\xC3\xA9\xE2\x82\xAC\xF0\xF4\xE2\x82!\xC3";
   auto a1 = makeTask(TaskPriority::normal, "a", [](LambdaTask& t) {
      FakeClock::advance(50ms);  // over 200% of the 20 ms quantum
      t.taskWorkCountInc(4);
   });
   auto a2 = makeTask(TaskPriority::normal, "a", [](LambdaTask&) { FakeClock::advance(1ms); });
   auto odd = makeTask(TaskPriority::low, oddName, [](LambdaTask&) { FakeClock::advance(1234ns); });
   auto gone = makeTask(TaskPriority::low, "gone", [](LambdaTask&) { FakeClock::advance(2ms); });
   for (auto* t : {a1.get(), a2.get(), odd.get(), gone.get()}) {
      t->scheduleTask();
   }
   drain(*sched_);
   odd->scheduleTask();
   gone.reset();
   root_->suspendedIs(true);
   root_->suspendedIs(false);
   std::ostringstream all, own;
   root_->printMetrics(all);
   sched_->printMetrics(own);
   if (std::system("command -v promtool >/dev/null") == 0) {  // the format, by its own linter
      TempDir dir;
      std::ofstream(dir / "m") << all.str();
      EXPECT_EQ(std::system(("promtool check metrics <" + dir / "m").c_str()), 0) << all.str();
   }
   EXPECT_THAT(own.str(), HasSubstr("\nkorvo_history_capacity 100\n"));
   const std::string bad = "\xEF\xBF\xBD", oddLabel = "\\\"\\\\\\n\x01\xC3\xA9\xE2\x82\xAC" + bad +
                                                      bad + bad + bad + "!" + bad;
   const std::string task = "{scheduler=\"testSched\",task=\"";
   const std::string tasks = "korvo_scheduler_tasks{scheduler=\"testSched\",priority=";
   // Live tasks of one name add up into one series.
   for (const std::string& sample :
        {"korvo_task_runs_total" + task + "a\"} 2",
         "korvo_task_run_seconds_total" + task + "a\"} 0.051",
         "korvo_task_runs_total" + task + oddLabel + "\"} 1",
         "korvo_task_quantum_violations_total" + task + "a\",threshold=\"200\"} 1",
         "korvo_task_work_units_total" + task + "a\"} 4",
         "korvo_dead_tasks_total" + task + "gone\"} 1",
         "korvo_dead_task_run_seconds_total" + task + "gone\"} 0.002",
         tasks + "\"low\",state=\"runnable\"} 1", tasks + "\"normal\",state=\"idle\"} 2"}) {
      EXPECT_THAT(all.str(), HasSubstr("\n" + sample + "\n"));
   }

   if (std::system("python3 -c pass >/dev/null 2>&1") != 0) {
      GTEST_SKIP() << "python3 is not installed";
   }
   const auto timeline = [this] {
      TempDir dir;
      std::ofstream(dir / "v.py") << viewer;
      std::ofstream json(dir / "t.json");
      root_->writeTimeline(json);
      json.close();
      EXPECT_EQ(std::system(("cd " + dir.path() + " && python3 v.py t.json >out").c_str()), 0);
      return slurp(dir / "out");
   };
   EXPECT_EQ(timeline(),
             "C M X i\n'a' 50000000 normal testSched\n'a' 1000000 normal testSched\n"
             R"('"\\\n\x01\xe9\u20ac\ufffd\ufffd\ufffd\ufffd!\ufffd' 1234 low )"
             "testSched\n'gone' 2000000 low testSched\n");
   // Empty, and a window that starts inside a run: the run shows from the window's start.
   root_->clearHistory();
   EXPECT_EQ(timeline(), "M\n");
   a2->bodyIs([this](LambdaTask&) {
      FakeClock::advance(5us);
      root_->clearHistory();
      FakeClock::advance(5us);
      root_->recordEvent(FakeClock::now(), Korvo::TaskSchedulerEventType::schedulerIdle);
      FakeClock::advance(5us);
   });
   a2->scheduleTask();
   sched_->handleSchedulerRun();
   EXPECT_EQ(timeline(), "C M X\n'a' 5000 normal testSched\n");
}
