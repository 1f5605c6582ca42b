#include <Korvo/Thread.h>

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <thread>

#include "TestSupport.h"

namespace {

using KorvoTest::assertionText;

TEST(ThreadTest, NamesAndTheMainThread) {
   EXPECT_TRUE(Korvo::isMainThread());
   const std::string before = Korvo::threadName();
   Korvo::threadNameIs("renamed");
   EXPECT_EQ(before, Korvo::threadName()) << "the main thread keeps the process's name";
   std::thread([] {
      EXPECT_FALSE(Korvo::isMainThread());
      Korvo::threadNameIs("fifteen-chars-x");
      EXPECT_NE(assertionText([] { Korvo::threadNameIs("sixteen-chars-xx"); })
                    .find("Korvo::threadNameIs() pthread_setname_np() failed:34 for "
                          "name:sixteen-chars-xx"),
                std::string::npos);
      EXPECT_STREQ(Korvo::threadName(), "fifteen-chars-x");
   }).join();
   for (auto call : {+[] { Korvo::Platform::refCountingEnabledIs(true); },
                     +[] { Korvo::Platform::refCountingEnabled(); }})
      EXPECT_NE(assertionText(call).find("not available in libKorvo.so"), std::string::npos);
}

TEST(ThreadTest, SingletonChoiceIsSettledByTheFirstLookup) {
   std::thread([] {
      Korvo::useThreadLocalSingletons();
      EXPECT_TRUE(Korvo::hasThreadLocalSingletons());
      Korvo::useThreadLocalSingletons();  // harmless once switched
   }).join();
   std::thread([] {
      EXPECT_FALSE(Korvo::hasThreadLocalSingletons());
      EXPECT_NE(assertionText([] { Korvo::useThreadLocalSingletons(); })
                    .find("Attempt to change threadLocalSingletons after a global singleton has "
                          "already been created. Please call useThreadLocalSingletons "
                          "immediately after spawning your thread"),
                std::string::npos);
   }).join();
}

TEST(ThreadTest, AForkedChildKnowsItIsOne) {
   EXPECT_FALSE(Korvo::Platform::isForkedChild());
   ASSERT_EQ(Korvo::gettid(), ::getpid());  // cached in the parent before the fork
   const pid_t pid = ::fork();
   if (pid == 0) {
      // The forking thread is the child's main thread, under the child's id.
      ::_exit(Korvo::Platform::isForkedChild() && Korvo::isMainThread() ? 0 : 1);
   }
   int status = 0;
   ::waitpid(pid, &status, 0);
   EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

TEST(ThreadDeathTest, IncompatibleLibraryIsFatal) {
   GTEST_FLAG_SET(death_test_style, "threadsafe");
   EXPECT_DEATH(
       {
          Korvo::platformLibPresenceFlag = 3;
          Korvo::checkIncompat();
       },
       "a library incompatible with Korvo has been loaded");
}

}  // namespace
