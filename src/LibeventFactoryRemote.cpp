#define KORVO_SOURCE_FILE "LibeventFactoryRemoteCpp"
#include "LibeventFactory.h"

#include "HandlerCall.h"
#include "Korvo/Allocator.h"
#include "Korvo/Exception.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>

namespace Korvo {

namespace {

// Tells requesting threads whether the thread that made a control still runs. Made on
// a thread's first remote control; the thread's exit clears the flag.
struct ThreadLife {
   std::shared_ptr<std::atomic<bool>> alive = makeShared<std::atomic<bool>>(true);
   ~ThreadLife() { alive->store(false, std::memory_order_release); }
};
thread_local ThreadLife threadLife_;

}  // namespace

LibeventRemoteCallbackControl::LibeventRemoteCallbackControl(Platform::CallbackHandler* handler)
    : handler_(handler),
      threadAlive_(threadLife_.alive),
      fd_(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {
   KORVO_ASSERT(fd_ >= 0, "getRemoteCallbackControl: eventfd: " << std::strerror(errno));
   // Persistent: the eventfd is the control's only way in, so it is always watched.
   event_assign(&event_, owner_.base(), fd_, EV_READ | EV_PERSIST,
                &LibeventRemoteCallbackControl::handleWakeup, this);
   event_add(&event_, nullptr);
}

LibeventRemoteCallbackControl::~LibeventRemoteCallbackControl() {
   event_del(&event_);
   event_debug_unassign(&event_);
   ::close(fd_);
}

bool LibeventRemoteCallbackControl::tryRequestCallback() {
   if (!threadAlive_->load(std::memory_order_acquire)) {
      KORVO_SITE_TRACE(leDebug, 1, "LibeventRemoteCallbackControl::requestCallback",
                       "Callback " << DisplayPointer(this) << " dropped: its thread has ended");
      return false;
   }
   // Only the request that finds nothing pending wakes the loop; the exchange also
   // publishes what this thread wrote before, for the callback to see.
   if (!pending_.exchange(true, std::memory_order_acq_rel)) {
      const uint64_t one = 1;
      // Can only fail with EAGAIN at a counter of 2^64-2, when a wakeup is due anyway.
      [[maybe_unused]] const ssize_t written = ::write(fd_, &one, sizeof one);
   }
   return true;
}

void LibeventRemoteCallbackControl::requestCallback() {
   tryRequestCallback();
}

void LibeventRemoteCallbackControl::cancelCallback() {
   // A wakeup already written still comes, and finds nothing pending.
   pending_.store(false, std::memory_order_release);
}

bool LibeventRemoteCallbackControl::pendingCallback() const {
   return pending_.load(std::memory_order_acquire);
}

void LibeventRemoteCallbackControl::handleWakeup(evutil_socket_t fd, short, void* control) {
   auto* self = static_cast<LibeventRemoteCallbackControl*>(control);
   uint64_t count = 0;
   [[maybe_unused]] const ssize_t got = ::read(fd, &count, sizeof count);
   // Drained before the flag is cleared: a request between the two finds the flag set
   // and is served by this run; one after it writes a new wakeup.
   if (!self->pending_.exchange(false, std::memory_order_acq_rel)) {
      return;  // cancelled
   }
   callFromLoop([self] { self->runCallback(); });
}

void LibeventRemoteCallbackControl::runCallback() {
   KORVO_SITE_TRACE(leDebug, 9, "LibeventRemoteCallbackControl::runCallback",
                    "Callback " << DisplayPointer(this) << " execute");
   Platform::CallbackHandler* handler = handler_;
   if (Impl::callHandler([&] { handler->callback(); },
                         [&] { return handler->handleCallbackException(); })) {
      KORVO_SITE_TRACE(leDebug, 9, "LibeventRemoteCallbackControl::runCallback",
                       "Callback notification exception was handled");
   }
}

std::shared_ptr<LibeventRemoteCallbackControl> getLeRemoteCallbackControl(
    Platform::CallbackHandler* handler) {
   KORVO_ASSERT(handler != nullptr, "getRemoteCallbackControl: null handler");
   return makeShared<LibeventRemoteCallbackControl>(handler);
}

}  // namespace Korvo
