#define KORVO_SOURCE_FILE "LockingCpp"
#include "Korvo/Locking.h"

#include "Korvo/Debug.h"
#include "Korvo/Exception.h"

#include <atomic>
#include <system_error>
#include <thread>

namespace Korvo::Locking {
namespace {

// A pthread_t of 0 is what an unowned lock records; std::thread::id prints it as
// "thread::id of a non-executing thread", which is what we want in messages.
std::thread::id threadId(pthread_t t) {
   return std::thread::id(t);
}

}  // namespace

namespace Impl {

OwnedMutex::OwnedMutex(int kind) : owner_(0) {
   pthread_mutexattr_t attr;
   pthread_mutexattr_init(&attr);
   pthread_mutexattr_settype(&attr, kind);
   pthread_mutex_init(&mutex_, &attr);
   pthread_mutexattr_destroy(&attr);
}

OwnedMutex::~OwnedMutex() {
   pthread_mutex_destroy(&mutex_);
}

// owns_lock() reads the owner without holding the mutex, hence atomic accesses;
// relaxed is enough, as a thread can only ever find its own id there if it wrote it
// itself.
pthread_t OwnedMutex::owner() const {
   return std::atomic_ref<pthread_t>(const_cast<pthread_t&>(owner_))
       .load(std::memory_order_relaxed);
}

void OwnedMutex::lock() {
   const int rc = pthread_mutex_lock(&mutex_);
   if (rc != 0) {
      throw std::system_error(rc, std::generic_category());
   }
   std::atomic_ref<pthread_t>(owner_).store(pthread_self(), std::memory_order_relaxed);
}

bool OwnedMutex::try_lock() {
   if (pthread_mutex_trylock(&mutex_) != 0) {
      return false;
   }
   std::atomic_ref<pthread_t>(owner_).store(pthread_self(), std::memory_order_relaxed);
   return true;
}

bool OwnedMutex::owns_lock() const {
   return pthread_equal(owner(), pthread_self()) != 0;
}

void OwnedMutex::release(bool clearOwner) {
   // Cleared before the release, so no thread can see itself as owner of a lock
   // it no longer holds.
   if (clearOwner) {
      std::atomic_ref<pthread_t>(owner_).store(0, std::memory_order_relaxed);
   }
   pthread_mutex_unlock(&mutex_);
}

}  // namespace Impl

Lock::Lock() : OwnedMutex(PTHREAD_MUTEX_DEFAULT) {}

void Lock::unlock() {
   KORVO_ASSERT(owns_lock(),
                "Korvo::Locking::Lock::unlock() attempting to release a lock that is not "
                "currently held, owner:"
                    << threadId(owner()) << " me:" << threadId(pthread_self()));
   release(true);
}

RecursiveLock::RecursiveLock() : OwnedMutex(PTHREAD_MUTEX_RECURSIVE) {}

// glibc keeps the recursion depth of a recursive mutex in the mutex itself; we
// read it rather than keeping a second count that could disagree.
unsigned RecursiveLock::lockCount() const {
   return mutex_.__data.__count;
}

void RecursiveLock::unlock() {
   const unsigned count = lockCount();
   KORVO_ASSERT(owns_lock() && count != 0,
                "Korvo::Locking::RecursiveLock::unlock() attempting to release a lock that is "
                "not currently held, owner:"
                    << threadId(owner()) << " me:" << threadId(pthread_self())
                    << " lockCount:" << count);
   release(count == 1);
}

ConditionalGuard::ConditionalGuard(Lock& lock) : lock_(lock), release_(true) {
   lock_.lock();
}

ConditionalGuard::~ConditionalGuard() {
   if (release_ && lock_.owns_lock()) {
      lock_.unlock();
   }
}

}  // namespace Korvo::Locking
