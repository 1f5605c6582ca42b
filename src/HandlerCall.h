#ifndef KORVO_SRC_HANDLERCALL_H
#define KORVO_SRC_HANDLERCALL_H

// How the back-ends call a client's handler. Not installed.

#include <cstdint>

namespace Korvo::Impl {

// Handler calls made on this thread so far, also counting each entry into one of our
// loop runners. Whoever sees it unchanged (bar its own call) since it last looked
// knows that no client code ran in between: the scheduler root reuses the end of a
// task run as the start of the next dispatch on that ground. Initial-exec, so that
// the count costs one instruction per call.
extern thread_local constinit uint64_t handlerCallCount_ __attribute__((tls_model("initial-exec")));
inline uint64_t handlerCallCount() {
   return handlerCallCount_;
}
inline void handlerCallCountInc() {
   ++handlerCallCount_;
}

// Calls the handler (`call`). An exception from it is offered to the handler's
// handle…Exception() (`offer`) and passes on unless the handler takes it. Returns
// whether an exception was taken. Neither lambda may touch the control after the
// call: the handler may have destroyed it.
template <typename Call, typename Offer>
bool callHandler(Call&& call, Offer&& offer) {
   handlerCallCountInc();
   try {
      call();
   } catch (...) {
      if (!offer()) {
         throw;
      }
      return true;
   }
   return false;
}

}  // namespace Korvo::Impl

#endif
