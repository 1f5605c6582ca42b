#ifndef KORVO_SRC_LIBEVENTFACTORY_H
#define KORVO_SRC_LIBEVENTFACTORY_H

// The libevent back-end of the platform controls, its loop runners and virtual time.
// Not installed: the library's own components and its tests include it; clients use
// Korvo/Platform.h.

#include <Korvo/Debug.h>
#include <Korvo/Export.h>
#include <Korvo/Platform.h>

#include "DebugComponent.h"

#include <event2/event.h>
#include <event2/event_struct.h>
#include <sys/time.h>
#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <ctime>
#include <memory>

namespace Korvo {

// The "KorvoLibevent" trace channel: control operations at level 9, virtual-time jumps
// at level 2, libevent's own messages at the level of their severity.
extern Impl::ComponentDebug leDebug;

// Per-thread state of the back-end. Trivially destructible and constant-initialised,
// so reaching it from any of the back-end's files costs no initialisation check.
struct LeThreadState {
   event_base* base = nullptr;
   // Whether the thread that made or registered `base` is the process's main thread.
   bool mainThread = false;
   // Virtual-time offset; usec stays in [0, 999999].
   int64_t offsetSec = 0;
   int64_t offsetUsec = 0;
   // The same offset in seconds, kept with the two above: the clock adds it on
   // every read.
   double offset = 0.0;
};
// Initial-exec: the clock and the timer paths reach it without a call into the
// dynamic linker. It takes a few bytes of the static TLS that glibc keeps for
// libraries, also when the library is loaded by dlopen.
extern thread_local constinit LeThreadState leState __attribute__((tls_model("initial-exec")));

// Korvo::time(), inline for the library's own timer paths: the monotonic clock plus
// this thread's virtual-time offset. A timer start waits for this conversion, so it
// multiplies rather than divides (a division takes about three times as long) and
// skips adding an offset of zero; the result stays monotonic (each step is), within
// a few units in the last place of the division.
inline double libraryTime() {
   timespec ts;
   clock_gettime(CLOCK_MONOTONIC, &ts);
   const double now = static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
   const double offset = leState.offset;
   return __builtin_expect(offset == 0.0, 1) ? now : now + offset;
}

// Sets leState.mainThread from isMainThread().
void setMainThread();

// A share in this thread's base (made if there is none). The thread holds one share
// until it ends or calls leFree(), every control one more for its lifetime; the base
// is freed when the last share goes, unless it was adopted with leRegisterBase() and
// leFree() was never called for it (its maker frees it then).
std::shared_ptr<event_base> leBaseShare();

// A timer event on the stack: added at construction and removed however the scope is
// left. Its callback gets the event itself as argument.
class ScopedTimerEvent {
public:
   ScopedTimerEvent(event_base* base, const timeval& after, event_callback_fn callback) {
      event_assign(&event_, base, -1, 0, callback, &event_);
      event_add(&event_, &after);
   }
   ~ScopedTimerEvent() {
      event_del(&event_);
      event_debug_unassign(&event_);
   }
   ScopedTimerEvent(const ScopedTimerEvent&) = delete;
   ScopedTimerEvent& operator=(const ScopedTimerEvent&) = delete;

   const event* get() const { return &event_; }

private:
   event event_;
};

// What a control knows of the thread it belongs to: a share in that thread's base,
// which keeps the base alive as long as the control, and the thread's id for the
// failure message. check() is the whole cost of the thread check on the event path:
// one thread-local load and compare, and no call unless they differ.
class LeOwner {
public:
   LeOwner();
   event_base* base() const { return base_.get(); }
   void check(const char* operation) const {
      if (__builtin_expect(leState.base != base_.get(), 0)) {
         failWrongThread(operation);
      }
   }
   // For an owner that checks the thread itself and may switch its check off (the
   // scheduler root for its loop callback).
   void checkDisabledIs(bool disabled) { checkDisabled_ = disabled; }

private:
   // Fails "Executing in wrong thread ..." unless the check is disabled, auxThreadCount
   // is non-zero or this is a forked child.
   [[gnu::cold, gnu::noinline]] void failWrongThread(const char* operation) const;

