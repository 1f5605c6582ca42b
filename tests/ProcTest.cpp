// Process introspection: symbols, heap-checker hooks, the default wait, magic
// numbers, /proc readers and their parsers, type names from vptrs, handler names.

#include <Korvo/Util.h>

#include <dlfcn.h>
#include <sys/prctl.h>

#include <cmath>
#include <cstring>

#include "UtilParse.h"
#include "UtilTestSupport.h"

// Found by resolveSym() through the executable's dynamic symbol table (the test
// is linked with its symbols exported).
extern "C" __attribute__((visibility("default"), noinline)) void HeapChecker_RecordClientAlloc() {
   asm volatile("");
}
extern "C" __attribute__((visibility("default"), noinline)) void HeapChecker_RecordClientFree() {
   asm volatile("");
}

using ::testing::ExitedWithCode;
namespace Util = Korvo::Util;
using ProcTest = KorvoTest::UtilFixture;
constexpr int noSuchPid = 0x7ffffff0;

TEST_F(ProcTest, ResolveSymKeepsTheLastErrorAndHeapCheckerHooksNeedHeapcheck) {
   EXPECT_EQ(Util::resolveSym(h_, "korvoNoSuchSymbolAnywhere"), nullptr);
   EXPECT_NE(std::strstr(Util::resolveSymError(), "korvoNoSuchSymbolAnywhere"), nullptr);
   EXPECT_EQ(Util::resolveSymError(), nullptr) << "the error is forgotten once read";
   ::unsetenv("HEAPCHECK");
   EXPECT_EQ(Korvo::HeapChecker::resolveAllocSym(h_), nullptr);
   ::setenv("HEAPCHECK", "", 1);
   EXPECT_EQ(Korvo::HeapChecker::resolveAllocSym(h_),
             reinterpret_cast<void*>(&HeapChecker_RecordClientAlloc));
   EXPECT_EQ(Korvo::HeapChecker::resolveFreeSym(h_),
             reinterpret_cast<void*>(&HeapChecker_RecordClientFree));
   ::unsetenv("HEAPCHECK");
}

// WAITFOR_DEFAULT is read once per process: each case runs in a fresh child that
// has not read it yet (this process never calls waitForDefaultTimeout()).
TEST_F(ProcTest, WaitForDefaultTimeoutComesFromTheEnvironmentOnce) {
   const struct {
      const char* value;  // null: unset
      double expected;
      bool complains;
   } cases[] = {{nullptr, INFINITY, false}, {"0.25s", 0.25, false}, {"1e999", INFINITY, true}};
   for (const auto& c : cases) {
      auto readTwice = [&] {
         c.value ? ::setenv("WAITFOR_DEFAULT", c.value, 1) : ::unsetenv("WAITFOR_DEFAULT");
         const double first = Korvo::waitForDefaultTimeout();
         ::setenv("WAITFOR_DEFAULT", "7", 1);
         ::_exit(first == c.expected && Korvo::waitForDefaultTimeout() == c.expected ? 0 : 1);
      };
      EXPECT_EXIT(readTwice(), ExitedWithCode(0),
                  c.complains ? "^Parsing the WAITFOR_DEFAULT env. variable failed\n$" : "^$")
          << (c.value ? c.value : "(unset)");
   }
}

TEST_F(ProcTest, ProcessFactsAndHandlerNames) {
   EXPECT_EQ(Util::decodeMagic(0x4b53544f56524f4bul), "KORVOTSK") << "bytes in memory order";
   Util::emitCanaryLog(h_, "still alive");
   auto handler = Korvo::Platform::getDebugHandler("ProcTestNamedHandler");
   const void* address = handler.get();
   EXPECT_EQ(Util::traceHandleName(address) + Util::traceHandleName(nullptr),
             "ProcTestNamedHandler");
   handler.reset();
   EXPECT_EQ(Util::traceHandleName(address).rfind("unknown handler 0x", 0), 0u)
       << "a destroyed handler is never read";
   const std::string title = Util::readProcTitle(::getpid()),
                     start = Util::readProcStartTime(::getpid());
   EXPECT_EQ(title, Util::fileRead(h_, "/proc/self/comm", true));
   EXPECT_EQ(start.find_first_not_of("0123456789"), std::string::npos) << start;
   // Names with blanks and parentheses confuse neither reader; an empty one is an error.
   ::prctl(PR_SET_NAME, "x) (y z) w", 0, 0, 0);
   EXPECT_EQ(Util::readProcStartTime(h_, ::getpid()), start);
   EXPECT_EQ(Util::readProcTitle(h_, ::getpid()), "x) (y z) w");
   ::prctl(PR_SET_NAME, "", 0, 0, 0);
   EXPECT_EQ(Util::readProcTitle(h_, ::getpid()), "");
   ::prctl(PR_SET_NAME, title.c_str(), 0, 0, 0);
   EXPECT_EQ(Util::readProcStartTime(h_, noSuchPid) + Util::readProcTitle(h_, noSuchPid, true), "");
   EXPECT_NE(Util::readPidCmdline(h_, ::getpid()).find("ProcTest"), std::string::npos);
}

// The parsers' corner cases are the fuzz harness's; here are their exact results.
TEST_F(ProcTest, ParsersOfProcTexts) {
   EXPECT_EQ(
       Util::startTimeFromStat("1 (a) b) S 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 98", ""),
       "98");
   EXPECT_NE(KorvoTest::assertionText([] { Util::startTimeFromStat("4 (x) S 1", "f"); })
                 .find("Util::readProcStartTime() Failed to parse start time from file: f line: "
                       "\"4 (x) S 1\" procStartTime.size():9 tokPos:2 startTimeFieldPos:19"),
             std::string::npos);
   std::istringstream status("State:\tS\nName:  a b \t\n");
   EXPECT_EQ(Util::titleFromStatus(status), "a b");
   EXPECT_EQ(Util::cmdlineFromText(std::string("a\0b c\0\0", 7)), "a b c");
}

TEST_F(ProcTest, TypenameFromVptrNamesLiveTypesAndRejectsGarbage) {
   const Korvo::RuntimeException runtime("x");
   EXPECT_EQ(Util::typenameFromVptr(Util::vptrOf(&runtime)), "Korvo::RuntimeException");
   EXPECT_EQ(Util::typenameFromVptr(nullptr), "Bad vptr:NULL");
   const uint64_t words[4] = {0, 0, 0x9e3779b97f4a7c15ull, 0x3c6ef372fe94f82aull};
   const char* misaligned = static_cast<const char*>(Util::vptrOf(&runtime)) + 3;
   const void* garbage[] = {&words[1], &words[3], misaligned,
                            reinterpret_cast<const void*>(&Util::decodeMagic),  // code
                            reinterpret_cast<const void*>(0x7ffffffff000ull)};  // unmapped
   for (const void* vptr : garbage)
      EXPECT_EQ(Util::typenameFromVptr(vptr).rfind("Bad vptr:0x", 0), 0u) << vptr;
}
