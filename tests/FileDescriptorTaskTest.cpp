// File-descriptor tasks on real pipes, driven by passes of the real loop.

#include <Korvo/FileDescriptorTask.h>

#include "TaskTestSupport.h"

#include <thread>

namespace {

using namespace KorvoTest;

class FdTask : public Korvo::FileDescriptorTask {
public:
   FdTask(std::shared_ptr<Korvo::TaskScheduler> s, const std::string& name)
       : FileDescriptorTask(std::move(s), TaskPriority::normal, name) {}
   void taskExecuteReadable() override {
      ++reads;
      char buf[16];
      const ssize_t n = ::read(taskWatchFd(), buf, sizeof(buf));  // a little per run
      taskWorkCountInc(n > 0 ? static_cast<unsigned long>(n) : 0);
      if (onRead) {
         onRead();
      }
   }
   void taskExecuteWritable() override { ++writes; }
   void handleTaskBusy() override { ++busyChanges; }
   int reads = 0, writes = 0, busyChanges = 0;
   std::function<void()> onRead;
};

class FdTaskTest : public ::testing::Test {
protected:
   ThrowOnAssert throwing_;
   std::shared_ptr<Korvo::TaskSchedulerRoot> root_ = Korvo::schedulerRootKorvoNonShared("fdRoot");
   std::shared_ptr<FdTask> task_ = Korvo::makeShared<FdTask>(root_, "fd");
};

TEST_F(FdTaskTest, DirectionsAreSeparateTasksWithTheirOwnRulesAndCounts) {
   Pipe pipe;
   pipe.put("0123456789abcdefghijklmnopqrstuvwxyz");  // 36 bytes: three read runs
   // A fresh task watches no direction, so a readable descriptor reports nothing.
   task_->taskWatchFdIs(pipe.readFd());
   pump();
   EXPECT_EQ(task_->reads + task_->taskWorkPendingWritable() + task_->taskScheduledWritable(), 0u);
   EXPECT_EQ(root_->taskForTest("fd:write"), nullptr);
   task_->taskWatchWritableIs(false);  // no change, but the write task now exists
   EXPECT_NE(root_->taskForTest("fd:write"), nullptr);
   task_->taskWatchReadableIs(true);
   pump();  // read runs repeat while data remains
   EXPECT_EQ(task_->reads, 3);
   EXPECT_EQ(task_->taskWorkCountReadableTotal(), 36u);
   EXPECT_EQ(task_->taskWorkCountReadableHighWaterMark().value(), 16u);
   EXPECT_FALSE(task_->taskBusy());
   EXPECT_GT(task_->busyChanges, 0);
   // The write end of a pipe is always writable: one run per request.
   task_->taskWatchReadableIs(false);
   task_->taskWatchFdIs(pipe.writeFd());
   task_->taskWatchWritableIs(true);
   pump();
   EXPECT_EQ(task_->writes, 1);
   EXPECT_FALSE(task_->taskWatchWritable());
   task_->taskWatchWritableIs(true);
   pump();
   EXPECT_EQ(task_->writes, 2);
   EXPECT_EQ(task_->taskRunCount(), 5u);
   // Queued directions stay queued for the same descriptor and leave for another.
   task_->taskWatchReadableIs(true);
   task_->scheduleTaskReadable();
   task_->taskWatchFdIs(pipe.writeFd());
   EXPECT_TRUE(task_->taskScheduledReadable());
   task_->taskWatchFdIs(pipe.readFd());
   EXPECT_FALSE(task_->taskScheduled());
   // Suspending and resuming does not run a direction that is not watched.
   task_->taskWatchReadableIs(false);
   task_->taskSuspendedIs(true);
   task_->taskSuspendedIs(false);
   EXPECT_FALSE(task_->taskScheduled());
}

TEST_F(FdTaskTest, MisuseFailsWithItsMessage) {
   Pipe pipe;
   task_->taskWatchFdIs(pipe.readFd());
   const std::pair<std::function<void()>, std::string> cases[] = {
       {[&] { task_->readFdEvent(pipe.readFd()); },
        "readFdEvent() called with taskWatchReadable off"},
       {[&] { task_->writeFdEvent(pipe.readFd()); },
        "writeFdEvent() called with taskWatchWritable off"},
       {[&] { task_->taskWorkCountWritableInc(1); },
        "WriteTask not created by taskWatchWritableIs( true )"},
       {[&] { task_->taskWatchFdIs(-1); }, "flags >= 0"},
       {[&] {
           task_->taskWatchReadableIs(true);
           task_->readFdEvent(99);
        },
        "Notified about 99 watching " + std::to_string(pipe.readFd())},
   };
   for (const auto& [call, message] : cases) {
      EXPECT_THAT(assertionText(call), HasSubstr(message));
   }
   std::thread([&] {
      EXPECT_THAT(assertionText([&] { task_->taskWatchReadableIs(false); }),
                  HasSubstr("Executing in wrong thread "));
   }).join();
   EXPECT_TRUE(task_->taskWatchReadable());
}

// A closed and reused number is watched afresh; a handler exception leaves the
// task unusable; a handler may drop the last reference to its task.
TEST_F(FdTaskTest, ReusedNumbersExceptionsAndSelfRelease) {
   auto pipe = std::make_unique<Pipe>();
   const int fd = pipe->readFd();
   task_->taskWatchReadableIs(true);
   task_->taskWatchFdIs(fd);
   task_->taskWatchFdDel();
   pipe.reset();
   pipe = std::make_unique<Pipe>();
   ASSERT_EQ(pipe->readFd(), fd);
   pipe->put("0123456789abcdefghijklmnopqrstuvwxyz");
   task_->taskWatchFdIs(fd);
   task_->onRead = [] { throw std::runtime_error("handler failed"); };
   EXPECT_THROW(pump(), std::runtime_error);
   EXPECT_EQ(task_->reads, 1);
   // Data remains: the next run finds the previous one still marked in progress.
   root_->requestSchedulerRun();
   EXPECT_THAT(assertionText([&] { pump(); }), HasSubstr("Executing task already set"));
   task_ = Korvo::makeShared<FdTask>(root_, "fd2");
   std::weak_ptr<FdTask> weak = task_;
   task_->taskWatchReadableIs(true);
   task_->taskWatchFdIs(fd);
   task_->onRead = [this] { task_.reset(); };
   root_->requestSchedulerRun();
   pump();
   EXPECT_TRUE(weak.expired());
}

}  // namespace
