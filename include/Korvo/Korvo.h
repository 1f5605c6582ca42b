#ifndef KORVO_KORVO_H
#define KORVO_KORVO_H

// The whole public interface of libKorvo.

#include <Korvo/Allocator.h>
#include <Korvo/Backtrace.h>
#include <Korvo/ConstString.h>
#include <Korvo/Debug.h>
#include <Korvo/DirNode.h>
#include <Korvo/Exception.h>
#include <Korvo/Export.h>
#include <Korvo/FileDescriptorTask.h>
#include <Korvo/FileLock.h>
#include <Korvo/Hash.h>
#include <Korvo/IntrospectionMap.h>
#include <Korvo/List.h>
#include <Korvo/Locking.h>
#include <Korvo/Mappings.h>
#include <Korvo/NetNs.h>
#include <Korvo/Platform.h>
#include <Korvo/Plugin.h>
#include <Korvo/Random.h>
#include <Korvo/Task.h>
#include <Korvo/TaskControl.h>
#include <Korvo/TaskGroup.h>
#include <Korvo/TaskScheduler.h>
#include <Korvo/TaskSchedulerHistory.h>
#include <Korvo/TaskStat.h>
#include <Korvo/Thread.h>
#include <Korvo/Timeouts.h>
#include <Korvo/TimerTask.h>
#include <Korvo/TimerWheel.h>
#include <Korvo/Util.h>

#endif
