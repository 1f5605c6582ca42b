#define KORVO_SOURCE_FILE "TaskSchedulerCpp"
#include "Korvo/TaskSchedulerHistory.h"

#include "Korvo/Exception.h"
#include "Korvo/TaskScheduler.h"

#include <iomanip>
#include <sstream>

namespace Korvo {
namespace {

constexpr unsigned lastTaskEventType = 14;
constexpr unsigned lastEvent = 23;
constexpr unsigned noLimit = 4294967295u;

// Task labels are padded to one width so that the names line up in the print.
constexpr const char* labels[] = {
    "schedule   ",
    "unschedule ",
    "run start  ",
    "run end    ",
    "timerStart ",
    "timerStop  ",
    "suspendOn  ",
    "suspendOff ",
    "scheduleSus",
    "frcYieldOn ",
    "frcYieldOff",
    "idle       ",
    "busy       ",
    "create     ",
    "delete     ",
    "schedulerIdle ",
    "schedulerRunnable ",
    "schedulerSuspended ",
    "schedulerUnsuspended ",
    "schedulerRunIgnoredWhileSuspended ",
    "schedulerVirtualTimeOn ",
    "schedulerVirtualTimeOff ",
    "schedulerTestYieldRatioOn ",
    "schedulerTestYieldRatioOff ",
};
static_assert(sizeof(labels) / sizeof(labels[0]) == lastEvent + 1);

bool eventNeedTask(TaskSchedulerEventType eventType) {
   const unsigned type = static_cast<unsigned>(eventType);
   KORVO_ASSERT(type <= lastEvent, "unexpected eventType=" << type);
   return type <= lastTaskEventType;
}

}  // namespace

void TaskSchedulerHistory::Event::failTaskEventType(TaskSchedulerEventType type) {
   eventNeedTask(type);  // fails first for a value beyond every event type
   // Reported as the constructor's failure, which is where the bad type came in.
   Platform::DebugStream text;
   text << "EventType: " << static_cast<unsigned>(type);
   debugAndThrowAssertException(nullptr, 0, text, KORVO_SOURCE_FILE, "Event", __LINE__);
}

TaskSchedulerHistory::Event::Event(const TaskTimePoint& time, TaskSchedulerEventType type,
                                   const TaskScheduler* scheduler)
    : eventType_(type), time_(time) {
   KORVO_ASSERT(!eventNeedTask(type), "EventType: " << static_cast<unsigned>(type));
   schedulerId_ = scheduler->historyId();
   name_ = scheduler->schedulerName();
}

std::string TaskSchedulerHistory::Event::display() const {
   const unsigned type = static_cast<unsigned>(eventType_);
   KORVO_ASSERT(type <= lastEvent, "unexpected eventType " << type);
   return labels[type] + name_.str();
}

TaskSchedulerHistory::TaskSchedulerHistory(unsigned int entryCount) : events_(entryCount) {}

void TaskSchedulerHistory::entryCountIs(unsigned int n) {
   if (n == entryCount()) {
      return;
   }
   // Reallocates and keeps the front; the buffer is newest first, so the newest stay.
   events_.set_capacity(n);
}

void TaskSchedulerHistory::print(std::ostream& os, unsigned int limit) const {
   std::ostringstream title;
   title << "Last " << std::min(entryCount(), limit)
         << " scheduler events, absolute timestamp and relative to last event";
   os << title.str() << '\n' << std::string(title.str().size(), '-') << '\n';
   if (!events_.empty() && limit != 0) {
      const TaskTimePoint newest = events_.front().time();
      unsigned lines = 0;
      for (const Event& event : events_) {
         const int64_t sinceBoot = event.time().time_since_epoch().count();
         const int64_t beforeNewest = (newest - event.time()).count() / 1000;
         os << std::setw(22) << sinceBoot << " ns since boot " << std::setw(10) << beforeNewest
            << " \xC2\xB5s " << event.display() << '\n';
         // The note comes on reaching the limit even when no event is left over.
         if (limit != noLimit && ++lines >= limit) {
            os << "Truncated due to requested limit\n";
            break;
         }
      }
   }
   os << '\n';
}

}  // namespace Korvo
