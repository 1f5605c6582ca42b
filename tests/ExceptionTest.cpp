#include <Korvo/Exception.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <thread>

#include "TestSupport.h"

TEST(ExceptionTest, MessagesNamesBacktracesAndAssertions) {
   try {
      Korvo::InvalidSizeException::throwException("size");
   } catch (const Korvo::CorruptionDetectedException& e) {
      EXPECT_EQ(e.msg(), "Korvo::InvalidSizeException(\"size\")");
      EXPECT_EQ(std::string(e.what()).rfind(e.msg() + "\nBacktrace:\n", 0), 0u);
      EXPECT_EQ(e.what(), e.what()) << "what() is built once and kept";
   }
   EXPECT_EQ(Korvo::Exception("", false).backtrace().pretty(), "No backtrace available\n");
   EXPECT_EQ(
       std::string(Korvo::Exception("", false).name()) + Korvo::OutOfRangeException("").name(),
       "Korvo::ExceptionKorvo::OutOfRangeException");
   EXPECT_EQ(Korvo::typeName(typeid(std::runtime_error).name()), "std::runtime_error");
   EXPECT_EQ(Korvo::typeName("not a mangled name !"),
             "Korvo::typeName() unable to demangle type not a mangled name ! status:-2");

   EXPECT_THAT(KorvoTest::assertionText([] { KORVO_ASSERT_IN("Widget", 1 + 1 == 3, "sum " << 2); }),
               ::testing::MatchesRegex("Widget:operator\\(\\):[0-9]+: sum 2"));
}

TEST(ExceptionDeathTest, AssertionsAndUncaughtExceptionsAbortWithTheirStory) {
   EXPECT_DEATH(KORVO_FAIL("bad thing " << 42), "Korvo::Assert aborting because: .*: bad thing 42");
   EXPECT_DEATH(std::thread([] { throw std::runtime_error("boom"); }).join(),
                "terminate called after throwing an instance of 'std::runtime_error'\n"
                "  what\\(\\): boom\nBacktrace:\n");
   // The verbosity is read at load: a fresh process.
   auto env = KorvoTest::baseEnvironment();
   env.push_back("KORVO_BACKTRACE_VERBOSITY=0");
   const auto r = KorvoTest::runProgram(TRACE_CHILD, {"throw"}, env);
   EXPECT_EQ(r.signal, SIGABRT);
   EXPECT_EQ(r.err.find("Backtrace:"), std::string::npos) << r.err;
}
