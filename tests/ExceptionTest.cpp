#include <Korvo/Backtrace.h>
#include <Korvo/Exception.h>

#include <gtest/gtest.h>

#include <csignal>
#include <functional>
#include <stdexcept>

#include "TestSupport.h"

namespace {

TEST(ExceptionTest, MessagesNamesAndBacktraces) {
   Korvo::RuntimeException e("x");
   EXPECT_EQ(e.msg(), "Korvo::RuntimeException(\"x\")");
   EXPECT_EQ(std::string(e.what()).rfind("Korvo::RuntimeException(\"x\")\nBacktrace:\n", 0), 0u);
   EXPECT_EQ(e.what(), e.what()) << "what() is built once and kept";
   try {
      Korvo::InvalidSizeException::throwException("size");
   } catch (const Korvo::CorruptionDetectedException& caught) {
      EXPECT_STREQ(caught.name(), "Korvo::InvalidSizeException");
   }
   EXPECT_STREQ(Korvo::Exception("", false).name(), "Korvo::Exception");
   EXPECT_EQ(Korvo::Backtrace(false).pretty(), "No backtrace available\n");

   // A deep stack keeps its innermost frames only.
   std::function<Korvo::Backtrace(int)> recurse = [&](int depth) -> Korvo::Backtrace {
      if (depth == 0)
         return Korvo::Backtrace(true);
      Korvo::Backtrace b = recurse(depth - 1);
      asm volatile("" ::: "memory");  // keeps the frames from being folded away
      return b;
   };
   EXPECT_EQ(recurse(150).frames(), Korvo::Backtrace::maxFrames);

   EXPECT_EQ(Korvo::typeName(typeid(std::runtime_error).name()), "std::runtime_error");
   EXPECT_EQ(Korvo::typeName("not a mangled name !"),
             "Korvo::typeName() unable to demangle type not a mangled name ! status:-2");
}

TEST(ExceptionTest, AnAssertionNamesSourceFunctionAndLine) {
   const std::string text =
       KorvoTest::assertionText([] { KORVO_ASSERT_IN("WidgetCpp", 1 + 1 == 3, "sum: " << 2); });
   EXPECT_EQ(text.rfind("WidgetCpp:operator():", 0), 0u) << text;
   EXPECT_NE(text.find(": sum: 2"), std::string::npos) << text;
   Korvo::Platform::DebugStream s;
   s << "plain";
   EXPECT_EQ(KorvoTest::assertionText(
                 [&] { Korvo::debugAndThrowAssertException(nullptr, 0, s, nullptr, nullptr, 7); }),
             "::7: plain");
}

TEST(ExceptionDeathTest, AssertionsAndUncaughtExceptionsAbortWithTheirStory) {
   auto env = KorvoTest::baseEnvironment();
   auto r = KorvoTest::runProgram(TRACE_CHILD, {"assert"}, env);
   EXPECT_EQ(r.signal, SIGABRT);
   EXPECT_NE(r.err.find("Korvo::Assert aborting because: "), std::string::npos) << r.err;
   EXPECT_NE(r.err.find(": bad thing 42"), std::string::npos) << r.err;
   r = KorvoTest::runProgram(TRACE_CHILD, {"throw"}, env);
   EXPECT_EQ(r.signal, SIGABRT);
   EXPECT_NE(r.err.find("terminate called after throwing an instance of 'std::runtime_error'\n"
                        "  what(): boom\nBacktrace:\n"),
             std::string::npos)
       << r.err;
   env.push_back("KORVO_BACKTRACE_VERBOSITY=0");
   r = KorvoTest::runProgram(TRACE_CHILD, {"throw"}, env);
   EXPECT_EQ(r.err.find("Backtrace:"), std::string::npos) << r.err;
}

}  // namespace
