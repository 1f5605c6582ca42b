#ifndef KORVO_KORVO_H
#define KORVO_KORVO_H

// The whole public interface of libKorvo.

#include <Korvo/Allocator.h>
#include <Korvo/Backtrace.h>
#include <Korvo/Debug.h>
#include <Korvo/Exception.h>
#include <Korvo/Export.h>
#include <Korvo/Locking.h>
#include <Korvo/Platform.h>
#include <Korvo/Thread.h>

#endif
