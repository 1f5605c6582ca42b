#define KORVO_SOURCE_FILE "LibeventFactoryCpp"
#include "LibeventFactory.h"

#include "HandlerCall.h"
#include "Korvo/Allocator.h"
#include "Korvo/Exception.h"
#include "Korvo/TaskScheduler.h"
#include "Korvo/Thread.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <limits>

namespace Korvo {

thread_local constinit LeThreadState leState;

KORVO_COMPONENT_DEBUG(leDebug, "KorvoLibevent");

// ---- Diagnostics.

void le_debug_cb(int severity, const char* msg) {
   unsigned level = 0;
   switch (severity) {
      case EVENT_LOG_DEBUG:
         level = 9;
         break;
      case EVENT_LOG_MSG:
         level = 5;
         break;
      case EVENT_LOG_WARN:
         level = 1;
         break;
      case EVENT_LOG_ERR:
         level = 0;
         break;
      default:
         KORVO_FAIL("invalid libevent severity:" << severity << " msg:" << (msg ? msg : ""));
   }
   Platform::DebugHandler& debug = leDebug();
   if (!debug.enabled(level)) {
      return;
   }
   Platform::DebugStream stream;
   stream << "libevent: ";
   if (msg) {
      stream << msg;
   } else {
      // Streaming a null char* is undefined; a failed stream keeps the prefix alone.
      stream.setstate(std::ios::failbit);
   }
   debug.dump(stream, level, __FILE__, __LINE__, __func__);
}

void le_fatal_cb(int err) {
   KORVO_FAIL("libevent fatal error:" << err);
}

// ---- Time conversions.

timeval timevalFromMicros(int64_t micros) {
   int64_t sec = micros / 1000000;
   int64_t usec = micros % 1000000;
   if (usec < 0) {
      usec += 1000000;
      --sec;
   }
   timeval tv;
   tv.tv_sec = static_cast<time_t>(sec);
   tv.tv_usec = static_cast<suseconds_t>(usec);
   return tv;
}

namespace {
// NaN fails naming `what`; a negative delay counts as 0, one above maxDelaySeconds is
// clamped.
double delaySeconds(double seconds, const char* what) {
   KORVO_ASSERT(!std::isnan(seconds), what << ": seconds is NaN");
   return seconds > 0.0 ? std::min(seconds, Platform::maxDelaySeconds) : 0.0;
}
}  // namespace

timeval timevalFromSeconds(double seconds, const char* what) {
   // Rounded, not truncated: 0.3 * 1e6 is 299999.99999999994, and a timer must not
   // fire a microsecond before the delay its caller wrote.
   const auto micros = static_cast<int64_t>(delaySeconds(seconds, what) * 1e6 + 0.5);
   timeval tv;
   tv.tv_sec = static_cast<time_t>(micros / 1000000);
   tv.tv_usec = static_cast<suseconds_t>(micros % 1000000);
   return tv;
}

timeval timevalTruncatedFromSeconds(double seconds, const char* what) {
   seconds = delaySeconds(seconds, what);
   const double whole = std::trunc(seconds);
   timeval tv;
   tv.tv_sec = static_cast<time_t>(whole);
   tv.tv_usec = static_cast<suseconds_t>((seconds - whole) * 1e6);
   return tv;
}

// ---- The thread's event base.

void setMainThread() {
   leState.mainThread = isMainThread();
}

namespace {

event_base* makeBase() {
   // Our controls embed struct event, so its size is part of our binary interface
   // with libevent; a mismatch would corrupt memory on the first event_assign.
   KORVO_ASSERT(event_get_struct_event_size() == sizeof(event),
                "libevent's struct event has " << event_get_struct_event_size()
                                               << " bytes, built against " << sizeof(event));
   event_set_fatal_callback(le_fatal_cb);
   event_set_log_callback(le_debug_cb);
   // libevent's defaults, on purpose: its precise clock (EVENT_PRECISE_TIMER) makes
   // the epoll back-end re-arm a timerfd with a system call on every pass of the loop,
   // which doubles the cost of a callback round trip; and its time cache saves a clock
   // reading per timeout added. The environment still reaches libevent here.
   event_base* base = event_base_new();
   KORVO_ASSERT(base != nullptr, "event_base_new failed");
   return base;
}

// The base and who frees it. Shared by the thread that made or adopted it and by every
// control made on that thread; the last share to go frees a base we made, and one we
// adopted only if leFree() asked for it.
struct BaseOwnership {
   BaseOwnership(event_base* b, bool ours) : base(b), freeOnRelease(ours) {}
   BaseOwnership(const BaseOwnership&) = delete;
   BaseOwnership& operator=(const BaseOwnership&) = delete;
   event_base* base;
   bool freeOnRelease;
   ~BaseOwnership() {
      if (freeOnRelease) {
         event_base_free(base);
      }
   }
};

// The thread's own share, dropped when the thread ends. Touched only when a base is made,
// adopted or freed, so the event path never pays for its initialisation check.
struct ThreadShare {
   std::shared_ptr<BaseOwnership> ownership;
   ~ThreadShare() { leState.base = nullptr; }
};
thread_local ThreadShare threadShare_;

void shareBase(event_base* base, bool ours) {
   threadShare_.ownership = makeShared<BaseOwnership>(base, ours);
   leState.base = base;
   setMainThread();
}

}  // namespace

void leInit() {
   if (leState.base != nullptr) {
      return;
   }
   shareBase(makeBase(), true);
}

std::shared_ptr<event_base> leBaseShare() {
   leInit();
   const std::shared_ptr<BaseOwnership>& ownership = threadShare_.ownership;
   return std::shared_ptr<event_base>(ownership, ownership->base);
}

void leRegisterBase(event_base* base) {
   if (leState.base != nullptr && leState.base != base) {
      // The two blanks around "thread_local" are part of the established text.
      KORVO_FAIL("Tried to register a base:" << DisplayPointer(base) << " but a thread_local "
                                             << " base already exists: "
                                             << DisplayPointer(leState.base));
   }
   if (leState.base == base) {
      setMainThread();
      return;
   }
   shareBase(base, false);
}

void leFree() {
   if (leState.base == nullptr) {
      return;
   }
   KORVO_ASSERT(!leLoopRunning(), "leFree called from inside the running event loop");
   // Freed at once unless a control still holds a share: then when the last one goes.
   threadShare_.ownership->freeOnRelease = true;
   threadShare_.ownership.reset();
   leState.base = nullptr;
}

// ---- Controls' thread.

LeOwner::LeOwner() : base_(leBaseShare()), tid_(gettid()), pid_(::getpid()) {}

void LeOwner::failWrongThread(const char* operation) const {
   if (checkDisabled_ || __atomic_load_n(&auxThreadCount, __ATOMIC_RELAXED) != 0) {
      return;
   }
   // A forked child goes on using its parent's structures in its single thread, as the
   // scheduler's own check allows.
   if (::getpid() != pid_) {
      return;
   }
   KORVO_FAIL("Executing in wrong thread " << threadName() << "(" << gettid() << ") pid "
                                           << ::getpid() << ": " << operation
                                           << " on a control that belongs to thread " << tid_);
}

bool leInitialized() {
   return leState.base != nullptr;
}

event_base* leBase() {
   return leState.base;
}

void leForkReinit() {
   if (leState.base == nullptr) {
      leInit();
      return;
   }
   const int rc = event_reinit(leState.base);
   KORVO_ASSERT(rc == 0, "event_reinit failed in forked child");
   // The forking thread is the child's main thread, whichever it was in the parent.
   setMainThread();
}

// ---- Timer control.

LibeventTimerControl::LibeventTimerControl(Platform::TimeoutHandler* handler)
    : timeoutHandler_(handler) {
   // Assigned once for good: the callback and its argument never change, so arming
   // is a bare event_add.
   event_assign(&event_, owner_.base(), -1, 0, &LibeventTimerControl::handleTimeout, this);
}

LibeventTimerControl::~LibeventTimerControl() {
   disarm();
   event_debug_unassign(&event_);
}

void LibeventTimerControl::setTimeout(double seconds) {
   owner_.check("setTimeout");
   const timeval delay = timevalFromSeconds(seconds, "LibeventTimerControl::setTimeout");
   KORVO_SITE_TRACE(leDebug, 9, "LibeventTimerControl::setTimeout",
                    "Timer " << DisplayPointer(this) << " set timeout " << seconds);
   // No separate delete: event_add replaces a pending expiry, and also withdraws one
   // that has fired but whose handler has not run yet, so there is never more than one.
   event_add(&event_, &delay);
}

void LibeventTimerControl::delTimeout() {
   owner_.check("delTimeout");
   disarm();
}

void LibeventTimerControl::disarm() {
   KORVO_SITE_TRACE(leDebug, 9, "LibeventTimerControl::delTimeout",
                    "Timer " << DisplayPointer(this) << " del timeout");
   event_del(&event_);
}

bool LibeventTimerControl::pending() const {
   owner_.check("pending");
   return event_pending(&event_, EV_TIMEOUT, nullptr) != 0;
}

double LibeventTimerControl::remainingTimeout() const {
   if (!pending()) {
      return std::numeric_limits<double>::infinity();
   }
   // Both readings are on the base's own scale (see event_base_now), so the difference
   // is exact whatever the wall clock does; "now" is read first because it may refresh
   // the base's wall-clock offset that event_pending applies.
   timeval now;
   event_base_now(event_get_base(&event_), &now);
   timeval expiry;
   event_pending(&event_, EV_TIMEOUT, &expiry);
   const int64_t remaining = microsFromTimeval(expiry) - microsFromTimeval(now);
   return remaining > 0 ? static_cast<double>(remaining) / 1e6 : 0.0;
}

void LibeventTimerControl::handleTimeout(evutil_socket_t, short, void* control) {
   auto* self = static_cast<LibeventTimerControl*>(control);
   callFromLoop([self] { self->handleExpiry(); });
}

void LibeventTimerControl::handleExpiry() {
   KORVO_SITE_TRACE(leDebug, 9, "LibeventTimerControl::handleExpiry",
                    "Timer " << DisplayPointer(this) << " expired");
   // Nothing of the control is touched after the call: the handler may destroy it.
   Platform::TimeoutHandler* handler = timeoutHandler_;
   if (Impl::callHandler([&] { handler->timeout(); },
                         [&] { return handler->handleTimeoutException(); })) {
      KORVO_SITE_TRACE(leDebug, 9, "LibeventTimerControl::handleExpiry",
                       "Timeout notification exception was handled");
   }
}

// ---- Callback control.

LibeventTimerControl::LibeventTimerControl(event_callback_fn fire) : timeoutHandler_(nullptr) {
   event_assign(&event_, owner_.base(), -1, 0, fire, this);
}

LibeventCallbackControl::LibeventCallbackControl(Platform::CallbackHandler* handler)
    : LibeventTimerControl(&LibeventCallbackControl::handleCallback), callbackHandler_(handler) {}

LibeventCallbackControl::~LibeventCallbackControl() {
   KORVO_SITE_TRACE(leDebug, 9, "LibeventCallbackControl::cancelCallback",
                    "Callback " << DisplayPointer(this) << " cancel");
}

void LibeventCallbackControl::cancelCallback() {
   KORVO_SITE_TRACE(leDebug, 9, "LibeventCallbackControl::cancelCallback",
                    "Callback " << DisplayPointer(this) << " cancel");
   LibeventTimerControl::delTimeout();
}

bool LibeventCallbackControl::pendingCallback() const {
   return LibeventTimerControl::pending();
}

void LibeventCallbackControl::handleCallback(evutil_socket_t, short, void* control) {
   // The event's argument is the timer part of this control.
   auto* self = static_cast<LibeventCallbackControl*>(static_cast<LibeventTimerControl*>(control));
   callFromLoop([self] { self->runCallback(); });
}

void LibeventCallbackControl::runCallback() {
   KORVO_SITE_TRACE(leDebug, 9, "LibeventCallbackControl::timeout",
                    "Callback " << DisplayPointer(this) << " execute");
   Platform::CallbackHandler* handler = callbackHandler_;
   if (Impl::callHandler([&] { handler->callback(); },
                         [&] { return handler->handleCallbackException(); })) {
      KORVO_SITE_TRACE(leDebug, 9, "LibeventCallbackControl::timeout",
                       "Callback notification exception was handled");
   }
}

// ---- Descriptor control.

LibeventFdControl::LibeventFdControl(Platform::FdEventHandler* handler) : fdHandler_(handler) {
   event_assign(&readEvent_, owner_.base(), -1, 0, &LibeventFdControl::handleFdRead, this);
   event_assign(&writeEvent_, owner_.base(), -1, 0, &LibeventFdControl::handleFdWrite, this);
}

LibeventFdControl::~LibeventFdControl() {
   disarm();
   event_debug_unassign(&readEvent_);
   event_debug_unassign(&writeEvent_);
}

namespace {

// Withdraws the watch and forgets its descriptor.
void disarmFdEvent(event* ev, event_callback_fn callback, void* control) {
   event_del(ev);
   event_assign(ev, event_get_base(ev), -1, 0, callback, control);
}

}  // namespace

// Points `ev` at the descriptor for `what` and adds it. libevent refuses some
// descriptors (epoll takes no regular files); the watch is then simply not there, which
// we trace rather than let the loop wait for an event that cannot come.
void LibeventFdControl::armFdEvent(event* ev, short what, event_callback_fn callback) {
   event_del(ev);
   event_assign(ev, event_get_base(ev), fd_, what, callback, this);
   if (event_add(ev, nullptr) != 0) {
      KORVO_SITE_TRACE(leDebug, 1, "LibeventFdControl::armFdEvent",
                       "Fd " << DisplayPointer(this) << " cannot watch fd " << fd_ << " for "
                             << ((what & EV_READ) ? "reads" : "writes"));
   }
}

void LibeventFdControl::armRead() {
   armFdEvent(&readEvent_, EV_READ | EV_PERSIST, &LibeventFdControl::handleFdRead);
}

void LibeventFdControl::armWrite() {
   // Deliberately without EV_PERSIST: a write watch is spent after one event.
   armFdEvent(&writeEvent_, EV_WRITE, &LibeventFdControl::handleFdWrite);
}

void LibeventFdControl::setFd(int fd) {
   owner_.check("setFd");
   const int flags = fcntl(fd, F_GETFL);
   KORVO_ASSERT(flags >= 0, "flags >= 0 (fd " << fd << ": " << std::strerror(errno) << ")");
   const int result = fcntl(fd, F_SETFL, flags | O_NONBLOCK);
   KORVO_ASSERT(result == 0, "result == 0 (fd " << fd << ": " << std::strerror(errno) << ")");
   KORVO_SITE_TRACE(leDebug, 9, "LibeventFdControl::setFd",
                    "Fd " << DisplayPointer(this) << " set fd " << fd);
   fd_ = fd;
   // Re-armed even when the number is unchanged: it may name a new file by now, and
   // the kernel's registration was for the old one.
   if (reads_) {
      armRead();
   }
   if (writes_) {
      armWrite();
   }
}

void LibeventFdControl::setReads(bool on) {
   owner_.check("setReads");
   reads_ = on;
   watchIs(on, &readEvent_, EV_READ, &LibeventFdControl::handleFdRead, &LibeventFdControl::armRead);
}

void LibeventFdControl::setWrites(bool on) {
   owner_.check("setWrites");
   writes_ = on;
   watchIs(on, &writeEvent_, EV_WRITE, &LibeventFdControl::handleFdWrite,
           &LibeventFdControl::armWrite);
}

void LibeventFdControl::watchIs(bool on, event* ev, short what, event_callback_fn callback,
                                void (LibeventFdControl::*arm)()) {
   if (fd_ < 0) {
      return;
   }
   if (!on) {
      disarmFdEvent(ev, callback, this);
   } else if (!event_pending(ev, what, nullptr)) {
      (this->*arm)();
   }
}

void LibeventFdControl::clearEvents() {
   owner_.check("clearEvents");
   disarmFdEvent(&readEvent_, &LibeventFdControl::handleFdRead, this);
   disarmFdEvent(&writeEvent_, &LibeventFdControl::handleFdWrite, this);
}

void LibeventFdControl::delFd() {
   owner_.check("delFd");
   disarm();
}

void LibeventFdControl::disarm() {
   KORVO_SITE_TRACE(leDebug, 9, "LibeventFdControl::delFd",
                    "Fd " << DisplayPointer(this) << " del fd " << fd_);
   disarmFdEvent(&readEvent_, &LibeventFdControl::handleFdRead, this);
   disarmFdEvent(&writeEvent_, &LibeventFdControl::handleFdWrite, this);
   fd_ = -1;
}

void LibeventFdControl::handleFdRead(evutil_socket_t, short, void* control) {
   auto* self = static_cast<LibeventFdControl*>(control);
   callFromLoop([self] { self->handleRead(); });
}

void LibeventFdControl::handleFdWrite(evutil_socket_t, short, void* control) {
   auto* self = static_cast<LibeventFdControl*>(control);
   callFromLoop([self] { self->handleWrite(); });
}

void LibeventFdControl::handleRead() {
   const int fd = getFd();
   Platform::FdEventHandler* handler = fdHandler_;
   Impl::callHandler([&] { handler->readFdEvent(fd); },
                     [&] { return handler->handleFdException(fd); });
}

void LibeventFdControl::handleWrite() {
   const int fd = getFd();
   Platform::FdEventHandler* handler = fdHandler_;
   Impl::callHandler([&] { handler->writeFdEvent(fd); },
                     [&] { return handler->handleFdException(fd); });
}

// ---- Factories.

std::shared_ptr<LibeventTimerControl> getLeTimerControl(Platform::TimeoutHandler* handler) {
   KORVO_ASSERT(handler != nullptr, "getTimerControl: null handler");
   return makeShared<LibeventTimerControl>(handler);
}

std::shared_ptr<LibeventCallbackControl> getLeCallbackControl(Platform::CallbackHandler* handler) {
   KORVO_ASSERT(handler != nullptr, "getCallbackControl: null handler");
   return makeShared<LibeventCallbackControl>(handler);
}

std::shared_ptr<LibeventFdControl> getLeFdControl(Platform::FdEventHandler* handler) {
   KORVO_ASSERT(handler != nullptr, "getFdControl: null handler");
   return makeShared<LibeventFdControl>(handler);
}

}  // namespace Korvo
