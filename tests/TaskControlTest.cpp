// Task-backed controls side by side with the event-loop controls: the same handler,
// the same socketpair, the same loop.

#include <Korvo/TaskControl.h>

#include "TaskTestSupport.h"

#include <sys/socket.h>

#include <cmath>
#include <csignal>

namespace {

using namespace KorvoTest;
namespace P = Korvo::Platform;

// Both ends read and write; closed as a pipe is.
struct SocketPair : Pipe {
   SocketPair() { ::close(fds_[0]), ::close(fds_[1]), ::socketpair(AF_UNIX, SOCK_STREAM, 0, fds_); }
};

// Handlers that count their calls, echo what they read (16 bytes per read, 24 per
// write, asking for each write), or throw and count how often their exception is
// offered back.
struct Handler : P::TimeoutHandler, P::CallbackHandler, P::FdEventHandler {
   void timeout() override { thrower ? throw std::runtime_error("timeout") : ++calls; }
   void callback() override {
      thrower ? throw std::runtime_error("callback") : ++calls;
      self.reset();  // a handler may release its own control during its call
   }
   void readFdEvent(int fd) override {
      ++calls;
      char buf[16];
      const ssize_t n = thrower ? throw std::runtime_error("read") : ::read(fd, buf, sizeof(buf));
      out.append(buf, n > 0 ? static_cast<size_t>(n) : 0);
      control->setWrites(!out.empty());
   }
   void writeFdEvent(int fd) override {
      ++calls;
      const ssize_t n = ::write(fd, out.data(), std::min<size_t>(out.size(), 24));
      out.erase(0, n > 0 ? static_cast<size_t>(n) : 0);
      control->setWrites(!out.empty());
   }
   bool handleTimeoutException() override { return offer(); }
   bool handleCallbackException() override { return offer(); }
   bool handleFdException(int) override { return offer(); }
   bool offer() { return ++offered && handles; }  // counts, then answers
   bool thrower = false, handles = false;
   int calls = 0, offered = 0;
   std::string out;
   std::shared_ptr<P::FdControl> control;
   std::shared_ptr<P::CallbackControl> self;
};

// Tasks (true, at the default priority) or the event loop (false) behind the controls.
class ControlTest : public ::testing::TestWithParam<bool> {
protected:
   std::shared_ptr<P::TimerControl> timer(Handler* h) {
      return GetParam() ? P::getTimerControl(h, root_, {}, "timer") : P::getTimerControl(h);
   }
   std::shared_ptr<P::CallbackControl> callback(Handler* h) {
      return GetParam() ? P::getCallbackControl(h, root_, {}, "cb") : P::getCallbackControl(h);
   }
   std::shared_ptr<P::FdControl> fd(Handler* h) {
      return GetParam() ? P::getFdControl(h, root_, {}, "fd") : P::getFdControl(h);
   }
   ThrowOnAssert throwing_;
   std::shared_ptr<Korvo::TaskSchedulerRoot> root_ = Korvo::schedulerRootKorvoNonShared("ctl");
};

TEST_P(ControlTest, EchoOverASocketpair) {
   SocketPair pair;
   Handler echo;
   echo.control = fd(&echo);
   echo.control->setFd(pair.fds_[0]);  // read interest is on from the start
   const std::string sent = "sixteen-byte reads, then 24-byte writes";
   ASSERT_EQ(::write(pair.fds_[1], sent.data(), sent.size()), ssize_t(sent.size()));
   pump();
   char back[64];
   const ssize_t n = ::recv(pair.fds_[1], back, sizeof(back), MSG_DONTWAIT);
   EXPECT_EQ(std::string(back, std::max<ssize_t>(n, 0)), sent);
   // Still writable, but nobody asked; nothing read after clearEvents() until the
   // descriptor is set again: then watching resumes as it was.
   const int calls = echo.calls;
   echo.control->clearEvents();
   ASSERT_EQ(::write(pair.fds_[1], "x", 1), 1);
   pump();
   EXPECT_EQ(echo.calls, calls);
   echo.control->setFd(pair.fds_[0]);
   pump();
   EXPECT_EQ(echo.calls, calls + 2);  // read and echoed
}

TEST_P(ControlTest, ExceptionPolicy) {
   for (int kind : {0, 1, 2})  // timer, callback, descriptor
      for (bool handles : {false, true}) {
         SCOPED_TRACE(testing::Message() << "kind " << kind << " handles " << handles);
         root_ = Korvo::schedulerRootKorvoNonShared("ctl");  // a fresh one after a throw
         Handler thrower;
         thrower.thrower = true, thrower.handles = handles;
         SocketPair pair;
         ASSERT_EQ(::write(pair.fds_[1], "x", 1), 1);
         auto t = timer(&thrower);
         auto c = callback(&thrower);
         auto f = fd(&thrower);
         kind == 0 ? t->setTimeout(0.0) : kind == 1 ? c->requestCallback() : f->setFd(pair.fds_[0]);
         // Task-backed timers and callbacks never ask: the exception is the scheduler's.
         const bool asks = !GetParam() || kind == 2;
         if (asks && handles)
            EXPECT_NO_THROW(pump(5));
         else
            EXPECT_THROW(pump(5), std::runtime_error);
         EXPECT_EQ(thrower.offered > 0, asks);
         EXPECT_TRUE(kind != 2 || !handles || thrower.offered > 1);  // still watching
      }
}

TEST_P(ControlTest, RequestsCoalesceAndNeverRunInsideTheCall) {
   Handler counter;
   auto t = timer(&counter);
   t->setTimeout(0.0);
   EXPECT_LE(t->remainingTimeout(), 1e-3);
   pump();
   EXPECT_EQ(t->remainingTimeout(), INFINITY);
   t->setTimeout(INFINITY);  // a task-backed timer stops, an event-loop one clamps
   EXPECT_EQ(t->remainingTimeout() == INFINITY, GetParam());
   t->delTimeout();
   counter.self = callback(&counter);
   counter.self->requestCallback();
   counter.self->cancelCallback();
   pump();
   EXPECT_EQ(counter.calls, 1);  // the timer's
   counter.self->requestCallback();
   counter.self->requestCallback();
   EXPECT_TRUE(counter.self->pendingCallback());
   pump();
   EXPECT_EQ(counter.calls, 2);
   EXPECT_EQ(counter.self, nullptr);  // released during its own call
}

INSTANTIATE_TEST_SUITE_P(Tasks, ControlTest, ::testing::Bool(), testing::PrintToStringParamName());

TEST(TaskSignalControlTest, DeliveriesRunAsTheTaskAndCoalesce) {
   ThrowOnAssert throwing;
   auto root = Korvo::schedulerRootKorvoNonShared("sig");
   struct Signals : P::SignalHandler {
      void signalReceived(int signo) override {
         received.push_back(signo);
         P::exitEventLoop();
      }
      std::vector<int> received;
   } handler;
   auto control = P::getSignalControl(&handler, SIGUSR2, root, TaskPriority::high, "usr2");
   EXPECT_EQ(control->signalNumber(), SIGUSR2);
   ASSERT_EQ(::kill(::getpid(), SIGUSR2), 0);
   ASSERT_EQ(::kill(::getpid(), SIGUSR2), 0);
   P::doEventLoop(5.0);
   pump(3);  // two deliveries, one run, as the task
   EXPECT_EQ(handler.received, std::vector<int>{SIGUSR2});
   // The same checks as the loop's own signal control.
   EXPECT_THAT(assertionText([&] { P::getSignalControl(&handler, SIGUSR2, root, {}, "again"); }),
               HasSubstr("already has a control"));
}

}  // namespace
