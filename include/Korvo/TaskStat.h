#ifndef KORVO_TASKSTAT_H
#define KORVO_TASKSTAT_H

// The small value types of the task scheduler: scheduler time, task priorities,
// task keys, saturating counters and the statistics record of one task.

#include <Korvo/ConstString.h>
#include <Korvo/Export.h>

#include <chrono>
#include <cstdint>
#include <ostream>
#include <string>

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

   const ConstStringRef& taskName() const { return name_; }
   void taskNameIs(const ConstStringRef& name) { name_ = name; }
   TaskKey taskKey() const { return key_; }
   TaskPriority taskPriority() const { return priority_; }

   uint32_t taskRunCount() const { return runCount_; }
   void taskRunInc(unsigned n) { runCount_ += n; }
   TaskDuration taskTotalRunTime() const { return totalRunTime_; }
   void taskTotalRunTimeInc(TaskDuration d) { totalRunTime_ += d; }
   uint64_t taskWorkCountTotal() const { return workCountTotal_; }
   void taskWorkCountTotalInc(unsigned long n) { workCountTotal_ += n; }
   float taskWorkCountDecayAverage() const { return workCountDecayAverage_; }
   TaskMaybeU32 taskWorkCountHighWaterMark() const { return workCountHighWaterMark_; }
   uint32_t taskWorkPending() const { return workPending_; }
   TaskMaybeU32 taskWorkPendingHighWaterMark() const { return workPendingHighWaterMark_; }
   uint32_t taskQuantumViolation500() const { return quantumViolation500_; }
   void taskQuantumViolation500Inc(unsigned n) { quantumViolation500_ += n; }
   uint32_t taskQuantumViolation200() const { return quantumViolation200_; }
   void taskQuantumViolation200Inc(unsigned n) { quantumViolation200_ += n; }
   TaskDuration taskRunTimeHighWaterMark() const { return runTimeHighWaterMark_; }
   void taskRunTimeHighWaterMarkIs(TaskDuration d) { runTimeHighWaterMark_ = d; }
   TaskDuration taskLastSchedulingLatency() const { return lastSchedulingLatency_; }
   void taskLastSchedulingLatencyIs(TaskDuration d) { lastSchedulingLatency_ = d; }
   TaskDuration taskSchedulingLatencyHighWaterMark() const {
      return schedulingLatencyHighWaterMark_;
   }
   void taskSchedulingLatencyHighWaterMarkIs(TaskDuration d) {
      schedulingLatencyHighWaterMark_ = d;
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

private:
   ConstStringRef name_;
   TaskKey key_;
   TaskPriority priority_;
   uint32_t runCount_ = 0;
   TaskDuration totalRunTime_{0};
   uint64_t workCountTotal_ = 0;
   float workCountDecayAverage_ = 0.0f;
   TaskMaybeU32 workCountHighWaterMark_;
   uint32_t workPending_ = 0;
   TaskMaybeU32 workPendingHighWaterMark_;
   uint32_t quantumViolation500_ = 0;
   uint32_t quantumViolation200_ = 0;
   TaskDuration runTimeHighWaterMark_{0};
   TaskDuration lastSchedulingLatency_{0};
   TaskDuration schedulingLatencyHighWaterMark_{0};
   uint32_t deadCount_ = 0;
   TaskStatus status_;
};

}  // namespace Korvo

#endif
