#define KORVO_SOURCE_FILE "TaskSchedulerCpp"
#include "Korvo/Exception.h"
#include "Korvo/TaskScheduler.h"
#include "Korvo/TaskStat.h"

#include <boost/format.hpp>

#include <algorithm>
#include <array>
#include <iostream>
#include <limits>

namespace Korvo {

namespace {

constexpr unsigned noLimit = 4294967295u;

// Formats are parsed once per report and reused row by row. Errors are switched off
// so that no odd value can make Boost.Format throw out of a report.
boost::format reportFormat(const char* text) {
   boost::format f(text);
   f.exceptions(boost::io::no_error_bits);
   return f;
}

double seconds(TaskDuration d) {
   return static_cast<double>(d.count()) / 1e9;
}

// Display width of a UTF-8 name: its characters, not its bytes.
std::size_t displayWidth(const std::string& text) {
   return static_cast<std::size_t>(std::count_if(text.begin(), text.end(), [](char c) {
      return (static_cast<unsigned char>(c) & 0xC0) != 0x80;
   }));
}

std::string blanks(std::size_t width, const std::string& text) {
   const std::size_t used = displayWidth(text);
   return std::string(width > used ? width - used : 0, ' ');
}

const char* pluralEnding(unsigned n) {
   return n == 1 ? "" : "s";
}

void printPriorityTable(std::ostream& os, const TaskSchedulerQueueStats& queueStats) {
   os << reportFormat("%-8s %13s %13s %9s %15s\n") % "Priority" % "RunnableCount" % "IdleCount" %
             "DeadCount" % "TotalRunCount";
   boost::format row = reportFormat("%-8s %13u %13u %9u %15lu\n");
   for (unsigned p = 0; p < TaskPriority::count; ++p) {
      auto it = queueStats.find(TaskPriority(p));
      if (it == queueStats.end()) {
         continue;
      }
      const TaskSchedulerPriorityStats& s = it->second;
      os << row % TaskPriority(p).toStrep() % s.runnableCount() % s.idleCount() % s.deadCount() %
                s.totalRunCount();
   }
}

void printLegend(std::ostream& os) {
   // The "% two" of the first line is part of the text (an argument, not a format).
   static const char* const legend[][2] = {
       {"SP", "= Task status and priority % two characters:"},
       {"   first", "  T/t for active/idle timers, * for running task or blank"},
       {"   second", "  priority and runnable status, upper case for runnable"},
       {"RunCount", "= Number of times task has run"},
       {"TotalSec", "= Total run time in seconds"},
       {"LastDelay", "= Scheduling delay last time task ran, in seconds"},
       {"MaxDelay", "= Maximum scheduling delay encountered, in seconds"},
       {"200% 500%", "= Number of times task used this percentage of quantum"},
       {"MaxMs", "= Maximum single run time in milliseconds"},
       {"Dead", "= Number of times a task with this name has died"},
       {"TotalWorkCount", "= Counter of total work units processed"},
       {"DecayAvgWorkCount", "=    exponential decaying average of work units processed"},
       {"MaxWorkCount", "=    high watermark of work units processed in one run"},
       {"LastWorkPending", "= Work units pending processing"},
       {"MaxWorkPending", "=    high watermark of work units pending processing"},
   };
   boost::format line = reportFormat("%-17s %s\n");
   for (const auto& [left, right] : legend) {
      os << line % left % right;
   }
   os << "\n";
}

// The five work columns arrive as text so that a mark without a value can be "-".
class WorkFields {
public:
   WorkFields()
       : total_(reportFormat("%lu")), average_(reportFormat("%6.1f")), count_(reportFormat("%u")) {}

   void fill(const TaskStat& s) {
      total = (total_ % s.taskWorkCountTotal()).str();
      average = (average_ % s.taskWorkCountDecayAverage()).str();
      countMark = mark(s.taskWorkCountHighWaterMark());
      pending = (count_ % s.taskWorkPending()).str();
      pendingMark = mark(s.taskWorkPendingHighWaterMark());
   }

   std::string total, average, countMark, pending, pendingMark;

private:
   std::string mark(TaskMaybeU32 m) { return m.hasValue() ? (count_ % m.value()).str() : "-"; }

