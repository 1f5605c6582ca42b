#ifndef KORVO_TIMERWHEEL_H
#define KORVO_TIMERWHEEL_H

// Any number of timers behind one master libevent timer.
//
// Timers sit in a hierarchical timing wheel at 100 ticks per second; the master
// timer is always set for the earliest moment something may be due. A timer
// whose tick has come but whose exact expiry is still ahead waits in a sorted
// "expiring soon" map, so no timer ever fires early. Timers with equal expiry
// fire in the order they were started.
//
// Thread: a wheel belongs to the thread whose event base its master timer uses
// (getTimerWheel() gives one per thread with thread-local singletons, else one per
// process, bound to the thread that first asked). Nothing here is locked.
//
// Re-entrancy: a timer's timeout() may start, stop or restart any timer of the
// same wheel, itself included. If it throws, the exception leaves the expiry pass
// at once; the wheel stays consistent and the timers still due run on a later
// loop pass (the master timer is re-armed for them before the exception leaves).
// A start at a time already past is due at once and runs on the next loop pass,
// never within the pass that is running.
//
// Costs: a start reads the clock once; start and stop are O(1) and never allocate.
// A start only appends the timer to a list of started timers, which enter the wheel
// the next time the master timer is set or fires (never later than their expiry,
// since a start before the master timer's expiry sets it): a timer stopped or
// restarted before then never touches the wheel.
// An expiry costs O(log k) for k distinct expiry times waiting in the
// expiring-soon map (a few per tick); the map reuses its nodes, so steady
// operation allocates nothing.

#include <Korvo/Export.h>
#include <Korvo/Platform.h>
#include <Korvo/Timeouts.h>

#include <boost/intrusive/list.hpp>

#include <cstddef>
#include <cstdint>
#include <limits>
#include <map>
#include <memory>
#include <ostream>
#include <vector>

namespace Korvo {

enum class TimerWheelState : uint8_t { notLinked = 0, inTimerWheel = 1, inTimersExpiryingSoon = 2 };
KORVO_EXPORT std::ostream& operator<<(std::ostream& os, TimerWheelState state);

class TimerWheel;
class TimersAtTimeout;
class TimerWheelTimerControl;

// One timer of a wheel. Derive and implement timeout(); an event must be stopped
// (notLinked) before it is destroyed.
class KORVO_EXPORT TimerWheelEvent {
public:
   TimerWheelEvent();
   TimerWheelEvent(const TimerWheelEvent&) = delete;
   TimerWheelEvent& operator=(const TimerWheelEvent&) = delete;

   virtual void timeout() = 0;
   virtual ~TimerWheelEvent();

   // wheel->timerStart(this, delay).
   void setTimeout(const std::shared_ptr<TimerWheel>& wheel, double delay);
   // wheel->timerStop(this); harmless when not running.
   void delTimeout(const std::shared_ptr<TimerWheel>& wheel);
   // +infinity when not running; 0.0 once due.
   double remainingTimeout() const;
   double expirationTime() const { return expirationTime_; }
   bool running() const { return expirationTime_ != infinity(); }

   // The state lives in three spare bits of the wheel record's flags word.
   TimerWheelState state() const;
   void stateIs(TimerWheelState state);
   static uint32_t stateToTimeoutFlags(TimerWheelState state);
   static TimerWheelState timeoutFlagsToState(uint32_t flags);
   static TimerWheelEvent* timeoutLink2TimerWheelEvent(struct timeout* record);

   static constexpr double infinity() { return std::numeric_limits<double>::infinity(); }

private:
   friend class TimerWheel;
   friend class TimersAtTimeout;

   struct timeout record_;
   TimersAtTimeout* timersAtTimeout_;
   // In the wheel's list of started timers, or in a TimersAtTimeout: never both.
   boost::intrusive::list_member_hook<> expiringSoonLink_;
   double expirationTime_;
};

// The events of the expiring-soon map that share one exact expiry, in arrival order.
class KORVO_EXPORT TimersAtTimeout {
public:
   TimersAtTimeout() = default;
   TimersAtTimeout(const TimersAtTimeout&) = delete;
   TimersAtTimeout& operator=(const TimersAtTimeout&) = delete;
   ~TimersAtTimeout();

