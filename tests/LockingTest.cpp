#include <Korvo/Exception.h>
#include <Korvo/Locking.h>

#include <gtest/gtest.h>

#include <sstream>
#include <thread>

namespace {

class LockingTest : public ::testing::Test {
protected:
   void SetUp() override { Korvo::throwOnAssertFailIs(true); }
   void TearDown() override { Korvo::throwOnAssertFailIs(false); }
};

std::string idText(std::thread::id id) {
   std::ostringstream os;
   os << id;
   return os.str();
}

TEST_F(LockingTest, UnlockByNonOwnerNamesBothThreads) {
   Korvo::Locking::Lock lock;
   try {
      lock.unlock();
      FAIL();
   } catch (const Korvo::AssertException& e) {
      EXPECT_NE(e.message().find("Korvo::Locking::Lock::unlock() attempting to release a lock "
                                 "that is not currently held, owner:thread::id of a "
                                 "non-executing thread me:" +
                                 idText(std::this_thread::get_id())),
                std::string::npos)
          << e.message();
   }
   lock.lock();
   std::string message;
   std::thread other([&] {
      try {
         lock.unlock();
      } catch (const Korvo::AssertException& e) {
         message = e.message();
      }
   });
   const std::string otherId = idText(other.get_id());
   other.join();
   EXPECT_NE(message.find("owner:" + idText(std::this_thread::get_id()) + " me:" + otherId),
             std::string::npos)
       << message;
   EXPECT_TRUE(lock.owns_lock());
   lock.unlock();
   EXPECT_FALSE(lock.owns_lock());
   EXPECT_TRUE(lock.try_lock());
   lock.unlock();
}

TEST_F(LockingTest, RecursiveLockCountsLevels) {
   Korvo::Locking::RecursiveLock lock;
   lock.lock();
   lock.lock();
   EXPECT_EQ(lock.lockCount(), 2u);
   lock.unlock();
   EXPECT_TRUE(lock.owns_lock());
   lock.unlock();
   EXPECT_FALSE(lock.owns_lock());
   try {
      lock.unlock();
      FAIL();
   } catch (const Korvo::AssertException& e) {
      EXPECT_NE(e.message().find("Korvo::Locking::RecursiveLock::unlock() attempting to release "
                                 "a lock that is not currently held, owner:"),
                std::string::npos);
      EXPECT_NE(e.message().find(" lockCount:0"), std::string::npos) << e.message();
   }
}

TEST_F(LockingTest, ConditionalGuardCanHandTheLockOn) {
   Korvo::Locking::Lock lock;
   { Korvo::Locking::ConditionalGuard guard(lock); }
   EXPECT_FALSE(lock.owns_lock());
   {
      Korvo::Locking::ConditionalGuard guard(lock);
      guard.releaseIs(false);
   }
   EXPECT_TRUE(lock.owns_lock());
   lock.unlock();
}

TEST_F(LockingTest, LibraryLockIsOneRecursiveObject) {
   Korvo::Platform::Loco* mine = &Korvo::Platform::loco();
   Korvo::Platform::Loco* theirs = nullptr;
   std::thread([&] { theirs = &Korvo::Platform::loco(); }).join();
   EXPECT_EQ(mine, theirs);
   {
      Korvo::Platform::LocoGuard outer;
      Korvo::Platform::LocoGuard inner;
      EXPECT_TRUE(mine->owns_lock());
      bool otherOwns = true;
      std::thread([&] { otherOwns = Korvo::Platform::loco().owns_lock(); }).join();
      EXPECT_FALSE(otherOwns);
   }
   EXPECT_FALSE(mine->owns_lock());
}

}  // namespace
