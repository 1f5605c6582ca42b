// Task-backed controls side by side with the event-loop controls: the same handler,
// the same socketpair, the same loop.

#include <Korvo/Allocator.h>
#include <Korvo/TaskControl.h>
#include <Korvo/TaskScheduler.h>

#include "PlatformTestSupport.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cmath>
#include <csignal>
#include <stdexcept>
#include <vector>

namespace {

using Korvo::TaskPriority;
namespace P = Korvo::Platform;

void pump(int passes = 20) {
   for (int i = 0; i < passes; ++i) {
      P::doEventLoop(0.0);
   }
}

struct SocketPair {
   SocketPair() { EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0); }
   ~SocketPair() { ::close(fds[0]), ::close(fds[1]); }
   int fds[2] = {-1, -1};
};

class ControlTest : public ::testing::TestWithParam<bool> {
protected:
   bool tasks() const { return GetParam(); }
   std::shared_ptr<P::TimerControl> timer(P::TimeoutHandler* h) {
      return tasks() ? P::getTimerControl(h, root_, TaskPriority::normal, "timer")
                     : P::getTimerControl(h);
   }
   std::shared_ptr<P::CallbackControl> callback(P::CallbackHandler* h) {
      return tasks() ? P::getCallbackControl(h, root_, TaskPriority::normal, "callback")
                     : P::getCallbackControl(h);
   }
   std::shared_ptr<P::FdControl> fd(P::FdEventHandler* h) {
      return tasks() ? P::getFdControl(h, root_, TaskPriority::normal, "fd") : P::getFdControl(h);
   }
   KorvoTest::ThrowOnAssert throwing_;
   std::shared_ptr<Korvo::TaskSchedulerRoot> root_ = Korvo::schedulerRootKorvoNonShared("ctl");
};

// Echoes what it reads, 16 bytes per read and 24 per write, asking for each write.
class Echo : public P::FdEventHandler {
public:
   void readFdEvent(int fd) override {
      ++reads;
      char buf[16];
      const ssize_t n = ::read(fd, buf, sizeof(buf));
      if (n > 0) {
         out.append(buf, static_cast<size_t>(n));
         askWrite();
      }
   }
   void writeFdEvent(int fd) override {
      ++writes;
      const ssize_t n = ::write(fd, out.data(), std::min<size_t>(out.size(), 24));
      out.erase(0, n > 0 ? static_cast<size_t>(n) : 0);
      if (!out.empty()) {
         askWrite();
      }
   }
   void askWrite() {
      ++writeRequests;
      control->setWrites(true);
   }
   std::shared_ptr<P::FdControl> control;
   std::string out;
   int reads = 0, writes = 0, writeRequests = 0;
};

TEST_P(ControlTest, EchoOverASocketpair) {
   SocketPair pair;
   Echo echo;
   echo.control = fd(&echo);
   echo.control->setFd(pair.fds[0]);  // read interest is on from the start
   std::string sent(1000, 'x');
   ASSERT_EQ(::write(pair.fds[1], sent.data(), sent.size()), 1000);
   std::string back;
   for (int pass = 0; pass < 5000 && back.size() < sent.size(); ++pass) {
      pump(1);
      char buf[256];
      const ssize_t n = ::recv(pair.fds[1], buf, sizeof(buf), MSG_DONTWAIT);
      back.append(buf, n > 0 ? static_cast<size_t>(n) : 0);
   }
   EXPECT_EQ(back, sent);
   EXPECT_GE(echo.reads, 1000 / 16);  // one read per run: runs repeat while data remains
   EXPECT_LE(echo.writes, echo.writeRequests);
   const int writes = echo.writes;
   pump();  // still writable, but nobody asked
   EXPECT_EQ(echo.writes, writes);
   // clearEvents(), then the descriptor again: watching resumes as it was.
   echo.control->clearEvents();
   ASSERT_EQ(::write(pair.fds[1], "x", 1), 1);
   pump();
   const int reads = echo.reads;
   echo.control->setFd(pair.fds[0]);
   pump();
   EXPECT_EQ(echo.reads, reads + 1);
}

// Handlers that throw, and count how often their exception is offered back.
struct Thrower : P::TimeoutHandler, P::CallbackHandler, P::FdEventHandler {
   explicit Thrower(bool handles) : handles(handles) {}
   void timeout() override { throw std::runtime_error("timeout"); }
   bool handleTimeoutException() override { return offer(); }
   void callback() override { throw std::runtime_error("callback"); }
   bool handleCallbackException() override { return offer(); }
   void readFdEvent(int) override { throw std::runtime_error("read"); }
   void writeFdEvent(int) override {}
   bool handleFdException(int) override { return offer(); }
   bool offer() {
      ++offered;
      return handles;
   }
   bool handles;
   int offered = 0;
};

