#ifndef KORVO_SRC_TESTPEER_H
#define KORVO_SRC_TESTPEER_H

// What the library's own tests look at beyond the interface: internal state that
// no user needs, reached through this one friend instead of public getters. Not
// installed.

#include "Korvo/DirNode.h"
#include "Korvo/TaskScheduler.h"
#include "Korvo/TimerWheel.h"

#include <cstddef>

namespace Korvo {

class TestPeer {
public:
   // How many nodes share this node's directory stream (0 when none is open).
   static long streamUseCount(const DirNode& node) { return node.dir_.use_count(); }
   // Whether a task group's snapshot of this queue is in progress.
   static bool snapshotActive(const TaskRunQueue& queue) {
      return queue.currentQueue_ == &queue.temporary_;
   }
   // Distinct expiry times waiting in the wheel's expiring-soon map.
   static std::size_t expiringSoonCount(const TimerWheel& wheel) {
      return wheel.timersExpiringSoon_.size();
   }
   static const std::shared_ptr<Platform::TimerControl>& masterTimer(const TimerWheel& wheel) {
      return wheel.masterTimer_;
   }
   // Tasks of this scheduler under forced yield.
   static std::size_t taskForceYieldInTestCount(const TaskScheduler& scheduler) {
      return scheduler.taskForceYieldInTestCount();
   }
};

}  // namespace Korvo

#endif
