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

void initMutex(pthread_mutex_t& mutex, int kind) {
   pthread_mutexattr_t attr;
   pthread_mutexattr_init(&attr);
   pthread_mutexattr_settype(&attr, kind);
   pthread_mutex_init(&mutex, &attr);
   pthread_mutexattr_destroy(&attr);
}

// Both lock classes record the owner after taking the mutex and clear it
// before releasing it. owns_lock() reads the owner without holding the mutex,
// hence atomic accesses; relaxed is enough, as a thread can only ever find its own
// id there if it wrote it itself.
pthread_t ownerOf(const pthread_t& owner) {
   return std::atomic_ref<pthread_t>(const_cast<pthread_t&>(owner)).load(std::memory_order_relaxed);
}

void ownerIs(pthread_t& owner, pthread_t thread) {
   std::atomic_ref<pthread_t>(owner).store(thread, std::memory_order_relaxed);
}

void lockRecordingOwner(pthread_mutex_t& mutex, pthread_t& owner) {
   const int rc = pthread_mutex_lock(&mutex);
   if (rc != 0) {
      throw std::system_error(rc, std::generic_category());
   }
   ownerIs(owner, pthread_self());
}

bool tryLockRecordingOwner(pthread_mutex_t& mutex, pthread_t& owner) {
   if (pthread_mutex_trylock(&mutex) != 0) {
      return false;
   }
   ownerIs(owner, pthread_self());
   return true;
}

}  // namespace

Lock::Lock() : owner_(0) {
   initMutex(mutex_, PTHREAD_MUTEX_DEFAULT);
}

Lock::~Lock() {
   pthread_mutex_destroy(&mutex_);
}

void Lock::lock() {
   lockRecordingOwner(mutex_, owner_);
}

bool Lock::try_lock() {
   return tryLockRecordingOwner(mutex_, owner_);
}

bool Lock::owns_lock() const {
   return pthread_equal(ownerOf(owner_), pthread_self()) != 0;
}

void Lock::unlock() {
   KORVO_ASSERT(owns_lock(),
                "Korvo::Locking::Lock::unlock() attempting to release a lock that is not "
                "currently held, owner:"
                    << threadId(ownerOf(owner_)) << " me:" << threadId(pthread_self()));
   // Cleared before the release, so no thread can see itself as owner of a lock
   // it no longer holds.
   ownerIs(owner_, 0);
   pthread_mutex_unlock(&mutex_);
}

RecursiveLock::RecursiveLock() : owner_(0) {
   initMutex(mutex_, PTHREAD_MUTEX_RECURSIVE);
}

RecursiveLock::~RecursiveLock() {
   pthread_mutex_destroy(&mutex_);
}

void RecursiveLock::lock() {
   lockRecordingOwner(mutex_, owner_);
}

bool RecursiveLock::try_lock() {
   return tryLockRecordingOwner(mutex_, owner_);
}

bool RecursiveLock::owns_lock() const {
   return pthread_equal(ownerOf(owner_), pthread_self()) != 0;
}

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
                    << threadId(ownerOf(owner_)) << " me:" << threadId(pthread_self())
                    << " lockCount:" << count);
   if (count == 1) {
      ownerIs(owner_, 0);
   }
   pthread_mutex_unlock(&mutex_);
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
