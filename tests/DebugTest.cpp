#include <Korvo/Debug.h>
#include <Korvo/Exception.h>
#include <Korvo/Locking.h>

#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
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

std::string display(const Handler& h) {
   return static_cast<Korvo::Nyx::DebugHandler&>(*h).displayString();
}

uint32_t controlLevels(const std::string& name, bool wildcard) {
   Korvo::Platform::LocoGuard guard;
   if (wildcard) {
      auto it = DebugControl::wildCardDebugsMap_->find(name);
      return it == DebugControl::wildCardDebugsMap_->end() ? 0xFFFF : it->second->levels();
   }
   auto it = DebugControl::debugsMap_->find(name);
   return it == DebugControl::debugsMap_->end() ? 0xFFFF : it->second->levels();
}

TEST(DebugTest, ParsesNamesAndLevels) {
   bool wildcard = false;
   EXPECT_EQ(DebugControl::parseName("Foo*", wildcard), "Foo");
   EXPECT_TRUE(wildcard);
   EXPECT_EQ(DebugControl::parseName("F*o", wildcard), "F*o");
   EXPECT_FALSE(wildcard);
   EXPECT_EQ(DebugControl::parseName("*", wildcard), "");
   EXPECT_TRUE(wildcard);
   EXPECT_EQ(DebugControl::parseLevels("3x7"), (1u << 3) | (1u << 7));
   EXPECT_EQ(DebugControl::parseLevels("*"), 1023u);
   EXPECT_EQ(DebugControl::parseLevels(""), 0u);
   EXPECT_EQ(DebugControl::parseLevels("1-5 all"), (1u << 1) | (1u << 5));
}

TEST(DebugTest, HandlersFollowTheRegistry) {
   Handler app = Korvo::Platform::getDebugHandler("DtApp");
   EXPECT_EQ(display(app), "DtApp/");
   Korvo::Platform::setupKorvoDebug("DtApp/3x7");
   EXPECT_EQ(display(app), "DtApp/37");
   EXPECT_TRUE(app->enabled(3));
   EXPECT_FALSE(app->enabled(4));

   Korvo::Platform::setupKorvoDebug("DtK*/1,DtKTask*/5,");
   Handler group = Korvo::Platform::getDebugHandler("DtKTaskGroup");
   EXPECT_EQ(display(group), "DtKTaskGroup/15") << "the longer prefix carries both";
   Korvo::Platform::setupKorvoDebug("DtK*/2");
   EXPECT_EQ(display(group), "DtKTaskGroup/125");
   EXPECT_EQ(controlLevels("DtKTask", true), (1u << 1) | (1u << 2) | (1u << 5));

   Korvo::Nyx::DebugHandler fixed("DtKFixed", 0, true);
   Korvo::Platform::setupKorvoDebug("DtK*/9,DtKFixed/*");
   Korvo::Platform::clearKorvoDebug("DtKFixed/0");
   EXPECT_EQ(fixed.displayString(), "DtKFixed+/");

   Korvo::Platform::clearKorvoDebug("DtK*/1");
   EXPECT_EQ(display(group), "DtKTaskGroup/259");
   Korvo::Platform::clearKorvoDebug(nullptr);
   EXPECT_EQ(display(group), "DtKTaskGroup/259");

   // An exact entry emptied under a wildcard stays, and keeps shadowing it.
   Korvo::Platform::setupKorvoDebug("DtKExact/4");
   Korvo::Platform::clearKorvoDebug("DtKExact/*");
   EXPECT_EQ(controlLevels("DtKExact", false), 0u);
   EXPECT_EQ(display(Korvo::Platform::getDebugHandler("DtKExact")), "DtKExact/");
   // Without a wildcard it goes.
   Korvo::Platform::setupKorvoDebug("DtLone/4");
   Korvo::Platform::clearKorvoDebug("DtLone/4");
   EXPECT_EQ(controlLevels("DtLone", false), 0xFFFFu);
}

