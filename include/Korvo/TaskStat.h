#ifndef KORVO_TASKSTAT_H
#define KORVO_TASKSTAT_H

// The small value types of the task scheduler: scheduler time, task priorities,
// task keys, saturating counters and the statistics record of one task.

#include <Korvo/ConstString.h>
#include <Korvo/Export.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <ostream>
#include <string>
#include <vector>

namespace Korvo {

// Scheduler time: steady-clock time points and signed 64-bit nanosecond durations.
using TaskClock = std::chrono::steady_clock;
using TaskTimePoint = TaskClock::time_point;
using TaskDuration = std::chrono::nanoseconds;
static_assert(std::is_same_v<TaskTimePoint::duration, TaskDuration>);

// Streams a duration for people: "750ns", "12.500us", "19.000ms", "2.250000s".
class KORVO_EXPORT DisplayDuration {
public:
   explicit DisplayDuration(TaskDuration d) : duration_(d) {}
   TaskDuration duration() const { return duration_; }
   std::string toString() const;

private:
   TaskDuration duration_;
};
KORVO_EXPORT std::ostream& operator<<(std::ostream& os, const DisplayDuration& d);

// One byte; lower is more urgent. oneBeyondLast is the number of real priorities.
class KORVO_EXPORT TaskPriority {
public:
   enum Value : uint8_t {
      absolute = 0,
      high = 1,
      normal = 2,
      low = 3,
      scavenge = 4,
      oneBeyondLast = 5
   };
   static constexpr unsigned count = oneBeyondLast;

   constexpr TaskPriority() : value_(absolute) {}
   constexpr TaskPriority(Value v) : value_(v) {}
   constexpr explicit TaskPriority(unsigned v) : value_(static_cast<Value>(v)) {}
   constexpr operator Value() const { return value_; }
   constexpr unsigned value() const { return value_; }

   // "absolute", "high", "normal", "low", "scavenge", "oneBeyondLast"; anything else
   // is an assertion failure.
   std::string toStrep() const;
   // "A", "H", "N", "L", "S", "-"; anything else is an assertion failure.
   std::string oneCharString() const;

private:
   Value value_;
};
static_assert(sizeof(TaskPriority) == 1);

// toStrep() for 0 to 4, "invalidPriority=<n>" for anything above (oneBeyondLast too).
KORVO_EXPORT std::ostream& operator<<(std::ostream& os, TaskPriority p);
inline std::ostream& operator<<(std::ostream& os, TaskPriority::Value p) {
   return os << TaskPriority(p);
}

// Identifies one task instance: its address. Two tasks of one name differ by key.
class KORVO_EXPORT TaskKey {
public:
   TaskKey() = default;
   explicit TaskKey(const void* task) : task_(task) {}
   const void* task() const { return task_; }
   // "@" and the pointer as DisplayPointer prints it.
   std::string toStrep() const;
   friend bool operator==(const TaskKey&, const TaskKey&) = default;

private:
   const void* task_ = nullptr;
};

// An unsigned 32-bit value where all ones means "nothing stored yet"; stored values
// saturate one below that.
class TaskMaybeU32 {
public:
   static constexpr uint32_t none = 0xFFFFFFFFu;
   static constexpr uint32_t maxValue = 0xFFFFFFFEu;

   constexpr TaskMaybeU32() = default;
   constexpr bool hasValue() const { return value_ != none; }
   // The raw value: `none` when nothing is stored.
   constexpr uint32_t value() const { return value_; }
   constexpr void valueIs(uint64_t v) {
      value_ = v > maxValue ? maxValue : static_cast<uint32_t>(v);
   }
   constexpr void clear() { value_ = none; }
   // High-water mark: stores v when nothing is stored or v is above the value.
   constexpr void raise(uint64_t v) {
      if (!hasValue() || v > value_) {
         valueIs(v);
      }
   }
   friend constexpr bool operator==(TaskMaybeU32, TaskMaybeU32) = default;

private:
   uint32_t value_ = none;
};

// The statistics record of one task (or, with a dead count, of the destroyed tasks
// of one stats name). A plain copyable value; its name handle keeps the interned
// name alive, so a record must not outlive the root scheduler whose cache holds it.
class KORVO_EXPORT TaskStat {
public:
   class TaskStatus {
   public:
      static constexpr unsigned char timerMask = 0x01;
      static constexpr unsigned char timerRunningMask = 0x02;
      static constexpr unsigned char onRunQueueMask = 0x04;
      static constexpr unsigned char currentlyRunningMask = 0x08;
      static constexpr unsigned char suspendedMask = 0x10;

