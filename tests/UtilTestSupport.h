#ifndef KORVO_TESTS_UTILTESTSUPPORT_H
#define KORVO_TESTS_UTILTESTSUPPORT_H

// Shared by the utility tests: a trace handler that keeps what it is given, and
// running a piece of a test in a (possibly unprivileged) child process.

#include <grp.h>
#include <sys/stat.h>

#include <functional>
#include <memory>
#include <random>

#include "TestSupport.h"

namespace KorvoTest {

// Every level on, fixed; keeps each line as "<level>: <text>".
class CaptureHandler : public Korvo::Platform::DebugHandler {
public:
   CaptureHandler() : Korvo::Platform::DebugHandler("UtilTestCapture", 0x3ffu, true) {}
   void enabledIs(unsigned, bool) override {}
   void dump(Korvo::Platform::DebugStream& stream, unsigned level, const char*, int,
             const char*) const override {
      lines.push_back(std::to_string(level) + ": " + stream.str());
   }
   // True when a line traced at `level` holds `fragment`.
   bool has(unsigned level, const std::string& fragment) const {
      for (const std::string& line : lines)
         if (line.rfind(std::to_string(level) + ": ", 0) == 0 && line.find(fragment) != line.npos)
            return true;
      return false;
   }
   mutable std::vector<std::string> lines;
};

// A name no other test run uses at the same time.
inline std::string uniqueName(const std::string& prefix) {
   return prefix + "-" + std::to_string(::getpid()) + "-" + std::to_string(std::random_device()());
}

// Runs `body` in a forked child and gives back its exit code (128 + the signal
// when killed; 99 when `body` throws).
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

// As runInChild, with the child stripped of root's privileges first, so that file
// permissions apply to it.
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

inline mode_t permissions(const std::string& path) {
   struct stat st;
   return ::stat(path.c_str(), &st) == 0 ? (st.st_mode & 07777) : 0;
}

}  // namespace KorvoTest

#endif
