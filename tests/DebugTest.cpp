#include <Korvo/Debug.h>
#include <Korvo/Locking.h>

#include <gtest/gtest.h>

#include <map>
#include <random>
#include <regex>
#include <thread>

#include "TestSupport.h"

using Korvo::Nyx::DebugControl;
using Handler = std::shared_ptr<Korvo::Platform::DebugHandler>;
using namespace Korvo::Platform;

std::string display(const Handler& h) {
   return static_cast<Korvo::Nyx::DebugHandler&>(*h).displayString();
}

TEST(DebugTest, HandlersShowTheirLevelsAndFollowTheRegistry) {
   Handler app = getDebugHandler("DtApp");
   Korvo::Nyx::DebugHandler fixed("DtKFixed", 0, true), own("DtOwn", 0, false);
   setupKorvoDebug("DtApp/3x7,DtK*/1,DtKTask*/5,DtKFixed/*");
   clearKorvoDebug(nullptr);
   // The longest matching prefix carries both levels.
   EXPECT_EQ(display(app) + " " + display(getDebugHandler("DtKTaskGroup")),
             "DtApp/37 DtKTaskGroup/15");
   EXPECT_EQ(fixed.displayString(), "DtKFixed+/") << "fixed levels ignore the registry";
   testing::internal::CaptureStderr();
   EXPECT_EQ(display(getDebugHandler("DtApp*")), "DtApp/37");
   EXPECT_EQ(testing::internal::GetCapturedStderr(),
             "Korvo::Debug - Warning - Wild card specifier ignored getting handler for DtApp* "
             "using DtApp\n");
   own.enabledIs(3, true);
   own.enabledIs(36, false);  // level 4, modulo 32
   EXPECT_TRUE(own.enabled(3) && !own.enabled(4));
   uint32_t word = 1u << 6;
   Korvo::Nyx::DebugHandler outside("DtOutside", &word, false);
   EXPECT_TRUE(outside.enabled(6));
   EXPECT_NE(KorvoTest::assertionText([&] { outside.enabledIs(2, true); }).find("Debug:enabledIs:"),
             std::string::npos);
   std::ostringstream os;
   os << 255 << " " << Korvo::DisplayPointer(reinterpret_cast<void*>(0xabc)) << " " << 255 << " "
      << Korvo::DisplaySubString("abcdef", 2, 3) << " " << Korvo::DisplayPointer(nullptr);
   EXPECT_EQ(os.str(), "255 0x0000000000000abc 255 cde NULL");
   EXPECT_EQ(Korvo::Fmt::Impl::vformatstr("f.cpp", 12, true, "run", "Task", "w={}",
                                          fmt::make_format_args(word)),
             "f.cpp:12: Task::run() w=64");
}

// A plain model of the registry: the levels of every exact and wildcard entry and
// of every handler after a sequence of set and clear calls.
struct RegistryModel {
   std::map<std::string, uint32_t> exact, wild;
   std::vector<std::pair<std::string, uint32_t>> handlers;

   static bool named(const std::string& e, const std::string& n, bool isWild) {
      return isWild ? e.rfind(n, 0) == 0 : e == n;
   }
   // The levels of the longest wildcard that is a prefix of `n`, if any.
   const uint32_t* bestWild(const std::string& n) const {
      const uint32_t* best = nullptr;
      for (auto& [p, l] : wild)  // shortest first
         if (named(n, p, true))
            best = &l;
      return best;
   }
   uint32_t inherited(const std::string& n) const { return bestWild(n) ? *bestWild(n) : 0; }
   template <typename Change>
   void forNamed(const std::string& n, bool isWild, Change change) {
      auto each = [&](auto& entries, bool kind) {
         for (auto& [e, l] : entries)
            if (kind && named(e, n, isWild))
               change(l);
      };
      each(wild, isWild), each(exact, true), each(handlers, true);
   }
   void set(const std::string& n, bool isWild, uint32_t bits) {
      uint32_t& levels = (isWild ? wild : exact).try_emplace(n, inherited(n)).first->second;
      levels |= bits;
      forNamed(n, isWild, [&](uint32_t& l) { l |= levels; });
   }
   void clear(const std::string& n, bool isWild, uint32_t bits) {
      forNamed(n, isWild, [&](uint32_t& l) { l &= ~bits; });
      // An emptied exact entry goes, unless it shadows a wildcard.
      std::erase_if(exact, [&](auto& e) {
         return named(e.first, n, isWild) && !e.second && !bestWild(e.first);
      });
   }
};

TEST(DebugTest, RandomTraceStringsMatchTheModel) {
   // Names share the prefix "Rz" with each other only, so the library's own
   // handlers stay out of it.
   const std::vector<std::string> names = {"Rz", "RzA", "RzAB", "RzABC", "RzB", "RzBA", "RzC"};
   std::mt19937 rng(12345);
   RegistryModel model;
   std::vector<std::pair<Handler, size_t>> live;  // and its place in the model
   auto pick = [&](size_t n) { return std::uniform_int_distribution<size_t>(0, n - 1)(rng); };
   auto registry = [](const auto* map) {  // the levels of the registry's "Rz" entries
      LocoGuard guard;
      std::map<std::string, uint32_t> entries;
      for (auto& [name, control] : *map)
         if (name.rfind("Rz", 0) == 0)
            entries[name] = control->levels();
      return entries;
   };
   for (int round = 0; round < 4000; ++round) {
      const std::string name = names[pick(names.size())];
      const bool wild = pick(3) == 0;
      std::string levels;
      for (size_t i = pick(4); i > 0; --i)
         levels += "0123456789*x/-"[pick(14)];
      const std::string item = name + (wild ? "*" : "") + "/" + levels;
      if (const size_t action = pick(5); action < 2) {
         setupKorvoDebug(item.c_str());
         model.set(name, wild, DebugControl::parseLevels(levels));
      } else if (action < 4) {
         clearKorvoDebug(item.c_str());
         model.clear(name, wild, DebugControl::parseLevels(levels));
      } else {
         live.emplace_back(getDebugHandler(name), model.handlers.size());
         model.handlers.emplace_back(
             name, model.exact.count(name) ? model.exact[name] : model.inherited(name));
      }
      ASSERT_EQ(registry(DebugControl::debugsMap_), model.exact) << item;
      ASSERT_EQ(registry(DebugControl::wildCardDebugsMap_), model.wild) << item;
      for (auto& [handler, index] : live)
         ASSERT_EQ(handler->levels, model.handlers[index].second) << handler->name << " " << item;
   }
}