      constexpr TaskStatus() = default;
      constexpr explicit TaskStatus(unsigned char bits) : bits_(bits) {}
      constexpr unsigned char bits() const { return bits_; }

      constexpr bool bitmaskHasBitSet(unsigned char mask) const { return (bits_ & mask) != 0; }
      constexpr void bitmaskSetBit(unsigned char mask, bool on) {
         bits_ = on ? (bits_ | mask) : (bits_ & ~mask);
      }

      constexpr bool taskTimer() const { return bitmaskHasBitSet(timerMask); }
      constexpr void taskTimerIs(bool b) { bitmaskSetBit(timerMask, b); }
      constexpr bool taskTimerRunning() const { return bitmaskHasBitSet(timerRunningMask); }
      constexpr void taskTimerRunningIs(bool b) { bitmaskSetBit(timerRunningMask, b); }
      constexpr bool taskOnRunQueue() const { return bitmaskHasBitSet(onRunQueueMask); }
      constexpr void taskOnRunQueueIs(bool b) { bitmaskSetBit(onRunQueueMask, b); }
      constexpr bool taskCurrentlyRunning() const { return bitmaskHasBitSet(currentlyRunningMask); }
      constexpr void taskCurrentlyRunningIs(bool b) { bitmaskSetBit(currentlyRunningMask, b); }
      constexpr bool taskSuspended() const { return bitmaskHasBitSet(suspendedMask); }
      constexpr void taskSuspendedIs(bool b) { bitmaskSetBit(suspendedMask, b); }

      friend constexpr bool operator==(TaskStatus, TaskStatus) = default;

   private:
      unsigned char bits_ = 0;
   };

   // What a task counts about its runs and its work. A live task keeps one block and
   // updates it on every run; its record carries a copy.
   struct RunCounters {
      uint32_t runCount = 0;
      TaskDuration totalRunTime{0};
      uint64_t workCountTotal = 0;
      float workCountDecayAverage = 0.0f;
      TaskMaybeU32 workCountHighWaterMark;
      uint32_t workPending = 0;
      TaskMaybeU32 workPendingHighWaterMark;
      uint32_t quantumViolation500 = 0;
      uint32_t quantumViolation200 = 0;
      TaskDuration runTimeHighWaterMark{0};
      TaskDuration lastSchedulingLatency{0};
      TaskDuration schedulingLatencyHighWaterMark{0};

      // Counts and totals add up, high-water marks and the last latency take the
      // larger value.
      RunCounters& operator+=(const RunCounters& other);
   };

   // Counts and durations zero, no name, null key, priority absolute; the two
   // TaskMaybeU32 marks hold nothing, as for a task that never ran.
   TaskStat() = default;
   TaskStat(ConstStringRef name, TaskKey key, TaskPriority priority, uint32_t runCount,
            TaskDuration totalRunTime, uint64_t workCountTotal, float workCountDecayAverage,
            TaskMaybeU32 workCountHighWaterMark, uint32_t workPending,
            TaskMaybeU32 workPendingHighWaterMark, uint32_t quantumViolation500,
            uint32_t quantumViolation200, TaskDuration runTimeHighWaterMark,
            TaskDuration lastSchedulingLatency, TaskDuration schedulingLatencyHighWaterMark,
            TaskStatus status);
   TaskStat(ConstStringRef name, TaskKey key, TaskPriority priority, const RunCounters& counters,
            TaskStatus status)
       : name_(std::move(name)),
         key_(key),
         priority_(priority),
         counters_(counters),
         status_(status) {}

   const ConstStringRef& taskName() const { return name_; }
   void taskNameIs(const ConstStringRef& name) { name_ = name; }
   TaskKey taskKey() const { return key_; }
   TaskPriority taskPriority() const { return priority_; }

