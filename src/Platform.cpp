#define KORVO_SOURCE_FILE "PlatformCpp"
#include "Korvo/Platform.h"

#include "Korvo/Allocator.h"
#include "Korvo/IntrospectionMap.h"
#include "LibeventFactory.h"

#include <time.h>

namespace Korvo {

double time() {
   return libraryTime();
}

namespace Platform {

std::shared_ptr<TimerControl> getTimerControl(TimeoutHandler* handler) {
   return getLeTimerControl(handler);
}

std::shared_ptr<CallbackControl> getCallbackControl(CallbackHandler* handler) {
   return getLeCallbackControl(handler);
}

std::shared_ptr<FdControl> getFdControl(FdEventHandler* handler) {
   return getLeFdControl(handler);
}

std::shared_ptr<RemoteCallbackControl> getRemoteCallbackControl(CallbackHandler* handler) {
   return getLeRemoteCallbackControl(handler);
}

std::shared_ptr<SignalControl> getSignalControl(SignalHandler* handler, int signo) {
   return getLeSignalControl(handler, signo);
}

void exitEventLoop() {
   leExitEventLoop();
}

void doEventLoop() {
   doLeEventLoop();
}

void doEventLoop(double seconds) {
   doLeEventLoop(seconds);
}

void doEventLoopInWaitfor(double seconds) {
   doLeEventLoopInWaitfor(seconds);
}

bool fastForward() {
   return leFastForward();
}

void setFastForward(bool on) {
   setLeFastForward(on);
}

void registerFastForwardChangeNotifier(void (*notifier)()) {
   leRegisterFastForwardChangeNotifier(notifier);
}

void fastForwardBy(double seconds) {
   KORVO_ASSERT(leFastForward(), "Korvo::Platform::fastForwardBy( Time ) fast-forwarding disabled");
   const timeval delta = timevalTruncatedFromSeconds(seconds, "Korvo::Platform::fastForwardBy");
   applyFastForwardDelta(&delta);
}

std::string ValuePrinter::toString(const void* value) const {
   if (IntrospectionMap::Printer printer = IntrospectionMap::printer(typeName_)) {
      std::string text = printer(value, size_);
      if (!text.empty()) {
         return text;
      }
   }
   return dumpHex(value, size_);
}

std::shared_ptr<ValuePrinter> getValuePrinter(const std::string& typeName, int size) {
   return makeShared<ValuePrinter>(typeName, size);
}

}  // namespace Platform
}  // namespace Korvo
