#ifndef KORVO_KORVO_H
#define KORVO_KORVO_H

// The whole public interface of libKorvo.

#include <Korvo/Allocator.h>
#include <Korvo/Backtrace.h>
#include <Korvo/Debug.h>
#include <Korvo/Exception.h>
#include <Korvo/Export.h>
#include <Korvo/IntrospectionMap.h>
#include <Korvo/Locking.h>
#include <Korvo/Platform.h>
#include <Korvo/Thread.h>
#include <Korvo/Timeouts.h>
#include <Korvo/TimerWheel.h>

#endif
