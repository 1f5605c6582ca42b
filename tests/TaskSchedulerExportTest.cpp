#include "TaskTestSupport.h"

#include <Korvo/TaskScheduler.h>

#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <sstream>

using namespace KorvoTest;
using Korvo::TaskPriority;

// The event's priority and scheduler id use padding: an event stays three words.
static_assert(sizeof(Korvo::TaskSchedulerHistory::Event) == 24);

namespace {

// Every byte value; 0x80 to 0xFF stand alone, so each is invalid UTF-8.
std::string allBytes() {
   std::string s;
   for (int b = 0; b < 256; ++b) {
      s += static_cast<char>(b);
   }
   return s;
}

std::string hex(const std::string& s) {
   std::string out;
   char buf[3];
   for (unsigned char c : s) {
      std::snprintf(buf, sizeof(buf), "%02x", c);
      out += buf;
   }
   return out;
}

// What a reader gets back for allBytes(): ASCII as is, U+FFFD per invalid byte.
std::string allBytesRead() {
   std::string s = allBytes().substr(0, 128);
   for (int b = 128; b < 256; ++b) {
      s += "\xEF\xBF\xBD";
   }
   return s;
}

std::string runCommand(const std::string& command) {
   std::string out;
   FILE* pipe = ::popen(command.c_str(), "r");
   if (pipe == nullptr) {
      return out;
   }
   char buf[4096];
   std::size_t n;
   while ((n = std::fread(buf, 1, sizeof(buf), pipe)) > 0) {
      out.append(buf, n);
   }
   EXPECT_EQ(::pclose(pipe), 0) << command;
   return out;
}

// Loads the timeline with python's json module; per task run: its name in hex, the
// number of complete events, their summed duration in ns, priority and scheduler.
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
   // The summary of root_'s timeline; empty when python3 is missing.
   std::string timeline() {
      char path[] = "/tmp/korvoTimelineXXXXXX";
      const int fd = ::mkstemp(path);
      EXPECT_GE(fd, 0);
      ::close(fd);
      {
         std::ofstream file(path);
         root_->writeTimeline(file);
      }
      std::ofstream(std::string(path) + ".py") << timelineSummary;
      const std::string out = runCommand(std::string("python3 ") + path + ".py " + path + " 2>&1");
      std::remove(path);
      std::remove((std::string(path) + ".py").c_str());
      return out;
   }
};

bool havePython() {
   return std::system("python3 -c pass >/dev/null 2>&1") == 0;
}

}  // namespace

TEST_F(ExportTest, TimelineIsValidJsonAndRunsMatchTheStatistics) {
   if (!havePython()) {
      GTEST_SKIP() << "python3 is not installed";
   }
   root_->historyEntryCountIs(1000);
   auto slow = makeTask(TaskPriority::normal, "slow", [](LambdaTask&) { FakeClock::advance(3ms); });
   auto odd = makeTask(TaskPriority::low, allBytes(), [](LambdaTask&) { FakeClock::advance(7us); });
   auto quoted = makeTask(TaskPriority::high, "caf\xC3\xA9 \"q\" \\", [](LambdaTask& t) {
      FakeClock::advance(1234ns);
      t.taskShouldYield();
   });
   for (int i = 0; i < 3; ++i) {
      slow->scheduleTask();
      odd->scheduleTask();
      quoted->scheduleTask();
      while (sched_->runnableTaskCount() != 0) {
         sched_->handleSchedulerRun();
      }
   }
   root_->suspendedIs(true);
   root_->suspendedIs(false);
   const std::string summary = timeline();
   std::istringstream lines(summary);
   std::string phases;
   std::getline(lines, phases);
   EXPECT_EQ(phases, "C M X i") << summary;
   std::map<std::string, std::string> runs;
   for (std::string line; std::getline(lines, line);) {
      runs[line.substr(0, line.find(' '))] = line.substr(line.find(' ') + 1);
   }
   for (const auto& [task, read] :
        {std::pair{slow, std::string("slow")}, std::pair{odd, allBytesRead()},
         std::pair{quoted, std::string("caf\xC3\xA9 \"q\" \\")}}) {
      const Korvo::TaskStat stat = sched_->taskStatForTest(task->taskName().str());
      EXPECT_EQ(stat.taskRunCount(), 3u);
      EXPECT_EQ(runs[hex(read)], "3 " + std::to_string(stat.taskTotalRunTime().count()) + " " +
                                     task->taskPriority().toStrep() + " testSched")
          << summary;
   }
}

TEST_F(ExportTest, EmptyAndTruncatedTimelines) {
   if (!havePython()) {
      GTEST_SKIP() << "python3 is not installed";
   }
   root_->clearHistory();
   EXPECT_EQ(timeline(), "M\n");
   // A window that starts inside a run still shows the run, from the window's start.
   auto t = makeTask(TaskPriority::normal, "t", [this](LambdaTask&) {
      FakeClock::advance(5us);
      root_->clearHistory();
      FakeClock::advance(5us);
      root_->recordEvent(FakeClock::now(), Korvo::TaskSchedulerEventType::schedulerIdle);
      FakeClock::advance(5us);
   });
   t->scheduleTask();
   sched_->handleSchedulerRun();
   EXPECT_EQ(timeline(), "C M X\n74 1 5000 normal testSched\n");
}

// ---------------------------------------------------------------------------------
// Metrics

