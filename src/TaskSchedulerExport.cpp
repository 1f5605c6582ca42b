#define KORVO_SOURCE_FILE "TaskSchedulerExportCpp"
// The operator's exports: the history as a Trace Event Format timeline and the
// statistics as Prometheus text-format metrics.
#include "Korvo/TaskScheduler.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace Korvo {
namespace {

constexpr std::string_view replacementCharacter = "\xEF\xBF\xBD";

// The length of the well-formed UTF-8 sequence at s[i], or 0 when there is none
// (overlong forms, surrogates and code points above U+10FFFF are not well formed).
std::size_t utf8SequenceLength(std::string_view s, std::size_t i) {
   const auto c = static_cast<unsigned char>(s[i]);
   if (c < 0x80) {
      return 1;
   }
   std::size_t n = 0;
   unsigned char low = 0x80;
   unsigned char high = 0xBF;
   if (c >= 0xC2 && c <= 0xDF) {
      n = 2;
   } else if (c >= 0xE0 && c <= 0xEF) {
      n = 3;
      low = c == 0xE0 ? 0xA0 : 0x80;
      high = c == 0xED ? 0x9F : 0xBF;
   } else if (c >= 0xF0 && c <= 0xF4) {
      n = 4;
      low = c == 0xF0 ? 0x90 : 0x80;
      high = c == 0xF4 ? 0x8F : 0xBF;
   } else {
      return 0;
   }
   if (i + n > s.size()) {
      return 0;
   }
   const auto second = static_cast<unsigned char>(s[i + 1]);
   if (second < low || second > high) {
      return 0;
   }
   for (std::size_t k = 2; k < n; ++k) {
      if ((static_cast<unsigned char>(s[i + k]) & 0xC0) != 0x80) {
         return 0;
      }
   }
   return n;
}

// Appends `s` with every byte that is not part of a well-formed sequence replaced
// by U+FFFD (one per byte) and each ASCII character passed through `escape`.
template <typename Escape>
void appendUtf8(std::string& out, std::string_view s, Escape escape) {
   for (std::size_t i = 0; i < s.size();) {
      const std::size_t n = utf8SequenceLength(s, i);
      if (n == 0) {
         out += replacementCharacter;
         ++i;
      } else if (n == 1) {
         escape(out, s[i]);
         ++i;
      } else {
         out.append(s, i, n);
         i += n;
      }
   }
}

void appendJsonString(std::string& out, std::string_view s) {
   out += '"';
   appendUtf8(out, s, [](std::string& o, char c) {
      if (c == '"' || c == '\\') {
         o += '\\';
         o += c;
      } else if (static_cast<unsigned char>(c) < 0x20) {
         constexpr char hex[] = "0123456789abcdef";
         o += "\\u00";
         o += hex[(c >> 4) & 0xF];
         o += hex[c & 0xF];
      } else {
         o += c;
      }
   });
   out += '"';
}

template <typename T>
void appendNumber(std::string& out, T value) {
   char buf[24];
   const auto end = std::to_chars(buf, buf + sizeof(buf), value).ptr;
   out.append(buf, end);
}

// Microseconds with the nanoseconds as three decimals, exact for any time point.
void appendMicroseconds(std::string& out, int64_t ns) {
   if (ns < 0) {
      out += '-';
   }
   const uint64_t magnitude = ns < 0 ? 0 - static_cast<uint64_t>(ns) : static_cast<uint64_t>(ns);
   appendNumber(out, magnitude / 1000);
   const auto fraction = static_cast<unsigned>(magnitude % 1000);
   out += '.';
   out += static_cast<char>('0' + fraction / 100);
   out += static_cast<char>('0' + fraction / 10 % 10);
   out += static_cast<char>('0' + fraction % 10);
}

int64_t nanoseconds(const TaskTimePoint& t) {
   return t.time_since_epoch().count();
}

// The instant events of the timeline, by event type; null for the types shown
// otherwise (runs, the counter) or not at all.
const char* instantName(TaskSchedulerEventType type) {
   switch (type) {
      case TaskSchedulerEventType::timerStart:
         return "timerStart";
      case TaskSchedulerEventType::timerStop:
         return "timerStop";
      case TaskSchedulerEventType::suspendOn:
         return "suspendOn";
      case TaskSchedulerEventType::suspendOff:
         return "suspendOff";
      case TaskSchedulerEventType::scheduleSus:
         return "scheduleSus";
      case TaskSchedulerEventType::frcYieldOn:
         return "frcYieldOn";
      case TaskSchedulerEventType::frcYieldOff:
         return "frcYieldOff";
      case TaskSchedulerEventType::create:
         return "create";
      case TaskSchedulerEventType::deleteTask:
         return "delete";
      case TaskSchedulerEventType::schedulerSuspended:
         return "schedulerSuspended";
      case TaskSchedulerEventType::schedulerUnsuspended:
         return "schedulerUnsuspended";
      case TaskSchedulerEventType::schedulerRunIgnoredWhileSuspended:
         return "schedulerRunIgnoredWhileSuspended";
      case TaskSchedulerEventType::schedulerVirtualTimeOn:
         return "schedulerVirtualTimeOn";
      case TaskSchedulerEventType::schedulerVirtualTimeOff:
         return "schedulerVirtualTimeOff";
      case TaskSchedulerEventType::schedulerTestYieldRatioOn:
         return "schedulerTestYieldRatioOn";
      case TaskSchedulerEventType::schedulerTestYieldRatioOff:
         return "schedulerTestYieldRatioOff";
      default:
         return nullptr;
   }
}

bool isTaskEvent(TaskSchedulerEventType type) {
   return type <= TaskSchedulerEventType::deleteTask;
}

class TimelineWriter {
public:
   TimelineWriter(std::ostream& os, pid_t pid) : os_(os), pid_(pid) {}

