#include <Korvo/Exception.h>
#include <Korvo/Thread.h>

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <thread>

namespace {

class ThreadTest : public ::testing::Test {
protected:
   void SetUp() override { Korvo::throwOnAssertFailIs(true); }
   void TearDown() override { Korvo::throwOnAssertFailIs(false); }
};

TEST_F(ThreadTest, MainThreadAndNames) {
   EXPECT_TRUE(Korvo::isMainThread());
   EXPECT_EQ(Korvo::gettid(), ::getpid());
   const std::string before = Korvo::threadName();
   Korvo::threadNameIs("renamed");
   EXPECT_EQ(before, Korvo::threadName()) << "the main thread keeps the process's name";

   std::thread([] {
      EXPECT_FALSE(Korvo::isMainThread());
      Korvo::threadNameIs("fifteen-chars-x");
      EXPECT_STREQ(Korvo::threadName(), "fifteen-chars-x");
      try {
         Korvo::threadNameIs("sixteen-chars-xx");
         ADD_FAILURE() << "a 16-character name was accepted";
      } catch (const Korvo::AssertException& e) {
         EXPECT_NE(e.message().find("Korvo::threadNameIs() pthread_setname_np() failed:34 for "
                                    "name:sixteen-chars-xx"),
                   std::string::npos)
             << e.message();
      }
      EXPECT_STREQ(Korvo::threadName(), "fifteen-chars-x");
   }).join();
}

TEST_F(ThreadTest, SingletonChoiceIsSettledByTheFirstLookup) {
   std::thread([] {
      Korvo::useThreadLocalSingletons();
      Korvo::useThreadLocalSingletons();
      EXPECT_TRUE(Korvo::hasThreadLocalSingletons());
      Korvo::useThreadLocalSingletons();  // harmless once switched
   }).join();
   std::thread([] {
      EXPECT_FALSE(Korvo::hasThreadLocalSingletons());
      try {
         Korvo::useThreadLocalSingletons();
         ADD_FAILURE() << "switch accepted after a lookup";
      } catch (const Korvo::AssertException& e) {
         EXPECT_NE(e.message().find("Attempt to change threadLocalSingletons after a global "
                                    "singleton has already been created. Please call "
                                    "useThreadLocalSingletons immediately after spawning your "
                                    "thread"),
                   std::string::npos);
      }
   }).join();
}

TEST_F(ThreadTest, ForkedChildKnowsItIsOne) {
   EXPECT_FALSE(Korvo::Platform::isForkedChild());
   ASSERT_EQ(Korvo::gettid(), ::getpid());  // cached in the parent before the fork
   const pid_t pid = ::fork();
   if (pid == 0) {
      // The forking thread is the child's main thread, under the child's id.
      const bool ok = Korvo::Platform::isForkedChild() && Korvo::gettid() == ::getpid() &&
                      Korvo::isMainThread();
      ::_exit(ok ? 0 : 1);
   }
   int status = 0;
   ::waitpid(pid, &status, 0);
   EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
   EXPECT_FALSE(Korvo::Platform::isForkedChild());
}

TEST_F(ThreadTest, RefCountingIsNotOffered) {
   EXPECT_THROW(Korvo::Platform::refCountingEnabledIs(true), Korvo::AssertException);
   EXPECT_THROW(Korvo::Platform::refCountingEnabled(), Korvo::AssertException);
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
