// Process introspection: symbols, heap-checker hooks, the default wait, magic
// numbers, canary lines, /proc readers and their parsers, type names from vptrs,
// handler names and the core dump filter.

#include <Korvo/Debug.h>
#include <Korvo/Thread.h>
#include <Korvo/Util.h>

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <limits>
#include <sstream>

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

namespace {

using KorvoTest::CaptureHandler;
using KorvoTest::runInChild;
namespace Util = Korvo::Util;

constexpr int noSuchPid = 0x7ffffff0;

// What the child writes to `fd` on its way out, read back by the parent.
class ChildReport {
public:
   ChildReport() { EXPECT_EQ(::pipe2(fds_, O_CLOEXEC), 0); }
   ~ChildReport() {
      ::close(fds_[0]);
      ::close(fds_[1]);
   }
   // In the child.
   void send(const std::string& text) const {
      EXPECT_EQ(::write(fds_[1], text.data(), text.size()), static_cast<ssize_t>(text.size()));
   }
   // In the parent, after the child exited.
   std::string receive() {
      ::close(fds_[1]);
      fds_[1] = -1;
      std::string text;
      char buffer[4096];
      ssize_t n;
      while ((n = ::read(fds_[0], buffer, sizeof(buffer))) > 0) {
         text.append(buffer, static_cast<size_t>(n));
      }
      return text;
   }

private:
   int fds_[2] = {-1, -1};
};

class ProcTest : public ::testing::Test {
protected:
   std::shared_ptr<CaptureHandler> capture_ = CaptureHandler::make();
   CaptureHandler& h_ = *capture_;
};

TEST_F(ProcTest, ResolveSymFindsLoadedSymbolsAndKeepsTheLastError) {
   EXPECT_EQ(Util::resolveSym(h_, "HeapChecker_RecordClientFree"),
             reinterpret_cast<void*>(&HeapChecker_RecordClientFree));
   EXPECT_TRUE(h_.has(5, "Util::resolveSym() sym:HeapChecker_RecordClientFree found at 0x"));
   EXPECT_EQ(Util::resolveSym(h_, "getpid"), ::dlsym(RTLD_DEFAULT, "getpid"))
       << "libraries the program loaded are searched too";
   EXPECT_EQ(Util::resolveSymError(), nullptr);

   EXPECT_EQ(Util::resolveSym(h_, "korvoNoSuchSymbolAnywhere"), nullptr);
   EXPECT_TRUE(h_.has(1, "unable to resolve:korvoNoSuchSymbolAnywhere"));
   const char* error = Util::resolveSymError();
   ASSERT_NE(error, nullptr);
   EXPECT_NE(std::strstr(error, "korvoNoSuchSymbolAnywhere"), nullptr) << error;
   EXPECT_EQ(Util::resolveSymError(), nullptr) << "the error is forgotten once read";

   EXPECT_EQ(Util::resolveSym(h_, "korvoNoSuchSymbolAnywhere"), nullptr);
   EXPECT_NE(Util::resolveSym(h_, "getpid"), nullptr);
   EXPECT_EQ(Util::resolveSymError(), nullptr) << "a success clears an unread error";
}

TEST_F(ProcTest, HeapCheckerHooksAreLookedUpOnlyWithHeapcheckSet) {
   ASSERT_NE(Util::resolveSym(h_, "HeapChecker_RecordClientAlloc"), nullptr)
       << "the test's own hooks must be visible for this test to mean anything";
   const int code = runInChild([&] {
      ::unsetenv("HEAPCHECK");
      if (Korvo::HeapChecker::resolveAllocSym(h_) || Korvo::HeapChecker::resolveFreeSym(h_)) {
         return 1;
      }
      ::setenv("HEAPCHECK", "", 1);
      const bool found = Korvo::HeapChecker::resolveAllocSym(h_) ==
                             reinterpret_cast<void*>(&HeapChecker_RecordClientAlloc) &&
                         Korvo::HeapChecker::resolveFreeSym(h_) ==
                             reinterpret_cast<void*>(&HeapChecker_RecordClientFree);
      return found ? 0 : 2;
   });
   EXPECT_EQ(code, 0);
}

// WAITFOR_DEFAULT is read once per process: each case runs in a fresh child that
// has not read it yet (this process never calls waitForDefaultTimeout()).
struct WaitForCase {
   const char* value;  // null: unset
   double expected;
   bool complains;
};

TEST_F(ProcTest, WaitForDefaultTimeoutComesFromTheEnvironmentOnce) {
   const double inf = std::numeric_limits<double>::infinity();
   const WaitForCase cases[] = {
       {nullptr, inf, false}, {"2.5", 2.5, false}, {"abc", inf, true},
       {"1e999", inf, true},  {"", inf, true},     {"0.25s", 0.25, false},
   };
   for (const WaitForCase& c : cases) {
      KorvoTest::TempDir dir;
      const std::string errPath = dir / "stderr";
      const int code = runInChild([&] {
         const int err = ::open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
         ::dup2(err, 2);
         if (c.value) {
            ::setenv("WAITFOR_DEFAULT", c.value, 1);
         } else {
            ::unsetenv("WAITFOR_DEFAULT");
         }
         const double first = Korvo::waitForDefaultTimeout();
         ::setenv("WAITFOR_DEFAULT", "7", 1);
         const double second = Korvo::waitForDefaultTimeout();
         return first == c.expected && second == c.expected ? 0 : 1;
      });
      EXPECT_EQ(code, 0) << (c.value ? c.value : "(unset)");
      std::ifstream in(errPath);
      const std::string err((std::istreambuf_iterator<char>(in)), {});
      EXPECT_EQ(err, c.complains ? "Parsing the WAITFOR_DEFAULT env. variable failed\n" : "")
          << (c.value ? c.value : "(unset)");
   }
}

TEST_F(ProcTest, DecodeMagicReadsTheBytesInMemoryOrder) {
   unsigned long magic = 0;
   std::memcpy(&magic, "KORVOTSK", 8);
   EXPECT_EQ(Util::decodeMagic(magic), "KORVOTSK");
   EXPECT_EQ(Util::decodeMagic(0x4f4b), "KO");
   EXPECT_EQ(Util::decodeMagic(0x4f4b00), "") << "a zero lowest byte ends the text at once";
   EXPECT_EQ(Util::decodeMagic(0), "");
}

TEST_F(ProcTest, EmitCanaryLogTracesTheLine) {
   Util::emitCanaryLog(h_, "still alive");
   EXPECT_TRUE(h_.has(5, "CANARY:still alive"));
}

TEST_F(ProcTest, ReadProcStartTimeOfLiveAndGoneProcesses) {
   const std::string mine = Util::readProcStartTime(h_, ::getpid());
   ASSERT_FALSE(mine.empty());
   EXPECT_EQ(mine.find_first_not_of("0123456789"), std::string::npos) << mine;
   EXPECT_EQ(Util::readProcStartTime(::getpid()), mine);
   EXPECT_TRUE(h_.has(5, "Util::readProcStartTime() success - pid:" + std::to_string(::getpid())));

   EXPECT_EQ(Util::readProcStartTime(h_, noSuchPid), "");
   EXPECT_TRUE(h_.has(5, "Util::readProcStartTime() error - Couldn't access stat file:/proc/" +
                             std::to_string(noSuchPid) + "/stat stream state:"));
}

TEST_F(ProcTest, ProcessNamesWithBlanksAndParenthesesDoNotConfuseTheReaders) {
   ChildReport report;
   const int code = runInChild([&] {
      const std::string before = Util::readProcStartTime(h_, ::getpid());
      ::prctl(PR_SET_NAME, "x) (y z) w", 0, 0, 0);
      const std::string after = Util::readProcStartTime(h_, ::getpid());
      const std::string title = Util::readProcTitle(h_, ::getpid());
      report.send(before + "|" + after + "|" + title);
      return 0;
   });
   ASSERT_EQ(code, 0);
   const std::string text = report.receive();
   const size_t bar = text.find('|');
   ASSERT_NE(bar, std::string::npos) << text;
   const std::string before = text.substr(0, bar);
   EXPECT_FALSE(before.empty());
   EXPECT_EQ(text, before + "|" + before + "|x) (y z) w");
}

TEST_F(ProcTest, StartTimeFromStatCountsFieldsFromTheLastParenthesis) {
   const std::string tail = " S 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 987654 20 21";
   EXPECT_EQ(Util::startTimeFromStat("42 (daemon)" + tail, "t"), "987654");
   EXPECT_EQ(Util::startTimeFromStat("42 (a) (b) c)" + tail, "t"), "987654");
   EXPECT_EQ(Util::startTimeFromStat("42 ())))" + tail, "t"), "987654");
   EXPECT_EQ(Util::startTimeFromStat("42 (x)" + tail.substr(0, tail.find(" 20 21")), "t"), "987654")
       << "the start time may be the last field";

   const std::string noParen =
       KorvoTest::assertionText([] { Util::startTimeFromStat("42 x S 1", "f"); });
   EXPECT_NE(noParen.find("Util::readProcStartTime() input not long enough to contain start time. "
                          "file: f line: \"42 x S 1\""),
             std::string::npos)
       << noParen;
   EXPECT_NE(KorvoTest::assertionText([] {
                Util::startTimeFromStat("42 (x) ", "f");
             }).find("input not long enough"),
             std::string::npos)
       << "one character after the name is too short";

   const std::string shortLine = "42 (x) S 1 2 3";
   const std::string few =
       KorvoTest::assertionText([&] { Util::startTimeFromStat(shortLine, "f"); });
   EXPECT_NE(few.find("Util::readProcStartTime() Failed to parse start time from file: f line: \"" +
                      shortLine + "\" procStartTime.size():14 tokPos:4 startTimeFieldPos:19"),
             std::string::npos)
       << few;
   const std::string doubled = "42 (x) S 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18  20";
   EXPECT_NE(KorvoTest::assertionText([&] {
                Util::startTimeFromStat(doubled, "f");
             }).find("tokPos:20 startTimeFieldPos:19"),
             std::string::npos)
       << "an empty field 22 is malformed";
}

TEST_F(ProcTest, ReadProcTitleAndItsParser) {
   std::ifstream comm("/proc/self/comm");
   std::string expected;
   std::getline(comm, expected);
   EXPECT_EQ(Util::readProcTitle(h_, ::getpid()), expected);
   EXPECT_TRUE(h_.has(5, "Util::readProcTitle() success - title:" + expected));
   EXPECT_EQ(Util::readProcTitle(::getpid()), expected);

   h_.clear();
   EXPECT_EQ(Util::readProcTitle(h_, noSuchPid), "");
   EXPECT_TRUE(h_.has(1, "Util::readProcTitle() error - Couldn't access status file:/proc/"));
   h_.clear();
   EXPECT_EQ(Util::readProcTitle(h_, noSuchPid, true), "");
   EXPECT_TRUE(h_.has(5, "Util::readProcTitle() error - Couldn't access status file:"))
       << "quiet callers expect gone processes";

   auto title = [](const std::string& text) {
      std::istringstream in(text);
      return Util::titleFromStatus(in);
   };
   EXPECT_EQ(title("Name:\tkorvod\nUmask:\t0022\n"), "korvod");
   EXPECT_EQ(title("State:\tS\nName:  a b \t\n"), "a b");
   EXPECT_EQ(title("Name:"), "");
   EXPECT_EQ(title("Name:\t \t\n"), "");
   EXPECT_EQ(title("State:\tS\nPid:\t1\n"), std::nullopt);
   EXPECT_EQ(title(""), std::nullopt);

   const int code = runInChild([&] {
      ::prctl(PR_SET_NAME, "", 0, 0, 0);
      const bool empty = Util::readProcTitle(h_, ::getpid()).empty();
      return empty && h_.has(1, "Util::readProcTitle() error - Read 0 length title for pid:") ? 0
                                                                                              : 1;
   });
   EXPECT_EQ(code, 0) << "a process without a name";
}

TEST_F(ProcTest, ReadPidCmdlineJoinsTheArguments) {
   int input[2];
   ASSERT_EQ(::pipe2(input, O_CLOEXEC), 0);
   const pid_t pid = ::fork();
   if (pid == 0) {
      ::dup2(input[0], 0);
      ::execl("/bin/sh", "sh", "-c", "read line", "two words", static_cast<char*>(nullptr));
      ::_exit(127);
   }
   ::close(input[0]);
   // Until the child has exec'ed, it still shows this program's command line.
   std::string cmdline;
   for (int i = 0; i < 5000 && cmdline != "sh -c read line two words"; ++i) {
      ::usleep(1000);
      cmdline = Util::readPidCmdline(h_, pid);
   }
   EXPECT_EQ(cmdline, "sh -c read line two words");
   ::close(input[1]);
   int status = 0;
   ::waitpid(pid, &status, 0);
   EXPECT_EQ(Util::readPidCmdline(h_, pid), "") << "a reaped process has no command line";

   EXPECT_EQ(Util::cmdlineFromText(std::string("a\0b c\0\0", 7)), "a b c");
   EXPECT_EQ(Util::cmdlineFromText(std::string("\0\0", 2)), "");
   EXPECT_EQ(Util::cmdlineFromText(""), "");
   EXPECT_EQ(Util::cmdlineFromText("no-terminator"), "no-terminator");
}

struct LocalPolymorph {
   virtual ~LocalPolymorph() = default;
};
namespace {
struct HiddenPolymorph : LocalPolymorph {};
}  // namespace

TEST_F(ProcTest, TypenameFromVptrNamesLiveTypesAndRejectsGarbage) {
   const Korvo::RuntimeException runtime("x");
   EXPECT_EQ(Util::typenameFromVptr(Util::vptrOf(&runtime)), "Korvo::RuntimeException");
   const LocalPolymorph local;
   EXPECT_EQ(Util::typenameFromVptr(Util::vptrOf(&local)), "(anonymous namespace)::LocalPolymorph");
   const HiddenPolymorph hidden;
   EXPECT_EQ(Util::typenameFromVptr(Util::vptrOf(&hidden)),
             "(anonymous namespace)::(anonymous namespace)::HiddenPolymorph");
   const std::stringstream stream;
   EXPECT_EQ(
       Util::typenameFromVptr(Util::vptrOf(&stream)),
       "std::__cxx11::basic_stringstream<char, std::char_traits<char>, std::allocator<char> >");

   EXPECT_EQ(Util::typenameFromVptr(nullptr), "Bad vptr:NULL");
   EXPECT_EQ(Util::typenameFromVptr(reinterpret_cast<const void*>(0x10)),
             "Bad vptr:0x0000000000000010");
   const uint64_t zeros[4] = {};
   EXPECT_EQ(Util::typenameFromVptr(&zeros[2]).rfind("Bad vptr:0x", 0), 0u);
   uint64_t random[8];
   for (size_t i = 0; i < 8; ++i) {
      random[i] = 0x9e3779b97f4a7c15ull * (i + 1);
   }
   EXPECT_EQ(Util::typenameFromVptr(&random[4]).rfind("Bad vptr:", 0), 0u);
   EXPECT_EQ(Util::typenameFromVptr(reinterpret_cast<const char*>(Util::vptrOf(&runtime)) + 3)
                 .rfind("Bad vptr:", 0),
             0u)
       << "misaligned";
   EXPECT_EQ(Util::typenameFromVptr(reinterpret_cast<const void*>(0x7ffffffff000ull))
                 .rfind("Bad vptr:", 0),
             0u)
       << "unmapped";
   const void* code = reinterpret_cast<const void*>(&Util::decodeMagic);
   EXPECT_EQ(Util::typenameFromVptr(code).rfind("Bad vptr:", 0), 0u) << "code, not a table";
}

TEST_F(ProcTest, TraceHandleNameNamesOnlyLiveHandlers) {
   auto handler = Korvo::Platform::getDebugHandler("ProcTestNamedHandler");
   const void* address = handler.get();
   EXPECT_EQ(Util::traceHandleName(address), "ProcTestNamedHandler");
   EXPECT_EQ(Util::traceHandleName(nullptr), "");
   int notAHandler = 0;
   EXPECT_EQ(Util::traceHandleName(&notAHandler).rfind("unknown handler 0x", 0), 0u);
   EXPECT_EQ(Util::traceHandleName(capture_.get()).rfind("unknown handler 0x", 0), 0u)
       << "handlers not registered with the library are not looked into";
   handler.reset();
   EXPECT_EQ(Util::traceHandleName(address).rfind("unknown handler 0x", 0), 0u)
       << "a destroyed handler is never read";
}

TEST_F(ProcTest, IncludeShmemInCoreSetsOnlyBitThree) {
   const int code = runInChild([] {
      const std::string path = "/proc/" + std::to_string(::getpid()) + "/coredump_filter";
      auto read = [&] {
         unsigned value = 0;
         std::FILE* f = std::fopen(path.c_str(), "r");
         if (f == nullptr || std::fscanf(f, "%x", &value) != 1) {
            value = ~0u;
         }
         if (f) {
            std::fclose(f);
         }
         return value;
      };
      const unsigned before = read();
      std::FILE* f = std::fopen(path.c_str(), "w");
      if (before == ~0u || f == nullptr) {
         return KorvoTest::childSkipped;
      }
      std::fprintf(f, "0x%x", (before & ~8u) | 0x21u);
      std::fclose(f);
      Util::includeShmemInCore();
      return read() == ((before & ~8u) | 0x21u | 8u) ? 0 : 1;
   });
   if (code == KorvoTest::childSkipped) {
      GTEST_SKIP() << "no writable coredump_filter";
   }
   EXPECT_EQ(code, 0);
}

}  // namespace
