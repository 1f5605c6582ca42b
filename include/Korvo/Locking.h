#ifndef KORVO_LOCKING_H
#define KORVO_LOCKING_H

// Locks that know their owner, so that releasing a lock one does not hold is an
// assertion failure naming both threads instead of undefined behaviour, and the
// recursive library lock loco() that guards the process-wide registries (tracing,
// plug-ins). None of these are used on the event path.

#include <Korvo/Export.h>

#include <pthread.h>

namespace Korvo {
namespace Locking {

class KORVO_EXPORT Lock {
public:
   Lock();
   ~Lock();
   Lock(const Lock&) = delete;
   Lock& operator=(const Lock&) = delete;

   // Throws std::system_error when the mutex call fails.
   void lock();
   bool try_lock();
   // Asserts that the calling thread holds the lock.
   void unlock();
   bool owns_lock() const;

private:
   pthread_mutex_t mutex_;
   pthread_t owner_;
};

class KORVO_EXPORT RecursiveLock {
public:
   RecursiveLock();
   ~RecursiveLock();
   RecursiveLock(const RecursiveLock&) = delete;
   RecursiveLock& operator=(const RecursiveLock&) = delete;

   void lock();
   bool try_lock();
   // Releases one level; the owner is cleared when the outermost level goes.
   void unlock();
   bool owns_lock() const;
   // The mutex's own recursion count (the class keeps no counter of its own).
   unsigned lockCount() const;

private:
   pthread_mutex_t mutex_;
   pthread_t owner_;
};

// Locks on construction; unlocks on destruction unless releaseIs(false) handed
// the held lock on to a longer-lived owner.
class KORVO_EXPORT ConditionalGuard {
public:
   explicit ConditionalGuard(Lock& lock);
   ~ConditionalGuard();
   ConditionalGuard(const ConditionalGuard&) = delete;
   ConditionalGuard& operator=(const ConditionalGuard&) = delete;

   void releaseIs(bool release) { release_ = release; }
   bool release() const { return release_; }

private:
   Lock& lock_;
   bool release_;
};

}  // namespace Locking

namespace Platform {

// The library lock: recursive, process-wide, made on first use and never
// destroyed, so code running during exit can still take it.
class KORVO_EXPORT Loco {
public:
   virtual void lock() = 0;
   virtual void unlock() = 0;
   virtual bool owns_lock() const = 0;
   virtual ~Loco() = default;
};

KORVO_EXPORT Loco& loco();

class KORVO_EXPORT LocoGuard {
public:
   LocoGuard();
   ~LocoGuard();
   LocoGuard(const LocoGuard&) = delete;
   LocoGuard& operator=(const LocoGuard&) = delete;

private:
   Loco& loco_;
};

}  // namespace Platform
}  // namespace Korvo

#endif