   void schedulerNameIs(uint16_t id, std::string_view name) { names_[id] = std::string(name); }

   void write(const TaskSchedulerHistory& history, std::string_view processName) {
      out_ = "{\"displayTimeUnit\":\"ms\",\"traceEvents\":[\n";
      out_ += "{\"ph\":\"M\",\"name\":\"process_name\",\"pid\":";
      appendNumber(out_, pid_);
      out_ += ",\"tid\":0,\"args\":{\"name\":";
      appendJsonString(out_, processName);
      out_ += "}}";
      if (history.size() != 0) {
         windowStart_ = nanoseconds(history.event(history.size() - 1).time());
      }
      for (unsigned i = history.size(); i-- > 0;) {
         event(history.event(i));
      }
      for (auto& [id, stack] : open_) {
         for (const OpenRun& run : stack) {
            begin("B", run.name.str(), id, run.start);
            taskArgs(run.name.str(), id, run.priority, false);
         }
      }
      for (uint16_t id : tracks_) {
         begin("M", "thread_name", id, 0);
         out_ += ",\"args\":{\"name\":";
         appendJsonString(out_, schedulerName(id));
         out_ += "}}";
      }
      out_ += "\n]}\n";
      flush();
   }

private:
   struct OpenRun {
      ConstStringRef name;
      int64_t start;
      TaskPriority priority;
   };

   const std::string& schedulerName(uint16_t id) {
      auto it = names_.find(id);
      if (it == names_.end()) {
         it = names_.emplace(id, "scheduler#" + std::to_string(id)).first;
      }
      return it->second;
   }

   // Opens one event object, leaving it open for the caller's fields.
   void begin(const char* phase, std::string_view name, uint16_t id, int64_t ns) {
      tracks_.insert(tracks_.end(), id);
      out_ += ",\n{\"ph\":\"";
      out_ += phase;
      out_ += "\",\"name\":";
      appendJsonString(out_, name);
      out_ += ",\"pid\":";
      appendNumber(out_, pid_);
      out_ += ",\"tid\":";
      appendNumber(out_, id);
      out_ += ",\"ts\":";
      appendMicroseconds(out_, ns);
      if (out_.size() > flushSize) {
         flush();
      }
   }

   void taskArgs(std::string_view task, uint16_t id, TaskPriority priority, bool truncated) {
      out_ += ",\"cat\":\"task\",\"args\":{\"task\":";
      appendJsonString(out_, task);
      out_ += ",\"scheduler\":";
      appendJsonString(out_, schedulerName(id));
      out_ += ",\"priority\":\"";
      out_ += priority.value() < TaskPriority::count ? priority.toStrep() : "invalid";
      out_ += truncated ? "\",\"truncated\":true}}" : "\"}}";
   }

   void event(const TaskSchedulerHistory::Event& e) {
      const TaskSchedulerEventType type = e.eventType();
      const int64_t ns = nanoseconds(e.time());
      const uint16_t id = e.schedulerId();
      if (type == TaskSchedulerEventType::runStart) {
         open_[id].push_back(OpenRun{e.name(), ns, e.priority()});
      } else if (type == TaskSchedulerEventType::runEnd) {
         runEnd(e, ns, id);
      } else if (type == TaskSchedulerEventType::schedulerIdle ||
                 type == TaskSchedulerEventType::schedulerRunnable) {
         begin("C", "runnable " + schedulerName(id), id, ns);
         out_ += type == TaskSchedulerEventType::schedulerRunnable ? ",\"args\":{\"runnable\":1}}"
                                                                   : ",\"args\":{\"runnable\":0}}";
      } else if (const char* label = instantName(type)) {
         if (isTaskEvent(type)) {
            begin("i", std::string(label) + " " + e.name().str(), id, ns);
            out_ += ",\"s\":\"t\"";
            taskArgs(e.name().str(), id, e.priority(), false);
         } else {
            begin("i", label, id, ns);
            out_ += ",\"s\":\"t\",\"cat\":\"scheduler\",\"args\":{\"scheduler\":";
            appendJsonString(out_, schedulerName(id));
            out_ += "}}";
         }
      }
   }