   uint32_t taskRunCount() const { return counters_.runCount; }
   void taskRunInc(unsigned n) { counters_.runCount += n; }
   TaskDuration taskTotalRunTime() const { return counters_.totalRunTime; }
   void taskTotalRunTimeInc(TaskDuration d) { counters_.totalRunTime += d; }
   uint64_t taskWorkCountTotal() const { return counters_.workCountTotal; }
   void taskWorkCountTotalInc(unsigned long n) { counters_.workCountTotal += n; }
   float taskWorkCountDecayAverage() const { return counters_.workCountDecayAverage; }
   TaskMaybeU32 taskWorkCountHighWaterMark() const { return counters_.workCountHighWaterMark; }
   uint32_t taskWorkPending() const { return counters_.workPending; }
   TaskMaybeU32 taskWorkPendingHighWaterMark() const { return counters_.workPendingHighWaterMark; }
   uint32_t taskQuantumViolation500() const { return counters_.quantumViolation500; }
   void taskQuantumViolation500Inc(unsigned n) { counters_.quantumViolation500 += n; }
   uint32_t taskQuantumViolation200() const { return counters_.quantumViolation200; }
   void taskQuantumViolation200Inc(unsigned n) { counters_.quantumViolation200 += n; }
   TaskDuration taskRunTimeHighWaterMark() const { return counters_.runTimeHighWaterMark; }
   void taskRunTimeHighWaterMarkIs(TaskDuration d) { counters_.runTimeHighWaterMark = d; }
   TaskDuration taskLastSchedulingLatency() const { return counters_.lastSchedulingLatency; }
   void taskLastSchedulingLatencyIs(TaskDuration d) { counters_.lastSchedulingLatency = d; }
   TaskDuration taskSchedulingLatencyHighWaterMark() const {
      return counters_.schedulingLatencyHighWaterMark;
   }
   void taskSchedulingLatencyHighWaterMarkIs(TaskDuration d) {
      counters_.schedulingLatencyHighWaterMark = d;
   }
   uint32_t taskDeadCount() const { return deadCount_; }
   void taskDeadCountInc(unsigned n) { deadCount_ += n; }
   void taskDeadCountIs(unsigned n) { deadCount_ = n; }
   TaskStatus taskStatus() const { return status_; }
   void taskStatusIs(TaskStatus s) { status_ = s; }

   // Two characters: "*" running, else "S" suspended, else "T"/"t" for an armed/idle
   // timer, else blank; then the priority letter, upper case when on a run queue.
   std::string taskStatusString() const;

   // Folds another record into this one: counts and totals add up (work pending and
   // the decaying average too, as loads of tasks sharing a name), high-water marks and
   // the last latency take the larger value. Name, key, priority and status stay.
   TaskStat& operator+=(const TaskStat& other);

   const RunCounters& counters() const { return counters_; }

private:
   ConstStringRef name_;
   TaskKey key_;
   TaskPriority priority_;
   RunCounters counters_;
   uint32_t deadCount_ = 0;
   TaskStatus status_;
};

// ---------------------------------------------------------------------------------
// The statistics report
//
// printStatsImpl() writes the text report that a daemon prints on request
// (TaskScheduler::printStats() and TaskSchedulerRoot::printStats() gather its inputs):
// a per-priority summary, the maximum scheduler slip, a legend, the table of live
// tasks and optionally the table of dead tasks, folded by name. Both tables are
// sorted by total run time, largest first (ties by name, then in the given order).
//
// Arguments of a task table (taskSchedulerDisplay), the choices left open:
// - `nameWidthMin`: the name column is as wide as the longest kept name, and at least
//   this wide. 0 sizes it by the names alone; pass the same value to both tables (or
//   at least the length of the longer title) to align the two tables and their
//   headings. Widths count UTF-8 characters, not bytes.
// - `skipNoRuns`: records that never ran are left out and counted in the line
//   "Skipped N task(s) with no runs" (printed when N is not 0). The report passes its `skipNoRuns`
//   to the live table only: a dead record of a task that never ran still tells that it died.
// - `limit`: at most this many rows (the largest by run time); 4294967295 keeps all.
//   The rest is counted in "Truncated N task(s) due to requested limit" (printed
//   when rows were cut). With 0, or no records, the heading and dash line stand
//   alone.
// The dash line under the heading has one group per printed field, as wide as the
// field (so the two numbers of "Last/Max-Delay" and the five work columns each get
// their own group), separated by blanks. A value that needs more room than its
// column widens its row only; nothing is cut. A mark that holds no value yet is
// printed as "-".
//
// An example: TaskSchedulerRoot::printStats(os, true, false, 20, 4294967295, 4294967295)
// from inside the task "report". Table lines are longer than shown here: each is
// one line, broken below after "MaxMs" (the rest follows indented).
//
// Priority RunnableCount     IdleCount DeadCount   TotalRunCount
// high                 0             5         1              11
// normal               0             5         2              18
// low                  0             4         0               5
// scavenge             1             0         0               0
// Maximum scheduler slip 0.004000 seconds
// SP                = Task status and priority % two characters:
//    first            T/t for active/idle timers, * for running task or blank
// ... (thirteen more legend lines, then an empty line)
// TaskName             SP   RunCount      TotalSec Last/Max-Delay 200% 500% MaxMs
//       Total/DecayA/Max-WorkCount Last/Max-WorkPending
// -------------------- -- ---------- ------------- ------ ------- ---- ---- -----
//       ---------- -------- ------ --------- ----------
// compact               l          2         0.155  0.025   0.025    1    1   110
//                0      0.0      -         0          -
// flush                 n          3         0.036  0.013   0.013    0    0    12
//              120     25.8     60         4          6
// TaskGroup;flows       h          6         0.027  0.001   0.004    0    0     6
//               18      3.0      3         0          2
// audit                 S          0         0.000  0.000   0.000    0    0     0
//                0      0.0      -         0          -
// report               *n          1         0.000  0.000   0.000    0    0     0
//                0      0.0      -         0          -
// retry                Tl          0         0.000  0.000   0.000    0    0     0
//                0      0.0      -         0          -
// TaskName (completed) SP   RunCount      TotalSec Last/Max-Delay 200% 500% MaxMs
//       Dead Total/DecayA/Max-WorkCount Last/Max-WorkPending
// -------------------- -- ---------- ------------- ------ ------- ---- ---- -----
//       ---- ---------- -------- ------ --------- ----------
// worker                n          2         0.010  0.000   0.000    0    0     5
//          2          4      4.0      2         2          1
//
// "compact" ran twice, once over 200% and once over 500% of its quantum, and is
// idle; "TaskGroup;flows" is a task group's parent task (its work count: child
// dispatches per turn); "audit" is queued (upper case) at scavenge; "report" is
// running ("*"); "retry" is a timer task with its timer armed ("T").
//
// Cost: linear in the number of records apart from the sort, about 5 us per row
// (Boost.Format builds a stream for each of a row's fifteen fields; the formats are
// parsed once per table): 10,000 live and 1,000 dead records take some 50 ms. The
// report allocates its rows' texts and pointers; nothing it reads is changed.
// No Boost.Format exception escapes (its error bits are switched off).

// The counts of one priority.
class KORVO_EXPORT TaskSchedulerPriorityStats {
public:
   TaskSchedulerPriorityStats() = default;
   TaskSchedulerPriorityStats(uint32_t runnable, uint32_t idle, uint32_t dead, uint64_t runs)
       : runnableCount_(runnable), idleCount_(idle), deadCount_(dead), totalRunCount_(runs) {}

