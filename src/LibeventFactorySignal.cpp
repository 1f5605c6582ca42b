#define KORVO_SOURCE_FILE "LibeventFactorySignalCpp"
#include "LibeventFactory.h"

#include "HandlerCall.h"
#include "Korvo/Allocator.h"
#include "Korvo/Exception.h"

#include <csignal>
#include <mutex>

namespace Korvo {

namespace {

// Which signals have a control, and the one base they are all on: libevent routes
// every signal to a single base per process. Touched only when a control is made or
// destroyed, so the lock is never on the event path.
struct SignalClaims {
   std::mutex mutex;
   event_base* base = nullptr;
   int count = 0;
   bool claimed[NSIG] = {};
};

SignalClaims& signalClaims() {
   // Never destroyed: a control on another thread may go after static destructors.
   static SignalClaims* const claims = new SignalClaims;
   return *claims;
}

void claimSignal(int signo) {
   KORVO_ASSERT(signo > 0 && signo < NSIG, "getSignalControl: invalid signal " << signo);
   KORVO_ASSERT(signo != SIGKILL && signo != SIGSTOP,
                "getSignalControl: signal " << signo << " cannot be caught");
   leInit();
   SignalClaims& claims = signalClaims();
   std::lock_guard<std::mutex> lock(claims.mutex);
   KORVO_ASSERT(!claims.claimed[signo],
                "getSignalControl: signal " << signo << " already has a control");
   KORVO_ASSERT(claims.base == nullptr || claims.base == leState.base,
                "getSignalControl: signals are watched by another thread's loop");
   claims.claimed[signo] = true;
   claims.base = leState.base;
   ++claims.count;
}

void releaseSignal(int signo) {
   SignalClaims& claims = signalClaims();
   std::lock_guard<std::mutex> lock(claims.mutex);
   claims.claimed[signo] = false;
   if (--claims.count == 0) {
      claims.base = nullptr;
   }
}

}  // namespace

LibeventSignalControl::LibeventSignalControl(Platform::SignalHandler* handler, int signo)
    : handler_(handler), signo_(signo) {
   event_assign(&event_, owner_.base(), signo_, EV_SIGNAL | EV_PERSIST,
                &LibeventSignalControl::handleSignal, this);
   KORVO_ASSERT(event_add(&event_, nullptr) == 0,
                "getSignalControl: libevent refused signal " << signo_);
   KORVO_SITE_TRACE(leDebug, 9, "LibeventSignalControl",
                    "Signal " << DisplayPointer(this) << " watch " << signo_);
}

LibeventSignalControl::~LibeventSignalControl() {
   // event_del restores the disposition the signal had before.
   event_del(&event_);
   event_debug_unassign(&event_);
   releaseSignal(signo_);
}

void LibeventSignalControl::handleSignal(evutil_socket_t, short, void* control) {
   auto* self = static_cast<LibeventSignalControl*>(control);
   callFromLoop([self] { self->deliver(); });
}

void LibeventSignalControl::deliver() {
   KORVO_SITE_TRACE(leDebug, 9, "LibeventSignalControl::deliver",
                    "Signal " << DisplayPointer(this) << " received " << signo_);
   Platform::SignalHandler* handler = handler_;
   const int signo = signo_;
   if (Impl::callHandler([&] { handler->signalReceived(signo); },
                         [&] { return handler->handleSignalException(signo); })) {
      KORVO_SITE_TRACE(leDebug, 9, "LibeventSignalControl::deliver",
                       "Signal notification exception was handled");
   }
}

std::shared_ptr<LibeventSignalControl> getLeSignalControl(Platform::SignalHandler* handler,
                                                          int signo) {
   KORVO_ASSERT(handler != nullptr, "getSignalControl: null handler");
   claimSignal(signo);
   try {
      return makeShared<LibeventSignalControl>(handler, signo);
   } catch (...) {
      releaseSignal(signo);
      throw;
   }
}

}  // namespace Korvo
