// korvo-demo: a small event-driven daemon built on libKorvo.
//
// It takes a lock file so only one copy runs, then for a few seconds:
//  - a wheel timer ticks every 100 ms and schedules a "producer" task, which
//    writes a line into one end of a socket pair;
//  - an fd watch on the other end schedules a high-priority "consumer" task,
//    which reads what arrived, yielding when its quantum is spent;
//  - a scavenge-priority "housekeeping" task runs only when nothing else waits;
//  - a libevent timer ends the run, after which the daemon prints its task
//    statistics and the scheduler's last events.
//
//   TRACE=KorvoDemo/05,TaskScheduler/4 build/examples/korvo-demo [seconds] [--virtual]
//
// With --virtual the run uses virtual time: the clock jumps from timer to timer,
// so a long run finishes at once (what tests of such a daemon do).

#include <Korvo/Korvo.h>

#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <iostream>
#include <memory>
#include <string>

namespace {

using Korvo::Platform::DebugHandler;

class Demo;

class Producer : public Korvo::Task {
public:
   Producer(std::shared_ptr<Korvo::TaskScheduler> s, Demo& demo)
       : Task(std::move(s), Korvo::TaskPriority::normal, "producer"), demo_(demo) {}
   void taskExecute() override;

private:
   Demo& demo_;
};

class Consumer : public Korvo::Task {
public:
   Consumer(std::shared_ptr<Korvo::TaskScheduler> s, Demo& demo)
       : Task(std::move(s), Korvo::TaskPriority::high, "consumer"), demo_(demo) {}
   void taskExecute() override;

private:
   Demo& demo_;
};

class Housekeeping : public Korvo::Task {
public:
   explicit Housekeeping(std::shared_ptr<Korvo::TaskScheduler> s)
       : Task(std::move(s), Korvo::TaskPriority::scavenge, "housekeeping") {}
   void taskExecute() override { ++runs_; }
   unsigned runs() const { return runs_; }

private:
   unsigned runs_ = 0;
};

class Demo : private Korvo::Platform::TimeoutHandler, private Korvo::Platform::FdEventHandler {
public:
   explicit Demo(double seconds)
       : log_(Korvo::Platform::getDebugHandler("KorvoDemo")),
         root_(Korvo::schedulerRootKorvo()),
         seconds_(seconds) {
      if (::socketpair(AF_UNIX, SOCK_STREAM, 0, fds_) != 0) {
         throw Korvo::RuntimeException(std::string("socketpair: ") + std::strerror(errno));
      }
      producer_ = std::make_shared<Producer>(root_, *this);
      consumer_ = std::make_shared<Consumer>(root_, *this);
      housekeeping_ = std::make_shared<Housekeeping>(root_);
      ticker_.demo = this;
      tick_ = Korvo::Platform::getTimerControl(&ticker_, Korvo::getTimerWheel());
      stop_ = Korvo::Platform::getTimerControl(static_cast<TimeoutHandler*>(this));
      watch_ = Korvo::Platform::getFdControl(static_cast<FdEventHandler*>(this));
   }
   ~Demo() override {
      ::close(fds_[0]);
      ::close(fds_[1]);
   }

   void run() {
      KORVO_TRACE(log_, 0, "korvo-demo running for " << seconds_ << " s");
      watch_->setFd(fds_[1]);
      tick_->setTimeout(0.1);
      stop_->setTimeout(seconds_);
      housekeeping_->scheduleTask();
      if (Korvo::Platform::fastForward()) {
         // Under virtual time the bounded loop jumps from timer to timer; the
         // plain one would jump once and then wait in real time.
         Korvo::Platform::doEventLoop(seconds_ + 1.0);
      } else {
         Korvo::Platform::doEventLoop();
      }
      report();
   }

   void produce() {
      const std::string line = "tick " + std::to_string(++produced_) + "\n";
      if (::write(fds_[0], line.data(), line.size()) < 0) {
         KORVO_TRACE(log_, 0, "write failed: " << std::strerror(errno));
      }
      KORVO_TRACE(log_, 5, "produced " << line.substr(0, line.size() - 1));
   }

   void consume(Korvo::Task& task) {
      char buffer[64];
      // Read in small bites and give the loop back when the quantum is spent;
      // what is left is read on the next run.
      while (!task.taskShouldYield()) {
         const ssize_t n = ::read(fds_[1], buffer, sizeof(buffer));
         if (n <= 0) {
            return;
         }
         consumedBytes_ += static_cast<size_t>(n);
         task.taskWorkCountInc(static_cast<unsigned long>(n));
      }
      task.scheduleTask();
   }

private:
   struct Ticker : Korvo::Platform::TimeoutHandler {
      Demo* demo = nullptr;
      void timeout() override { demo->handleTick(); }
   };

   void handleTick() {
      producer_->scheduleTask();
      if (!stopping_) {
         tick_->setTimeout(0.1);
      }
   }
   // The stop timer: withdraw every event, so doEventLoop() runs out and returns.
   void timeout() override {
      KORVO_TRACE(log_, 0, "korvo-demo stopping");
      stopping_ = true;
      tick_->delTimeout();
      watch_->delFd();
   }
   void readFdEvent(int) override { consumer_->scheduleTask(); }
   void writeFdEvent(int) override {}

   void report() {
      std::cout << "korvo-demo: produced " << produced_ << " lines, consumed " << consumedBytes_
                << " bytes, housekeeping ran " << housekeeping_->runs() << " time(s)\n";
      for (const auto* task : {static_cast<Korvo::TaskImpl*>(producer_.get()),
                               static_cast<Korvo::TaskImpl*>(consumer_.get())}) {
         const Korvo::TaskStat stat = task->getStats();
         std::cout << "  task " << stat.taskName() << ": runs " << stat.taskRunCount() << ", work "
                   << stat.taskWorkCountTotal() << "\n";
      }
      std::cout << "\n";
      root_->printHistory(std::cout, 12);
   }

   std::shared_ptr<DebugHandler> log_;
   std::shared_ptr<Korvo::TaskSchedulerRoot> root_;
   double seconds_;
   int fds_[2] = {-1, -1};
   Ticker ticker_{};
   std::shared_ptr<Producer> producer_;
   std::shared_ptr<Consumer> consumer_;
   std::shared_ptr<Housekeeping> housekeeping_;
   std::shared_ptr<Korvo::Platform::TimerControl> tick_;
   std::shared_ptr<Korvo::Platform::TimerControl> stop_;
   std::shared_ptr<Korvo::Platform::FdControl> watch_;
   unsigned produced_ = 0;
   size_t consumedBytes_ = 0;
   bool stopping_ = false;
};

void Producer::taskExecute() {
   demo_.produce();
}
void Consumer::taskExecute() {
   demo_.consume(*this);
}

}  // namespace

int main(int argc, char** argv) {
   double seconds = 3.0;
   bool virtualTime = false;
   for (int i = 1; i < argc; ++i) {
      if (std::strcmp(argv[i], "--virtual") == 0) {
         virtualTime = true;
      } else {
         seconds = std::atof(argv[i]);
      }
   }
   auto log = Korvo::Platform::getDebugHandler("KorvoDemo");
   Korvo::FileLock single(*log, "/tmp/korvo-demo", "korvo-demo.lock");
   if (!single.lock()) {
      std::cerr << "korvo-demo: another copy holds /tmp/korvo-demo/korvo-demo.lock" << std::endl;
      return 1;
   }
   Korvo::Platform::setFastForward(virtualTime);
   Demo demo(seconds);
   demo.run();
   return 0;
}