   // Tasks on a run queue.
   uint32_t runnableCount() const { return runnableCount_; }
   // Live tasks not on a run queue.
   uint32_t idleCount() const { return idleCount_; }
   // Tasks that died since the last statistics clear.
   uint32_t deadCount() const { return deadCount_; }
   // Runs since the last statistics clear.
   uint64_t totalRunCount() const { return totalRunCount_; }

   TaskSchedulerPriorityStats& operator+=(const TaskSchedulerPriorityStats& other);
   friend bool operator==(const TaskSchedulerPriorityStats&,
                          const TaskSchedulerPriorityStats&) = default;

private:
   uint32_t runnableCount_ = 0;
   uint32_t idleCount_ = 0;
   uint32_t deadCount_ = 0;
   uint64_t totalRunCount_ = 0;
};

// The counts of every priority a scheduler has had tasks of, ordered by priority.
class KORVO_EXPORT TaskSchedulerQueueStats
    : public std::map<TaskPriority, TaskSchedulerPriorityStats> {
public:
   // Adds `other` priority by priority (priorities only in `other` are added).
   TaskSchedulerQueueStats& operator+=(const TaskSchedulerQueueStats& other);
};

// The whole report. `dead` may be null (no dead table), as may `live`. The live table gets
// (liveNameWidthMin, skipNoRuns, liveLimit), the dead table (deadNameWidthMin, false,
// deadLimit). The vectors are not changed.
KORVO_EXPORT void printStatsImpl(std::ostream& os, const TaskSchedulerQueueStats& queueStats,
                                 TaskDuration maxSlip, std::vector<TaskStat>* live,
                                 unsigned liveNameWidthMin, std::vector<TaskStat>* dead,
                                 unsigned deadNameWidthMin, bool skipNoRuns, unsigned liveLimit,
                                 unsigned deadLimit);

// One task table with the title over the name column; `deadTable` adds the "Dead"
// column. Arguments as described above; `stats` is not changed.
KORVO_EXPORT void taskSchedulerDisplay(std::ostream& os, std::vector<TaskStat>& stats,
                                       std::string title, unsigned nameWidthMin, bool deadTable,
                                       bool skipNoRuns, unsigned limit);

}  // namespace Korvo

#endif