   void pushBack(TimerWheelEvent* event);
   TimerWheelEvent* popFront();
   void remove(TimerWheelEvent* event);
   bool empty() const { return events_.empty(); }
   size_t size() const { return events_.size(); }

private:
   using Hook = boost::intrusive::member_hook<TimerWheelEvent, boost::intrusive::list_member_hook<>,
                                              &TimerWheelEvent::expiringSoonLink_>;
   boost::intrusive::list<TimerWheelEvent, Hook, boost::intrusive::constant_time_size<true>>
       events_;
};

class KORVO_EXPORT TimerWheel : private Platform::TimeoutHandler {
public:
   static constexpr unsigned ticksPerSecond = 100;

   // Opens the wheel and gets the master timer on the calling thread's loop.
   TimerWheel();
   ~TimerWheel() override;
   TimerWheel(const TimerWheel&) = delete;
   TimerWheel& operator=(const TimerWheel&) = delete;

   // (Re)arms `event` to expire `delay` seconds from now; the same absolute expiry
   // again changes nothing. A delay that ends in the past makes it due at once; NaN
   // is an assertion failure. Never allocates.
   void timerStart(TimerWheelEvent* event, double delay);
   // The same for an absolute library time (Korvo::time()); timers started for
   // one expiry fire in the order they were started.
   void timerStartAt(TimerWheelEvent* event, double expiry);
   // Harmless when not running. Never moves the master timer (it may then fire
   // for nothing, which costs one empty pass).
   void timerStop(TimerWheelEvent* event);
   void timerExpired(TimerWheelEvent* event) const;
   // Sets the master timer for the earliest moment something may be due.
   void setMasterTimer();
   // Advances the wheel's clock to the current tick.
   void setCurrentTime();

   // The library time the master timer is set for; +infinity when it is not set.
   double masterExpiry() const { return masterExpiry_; }

   static timeout_t currentTick(double now);
   static timeout_t expiryTick(double expiry);

private:
   // The wheel's own timer control starts and stops through the inline paths.
   friend class TimerWheelTimerControl;
   friend class TestPeer;

   void timeout() override;
   void startAt(TimerWheelEvent* event, double expiry);
   void stop(TimerWheelEvent* event);
   // The expiry for a start at or before time 0 (0); NaN is an assertion failure.
   double pastExpiry(TimerWheelEvent* event, double expiry) const;
   // Takes a running event out of the wheel or the expiring-soon map; notLinked after.
   void unlink(TimerWheelEvent* event);
   void unlinkOther(TimerWheelEvent* event);
   // Moves the started timers into the wheel, in start order.
   void addStarted();
   void moveExpiredToExpiringSoon();
   void runDueExpiringSoon(double now);
   void dropEmptyExpiringSoon();
   TimersAtTimeout& expiringSoonAt(double expiry);
   void eraseFirstExpiringSoon();

   using ExpiringSoon = std::map<double, TimersAtTimeout>;

   int error_;
   double masterExpiry_;
   std::shared_ptr<Platform::TimerControl> masterTimer_;
   struct timeouts* wheel_;
   ExpiringSoon timersExpiringSoon_;
   // Nodes of erased entries, reused for new ones: the map allocates only beyond
   // the most distinct expiry times it ever held at once.
   std::vector<ExpiringSoon::node_type> spareEntries_;
   // Started since the wheel was last brought up to date (state inTimerWheel, record
   // not yet on the wheel).
   boost::intrusive::list<
       TimerWheelEvent,
       boost::intrusive::member_hook<TimerWheelEvent, boost::intrusive::list_member_hook<>,
                                     &TimerWheelEvent::expiringSoonLink_>,
       boost::intrusive::constant_time_size<false>>
       started_;
};

// The wheel of this thread (thread-local singletons) or of the process.
KORVO_EXPORT std::shared_ptr<TimerWheel> getTimerWheel();

namespace Platform {
// A timer control served by `wheel`. Unlike the libevent controls, an exception
// from handler->timeout() is not offered to handleTimeoutException(): it leaves
// the wheel's expiry pass at once (the remaining due timers run on the next pass).
KORVO_EXPORT std::shared_ptr<TimerControl> getTimerControl(TimeoutHandler* handler,
                                                           std::shared_ptr<TimerWheel> wheel);
}  // namespace Platform

}  // namespace Korvo

#endif
