#ifndef KORVO_TESTS_PLATFORMTESTSUPPORT_H
#define KORVO_TESTS_PLATFORMTESTSUPPORT_H

// Helpers shared by the event-platform tests.

#include <Korvo/Debug.h>
#include <Korvo/Exception.h>
#include <Korvo/Platform.h>

#include "TestSupport.h"

#include <gtest/gtest.h>
#include <time.h>
#include <unistd.h>

#include <string>

namespace KorvoTest {

// One step of the clock libevent times its events with by default (the coarse
// monotonic clock): how far a timer may fire early or late by Korvo::time().
inline double clockStep() {
   timespec res{};
   clock_getres(CLOCK_MONOTONIC_COARSE, &res);
   return static_cast<double>(res.tv_sec) + static_cast<double>(res.tv_nsec) / 1e9;
}

// Collects what is traced on "KorvoLibevent" at `levels` while it lives, one line
// per trace as "<level> <text>".
class TraceCapture {
public:
   explicit TraceCapture(const char* levels = "9") : spec_(std::string("KorvoLibevent/") + levels) {
      Korvo::Platform::setTraceFormat("level");
      Korvo::Platform::setupKorvoDebug(spec_.c_str());
      testing::internal::CaptureStderr();
   }
   ~TraceCapture() { finish(); }
   const std::string& text() {
      finish();
      return text_;
   }

private:
   void finish() {
      if (done_) {
         return;
      }
      done_ = true;
      text_ = testing::internal::GetCapturedStderr();
      Korvo::Platform::clearKorvoDebug(spec_.c_str());
      // Levels 0 and 1 are on by default and must stay so for the other tests.
      Korvo::Platform::setupKorvoDebug("KorvoLibevent/01");
      Korvo::Platform::setTraceFormat("date,time,tid,handle,level");
   }

   std::string spec_;
   std::string text_;
   bool done_ = false;
};

// Fast-forward on for the scope (main thread only); off again afterwards.
class FastForwardOn {
public:
   FastForwardOn() { Korvo::Platform::setFastForward(true); }
   ~FastForwardOn() { Korvo::Platform::setFastForward(false); }
};

class Pipe {
public:
   Pipe() { EXPECT_EQ(::pipe(fds_), 0); }
   ~Pipe() {
      closeRead();
      closeWrite();
   }
   int readFd() const { return fds_[0]; }
   int writeFd() const { return fds_[1]; }
   void put(const char* bytes) {
      const ssize_t n = ::write(fds_[1], bytes, std::char_traits<char>::length(bytes));
      EXPECT_GT(n, 0);
   }
   void closeRead() { closeEnd(0); }
   void closeWrite() { closeEnd(1); }

private:
   void closeEnd(int i) {
      if (fds_[i] >= 0) {
         ::close(fds_[i]);
         fds_[i] = -1;
      }
   }
   int fds_[2] = {-1, -1};
};

}  // namespace KorvoTest

#endif
