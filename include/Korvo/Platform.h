#ifndef KORVO_PLATFORM_H
#define KORVO_PLATFORM_H

// The event platform: handler interfaces that clients implement, control
// interfaces that the back-ends implement, the per-thread event loop, the library
// clock and virtual time.
//
// A client derives from TimeoutHandler, CallbackHandler or FdEventHandler, asks a
// factory for the matching control and drives it; every call back happens on the
// thread that made the control, from inside doEventLoop(). A control keeps a plain
// pointer to its handler: the client keeps the handler alive as long as the
// control exists (usually the handler object holds the control as a member).

#include <Korvo/Export.h>

#include <memory>
#include <string>

struct event_base;

namespace Korvo {

// Library time in seconds: CLOCK_MONOTONIC plus the calling thread's virtual-time
// offset. Every timer computation of the library asks this function.
KORVO_EXPORT double time();

namespace Platform {

// Exception policy, common to every back-end: when a handler operation throws,
// the matching handle...Exception() is called while the exception is current (so
// it may rethrow to inspect it). Returning true swallows it and the loop goes on;
// returning false (the default) rethrows it out of the running doEventLoop().
class KORVO_EXPORT TimeoutHandler {
public:
   virtual ~TimeoutHandler() = default;
   virtual void timeout() = 0;
   virtual bool handleTimeoutException() { return false; }
};

class KORVO_EXPORT CallbackHandler {
public:
   virtual ~CallbackHandler() = default;
   virtual void callback() = 0;
   virtual bool handleCallbackException() { return false; }
};

class KORVO_EXPORT FdEventHandler {
public:
   virtual ~FdEventHandler() = default;
   virtual void readFdEvent(int fd) = 0;
   virtual void writeFdEvent(int fd) = 0;
   virtual bool handleFdException(int /*fd*/) { return false; }
};

// One pending expiry at most: arming an armed timer replaces its deadline.
//
// Delays are seconds as doubles, kept to the nearest microsecond. A negative delay
// is taken as 0 (due at once: the handler runs on the next pass of the loop, never
// inside setTimeout()); a delay above maxDelaySeconds is clamped to it; NaN is an
// assertion failure. The handler may re-arm, cancel or destroy its own control
// from inside timeout(). How closely an expiry follows Korvo::time() depends on the
// loop's clock (see the libevent back-end below).
class KORVO_EXPORT TimerControl {
public:
   virtual ~TimerControl() = default;
   // Fires timeout() once, `seconds` from now.
   virtual void setTimeout(double seconds) = 0;
   // Harmless when idle.
   virtual void delTimeout() = 0;
   // Seconds to the pending expiry; 0.0 when due but not yet run; +infinity when idle.
   virtual double remainingTimeout() const = 0;
};

// Requests coalesce: any number of requests before the loop runs give one callback(),
// never from inside requestCallback() itself. A request made inside callback() asks
// for one more call on a later pass of the loop.
class KORVO_EXPORT CallbackControl {
public:
   virtual ~CallbackControl() = default;
   virtual void requestCallback() = 0;
   virtual void cancelCallback() = 0;
   virtual bool pendingCallback() const = 0;
};

// Read interest is persistent and on by default; write interest is one-shot (call
// setWrites(true) again for the next writeFdEvent). setFd() switches the descriptor to
// non-blocking mode and applies the recorded interests at once; a descriptor whose
// flags cannot be read or set (closed, never opened) is an assertion failure
// ("flags >= 0", "result == 0"). The descriptor is never closed by the control:
// delFd() and the destructor only stop watching it. The fd passed to the handler is
// the control's getFd() at the time of the call.
class KORVO_EXPORT FdControl {
public:
   virtual ~FdControl() = default;
   virtual void setReads(bool on) = 0;
   virtual void setWrites(bool on) = 0;
   virtual void setFd(int fd) = 0;
   virtual void delFd() = 0;
   virtual int getFd() const = 0;
   virtual void clearEvents() = 0;
};

// A POSIX signal delivered on a loop: signalReceived() runs from inside
// doEventLoop() on the control's thread, never in signal context, so it may do
// anything a handler may do. Deliveries that arrive before the loop gets to them
// coalesce into one call.
class KORVO_EXPORT SignalHandler {
public:
   virtual ~SignalHandler() = default;
   virtual void signalReceived(int signo) = 0;
   virtual bool handleSignalException(int /*signo*/) { return false; }
};

// Watches its signal from creation to destruction; destroying it restores the
// disposition the signal had before. While one exists, doEventLoop() without a span
// does not run out of events: a daemon leaves it with exitEventLoop().
class KORVO_EXPORT SignalControl {
public:
   virtual ~SignalControl() = default;
   virtual int signalNumber() const = 0;
};

// A callback control whose requests may come from any thread. requestCallback(),
// tryRequestCallback(), cancelCallback() and pendingCallback() are thread-safe and
// lock-free; callback() runs on the control's own thread, from inside its loop, on a
// later pass. Requests before that run coalesce into one, and everything the
// requesting thread wrote before its request is visible to the callback. Cost: one
// atomic exchange per request, one eventfd write for the first of a coalesced batch.
class KORVO_EXPORT RemoteCallbackControl : public CallbackControl {
public:
   // As requestCallback(), but false once the control's thread has ended: no loop is
   // left to run the callback, so the request is dropped (and traced at level 1 on
   // "KorvoLibevent"). requestCallback() drops it the same way.
   virtual bool tryRequestCallback() = 0;
};

// The largest delay a timer or a bounded loop takes (about 31.7 years).
constexpr double maxDelaySeconds = 1e9;

// Controls on the calling thread's event loop (made on first use). A control and its
// handler belong to that thread; the control registers nothing until armed and
// withdraws everything it registered when destroyed. Any operation on it from another
// thread is an assertion failure ("Executing in wrong thread ...") unless the exported
// auxThreadCount (Korvo/TaskScheduler.h) is non-zero or the process is a forked child
// of the one that made the control; the check costs one thread-local compare. Destroying it is
// allowed on any thread once its own thread has ended. A null handler is an assertion failure.
KORVO_EXPORT std::shared_ptr<TimerControl> getTimerControl(TimeoutHandler* handler);
KORVO_EXPORT std::shared_ptr<CallbackControl> getCallbackControl(CallbackHandler* handler);
KORVO_EXPORT std::shared_ptr<FdControl> getFdControl(FdEventHandler* handler);

// A control for `signo` on the calling thread's loop. Signals are process-wide, and
// libevent delivers them to one event base only: every signal control of the process
// lives on one thread at a time (the first one made chooses it; usually the main
// thread), and one signal has at most one control. Assertion failures: a number
// outside 1..NSIG-1 ("getSignalControl: invalid signal <n>"), SIGKILL or SIGSTOP
// ("getSignalControl: signal <n> cannot be caught"), a second control for a signal
// ("getSignalControl: signal <n> already has a control"), a control on another thread
// while the chosen one still has any ("getSignalControl: signals are watched by
// another thread's loop"). Other threads need not block the signal: whichever thread
// the kernel picks only wakes the owning loop. Destruction follows the control rules
// above.
KORVO_EXPORT std::shared_ptr<SignalControl> getSignalControl(SignalHandler* handler, int signo);
// A callback control of the calling thread's loop served by an eventfd, for requests
// from other threads (see RemoteCallbackControl). Requesting threads hold a
// std::shared_ptr to it; the last reference must still go on the owning thread, or
// after that thread has ended, as for any control. The handler's exception goes to
// handleCallbackException() as for getCallbackControl().
KORVO_EXPORT std::shared_ptr<RemoteCallbackControl> getRemoteCallbackControl(
    CallbackHandler* handler);

// Run the calling thread's loop:
// - doEventLoop(): until no events remain registered, or something breaks the loop;
// - doEventLoop(seconds): for `seconds` of library time (crossed by jumps under
//   fast-forward; at least one pass, so what is due now runs even for 0);
// - doEventLoopInWaitfor(seconds): one bounded wait; under fast-forward a single
//   jump to the first timer (at most `seconds` ahead) and one pass.
// A handler exception that its handler declines stops the loop and is rethrown here
// unchanged. Calling any of them from inside a handler of the same loop is an
// assertion failure.
// exitEventLoop(), from inside a handler, makes the running loop call of this thread
// return once that handler is done (the other events due in the same pass wait for
// the next loop call; under fast-forward no further jump is made). Outside a running
// loop it does nothing. Events stay registered.
KORVO_EXPORT void exitEventLoop();
KORVO_EXPORT void doEventLoop();
KORVO_EXPORT void doEventLoop(double seconds);
KORVO_EXPORT void doEventLoopInWaitfor(double seconds);

// Virtual time. The switch is process-wide and may only change on the main thread;
// switching it calls every registered notifier once. While it is on, the loop jumps
// the calling thread's clock (Korvo::time()) to the next timer instead of sleeping.
KORVO_EXPORT bool fastForward();
KORVO_EXPORT void setFastForward(bool on);
// Registration is meant for start-up, on the main thread; a notifier is kept once
// however often it is registered, and cannot be removed.
KORVO_EXPORT void registerFastForwardChangeNotifier(void (*notifier)());
// Jumps this thread's clock and every pending timeout of its loop `seconds` ahead
// (negative counts as 0). An assertion failure unless fast-forward is on.
KORVO_EXPORT void fastForwardBy(double seconds);

// Renders values of one named type for traces: the printer registered for the type
// name in the introspection map (Korvo/IntrospectionMap.h), or, when there is none or
// it returns an empty string, the hex dump of the value's `size` bytes.
class KORVO_EXPORT ValuePrinter {
public:
   ValuePrinter(const std::string& typeName, int size) : typeName_(typeName), size_(size) {}
   // `value` must point at `size` readable bytes.
   virtual std::string toString(const void* value) const;
   virtual ~ValuePrinter() = default;

