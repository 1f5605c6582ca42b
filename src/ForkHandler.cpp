#include "Korvo/Exception.h"
#include "Korvo/Thread.h"

#include "SystemAssert.h"

#include <pthread.h>

#include <cerrno>
#include <cstring>
#include <iostream>

namespace Korvo::Impl {
void forgetCachedTid();
}

namespace Korvo::Platform {
namespace {

// Written only in the child, right after fork(), while it is single-threaded.
bool forkedChild_ = false;

}  // namespace

void handleFork() {
   forkedChild_ = true;
   // The forking thread goes on in the child under the child's own id: a cached id
   // would make isMainThread() false and put the parent's tid on every trace line.
   Impl::forgetCachedTid();
}

bool isForkedChild() {
   return forkedChild_;
}

void forkedChildIs(bool child) {
   forkedChild_ = child;
}

void setupHandler() {
   if (pthread_atfork(nullptr, nullptr, handleFork) != 0) {
      // errno, not the call's result, is what is reported: kept on purpose.
      std::cerr << "Korvo failed to register atfork handler, reason: " << std::strerror(errno)
                << std::endl;
      KORVO_SYSTEM_ASSERT(false && "Failed to register Korvo atfork handler");
   }
}

namespace {
__attribute__((constructor(102))) void registerForkHandlerAtLoad() {
   setupHandler();
}
}  // namespace

}  // namespace Korvo::Platform
