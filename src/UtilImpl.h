#ifndef KORVO_SRC_UTILIMPL_H
#define KORVO_SRC_UTILIMPL_H

// Helpers shared by the utility sources; not installed.

#include <sys/stat.h>
#include <sys/types.h>

#include <cstring>
#include <string>

namespace Korvo {
namespace Platform {
class DebugHandler;
}

namespace Util::Impl {

// The library's own utilities handler, "KorvoUtil"; made on first use and kept
// for the life of the process (so it can still trace from exit-time code).
Platform::DebugHandler& utilHandler();

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

}  // namespace Util::Impl
}  // namespace Korvo

#endif
