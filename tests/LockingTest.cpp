#include <Korvo/Locking.h>

#include <gtest/gtest.h>

#include <sstream>
#include <thread>

#include "TestSupport.h"

namespace {

std::string idText(std::thread::id id) {
   std::ostringstream os;
   os << id;
   return os.str();
}

TEST(LockingTest, UnlockByANonOwnerNamesBothThreads) {
   const std::string me = idText(std::this_thread::get_id());
   Korvo::Locking::Lock lock;
   EXPECT_NE(KorvoTest::assertionText([&] { lock.unlock(); })
                 .find("Korvo::Locking::Lock::unlock() attempting to release a lock that is not "
                       "currently held, owner:thread::id of a non-executing thread me:" +
                       me),
             std::string::npos);
   std::string message, other;
   {
      Korvo::Locking::ConditionalGuard guard(lock);
      std::thread([&] {
         message = KorvoTest::assertionText([&] { lock.unlock(); });
         other = idText(std::this_thread::get_id());
         EXPECT_FALSE(lock.try_lock());
      }).join();
      guard.releaseIs(false);  // the guard hands the lock on instead of releasing it
   }
   EXPECT_NE(message.find("owner:" + me + " me:" + other), std::string::npos) << message;
   EXPECT_TRUE(lock.owns_lock());
   lock.unlock();
   { Korvo::Locking::ConditionalGuard released(lock); }
   EXPECT_FALSE(lock.owns_lock());
}

TEST(LockingTest, RecursiveLockCountsLevels) {
   Korvo::Locking::RecursiveLock lock;
   lock.lock();
   ASSERT_TRUE(lock.try_lock());
   EXPECT_EQ(lock.lockCount(), 2u);
   lock.unlock();
   EXPECT_TRUE(lock.owns_lock());
   lock.unlock();
   EXPECT_FALSE(lock.owns_lock());
   const std::string text = KorvoTest::assertionText([&] { lock.unlock(); });
   EXPECT_NE(text.find("Korvo::Locking::RecursiveLock::unlock() attempting to release a lock that "
                       "is not currently held, owner:"),
             std::string::npos);
   EXPECT_NE(text.find(" lockCount:0"), std::string::npos) << text;
}

TEST(LockingTest, TheLibraryLockIsOneRecursiveObject) {
   Korvo::Platform::Loco* theirs = nullptr;
   std::thread([&] { theirs = &Korvo::Platform::loco(); }).join();
   EXPECT_EQ(&Korvo::Platform::loco(), theirs);
   Korvo::Platform::LocoGuard outer, inner;
   EXPECT_TRUE(theirs->owns_lock());
   std::thread([&] { EXPECT_FALSE(Korvo::Platform::loco().owns_lock()); }).join();
}

}  // namespace
