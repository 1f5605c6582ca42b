#ifndef KORVO_TESTS_UTILTESTSUPPORT_H
#define KORVO_TESTS_UTILTESTSUPPORT_H

// Shared by the utility tests: a fixture with a trace handler and a directory, and
// child processes that hold something while the test looks.

#include <Korvo/Debug.h>

#include <signal.h>
#include <sys/stat.h>

#include <functional>

#include "TestSupport.h"

namespace KorvoTest {

// Every level on, so that every trace line is built; keeps none of them.
class QuietHandler : public Korvo::Platform::DebugHandler {
public:
   QuietHandler() : Korvo::Platform::DebugHandler("UtilTest", 0x3ffu, true) {}
   void enabledIs(unsigned, bool) override {}
   void dump(Korvo::Platform::DebugStream&, unsigned, const char*, int,
             const char*) const override {}
};

// The library keeps shared pointers to the handlers it is given.
struct UtilFixture : ::testing::Test {
   std::shared_ptr<QuietHandler> handler_ = std::make_shared<QuietHandler>();
   QuietHandler& h_ = *handler_;
   TempDir dir_;
};

// A child process that runs `setUp` and then stops until it is killed (SIGKILL).
inline pid_t holder(const std::function<void()>& setUp) {
   const pid_t pid = ::fork();
   if (pid == 0) {
      setUp();
      ::raise(SIGSTOP);
      ::_exit(0);
   }
   ::waitpid(pid, nullptr, WUNTRACED);
   return pid;
}

// The type and permission bits of `path`: 040755 for a directory, for example.
inline mode_t modeOf(const std::string& path) {
   struct stat st;
   return ::stat(path.c_str(), &st) == 0 ? st.st_mode : 0;
}

}  // namespace KorvoTest

#endif
