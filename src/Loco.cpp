#include "Korvo/Locking.h"

namespace Korvo {

class Loco final : public Platform::Loco {
public:
   void lock() override { lock_.lock(); }
   void unlock() override { lock_.unlock(); }
   bool owns_lock() const override { return lock_.owns_lock(); }

private:
   Locking::RecursiveLock lock_;
};

namespace Platform {

Loco& loco() {
   // Never destroyed: tracing and plug-in registration may run during exit,
   // after function-local statics would have been torn down.
   static Loco* const instance = new Korvo::Loco();
   return *instance;
}

LocoGuard::LocoGuard() : loco_(loco()) {
   loco_.lock();
}

LocoGuard::~LocoGuard() {
   loco_.unlock();
}

}  // namespace Platform
}  // namespace Korvo
