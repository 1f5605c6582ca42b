// The control contracts, through the Platform factories and doEventLoop.
#include <Korvo/Platform.h>

#include <Korvo/IntrospectionMap.h>
#include <Korvo/TaskScheduler.h>

#include "PlatformTestSupport.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cmath>
#include <csignal>
#include <functional>
#include <limits>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

using namespace Korvo::Platform;
using KorvoTest::assertionText;
using KorvoTest::Pipe;
using testing::HasSubstr;

namespace {

constexpr double infinity = std::numeric_limits<double>::infinity();

struct Timer : TimeoutHandler {
   void timeout() override {
      ++fired;
      if (onTimeout)
         onTimeout();
   }
   bool handleTimeoutException() override {
      try {
         throw;
      } catch (const int& thrown) {
         seen = &thrown;
      } catch (...) {
      }
      return handles;
   }
   std::shared_ptr<TimerControl> control = getTimerControl(this);
   std::function<void()> onTimeout;
   int fired = 0;
   bool handles = false;
   const int* seen = nullptr;
};

struct Callback : CallbackHandler {
   void callback() override {
      ++calls;
      if (onCallback)
         onCallback();
   }
   bool handleCallbackException() override { return ++exceptions, handles; }
   std::shared_ptr<CallbackControl> control = getCallbackControl(this);
   std::function<void()> onCallback;
   int calls = 0, exceptions = 0;
   bool handles = false;
};

struct FdWatcher : FdEventHandler {
   void readFdEvent(int fd) override {
      char c = 0;
      EXPECT_EQ(::read(fd, &c, 1), 1);
      got += c;
      if (onRead)
         onRead();
   }
   void writeFdEvent(int) override {
      if (++writes < rewrites)
         control->setWrites(true);
   }
   bool handleFdException(int fd) override {
      exceptionFds.push_back(fd);
      return handles;
   }
   std::shared_ptr<FdControl> control = getFdControl(this);
   std::function<void()> onRead;
   std::string got;
   int writes = 0, rewrites = 0;
   std::vector<int> exceptionFds;
   bool handles = false;
};

TEST(ControlTest, ThreadAndHandlerChecks) {
   Timer timer;
   Callback callback;
   FdWatcher watcher;
   Pipe pipe;
   const std::vector<std::function<void()>> uses = {[&] { timer.control->setTimeout(1.0); },
                                                    [&] { timer.control->delTimeout(); },
                                                    [&] { callback.control->requestCallback(); },
                                                    [&] { callback.control->cancelCallback(); },
                                                    [&] { watcher.control->setFd(pipe.readFd()); },
                                                    [&] { watcher.control->setWrites(true); },
                                                    [&] { watcher.control->delFd(); }};
   std::thread([&uses] {
      for (const auto& use : uses)
         EXPECT_THAT(assertionText(use), HasSubstr("Executing in wrong thread "));
      Korvo::auxThreadCount = 1;  // the program lets other threads share the loop's objects
      EXPECT_EQ(assertionText(uses[0]) + assertionText(uses[1]), "");
      Korvo::auxThreadCount = 0;
   }).join();
   for (const auto& use : uses)
      EXPECT_EQ(assertionText(use), "");
   const std::pair<const char*, std::function<void()>> nulls[] = {
       {"getTimerControl: null handler", [] { getTimerControl(nullptr); }},
       {"getCallbackControl: null handler", [] { getCallbackControl(nullptr); }},
       {"getFdControl: null handler", [] { getFdControl(nullptr); }},
       {"getRemoteCallbackControl: null handler", [] { getRemoteCallbackControl(nullptr); }},
       {"getSignalControl: null handler", [] { getSignalControl(nullptr, SIGUSR2); }}};
   for (const auto& [text, call] : nulls)
      EXPECT_THAT(assertionText(call), HasSubstr(text));
}

TEST(ControlTest, TimerArmsReplacesAndWithdraws) {
   Timer timer;
   EXPECT_EQ(timer.control->remainingTimeout(), infinity);
   timer.control->setTimeout(3600.0);
   EXPECT_GT(timer.control->remainingTimeout(), 3599.0);
   const double armedAt = Korvo::time();
   timer.control->setTimeout(0.02);  // replaces
   Korvo::Platform::doEventLoop();   // returns once nothing is registered any more
   EXPECT_EQ(timer.fired, 1);
   EXPECT_GE(Korvo::time() - armedAt, 0.02 - KorvoTest::clockStep());
   EXPECT_EQ(timer.control->remainingTimeout(), infinity);

   timer.control->setTimeout(-2.5);  // due at once: 0.0 left, run by the loop only
   EXPECT_EQ(timer.control->remainingTimeout(), 0.0);
   timer.control->delTimeout();
   timer.control->delTimeout();  // idle: harmless
   EXPECT_EQ(timer.control->remainingTimeout(), infinity);
   timer.control->setTimeout(infinity);  // clamped, still armed
   EXPECT_GT(timer.control->remainingTimeout(), maxDelaySeconds - 1.0);
   EXPECT_LE(timer.control->remainingTimeout(), maxDelaySeconds);
   // NaN is a mistake and leaves the pending expiry alone.
   EXPECT_THAT(assertionText([&] { timer.control->setTimeout(std::nan("")); }),
               HasSubstr("LibeventTimerControl::setTimeout: seconds is NaN"));
   EXPECT_GT(timer.control->remainingTimeout(), 1e8);

   // A handler may re-arm or destroy its own control.
   timer.onTimeout = [&] {
      if (timer.fired < 4)
         timer.control->setTimeout(0.0);
      else
         timer.control.reset();
   };
   timer.control->setTimeout(0.0);
   Korvo::Platform::doEventLoop();
   EXPECT_EQ(timer.fired, 4);
   Timer withdrawn;
   withdrawn.control->setTimeout(0.0);
   withdrawn.control.reset();
   Korvo::Platform::doEventLoop();
   EXPECT_EQ(withdrawn.fired, 0);
}

TEST(ControlDeathTest, MisuseAbortsByDefault) {
   Timer timer;
   EXPECT_DEATH(timer.control->setTimeout(std::nan("")),
                "Korvo::Assert aborting because: .*seconds is NaN");
   FdWatcher watcher;
   EXPECT_DEATH(watcher.control->setFd(-1), "Korvo::Assert aborting because: .*flags >= 0");
}

TEST(ControlTest, CallbacksCoalesceAndRunFromTheLoopOnly) {
   Callback cb, first, second;
   cb.control->requestCallback();
   cb.control->requestCallback();
   EXPECT_TRUE(cb.control->pendingCallback());
   EXPECT_EQ(cb.calls, 0);
   Korvo::Platform::doEventLoop();
   EXPECT_EQ(cb.calls, 1);
   EXPECT_FALSE(cb.control->pendingCallback());
   cb.control->requestCallback();
   cb.control->cancelCallback();
   cb.control->cancelCallback();  // none pending: harmless
   EXPECT_FALSE(cb.control->pendingCallback());
   // A request from inside the callback runs on a later pass.
   cb.onCallback = [&] {
      if (cb.calls < 5)
         cb.control->requestCallback();
   };
   cb.control->requestCallback();
   Korvo::Platform::doEventLoop();
   EXPECT_EQ(cb.calls, 5);
   // Whichever runs first destroys the other's control while it is due.
   first.onCallback = [&] { second.control.reset(); };
   second.onCallback = [&] { first.control.reset(); };
   first.control->requestCallback();
   second.control->requestCallback();
   Korvo::Platform::doEventLoop();
   EXPECT_EQ(first.calls + second.calls, 1);
}

TEST(ControlTest, HandlerExceptionsAreOfferedToTheHandler) {
   Timer timer;
   timer.onTimeout = [] { throw 42; };
   timer.control->setTimeout(0.0);
   const int* caught = nullptr;
   try {
      Korvo::Platform::doEventLoop();
   } catch (const int& thrown) {
      caught = &thrown;
   }
   EXPECT_EQ(timer.seen, caught);  // declined: the very object leaves the loop
   ASSERT_NE(caught, nullptr);

   Callback declined;
   declined.onCallback = [] { throw std::runtime_error("declined"); };
   declined.control->requestCallback();
   EXPECT_THROW(Korvo::Platform::doEventLoop(), std::runtime_error);
   EXPECT_EQ(declined.exceptions, 1);
   EXPECT_FALSE(declined.control->pendingCallback());

   // Handled: the loop goes on.
   Callback handled;
   handled.handles = timer.handles = true;
   handled.onCallback = [] { throw std::runtime_error("callback"); };
   timer.control->setTimeout(0.0);
   handled.control->requestCallback();
   KorvoTest::TraceCapture traces;
   Korvo::Platform::doEventLoop();
   EXPECT_EQ(timer.fired, 2);
   EXPECT_THAT(traces.text(), HasSubstr("Timeout notification exception was handled"));
   EXPECT_THAT(traces.text(), HasSubstr("Callback notification exception was handled"));

   Pipe pipe;
   FdWatcher watcher;
   watcher.onRead = [] { throw std::runtime_error("read"); };
   watcher.control->setFd(pipe.readFd());
   pipe.put("ab");
   EXPECT_THROW(Korvo::Platform::doEventLoop(), std::runtime_error);
   watcher.handles = true;  // handled: the persistent read goes on until withdrawn
   watcher.onRead = [&] {
      watcher.control->delFd();
      throw std::runtime_error("read");
   };
   Korvo::Platform::doEventLoop();
   EXPECT_EQ(watcher.exceptionFds, std::vector<int>(2, pipe.readFd()));
}

TEST(ControlTest, FdWatches) {
   Pipe pipe;
   FdWatcher watcher;
   EXPECT_EQ(watcher.control->getFd(), -1);
   watcher.control->setFd(pipe.readFd());  // alone: persistent reads, non-blocking
   EXPECT_EQ(watcher.control->getFd(), pipe.readFd());
   EXPECT_NE(fcntl(pipe.readFd(), F_GETFL) & O_NONBLOCK, 0);
   watcher.onRead = [&] {
      if (watcher.got.size() == 3)
         watcher.control->delFd();
   };
   pipe.put("xyz");
   Korvo::Platform::doEventLoop();
   EXPECT_EQ(watcher.got, "xyz");
   EXPECT_EQ(watcher.control->getFd(), -1);
   EXPECT_NE(fcntl(pipe.readFd(), F_GETFD), -1);  // never closed by the control

   // Interests set before the descriptor apply at once; clearEvents keeps the descriptor.
   watcher.control->setReads(false);
   pipe.put("a");
   watcher.control->setFd(pipe.readFd());
   Korvo::Platform::doEventLoop();  // nothing watched
   watcher.control->setReads(true);
   watcher.onRead = [&] { watcher.control->clearEvents(); };
   Korvo::Platform::doEventLoop();
   EXPECT_EQ(watcher.got, "xyza");
   EXPECT_EQ(watcher.control->getFd(), pipe.readFd());
   watcher.control.reset();
   EXPECT_NE(fcntl(pipe.readFd(), F_GETFD), -1);

   // Writes are one-shot.
   FdWatcher writer;
   writer.rewrites = 3;
   writer.control->setReads(false);
   writer.control->setWrites(true);
   writer.control->setFd(pipe.writeFd());
   Korvo::Platform::doEventLoop();
   EXPECT_EQ(writer.writes, 3);

   const int pathFd = ::open("/tmp", O_PATH);  // has flags but cannot take O_NONBLOCK
   EXPECT_THAT(assertionText([&] { writer.control->setFd(-1); }), HasSubstr("flags >= 0"));
   EXPECT_THAT(assertionText([&] { writer.control->setFd(pathFd); }), HasSubstr("result == 0"));
   ::close(pathFd);
   char path[] = "/tmp/korvoFdControlXXXXXX";
   const int fd = ::mkstemp(path);
   ::unlink(path);
   KorvoTest::TraceCapture traces("1");
   writer.control->setFd(fd);  // epoll takes no regular files
   EXPECT_THAT(traces.text(), HasSubstr("cannot watch fd " + std::to_string(fd)));
   Korvo::Platform::doEventLoop();  // nothing registered: returns at once
   writer.control->delFd();
   ::close(fd);
}

TEST(ControlTest, ValuePrinterUsesTheRegisteredPrinterElseTheHexDump) {
   const unsigned char bytes[] = {0xde, 0xad, 0xbe, 0xef, 0x01};
   auto printer = getValuePrinter("KorvoTest::Opaque", 4);
   EXPECT_EQ(printer->typeName() + std::to_string(printer->size()), "KorvoTest::Opaque4");
   EXPECT_EQ(printer->toString(bytes), "de ad be ef");
   Korvo::IntrospectionMap::printerIs("KorvoTest::Opaque", [](const void* v, int size) {
      return std::to_string(*static_cast<const unsigned char*>(v)) + "/" + std::to_string(size);
   });
   EXPECT_EQ(printer->toString(bytes), "222/4");
   // A printer with nothing to say falls back to the dump.
   Korvo::IntrospectionMap::printerIs("KorvoTest::Opaque", [](const void*, int) { return ""; });
   EXPECT_EQ(printer->toString(bytes), "de ad be ef");
   Korvo::IntrospectionMap::printerIs("KorvoTest::Opaque", nullptr);
}

TEST(ControlTest, ExitEventLoopReturnsFromInsideAHandlerAlsoUnderFastForward) {
   Korvo::Platform::exitEventLoop();  // outside a loop: nothing
   KorvoTest::FastForwardOn fastForward;
   Timer tick;
   tick.onTimeout = [&] {
      if (tick.fired == 3)
         Korvo::Platform::exitEventLoop();
      tick.control->setTimeout(1.0);
   };
   tick.control->setTimeout(1.0);
   const double start = Korvo::time();
   Korvo::Platform::doEventLoop(100.0);  // no further jump after the exit
   EXPECT_EQ(tick.fired, 3);
   EXPECT_LT(Korvo::time() - start, 4.0);
   Korvo::Platform::doEventLoop(2.5);  // the next call runs normally
   EXPECT_EQ(tick.fired, 5);
}

struct Remote : CallbackHandler {
   void callback() override { onCallback(); }
   std::shared_ptr<RemoteCallbackControl> control = getRemoteCallbackControl(this);
   std::function<void()> onCallback;
};

TEST(ControlTest, RemoteRequestsRunOnTheLoopSeeTheirWritesAndCoalesce) {
   Remote remote;
   // Ping-pong: each plain write made before a request is seen by the callback.
   int value = 0;
   std::atomic<int> acked{0};
   remote.onCallback = [&] {
      const int got = value;  // the pinger writes again once it is acknowledged
      if (got == 200)
         Korvo::Platform::exitEventLoop();
      acked.store(got, std::memory_order_release);
   };
   std::thread pinger([&] {
      for (int i = 1; i <= 200; ++i) {
         value = i;
         remote.control->requestCallback();
         while (acked.load(std::memory_order_acquire) != i)
            std::this_thread::yield();
      }
   });
   Korvo::Platform::doEventLoop();
   pinger.join();

   // Blind requests from four threads: at least one run, the last one seen.
   std::atomic<int> done{0};
   int calls = 0;
   remote.onCallback = [&] {
      ++calls;
      if (done.load(std::memory_order_acquire) == 4)
         Korvo::Platform::exitEventLoop();
   };
   std::vector<std::thread> threads;
   for (int t = 0; t < 4; ++t) {
      threads.emplace_back([&] {
         for (int i = 0; i < 2000; ++i)
            EXPECT_TRUE(remote.control->tryRequestCallback());
         done.fetch_add(1, std::memory_order_acq_rel);
         remote.control->requestCallback();
      });
   }
   Korvo::Platform::doEventLoop();
   for (std::thread& t : threads)
      t.join();
   EXPECT_GE(calls, 1);
   EXPECT_FALSE(remote.control->pendingCallback());
   remote.control->requestCallback();
   remote.control->cancelCallback();  // a cancelled request does not run
   Korvo::Platform::doEventLoop(0.02);
   EXPECT_FALSE(remote.control->pendingCallback());

   // The loop's thread has ended: requests are refused, nothing breaks.
   std::shared_ptr<RemoteCallbackControl> orphan;
   std::thread([&] { orphan = getRemoteCallbackControl(&remote); }).join();
   testing::internal::CaptureStderr();
   EXPECT_FALSE(orphan->tryRequestCallback());
   orphan->requestCallback();
   EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr("dropped: its thread has ended"));
   EXPECT_FALSE(orphan->pendingCallback());
}

