#define KORVO_SOURCE_FILE "LibeventFactoryLoopCpp"
#include "LibeventFactory.h"

#include "HandlerCall.h"
#include "Korvo/Exception.h"

#include <algorithm>
#include <atomic>
#include <exception>
#include <utility>
#include <vector>

namespace Korvo {

namespace Impl {
thread_local constinit uint64_t handlerCallCount_ = 0;
}  // namespace Impl

namespace {

// Whether one of our loop runners is inside event_base_dispatch on this thread, and
// the handler exception waiting to be rethrown once it has returned.
thread_local int loopDepth_ = 0;
thread_local std::exception_ptr parkedException_;
// Set by exitEventLoop(): a loop call made of several dispatches (fast-forward) makes
// no further one. Cleared when a loop call starts.
thread_local bool exitRequested_ = false;

// Read by every thread's loop, written by the main thread only.
std::atomic<bool> fastForward_{false};

std::vector<void (*)()>& notifiers() {
   static std::vector<void (*)()> list;
   return list;
}

class LoopRun {
public:
   LoopRun() {
      // libevent refuses a nested dispatch of a running base with a mere warning; a
      // loop call from inside a handler is a mistake to stop where it is made.
      KORVO_ASSERT(loopDepth_ == 0, "doEventLoop called from inside the running event loop");
      ++loopDepth_;
      // Anything may have run since the loop last returned.
      Impl::handlerCallCountInc();
   }
   ~LoopRun() { --loopDepth_; }
   LoopRun(const LoopRun&) = delete;
   LoopRun& operator=(const LoopRun&) = delete;
};

// Dispatches until libevent returns, then rethrows what a handler left parked. An
// exception must not unwind through libevent itself: the base would stay marked as
// running and refuse every later dispatch.
void dispatch(event_base* base) {
   {
      LoopRun run;
      event_base_dispatch(base);
   }
   if (parkedException_) {
      std::rethrow_exception(std::exchange(parkedException_, nullptr));
   }
}

}  // namespace

bool leLoopRunning() {
   return loopDepth_ > 0;
}

void parkLoopException() {
   if (loopDepth_ == 0) {
      throw;
   }
   if (!parkedException_) {
      parkedException_ = std::current_exception();
   }
   event_base_loopbreak(leState.base);
}

void leExitEventLoop() {
   if (loopDepth_ == 0) {
      return;
   }
   exitRequested_ = true;
   event_base_loopbreak(leState.base);
}

void EvLoopBreak::handleBaseLoopBreak(evutil_socket_t, short, void* breakEvent) {
   auto* ev = static_cast<event*>(breakEvent);
   event_base_loopbreak(event_get_base(ev));
   event_del(ev);
}

void eventLoopTimeout(double seconds) {
   const timeval span = timevalFromSeconds(seconds, "eventLoopTimeout");
   leInit();
   ScopedTimerEvent breakEvent(leState.base, span, &EvLoopBreak::handleBaseLoopBreak);
   dispatch(leState.base);
}

// ---- Virtual time.

void setLeFastForward(bool on) {
   leInit();
   KORVO_ASSERT(leState.mainThread, "FastForward invoked from non-main thread");
   if (on == fastForward_.load(std::memory_order_relaxed)) {
      return;
   }
   fastForward_.store(on, std::memory_order_relaxed);
   for (void (*notifier)() : notifiers()) {
      notifier();
   }
}

bool leFastForward() {
   return fastForward_.load(std::memory_order_relaxed);
}

void leRegisterFastForwardChangeNotifier(void (*notifier)()) {
   std::vector<void (*)()>& list = notifiers();
   if (std::find(list.begin(), list.end(), notifier) == list.end()) {
      list.push_back(notifier);
   }
}

double leVirtualTimeOffset() {
   return leState.offset;
}

void applyFastForwardDelta(const timeval* delta) {
   KORVO_ASSERT(microsFromTimeval(*delta) >= 0,
                "virtual time cannot go back: " << secondsFromTimeval(*delta));
   leInit();
   event_base_timeout_subtract_offset(leState.base, delta);
   leState.offsetSec += delta->tv_sec;
   leState.offsetUsec += delta->tv_usec;
   if (leState.offsetUsec > 999999) {
      leState.offsetUsec -= 1000000;
      ++leState.offsetSec;
   }
   leState.offset =
       static_cast<double>(leState.offsetSec) + static_cast<double>(leState.offsetUsec) / 1e6;
   KORVO_TRACE(leDebug(), 2,
               "Increasing virtual time offset by " << secondsFromTimeval(*delta) << " to "
                                                    << leVirtualTimeOffset());
}

bool fastForwardDelayToFirstTimer(timeval* delay) {
   KORVO_ASSERT(leFastForward(), "Called without fast forward enabled");
   leInit();
   // "Now" first: reading it may refresh the offset libevent maps expiries with.
   timeval now;
   event_base_now(leState.base, &now);
   timeval first;
   if (event_base_get_first_timeout(leState.base, &first) != 0) {
      return false;
   }
   const int64_t ahead = microsFromTimeval(first) - microsFromTimeval(now);
   // 100us past the expiry, so that after the jump the timer is strictly due and not
   // a rounding step short of it.
   *delay = ahead > 0 ? timevalFromMicros(ahead + 100) : timeval{0, 0};
   return true;
}

void eventLoopFastForward(const timeval* delta) {
   applyFastForwardDelta(delta);
   // One pass: everything now due runs, then the zero-timeout break, added after the
   // jump and so due no earlier than any of them, ends the loop.
   ScopedTimerEvent breakEvent(leState.base, timeval{0, 0}, &EvLoopBreak::handleBaseLoopBreak);
   dispatch(leState.base);
}

void eventLoopFastForwardToFirstTimer(double maxSeconds) {
   KORVO_ASSERT(leFastForward(), "Called without fastForward enabled");
   const timeval max = timevalFromSeconds(maxSeconds, "eventLoopFastForwardToFirstTimer");
   timeval first;
   if (!fastForwardDelayToFirstTimer(&first) || !timercmp(&first, &max, <)) {
      eventLoopFastForward(&max);
   } else {
      eventLoopFastForward(&first);
   }
}

// ---- Loop entry points.

void doLeEventLoop() {
   leInit();
   exitRequested_ = false;
   if (leFastForward()) {
      timeval delay;
      if (fastForwardDelayToFirstTimer(&delay)) {
         applyFastForwardDelta(&delay);
      }
   }
   dispatch(leState.base);
}

void doLeEventLoop(double seconds) {
   leInit();
   exitRequested_ = false;
   const double span = secondsFromTimeval(timevalFromSeconds(seconds, "doEventLoop"));
   if (!leFastForward()) {
      eventLoopTimeout(span);
      return;
   }
   double now = Korvo::time();
   const double end = now + span;
   // At least one pass, so that what is due now runs even for a zero span, as it does
   // in real time. Should a handler switch fast-forward off, the rest of the span is
   // waited for in real time.
   do {
      if (!leFastForward()) {
         eventLoopTimeout(end - now);
         return;
      }
      eventLoopFastForwardToFirstTimer(end - now);
      now = Korvo::time();
   } while (end > now && !exitRequested_);
}

void doLeEventLoopInWaitfor(double seconds) {
   leInit();
   if (leFastForward()) {
      eventLoopFastForwardToFirstTimer(seconds);
   } else {
      eventLoopTimeout(seconds);
   }
}

}  // namespace Korvo
