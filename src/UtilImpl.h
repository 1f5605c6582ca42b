#ifndef KORVO_SRC_UTILIMPL_H
#define KORVO_SRC_UTILIMPL_H

// Helpers shared by the utility sources; not installed.

#include "DebugComponent.h"

#include <sys/stat.h>
#include <sys/types.h>

#include <cstring>
#include <string>

namespace Korvo::Util::Impl {

// The library's own utilities handler, "KorvoUtil" (utilities may run from exit-time
// code).
extern Korvo::Impl::ComponentDebug utilHandler;

inline const char* errorText(int err) {
   return std::strerror(err);
}

// Sets the umask to 0 for the life of the object, so that modes passed to
// open()/mkdir() apply exactly. The umask is process-wide.
class UmaskZero {
public:
   UmaskZero() : old_(::umask(0)) {}
   ~UmaskZero() { ::umask(old_); }
   UmaskZero(const UmaskZero&) = delete;
   UmaskZero& operator=(const UmaskZero&) = delete;

private:
   mode_t old_;
};

}  // namespace Korvo::Util::Impl

#endif
