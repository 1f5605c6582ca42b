#include "TaskTestSupport.h"

#include <Korvo/FileDescriptorTask.h>
#include <Korvo/TaskGroup.h>
#include <Korvo/TimerTask.h>

#include <sstream>

using namespace KorvoTest;

namespace {

using ReportTest = SchedulerFixture;

struct Timer : Korvo::TimerTask {
   using TimerTask::TimerTask;
   void taskExecute() override {}
};

struct Conn : Korvo::FileDescriptorTask {
   using FileDescriptorTask::FileDescriptorTask;
   void taskExecuteReadable() override {
      FakeClock::advance(4ms);
      taskWorkCountInc(512);
   }
   void taskExecuteWritable() override {}
};

}  // namespace

TEST_F(ReportTest, GoldenReport) {
   auto rootTask = [&](TaskPriority p, const char* name, LambdaTask::Body body = {}) {
      return makeTask(p, name, std::move(body), root_);
   };
   auto busyFor = [](Korvo::TaskDuration d, unsigned long work, unsigned pending) {
      return [=](LambdaTask& t) {
         FakeClock::advance(d);
         t.taskWorkCountInc(work);
         t.taskWorkPendingIs(pending);
      };
   };
   auto poll = rootTask(TaskPriority::high, "poll", busyFor(1ms, 3, 0));
   auto flush = rootTask(TaskPriority::normal, "flush", [](LambdaTask& t) {
      FakeClock::advance(12ms);
      t.taskWorkCountInc(20 * t.runs);  // 20, 40, 60: the average trails
      t.taskWorkPendingIs(7 - t.runs);
   });
   auto compact = rootTask(TaskPriority::low, "compact", [](LambdaTask& t) {
      FakeClock::advance(t.runs == 1 ? 45ms : 110ms);  // 200% and 500% of the quantum
   });
   auto audit = rootTask(TaskPriority::scavenge, "audit");
   auto idle = rootTask(TaskPriority::low, "idle");  // never runs
   auto paused = rootTask(TaskPriority::normal, "paused");
   auto other = makeTask(TaskPriority::high, "other;sync", busyFor(2ms, 1, 0));
   auto flows = Korvo::TaskGroup::TaskGroupIs("flows", TaskPriority::high, false, root_);
   flows->taskGroupQuantumIs(5ms);
   auto rx = makeTask(TaskPriority::normal, "flows;rx", {}, flows);
   rx->bodyIs([](LambdaTask& t) {
      FakeClock::advance(2ms);
      t.taskWorkCountInc(16);
      if (t.runs % 4 != 0) {
         t.scheduleTask();  // more than a quantum
      }
   });
   auto tx = makeTask(TaskPriority::low, "flows;tx", busyFor(1ms, 4, 2), flows);
   for (int round = 0; round < 3; ++round) {
      for (auto* t : {poll.get(), flush.get(), compact.get(), rx.get(), tx.get()}) {
         if (round < 2 || t != compact.get()) {
            t->scheduleTask();
         }
      }
      FakeClock::advance(3ms);
      drain(*root_);
   }
   other->scheduleTask();
   sched_->handleSchedulerRun();
   for (int i = 0; i < 2; ++i) {
      auto worker = rootTask(TaskPriority::normal, "worker", busyFor(5ms, 2, 1));
      worker->scheduleTask();
      drain(*root_);
   }
   rootTask(TaskPriority::high, "oneshot");
   auto armed = Korvo::makeShared<Timer>(root_, TaskPriority::low, "retry");
   armed->scheduleTaskDelay(10.0);
   auto unarmed = Korvo::makeShared<Timer>(root_, TaskPriority::normal, "expire");
   auto conn = Korvo::makeShared<Conn>(root_, TaskPriority::high, "conn");
   conn->taskWatchReadableIs(true);
   conn->taskWatchWritableIs(false);  // the write direction's row appears
   conn->scheduleTaskReadable();
   drain(*root_);
   paused->taskSuspendedIs(true);
   std::ostringstream report;
   auto reporter = rootTask(TaskPriority::normal, "report", [&](LambdaTask&) {
      audit->scheduleTask();
      root_->printStats(report, true, false, 20, 4294967295u, 4294967295u);
   });
   reporter->scheduleTask();
   root_->handleSchedulerRun();
   EXPECT_EQ(report.str(), R"report(Priority RunnableCount     IdleCount DeadCount   TotalRunCount
high                 0             5         1              11
normal               0             5         2              18
low                  0             4         0               5
scavenge             1             0         0               0
Maximum scheduler slip 0.004000 seconds
SP                = Task status and priority % two characters:
   first            T/t for active/idle timers, * for running task or blank
   second           priority and runnable status, upper case for runnable
RunCount          = Number of times task has run
TotalSec          = Total run time in seconds
LastDelay         = Scheduling delay last time task ran, in seconds
MaxDelay          = Maximum scheduling delay encountered, in seconds
200% 500%         = Number of times task used this percentage of quantum
MaxMs             = Maximum single run time in milliseconds
Dead              = Number of times a task with this name has died
TotalWorkCount    = Counter of total work units processed
DecayAvgWorkCount =    exponential decaying average of work units processed
MaxWorkCount      =    high watermark of work units processed in one run
LastWorkPending   = Work units pending processing
MaxWorkPending    =    high watermark of work units pending processing

TaskName             SP   RunCount      TotalSec Last/Max-Delay 200% 500% MaxMs Total/DecayA/Max-WorkCount Last/Max-WorkPending
-------------------- -- ---------- ------------- ------ ------- ---- ---- ----- ---------- -------- ------ --------- ----------
compact               l          2         0.155  0.025   0.025    1    1   110          0      0.0      -         0          -
flush                 n          3         0.036  0.013   0.013    0    0    12        120     25.8     60         4          6
TaskGroup;flows       h          6         0.027  0.000   0.004    0    0     6         18      3.0      3         0          2
flows;rx              n         12         0.024  0.000   0.004    0    0     2        192     16.0     16         0          -
conn:read             h          1         0.004  0.000   0.000    0    0     4        512    512.0    512         0          -
flows;tx              l          3         0.003  0.012   0.012    0    0     1         12      4.0      4         2          2
poll                  h          3         0.003  0.003   0.003    0    0     1          9      3.0      3         0          0
other;sync            h          1         0.002  0.000   0.000    0    0     2          1      1.0      1         0          0
audit                 S          0         0.000  0.000   0.000    0    0     0          0      0.0      -         0          -
conn:write            h          0         0.000  0.000   0.000    0    0     0          0      0.0      -         0          -
expire               tn          0         0.000  0.000   0.000    0    0     0          0      0.0      -         0          -
idle                  l          0         0.000  0.000   0.000    0    0     0          0      0.0      -         0          -
paused               Sn          0         0.000  0.000   0.000    0    0     0          0      0.0      -         0          -
report               *n          1         0.000  0.000   0.000    0    0     0          0      0.0      -         0          -
retry                Tl          0         0.000  0.000   0.000    0    0     0          0      0.0      -         0          -
TaskName (completed) SP   RunCount      TotalSec Last/Max-Delay 200% 500% MaxMs Dead Total/DecayA/Max-WorkCount Last/Max-WorkPending
-------------------- -- ---------- ------------- ------ ------- ---- ---- ----- ---- ---------- -------- ------ --------- ----------
worker                n          2         0.010  0.000   0.000    0    0     5    2          4      4.0      2         2          1
oneshot               h          0         0.000  0.000   0.000    0    0     0    1          0      0.0      -         0          -
)report");
   // Without the tasks that never ran, cut to the two longest runs; as narrow as the names shown.
   std::ostringstream cut;
   root_->printStats(cut, false, true, 0, 2, 0);
   EXPECT_EQ(cut.str().substr(cut.str().find("\ncompact ")), R"(
compact  l          2         0.155  0.025   0.025    1    1   110          0      0.0      -         0          -
flush    n          3         0.036  0.013   0.013    0    0    12        120     25.8     60         4          6
Skipped 6 tasks with no runs
Truncated 7 tasks due to requested limit
)");
}
