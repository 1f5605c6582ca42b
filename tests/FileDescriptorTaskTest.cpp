// File-descriptor tasks on real pipes, driven by passes of the real loop.

#include <Korvo/FileDescriptorTask.h>

#include "TaskTestSupport.h"

#include <optional>
#include <thread>

namespace {

using namespace KorvoTest;

struct FdTask : Korvo::FileDescriptorTask {
   using FileDescriptorTask::FileDescriptorTask;
   void taskExecuteReadable() override {
      char buf[16];
      const ssize_t n = ::read(taskWatchFd(), buf, sizeof(buf));  // a little per run
      taskWorkCountInc(n > 0 ? static_cast<unsigned long>(n) : 0);
      if (onRead)
         onRead();
   }
   void taskExecuteWritable() override {}
   void handleTaskBusy() override { ++busyChanges; }
   int busyChanges = 0;
   std::function<void()> onRead;
};

struct FdTaskTest : ::testing::Test {
   ThrowOnAssert throwing_;
   std::optional<Pipe> pipe_{std::in_place};
   std::shared_ptr<Korvo::TaskSchedulerRoot> root_ = Korvo::schedulerRootKorvoNonShared("fdRoot");
   std::shared_ptr<FdTask> task_ = Korvo::makeShared<FdTask>(root_, TaskPriority::normal, "fd");
};

TEST_F(FdTaskTest, DirectionsAreSeparateTasksWithTheirOwnRulesAndCounts) {
   pipe_->put("0123456789abcdefghijklmnopqrstuvwxyz");  // 36 bytes: three read runs
   // A fresh task watches no direction, so a readable descriptor reports nothing.
   task_->taskWatchFdIs(pipe_->readFd());
   pump();
   EXPECT_EQ(task_->taskRunCount() + task_->taskWorkPendingWritable(), 0u);
   task_->taskWatchReadableIs(true);
   pump();  // read runs repeat while data remains
   EXPECT_EQ(task_->taskRunCountReadable(), 3u);
   EXPECT_EQ(task_->taskWorkCountReadableTotal(), 36u);
   EXPECT_EQ(task_->taskWorkCountReadableHighWaterMark().value(), 16u);
   EXPECT_FALSE(task_->taskBusy());
   EXPECT_GT(task_->busyChanges, 0);
   // The write end of a pipe is always writable: one run per request.
   task_->taskWatchReadableIs(false);
   task_->taskWatchFdIs(pipe_->writeFd());
   for (unsigned runs : {1u, 2u}) {
      task_->taskWatchWritableIs(true);
      pump();
      EXPECT_EQ(task_->taskRunCountWritable(), runs);
      EXPECT_FALSE(task_->taskWatchWritable());
   }
   // Queued directions stay queued for the same descriptor and leave for another.
   task_->taskWatchReadableIs(true);
   task_->scheduleTaskReadable();
   task_->taskWatchFdIs(pipe_->writeFd());
   EXPECT_TRUE(task_->taskScheduledReadable());
   task_->taskWatchFdIs(pipe_->readFd());
   EXPECT_FALSE(task_->taskScheduled());
   // Suspending and resuming does not run a direction that is not watched.
   task_->taskWatchReadableIs(false);
   task_->taskSuspendedIs(true);
   task_->taskSuspendedIs(false);
   EXPECT_FALSE(task_->taskScheduled());
}

TEST_F(FdTaskTest, MisuseFailsWithItsMessage) {
   task_->taskWatchFdIs(pipe_->readFd());
   EXPECT_THAT(assertionText([&] { task_->readFdEvent(pipe_->readFd()); }),
               HasSubstr("readFdEvent() called with taskWatchReadable off"));
   EXPECT_THAT(assertionText([&] { task_->writeFdEvent(pipe_->readFd()); }),
               HasSubstr("writeFdEvent() called with taskWatchWritable off"));
   EXPECT_THAT(assertionText([&] { task_->taskWorkCountWritableInc(1); }),
               HasSubstr("WriteTask not created by taskWatchWritableIs( true )"));
   EXPECT_THAT(assertionText([&] { task_->taskWatchFdIs(-1); }), HasSubstr("flags >= 0"));
   task_->taskWatchReadableIs(true);
   EXPECT_THAT(assertionText([&] { task_->readFdEvent(99); }),
               HasSubstr("Notified about 99 watching " + std::to_string(pipe_->readFd())));
   std::thread([&] {
      EXPECT_THAT(assertionText([&] { task_->taskWatchReadableIs(false); }),
                  HasSubstr("Executing in wrong thread "));
   }).join();
   EXPECT_TRUE(task_->taskWatchReadable());
}

// A closed and reused number is watched afresh; a handler exception leaves the
// task unusable; a handler may drop the last reference to its task.
TEST_F(FdTaskTest, ReusedNumbersExceptionsAndSelfRelease) {
   const int fd = pipe_->readFd();
   task_->taskWatchReadableIs(true);
   task_->taskWatchFdIs(fd);
   task_->taskWatchFdDel();
   pipe_.emplace();  // closes the pipe, then opens one with the same numbers
   ASSERT_EQ(pipe_->readFd(), fd);
   pipe_->put("0123456789abcdefghijklmnopqrstuvwxyz");
   task_->taskWatchFdIs(fd);
   task_->onRead = [] { throw std::runtime_error("handler failed"); };
   EXPECT_THROW(pump(), std::runtime_error);
   EXPECT_EQ(task_->taskRunCountReadable(), 1u);
   // Data remains: the next run finds the previous one still marked in progress.
   root_->requestSchedulerRun();
   EXPECT_THAT(assertionText([&] { pump(); }), HasSubstr("Executing task already set"));
   task_ = Korvo::makeShared<FdTask>(root_, TaskPriority::normal, "fd2");
   std::weak_ptr<FdTask> weak = task_;
   task_->taskWatchReadableIs(true);
   task_->taskWatchFdIs(fd);
   task_->onRead = [this] { task_.reset(); };
   root_->requestSchedulerRun();
   pump();
   EXPECT_TRUE(weak.expired());
}

}  // namespace
