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

namespace Impl {
// What both lock classes are: a system mutex of one kind and the thread that holds
// it (0 when nobody does), recorded after taking the mutex and cleared before
// releasing it.
class KORVO_EXPORT OwnedMutex {
public:
   OwnedMutex(const OwnedMutex&) = delete;
   OwnedMutex& operator=(const OwnedMutex&) = delete;

   // Throws std::system_error when the mutex call fails.
   void lock();
   bool try_lock();
   bool owns_lock() const;

protected:
   explicit OwnedMutex(int kind);
   ~OwnedMutex();
   pthread_t owner() const;
   // Releases the mutex, clearing the owner first when asked.
   void release(bool clearOwner);

   pthread_mutex_t mutex_;
   pthread_t owner_;
};
}  // namespace Impl

class KORVO_EXPORT Lock : public Impl::OwnedMutex {
public:
   Lock();
   // Asserts that the calling thread holds the lock.
   void unlock();
};

class KORVO_EXPORT RecursiveLock : public Impl::OwnedMutex {
public:
   RecursiveLock();
   // Releases one level; the owner is cleared when the outermost level goes.
   void unlock();
   // The mutex's own recursion count (the class keeps no counter of its own).
   unsigned lockCount() const;
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
