#ifndef KORVO_TESTS_UTILTESTSUPPORT_H
#define KORVO_TESTS_UTILTESTSUPPORT_H

// Shared by the utility tests: a trace handler that keeps what it is given,
// scratch directories, and running a piece of a test in a child process.

#include <Korvo/Debug.h>
#include <Korvo/Exception.h>

#include "TestSupport.h"

#include <grp.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace KorvoTest {

// Every level on, fixed; keeps each message with its level.
class CaptureHandler : public Korvo::Platform::DebugHandler {
public:
   struct Line {
      unsigned level;
      std::string text;
   };

   static std::shared_ptr<CaptureHandler> make() { return std::make_shared<CaptureHandler>(); }

   CaptureHandler() : Korvo::Platform::DebugHandler("UtilTestCapture", 0x3ffu, true) {}

   void enabledIs(unsigned level, bool on) override {
      const uint32_t bit = 1u << (level % 32);
      levels = on ? (levels | bit) : (levels & ~bit);
   }
   void dump(Korvo::Platform::DebugStream& stream, unsigned level, const char*, int,
             const char*) const override {
      lines_.push_back({level, stream.str()});
   }

   // The first line holding `fragment`, or null.
   const Line* find(const std::string& fragment) const {
      for (const Line& line : lines_) {
         if (line.text.find(fragment) != std::string::npos) {
            return &line;
         }
      }
      return nullptr;
   }
   bool has(const std::string& fragment) const { return find(fragment) != nullptr; }
   // True when a line holding `fragment` was traced at `level`.
   bool has(unsigned level, const std::string& fragment) const {
      for (const Line& line : lines_) {
         if (line.level == level && line.text.find(fragment) != std::string::npos) {
            return true;
         }
      }
      return false;
   }
   size_t count(const std::string& fragment) const {
      size_t n = 0;
      for (const Line& line : lines_) {
         n += line.text.find(fragment) != std::string::npos;
      }
      return n;
   }
   const std::vector<Line>& lines() const { return lines_; }
   void clear() { lines_.clear(); }
   // All lines, for failure messages.
   std::string all() const {
      std::string out;
      for (const Line& line : lines_) {
         out += std::to_string(line.level) + ": " + line.text + "\n";
      }
      return out;
   }

private:
   mutable std::vector<Line> lines_;
};

// A name no other test run uses at the same time: prefix, pid and a random part.
inline std::string uniqueName(const std::string& prefix) {
   static std::atomic<unsigned> serial{0};
   std::random_device random;
   return prefix + "-" + std::to_string(::getpid()) + "-" + std::to_string(random()) + "-" +
          std::to_string(serial++);
}

// Runs `body` in a forked child and gives back its exit code; a child killed by
// a signal gives 128 + the signal. An exception escaping `body` gives 99.
inline int runInChild(const std::function<int()>& body) {
   const pid_t pid = ::fork();
   if (pid == 0) {
      int code = 99;
      try {
         code = body();
      } catch (...) {
      }
      ::_exit(code);
   }
   int status = 0;
   ::waitpid(pid, &status, 0);
   return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// Exit code of a child that chose not to run (no privilege to test with).
constexpr int childSkipped = 77;

// As runInChild, with the child stripped of root's privileges first (when it has
// them), so that file permissions apply to it.
inline int runUnprivileged(const std::function<int()>& body) {
   return runInChild([&] {
      if (::geteuid() == 0 &&
          (::setgroups(0, nullptr) != 0 || ::setresgid(65534, 65534, 65534) != 0 ||
           ::setresuid(65534, 65534, 65534) != 0)) {
         return childSkipped;
      }
      return body();
   });
}

inline bool isDirectory(const std::string& path) {
   struct stat st;
   return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

inline mode_t permissions(const std::string& path) {
   struct stat st;
   return ::stat(path.c_str(), &st) == 0 ? (st.st_mode & 07777) : 0;
}

// How many descriptors this process has open.
inline size_t openFdCount() {
   size_t n = 0;
   for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
      ++n;
   }
   return n;
}

}  // namespace KorvoTest

#endif
