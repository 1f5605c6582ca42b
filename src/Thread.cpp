#define KORVO_SOURCE_FILE "ThreadCpp"
#include "Korvo/Thread.h"

#include "Korvo/Debug.h"
#include "Korvo/Exception.h"

#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstring>

namespace Korvo {
namespace {

thread_local bool threadLocalSingletons_ = false;
thread_local bool threadLocalSingletonsLocked_ = false;
thread_local char threadName_[16] = {};
// The kernel thread id costs a system call; every trace line wants it.
thread_local pid_t cachedTid_ = 0;

}  // namespace

pid_t gettid() {
   if (cachedTid_ == 0) {
      cachedTid_ = static_cast<pid_t>(::syscall(SYS_gettid));
   }
   return cachedTid_;
}

namespace Impl {
// The forking thread lives on in the child under a new id.
void forgetCachedTid() {
   cachedTid_ = 0;
}
}  // namespace Impl

bool isMainThread() {
   return gettid() == ::getpid();
}

const char* threadName() {
   if (threadName_[0] == '\0') {
      const int rc = pthread_getname_np(pthread_self(), threadName_, sizeof(threadName_));
      KORVO_ASSERT(rc == 0, "Korvo::threadName() pthread_getname_np() failed:" << rc);
   }
   return threadName_;
}

void threadNameIs(const char* name) {
   // The main thread's name is the process's name, which we leave alone.
   if (isMainThread()) {
      return;
   }
   const int rc = pthread_setname_np(pthread_self(), name);
   KORVO_ASSERT(rc == 0,
                "Korvo::threadNameIs() pthread_setname_np() failed:" << rc << " for name:" << name);
   std::strncpy(threadName_, name, sizeof(threadName_));
   threadName_[sizeof(threadName_) - 1] = '\0';
}

void useThreadLocalSingletons() {
   KORVO_ASSERT(threadLocalSingletons_ || !threadLocalSingletonsLocked_,
                "Attempt to change threadLocalSingletons after a global singleton has already "
                "been created. Please call useThreadLocalSingletons immediately after spawning "
                "your thread");
   threadLocalSingletons_ = true;
}

bool hasThreadLocalSingletons() {
   threadLocalSingletonsLocked_ = true;
   return threadLocalSingletons_;
}

void threadSafePointerIs(bool) {}

namespace Platform {

void refCountingEnabledIs(bool) {
   KORVO_FAIL("Korvo::Platform::refCountingEnabledIs() not available in libKorvo.so");
}

bool refCountingEnabled() {
   KORVO_FAIL("Korvo::Platform::refCountingEnabled() not available in libKorvo.so");
   return false;
}

}  // namespace Platform
}  // namespace Korvo
