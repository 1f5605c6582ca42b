#define KORVO_SOURCE_FILE "TaskSchedulerCpp"
#include "Korvo/TaskStat.h"

#include "Korvo/Debug.h"
#include "Korvo/Exception.h"

#include <algorithm>
#include <cctype>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>

namespace Korvo {

std::string DisplayDuration::toString() const {
   const int64_t ns = duration_.count();
   const uint64_t magnitude = ns < 0 ? 0 - static_cast<uint64_t>(ns) : static_cast<uint64_t>(ns);
   char text[48];
   if (magnitude < 1000) {
      std::snprintf(text, sizeof(text), "%" PRId64 "ns", ns);
   } else if (magnitude < 1000000) {
      std::snprintf(text, sizeof(text), "%.3fus", static_cast<double>(ns) / 1e3);
   } else if (magnitude < 1000000000) {
      std::snprintf(text, sizeof(text), "%.3fms", static_cast<double>(ns) / 1e6);
   } else {
      std::snprintf(text, sizeof(text), "%.6fs", static_cast<double>(ns) / 1e9);
   }
   return text;
}

std::ostream& operator<<(std::ostream& os, const DisplayDuration& d) {
   return os << d.toString();
}

std::string TaskPriority::toStrep() const {
   switch (value_) {
      case absolute:
         return "absolute";
      case high:
         return "high";
      case normal:
         return "normal";
      case low:
         return "low";
      case scavenge:
         return "scavenge";
      case oneBeyondLast:
         return "oneBeyondLast";
   }
   KORVO_FAIL("unexpected priority value " << static_cast<unsigned>(value_));
}

std::string TaskPriority::oneCharString() const {
   switch (value_) {
      case absolute:
         return "A";
      case high:
         return "H";
      case normal:
         return "N";
      case low:
         return "L";
      case scavenge:
         return "S";
      case oneBeyondLast:
         return "-";
   }
   KORVO_FAIL("unexpected priority " << static_cast<unsigned>(value_));
}

std::ostream& operator<<(std::ostream& os, TaskPriority p) {
   // oneBeyondLast is a count, not a priority, so it streams as invalid although
   // toStrep() names it.
   if (p.value() > TaskPriority::scavenge) {
      return os << "invalidPriority=" << p.value();
   }
   return os << p.toStrep();
}

std::string TaskKey::toStrep() const {
   return "@" + DisplayPointer(task_).toString();
}

TaskStat::TaskStat(ConstStringRef name, TaskKey key, TaskPriority priority, uint32_t runCount,
                   TaskDuration totalRunTime, uint64_t workCountTotal, float workCountDecayAverage,
                   TaskMaybeU32 workCountHighWaterMark, uint32_t workPending,
                   TaskMaybeU32 workPendingHighWaterMark, uint32_t quantumViolation500,
                   uint32_t quantumViolation200, TaskDuration runTimeHighWaterMark,
                   TaskDuration lastSchedulingLatency, TaskDuration schedulingLatencyHighWaterMark,
                   TaskStatus status)
    : TaskStat(std::move(name), key, priority,
               RunCounters{runCount, totalRunTime, workCountTotal, workCountDecayAverage,
                           workCountHighWaterMark, workPending, workPendingHighWaterMark,
                           quantumViolation500, quantumViolation200, runTimeHighWaterMark,
                           lastSchedulingLatency, schedulingLatencyHighWaterMark},
               status) {}

std::string TaskStat::taskStatusString() const {
   std::string out(2, ' ');
   if (status_.taskCurrentlyRunning()) {
      out[0] = '*';
   } else if (status_.taskSuspended()) {
      out[0] = 'S';
   } else if (status_.taskTimer()) {
      out[0] = status_.taskTimerRunning() ? 'T' : 't';
   }
   const char letter = priority_.oneCharString()[0];
   out[1] = status_.taskOnRunQueue()
                ? letter
                : static_cast<char>(std::tolower(static_cast<unsigned char>(letter)));
   return out;
}

namespace {
void raiseMark(TaskMaybeU32& mark, TaskMaybeU32 other) {
   if (other.hasValue()) {
      mark.raise(other.value());
   }
}
}  // namespace

TaskStat::RunCounters& TaskStat::RunCounters::operator+=(const RunCounters& other) {
   runCount += other.runCount;
   totalRunTime += other.totalRunTime;
   workCountTotal += other.workCountTotal;
   workCountDecayAverage += other.workCountDecayAverage;
   raiseMark(workCountHighWaterMark, other.workCountHighWaterMark);
   workPending += other.workPending;
   raiseMark(workPendingHighWaterMark, other.workPendingHighWaterMark);
   quantumViolation500 += other.quantumViolation500;
   quantumViolation200 += other.quantumViolation200;
   runTimeHighWaterMark = std::max(runTimeHighWaterMark, other.runTimeHighWaterMark);
   lastSchedulingLatency = std::max(lastSchedulingLatency, other.lastSchedulingLatency);
   schedulingLatencyHighWaterMark =
       std::max(schedulingLatencyHighWaterMark, other.schedulingLatencyHighWaterMark);
   return *this;
}

TaskStat& TaskStat::operator+=(const TaskStat& other) {
   counters_ += other.counters_;
   deadCount_ += other.deadCount_;
   return *this;
}

}  // namespace Korvo
