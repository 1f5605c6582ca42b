#define KORVO_SOURCE_FILE "UtilCpp"
#include "Korvo/Util.h"

#include "Korvo/Debug.h"
#include "Korvo/Exception.h"
#include "Korvo/Locking.h"
#include "UtilImpl.h"
#include "UtilParse.h"

#include <dlfcn.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <limits>
#include <stdexcept>
#include <string>

namespace Korvo {

using Util::Impl::errorText;
using Util::Impl::utilHandler;

namespace {

// Per thread, like the loader's own error state it is taken from.
thread_local std::string keptSymError_;
thread_local bool hasSymError_ = false;
thread_local std::string returnedSymError_;

void keepSymError(const char* text) {
   hasSymError_ = text != nullptr;
   keptSymError_ = text ? text : "";
}

double readWaitForDefault() {
   const char* text = std::getenv("WAITFOR_DEFAULT");
   if (text == nullptr) {
      return std::numeric_limits<double>::infinity();
   }
   try {
      return std::stod(text);
   } catch (const std::logic_error&) {
      // no number, or out of range
      std::cerr << "Parsing the WAITFOR_DEFAULT env. variable failed" << std::endl;
      return std::numeric_limits<double>::infinity();
   }
}

std::string procPath(int pid, const char* file) {
   return "/proc/" + std::to_string(pid) + "/" + file;
}

void* resolveIfHeapCheck(Platform::DebugHandler& h, const char* symbol) {
   if (std::getenv("HEAPCHECK") == nullptr) {
      return nullptr;
   }
   return Util::resolveSym(h, symbol);
}

}  // namespace

double waitForDefaultTimeout() {
   // Thread-safe one-time initialisation: racing first calls see one value.
   static const double value = readWaitForDefault();
   return value;
}

namespace HeapChecker {

void* resolveAllocSym(Platform::DebugHandler& h) {
   return resolveIfHeapCheck(h, "HeapChecker_RecordClientAlloc");
}

void* resolveFreeSym(Platform::DebugHandler& h) {
   return resolveIfHeapCheck(h, "HeapChecker_RecordClientFree");
}

}  // namespace HeapChecker

namespace Util {

void* resolveSym(DebugHandler& h, const char* name) {
   void* program = ::dlopen(nullptr, RTLD_LAZY);
   if (program == nullptr) {
      keepSymError(::dlerror());
      KORVO_TRACE(h, 1, "Util::resolveSym() unable to resolve:" << name << " " << keptSymError_);
      return nullptr;
   }
   // A null address is a valid symbol value; only the loader's error state tells
   // a failed look-up apart, so clear it first.
   ::dlerror();
   void* address = ::dlsym(program, name);
   keepSymError(::dlerror());
   ::dlclose(program);
   if (hasSymError_) {
      KORVO_TRACE(h, 1, "Util::resolveSym() unable to resolve:" << name << " " << keptSymError_);
      return nullptr;
   }
   KORVO_TRACE(h, 5, "Util::resolveSym() sym:" << name << " found at " << DisplayPointer(address));
   return address;
}

const char* resolveSymError() {
   if (!hasSymError_) {
      return nullptr;
   }
   // Handed out from a second buffer so the pointer outlives the reset.
   returnedSymError_.swap(keptSymError_);
   keptSymError_.clear();
   hasSymError_ = false;
   return returnedSymError_.c_str();
}

std::string decodeMagic(unsigned long value) {
   char text[sizeof(value) + 1];
   std::memcpy(text, &value, sizeof(value));
   text[sizeof(value)] = '\0';
   return text;
}

void emitCanaryLog(DebugHandler& h, const std::string& text) {
   const std::string line = "CANARY:" + text;
   ::openlog(nullptr, LOG_PID | LOG_NDELAY, LOG_LOCAL5);
   ::syslog(LOG_DEBUG, "%s", line.c_str());
   ::closelog();
   KORVO_TRACE(h, 5, line);
}

std::string readProcStartTime(DebugHandler& h, int pid) {
   const std::string path = procPath(pid, "stat");
   std::ifstream in(path);
   if (!in.is_open()) {
      KORVO_TRACE(h, 5,
                  "Util::readProcStartTime() error - Couldn't access stat file:"
                      << path << " stream state:" << in.rdstate());
      return std::string();
   }
   std::string line;
   if (!std::getline(in, line)) {
      KORVO_TRACE(h, 5, "Util::readProcStartTime() failed to read contents of file: " << path);
      return std::string();
   }
   std::string startTime = startTimeFromStat(line, path);
   KORVO_TRACE(h, 5,
               "Util::readProcStartTime() success - pid:" << pid << " start time:" << startTime);
   return startTime;
}

std::string readProcStartTime(int pid) {
   return readProcStartTime(utilHandler(), pid);
}

std::string readProcTitle(DebugHandler& h, int pid, bool quiet) {
   const unsigned missingLevel = quiet ? 5 : 1;
   const std::string path = procPath(pid, "status");
   std::ifstream in(path);
   if (!in.is_open()) {
      KORVO_TRACE(h, missingLevel,
                  "Util::readProcTitle() error - Couldn't access status file:"
                      << path << " stream state:" << in.rdstate());
      return std::string();
   }
   const std::optional<std::string> title = titleFromStatus(in);
   if (!title) {
      KORVO_TRACE(h, missingLevel,
                  "Util::readProcTitle() error - Couldn't find proc title for pid:"
                      << pid << " stream state:" << in.rdstate());
      return std::string();
   }
   if (title->empty()) {
      KORVO_TRACE(h, 1, "Util::readProcTitle() error - Read 0 length title for pid:" << pid);
      return std::string();
   }
   KORVO_TRACE(h, 5, "Util::readProcTitle() success - title:" << *title);
   return *title;
}

std::string readProcTitle(int pid, bool quiet) {
   return readProcTitle(utilHandler(), pid, quiet);
}

std::string readPidCmdline(DebugHandler& h, int pid) {
   const std::string cmdline = cmdlineFromText(fileRead(h, procPath(pid, "cmdline")));
   KORVO_TRACE(h, 9, "Util::readPidCmdline() pid:" << pid << " cmdline:" << cmdline);
   return cmdline;
}

std::string traceHandleName(const void* handler) {
   if (handler == nullptr) {
      return std::string();
   }
   Platform::LocoGuard guard;
   Nyx::DebugHandler::initialize();
   // Compared by address only: a stale pointer must not be read through.
   for (const auto& [name, live] : *Nyx::DebugHandler::handlerMap_) {
      if (static_cast<const void*>(static_cast<const Platform::DebugHandler*>(live)) == handler) {
         return name;
      }
   }
   return "unknown handler " + DisplayPointer(handler).toString();
}

void includeShmemInCore() {
   const std::string path = procPath(::getpid(), "coredump_filter");
   std::FILE* file = std::fopen(path.c_str(), "r+e");
   if (file == nullptr) {
      KORVO_TRACE(utilHandler(), 1,
                  "Util::includeShmemInCore() unable to open " << path << ": " << errorText(errno));
      return;
   }
   unsigned filter = 0;
   if (std::fscanf(file, "%x", &filter) != 1) {
      const int err = errno;
      std::fclose(file);
      KORVO_FAIL("Korvo::Util::includeShmemInCore() fscanf failed for file:" << path << " "
                                                                             << errorText(err));
   }
   // Bit 3: shared anonymous memory. The kernel reads the value back in either
   // base, so it is written in decimal. Switching from reading to writing a stdio
   // stream needs a positioning call in between.
   filter |= 8u;
   std::fseek(file, 0, SEEK_CUR);
   std::fprintf(file, "%d", static_cast<int>(filter));
   if (std::fclose(file) != 0) {
      KORVO_TRACE(
          utilHandler(), 1,
          "Util::includeShmemInCore() unable to write " << path << ": " << errorText(errno));
   }
}

}  // namespace Util
}  // namespace Korvo