   const std::string& typeName() const { return typeName_; }
   int size() const { return size_; }

private:
   std::string typeName_;
   int size_;
};

KORVO_EXPORT std::shared_ptr<ValuePrinter> getValuePrinter(const std::string& typeName, int size);

}  // namespace Platform

// The libevent back-end. The Platform functions above forward here; these are for
// code that manages the thread's event base itself.
//
// Each thread has its own base, made on first use by any control or loop call, with
// libevent's default configuration. Timers therefore count on libevent's clock: on
// Linux the coarse monotonic clock (steps of 1 to 4 ms, see clock_getres(2)), read once
// per pass of the loop. By Korvo::time() a timer may so fire up to one such step early
// or late, and one armed inside a callback counts from the start of the pass.
// EVENT_PRECISE_TIMER=1 in the environment (libevent's own switch, read when a base is
// made) selects the precise clock, at the cost of one more system call per pass. A
// base adopted with leRegisterBase() keeps whatever configuration its maker chose.
//
// A handler exception never unwinds through libevent while one of the loop functions
// runs: the loop is stopped and the exception rethrown once libevent has returned, so
// the base stays usable. Code that dispatches the base itself gets the exception
// through libevent's frames, which leaves that base marked as running.
//
// Under fast-forward, timeouts that other code added straight to an adopted base move
// with the clock, except those of persistent events (EV_PERSIST with a timeout):
// libevent cannot move them without changing their period, so they keep real time.

// Makes this thread's base if it has none; installs libevent's log and fatal-error
// callbacks (process-wide in libevent) on the way.
KORVO_EXPORT void leInit();
// Adopts a base made by other code as this thread's base. Registering the base this
// thread already has is harmless; registering a different one is an assertion failure.
KORVO_EXPORT void leRegisterBase(event_base* base);
// Frees this thread's base, if any, and forgets it; the next control or loop call makes
// a new one. Calling it from a handler of the running loop is an assertion failure.
// Every control holds a share in its thread's base: while one exists the base is kept
// (and freed when the last such control is destroyed), so a control outliving leFree()
// or its thread stays safe to destroy, though no longer usable. A thread that ends
// frees the base it made in the same way; a base adopted with leRegisterBase() is
// freed only by leFree(), otherwise its maker frees it.
KORVO_EXPORT void leFree();
KORVO_EXPORT bool leInitialized();
// This thread's base, or null before leInit()/leRegisterBase().
KORVO_EXPORT event_base* leBase();
// For a forked child (Platform::isForkedChild()), before it uses the loop: re-initialises
// the inherited base, whose registered events carry over to the child's own kernel state
// without touching the parent's, or makes one if there is none.
KORVO_EXPORT void leForkReinit();

KORVO_EXPORT void doLeEventLoop();
KORVO_EXPORT void doLeEventLoop(double seconds);
KORVO_EXPORT void doLeEventLoopInWaitfor(double seconds);
KORVO_EXPORT void leExitEventLoop();
// Runs this thread's loop for `seconds` of real time, whatever the fast-forward switch
// says: nothing jumps, and virtual-time jumps made by handlers meanwhile do not
// shorten the span. Returns early only when something else breaks or exits the loop
// (a declined handler exception, which is then rethrown here). The span is kept to the
// nearest microsecond; negative counts as 0 (one pass over what is due), NaN is an
// assertion failure. The loop's end is a timer event of its own, removed again however
// the dispatch ends; it keeps the loop alive when nothing else is registered. Calling
// it from inside a handler of the running loop is an assertion failure.
KORVO_EXPORT void eventLoopTimeout(double seconds);

KORVO_EXPORT void setLeFastForward(bool on);
KORVO_EXPORT bool leFastForward();
KORVO_EXPORT void leRegisterFastForwardChangeNotifier(void (*notifier)());
// This thread's virtual-time offset in seconds; it only grows.
KORVO_EXPORT double leVirtualTimeOffset();

}  // namespace Korvo

#endif
