#include "TaskTestSupport.h"

#include <fmt/format.h>

#include <cstdio>
#include <map>
#include <numeric>
#include <sstream>

using namespace KorvoTest;

// The event's priority and scheduler id use padding: an event stays three words.
static_assert(sizeof(Korvo::TaskSchedulerHistory::Event) == 24);

namespace {

// Every byte value; 0x80 to 0xFF stand alone, so each is invalid UTF-8.
std::string allBytes() {
   std::string s(256, '\0');
   std::iota(s.begin(), s.end(), '\0');
   return s;
}

// What a reader gets back for allBytes(): ASCII as is, U+FFFD per invalid byte.
std::string allBytesRead() {
   std::string s = allBytes().substr(0, 128);
   for (int b = 128; b < 256; ++b) {
      s += "\xEF\xBF\xBD";
   }
   return s;
}

std::string hex(const std::string& s) {
   std::string out;
   for (unsigned char c : s) {
      out += fmt::format("{:02x}", c);
   }
   return out;
}

// The standard output of `command`, which must succeed.
std::string run(const std::string& command) {
   FILE* pipe = ::popen(command.c_str(), "r");
   std::string out;
   char buf[4096];
   for (std::size_t n; (n = std::fread(buf, 1, sizeof(buf), pipe)) > 0;) {
      out.append(buf, n);
   }
   EXPECT_EQ(::pclose(pipe), 0) << command << "\n" << out;
   return out;
}

// Loads the timeline with python's json module; prints the event phases, then per task
// run: its name in hex, the number of complete events, their summed duration in ns,
// priority and scheduler.
constexpr const char* timelineSummary = R"(
import json, sys
events = json.load(open(sys.argv[1], encoding='utf-8'))['traceEvents']
runs = {}
for e in events:
    assert {'ph', 'name', 'pid', 'tid'} <= e.keys(), e
    if e['ph'] == 'X':
        a = e['args']
        r = runs.setdefault(a['task'], [0, 0, a['priority'], a['scheduler']])
        r[0] += 1
        r[1] += round(e['dur'] * 1000)
print(' '.join(sorted({e['ph'] for e in events})))
for k in sorted(runs):
    print(k.encode().hex(), *runs[k])
)";

class ExportTest : public SchedulerFixture {
protected:
   void SetUp() override {
      if (std::system("python3 -c pass >/dev/null 2>&1") != 0) {
         GTEST_SKIP() << "python3 is not installed";
      }
   }
   // The summary of root_'s timeline.
   std::string timeline() {
      TempDir dir;
      std::ofstream(dir.file("s.py")) << timelineSummary;
      std::ofstream json(dir.file("t.json"));
      root_->writeTimeline(json);
      json.close();
      return run("python3 " + dir.file("s.py") + " " + dir.file("t.json"));
   }
};

}  // namespace

TEST_F(ExportTest, TimelineIsValidJsonAndRunsMatchTheStatistics) {
   root_->historyEntryCountIs(1000);
   const std::string quoted = "caf\xC3\xA9 \"q\" \\" + allBytes();  // read back as below
   auto slow = makeTask(TaskPriority::normal, "slow", [](LambdaTask&) { FakeClock::advance(3ms); });
   auto odd = makeTask(TaskPriority::low, quoted, [](LambdaTask& t) {
      FakeClock::advance(1234ns);
      t.taskShouldYield();
   });
   for (int i = 0; i < 3; ++i) {
      slow->scheduleTask();
      odd->scheduleTask();
      drain(*sched_);
   }
   root_->suspendedIs(true);
   root_->suspendedIs(false);
   std::istringstream lines(timeline());
   std::string line;
   std::getline(lines, line);
   EXPECT_EQ(line, "C M X i");
   std::map<std::string, std::string> runs;
   while (std::getline(lines, line)) {
      runs[line.substr(0, line.find(' '))] = line.substr(line.find(' ') + 1);
   }
   for (const auto& [task, read] : {std::pair{slow, std::string("slow")},
                                    std::pair{odd, quoted.substr(0, 11) + allBytesRead()}}) {
      EXPECT_EQ(runs[hex(read)], "3 " + std::to_string(task->taskTotalRunTime().count()) + " " +
                                     task->taskPriority().toStrep() + " testSched");
   }
   // Empty, and a window that starts inside a run: the run shows from the window's start.
   root_->clearHistory();
   EXPECT_EQ(timeline(), "M\n");
   slow->bodyIs([this](LambdaTask&) {
      FakeClock::advance(5us);
      root_->clearHistory();
      FakeClock::advance(5us);
      root_->recordEvent(FakeClock::now(), Korvo::TaskSchedulerEventType::schedulerIdle);
      FakeClock::advance(5us);
   });
   slow->scheduleTask();
   sched_->handleSchedulerRun();
   EXPECT_EQ(timeline(), "C M X\n" + hex("slow") + " 1 5000 normal testSched\n");
}

