#ifndef KORVO_TESTS_UTILTESTSUPPORT_H
#define KORVO_TESTS_UTILTESTSUPPORT_H

// Shared by the utility tests: a trace handler that keeps what it is given, and
// child processes that do something and wait.

#include <Korvo/Debug.h>

#include <signal.h>
#include <sys/stat.h>

#include <functional>

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

// A fixture's handler; the library keeps shared pointers to it.
struct WithCapture : ::testing::Test {
   std::shared_ptr<CaptureHandler> capture_ = std::make_shared<CaptureHandler>();
   CaptureHandler& h_ = *capture_;
   TempDir dir_;
};

// Runs `body` in a forked child and gives back its exit code (99 when it throws).
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

// A child process that runs `setUp` and then waits to be killed.
inline pid_t holder(const std::function<void()>& setUp) {
   int ready[2];
   EXPECT_EQ(::pipe(ready), 0);
   const pid_t pid = ::fork();
   if (pid == 0) {
      setUp();
      (void)!::write(ready[1], "r", 1);
      ::pause();
   }
   char c;
   (void)!::read(ready[0], &c, 1);
   ::close(ready[0]);
   ::close(ready[1]);
   return pid;
}

inline void reap(pid_t pid) {
   ::kill(pid, SIGKILL);
   ::waitpid(pid, nullptr, 0);
}

// The type and permission bits of `path`: 040755 for a directory, for example.
inline mode_t modeOf(const std::string& path) {
   struct stat st;
   return ::stat(path.c_str(), &st) == 0 ? st.st_mode : 0;
}

}  // namespace KorvoTest

#endif
