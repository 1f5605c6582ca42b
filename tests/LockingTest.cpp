#include <Korvo/Locking.h>

#include <gtest/gtest.h>

#include <sstream>
#include <thread>

#include "TestSupport.h"

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
   Korvo::Locking::ConditionalGuard guard(lock);
   std::thread([&] {
      const std::string text = KorvoTest::assertionText([&] { lock.unlock(); });
      EXPECT_NE(text.find("owner:" + me + " me:" + idText(std::this_thread::get_id())),
                std::string::npos);
      EXPECT_FALSE(lock.try_lock());
   }).join();
   guard.releaseIs(false);  // the caller takes the lock on
   lock.unlock();
   EXPECT_TRUE(lock.try_lock());
   lock.unlock();
}
