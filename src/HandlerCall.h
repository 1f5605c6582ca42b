#ifndef KORVO_SRC_HANDLERCALL_H
#define KORVO_SRC_HANDLERCALL_H

// How the back-ends call a client's handler. Not installed.

namespace Korvo::Impl {

// Calls the handler (`call`). An exception from it is offered to the handler's
// handle…Exception() (`offer`) and passes on unless the handler takes it. Returns
// whether an exception was taken. Neither lambda may touch the control after the
// call: the handler may have destroyed it.
template <typename Call, typename Offer>
bool callHandler(Call&& call, Offer&& offer) {
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
