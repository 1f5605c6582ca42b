#include "Korvo/Debug.h"

#include <iterator>

namespace Korvo {
namespace Fmt::Impl {

void buildMessageBufferInternal(Buffer& buffer, bool withClass, const char* funcName,
                                const char* className, fmt::string_view format,
                                fmt::format_args args) {
   if (withClass) {
      KORVO_ASSERT_IN("FmtUtilCpp", funcName && className, "funcName && className");
      fmt::format_to(std::back_inserter(buffer), "{}::{}() ", className, funcName);
   }
   fmt::vformat_to(std::back_inserter(buffer), format, args);
}

void buildMessageBuffer(Buffer& buffer, bool withClass, const char* funcName, const char* className,
                        fmt::string_view format, fmt::format_args args) {
   buffer.clear();
   buildMessageBufferInternal(buffer, withClass, funcName, className, format, args);
}

void buildDetailedMessageBuffer(Buffer& buffer, const char* file, int line, bool withClass,
                                const char* funcName, const char* className,
                                fmt::string_view format, fmt::format_args args) {
   buffer.clear();
   buffer.reserve(128);
   fmt::format_to(std::back_inserter(buffer), "{}:{}: ", file ? file : "", line);
   buildMessageBufferInternal(buffer, withClass, funcName, className, format, args);
}

std::string vformatstr(bool withClass, const char* funcName, const char* className,
                       fmt::string_view format, fmt::format_args args) {
   Buffer buffer;
   buildMessageBuffer(buffer, withClass, funcName, className, format, args);
   return fmt::to_string(buffer);
}

std::string vformatstr(const char* file, int line, bool withClass, const char* funcName,
                       const char* className, fmt::string_view format, fmt::format_args args) {
   Buffer buffer;
   buildDetailedMessageBuffer(buffer, file, line, withClass, funcName, className, format, args);
   return fmt::to_string(buffer);
}

void dumpDebugMsg(const char* msg, size_t len, uint32_t level, const void* handler,
                  const char* file, const char* func, int line) noexcept {
   Platform::dumpDebugMsg(msg, len, level, handler, file, func, line);
}

void vfmtrace(const void* handler, unsigned level, const char* file, bool withClass,
              const char* funcName, const char* className, int line, fmt::string_view format,
              fmt::format_args args) noexcept {
   // 500 characters of inline storage: a typical line costs no heap allocation
   // before the final write.
   Buffer buffer;
   buildMessageBuffer(buffer, withClass, funcName, className, format, args);
   dumpDebugMsg(buffer.data(), buffer.size(), level, handler, file, funcName, line);
}

}  // namespace Fmt::Impl

namespace Fmtrace::Impl {
fmt::format_context::iterator vformat_to(fmt::format_context& context, fmt::string_view format,
                                         fmt::format_args args) {
   return fmt::vformat_to(context.out(), format, args);
}
}  // namespace Fmtrace::Impl

}  // namespace Korvo