   void runEnd(const TaskSchedulerHistory::Event& e, int64_t ns, uint16_t id) {
      std::vector<OpenRun>& stack = open_[id];
      // Runs of one scheduler do not nest; a start that is not on top was lost.
      while (!stack.empty() && stack.back().name != e.name()) {
         stack.pop_back();
      }
      const bool truncated = stack.empty();
      const int64_t start = truncated ? windowStart_ : stack.back().start;
      begin("X", e.name().str(), id, start);
      out_ += ",\"dur\":";
      appendMicroseconds(out_, ns - start);
      taskArgs(e.name().str(), id, e.priority(), truncated);
      if (!truncated) {
         stack.pop_back();
      }
   }

   void flush() {
      os_.write(out_.data(), static_cast<std::streamsize>(out_.size()));
      out_.clear();
   }

   static constexpr std::size_t flushSize = 1 << 16;
   std::ostream& os_;
   pid_t pid_;
   std::string out_;
   int64_t windowStart_ = 0;
   std::map<uint16_t, std::string> names_;
   std::map<uint16_t, std::vector<OpenRun>> open_;
   std::set<uint16_t> tracks_;
};

// ---------------------------------------------------------------------------------
// Metrics

enum Family : unsigned {
   taskRuns,
   taskRunSeconds,
   taskQuantumViolations,
   taskWorkUnits,
   taskWorkPending,
   taskMaxDelay,
   deadTasks,
   deadTaskRuns,
   deadTaskRunSeconds,
   schedulerTasks,
   schedulerTaskDeaths,
   schedulerRuns,
   schedulerMaxDelay,
   historyCapacity,
   historyEvents,
   familyCount
};

struct FamilyInfo {
   const char* name;
   const char* type;
   const char* help;
};

constexpr FamilyInfo families[] = {
    {"korvo_task_runs_total", "counter", "Runs of live tasks since the last statistics clear."},
    {"korvo_task_run_seconds_total", "counter", "Run time of live tasks."},
    {"korvo_task_quantum_violations_total", "counter",
     "Runs of live tasks longer than 200% or 500% of their quantum."},
    {"korvo_task_work_units_total", "counter", "Work units live tasks reported."},
    {"korvo_task_work_pending", "gauge", "Work units live tasks have pending."},
    {"korvo_task_max_delay_seconds", "gauge",
     "Largest wait of live tasks between being scheduled and running."},
    {"korvo_dead_tasks_total", "counter", "Destroyed tasks, by name."},
    {"korvo_dead_task_runs_total", "counter", "Runs of destroyed tasks, by name."},
    {"korvo_dead_task_run_seconds_total", "counter", "Run time of destroyed tasks, by name."},
    {"korvo_scheduler_tasks", "gauge", "Live tasks by priority and state."},
    {"korvo_scheduler_task_deaths_total", "counter", "Destroyed tasks by priority."},
    {"korvo_scheduler_runs_total", "counter", "Task runs by priority."},
    {"korvo_scheduler_max_delay_seconds", "gauge",
     "Largest wait between a scheduler's run request and its run."},
    {"korvo_history_capacity", "gauge", "Events the scheduler history keeps."},
    {"korvo_history_events", "gauge", "Events the scheduler history holds."},
};
static_assert(sizeof(families) / sizeof(families[0]) == familyCount);

std::string labelValue(std::string_view s) {
   std::string out;
   appendUtf8(out, s, [](std::string& o, char c) {
      if (c == '\\' || c == '"') {
         o += '\\';
         o += c;
      } else if (c == '\n') {
         o += "\\n";
      } else {
         o += c;
      }
   });
   return out;
}

std::string seconds(TaskDuration d) {
   return fmt::format("{}", std::chrono::duration<double>(d).count());
}

class MetricsWriter {
public:
   // One label set; `labels` is already escaped text: name="value",...
   void sample(Family f, const std::string& labels, const std::string& value) {
      std::string& body = bodies_[f];
      body += families[f].name;
      if (!labels.empty()) {
         body += '{';
         body += labels;
         body += '}';
      }
      body += ' ';
      body += value;
      body += '\n';
   }