// The samples of a metrics text, "name{labels}" -> value; the format itself is left to
// Prometheus's own linter, where its package is installed.
std::map<std::string, double> metrics(const Korvo::TaskScheduler& s) {
   std::ostringstream os;
   s.printMetrics(os);
   if (std::system("command -v promtool >/dev/null 2>&1") == 0) {
      TempDir dir;
      std::ofstream(dir.file("m")) << os.str();
      run("promtool check metrics <" + dir.file("m") + " 2>&1");
   }
   std::map<std::string, double> samples;
   std::istringstream in(os.str());
   for (std::string line; std::getline(in, line);) {
      const auto blank = line.rfind(' ');
      if (line[0] != '#') {
         EXPECT_TRUE(samples.emplace(line.substr(0, blank), std::stod(line.substr(blank))).second);
      }
   }
   return samples;
}

using MetricsTest = SchedulerFixture;

TEST_F(MetricsTest, MetricsMatchTheStatistics) {
   EXPECT_EQ(metrics(*sched_).at("korvo_history_capacity"), 100);
   auto a1 = makeTask(TaskPriority::normal, "a", [](LambdaTask& t) {
      FakeClock::advance(50ms);  // over 200% of the 20 ms quantum
      t.taskWorkCountInc(4);
   });
   auto a2 = makeTask(TaskPriority::normal, "a", [](LambdaTask&) { FakeClock::advance(1ms); });
   auto odd = makeTask(TaskPriority::low, "line\nquote\"back\\" + allBytes());
   auto gone = makeTask(TaskPriority::low, "gone", [](LambdaTask&) { FakeClock::advance(2ms); });
   for (auto* t : {a1.get(), a2.get(), odd.get(), gone.get()}) {
      t->scheduleTask();
   }
   drain(*sched_);
   odd->scheduleTask();
   gone.reset();
   auto m = metrics(*root_);
   const std::string task = "{scheduler=\"testSched\",task=\"";
   const std::string oddLabel = "line\\nquote\\\"back\\\\" + allBytesRead().substr(0, 10) + "\\n" +
                                allBytesRead().substr(11, 23) + "\\\"" +
                                allBytesRead().substr(35, 57) + "\\\\" + allBytesRead().substr(93);
   const std::string tasks = "korvo_scheduler_tasks{scheduler=\"testSched\",priority=";
   // Live tasks of one name add up into one series.
   for (auto [series, value] :
        {std::pair{"korvo_task_runs_total" + task + "a\"}", 2.0},
         {"korvo_task_run_seconds_total" + task + "a\"}", 0.051},
         {"korvo_task_runs_total" + task + oddLabel + "\"}", 1.0},
         {"korvo_task_quantum_violations_total" + task + "a\",threshold=\"200\"}", 1.0},
         {"korvo_task_work_units_total" + task + "a\"}", 4.0},
         {"korvo_dead_tasks_total" + task + "gone\"}", 1.0},
         {"korvo_dead_task_run_seconds_total" + task + "gone\"}", 0.002},
         {tasks + "\"low\",state=\"runnable\"}", 1.0},
         {tasks + "\"normal\",state=\"idle\"}", 2.0}}) {
      EXPECT_DOUBLE_EQ(m[series], value) << series;
   }
}