   std::shared_ptr<event_base> base_;
   pid_t tid_;
   pid_t pid_;
   bool checkDisabled_ = false;
};

// libevent's log callback: "libevent: " and the message on leDebug(), at level 9, 5, 1
// or 0 for debug, msg, warn and err; any other severity is an assertion failure.
KORVO_EXPORT void le_debug_cb(int severity, const char* msg);
// libevent's fatal-error callback: an assertion failure ("libevent fatal error:").
KORVO_EXPORT void le_fatal_cb(int err);

// A delay in seconds as a timeval: to the nearest microsecond, negative as 0, above
// Platform::maxDelaySeconds clamped. NaN is an assertion failure naming `what`.
timeval timevalFromSeconds(double seconds, const char* what);
// As timevalFromSeconds, but the microseconds are truncated: a virtual-time jump never
// goes further than it was asked to.
timeval timevalTruncatedFromSeconds(double seconds, const char* what);
inline double secondsFromTimeval(const timeval& tv) {
   return static_cast<double>(tv.tv_sec) + static_cast<double>(tv.tv_usec) / 1e6;
}
inline int64_t microsFromTimeval(const timeval& tv) {
   return static_cast<int64_t>(tv.tv_sec) * 1000000 + tv.tv_usec;
}
// Normalised: usec in [0, 999999] also for negative values.
timeval timevalFromMicros(int64_t micros);

// ---- Timeout operations libevent does not offer, written over its public interface.
// Absolute times are on the scale event_pending() reports: the base's monotonic clock
// mapped by the base's current offset to the wall clock. Only differences of such
// values mean anything, and they are exact in the base's own clock.
//
// Timeouts of persistent events (EV_PERSIST with a timeout, which our controls never
// use) are left out of both operations: libevent's public interface cannot move such
// an expiry without changing the event's period for good, so on a base adopted with
// leRegisterBase they keep running on real time under fast-forward.

// The present time of `base` on that scale: the time libevent would measure a timeout
// from if one were added now (its cached time inside a loop pass when the base caches).
void event_base_now(event_base* base, timeval* now);
// 0 and the earliest expiry among the base's pending timeouts (including timeouts that
// have expired but whose callbacks have not run yet), or -1 when none is pending.
// Neither this nor the shift below sees our loop runners' break events.
// O(number of events in the base).
KORVO_EXPORT int event_base_get_first_timeout(event_base* base, timeval* first);
// Moves every pending timeout of `base` `delta` earlier, keeping their order; returns
// how many were moved, or -1 for a negative delta. Timeouts that had expired but not
// run yet are moved as well, so they run on the next pass, still first. New expiries are
// exact to the microsecond libevent keeps (give or take the one-microsecond jitter of
// the base's wall-clock mapping). An event added with a common timeout moves to the
// ordinary timeout heap. O(n log n) in the pending timeouts; safe inside a callback of
// the base's loop.
KORVO_EXPORT int event_base_timeout_subtract_offset(event_base* base, const timeval* delta);

// ---- Controls.

class KORVO_EXPORT LibeventTimerControl : public Platform::TimerControl {
public:
   explicit LibeventTimerControl(Platform::TimeoutHandler* handler);
   ~LibeventTimerControl() override;
   LibeventTimerControl(const LibeventTimerControl&) = delete;
   LibeventTimerControl& operator=(const LibeventTimerControl&) = delete;

   void setTimeout(double seconds) override;
   void delTimeout() override;
   double remainingTimeout() const override;
   // Whether an expiry is pending (armed, or expired with the handler not yet run).
   bool pending() const;
   // Switches this control's thread check off (or on again).
   void threadCheckDisabledIs(bool disabled) { owner_.checkDisabledIs(disabled); }

   // Calls the handler's timeout() under the exception policy.
   void handleExpiry();
   static void handleTimeout(evutil_socket_t, short, void* control);

protected:
   // For a control that serves its event with a libevent callback of its own (given
   // this timer control as argument) and has no timeout handler.
   explicit LibeventTimerControl(event_callback_fn fire);
   // Arms the event to run on the next loop pass, as setTimeout(0) does, without the
   // conversion of a delay.
   void addZeroTimeout(const char* operation) {
      owner_.check(operation);
      static constexpr timeval zero{0, 0};
      event_add(&event_, &zero);
   }

private:
   // Unchecked: also called by the destructor, which may run on any thread once the
   // control's own thread has ended.
   void disarm();

   Platform::TimeoutHandler* timeoutHandler_;
   LeOwner owner_;
   event event_;
};

// A callback is a zero-length timer of the control itself. The libevent callback
// calls the client's handler directly, so a request costs one event_add and a
// delivery one handler call, about what a raw libevent event costs.
class KORVO_EXPORT LibeventCallbackControl final : public Platform::CallbackControl,
                                                   private LibeventTimerControl {
public:
   explicit LibeventCallbackControl(Platform::CallbackHandler* handler);
   ~LibeventCallbackControl() override;

   // Inline: the scheduler root requests one callback per task run.
   void requestCallback() override {
      KORVO_SITE_TRACE(leDebug, 9, "LibeventCallbackControl::requestCallback",
                       "Callback " << DisplayPointer(this) << " request");
      // A zero timeout runs on the next pass, after the callbacks of the current one;
      // a second request re-adds the same event, so requests coalesce.
      addZeroTimeout("requestCallback");
   }
   void cancelCallback() override;
   bool pendingCallback() const override;
   using LibeventTimerControl::threadCheckDisabledIs;

   static void handleCallback(evutil_socket_t, short, void* control);

private:
   void runCallback();

   Platform::CallbackHandler* callbackHandler_;
};

class KORVO_EXPORT LibeventFdControl : public Platform::FdControl {
public:
   explicit LibeventFdControl(Platform::FdEventHandler* handler);
   ~LibeventFdControl() override;
   LibeventFdControl(const LibeventFdControl&) = delete;
   LibeventFdControl& operator=(const LibeventFdControl&) = delete;