struct SignalWatcher : SignalHandler {
   explicit SignalWatcher(int signo) : control(getSignalControl(this, signo)) {}
   void signalReceived(int signo) override {
      received.push_back(signo);
      if (throws)
         throw signo;
      Korvo::Platform::exitEventLoop();
   }
   std::shared_ptr<SignalControl> control;
   std::vector<int> received;
   bool throws = false;
};

TEST(ControlTest, SignalsAreDeliveredOnTheLoopAndBadRequestsFail) {
   Timer guard;  // ends the loop should the signal never come
   guard.onTimeout = [] { Korvo::Platform::exitEventLoop(); };
   guard.control->setTimeout(30.0);
   {
      SignalWatcher usr1(SIGUSR1);
      EXPECT_EQ(usr1.control->signalNumber(), SIGUSR1);
      ASSERT_EQ(::kill(::getpid(), SIGUSR1), 0);
      Korvo::Platform::doEventLoop();
      EXPECT_EQ(usr1.received, std::vector<int>{SIGUSR1});
      usr1.throws = true;  // a declined exception leaves doEventLoop()
      ASSERT_EQ(::kill(::getpid(), SIGUSR1), 0);
      EXPECT_THROW(Korvo::Platform::doEventLoop(), int);

      const std::pair<int, const char*> bad[] = {
          {0, "invalid signal 0"},       {-1, "invalid signal -1"},
          {NSIG, "invalid signal "},     {SIGKILL, "cannot be caught"},
          {SIGSTOP, "cannot be caught"}, {SIGUSR1, "already has a control"}};
      for (const auto& [signo, message] : bad)
         EXPECT_THAT(assertionText([signo = signo] { SignalWatcher{signo}; }), HasSubstr(message));
      std::thread([&] {
         EXPECT_THAT(assertionText([] { SignalWatcher{SIGUSR2}; }),
                     HasSubstr("signals are watched by another thread's loop"));
      }).join();
   }
   // Destroyed: the disposition is back to what it was, and the signal free again.
   struct sigaction action = {};
   ASSERT_EQ(::sigaction(SIGUSR1, nullptr, &action), 0);
   EXPECT_EQ(action.sa_handler, SIG_DFL);
   SignalWatcher again(SIGUSR1);
}

}  // namespace
