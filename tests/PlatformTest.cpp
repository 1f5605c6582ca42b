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
#include <limits>
#include <stdexcept>
#include <thread>

using namespace Korvo::Platform;
using KorvoTest::assertionText;
using KorvoTest::Handler;
using KorvoTest::Pipe;
using testing::HasSubstr;

namespace {

constexpr double infinity = std::numeric_limits<double>::infinity();

// Declines or handles what its calls throw; notes what it was offered.
struct Thrower : Handler, FdEventHandler {
   bool handleTimeoutException() override { return offered(); }
   bool handleCallbackException() override { return offered(); }
   bool handleFdException(int fd) override { return fds.push_back(fd), offered(); }
   bool offered() {
      try {
         throw;
      } catch (const int& thrown) {
         seen = &thrown;
      } catch (...) {
      }
      return handles;
   }
   void readFdEvent(int fd) override {
      char c = 0;
      EXPECT_EQ(::read(fd, &c, 1), 1);
      got += c;
      called();
   }
   void writeFdEvent(int) override { called(); }
   std::shared_ptr<FdControl> fdControl = getFdControl(this);
   std::vector<int> fds;
   std::string got;
   const int* seen = nullptr;
   bool handles = false;
};

TEST(ControlTest, ThreadAndHandlerChecks) {
   Thrower h;
   auto timer = getTimerControl(&h);
   auto callback = getCallbackControl(&h);
   Pipe pipe;
   const std::vector<std::function<void()>> uses = {[&] { timer->setTimeout(1.0); },
                                                    [&] { timer->delTimeout(); },
                                                    [&] { callback->requestCallback(); },
                                                    [&] { callback->cancelCallback(); },
                                                    [&] { h.fdControl->setFd(pipe.readFd()); },
                                                    [&] { h.fdControl->setWrites(true); },
                                                    [&] { h.fdControl->delFd(); }};
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

TEST(ControlTest, TimersArmReplaceAndWithdraw) {
   Handler h;
   auto timer = getTimerControl(&h);
   EXPECT_EQ(timer->remainingTimeout(), infinity);
   timer->setTimeout(3600.0);
   EXPECT_GT(timer->remainingTimeout(), 3599.0);
   const double armedAt = Korvo::time();
   timer->setTimeout(0.02);  // replaces
   doEventLoop();            // returns once nothing is registered any more
   EXPECT_EQ(h.calls(), 1);
   EXPECT_GE(h.at[0] - armedAt, 0.02 - KorvoTest::clockStep());
   EXPECT_EQ(timer->remainingTimeout(), infinity);

   timer->setTimeout(-2.5);  // due at once: 0.0 left, run by the loop only
   EXPECT_EQ(timer->remainingTimeout(), 0.0);
   timer->delTimeout();
   timer->delTimeout();  // idle: harmless
   EXPECT_EQ(timer->remainingTimeout(), infinity);
   timer->setTimeout(infinity);  // clamped, still armed
   EXPECT_GT(timer->remainingTimeout(), maxDelaySeconds - 1.0);
   EXPECT_LE(timer->remainingTimeout(), maxDelaySeconds);
   // NaN is a mistake and leaves the pending expiry alone.
   EXPECT_THAT(assertionText([&] { timer->setTimeout(std::nan("")); }),
               HasSubstr("LibeventTimerControl::setTimeout: seconds is NaN"));
   EXPECT_GT(timer->remainingTimeout(), 1e8);

   // A handler may re-arm or destroy its own control; a destroyed control is withdrawn.
   h.then = [&] { h.calls() < 4 ? timer->setTimeout(0.0) : timer.reset(); };
   timer->setTimeout(0.0);
   doEventLoop();
   EXPECT_EQ(h.calls(), 4);
   timer = getTimerControl(&h);
   timer->setTimeout(0.0);
   timer.reset();
   doEventLoop();
   EXPECT_EQ(h.calls(), 4);
}

TEST(ControlDeathTest, MisuseAbortsByDefault) {
   Thrower h;
   EXPECT_DEATH(getTimerControl(&h)->setTimeout(std::nan("")),
                "Korvo::Assert aborting because: .*seconds is NaN");
   EXPECT_DEATH(h.fdControl->setFd(-1), "Korvo::Assert aborting because: .*flags >= 0");
}

TEST(ControlTest, CallbacksCoalesceAndRunFromTheLoopOnly) {
   Handler h, first, second;
   auto cb = getCallbackControl(&h);
   cb->requestCallback();
   cb->requestCallback();
   EXPECT_TRUE(cb->pendingCallback());
   EXPECT_EQ(h.calls(), 0);
   doEventLoop();
   EXPECT_EQ(h.calls(), 1);
   EXPECT_FALSE(cb->pendingCallback());
   cb->requestCallback();
   cb->cancelCallback();
   cb->cancelCallback();  // none pending: harmless
   EXPECT_FALSE(cb->pendingCallback());
   h.then = [&] {  // a request from inside the callback runs on a later pass
      if (h.calls() < 5)
         cb->requestCallback();
   };
   cb->requestCallback();
   doEventLoop();
   EXPECT_EQ(h.calls(), 5);
   // Whichever runs first destroys the other's control while it is due.
   auto cb1 = getCallbackControl(&first), cb2 = getCallbackControl(&second);
   first.then = [&] { cb2.reset(); };
   second.then = [&] { cb1.reset(); };
   cb1->requestCallback();
   cb2->requestCallback();
   doEventLoop();
   EXPECT_EQ(first.calls() + second.calls(), 1);
}

TEST(ControlTest, HandlerExceptionsAreOfferedToTheHandler) {
   Thrower h;
   auto timer = getTimerControl(&h);
   auto callback = getCallbackControl(&h);
   h.then = [] { throw 42; };
   timer->setTimeout(0.0);
   const int* caught = nullptr;
   try {
      doEventLoop();
   } catch (const int& thrown) {
      caught = &thrown;
   }
   EXPECT_EQ(h.seen, caught);  // declined: the very object leaves the loop
   ASSERT_NE(caught, nullptr);
   callback->requestCallback();
   EXPECT_THROW(doEventLoop(), int);
   EXPECT_FALSE(callback->pendingCallback());

   h.handles = true;  // handled: the loop goes on
   timer->setTimeout(0.0);
   callback->requestCallback();
   KorvoTest::TraceCapture traces;
   doEventLoop();
   const std::string text = traces.text();
   EXPECT_EQ(h.calls(), 4);
   EXPECT_THAT(text, HasSubstr("Timeout notification exception was handled"));
   EXPECT_THAT(text, HasSubstr("Callback notification exception was handled"));

   Pipe pipe;
   h.handles = false;
   h.fdControl->setFd(pipe.readFd());
   pipe.put("ab");
   EXPECT_THROW(doEventLoop(), int);
   h.handles = true;  // handled: the persistent read goes on until withdrawn
   h.then = [&] {
      h.fdControl->delFd();
      throw 42;
   };
   doEventLoop();
   EXPECT_EQ(h.fds, std::vector<int>(2, pipe.readFd()));
}

TEST(ControlTest, FdWatches) {
   Pipe pipe;
   Thrower h;
   auto& fd = h.fdControl;
   EXPECT_EQ(fd->getFd(), -1);
   fd->setFd(pipe.readFd());  // alone: persistent reads, non-blocking
   EXPECT_EQ(fd->getFd(), pipe.readFd());
   EXPECT_NE(fcntl(pipe.readFd(), F_GETFL) & O_NONBLOCK, 0);
   h.then = [&] {
      if (h.got.size() == 3)
         fd->delFd();
   };
   pipe.put("xyz");
   doEventLoop();
   EXPECT_EQ(h.got, "xyz");
   EXPECT_EQ(fd->getFd(), -1);
   // Interests set before the descriptor apply at once; clearEvents keeps the descriptor.
   fd->setReads(false);
   pipe.put("a");
   fd->setFd(pipe.readFd());
   doEventLoop();  // nothing watched
   fd->setReads(true);
   h.then = [&] { fd->clearEvents(); };
   doEventLoop();
   EXPECT_EQ(h.got, "xyza");
   EXPECT_EQ(fd->getFd(), pipe.readFd());
   fd.reset();
   EXPECT_NE(fcntl(pipe.readFd(), F_GETFD), -1);  // never closed by the control

   Thrower writer;  // writes are one-shot
   writer.then = [&] {
      if (writer.calls() < 3)
         writer.fdControl->setWrites(true);
   };
   writer.fdControl->setReads(false);
   writer.fdControl->setWrites(true);
   writer.fdControl->setFd(pipe.writeFd());
   doEventLoop();
   EXPECT_EQ(writer.calls(), 3);

   Thrower bad;
   const int pathFd = ::open("/tmp", O_PATH);  // has flags but cannot take O_NONBLOCK
   EXPECT_THAT(assertionText([&] { bad.fdControl->setFd(-1); }), HasSubstr("flags >= 0"));
   EXPECT_THAT(assertionText([&] { bad.fdControl->setFd(pathFd); }), HasSubstr("result == 0"));
   ::close(pathFd);
   char path[] = "/tmp/korvoFdControlXXXXXX";
   const int file = ::mkstemp(path);
   ::unlink(path);
   KorvoTest::TraceCapture traces("1");
   bad.fdControl->setFd(file);  // epoll takes no regular files
   EXPECT_THAT(traces.text(), HasSubstr("cannot watch fd " + std::to_string(file)));
   doEventLoop();  // nothing registered: returns at once
   bad.fdControl->delFd();
   ::close(file);
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
   exitEventLoop();  // outside a loop: nothing
   KorvoTest::FastForwardOn fastForward;
   Handler h;
   auto tick = getTimerControl(&h);
   h.then = [&] {
      if (h.calls() == 3)
         exitEventLoop();
      tick->setTimeout(1.0);
   };
   tick->setTimeout(1.0);
   const double start = Korvo::time();
   doEventLoop(100.0);  // no further jump after the exit
   EXPECT_EQ(h.calls(), 3);
   EXPECT_LT(Korvo::time() - start, 4.0);
   doEventLoop(2.5);  // the next call runs normally
   EXPECT_EQ(h.calls(), 5);
}

TEST(ControlTest, RemoteRequestsRunOnTheLoopSeeTheirWritesAndCoalesce) {
   Handler h;
   auto remote = getRemoteCallbackControl(&h);
   // Ping-pong: each plain write made before a request is seen by the callback.
   int value = 0;
   std::atomic<int> acked{0};
   h.then = [&] {
      const int got = value;  // the pinger writes again once it is acknowledged
      if (got == 200)
         exitEventLoop();
      acked.store(got, std::memory_order_release);
   };
   std::thread pinger([&] {
      for (int i = 1; i <= 200; ++i) {
         value = i;
         remote->requestCallback();
         while (acked.load(std::memory_order_acquire) != i)
            std::this_thread::yield();
      }
   });
   doEventLoop();
   pinger.join();

   // Blind requests from four threads: the last one is seen.
   std::atomic<int> done{0};
   h.then = [&] {
      if (done.load(std::memory_order_acquire) == 4)
         exitEventLoop();
   };
   std::vector<std::thread> threads;
   for (int t = 0; t < 4; ++t) {
      threads.emplace_back([&] {
         for (int i = 0; i < 2000; ++i)
            EXPECT_TRUE(remote->tryRequestCallback());
         done.fetch_add(1, std::memory_order_acq_rel);
         remote->requestCallback();
      });
   }
   doEventLoop();
   for (std::thread& t : threads)
      t.join();
   remote->requestCallback();
   remote->cancelCallback();  // a cancelled request does not run
   const int calls = h.calls();
   doEventLoop(0.02);
   EXPECT_EQ(h.calls(), calls);
   EXPECT_FALSE(remote->pendingCallback());

   // The loop's thread has ended: requests are refused, nothing breaks.
   std::shared_ptr<RemoteCallbackControl> orphan;
   std::thread([&] { orphan = getRemoteCallbackControl(&h); }).join();
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
      exitEventLoop();
   }
   std::shared_ptr<SignalControl> control;
   std::vector<int> received;
   bool throws = false;
};

TEST(ControlTest, SignalsAreDeliveredOnTheLoopAndBadRequestsFail) {
   Handler guard;  // ends the loop should the signal never come
   guard.then = [] { exitEventLoop(); };
   auto guardTimer = getTimerControl(&guard);
   guardTimer->setTimeout(30.0);
   {
      SignalWatcher usr1(SIGUSR1);
      EXPECT_EQ(usr1.control->signalNumber(), SIGUSR1);
      ASSERT_EQ(::kill(::getpid(), SIGUSR1), 0);
      doEventLoop();
      EXPECT_EQ(usr1.received, std::vector<int>{SIGUSR1});
      usr1.throws = true;  // a declined exception leaves doEventLoop()
      ASSERT_EQ(::kill(::getpid(), SIGUSR1), 0);
      EXPECT_THROW(doEventLoop(), int);
      const std::pair<int, const char*> bad[] = {
          {0, "invalid signal 0"},       {-1, "invalid signal -1"},
          {NSIG, "invalid signal "},     {SIGKILL, "cannot be caught"},
          {SIGSTOP, "cannot be caught"}, {SIGUSR1, "already has a control"}};
      for (const auto& [signo, message] : bad)
         EXPECT_THAT(assertionText([signo = signo] { SignalWatcher{signo}; }), HasSubstr(message));
      std::thread([] {
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
