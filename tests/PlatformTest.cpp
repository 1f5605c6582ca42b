// The control contracts, through the Platform factories and doEventLoop.
#include <Korvo/Platform.h>

#include <Korvo/IntrospectionMap.h>
#include <Korvo/TaskScheduler.h>

#include "PlatformTestSupport.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <csignal>
#include <thread>

using namespace Korvo::Platform;
using KorvoTest::assertionText;
using KorvoTest::Handler;
using KorvoTest::Pipe;
using testing::HasSubstr;

namespace {

TEST(ControlTest, OnlyTheOwningThreadUsesAControl) {
   Handler h;
   auto timer = getTimerControl(&h);
   auto callback = getCallbackControl(&h);
   auto fd = getFdControl(&h);
   Pipe pipe;
   const std::function<void()> uses[] = {[&] { timer->setTimeout(1.0); },
                                         [&] { callback->requestCallback(); },
                                         [&] { fd->setFd(pipe.readFd()); }};
   std::thread([&uses] {
      for (const auto& use : uses)
         EXPECT_THAT(assertionText(use), HasSubstr("Executing in wrong thread "));
      Korvo::auxThreadCount = 1;  // the program lets other threads share the loop's objects
      EXPECT_EQ(assertionText(uses[0]) + assertionText(uses[1]), "");
      Korvo::auxThreadCount = 0;
   }).join();
   for (const auto& use : uses)
      EXPECT_EQ(assertionText(use), "");
}

// (The contracts every back-end shares are checked against both in TaskControlTest.)
TEST(ControlTest, HandlersRearmFromInsideTheirCall) {
   Handler h;
   auto timer = getTimerControl(&h);
   auto callback = getCallbackControl(&h);
   timer->setTimeout(-2.5);  // due at once, run by the loop only
   EXPECT_EQ(timer->remainingTimeout(), 0.0);
   h.then = [&] {
      h.calls() < 3 ? timer->setTimeout(0.0) : h.calls() < 5 ? timer.reset() : void();
   };
   doEventLoop();  // returns once nothing is registered any more
   EXPECT_EQ(h.calls(), 3);
   EXPECT_EQ(timer, nullptr);
   h.then = [&] { h.calls() < 5 ? callback->requestCallback() : void(); };  // on a later pass
   callback->requestCallback();
   doEventLoop();
   EXPECT_EQ(h.calls(), 5);
}

TEST(ControlDeathTest, MisuseAbortsByDefault) {
   Handler h;
   EXPECT_DEATH(getTimerControl(&h)->setTimeout(std::nan("")),
                "Korvo::Assert aborting because: .*seconds is NaN");
   EXPECT_DEATH(getFdControl(&h)->setFd(-1), "Korvo::Assert aborting because: .*flags >= 0");
}

TEST(ControlTest, FdWatches) {
   Pipe pipe;
   Handler reader, writer, bad;
   auto fd = getFdControl(&reader);
   fd->setFd(pipe.readFd());  // alone: persistent reads, non-blocking
   EXPECT_NE(fcntl(pipe.readFd(), F_GETFL) & O_NONBLOCK, 0);
   reader.then = [&] { reader.got.size() == 3 ? fd->delFd() : void(); };
   pipe.put("xyz");
   doEventLoop();
   EXPECT_EQ(reader.got, "xyz");
   EXPECT_EQ(fd->getFd(), -1);
   fd.reset();
   EXPECT_NE(fcntl(pipe.readFd(), F_GETFD), -1);  // never closed by the control

   auto out = getFdControl(&writer);  // interests set before the descriptor apply at once
   out->setReads(false);
   out->setWrites(true);
   writer.then = [&] { writer.calls() < 3 ? out->setWrites(true) : void(); };  // one-shot
   out->setFd(pipe.writeFd());
   doEventLoop();
   EXPECT_EQ(writer.calls(), 3);

   auto badFd = getFdControl(&bad);
   char path[] = "/tmp/korvoFdControlXXXXXX";
   const int file = ::mkstemp(path);
   ::unlink(path);
   EXPECT_THAT(KorvoTest::traced("1", [&] { badFd->setFd(file); }),  // epoll takes no files
               HasSubstr("cannot watch fd " + std::to_string(file)));
   doEventLoop();  // nothing registered: returns at once
   badFd->delFd();
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

TEST(ControlTest, RemoteRequestsComeFromAnyThreadAndCoalesce) {
   exitEventLoop();  // outside a loop: nothing
   Handler h;
   auto remote = getRemoteCallbackControl(&h);
   std::atomic<int> done{0};
   h.then = [&] { done.load() == 4 ? exitEventLoop() : void(); };
   std::vector<std::thread> threads;
   for (int t = 0; t < 4; ++t) {
      threads.emplace_back([&] {
         for (int i = 0; i < 2000; ++i)
            EXPECT_TRUE(remote->tryRequestCallback());
         done.fetch_add(1);
         remote->requestCallback();  // the last one is seen
      });
   }
   doEventLoop();
   for (std::thread& t : threads)
      t.join();
   EXPECT_FALSE(remote->pendingCallback());

   // The loop's thread has ended: requests are refused, nothing breaks.
   std::shared_ptr<RemoteCallbackControl> orphan;
   std::thread([&] { orphan = getRemoteCallbackControl(&h); }).join();
   testing::internal::CaptureStderr();
   EXPECT_FALSE(orphan->tryRequestCallback());
   orphan->requestCallback();
   EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr("dropped: its thread has ended"));
}

TEST(ControlTest, SignalsAreDeliveredOnTheLoop) {
   struct Watcher : SignalHandler {
      void signalReceived(int signo) override { throw signo; }
   } watcher;
   auto usr1 = getSignalControl(&watcher, SIGUSR1);
   EXPECT_THAT(assertionText([&] { getSignalControl(&watcher, SIGUSR1); }),
               HasSubstr("already has a control"));
   ASSERT_EQ(::kill(::getpid(), SIGUSR1), 0);
   EXPECT_THROW(doEventLoop(30.0), int);  // declined: leaves doEventLoop()
   usr1.reset();                          // the disposition is back to what it was
   struct sigaction action = {};
   ASSERT_EQ(::sigaction(SIGUSR1, nullptr, &action), 0);
   EXPECT_EQ(action.sa_handler, SIG_DFL);
}

}  // namespace
