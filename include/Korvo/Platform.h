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
// never from inside requestCallback() itself.
class KORVO_EXPORT CallbackControl {
public:
   virtual ~CallbackControl() = default;
   virtual void requestCallback() = 0;
   virtual void cancelCallback() = 0;
   virtual bool pendingCallback() const = 0;
};

// Read interest is persistent and on by default; write interest is one-shot (call
// setWrites(true) again for the next writeFdEvent). The descriptor is switched to
// non-blocking by setFd() and never closed by the control.
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

KORVO_EXPORT std::shared_ptr<TimerControl> getTimerControl(TimeoutHandler* handler);
KORVO_EXPORT std::shared_ptr<CallbackControl> getCallbackControl(CallbackHandler* handler);
KORVO_EXPORT std::shared_ptr<FdControl> getFdControl(FdEventHandler* handler);

// Run the calling thread's loop: until no events remain; for `seconds` of library
// time (crossed by jumps under fast-forward); or one bounded wait.
KORVO_EXPORT void doEventLoop();
KORVO_EXPORT void doEventLoop(double seconds);
KORVO_EXPORT void doEventLoopInWaitfor(double seconds);

// Virtual time. The switch is process-wide and may only change on the main thread.
KORVO_EXPORT bool fastForward();
KORVO_EXPORT void setFastForward(bool on);
KORVO_EXPORT void registerFastForwardChangeNotifier(void (*notifier)());
KORVO_EXPORT void fastForwardBy(double seconds);

}  // namespace Platform
}  // namespace Korvo

#endif
