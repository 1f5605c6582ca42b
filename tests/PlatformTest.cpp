// The control contracts, through the Platform factories and doEventLoop.
#include <Korvo/Platform.h>

#include <Korvo/IntrospectionMap.h>
#include <Korvo/TaskScheduler.h>

#include "PlatformTestSupport.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <functional>
#include <limits>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

using Korvo::Platform::CallbackControl;
using Korvo::Platform::FdControl;
using Korvo::Platform::TimerControl;
using KorvoTest::assertionText;
using KorvoTest::Pipe;
using testing::HasSubstr;

namespace {

constexpr double infinity = std::numeric_limits<double>::infinity();

struct Marker {
   int id;
};

class Timer : public Korvo::Platform::TimeoutHandler {
public:
   Timer() : control(Korvo::Platform::getTimerControl(this)) {}
   void timeout() override {
      ++fired;
      firedAt.push_back(Korvo::time());
      if (onTimeout) {
         onTimeout();
      }
   }
   bool handleTimeoutException() override {
      ++exceptions;
      try {
         throw;
      } catch (const Marker& m) {
         seen = &m;
      } catch (...) {
      }
      return handles;
   }

   std::shared_ptr<TimerControl> control;
   std::function<void()> onTimeout;
   int fired = 0;
   std::vector<double> firedAt;
   int exceptions = 0;
   bool handles = false;
   const Marker* seen = nullptr;
};

class Callback : public Korvo::Platform::CallbackHandler {
public:
   Callback() : control(Korvo::Platform::getCallbackControl(this)) {}
   void callback() override {
      ++calls;
      if (onCallback) {
         onCallback();
      }
   }
   bool handleCallbackException() override {
      ++exceptions;
      return handles;
   }

   std::shared_ptr<CallbackControl> control;
   std::function<void()> onCallback;
   int calls = 0;
   int exceptions = 0;
   bool handles = false;
};

class FdWatcher : public Korvo::Platform::FdEventHandler {
public:
   FdWatcher() : control(Korvo::Platform::getFdControl(this)) {}
   void readFdEvent(int fd) override {
      readFds.push_back(fd);
      if (onRead) {
         onRead(fd);
      }
   }
   void writeFdEvent(int fd) override {
      writeFds.push_back(fd);
      if (onWrite) {
         onWrite(fd);
      }
   }
   bool handleFdException(int fd) override {
      exceptionFds.push_back(fd);
      return handles;
   }