// Trace sites read masks and line fields that other threads change: under
// ThreadSanitizer this is where a missing lock or a plain read shows.
TEST(DebugTest, ThreadsTraceWhileLevelsAndFormatChange) {
   Handler handler = getDebugHandler("KorvoDebugTestThreads");
   setupKorvoDebug("KorvoDebugTestThreads/3");
   std::thread thread([&] {
      for (int i = 0; i < 200; ++i) {
         KORVO_FMTRACE(handler, 3, "line {}", i);
         KORVO_TRACE(handler, 4, "line " << i);
      }
   });
   for (int i = 0; i < 200; ++i) {
      setupKorvoDebug("KorvoDebugTestThreads/4");
      Korvo::Platform::setTraceFormat(i % 2 ? "tid,level" : "handle");
      clearKorvoDebug("KorvoDebugTestThreads/4");
   }
   thread.join();
   Korvo::Platform::clearTraceFormat();
}

#ifdef KORVO_FMTRACE_MISMATCH
// Compiled only by the FmtraceMismatchDoesNotCompile test, which expects the build
// to fail: the format wants two arguments and gets one.
void mismatchedTrace(const Handler& handler) {
   KORVO_FMTRACE(handler, 3, "{} and {}", 1);
}
#endif

// What the library reads from the environment at load: each case runs the trace
// child with its own variables. Its output and error, one after the other, must
// match a regular expression.
TEST(TraceEnvTest, TraceTraceFormatAndTraceFile) {
   KorvoTest::TempDir dir;
   std::string huge(40000, '/');
   for (int i = 0; i < 8000; ++i)
      huge += "Big" + std::to_string(i % 7) + "/9x,";
   const std::string fields = "1 1 0 1 1 1 0 0 \n";  // which fields are on, on the output
   const std::string bogus =
       "bogus is an invalid field in TRACEFORMAT\nSet TRACEFORMAT=help for more information\\.\n";
   const std::string usage =
       "Usage:\n  TRACEFORMAT=field,field,\\.\\.\\.\nList of possible fields:\n  date\n  time\n"
       "  pid\n  tid\n  handle\n  level\n  line-info\n  func-name\n";
   // Both load-time set-up calls (the default, then the environment) try the file.
   const std::string failed =
       "Error opening TRACEFILE=" + dir.path() + "\nDefaulting to std::cerr for trace output\\.\n";
   const struct {
      std::vector<std::string> env, args;
      std::string output;
   } cases[] = {
       {{"TRACE=App/3x7"}, {"levels:App"}, "App/37\n"},
       {{"TRACE=App"}, {"levels:App", "map"}, R"(App/\n[\s\S]*Specific:\n    App/\n[\s\S]*)"},
       {{"TRACE=" + huge}, {"levels:Big3"}, "Big3/9\n"},
       {{"TRACE=,,/,*/"}, {"levels:Junk"}, "Junk/\n"},
       {{"TRACEFORMAT=pid,date"}, {"trace:KorvoT:1:hello"}, R"(\d{4}-\d\d-\d\d \d+ hello\n)"},
       {{"TRACEFORMAT="}, {"trace:KorvoT:1:", "trace:KorvoT:1:only"}, "\nonly\n"},
       {{"TRACEFORMAT=date,bogus"}, {"format"}, fields + bogus},
       {{"TRACEFORMAT=help"}, {"format"}, fields + usage},
       {{"TRACEFORMAT=level,,handle,line-info,func-name"},
        {"trace:KorvoT:1:x", "nullfile"},
        R"(KorvoT 1 TraceChild\.cpp:\d+ run x\nKorvoChild 1 tail\n)"},
       {{"TRACEFORMAT=time"}, {"trace:KorvoT:0:t"}, R"(\d\d:\d\d:\d\d\.[1-9]?\d* t\n)"},
       {{"TRACEFORMAT=level", "TRACEFILE=" + dir.path()},
        {"trace:KorvoT:0:x"},
        failed + failed + "0 x\n"},
       {{"TRACEFORMAT=level", "TRACEFILE=" + dir / "trace.log"},
        {"trace:KorvoT:0:one", "setup", "trace:KorvoT:0:two", "unsetenv:TRACEFILE", "setup",
         "trace:KorvoT:0:3"},
        "0 3\n"},
   };
   for (const auto& c : cases) {
      SCOPED_TRACE(c.env[0].substr(0, 40));
      auto env = KorvoTest::baseEnvironment();
      env.insert(env.end(), c.env.begin(), c.env.end());
      const auto r = KorvoTest::runProgram(TRACE_CHILD, c.args, env);
      EXPECT_EQ(r.exitCode, 0);
      EXPECT_TRUE(std::regex_match(r.out + r.err, std::regex(c.output))) << r.out << r.err;
   }
   EXPECT_EQ(KorvoTest::slurp(dir / "trace.log"), "0 one\n0 two\n") << "kept, then reopened";
}
