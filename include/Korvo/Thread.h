#ifndef KORVO_THREAD_H
#define KORVO_THREAD_H

// Thread identity, names, the per-thread singleton switch, fork handling and the
// load-time compatibility check.

#include <Korvo/Export.h>

#include <sys/types.h>

namespace Korvo {

constexpr int PLATFORM_LIB_FLAG_KORVO = 2;
// Other platform libraries that must not share a process with this one export the
// same symbol; with interposition the first definition loaded wins, so seeing a
// value other than 2 here means another such library came first.
extern "C" KORVO_EXPORT int platformLibPresenceFlag;

// Kernel thread id.
KORVO_EXPORT pid_t gettid();
KORVO_EXPORT bool isMainThread();

// The calling thread's name, cached per thread (at most 15 characters).
KORVO_EXPORT const char* threadName();
// Names the calling thread; does nothing on the main thread (whose name is the
// process's). Names of more than 15 characters are an assertion failure.
KORVO_EXPORT void threadNameIs(const char* name);

// Switches the calling thread to its own singletons (timer wheel, scheduler root,
// ...). Must be called before the thread looks up any singleton.
KORVO_EXPORT void useThreadLocalSingletons();
// Locks the thread's choice and returns it; every singleton accessor calls this.
KORVO_EXPORT bool hasThreadLocalSingletons();
// Accepted for compatibility and ignored.
KORVO_EXPORT void threadSafePointerIs(bool);

// Runs at load; verifies platformLibPresenceFlag and promotes the library's
// symbols to global scope so that plug-ins bind to this copy.
KORVO_EXPORT void checkIncompat();

namespace Platform {

KORVO_EXPORT void setupHandler();
KORVO_EXPORT void handleFork();
KORVO_EXPORT bool isForkedChild();
KORVO_EXPORT void forkedChildIs(bool child);

// Not offered by this library: each is an assertion failure.
KORVO_EXPORT void refCountingEnabledIs(bool);
KORVO_EXPORT bool refCountingEnabled();

}  // namespace Platform
}  // namespace Korvo

#endif
