#ifndef KORVO_TASKSCHEDULERHISTORY_H
#define KORVO_TASKSCHEDULERHISTORY_H

// The bounded record of a root scheduler's most recent events, newest first.
//
// One history belongs to one TaskSchedulerRoot and is shared (by shared pointer)
// with every scheduler registered under it. It also holds the interned-string cache
// of that root's world: every task and scheduler name under the root is interned in
// it, so the history must outlive every name handle (schedulers hold it for that).
// Insertion never allocates: when full it overwrites the oldest event. An event
// holds a handle to its name, so the text survives the task it names.
// Thread: the root's thread only.

#include <Korvo/Allocator.h>
#include <Korvo/ConstString.h>
#include <Korvo/Export.h>
#include <Korvo/TaskStat.h>

#include <boost/circular_buffer.hpp>

#include <cstdint>
#include <ostream>
#include <string>

namespace Korvo {

class _TaskBase;
class TaskScheduler;

enum class TaskSchedulerEventType : uint8_t {
   // Task events.
   schedule = 0,
   unschedule = 1,
   runStart = 2,
   runEnd = 3,
   timerStart = 4,
   timerStop = 5,
   suspendOn = 6,
   suspendOff = 7,
   scheduleSus = 8,
   frcYieldOn = 9,
   frcYieldOff = 10,
   idle = 11,
   busy = 12,
   create = 13,
   deleteTask = 14,
   // Scheduler events.
   schedulerIdle = 15,
   schedulerRunnable = 16,
   schedulerSuspended = 17,
   schedulerUnsuspended = 18,
   schedulerRunIgnoredWhileSuspended = 19,
   schedulerVirtualTimeOn = 20,
   schedulerVirtualTimeOff = 21,
   schedulerTestYieldRatioOn = 22,
   schedulerTestYieldRatioOff = 23,
};

class KORVO_EXPORT TaskSchedulerHistory {
public:
   class KORVO_EXPORT Event {
   public:
      Event() = default;
      // A task event (types 0 to 14); other types are assertion failures. Defined in
      // Korvo/Task.h, where tasks are complete.
      inline Event(const TaskTimePoint& time, TaskSchedulerEventType type, const _TaskBase* task);
      // A scheduler event (types 15 to 23); other types are assertion failures.
      Event(const TaskTimePoint& time, TaskSchedulerEventType type, const TaskScheduler* scheduler);

      TaskSchedulerEventType eventType() const { return eventType_; }
      TaskTimePoint time() const { return time_; }
      const ConstStringRef& name() const { return name_; }
      // The task's priority (absolute for scheduler events) and the history id of
      // the task's scheduler, or of the scheduler itself (see schedulerIdNew()).
      TaskPriority priority() const { return priority_; }
      uint16_t schedulerId() const { return schedulerId_; }
      // The event's label (task labels padded to 11 characters) and the name.
      std::string display() const;

   private:
      static constexpr unsigned lastTaskEvent = 14;
      [[noreturn]] static void failTaskEventType(TaskSchedulerEventType type);

      // The priority and scheduler id sit in what would otherwise be padding: they
      // cost no memory.
      TaskSchedulerEventType eventType_ = TaskSchedulerEventType::schedule;
      TaskPriority priority_;
      uint16_t schedulerId_ = 0;
      TaskTimePoint time_;
      ConstStringRef name_;
   };

   explicit TaskSchedulerHistory(unsigned int entryCount);

   // Pushes an event at the front, dropping the oldest when full. The task form is
   // defined in Korvo/Task.h.
   inline void insert(const TaskTimePoint& time, TaskSchedulerEventType type,
                      const _TaskBase* task);
   void insert(const TaskTimePoint& time, TaskSchedulerEventType type,
               const TaskScheduler* scheduler) {
      events_.push_front(Event(time, type, scheduler));
   }

   unsigned int entryCount() const { return static_cast<unsigned int>(events_.capacity()); }
   // Reallocates when n differs, keeping the newest min(size, n) events in order.
   void entryCountIs(unsigned int n);
   unsigned int size() const { return static_cast<unsigned int>(events_.size()); }
   // Newest first.
   const Event& event(unsigned int i) const { return events_[i]; }
   void clear() { events_.clear(); }

   // The operator's print: a title for min(entryCount, limit) events, a dash line,
   // one line per event newest first (nanoseconds since boot, microseconds before
   // the newest event, the event), a truncation note when the limit is reached
   // (limit 4294967295 means none), and a final empty line.
   void print(std::ostream& os, unsigned int limit) const;

   ConstStringCache& stringCache() { return stringCache_; }
   // A small id for a new scheduler, so that events can name their scheduler without
   // holding it (ids wrap after 65536 schedulers).
   uint16_t schedulerIdNew() { return nextSchedulerId_++; }

private:
   // Declared first so that it is destroyed last, after the events' name handles.
   ConstStringCache stringCache_;
   boost::circular_buffer<Event, Allocator<Event>> events_;
   uint16_t nextSchedulerId_ = 0;
};

}  // namespace Korvo

#endif
