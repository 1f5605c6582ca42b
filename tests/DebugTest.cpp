#include <Korvo/Debug.h>
#include <Korvo/Locking.h>

#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <mutex>
#include <random>
#include <regex>
#include <thread>
#include <vector>

#include "TestSupport.h"

namespace {

using Korvo::Nyx::DebugControl;
using Handler = std::shared_ptr<Korvo::Platform::DebugHandler>;
using Korvo::Platform::clearKorvoDebug;
using Korvo::Platform::getDebugHandler;
using Korvo::Platform::setupKorvoDebug;

std::string display(const Handler& h) {
   return static_cast<Korvo::Nyx::DebugHandler&>(*h).displayString();
}

// The levels of the registry's entry for `name`; 0xFFFF when there is none.
uint32_t controlLevels(const std::string& name, bool wildcard) {
   Korvo::Platform::LocoGuard guard;
   auto find = [&](const auto& map) {
      auto it = map->find(name);
      return it == map->end() ? 0xFFFFu : it->second->levels();
   };
   return wildcard ? find(DebugControl::wildCardDebugsMap_) : find(DebugControl::debugsMap_);
}

TEST(DebugTest, ParsesNamesAndLevels) {
   const struct {
      const char* name;
      const char* parsed;
      bool wildcard;
   } names[] = {{"Foo*", "Foo", true}, {"F*o", "F*o", false}, {"*", "", true}};
   for (const auto& c : names) {
      bool wildcard = !c.wildcard;
      EXPECT_EQ(DebugControl::parseName(c.name, wildcard), c.parsed);
      EXPECT_EQ(wildcard, c.wildcard) << c.name;
   }
   const std::pair<const char*, uint32_t> levels[] = {
       {"3x7", (1u << 3) | (1u << 7)}, {"*", 1023u}, {"", 0u}, {"1-5 all", (1u << 1) | (1u << 5)}};
   for (const auto& [text, bits] : levels)
      EXPECT_EQ(DebugControl::parseLevels(text), bits) << text;
}

TEST(DebugTest, HandlersFollowTheRegistry) {
   Handler app = getDebugHandler("DtApp");
   EXPECT_EQ(display(app), "DtApp/");
   setupKorvoDebug("DtApp/3x7");
   EXPECT_EQ(display(app), "DtApp/37");
   EXPECT_TRUE(app->enabled(3) && !app->enabled(4));

   setupKorvoDebug("DtK*/1,DtKTask*/5,");
   Handler group = getDebugHandler("DtKTaskGroup");
   EXPECT_EQ(display(group), "DtKTaskGroup/15") << "the longer prefix carries both";
   setupKorvoDebug("DtK*/2");
   EXPECT_EQ(display(group), "DtKTaskGroup/125");
   EXPECT_EQ(controlLevels("DtKTask", true), (1u << 1) | (1u << 2) | (1u << 5));

   Korvo::Nyx::DebugHandler fixed("DtKFixed", 0, true);
   setupKorvoDebug("DtK*/9,DtKFixed/*");
   clearKorvoDebug("DtKFixed/0");
   EXPECT_EQ(fixed.displayString(), "DtKFixed+/");
   clearKorvoDebug("DtK*/1");
   clearKorvoDebug(nullptr);
   EXPECT_EQ(display(group), "DtKTaskGroup/259");

   // An exact entry emptied under a wildcard stays, and keeps shadowing it; without
   // a wildcard it goes.
   setupKorvoDebug("DtKExact/4,DtLone/4");
   clearKorvoDebug("DtKExact/*,DtLone/4");
   EXPECT_EQ(controlLevels("DtKExact", false), 0u);
   EXPECT_EQ(display(getDebugHandler("DtKExact")), "DtKExact/");
   EXPECT_EQ(controlLevels("DtLone", false), 0xFFFFu);

   setupKorvoDebug("DtFoo/2");
   testing::internal::CaptureStderr();
   Handler foo = getDebugHandler("DtFoo*");
   EXPECT_EQ(testing::internal::GetCapturedStderr(),
             "Korvo::Debug - Warning - Wild card specifier ignored getting handler for DtFoo* "
             "using DtFoo\n");
   EXPECT_EQ(display(foo), "DtFoo/2");
}

TEST(DebugTest, OwnAndOutsideLevelWords) {
   Korvo::Nyx::DebugHandler own("DtOwn", 0, false);
   own.enabledIs(3, true);
   EXPECT_TRUE(own.enabled(3));
   own.enabledIs(35, false);
   EXPECT_FALSE(own.enabled(3));
   uint32_t word = 1u << 6;
   Korvo::Nyx::DebugHandler outside("DtOutside", &word, false);
   EXPECT_TRUE(outside.enabled(6));
   const std::string text = KorvoTest::assertionText([&] { outside.enabledIs(2, true); });
   EXPECT_EQ(text.rfind("Debug:enabledIs:", 0), 0u) << text;
   EXPECT_NE(text.find("Cannot use this with a non-null levelsPtr passed to constructor"),
             std::string::npos);
}

// A plain model of the registry: what the levels of every entry and every live
// handler must be after a sequence of set/clear calls.
struct RegistryModel {
   std::map<std::string, uint32_t> exact, wild;
   std::vector<std::pair<std::string, uint32_t>> handlers;