   std::shared_ptr<FdControl> control;
   std::function<void(int)> onRead;
   std::function<void(int)> onWrite;
   std::vector<int> readFds;
   std::vector<int> writeFds;
   std::vector<int> exceptionFds;
   bool handles = false;
};

char readByte(int fd) {
   char c = 0;
   EXPECT_EQ(::read(fd, &c, 1), 1);
   return c;
}

// ---- Every control.

TEST(ControlThreadTest, UseFromAnotherThreadAndNullHandlersFail) {
   Timer timer;
   Callback callback;
   FdWatcher watcher;
   Pipe pipe;
   const std::vector<std::function<void()>> uses = {
       [&] { timer.control->setTimeout(1.0); },
       [&] { timer.control->delTimeout(); },
       [&] { callback.control->requestCallback(); },
       [&] { callback.control->cancelCallback(); },
       [&] { watcher.control->setFd(pipe.readFd()); },
       [&] { watcher.control->setWrites(true); },
       [&] { watcher.control->delFd(); },
   };
   std::thread([&uses] {
      for (size_t i = 0; i < uses.size(); ++i) {
         EXPECT_THAT(assertionText(uses[i]), HasSubstr("Executing in wrong thread ")) << i;
      }
      // The embedding program's switch for threads that share the loop's objects.
      Korvo::auxThreadCount = 1;
      EXPECT_EQ(assertionText(uses[0]), "");
      EXPECT_EQ(assertionText(uses[1]), "");
      Korvo::auxThreadCount = 0;
   }).join();
   for (const auto& use : uses) {
      EXPECT_EQ(assertionText(use), "");
   }

   EXPECT_THAT(assertionText([] { Korvo::Platform::getTimerControl(nullptr); }),
               HasSubstr("getTimerControl: null handler"));
   EXPECT_THAT(assertionText([] { Korvo::Platform::getCallbackControl(nullptr); }),
               HasSubstr("getCallbackControl: null handler"));
   EXPECT_THAT(assertionText([] { Korvo::Platform::getFdControl(nullptr); }),
               HasSubstr("getFdControl: null handler"));
}

// ---- Timer control.

TEST(TimerControlTest, RemainingTimeoutFollowsTheTimersState) {
   Timer timer;
   EXPECT_EQ(timer.control->remainingTimeout(), infinity);

   timer.control->setTimeout(5.0);
   const double remaining = timer.control->remainingTimeout();
   EXPECT_LE(remaining, 5.0);
   EXPECT_GT(remaining, 4.0);

   timer.control->delTimeout();
   EXPECT_EQ(timer.control->remainingTimeout(), infinity);
   timer.control->delTimeout();  // idle: harmless
   EXPECT_EQ(timer.control->remainingTimeout(), infinity);

   // Due at once but not run yet: 0.0, however long ago the expiry passed.
   timer.control->setTimeout(0.0);
   EXPECT_EQ(timer.control->remainingTimeout(), 0.0);
   timer.control->setTimeout(0.000001);
   ::usleep(static_cast<useconds_t>((KorvoTest::clockStep() + 0.001) * 1e6));
   EXPECT_EQ(timer.control->remainingTimeout(), 0.0);

   Korvo::Platform::doEventLoop();
   EXPECT_EQ(timer.fired, 1);
   EXPECT_EQ(timer.control->remainingTimeout(), infinity);
}

TEST(TimerControlTest, FiresOnceAfterItsDelay) {
   Timer timer;
   const double armedAt = Korvo::time();
   timer.control->setTimeout(0.02);
   Korvo::Platform::doEventLoop();  // returns once nothing is registered any more
   ASSERT_EQ(timer.fired, 1);
   EXPECT_GE(timer.firedAt[0] - armedAt, 0.02 - KorvoTest::clockStep());
}

TEST(TimerControlTest, ArmingAgainReplacesThePendingExpiry) {
   Timer timer;
   timer.control->setTimeout(3600.0);
   timer.control->setTimeout(0.001);
   EXPECT_LE(timer.control->remainingTimeout(), 0.001);
   Korvo::Platform::doEventLoop();
   EXPECT_EQ(timer.fired, 1);

   // Cancelled before the loop runs: the loop has nothing to wait for.
   timer.control->setTimeout(3600.0);
   timer.control->delTimeout();
   Korvo::Platform::doEventLoop();
   EXPECT_EQ(timer.fired, 1);
}

TEST(TimerControlTest, HandlerMayRearmOrDestroyItsOwnControl) {
   Timer timer;
   timer.onTimeout = [&] {
      if (timer.fired < 3) {
         timer.control->setTimeout(0.0);
      }
   };
   timer.control->setTimeout(0.0);
   Korvo::Platform::doEventLoop();
   EXPECT_EQ(timer.fired, 3);

   timer.onTimeout = [&] { timer.control.reset(); };
   timer.control->setTimeout(0.0);
   Korvo::Platform::doEventLoop();
   EXPECT_EQ(timer.fired, 4);
   EXPECT_EQ(timer.control, nullptr);
}

TEST(TimerControlTest, DestroyingAnArmedControlWithdrawsIt) {
   Timer timer;
   timer.control->setTimeout(0.0);
   timer.control.reset();
   Korvo::Platform::doEventLoop();
   EXPECT_EQ(timer.fired, 0);
}

TEST(TimerControlTest, OddDelays) {
   Timer timer;
   // Negative: due at once, run by the loop and not inside setTimeout.
   timer.control->setTimeout(-2.5);
   EXPECT_EQ(timer.fired, 0);
   EXPECT_EQ(timer.control->remainingTimeout(), 0.0);
   Korvo::Platform::doEventLoop();
   EXPECT_EQ(timer.fired, 1);

   // Too far (or infinite): clamped, still armed.
   timer.control->setTimeout(infinity);
   EXPECT_GT(timer.control->remainingTimeout(), Korvo::Platform::maxDelaySeconds - 1.0);
   EXPECT_LE(timer.control->remainingTimeout(), Korvo::Platform::maxDelaySeconds);

   // NaN is a mistake and leaves the pending expiry alone.
   timer.control->setTimeout(60.0);
   EXPECT_THAT(assertionText([&] { timer.control->setTimeout(std::nan("")); }),
               HasSubstr("LibeventTimerControl::setTimeout: seconds is NaN"));
   EXPECT_GT(timer.control->remainingTimeout(), 59.0);
   timer.control->delTimeout();
}

TEST(TimerControlDeathTest, NanDelayAbortsByDefault) {
   Timer timer;
   EXPECT_DEATH(timer.control->setTimeout(std::nan("")),
                "Korvo::Assert aborting because: .*seconds is NaN");
}

// ---- Callback control.

TEST(CallbackControlTest, RequestsCoalesceAndRunFromTheLoopOnly) {
   Callback cb;
   EXPECT_FALSE(cb.control->pendingCallback());
   cb.control->requestCallback();
   cb.control->requestCallback();
   EXPECT_TRUE(cb.control->pendingCallback());
   EXPECT_EQ(cb.calls, 0);
   Korvo::Platform::doEventLoop();
   EXPECT_EQ(cb.calls, 1);
   EXPECT_FALSE(cb.control->pendingCallback());

   cb.control->requestCallback();
   cb.control->cancelCallback();
   EXPECT_FALSE(cb.control->pendingCallback());
   cb.control->cancelCallback();  // none pending: harmless
   Korvo::Platform::doEventLoop();
   EXPECT_EQ(cb.calls, 1);
}

TEST(CallbackControlTest, RequestFromInsideCallbackRunsOnALaterPass) {
   Callback cb;
   cb.onCallback = [&] {
      if (cb.calls < 5) {
         cb.control->requestCallback();
         // Not run from inside the request, even when the loop is running.
         EXPECT_TRUE(cb.control->pendingCallback());
      }
   };
   cb.control->requestCallback();
   Korvo::Platform::doEventLoop();
   EXPECT_EQ(cb.calls, 5);
}

TEST(CallbackControlTest, ControlDestroyedByAnotherCallbackOfTheSamePassDoesNotRun) {
   Callback first;
   Callback second;
   // Whichever runs first destroys the other's control while it is due.
   first.onCallback = [&] { second.control.reset(); };
   second.onCallback = [&] { first.control.reset(); };
   first.control->requestCallback();
   second.control->requestCallback();
   Korvo::Platform::doEventLoop();
   EXPECT_EQ(first.calls + second.calls, 1);
}

// ---- Exception policy.

TEST(ExceptionPolicyTest, DeclinedExceptionLeavesTheLoopUnchanged) {
   Timer timer;
   timer.onTimeout = [] { throw Marker{42}; };
   timer.control->setTimeout(0.0);
   const Marker* caught = nullptr;
   try {
      Korvo::Platform::doEventLoop();
   } catch (const Marker& m) {
      caught = &m;
      EXPECT_EQ(m.id, 42);
   }
   ASSERT_NE(caught, nullptr);
   EXPECT_EQ(timer.exceptions, 1);
   EXPECT_EQ(timer.seen, caught);                           // the very object, not a copy
   EXPECT_EQ(timer.control->remainingTimeout(), infinity);  // fired: stays idle

   // The loop is usable again afterwards.
   timer.onTimeout = nullptr;
   timer.control->setTimeout(0.0);
   Korvo::Platform::doEventLoop();
   EXPECT_EQ(timer.fired, 2);
}

TEST(ExceptionPolicyTest, HandledExceptionLetsTheLoopGoOn) {
   Timer throwing;
   throwing.handles = true;
   throwing.onTimeout = [] { throw std::runtime_error("timer"); };
   Callback cbThrowing;
   cbThrowing.handles = true;
   cbThrowing.onCallback = [] { throw std::runtime_error("callback"); };
   Timer later;

   KorvoTest::TraceCapture traces;
   throwing.control->setTimeout(0.0);
   cbThrowing.control->requestCallback();
   later.control->setTimeout(0.005);
   Korvo::Platform::doEventLoop();

   EXPECT_EQ(throwing.exceptions, 1);
   EXPECT_EQ(cbThrowing.exceptions, 1);
   EXPECT_EQ(later.fired, 1);
   EXPECT_THAT(traces.text(), HasSubstr("Timeout notification exception was handled"));
   EXPECT_THAT(traces.text(), HasSubstr("Callback notification exception was handled"));
}

TEST(ExceptionPolicyTest, CallbackExceptionDeclinedLeavesNothingPending) {
   Callback cb;
   cb.onCallback = [] { throw std::runtime_error("declined"); };
   cb.control->requestCallback();
   EXPECT_THROW(Korvo::Platform::doEventLoop(), std::runtime_error);
   EXPECT_EQ(cb.exceptions, 1);
   EXPECT_FALSE(cb.control->pendingCallback());
}

TEST(ExceptionPolicyTest, FdExceptionGetsTheControlsDescriptor) {
   Pipe pipe;
   FdWatcher watcher;
   watcher.onRead = [&](int fd) {
      readByte(fd);
      throw std::runtime_error("read");
   };
   watcher.control->setFd(pipe.readFd());
   pipe.put("ab");
   EXPECT_THROW(Korvo::Platform::doEventLoop(), std::runtime_error);
   EXPECT_EQ(watcher.exceptionFds, std::vector<int>{pipe.readFd()});

   // Handled: the persistent read goes on until the handler withdraws it.
   watcher.handles = true;
   watcher.onRead = [&](int fd) {
      readByte(fd);
      watcher.control->delFd();
      throw std::runtime_error("read");
   };
   Korvo::Platform::doEventLoop();
   EXPECT_EQ(watcher.exceptionFds.size(), 2u);
   EXPECT_EQ(watcher.exceptionFds[1], pipe.readFd());
}

// ---- Descriptor control.

TEST(FdControlTest, SetFdAloneWatchesPersistentlyForReads) {
   Pipe pipe;
   ASSERT_EQ(fcntl(pipe.readFd(), F_GETFL) & O_NONBLOCK, 0);
   FdWatcher watcher;
   EXPECT_EQ(watcher.control->getFd(), -1);
   watcher.control->setFd(pipe.readFd());
   EXPECT_EQ(watcher.control->getFd(), pipe.readFd());
   EXPECT_NE(fcntl(pipe.readFd(), F_GETFL) & O_NONBLOCK, 0);

   std::string got;
   watcher.onRead = [&](int fd) {
      got += readByte(fd);
      if (got.size() == 3) {
         watcher.control->delFd();
      }
   };
   pipe.put("xyz");
   Korvo::Platform::doEventLoop();
   EXPECT_EQ(got, "xyz");
   EXPECT_EQ(watcher.readFds, (std::vector<int>{pipe.readFd(), pipe.readFd(), pipe.readFd()}));
   EXPECT_EQ(watcher.control->getFd(), -1);
   // Never closed by the control, neither by delFd nor by its destruction.
   EXPECT_NE(fcntl(pipe.readFd(), F_GETFD), -1);
   watcher.control->setFd(pipe.readFd());
   watcher.control.reset();
   EXPECT_NE(fcntl(pipe.readFd(), F_GETFD), -1);
}

TEST(FdControlTest, WritesAreOneShot) {
   Pipe pipe;
   FdWatcher watcher;
   watcher.control->setReads(false);
   watcher.control->setWrites(true);
   watcher.control->setFd(pipe.writeFd());
   Korvo::Platform::doEventLoop();  // one event, then nothing is left to wait for
   EXPECT_EQ(watcher.writeFds, std::vector<int>{pipe.writeFd()});

   watcher.control->setWrites(true);
   int rounds = 0;
   watcher.onWrite = [&](int) {
      if (++rounds < 3) {
         watcher.control->setWrites(true);
      }
   };
   Korvo::Platform::doEventLoop();
   EXPECT_EQ(watcher.writeFds.size(), 4u);
}

TEST(FdControlTest, InterestsSetBeforeTheDescriptorApplyAtOnce) {
   Pipe pipe;
   FdWatcher watcher;
   watcher.control->setReads(false);
   pipe.put("a");
   watcher.control->setFd(pipe.readFd());
   Korvo::Platform::doEventLoop();  // nothing watched
   EXPECT_TRUE(watcher.readFds.empty());

   watcher.control->setReads(true);
   watcher.onRead = [&](int) { watcher.control->clearEvents(); };
   Korvo::Platform::doEventLoop();
   EXPECT_EQ(watcher.readFds.size(), 1u);
   EXPECT_EQ(watcher.control->getFd(), pipe.readFd());  // clearEvents keeps the fd

   // clearEvents withdrew the watch although the byte is still there.
   Korvo::Platform::doEventLoop();
   EXPECT_EQ(watcher.readFds.size(), 1u);
}

TEST(FdControlTest, BadDescriptorsFailClearly) {
   FdWatcher watcher;
   EXPECT_THAT(assertionText([&] { watcher.control->setFd(-1); }), HasSubstr("flags >= 0"));
   int closedFd = ::dup(0);
   ASSERT_GE(closedFd, 0);
   ::close(closedFd);
   EXPECT_THAT(assertionText([&] { watcher.control->setFd(closedFd); }), HasSubstr("flags >= 0"));
   // A path-only descriptor has flags but cannot take O_NONBLOCK.
   const int pathFd = ::open("/tmp", O_PATH);
   ASSERT_GE(pathFd, 0);
   EXPECT_THAT(assertionText([&] { watcher.control->setFd(pathFd); }), HasSubstr("result == 0"));
   ::close(pathFd);
   EXPECT_EQ(watcher.control->getFd(), -1);
   Korvo::Platform::doEventLoop();  // nothing was registered: returns at once
}

TEST(FdControlTest, UnwatchableDescriptorIsTracedAndDoesNotHang) {
   char path[] = "/tmp/korvoFdControlXXXXXX";
   const int fd = ::mkstemp(path);
   ASSERT_GE(fd, 0);
   ::unlink(path);
   FdWatcher watcher;
   {
      KorvoTest::TraceCapture traces("1");
      watcher.control->setFd(fd);  // epoll takes no regular files
      EXPECT_THAT(traces.text(), HasSubstr("cannot watch fd " + std::to_string(fd)));
   }
   Korvo::Platform::doEventLoop();  // nothing registered: returns at once
   EXPECT_TRUE(watcher.readFds.empty());
   watcher.control->delFd();
   ::close(fd);
}

TEST(FdControlDeathTest, ClosedDescriptorAbortsByDefault) {
   FdWatcher watcher;
   EXPECT_DEATH(watcher.control->setFd(-1), "Korvo::Assert aborting because: .*flags >= 0");
}

// ---- Controls trace their operations at level 9.

TEST(ControlTraceTest, OperationsNameClassMethodLineAndAddress) {
   Timer timer;
   Callback cb;
   std::string text;
   {
      KorvoTest::TraceCapture traces;
      timer.control->setTimeout(0.5);
      timer.control->delTimeout();
      cb.control->requestCallback();
      Korvo::Platform::doEventLoop();
      text = traces.text();
   }
   EXPECT_THAT(text, testing::ContainsRegex(
                         "9 LibeventTimerControl::setTimeout:[0-9]+ Timer 0x[0-9a-f]{16} set "
                         "timeout 0.5\n"));
   EXPECT_THAT(text, testing::ContainsRegex(
                         "9 LibeventTimerControl::delTimeout:[0-9]+ Timer 0x[0-9a-f]{16} del "
                         "timeout\n"));
   EXPECT_THAT(text, testing::ContainsRegex("9 LibeventCallbackControl::requestCallback:[0-9]+ "
                                            "Callback 0x[0-9a-f]{16} request\n"));
   EXPECT_THAT(text, testing::ContainsRegex("9 LibeventTimerControl::handleExpiry:[0-9]+ Timer "
                                            "0x[0-9a-f]{16} expired\n"));
   EXPECT_THAT(text, testing::ContainsRegex("9 LibeventCallbackControl::timeout:[0-9]+ Callback "
                                            "0x[0-9a-f]{16} execute\n"));
}

// ---- Value printer.

TEST(ValuePrinterTest, UsesTheRegisteredPrinterElseTheHexDump) {
   const unsigned char bytes[] = {0xde, 0xad, 0xbe, 0xef, 0x01};
   auto printer = Korvo::Platform::getValuePrinter("KorvoTest::Opaque", 4);
   EXPECT_EQ(printer->typeName(), "KorvoTest::Opaque");
   EXPECT_EQ(printer->size(), 4);
   EXPECT_EQ(printer->toString(bytes), "de ad be ef");  // exactly size bytes

   Korvo::IntrospectionMap::printerIs("KorvoTest::Opaque", [](const void* v, int size) {
      return "first byte " + std::to_string(*static_cast<const unsigned char*>(v)) + " of " +
             std::to_string(size);
   });
   EXPECT_EQ(printer->toString(bytes), "first byte 222 of 4");

   // A printer with nothing to say falls back to the dump.
   Korvo::IntrospectionMap::printerIs("KorvoTest::Opaque",
                                      [](const void*, int) { return std::string(); });
   EXPECT_EQ(printer->toString(bytes), "de ad be ef");
   Korvo::IntrospectionMap::printerIs("KorvoTest::Opaque", nullptr);
}

// ---- Leaving the loop, reaching it from other threads, signals.

TEST(ExitEventLoopTest, ReturnsFromInsideAHandlerAlsoUnderFastForward) {
   Korvo::Platform::exitEventLoop();  // outside a loop: nothing
   Timer leave;
   Timer later;
   leave.onTimeout = [] { Korvo::Platform::exitEventLoop(); };
   leave.control->setTimeout(0.01);
   later.control->setTimeout(60.0);
   Korvo::Platform::doEventLoop();  // would otherwise wait a minute
   EXPECT_EQ(leave.fired, 1);
   EXPECT_EQ(later.fired, 0);
   later.control->delTimeout();

   KorvoTest::FastForwardOn fastForward;
   Timer tick;
   tick.onTimeout = [&] {
      if (tick.fired == 3) {
         Korvo::Platform::exitEventLoop();
      }
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

class Remote : public Korvo::Platform::CallbackHandler {
public:
   Remote() : control(Korvo::Platform::getRemoteCallbackControl(this)) {}
   void callback() override { onCallback(); }
   std::shared_ptr<Korvo::Platform::RemoteCallbackControl> control;
   std::function<void()> onCallback;
};

TEST(RemoteCallbackControlTest, RequestsFromThreadsRunOnTheLoopSeeTheirWritesAndCoalesce) {
   Remote remote;
   const std::thread::id loopThread = std::this_thread::get_id();
   // Ping-pong: each plain write made before a request is seen by the callback.
   int value = 0;
   std::atomic<int> acked{0};
   std::vector<int> seen;
   remote.onCallback = [&] {
      EXPECT_EQ(std::this_thread::get_id(), loopThread);
      const int got = value;  // the pinger writes again once it is acknowledged
      seen.push_back(got);
      if (got == 200) {
         Korvo::Platform::exitEventLoop();
      }
      acked.store(got, std::memory_order_release);
   };
   std::thread pinger([&] {
      for (int i = 1; i <= 200; ++i) {
         value = i;
         remote.control->requestCallback();
         while (acked.load(std::memory_order_acquire) != i) {
            std::this_thread::yield();
         }
      }
   });
   Korvo::Platform::doEventLoop();
   pinger.join();
   ASSERT_EQ(seen.size(), 200u);
   EXPECT_EQ(seen.back(), 200);

   // Four threads of blind requests: at most one run per request, the last one seen.
   constexpr int kThreads = 4;
   constexpr int kRequests = 2000;
   std::atomic<int> done{0};
   int calls = 0;
   remote.onCallback = [&] {
      ++calls;
      if (done.load(std::memory_order_acquire) == kThreads) {
         Korvo::Platform::exitEventLoop();
      }
   };
   std::vector<std::thread> threads;
   for (int t = 0; t < kThreads; ++t) {
      threads.emplace_back([&] {
         for (int i = 0; i < kRequests; ++i) {
            EXPECT_TRUE(remote.control->tryRequestCallback());
         }
         done.fetch_add(1, std::memory_order_acq_rel);
         remote.control->requestCallback();
      });
   }
   Korvo::Platform::doEventLoop();
   for (std::thread& t : threads) {
      t.join();
   }
   EXPECT_GE(calls, 1);
   EXPECT_LE(calls, kThreads * (kRequests + 1));
   EXPECT_FALSE(remote.control->pendingCallback());

   // A cancelled request does not run.
   calls = 0;
   remote.control->requestCallback();
   EXPECT_TRUE(remote.control->pendingCallback());
   remote.control->cancelCallback();
   Korvo::Platform::doEventLoop(0.02);
   EXPECT_EQ(calls, 0);

   // The loop's thread has ended: requests are refused, nothing breaks.
   std::shared_ptr<Korvo::Platform::RemoteCallbackControl> orphan;
   Remote* handler = nullptr;
   std::thread([&] {
      handler = new Remote;
      orphan = handler->control;
      handler->control.reset();
   }).join();
   testing::internal::CaptureStderr();
   EXPECT_FALSE(orphan->tryRequestCallback());
   orphan->requestCallback();
   EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr("dropped: its thread has ended"));
   EXPECT_FALSE(orphan->pendingCallback());
   orphan.reset();
   delete handler;
   EXPECT_THAT(assertionText([] { Korvo::Platform::getRemoteCallbackControl(nullptr); }),
               HasSubstr("getRemoteCallbackControl: null handler"));
}

class SignalWatcher : public Korvo::Platform::SignalHandler {
public:
   explicit SignalWatcher(int signo) : control(Korvo::Platform::getSignalControl(this, signo)) {}
   void signalReceived(int signo) override {
      received.push_back(signo);
      if (throws) {
         throw Marker{signo};
      }
      Korvo::Platform::exitEventLoop();
   }
   std::shared_ptr<Korvo::Platform::SignalControl> control;
   std::vector<int> received;
   bool throws = false;
};

TEST(SignalControlTest, RealKillIsDeliveredOnTheLoopAndBadRequestsFail) {
   KorvoTest::ThrowOnAssert throwing;
   Timer guard;  // ends the loop should the signal never come
   guard.onTimeout = [] { Korvo::Platform::exitEventLoop(); };
   guard.control->setTimeout(30.0);
   {
      SignalWatcher usr1(SIGUSR1);
      EXPECT_EQ(usr1.control->signalNumber(), SIGUSR1);
      ASSERT_EQ(::kill(::getpid(), SIGUSR1), 0);
      Korvo::Platform::doEventLoop();
      EXPECT_EQ(usr1.received, std::vector<int>{SIGUSR1});
      // A declined exception leaves doEventLoop().
      usr1.throws = true;
      ASSERT_EQ(::kill(::getpid(), SIGUSR1), 0);
      EXPECT_THROW(Korvo::Platform::doEventLoop(), Marker);

      SignalWatcher* none = nullptr;
      const std::pair<int, const char*> bad[] = {
          {0, "invalid signal 0"},       {-1, "invalid signal -1"},
          {NSIG, "invalid signal "},     {SIGKILL, "cannot be caught"},
          {SIGSTOP, "cannot be caught"}, {SIGUSR1, "already has a control"},
      };
      for (const auto& [signo, message] : bad) {
         EXPECT_THAT(assertionText([&, signo = signo] { none = new SignalWatcher(signo); }),
                     HasSubstr(message))
             << signo;
      }
      std::thread([&] {
         EXPECT_THAT(assertionText([&] { none = new SignalWatcher(SIGUSR2); }),
                     HasSubstr("signals are watched by another thread's loop"));
      }).join();
      EXPECT_EQ(none, nullptr);
      EXPECT_THAT(assertionText([] { Korvo::Platform::getSignalControl(nullptr, SIGUSR2); }),
                  HasSubstr("getSignalControl: null handler"));
   }
   // Destroyed: the disposition is back to what it was, and the signal free again.
   struct sigaction action = {};
   ASSERT_EQ(::sigaction(SIGUSR1, nullptr, &action), 0);
   EXPECT_EQ(action.sa_handler, SIG_DFL);
   SignalWatcher again(SIGUSR1);
}

}  // namespace