   boost::format total_, average_, count_;
};

// Field widths of a row after the name, in order; the dead table adds the "Dead"
// column after "MaxMs". The dash line repeats them.
constexpr unsigned liveWidths[] = {2, 10, 13, 6, 7, 4, 4, 5, 10, 8, 6, 9, 10};
constexpr unsigned deadWidths[] = {2, 10, 13, 6, 7, 4, 4, 5, 4, 10, 8, 6, 9, 10};

template <std::size_t N>
std::string dashLine(std::size_t nameWidth, const unsigned (&widths)[N]) {
   std::string line(nameWidth, '-');
   for (unsigned w : widths) {
      line += ' ';
      line.append(w, '-');
   }
   return line + "\n";
}

uint64_t milliseconds(TaskDuration d) {
   return d.count() <= 0 ? 0 : static_cast<uint64_t>(d.count() / 1000000);
}

}  // namespace

TaskSchedulerPriorityStats& TaskSchedulerPriorityStats::operator+=(
    const TaskSchedulerPriorityStats& other) {
   runnableCount_ += other.runnableCount_;
   idleCount_ += other.idleCount_;
   deadCount_ += other.deadCount_;
   totalRunCount_ += other.totalRunCount_;
   return *this;
}

TaskSchedulerQueueStats& TaskSchedulerQueueStats::operator+=(const TaskSchedulerQueueStats& other) {
   for (const auto& [priority, stats] : other) {
      (*this)[priority] += stats;
   }
   return *this;
}

void taskSchedulerDisplay(std::ostream& os, std::vector<TaskStat>& stats, std::string title,
                          unsigned nameWidthMin, bool deadTable, bool skipNoRuns, unsigned limit) {
   std::vector<const TaskStat*> rows;
   rows.reserve(stats.size());
   unsigned skipped = 0;
   for (const TaskStat& s : stats) {
      if (skipNoRuns && s.taskRunCount() == 0) {
         ++skipped;
      } else {
         rows.push_back(&s);
      }
   }
   std::stable_sort(rows.begin(), rows.end(), [](const TaskStat* a, const TaskStat* b) {
      if (a->taskTotalRunTime() != b->taskTotalRunTime()) {
         return a->taskTotalRunTime() > b->taskTotalRunTime();
      }
      return a->taskName().str() < b->taskName().str();
   });
   unsigned truncated = 0;
   if (limit != noLimit && rows.size() > limit) {
      truncated = static_cast<unsigned>(rows.size() - limit);
      rows.resize(limit);
   }
   std::size_t nameWidth = nameWidthMin;
   for (const TaskStat* s : rows) {
      nameWidth = std::max(nameWidth, displayWidth(s->taskName().str()));
   }

   if (deadTable) {
      os << reportFormat("%s%s %2s %10s %13s %14s %4s %4s %5s %4s %26s %20s") % title %
                blanks(nameWidth, title) % "SP" % "RunCount" % "TotalSec" % "Last/Max-Delay" %
                "200%" % "500%" % "MaxMs" % "Dead" % "Total/DecayA/Max-WorkCount" %
                "Last/Max-WorkPending";
   } else {
      os << reportFormat("%s%s %2s %10s %13s %14s %4s %4s %5s %26s %20s") % title %
                blanks(nameWidth, title) % "SP" % "RunCount" % "TotalSec" % "Last/Max-Delay" %
                "200%" % "500%" % "MaxMs" % "Total/DecayA/Max-WorkCount" % "Last/Max-WorkPending";
   }
   os << "\n" << (deadTable ? dashLine(nameWidth, deadWidths) : dashLine(nameWidth, liveWidths));

   boost::format row = reportFormat(
       deadTable ? "%s%s %2s %10u %13.3f %6.3f %7.3f %4u %4u %5u %4u %10s %8s %6s "
                   "%9s %10s"
                 : "%s%s %2s %10u %13.3f %6.3f %7.3f %4u %4u %5u %10s %8s %6s %9s %10s");
   WorkFields work;
   for (const TaskStat* s : rows) {
      const std::string& name = s->taskName().str();
      work.fill(*s);
      row % name % blanks(nameWidth, name) % s->taskStatusString() % s->taskRunCount() %
          seconds(s->taskTotalRunTime()) % seconds(s->taskLastSchedulingLatency()) %
          seconds(s->taskSchedulingLatencyHighWaterMark()) % s->taskQuantumViolation200() %
          s->taskQuantumViolation500() % milliseconds(s->taskRunTimeHighWaterMark());
      if (deadTable) {
         row % s->taskDeadCount();
      }
      os << (row % work.total % work.average % work.countMark % work.pending % work.pendingMark)
         << "\n";
   }
   if (skipped != 0) {
      os << reportFormat("Skipped %u task%s with no runs\n") % skipped % pluralEnding(skipped);
   }
   if (truncated != 0) {
      os << reportFormat("Truncated %u task%s due to requested limit\n") % truncated %
                pluralEnding(truncated);
   }
}

void printStatsImpl(std::ostream& os, const TaskSchedulerQueueStats& queueStats,
                    TaskDuration maxSlip, std::vector<TaskStat>* live, unsigned liveNameWidthMin,
                    std::vector<TaskStat>* dead, unsigned deadNameWidthMin, bool skipNoRuns,
                    unsigned liveLimit, unsigned deadLimit) {
   printPriorityTable(os, queueStats);
   os << reportFormat("Maximum scheduler slip %.6f seconds\n") % seconds(maxSlip);
   printLegend(os);
   if (live != nullptr) {
      taskSchedulerDisplay(os, *live, "TaskName", liveNameWidthMin, false, skipNoRuns, liveLimit);
   }
   if (dead != nullptr) {
      taskSchedulerDisplay(os, *dead, "TaskName (completed)", deadNameWidthMin, true, false,
                           deadLimit);
   }
}

// ---------------------------------------------------------------------------------
// Gathering the inputs

TaskSchedulerQueueStats TaskScheduler::queueStats() const {
   TaskSchedulerQueueStats out;
   for (unsigned v = 0; v < TaskPriority::count; ++v) {
      const TaskPriority p(v);
      // A priority shows once the scheduler has had a task of it, alive or dead.
      if (tasksPerPriority_.count(p) == 0 && deadTasksPerPriority_.count(p) == 0) {
         continue;
      }
      const uint32_t runnable = runnableTaskCount(p);
      const uint32_t live = tasksPerPriority(p);
      out[p] = TaskSchedulerPriorityStats(runnable, live > runnable ? live - runnable : 0,
                                          deadTasksPerPriority(p), runTaskCount(p));
   }
   return out;
}

namespace {
// Gathers the rows of every scheduler in `schedulers` into one report; the slip is
// the largest of theirs.
template <typename Schedulers>
void printStatsOf(std::ostream& os, const Schedulers& schedulers,
                  const TaskSchedulerQueueStats& queueStats, bool includeDead, bool skipNoRuns,
                  unsigned nameWidthMin, unsigned liveLimit, unsigned deadLimit) {
   std::vector<TaskStat> live;
   std::vector<TaskStat> dead;
   TaskDuration maxSlip(0);
   for (const TaskScheduler* s : schedulers) {
      s->getTaskStats(&live, false);
      if (includeDead) {
         s->getDeadTaskStats(&dead, false);
      }
      maxSlip = std::max(maxSlip, s->schedulerLatencyHighWaterMark());
   }
   printStatsImpl(os, queueStats, maxSlip, &live, nameWidthMin, includeDead ? &dead : nullptr,
                  nameWidthMin, skipNoRuns, liveLimit, deadLimit);
}
}  // namespace

void TaskScheduler::printStats(std::ostream& os, bool includeDead, bool skipNoRuns,
                               unsigned nameWidthMin, unsigned liveLimit,
                               unsigned deadLimit) const {
   const std::array<const TaskScheduler*, 1> self{this};
   printStatsOf(os, self, queueStats(), includeDead, skipNoRuns, nameWidthMin, liveLimit,
                deadLimit);
}

TaskSchedulerQueueStats TaskSchedulerRoot::queueStatsRoot() const {
   TaskSchedulerQueueStats out;
   for (const TaskScheduler* s : registeredSchedulers()) {
      out += s->queueStats();
   }
   return out;
}

void TaskSchedulerRoot::printStats(std::ostream& os, bool includeDead, bool skipNoRuns,
                                   unsigned nameWidthMin, unsigned liveLimit,
                                   unsigned deadLimit) const {
   printStatsOf(os, registeredSchedulers(), queueStatsRoot(), includeDead, skipNoRuns, nameWidthMin,
                liveLimit, deadLimit);
}

void TaskSchedulerRoot::printStatsStdErr() const {
   // Wide enough for the dead table's title, so that both tables line up.
   printStats(std::cerr, true, false, 20, noLimit, noLimit);
}

}  // namespace Korvo
