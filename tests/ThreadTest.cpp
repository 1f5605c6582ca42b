#include <Korvo/Thread.h>

#include <gtest/gtest.h>

#include <thread>

#include "TestSupport.h"

using KorvoTest::assertionText;

TEST(ThreadTest, NamesSingletonsAndWhatIsNotOffered) {
   const std::string name = Korvo::threadName();
   Korvo::threadNameIs("renamed");
   EXPECT_EQ(Korvo::threadName(), name) << "the main thread keeps the process's name";
   std::thread([] {
      EXPECT_FALSE(Korvo::isMainThread());
      Korvo::threadNameIs("fifteen-chars-x");
      EXPECT_NE(assertionText([] { Korvo::threadNameIs("sixteen-chars-xx"); })
                    .find("Korvo::threadNameIs() pthread_setname_np() failed:34 for "
                          "name:sixteen-chars-xx"),
                std::string::npos);
      EXPECT_STREQ(Korvo::threadName(), "fifteen-chars-x");
      Korvo::useThreadLocalSingletons();
      EXPECT_TRUE(Korvo::hasThreadLocalSingletons());
   }).join();
   EXPECT_FALSE(Korvo::hasThreadLocalSingletons());
   EXPECT_NE(assertionText([] { Korvo::useThreadLocalSingletons(); })
                 .find("Attempt to change threadLocalSingletons after a global singleton has "
                       "already been created. Please call useThreadLocalSingletons immediately "
                       "after spawning your thread"),
             std::string::npos);
   EXPECT_NE(assertionText([] { Korvo::Platform::refCountingEnabledIs(true); }) +
                 assertionText([] { Korvo::Platform::refCountingEnabled(); }),
             "");
}

TEST(ThreadDeathTest, ForkedChildrenAndIncompatibleLibraries) {
   ASSERT_TRUE(Korvo::gettid() == ::getpid() && !Korvo::Platform::isForkedChild());  // cached
   // The forking thread is the child's main thread, under the child's id.
   EXPECT_EXIT(::_exit(Korvo::Platform::isForkedChild() && Korvo::isMainThread() ? 0 : 1),
               ::testing::ExitedWithCode(0), "");
   EXPECT_DEATH((Korvo::platformLibPresenceFlag = 3, Korvo::checkIncompat()),
                "a library incompatible with Korvo has been loaded");
}