TEST_P(ControlTest, ExceptionPolicy) {
   enum Kind { timerKind, callbackKind, fdKind };
   for (Kind kind : {timerKind, callbackKind, fdKind}) {
      for (bool handles : {false, true}) {
         SCOPED_TRACE(testing::Message() << "kind " << kind << " handles " << handles);
         root_ = Korvo::schedulerRootKorvoNonShared("ctl");  // a fresh one after a throw
         Thrower thrower(handles);
         SocketPair pair;
         std::shared_ptr<void> control;
         if (kind == timerKind) {
            auto t = timer(&thrower);
            t->setTimeout(0.0);
            control = t;
         } else if (kind == callbackKind) {
            auto c = callback(&thrower);
            c->requestCallback();
            control = c;
         } else {
            auto f = fd(&thrower);
            ASSERT_EQ(::write(pair.fds[1], "x", 1), 1);
            f->setFd(pair.fds[0]);
            control = f;
         }
         bool thrown = false;
         try {
            pump(5);
         } catch (const std::runtime_error&) {
            thrown = true;
         }
         // Task-backed timers and callbacks never ask: the exception is the scheduler's.
         const bool asks = !tasks() || kind == fdKind;
         EXPECT_EQ(thrown, !(asks && handles));
         EXPECT_EQ(thrower.offered > 0, asks);
         if (kind == fdKind && handles) {
            EXPECT_GT(thrower.offered, 1);  // still watching
         }
      }
   }
}

struct Counter : P::TimeoutHandler, P::CallbackHandler {
   void timeout() override { ++timeouts; }
   void callback() override {
      ++callbacks;
      if (releaseOnCall) {
         self.reset();
      }
   }
   int timeouts = 0, callbacks = 0;
   bool releaseOnCall = false;
   std::shared_ptr<P::CallbackControl> self;
};

TEST_P(ControlTest, RequestsCoalesceAndNeverRunInsideTheCall) {
   Counter counter;
   auto t = timer(&counter);
   EXPECT_EQ(t->remainingTimeout(), INFINITY);
   t->setTimeout(0.0);
   EXPECT_EQ(counter.timeouts, 0);
   EXPECT_LE(t->remainingTimeout(), 1e-3);
   pump();
   EXPECT_EQ(counter.timeouts, 1);
   EXPECT_EQ(t->remainingTimeout(), INFINITY);
   t->setTimeout(INFINITY);  // a task-backed timer stops, an event-loop one clamps
   EXPECT_EQ(t->remainingTimeout() == INFINITY, tasks());
   t->delTimeout();
   auto c = callback(&counter);
   c->requestCallback();
   c->requestCallback();
   EXPECT_TRUE(c->pendingCallback());
   EXPECT_EQ(counter.callbacks, 0);
   pump();
   EXPECT_EQ(counter.callbacks, 1);
   EXPECT_FALSE(c->pendingCallback());
   c->requestCallback();
   c->cancelCallback();
   pump();
   EXPECT_EQ(counter.callbacks, 1);
   // A handler may release its own control during its call.
   counter.self = callback(&counter);
   counter.releaseOnCall = true;
   counter.self->requestCallback();
   pump();
   EXPECT_EQ(counter.callbacks, 2);
   EXPECT_EQ(counter.self, nullptr);
}

INSTANTIATE_TEST_SUITE_P(Backends, ControlTest, ::testing::Values(false, true),
                         [](const testing::TestParamInfo<bool>& info) {
                            return info.param ? std::string("Tasks") : std::string("Libevent");
                         });

class Signals : public P::SignalHandler {
public:
   void signalReceived(int signo) override {
      received.push_back(signo);
      P::exitEventLoop();
   }
   std::vector<int> received;
};

TEST(TaskSignalControlTest, DeliveriesRunAsTheTaskAndCoalesce) {
   KorvoTest::ThrowOnAssert throwing;
   auto root = Korvo::schedulerRootKorvoNonShared("sig");
   Signals handler;
   auto control = P::getSignalControl(&handler, SIGUSR2, root, TaskPriority::high, "usr2");
   EXPECT_EQ(control->signalNumber(), SIGUSR2);
   auto* task = dynamic_cast<P::TaskSignalControl*>(control.get());
   ASSERT_NE(task, nullptr);
   ASSERT_EQ(::kill(::getpid(), SIGUSR2), 0);
   ASSERT_EQ(::kill(::getpid(), SIGUSR2), 0);
   P::doEventLoop(5.0);
   EXPECT_EQ(handler.received, std::vector<int>{SIGUSR2});
   pump(3);  // two deliveries, one run
   EXPECT_EQ(handler.received.size(), 1u);
   EXPECT_FALSE(task->taskScheduled());
   // The same checks as the loop's own signal control.
   EXPECT_NE(KorvoTest::assertionText([&] {
                P::getSignalControl(&handler, SIGUSR2, root, TaskPriority::high, "again");
             }).find("already has a control"),
             std::string::npos);
}

}  // namespace