   void setReads(bool on) override;
   void setWrites(bool on) override;
   void setFd(int fd) override;
   void delFd() override;
   int getFd() const override { return fd_; }
   void clearEvents() override;

   bool reads() const { return reads_; }
   bool writes() const { return writes_; }

   static void handleFdRead(evutil_socket_t, short, void* control);
   static void handleFdWrite(evutil_socket_t, short, void* control);

private:
   void armFdEvent(event* ev, short what, event_callback_fn callback);
   void armRead();
   void armWrite();
   // Switches one direction's watch; a watch that is on and pending stays as it is.
   void watchIs(bool on, event* ev, short what, event_callback_fn callback,
                void (LibeventFdControl::*arm)());
   void disarm();
   void handleRead();
   void handleWrite();

   Platform::FdEventHandler* fdHandler_;
   LeOwner owner_;
   int fd_ = -1;
   bool reads_ = true;
   bool writes_ = false;
   event readEvent_;
   event writeEvent_;
};

// Served by an eventfd that the loop watches for the control's whole life; requests
// from any thread write to it, the loop drains it and runs the callback.
class LibeventRemoteCallbackControl : public Platform::RemoteCallbackControl {
public:
   explicit LibeventRemoteCallbackControl(Platform::CallbackHandler* handler);
   ~LibeventRemoteCallbackControl() override;
   LibeventRemoteCallbackControl(const LibeventRemoteCallbackControl&) = delete;
   LibeventRemoteCallbackControl& operator=(const LibeventRemoteCallbackControl&) = delete;

   void requestCallback() override;
   bool tryRequestCallback() override;
   void cancelCallback() override;
   bool pendingCallback() const override;

   static void handleWakeup(evutil_socket_t fd, short, void* control);

private:
   void runCallback();

   Platform::CallbackHandler* handler_;
   LeOwner owner_;
   std::shared_ptr<std::atomic<bool>> threadAlive_;
   std::atomic<bool> pending_{false};
   int fd_;
   event event_;
};

// A persistent libevent signal event.
class LibeventSignalControl : public Platform::SignalControl {
public:
   LibeventSignalControl(Platform::SignalHandler* handler, int signo);
   ~LibeventSignalControl() override;
   LibeventSignalControl(const LibeventSignalControl&) = delete;
   LibeventSignalControl& operator=(const LibeventSignalControl&) = delete;

   int signalNumber() const override { return signo_; }

   static void handleSignal(evutil_socket_t, short, void* control);

private:
   void deliver();

   Platform::SignalHandler* handler_;
   int signo_;
   LeOwner owner_;
   event event_;
};

KORVO_EXPORT std::shared_ptr<LibeventTimerControl> getLeTimerControl(
    Platform::TimeoutHandler* handler);
KORVO_EXPORT std::shared_ptr<LibeventCallbackControl> getLeCallbackControl(
    Platform::CallbackHandler* handler);
KORVO_EXPORT std::shared_ptr<LibeventFdControl> getLeFdControl(Platform::FdEventHandler* handler);
std::shared_ptr<LibeventRemoteCallbackControl> getLeRemoteCallbackControl(
    Platform::CallbackHandler* handler);
// The signal checks of Platform::getSignalControl come first, before anything changes.
std::shared_ptr<LibeventSignalControl> getLeSignalControl(Platform::SignalHandler* handler,
                                                          int signo);

// ---- Loop runners.

struct KORVO_EXPORT EvLoopBreak {
   // Breaks the thread's loop and deletes `event`, the break event itself.
   static void handleBaseLoopBreak(evutil_socket_t, short, void* event);
};

// Runs `call` (a client handler call) so that an exception leaving it never unwinds
// through libevent while doEventLoop runs: it is parked, the loop is broken, and the
// loop runner rethrows it once libevent has returned. Outside our loop runners (code
// that dispatches the base itself) the exception propagates as it is.
// Whether one of our loop runners is dispatching on this thread.
bool leLoopRunning();

// Called in a catch handler: parks the current exception, or rethrows it when no loop
// runner of ours is active on this thread.
void parkLoopException();
template <typename Call>
inline void callFromLoop(Call&& call) {
   try {
      call();
   } catch (...) {
      parkLoopException();
   }
}

// ---- Virtual time.

// Moves every pending timeout of this thread's base and this thread's offset `delta`
// ahead (traced at level 2).
KORVO_EXPORT void applyFastForwardDelta(const timeval* delta);
// The jump that makes the first pending timeout due (100us past it), zero when it is
// already due; false when no timeout is pending. Fast-forward must be on.
KORVO_EXPORT bool fastForwardDelayToFirstTimer(timeval* delay);
// Jumps `delta` and runs one pass of the loop.
KORVO_EXPORT void eventLoopFastForward(const timeval* delta);
// Jumps to the first timer, but at most `maxSeconds`, and runs one pass.
KORVO_EXPORT void eventLoopFastForwardToFirstTimer(double maxSeconds);

}  // namespace Korvo

#endif
