#define KORVO_SOURCE_FILE "TimerWheelCpp"
#include "Korvo/TimerWheel.h"

#include "DebugComponent.h"
#include "Korvo/Allocator.h"
#include "Korvo/Debug.h"
#include "Korvo/Exception.h"
#include "Korvo/Thread.h"
#include "LibeventFactory.h"

#include <algorithm>
#include <cmath>

namespace Korvo {
namespace {

constexpr uint32_t notLinkedFlag = 4;
constexpr uint32_t inTimerWheelFlag = 8;
constexpr uint32_t inTimersExpiryingSoonFlag = 16;
constexpr uint32_t stateFlags = notLinkedFlag | inTimerWheelFlag | inTimersExpiryingSoonFlag;

KORVO_COMPONENT_DEBUG(wheelDebug, "KorvoTimerWheel");

// Assertion texts are built in an out-of-line cold lambda, so that the timer paths
// that test them keep a small frame and no call when all is well.
#define WHEEL_ASSERT(cond, msg)                                                              \
   do {                                                                                      \
      if (__builtin_expect(!(cond), 0)) {                                                    \
         [&, func = __func__, line = __LINE__ ]() __attribute__((noinline, cold)) {          \
            Platform::DebugStream stream;                                                    \
            stream << msg;                                                                   \
            debugAndThrowAssertException(nullptr, 0, stream, KORVO_SOURCE_FILE, func, line); \
         }                                                                                   \
         ();                                                                                 \
      }                                                                                      \
   } while (0)

}  // namespace

std::ostream& operator<<(std::ostream& os, TimerWheelState state) {
   switch (state) {
      case TimerWheelState::notLinked:
         return os << "notLinked";
      case TimerWheelState::inTimerWheel:
         return os << "inTimerWheel";
      case TimerWheelState::inTimersExpiryingSoon:
         return os << "inTimersExpiryingSoon";
   }
   return os << "unknownState";
}

// ---- TimerWheelEvent --------------------------------------------------------

TimerWheelEvent::TimerWheelEvent() : timersAtTimeout_(nullptr), expirationTime_(infinity()) {
   // Every tick handed to the wheel is absolute.
   timeout_init(&record_, static_cast<int>(notLinkedFlag | TIMEOUT_ABS));
}

TimerWheelEvent::~TimerWheelEvent() {
   KORVO_ASSERT(state() == TimerWheelState::notLinked,
                "TimerWheelEvent " << DisplayPointer(this) << " destroyed while " << state());
}

void TimerWheelEvent::setTimeout(const std::shared_ptr<TimerWheel>& wheel, double delay) {
   wheel->timerStart(this, delay);
}

void TimerWheelEvent::delTimeout(const std::shared_ptr<TimerWheel>& wheel) {
   wheel->timerStop(this);
}

double TimerWheelEvent::remainingTimeout() const {
   if (!running()) {
      return infinity();
   }
   const double remaining = expirationTime_ - Korvo::time();
   return remaining > 0.0 ? remaining : 0.0;
}

uint32_t TimerWheelEvent::stateToTimeoutFlags(TimerWheelState state) {
   switch (state) {
      case TimerWheelState::notLinked:
         return notLinkedFlag;
      case TimerWheelState::inTimerWheel:
         return inTimerWheelFlag;
      case TimerWheelState::inTimersExpiryingSoon:
         return inTimersExpiryingSoonFlag;
   }
   KORVO_FAIL("invalid state " << static_cast<unsigned>(state));
   return 0;
}

TimerWheelState TimerWheelEvent::timeoutFlagsToState(uint32_t flags) {
   switch (flags & stateFlags) {
      case notLinkedFlag:
         return TimerWheelState::notLinked;
      case inTimerWheelFlag:
         return TimerWheelState::inTimerWheel;
      case inTimersExpiryingSoonFlag:
         return TimerWheelState::inTimersExpiryingSoon;
   }
   KORVO_FAIL("None or multiple of our flags set " << (flags & stateFlags));
   return TimerWheelState::notLinked;
}

TimerWheelState TimerWheelEvent::state() const {
   return timeoutFlagsToState(record_.flags);
}

void TimerWheelEvent::stateIs(TimerWheelState next) {
   const TimerWheelState current = state();
   // Every move goes through notLinked, so no state can be entered twice.
   KORVO_ASSERT(
       current == TimerWheelState::notLinked || next == TimerWheelState::notLinked,
       "State change " << current << "->" << next << " must go via " << TimerWheelState::notLinked);
   record_.flags = (record_.flags & ~stateFlags) | stateToTimeoutFlags(next);
}

TimerWheelEvent* TimerWheelEvent::timeoutLink2TimerWheelEvent(struct timeout* record) {
   // offsetof on a polymorphic class is "conditionally supported"; g++ and clang
   // support it for a class without virtual bases, which this is, and it saves a
   // back-pointer in every timer.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Winvalid-offsetof"
   return reinterpret_cast<TimerWheelEvent*>(reinterpret_cast<char*>(record) -
                                             offsetof(TimerWheelEvent, record_));
#pragma GCC diagnostic pop
}

// ---- TimersAtTimeout ----------------------------------------------------------

TimersAtTimeout::~TimersAtTimeout() {
   KORVO_ASSERT(events_.empty(), "Destroyed while non-empty");
}

void TimersAtTimeout::pushBack(TimerWheelEvent* event) {
   KORVO_ASSERT(event->timersAtTimeout_ == nullptr,
                "pending set to " << DisplayPointer(event->timersAtTimeout_));
   events_.push_back(*event);
   event->timersAtTimeout_ = this;
   event->stateIs(TimerWheelState::inTimersExpiryingSoon);
}

TimerWheelEvent* TimersAtTimeout::popFront() {
   TimerWheelEvent* event = &events_.front();
   remove(event);
   return event;
}

void TimersAtTimeout::remove(TimerWheelEvent* event) {
   KORVO_ASSERT(event->state() == TimerWheelState::inTimersExpiryingSoon,
                "Removing from timersExpiryingSoon in state " << event->state());
   events_.erase(events_.iterator_to(*event));
   event->timersAtTimeout_ = nullptr;
   event->stateIs(TimerWheelState::notLinked);
}

// ---- TimerWheel -----------------------------------------------------------------

timeout_t TimerWheel::currentTick(double now) {
   // Now rounds up and expiries round down: the wheel reports a timer at the
   // latest in the tick holding its expiry, and the exact check holds back those
   // that are still early.
   // Library time is never negative, so a conversion is floor and one more
   // compare is ceil; std::ceil/std::floor would be calls into libm here.
   const double ticks = now * ticksPerSecond;
   const auto whole = static_cast<timeout_t>(ticks);
   return static_cast<double>(whole) < ticks ? whole + 1 : whole;
}

timeout_t TimerWheel::expiryTick(double expiry) {
   return static_cast<timeout_t>(expiry * ticksPerSecond);
}

TimerWheel::TimerWheel() : error_(0), masterExpiry_(TimerWheelEvent::infinity()), wheel_(nullptr) {
   wheel_ = timeouts_open(ticksPerSecond, &error_);
   KORVO_ASSERT(wheel_ != nullptr && error_ == 0, "Error code " << error_);
   masterTimer_ = Platform::getTimerControl(static_cast<Platform::TimeoutHandler*>(this));
   setCurrentTime();
}

TimerWheel::~TimerWheel() {
   masterTimer_->delTimeout();
   while (!started_.empty()) {
      TimerWheelEvent& event = started_.front();
      started_.pop_front();
      event.stateIs(TimerWheelState::notLinked);
      event.expirationTime_ = TimerWheelEvent::infinity();
   }
   // Whatever is still linked is forgotten, not fired: its owners are going too.
   for (auto& [time, list] : timersExpiringSoon_) {
      while (!list.empty()) {
         TimerWheelEvent* event = list.popFront();
         event->expirationTime_ = TimerWheelEvent::infinity();
      }
   }
   timeouts_close(wheel_);
}

void TimerWheel::setCurrentTime() {
   const double now = Korvo::time();
   const timeout_t tick = currentTick(now);
   KORVO_SITE_TRACE(wheelDebug, 8, "TimerWheel::setCurrentTime",
                    "advance time to " << now << " tick " << tick);
   timeouts_update(wheel_, tick);
}

inline void TimerWheel::unlink(TimerWheelEvent* event) {
   // The common case inline; the others out of line.
   if (__builtin_expect((event->record_.flags & stateFlags) == inTimerWheelFlag, 1)) {
      if (event->record_.timeouts != nullptr) {
         timeouts_del(wheel_, &event->record_);
      } else {
         started_.erase(started_.iterator_to(*event));
      }
      event->record_.flags = (event->record_.flags & ~stateFlags) | notLinkedFlag;
   } else {
      unlinkOther(event);
   }
}

void TimerWheel::unlinkOther(TimerWheelEvent* event) {
   const uint32_t state = event->record_.flags & stateFlags;
   if (state == inTimersExpiryingSoonFlag) {
      WHEEL_ASSERT(event->timersAtTimeout_ != nullptr, "No timersAtTimeout");
      event->timersAtTimeout_->remove(event);
   } else {
      WHEEL_ASSERT(state != notLinkedFlag,
                   "Not linked but expirationTime=" << event->expirationTime_);
      event->state();  // fails on a broken flags word
   }
}

// The whole start, inline in both entry points (and the wheel's own control). A
// start is one dependent chain from the clock read on, and the next clock read waits
// for it; so the start only notes the expiry and appends the timer to the started
// list, which does not depend on the clock, and leaves the tick and the wheel's
// lists to addStarted().
[[gnu::always_inline]] inline void TimerWheel::startAt(TimerWheelEvent* event, double expiry) {
   // Like the libevent controls, a time in the past means "due at once"; NaN fails
   // this one comparison too.
   if (__builtin_expect(!(expiry > 0.0), 0)) {
      expiry = pastExpiry(event, expiry);
   }
   if (expiry == event->expirationTime_) {
      return;
   }
   if (event->running()) {
      unlink(event);
   }
   event->expirationTime_ = expiry;
   KORVO_SITE_TRACE(wheelDebug, 9, "TimerWheel::timerStart",
                    "timer " << DisplayPointer(event) << " set timeout " << expiry - Korvo::time()
                             << " expire at " << expiry << " tick " << expiryTick(expiry));
   started_.push_back(*event);
   // unlink() left it notLinked, so this is stateIs(inTimerWheel) without the checks.
   event->record_.flags = (event->record_.flags & ~stateFlags) | inTimerWheelFlag;
   if (masterExpiry_ > expiry) {
      setMasterTimer();
   }
}

void TimerWheel::addStarted() {
   while (!started_.empty()) {
      TimerWheelEvent& event = started_.front();
      started_.pop_front();
      timeouts_add(wheel_, &event.record_, expiryTick(event.expirationTime_));
   }
}

double TimerWheel::pastExpiry(TimerWheelEvent* event, double expiry) const {
   WHEEL_ASSERT(!std::isnan(expiry), "timer " << DisplayPointer(event) << " expiry is NaN");
   return 0.0;
}

void TimerWheel::timerStart(TimerWheelEvent* event, double delay) {
   startAt(event, libraryTime() + delay);
}

void TimerWheel::timerStartAt(TimerWheelEvent* event, double expiry) {
   startAt(event, expiry);
}

[[gnu::always_inline]] inline void TimerWheel::stop(TimerWheelEvent* event) {
   if (!event->running()) {
      KORVO_SITE_TRACE(wheelDebug, 9, "TimerWheel::timerStop",
                       "timer " << DisplayPointer(event) << " del timeout, not running");
      return;
   }
   KORVO_SITE_TRACE(wheelDebug, 9, "TimerWheel::timerStop",
                    "timer " << DisplayPointer(event) << " del timeout");
   unlink(event);
   event->expirationTime_ = TimerWheelEvent::infinity();
}

void TimerWheel::timerStop(TimerWheelEvent* event) {
   stop(event);
}

void TimerWheel::timerExpired(TimerWheelEvent* event) const {
   KORVO_SITE_TRACE(wheelDebug, 9, "TimerWheel::timerExpired",
                    "timer " << DisplayPointer(event) << " expired");
   event->expirationTime_ = TimerWheelEvent::infinity();
   event->timeout();
}

void TimerWheel::moveExpiredToExpiringSoon() {
   while (struct timeout* record = timeouts_get(wheel_)) {
      TimerWheelEvent* event = TimerWheelEvent::timeoutLink2TimerWheelEvent(record);
      event->stateIs(TimerWheelState::notLinked);
      expiringSoonAt(event->expirationTime_).pushBack(event);
   }
}

void TimerWheel::runDueExpiringSoon(double now) {
   // No iterator or list is held across a handler: a handler may start, stop or
   // restart any timer, and a start may set the master timer, which drops
   // emptied entries. So every step looks at the front afresh.
   while (!timersExpiringSoon_.empty()) {
      const auto first = timersExpiringSoon_.begin();
      if (first->first > now) {
         KORVO_SITE_TRACE(
             wheelDebug, 9, "TimerWheel::timeout",
             "Defer processing timers with expiry time " << first->first << " > now " << now);
         return;
      }
      if (first->second.empty()) {
         eraseFirstExpiringSoon();
         continue;
      }
      timerExpired(first->second.popFront());
   }
}

void TimerWheel::timeout() {
   KORVO_SITE_TRACE(wheelDebug, 8, "TimerWheel::timeout", "master timer expired");
   const double now = Korvo::time();
   addStarted();
   timeouts_update(wheel_, currentTick(now));
   moveExpiredToExpiringSoon();
   try {
      runDueExpiringSoon(now);
   } catch (...) {
      // The master timer has just fired and is idle: arm it for what is still
      // due before the exception leaves, or those timers would wait for an
      // unrelated timerStart.
      setMasterTimer();
      throw;
   }
   setMasterTimer();
}

void TimerWheel::dropEmptyExpiringSoon() {
   while (!timersExpiringSoon_.empty() && timersExpiringSoon_.begin()->second.empty()) {
      eraseFirstExpiringSoon();
   }
}

TimersAtTimeout& TimerWheel::expiringSoonAt(double expiry) {
   const auto at = timersExpiringSoon_.lower_bound(expiry);
   if (at != timersExpiringSoon_.end() && at->first == expiry) {
      return at->second;
   }
   if (spareEntries_.empty()) {
      return timersExpiringSoon_.try_emplace(at, expiry)->second;
   }
   ExpiringSoon::node_type node = std::move(spareEntries_.back());
   spareEntries_.pop_back();
   node.key() = expiry;
   return timersExpiringSoon_.insert(at, std::move(node))->second;
}

void TimerWheel::eraseFirstExpiringSoon() {
   spareEntries_.push_back(timersExpiringSoon_.extract(timersExpiringSoon_.begin()));
}

void TimerWheel::setMasterTimer() {
   const double now = Korvo::time();
   addStarted();
   timeouts_update(wheel_, currentTick(now));
   dropEmptyExpiringSoon();
   // The earliest of three: the first exact expiry waiting in the expiring-soon
   // map, records the wheel already holds as expired, and the next tick at which
   // the wheel may report more. The map being non-empty says nothing about the
   // wheel: a timer started after the last pass may be due before every entry.
   const double first = timersExpiringSoon_.empty() ? TimerWheelEvent::infinity()
                                                    : timersExpiringSoon_.begin()->first;
   if (timeouts_expired(wheel_)) {
      KORVO_SITE_TRACE(wheelDebug, 8, "TimerWheel::setMasterTimer",
                       "has expired timers, set master timer timeout 0");
      masterTimer_->setTimeout(0.0);
      masterExpiry_ = 0.0;
      return;
   }
   const bool pending = timeouts_pending(wheel_);
   const timeout_t ticks = pending ? timeouts_timeout(wheel_) : 0;
   const double delay =
       pending ? static_cast<double>(ticks) / ticksPerSecond : TimerWheelEvent::infinity();
   if (first != TimerWheelEvent::infinity() && first <= now + delay) {
      if (now >= first) {
         KORVO_SITE_TRACE(
             wheelDebug, 8, "TimerWheel::setMasterTimer",
             "has expired timers, firstExpiryTime=" << first << ", set master timer timeout 0");
         masterTimer_->setTimeout(0.0);
      } else {
         KORVO_SITE_TRACE(wheelDebug, 8, "TimerWheel::setMasterTimer",
                          "has scheduled timers, firstExpiryTime=" << first << " now=" << now
                                                                   << ", set master timer timeout "
                                                                   << first - now);
         masterTimer_->setTimeout(first - now);
      }
      masterExpiry_ = first;
   } else if (pending) {
      KORVO_SITE_TRACE(wheelDebug, 8, "TimerWheel::setMasterTimer",
                       "has scheduled timers, first timer expiry in "
                           << ticks << " ticks, set master timer timeout " << delay);
      masterTimer_->setTimeout(delay);
      masterExpiry_ = now + delay;
   } else {
      KORVO_SITE_TRACE(wheelDebug, 8, "TimerWheel::setMasterTimer",
                       "has no timers, del master timer timeout");
      masterTimer_->delTimeout();
      masterExpiry_ = TimerWheelEvent::infinity();
   }
}

// ---- singletons and the wheel-backed timer control ----------------------------------

std::shared_ptr<TimerWheel> getTimerWheel() {
   if (hasThreadLocalSingletons()) {
      thread_local std::shared_ptr<TimerWheel> perThread;
      if (!perThread) {
         perThread = makeShared<TimerWheel>();
      }
      return perThread;
   }
   // Never destroyed: its master timer lives on an event base that may already
   // be gone when static destructors run.
   static auto* const perProcess = new std::shared_ptr<TimerWheel>(makeShared<TimerWheel>());
   return *perProcess;
}

class TimerWheelTimerControl final : public Platform::TimerControl, public TimerWheelEvent {
public:
   TimerWheelTimerControl(Platform::TimeoutHandler* handler, std::shared_ptr<TimerWheel> wheel)
       : handler_(handler), wheel_(std::move(wheel)) {}
   ~TimerWheelTimerControl() override { wheel_->timerStop(this); }

   void setTimeout(double seconds) override { wheel_->startAt(this, libraryTime() + seconds); }
   void delTimeout() override { wheel_->stop(this); }
   double remainingTimeout() const override { return TimerWheelEvent::remainingTimeout(); }
   void timeout() override { handler_->timeout(); }

private:
   Platform::TimeoutHandler* handler_;
   std::shared_ptr<TimerWheel> wheel_;
};

namespace Platform {
std::shared_ptr<TimerControl> getTimerControl(TimeoutHandler* handler,
                                              std::shared_ptr<TimerWheel> wheel) {
   return makeShared<TimerWheelTimerControl>(handler, std::move(wheel));
}
}  // namespace Platform

}  // namespace Korvo