TEST(DebugTest, EnabledIsAndOutsideMaskWords) {
   Korvo::throwOnAssertFailIs(true);
   Korvo::Nyx::DebugHandler own("DtOwn", 0, false);
   own.enabledIs(3, true);
   EXPECT_TRUE(own.enabled(3));
   own.enabledIs(35, false);
   EXPECT_FALSE(own.enabled(3));
   uint32_t word = 1u << 6;
   Korvo::Nyx::DebugHandler outside("DtOutside", &word, false);
   EXPECT_TRUE(outside.enabled(6));
   try {
      outside.enabledIs(2, true);
      ADD_FAILURE();
   } catch (const Korvo::AssertException& e) {
      EXPECT_EQ(e.message().rfind("Debug:enabledIs:", 0), 0u);
      EXPECT_NE(e.message().find("Cannot use this with a non-null levelsPtr passed to constructor"),
                std::string::npos);
   }
   Korvo::throwOnAssertFailIs(false);
}

TEST(DebugTest, WildcardNameToGetWarnsAndStrips) {
   Korvo::Platform::setupKorvoDebug("DtFoo/2");
   testing::internal::CaptureStderr();
   Handler foo = Korvo::Platform::getDebugHandler("DtFoo*");
   EXPECT_EQ(testing::internal::GetCapturedStderr(),
             "Korvo::Debug - Warning - Wild card specifier ignored getting handler for DtFoo* "
             "using DtFoo\n");
   EXPECT_EQ(display(foo), "DtFoo/2");
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
   void set(const std::string& n, bool isWild, uint32_t bits) {
      auto& map = isWild ? wild : exact;
      if (!map.count(n)) {
         const uint32_t* w = bestWild(n);
         map[n] = w ? *w : 0;
      }
      map[n] |= bits;
      const uint32_t levels = map[n];
      if (!isWild) {
         for (auto& [hn, hl] : handlers)
            if (hn == n)
               hl |= levels;
         return;
      }
      for (auto& [p, l] : wild)
         if (starts(p, n))
            l |= levels;
      for (auto& [e, l] : exact)
         if (starts(e, n))
            l |= levels;
      for (auto& [hn, hl] : handlers)
         if (starts(hn, n))
            hl |= levels;
   }
   void clearExactEntry(const std::string& n, uint32_t bits) {
      exact[n] &= ~bits;
      if (exact[n] == 0 && !bestWild(n))
         exact.erase(n);
   }
   void clear(const std::string& n, bool isWild, uint32_t bits) {
      if (!isWild) {
         if (exact.count(n)) {
            clearExactEntry(n, bits);
         } else if (const uint32_t* w = bestWild(n)) {
            handlers.emplace_back(n, *w & ~bits);
         }
         for (auto& [hn, hl] : handlers)
            if (hn == n)
               hl &= ~bits;
         return;
      }
      for (auto& [p, l] : wild)
         if (starts(p, n))
            l &= ~bits;
      std::vector<std::string> names;
      for (auto& [e, l] : exact)
         if (starts(e, n))
            names.push_back(e);
      for (auto& e : names)
         clearExactEntry(e, bits);
      for (auto& [hn, hl] : handlers)
         if (starts(hn, n))
            hl &= ~bits;
   }
   uint32_t levelsForNew(const std::string& n) const {
      if (exact.count(n))
         return exact.at(n);
      const uint32_t* w = bestWild(n);
      return w ? *w : 0;
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
   auto levelText = [&] {
      std::string s;
      const char alphabet[] = "0123456789*x/-";
      for (size_t i = pick(4); i > 0; --i)
         s += alphabet[pick(sizeof(alphabet) - 1)];
      return s;
   };
   for (int round = 0; round < 4000; ++round) {
      const std::string name = names[pick(names.size())];
      const bool wild = pick(3) == 0;
      const std::string levels = levelText();
      const std::string item = name + (wild ? "*" : "") + "/" + levels;
      const uint32_t bits = DebugControl::parseLevels(levels);
      switch (pick(5)) {
         case 0:
         case 1:
            Korvo::Platform::setupKorvoDebug(item.c_str());
            model.set(name, wild, bits);
            break;
         case 2:
         case 3:
            Korvo::Platform::clearKorvoDebug(item.c_str());
            model.clear(name, wild, bits);
            break;
         default:
            live.push_back(Korvo::Platform::getDebugHandler(name));
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
   for (auto& [n, l] : model.handlers) {
      if (next < live.size() && live[next]->name == n && live[next]->levels == l)
         ++next;
   }
   EXPECT_EQ(next, live.size());
   size_t exactRz = 0;
   {
      Korvo::Platform::LocoGuard guard;
      for (auto& [n, c] : *DebugControl::debugsMap_)
         exactRz += n.rfind("Rz", 0) == 0;
   }
   EXPECT_EQ(exactRz, model.exact.size());
}

TEST(DebugTest, DisplayAids) {
   EXPECT_EQ(Korvo::DisplayPointer(nullptr).toString(), "NULL");
   std::ostringstream os;
   os << 255 << " " << Korvo::DisplayPointer(reinterpret_cast<void*>(0xabc)) << " " << 255;
   EXPECT_EQ(os.str(), "255 0x0000000000000abc 255");
   std::ostringstream sub;
   sub << Korvo::DisplaySubString("abcdef", 2, 3);
   EXPECT_EQ(sub.str(), "cde");

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
   // Lines go to a file: a sanitizer's report on stderr must stay visible.
   KorvoTest::TempDir dir;
   ::setenv("TRACEFILE", dir.file("trace.log").c_str(), 1);
   Handler handler = Korvo::Platform::getDebugHandler("KorvoDebugTestThreads");
   Korvo::Platform::setupKorvoDebug("KorvoDebugTestThreads/3");
   Korvo::Locking::Lock lock;
   std::atomic<bool> stop{false};
   std::atomic<int> lines{0};
   std::vector<std::thread> threads;
   for (int t = 0; t < 2; ++t) {
      threads.emplace_back([&, t] {
         for (int i = 0; !stop.load() || i < 20; ++i) {
            KORVO_TRACE(handler, 3, "thread " << t << " line " << i);
            KORVO_FMTRACE(handler, 3, "thread {} line {}", t, i);
            KORVO_TRACE(handler, 4, "sometimes " << i);
            EXPECT_FALSE(lock.owns_lock());
            lines += 2;
         }
      });
   }
   // Until both threads have traced a while, whatever the scheduler does.
   for (int i = 0; i < 100 || lines.load() < 200; ++i) {
      Korvo::Platform::setupKorvoDebug("KorvoDebugTestThreads/4");
      Korvo::Platform::setTraceFormat(i % 2 ? "tid,level" : "handle");
      std::lock_guard<Korvo::Locking::Lock> held(lock);
      Korvo::Platform::clearKorvoDebug("KorvoDebugTestThreads/4");
   }
   stop = true;
   for (std::thread& thread : threads) {
      thread.join();
   }
   ::unsetenv("TRACEFILE");
   Korvo::Platform::setupKorvoDebug("");
   Korvo::Platform::clearTraceFormat();
   EXPECT_GE(KorvoTest::slurp(dir.file("trace.log")).size(), 200u);
   EXPECT_TRUE(handler->enabled(3));
   EXPECT_FALSE(handler->enabled(4));
}

#ifdef KORVO_FMTRACE_MISMATCH
// Compiled only by the FmtraceMismatchDoesNotCompile test, which expects the build
// to fail: the format wants two arguments and gets one.
void mismatchedTrace(const Handler& handler) {
   KORVO_FMTRACE(handler, 3, "{} and {}", 1);
}
#endif

// Environment read at load: each case runs the trace child with its own variables.
class TraceEnvTest : public ::testing::Test {
protected:
   KorvoTest::ProcessResult run(std::vector<std::string> env, std::vector<std::string> args) {
      auto full = KorvoTest::baseEnvironment();
      full.insert(full.end(), env.begin(), env.end());
      return KorvoTest::runProgram(TRACE_CHILD, args, full);
   }
};

TEST_F(TraceEnvTest, TraceSwitchesLevelsOn) {
   auto r = run({}, {"levels:KorvoTimerWheel", "levels:App"});
   EXPECT_EQ(r.out, "KorvoTimerWheel/01\nApp/\n");
   r = run({"TRACE=App/3x7"}, {"levels:App"});
   EXPECT_EQ(r.out, "App/37\n");
   r = run({"TRACE=App/*"}, {"levels:App"});
   EXPECT_EQ(r.out, "App/*\n");
   r = run({"TRACE=App"}, {"levels:App", "map"});
   EXPECT_NE(r.out.find("Specific:\n    App/\n"), std::string::npos) << r.out;
   r = run({"TRACE=Korvo*/1,KorvoTask*/5"}, {"levels:KorvoTaskGroup"});
   EXPECT_EQ(r.out, "KorvoTaskGroup/015\n");
   std::string huge;
   for (int i = 0; i < 8000; ++i)
      huge += "Big" + std::to_string(i % 7) + "/9x,";
   r = run({"TRACE=" + huge + std::string(40000, '/')}, {"levels:Big3"});
   EXPECT_EQ(r.out, "Big3/9\n");
   r = run({"TRACE=,,/,*/"}, {"levels:Junk"});
   EXPECT_EQ(r.exitCode, 0);
   EXPECT_EQ(r.out, "Junk/\n");
}

TEST_F(TraceEnvTest, TraceFormatLaysOutTheLine) {
   auto r = run({"TRACEFORMAT=pid,date"}, {"trace:KorvoT:1:hello"});
   EXPECT_TRUE(std::regex_match(r.err, std::regex(R"(\d{4}-\d\d-\d\d \d+ hello\n)"))) << r.err;
   r = run({"TRACEFORMAT="}, {"trace:KorvoT:1:", "trace:KorvoT:1:only"});
   EXPECT_EQ(r.err, "\nonly\n");
   r = run({"TRACEFORMAT=date,bogus"}, {"format"});
   EXPECT_EQ(r.err,
             "bogus is an invalid field in TRACEFORMAT\nSet TRACEFORMAT=help for more "
             "information.\n");
   EXPECT_EQ(r.out, "1 1 0 1 1 1 0 0 \n");
   r = run({"TRACEFORMAT=help"}, {"format"});
   EXPECT_EQ(r.err,
             "Usage:\n  TRACEFORMAT=field,field,...\nList of possible fields:\n  date\n  time\n"
             "  pid\n  tid\n  handle\n  level\n  line-info\n  func-name\n");
   EXPECT_EQ(r.out, "1 1 0 1 1 1 0 0 \n");
   r = run({"TRACEFORMAT=level,,handle,line-info,func-name"}, {"trace:KorvoT:1:x", "nullfile"});
   EXPECT_TRUE(std::regex_match(r.err, std::regex(R"(KorvoT 1 TraceChild\.cpp:\d+ run x\n)"
                                                  R"(KorvoChild 1 tail\n)")))
       << r.err;
   r = run({"TRACEFORMAT=time"}, {"trace:KorvoT:0:t"});
   EXPECT_TRUE(std::regex_match(r.err, std::regex(R"(\d\d:\d\d:\d\d\.[1-9]?\d* t\n)"))) << r.err;
}

TEST_F(TraceEnvTest, TraceFileKeepsReopensOrFallsBack) {
   KorvoTest::TempDir dir;
   const std::string file = dir.file("trace.log");
   auto r = run({"TRACEFORMAT=level", "TRACEFILE=" + file},
                {"trace:KorvoT:0:one", "setup", "trace:KorvoT:0:two", "unsetenv:TRACEFILE", "setup",
                 "trace:KorvoT:0:three"});
   EXPECT_EQ(KorvoTest::slurp(file), "0 one\n0 two\n");
   EXPECT_EQ(r.err, "0 three\n");
   r = run({"TRACEFORMAT=level", "TRACEFILE=" + dir.path()}, {"trace:KorvoT:0:four"});
   // Both load-time set-up calls (the default, then the environment) try the file.
   const std::string failed =
       "Error opening TRACEFILE=" + dir.path() + "\nDefaulting to std::cerr for trace output.\n";
   EXPECT_EQ(r.err, failed + failed + "0 four\n");
   r = run({"TRACEFORMAT=level", "TRACEFILE=" + std::string(5000, 'x')}, {"trace:KorvoT:0:long"});
   EXPECT_NE(r.err.find("Defaulting to std::cerr for trace output.\n0 long\n"), std::string::npos);
}

}  // namespace