   static bool starts(const std::string& s, const std::string& p) { return s.rfind(p, 0) == 0; }
   const uint32_t* bestWild(const std::string& name) const {
      const uint32_t* best = nullptr;
      size_t bestLength = 0;
      for (auto& [p, l] : wild) {
         if (starts(name, p) && (!best || p.size() >= bestLength)) {
            best = &l;
            bestLength = p.size();
         }
      }
      return best;
   }
   uint32_t levelsForNew(const std::string& n) const {
      const uint32_t* w = bestWild(n);
      return exact.count(n) ? exact.at(n) : w ? *w : 0;
   }
   // Applies `change` to every entry and handler that `n` (a prefix when wild) names.
   template <typename Change>
   void forNamed(const std::string& n, bool isWild, Change change) {
      auto named = [&](const std::string& e) { return isWild ? starts(e, n) : e == n; };
      for (auto& [p, l] : wild)
         if (isWild && named(p))
            change(l);
      for (auto& [hn, hl] : handlers)
         if (named(hn))
            change(hl);
   }
   void set(const std::string& n, bool isWild, uint32_t bits) {
      auto& map = isWild ? wild : exact;
      if (!map.count(n)) {
         const uint32_t* w = bestWild(n);
         map[n] = w ? *w : 0;
      }
      const uint32_t levels = map[n] |= bits;
      forNamed(n, isWild, [&](uint32_t& l) { l |= levels; });
      for (auto& [e, l] : exact)
         if (isWild && starts(e, n))
            l |= levels;
   }
   void clearExact(const std::string& n, uint32_t bits) {
      if ((exact[n] &= ~bits) == 0 && !bestWild(n))
         exact.erase(n);
   }
   void clear(const std::string& n, bool isWild, uint32_t bits) {
      if (!isWild && exact.count(n)) {
         clearExact(n, bits);
      } else if (!isWild && bestWild(n)) {
         handlers.emplace_back(n, *bestWild(n) & ~bits);
      }
      forNamed(n, isWild, [&](uint32_t& l) { l &= ~bits; });
      std::vector<std::string> names;
      for (auto& [e, l] : exact)
         if (isWild && starts(e, n))
            names.push_back(e);
      for (auto& e : names)
         clearExact(e, bits);
   }
};

TEST(DebugTest, RandomTraceStringsMatchTheModel) {
   // Names share the prefix "Rz" with each other only, so the library's own
   // handlers stay out of it.
   const std::vector<std::string> names = {"Rz", "RzA", "RzAB", "RzABC", "RzB", "RzBA", "RzC"};
   std::mt19937 rng(12345);
   RegistryModel model;
   std::vector<Handler> live;
   auto pick = [&](size_t n) { return std::uniform_int_distribution<size_t>(0, n - 1)(rng); };
   for (int round = 0; round < 4000; ++round) {
      const std::string name = names[pick(names.size())];
      const bool wild = pick(3) == 0;
      std::string levels;
      for (size_t i = pick(4); i > 0; --i)
         levels += "0123456789*x/-"[pick(14)];
      const std::string item = name + (wild ? "*" : "") + "/" + levels;
      const uint32_t bits = DebugControl::parseLevels(levels);
      switch (pick(5)) {
         case 0:
         case 1:
            setupKorvoDebug(item.c_str());
            model.set(name, wild, bits);
            break;
         case 2:
         case 3:
            clearKorvoDebug(item.c_str());
            model.clear(name, wild, bits);
            break;
         default:
            live.push_back(getDebugHandler(name));
            model.handlers.emplace_back(name, model.levelsForNew(name));
            ASSERT_EQ(live.back()->levels, model.handlers.back().second) << name;
      }
      for (auto& [n, l] : model.exact)
         ASSERT_EQ(controlLevels(n, false), l) << n << " " << item;
      for (auto& [n, l] : model.wild)
         ASSERT_EQ(controlLevels(n, true), l) << n << " " << item;
   }
   // The handlers the test made, in creation order, against the model's.
   size_t next = 0;
   for (auto& [n, l] : model.handlers)
      next += next < live.size() && live[next]->name == n && live[next]->levels == l;
   EXPECT_EQ(next, live.size());
   size_t exactRz = 0;
   Korvo::Platform::LocoGuard guard;
   for (auto& [n, c] : *DebugControl::debugsMap_)
      exactRz += n.rfind("Rz", 0) == 0;
   EXPECT_EQ(exactRz, model.exact.size());
}

TEST(DebugTest, DisplayAids) {
   EXPECT_EQ(Korvo::DisplayPointer(nullptr).toString(), "NULL");
   std::ostringstream os;
   os << 255 << " " << Korvo::DisplayPointer(reinterpret_cast<void*>(0xabc)) << " " << 255 << " "
      << Korvo::DisplaySubString("abcdef", 2, 3);
   EXPECT_EQ(os.str(), "255 0x0000000000000abc 255 cde");
   const int n = 5;
   EXPECT_EQ(
       Korvo::Fmt::Impl::vformatstr(true, "run", "TaskScheduler", "n={}", fmt::make_format_args(n)),
       "TaskScheduler::run() n=5");
   EXPECT_EQ(Korvo::Fmt::Impl::vformatstr("file.cpp", 12, false, "run", nullptr, "n={}",
                                          fmt::make_format_args(n)),
             "file.cpp:12: n=5");
}

// Trace sites read masks and line fields that other threads change: under
// ThreadSanitizer this is where a missing lock or a plain read shows.
TEST(DebugTest, ThreadsTraceWhileLevelsAndFormatChange) {
   KorvoTest::TempDir dir;  // lines go to a file: a sanitizer's report must stay visible
   ::setenv("TRACEFILE", dir.file("trace.log").c_str(), 1);
   Handler handler = getDebugHandler("KorvoDebugTestThreads");
   setupKorvoDebug("KorvoDebugTestThreads/3");
   Korvo::Locking::Lock lock;
   std::atomic<int> lines{0};
   std::vector<std::thread> threads;
   for (int t = 0; t < 2; ++t) {
      threads.emplace_back([&, t] {
         for (int i = 0; i < 100; ++i, lines += 2) {
            KORVO_TRACE(handler, 3, "thread " << t << " line " << i);
            KORVO_FMTRACE(handler, 3, "thread {} line {}", t, i);
            KORVO_TRACE(handler, 4, "sometimes " << i);
            EXPECT_FALSE(lock.owns_lock());
         }
      });
   }
   for (int i = 0; i < 100 || lines.load() < 400; ++i) {
      setupKorvoDebug("KorvoDebugTestThreads/4");
      Korvo::Platform::setTraceFormat(i % 2 ? "tid,level" : "handle");
      std::lock_guard<Korvo::Locking::Lock> held(lock);
      clearKorvoDebug("KorvoDebugTestThreads/4");
   }
   for (std::thread& thread : threads)
      thread.join();
   ::unsetenv("TRACEFILE");
   setupKorvoDebug("");
   Korvo::Platform::clearTraceFormat();
   EXPECT_GE(KorvoTest::slurp(dir.file("trace.log")).size(), 400u);
   EXPECT_TRUE(handler->enabled(3) && !handler->enabled(4));
}

#ifdef KORVO_FMTRACE_MISMATCH
// Compiled only by the FmtraceMismatchDoesNotCompile test, which expects the build
// to fail: the format wants two arguments and gets one.
void mismatchedTrace(const Handler& handler) {
   KORVO_FMTRACE(handler, 3, "{} and {}", 1);
}
#endif

// What the library reads from the environment at load: each case runs the trace
// child with its own variables. Outputs are regular expressions.
KorvoTest::ProcessResult runChild(std::vector<std::string> env, std::vector<std::string> args) {
   auto full = KorvoTest::baseEnvironment();
   full.insert(full.end(), env.begin(), env.end());
   return KorvoTest::runProgram(TRACE_CHILD, args, full);
}

TEST(TraceEnvTest, TraceAndTraceFormat) {
   std::string huge;
   for (int i = 0; i < 8000; ++i)
      huge += "Big" + std::to_string(i % 7) + "/9x,";
   const std::string usage =
       "Usage:\n  TRACEFORMAT=field,field,\\.\\.\\.\nList of possible fields:\n  date\n  time\n"
       "  pid\n  tid\n  handle\n  level\n  line-info\n  func-name\n";
   const struct {
      std::vector<std::string> env, args;
      std::string out, err;
   } cases[] = {
       {{}, {"levels:KorvoTimerWheel", "levels:App"}, "KorvoTimerWheel/01\nApp/\n", ""},
       {{"TRACE=App/3x7"}, {"levels:App"}, "App/37\n", ""},
       {{"TRACE=App/*"}, {"levels:App"}, R"(App/\*\n)", ""},
       {{"TRACE=App"}, {"levels:App", "map"}, R"([\s\S]*Specific:\n    App/\n[\s\S]*)", ""},
       {{"TRACE=Korvo*/1,KorvoTask*/5"}, {"levels:KorvoTaskGroup"}, "KorvoTaskGroup/015\n", ""},
       {{"TRACE=" + huge + std::string(40000, '/')}, {"levels:Big3"}, "Big3/9\n", ""},
       {{"TRACE=,,/,*/"}, {"levels:Junk"}, "Junk/\n", ""},
       {{"TRACEFORMAT=pid,date"}, {"trace:KorvoT:1:hello"}, "", R"(\d{4}-\d\d-\d\d \d+ hello\n)"},
       {{"TRACEFORMAT="}, {"trace:KorvoT:1:", "trace:KorvoT:1:only"}, "", "\nonly\n"},
       {{"TRACEFORMAT=date,bogus"},
        {"format"},
        "1 1 0 1 1 1 0 0 \n",
        "bogus is an invalid field in TRACEFORMAT\nSet TRACEFORMAT=help for more information\\.\n"},
       {{"TRACEFORMAT=help"}, {"format"}, "1 1 0 1 1 1 0 0 \n", usage},
       {{"TRACEFORMAT=level,,handle,line-info,func-name"},
        {"trace:KorvoT:1:x", "nullfile"},
        "",
        R"(KorvoT 1 TraceChild\.cpp:\d+ run x\nKorvoChild 1 tail\n)"},
       {{"TRACEFORMAT=time"}, {"trace:KorvoT:0:t"}, "", R"(\d\d:\d\d:\d\d\.[1-9]?\d* t\n)"},
   };
   for (const auto& c : cases) {
      SCOPED_TRACE(c.env.empty() ? "(none)" : c.env[0].substr(0, 40));
      const auto r = runChild(c.env, c.args);
      EXPECT_EQ(r.exitCode, 0);
      EXPECT_TRUE(std::regex_match(r.out, std::regex(c.out))) << r.out;
      EXPECT_TRUE(std::regex_match(r.err, std::regex(c.err))) << r.err;
   }
}

TEST(TraceEnvTest, TraceFileKeepsReopensOrFallsBack) {
   KorvoTest::TempDir dir;
   const std::string file = dir.file("trace.log");
   auto r = runChild({"TRACEFORMAT=level", "TRACEFILE=" + file},
                     {"trace:KorvoT:0:one", "setup", "trace:KorvoT:0:two", "unsetenv:TRACEFILE",
                      "setup", "trace:KorvoT:0:three"});
   EXPECT_EQ(KorvoTest::slurp(file), "0 one\n0 two\n");
   EXPECT_EQ(r.err, "0 three\n");
   r = runChild({"TRACEFORMAT=level", "TRACEFILE=" + dir.path()}, {"trace:KorvoT:0:four"});
   // Both load-time set-up calls (the default, then the environment) try the file.
   const std::string failed =
       "Error opening TRACEFILE=" + dir.path() + "\nDefaulting to std::cerr for trace output.\n";
   EXPECT_EQ(r.err, failed + failed + "0 four\n");
   r = runChild({"TRACEFORMAT=level", "TRACEFILE=" + std::string(5000, 'x')},
                {"trace:KorvoT:0:long"});
   EXPECT_NE(r.err.find("Defaulting to std::cerr for trace output.\n0 long\n"), std::string::npos);
}

}  // namespace
