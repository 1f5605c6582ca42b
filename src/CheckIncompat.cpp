#include "Korvo/Exception.h"
#include "Korvo/Thread.h"

#include "SystemAssert.h"

#include <dlfcn.h>

namespace Korvo {

extern "C" {
KORVO_EXPORT int platformLibPresenceFlag = PLATFORM_LIB_FLAG_KORVO;
}

void checkIncompat() {
   KORVO_SYSTEM_ASSERT(platformLibPresenceFlag == Korvo::PLATFORM_LIB_FLAG_KORVO &&
                       "a library incompatible with Korvo has been loaded");
   // Reopening ourselves with RTLD_GLOBAL promotes our symbols to global scope,
   // so plug-ins loaded later bind to this copy of the library. The handle is
   // kept for the life of the process on purpose.
   Dl_info info;
   if (dladdr(reinterpret_cast<void*>(&checkIncompat), &info) != 0 && info.dli_fname) {
      dlopen(info.dli_fname, RTLD_LAZY | RTLD_NOLOAD | RTLD_GLOBAL);
   }
}

namespace {
// Runs before the rest of the library's load-time initialisation.
__attribute__((constructor(101))) void checkIncompatAtLoad() {
   checkIncompat();
}
}  // namespace

}  // namespace Korvo
