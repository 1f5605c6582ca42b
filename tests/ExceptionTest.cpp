#include <Korvo/Backtrace.h>
#include <Korvo/Debug.h>
#include <Korvo/Exception.h>

#include <gtest/gtest.h>

#include <csignal>
#include <functional>
#include <stdexcept>

#include "TestSupport.h"

namespace {

class ExceptionTest : public ::testing::Test {
protected:
   void SetUp() override { Korvo::throwOnAssertFailIs(true); }
   void TearDown() override { Korvo::throwOnAssertFailIs(false); }
};

TEST_F(ExceptionTest, MessageWhatAndHierarchy) {
   Korvo::RuntimeException e("x");
   EXPECT_EQ(e.msg(), "Korvo::RuntimeException(\"x\")");
   const std::string what = e.what();
   EXPECT_EQ(what.rfind("Korvo::RuntimeException(\"x\")\nBacktrace:\n", 0), 0u) << what;
   EXPECT_EQ(e.what(), e.what()) << "what() is built once and kept";
   EXPECT_GT(e.backtrace().frames(), 0u);

   EXPECT_THROW(Korvo::InvalidSizeException::throwException("size"),
                Korvo::CorruptionDetectedException);
   try {
      Korvo::InvalidSizeException::throwException("size");
   } catch (const Korvo::Exception& caught) {
      EXPECT_STREQ(caught.name(), "Korvo::InvalidSizeException");
   }
   EXPECT_STREQ(Korvo::NoPermissionException("").name(), "Korvo::NoPermissionException");
   EXPECT_STREQ(Korvo::OutOfRangeException("").name(), "Korvo::OutOfRangeException");
   EXPECT_STREQ(Korvo::Exception("", false).name(), "Korvo::Exception");
   EXPECT_EQ(Korvo::Exception("", false).backtrace().frames(), 0u);
}

TEST_F(ExceptionTest, AssertionThrowsWithSourceFunctionAndLine) {
   try {
      KORVO_ASSERT_IN("WidgetCpp", 1 + 1 == 3, "sum: " << 2);
      FAIL() << "no throw";
   } catch (const Korvo::AssertException& e) {
      const std::string text = e.message();
      EXPECT_EQ(text.rfind("WidgetCpp:TestBody:", 0), 0u) << text;
      EXPECT_NE(text.find(": sum: 2"), std::string::npos) << text;
   }
   Korvo::Platform::DebugStream s;
   s << "plain";
   try {
      Korvo::debugAndThrowAssertException(nullptr, 0, s, nullptr, nullptr, 7);
   } catch (const Korvo::AssertException& e) {
      EXPECT_EQ(e.message(), "::7: plain");
   }
}

TEST_F(ExceptionTest, TypeNameDemanglesOrExplains) {
   EXPECT_EQ(Korvo::typeName(typeid(std::runtime_error).name()), "std::runtime_error");
   EXPECT_EQ(Korvo::typeName("not a mangled name !"),
             "Korvo::typeName() unable to demangle type not a mangled name ! status:-2");
}

TEST_F(ExceptionTest, BacktraceKeepsTheInnermostHundredFrames) {
   std::function<Korvo::Backtrace(int)> recurse = [&](int depth) -> Korvo::Backtrace {
      if (depth == 0)
         return Korvo::Backtrace(true);
      Korvo::Backtrace b = recurse(depth - 1);
      asm volatile("" ::: "memory");  // keep the frames from being folded away
      return b;
   };
   const Korvo::Backtrace deep = recurse(150);
   EXPECT_EQ(deep.frames(), Korvo::Backtrace::maxFrames);
   EXPECT_EQ(Korvo::Backtrace(false).pretty(), "No backtrace available\n");
}

TEST(ExceptionDeathTest, DefaultAssertionAbortsWithReason) {
   const auto r = KorvoTest::runProgram(TRACE_CHILD, {"assert"}, KorvoTest::baseEnvironment());
   EXPECT_EQ(r.signal, SIGABRT);
   EXPECT_NE(r.err.find("Korvo::Assert aborting because: "), std::string::npos) << r.err;
   EXPECT_NE(r.err.find(": bad thing 42"), std::string::npos) << r.err;
}

TEST(ExceptionDeathTest, TerminateHandlerPrintsTypeWhatAndStack) {
   auto env = KorvoTest::baseEnvironment();
   auto r = KorvoTest::runProgram(TRACE_CHILD, {"throw"}, env);
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
