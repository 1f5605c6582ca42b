#ifndef KORVO_TESTS_PLATFORMTESTSUPPORT_H
#define KORVO_TESTS_PLATFORMTESTSUPPORT_H

// Helpers shared by the event-platform tests.

#include <Korvo/Debug.h>
#include <Korvo/Platform.h>

#include "TestSupport.h"

#include <gtest/gtest.h>
#include <time.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <vector>

namespace KorvoTest {

// One step of the clock libevent times its events with by default (the coarse
// monotonic clock): how far a timer may fire early or late by Korvo::time().
inline double clockStep() {
   timespec res{};
   clock_getres(CLOCK_MONOTONIC_COARSE, &res);
   return static_cast<double>(res.tv_sec) + static_cast<double>(res.tv_nsec) / 1e9;
}

// A client of every control: notes by Korvo::time() when each call came, then runs `then`
// (which may throw, re-arm or destroy its control). A read takes one byte into `got`.
struct Handler : Korvo::Platform::TimeoutHandler,
                 Korvo::Platform::CallbackHandler,
                 Korvo::Platform::FdEventHandler {
   void timeout() override { called(); }
   void callback() override { called(); }
   void readFdEvent(int fd) override {
      char c = 0;
      EXPECT_EQ(::read(fd, &c, 1), 1);
      got += c;
      called();
   }
   void writeFdEvent(int) override { called(); }
   void called() {
      at.push_back(Korvo::time());
      if (then)
         then();
   }
   int calls() const { return static_cast<int>(at.size()); }
   std::function<void()> then;
   std::vector<double> at;
   std::string got;
};

// What `call` traces on "KorvoLibevent" at `levels`, one line per trace as "<level> <text>".
template <typename Call>
std::string traced(const std::string& levels, Call&& call) {
   Korvo::Platform::setTraceFormat("level");
   Korvo::Platform::setupKorvoDebug(("KorvoLibevent/" + levels).c_str());
   testing::internal::CaptureStderr();
   call();
   const std::string text = testing::internal::GetCapturedStderr();
   Korvo::Platform::clearKorvoDebug(("KorvoLibevent/" + levels).c_str());
   Korvo::Platform::setupKorvoDebug("KorvoLibevent/01");  // the defaults
   Korvo::Platform::setTraceFormat("date,time,tid,handle,level");
   return text;
}

// Fast-forward on for the scope (main thread only); off again afterwards.
struct FastForwardOn {
   FastForwardOn() { Korvo::Platform::setFastForward(true); }
   ~FastForwardOn() { Korvo::Platform::setFastForward(false); }
};

struct Pipe {
   Pipe() { EXPECT_EQ(::pipe(fds_), 0); }
   ~Pipe() { ::close(fds_[0]), ::close(fds_[1]); }
   int readFd() const { return fds_[0]; }
   int writeFd() const { return fds_[1]; }
   void put(const std::string& bytes) {
      EXPECT_EQ(::write(fds_[1], bytes.data(), bytes.size()), ssize_t(bytes.size()));
   }
   int fds_[2] = {-1, -1};
};

}  // namespace KorvoTest

#endif