   void scheduler(const TaskScheduler& s) {
      const std::string sched = "scheduler=\"" + labelValue(s.schedulerName().str()) + "\"";
      tasks(s, sched);
      for (const auto& [priority, stats] : s.queueStats()) {
         const std::string prio = sched + ",priority=\"" + priority.toStrep() + "\"";
         sample(schedulerTasks, prio + ",state=\"runnable\"",
                std::to_string(stats.runnableCount()));
         sample(schedulerTasks, prio + ",state=\"idle\"", std::to_string(stats.idleCount()));
         sample(schedulerTaskDeaths, prio, std::to_string(stats.deadCount()));
         sample(schedulerRuns, prio, std::to_string(stats.totalRunCount()));
      }
      sample(schedulerMaxDelay, sched, seconds(s.schedulerLatencyHighWaterMark()));
   }

   void history(const TaskSchedulerHistory& h) {
      sample(historyCapacity, "", std::to_string(h.entryCount()));
      sample(historyEvents, "", std::to_string(h.size()));
   }

   void print(std::ostream& os) const {
      for (unsigned f = 0; f < familyCount; ++f) {
         os << "# HELP " << families[f].name << ' ' << families[f].help << "\n# TYPE "
            << families[f].name << ' ' << families[f].type << '\n'
            << bodies_[f];
      }
   }

private:
   void tasks(const TaskScheduler& s, const std::string& sched) {
      std::vector<TaskStat> stats;
      s.getTaskStats(&stats, true);
      // A series per name: tasks sharing one are summed.
      std::map<std::string, TaskStat> byName;
      for (const TaskStat& stat : stats) {
         auto [it, inserted] = byName.emplace(stat.taskName().str(), stat);
         if (!inserted) {
            it->second += stat;
         }
      }
      for (const auto& [name, stat] : byName) {
         const std::string labels = sched + ",task=\"" + labelValue(name) + "\"";
         sample(taskRuns, labels, std::to_string(stat.taskRunCount()));
         sample(taskRunSeconds, labels, seconds(stat.taskTotalRunTime()));
         sample(taskQuantumViolations, labels + ",threshold=\"200\"",
                std::to_string(stat.taskQuantumViolation200()));
         sample(taskQuantumViolations, labels + ",threshold=\"500\"",
                std::to_string(stat.taskQuantumViolation500()));
         sample(taskWorkUnits, labels, std::to_string(stat.taskWorkCountTotal()));
         sample(taskWorkPending, labels, std::to_string(stat.taskWorkPending()));
         sample(taskMaxDelay, labels, seconds(stat.taskSchedulingLatencyHighWaterMark()));
      }
      s.getDeadTaskStats(&stats, true);
      std::sort(stats.begin(), stats.end(), [](const TaskStat& a, const TaskStat& b) {
         return a.taskName().str() < b.taskName().str();
      });
      for (const TaskStat& stat : stats) {
         const std::string labels = sched + ",task=\"" + labelValue(stat.taskName().str()) + "\"";
         sample(deadTasks, labels, std::to_string(stat.taskDeadCount()));
         sample(deadTaskRuns, labels, std::to_string(stat.taskRunCount()));
         sample(deadTaskRunSeconds, labels, seconds(stat.taskTotalRunTime()));
      }
   }

   std::string bodies_[familyCount];
};

}  // namespace

void TaskScheduler::printMetrics(std::ostream& os) const {
   MetricsWriter writer;
   writer.scheduler(*this);
   writer.history(*history_);
   writer.print(os);
}

void TaskSchedulerRoot::printMetrics(std::ostream& os) const {
   // By name, so that scrapes list the series in a stable order.
   std::vector<const TaskScheduler*> schedulers(registeredSchedulers().begin(),
                                                registeredSchedulers().end());
   std::sort(schedulers.begin(), schedulers.end(),
             [](const TaskScheduler* a, const TaskScheduler* b) {
                return std::make_pair(a->schedulerName().str(), a->historyId()) <
                       std::make_pair(b->schedulerName().str(), b->historyId());
             });
   MetricsWriter writer;
   for (const TaskScheduler* s : schedulers) {
      writer.scheduler(*s);
   }
   writer.history(*history());
   writer.print(os);
}

void TaskSchedulerRoot::writeTimeline(std::ostream& os) const {
   TimelineWriter writer(os, ownerPid());
   for (const TaskScheduler* s : registeredSchedulers()) {
      writer.schedulerNameIs(s->historyId(), s->schedulerName().str());
   }
   writer.write(*history(), schedulerName().str());
}

}  // namespace Korvo