namespace {

struct Metrics {
   std::map<std::string, std::string> types;
   // "name{labels}" as printed -> value.
   std::map<std::string, double> samples;
   std::vector<std::string> errors;
};

// A strict reader of the text exposition format 0.0.4 as we print it: HELP and TYPE
// first for each family, samples of one family together, escaped label values,
// unique series, counters named *_total and not negative.
Metrics parseMetrics(const std::string& text) {
   static const std::regex help(R"(# HELP ([a-zA-Z_:][a-zA-Z0-9_:]*) [^\n]*)");
   static const std::regex type(R"(# TYPE ([a-zA-Z_:][a-zA-Z0-9_:]*) (counter|gauge))");
   static const std::regex sample(
       R"(([a-zA-Z_:][a-zA-Z0-9_:]*)(\{([a-zA-Z_][a-zA-Z0-9_]*="([^"\\\n]|\\[\\"n])*")(,[a-zA-Z_][a-zA-Z0-9_]*="([^"\\\n]|\\[\\"n])*")*\})? ([-+0-9.eE]+|NaN|[+-]Inf))");
   Metrics m;
   std::set<std::string> done;
   std::string family;
   std::string helped;
   if (!text.empty() && text.back() != '\n') {
      m.errors.push_back("no final newline");
   }
   std::istringstream in(text);
   std::smatch match;
   for (std::string line; std::getline(in, line);) {
      if (std::regex_match(line, match, help)) {
         helped = match[1];
      } else if (std::regex_match(line, match, type)) {
         if (match[1] != helped || !done.insert(match[1]).second) {
            m.errors.push_back("misplaced TYPE: " + line);
         }
         family = match[1];
         m.types[family] = match[2];
      } else if (std::regex_match(line, match, sample)) {
         const std::string series = line.substr(0, line.rfind(' '));
         const double value = std::strtod(match[7].str().c_str(), nullptr);
         if (match[1] != family || !m.samples.emplace(series, value).second ||
             (m.types[family] == "counter" &&
              (value < 0 || family.size() < 6 || family.substr(family.size() - 6) != "_total"))) {
            m.errors.push_back("bad sample: " + line);
         }
      } else {
         m.errors.push_back("unparsed: " + line);
      }
   }
   return m;
}

}  // namespace

TEST_F(ExportTest, MetricsParseStrictlyAndMatchTheStatistics) {
   std::ostringstream empty;
   sched_->printMetrics(empty);
   Metrics m = parseMetrics(empty.str());
   EXPECT_EQ(m.errors, std::vector<std::string>{});
   EXPECT_EQ(m.types.size(), 15u);
   EXPECT_EQ(m.samples.count("korvo_history_capacity"), 1u) << empty.str();
   EXPECT_EQ(m.samples["korvo_history_capacity"], 100);

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
   while (sched_->runnableTaskCount() != 0) {
      sched_->handleSchedulerRun();
   }
   odd->scheduleTask();
   gone.reset();
   std::ostringstream os;
   root_->printMetrics(os);
   m = parseMetrics(os.str());
   EXPECT_EQ(m.errors, std::vector<std::string>{}) << os.str();
   if (std::system("command -v promtool >/dev/null 2>&1") == 0) {
      // Prometheus's own linter, where its package is installed.
      char path[] = "/tmp/korvoMetricsXXXXXX";
      const int fd = ::mkstemp(path);
      ASSERT_GE(fd, 0);
      ::close(fd);
      std::ofstream(path) << os.str();
      runCommand(std::string("promtool check metrics < ") + path + " 2>&1");
      std::remove(path);
   }

   std::vector<Korvo::TaskStat> live;
   sched_->getTaskStats(&live, true);
   std::map<std::string, std::pair<double, double>> expected;  // runs, seconds
   for (const Korvo::TaskStat& s : live) {
      expected[s.taskName().str()].first += s.taskRunCount();
      expected[s.taskName().str()].second +=
          std::chrono::duration<double>(s.taskTotalRunTime()).count();
   }
   const std::string oddLabel = "line\\nquote\\\"back\\\\" + allBytesRead().substr(0, 10) + "\\n" +
                                allBytesRead().substr(11, 23) + "\\\"" +
                                allBytesRead().substr(35, 57) + "\\\\" + allBytesRead().substr(93);
   EXPECT_EQ(expected.size(), 2u);
   for (const auto& [name, label] : {std::pair{std::string("a"), std::string("a")},
                                     std::pair{odd->taskName().str(), oddLabel}}) {
      const std::string labels = "{scheduler=\"testSched\",task=\"" + label + "\"}";
      EXPECT_EQ(m.samples["korvo_task_runs_total" + labels], expected[name].first) << os.str();
      EXPECT_DOUBLE_EQ(m.samples["korvo_task_run_seconds_total" + labels], expected[name].second);
   }
   const std::string a = "{scheduler=\"testSched\",task=\"a\"";
   EXPECT_EQ(m.samples["korvo_task_quantum_violations_total" + a + ",threshold=\"200\"}"], 1);
   EXPECT_EQ(m.samples["korvo_task_work_units_total" + a + "}"], 4);
   const std::string gone_ = "{scheduler=\"testSched\",task=\"gone\"}";
   EXPECT_EQ(m.samples["korvo_dead_tasks_total" + gone_], 1);
   EXPECT_DOUBLE_EQ(m.samples["korvo_dead_task_run_seconds_total" + gone_], 0.002);
   EXPECT_EQ(
       m.samples
           ["korvo_scheduler_tasks{scheduler=\"testSched\",priority=\"low\",state=\"runnable\"}"],
       1);
   EXPECT_EQ(m.samples["korvo_scheduler_tasks{scheduler=\"testSched\",priority=\"normal\","
                       "state=\"idle\"}"],
             2);
   EXPECT_EQ(m.samples.count("korvo_scheduler_max_delay_seconds{scheduler=\"testRoot\"}"), 1u);
}
