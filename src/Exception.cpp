// The system assertion function is declared only when NDEBUG is off.
#undef NDEBUG
#include <assert.h>

#include "Korvo/Exception.h"

#include "Korvo/Debug.h"

#include "SystemAssert.h"

#include <atomic>
#include <iostream>

namespace Korvo {

namespace {
std::atomic<bool> throwOnAssertFail_{false};
}

Exception::Exception(const std::string& msg, bool captureBacktrace)
    : backtrace_(captureBacktrace), message_(msg) {}

Exception::~Exception() = default;

std::string Exception::msg() const {
   std::string text = name();
   text += "(\"";
   text += message_;
   text += "\")";
   return text;
}

const char* Exception::what() const noexcept {
   // Built once: the stack is resolved through the loader, which is too costly
   // to repeat, and callers may keep the pointer.
   if (whatText_.empty()) {
      whatText_ = msg() + "\n" + backtrace_.pretty();
   }
   return whatText_.c_str();
}

void Exception::throwException(const std::string& msg) {
   throw Exception(msg);
}

void throwOnAssertFailIs(bool on) {
   throwOnAssertFail_.store(on, std::memory_order_relaxed);
}

bool throwOnAssertFail() {
   return throwOnAssertFail_.load(std::memory_order_relaxed);
}

void AssertException::throwException(const std::string& text) {
   if (throwOnAssertFail()) {
      throw AssertException(text);
   }
   std::cerr << "Korvo::Assert aborting because: " << text << std::endl;
   std::terminate();
}

void debugAndThrowAssertException(Platform::DebugHandler* handler, unsigned level,
                                  Platform::DebugStream& stream, const char* file,
                                  const char* function, int line) {
   std::string message = file ? file : "";
   message += ":";
   message += function ? function : "";
   message += ":";
   message += std::to_string(line);
   message += ": ";
   message += stream.str();
   if (handler && handler->enabled(level)) {
      Platform::DebugStream traced;
      traced << message;
      handler->dump(traced, level, file, line, function);
   }
   AssertException::throwException(message);
}

void debugAndThrowAssertException(Platform::DebugHandler& handler, unsigned level,
                                  Platform::DebugStream& stream, const char* file,
                                  const char* function, int line) {
   debugAndThrowAssertException(&handler, level, stream, file, function, line);
}

namespace Impl {
void systemAssertFail(const char* expr, const char* file, int line, const char* function) {
   __assert_fail(expr, file, static_cast<unsigned>(line), function);
}
}  // namespace Impl

}  // namespace Korvo
