// Placeholder until the libevent back-end is merged: a weak getCallbackControl()
// whose control only records requests. The back-end's definition replaces it at
// link time. Delete this file once Platform.cpp provides the factory.
#include "Korvo/Platform.h"

#include "Korvo/Allocator.h"

namespace Korvo::Platform {
namespace {
class RecordingCallbackControl : public CallbackControl {
public:
   void requestCallback() override { pending_ = true; }
   void cancelCallback() override { pending_ = false; }
   bool pendingCallback() const override { return pending_; }

private:
   bool pending_ = false;
};
}  // namespace

__attribute__((weak)) std::shared_ptr<CallbackControl> getCallbackControl(CallbackHandler*) {
   return makeShared<RecordingCallbackControl>();
}

}  // namespace Korvo::Platform
