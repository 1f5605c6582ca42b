#ifndef KORVO_DEBUG_H
#define KORVO_DEBUG_H

// Tracing through named debug handlers.
//
// A component owns a handler (usually through Debuggable) and traces with
//    KORVO_TRACE(handler, 5, "opened " << path);
//    KORVO_FMTRACE(handler, 5, "opened {} in {} ms", path, ms);
// A disabled site costs one load through levelsPtr and one bit test: no call, no
// lock, no formatting. Which levels are on is decided by the process-wide registry
// (Nyx::DebugControl), filled from TRACE at load ("Korvo*/01" is on by default)
// and by setupKorvoDebug()/clearKorvoDebug(); changing it updates every live
// handler whose name matches. Lines are laid out by TRACEFORMAT and written,
// whole and never interleaved across threads, to TRACEFILE or stderr.

#include <Korvo/Exception.h>
#include <Korvo/Export.h>

#include <fmt/format.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <ostream>
#include <string>
#include <unordered_map>

namespace Korvo {
namespace Platform {

class KORVO_EXPORT DebugHandler : public std::enable_shared_from_this<DebugHandler> {
public:
   DebugHandler(const std::string& name, uint32_t levels, bool levelsFixed)
       : levels(levels), levelsPtr(&this->levels), name(name), levelsFixed(levelsFixed) {}
   DebugHandler(const DebugHandler&) = delete;
   DebugHandler& operator=(const DebugHandler&) = delete;
   virtual ~DebugHandler() = default;

   // Switches one level (taken modulo 32) of this handler.
   virtual void enabledIs(unsigned level, bool on) = 0;
   // Writes the stream's text as one trace line. Does not test the level again.
   virtual void dump(DebugStream& stream, unsigned level, const char* file, int line,
                     const char* func) const = 0;

   // Trace sites read the mask without a lock while the registry may change it: a
   // relaxed atomic load, which is the same single plain load on x86-64. A site may
   // see a change a little late, never a torn mask.
   bool enabled(unsigned level) const {
      return (std::atomic_ref<uint32_t>(*levelsPtr).load(std::memory_order_relaxed) >> level) & 1u;
   }
   // Switch levels of `levels` (not of an outside word) for sites reading concurrently.
   void levelsOr(uint32_t bits) {
      std::atomic_ref<uint32_t>(levels).fetch_or(bits, std::memory_order_relaxed);
   }
   void levelsAndNot(uint32_t bits) {
      std::atomic_ref<uint32_t>(levels).fetch_and(~bits, std::memory_order_relaxed);
   }
   uint32_t levelsNow() const {
      return std::atomic_ref<uint32_t>(const_cast<uint32_t&>(levels))
          .load(std::memory_order_relaxed);
   }

   uint32_t levels;
   // What trace sites test; points at `levels` unless built over an outside word.
   uint32_t* levelsPtr;
   std::string name;
   // When true, DebugControl::set/clear leave this handler's mask alone.
   bool levelsFixed;
};

}  // namespace Platform

namespace Nyx {

class KORVO_EXPORT DebugHandler : public Platform::DebugHandler {
public:
   // Registers the handler in handlerMap_. Takes the library lock.
   DebugHandler(const std::string& name, int levels, bool levelsFixed);
   // Trace sites test *levelsWord instead of the handler's own mask; enabledIs()
   // is then refused (an assertion failure).
   DebugHandler(const std::string& name, uint32_t* levelsWord, bool levelsFixed);
   ~DebugHandler() override;

   void enabledIs(unsigned level, bool on) override;
   void dump(Platform::DebugStream& stream, unsigned level, const char* file, int line,
             const char* func) const override;

   // name, "+" when fixed, "/", then "*" for all ten levels or the level digits.
   std::string displayString() const;
   static void printAll();
   // Creates the handler map if absent; the library lock must be held.
   static void initialize();

   // Every live handler by name (several may share one). Guarded by loco().
   static std::multimap<std::string, DebugHandler*>* handlerMap_;

private:
   void registerSelf();
};

// One registry entry: levels for an exact handler name, or for every name that
// begins with a prefix (a wildcard).
class KORVO_EXPORT DebugControl {
public:
   // Inserts itself in debugsMap_ or wildCardDebugsMap_; the lock must be held.
   DebugControl(const std::string& name, int levels, bool wildcard);
   ~DebugControl();
   DebugControl(const DebugControl&) = delete;
   DebugControl& operator=(const DebugControl&) = delete;

   // A new handler with the levels the registry gives the name. The flag is ignored.
   static std::shared_ptr<Platform::DebugHandler> get(const std::string& name, bool = false);
   // Adds / removes levels for a name or prefix ("Name*") and pushes the change
   // into every live handler of a matching name.
   static void set(const std::string& name, const std::string& levels);
   static void clear(const std::string& name, const std::string& levels);
   // Strips one trailing "*" and reports whether there was one.
   static std::string parseName(const std::string& name, bool& wildcard);
   // "0".."9" set that bit, "*" sets all ten; other characters are ignored.
   static uint32_t parseLevels(const std::string& levels);
   // The longest matching prefix entry, or null. The lock must be held.
   static DebugControl* findWildcard(std::string name);
   static void initialize();

   std::string displayString() const;
   static void printAll();

   const std::string& name() const { return name_; }
   uint16_t levels() const { return levels_; }
   bool wildcard() const { return wildcard_; }

   using DebugsMap = std::unordered_map<std::string, DebugControl*>;
   // Descending order, so a longer prefix is met before any shorter prefix of it.
   using WildCardDebugsMap = std::map<std::string, DebugControl*, std::greater<std::string>>;
   static DebugsMap* debugsMap_;
   static WildCardDebugsMap* wildCardDebugsMap_;

   // Trace-line fields (see setTraceFormat), written under the library lock.
   static bool showDate_;
   static bool showTime_;
   static bool showPid_;
   static bool showTid_;
   static bool showHandleName_;
   static bool showLevel_;
   static bool showLineInfo_;
   static bool showFuncName_;

private:
   friend class DebugRegistry;
   std::string name_;
   uint16_t levels_;
   bool wildcard_;
};

}  // namespace Nyx

// A base for objects that trace: holds a shared handler.
class KORVO_EXPORT Debuggable {
public:
   Debuggable() = default;
   explicit Debuggable(std::shared_ptr<Platform::DebugHandler>& handler) : debug_(handler) {}
   // Throws std::bad_weak_ptr when the handler is not owned by a shared pointer.
   explicit Debuggable(Platform::DebugHandler& handler) : debug_(handler.shared_from_this()) {}
   explicit Debuggable(const std::string& name);
   Debuggable(const Debuggable&) = default;
   Debuggable& operator=(const Debuggable&) = default;
   virtual ~Debuggable() = default;

   Platform::DebugHandler& debugHandler() const { return *debug_; }
   const std::shared_ptr<Platform::DebugHandler>& debugHandlerPtr() const { return debug_; }

protected:
   std::shared_ptr<Platform::DebugHandler> debug_;
};

namespace Platform {

// A new handler for `name` (never throws; a failure terminates).
KORVO_EXPORT std::shared_ptr<DebugHandler> getDebugHandler(const std::string& name) noexcept;
KORVO_EXPORT void destroyDebugHandler(DebugHandler* handler) noexcept;

// Applies TRACEFILE, then a TRACE-syntax list ("Name/levels,Prefix*/levels");
// null reads TRACE. Only adds levels.
KORVO_EXPORT void setupKorvoDebug(const char* list) noexcept;
// Removes the levels of a TRACE-syntax list; null does nothing.
KORVO_EXPORT void clearKorvoDebug(const char* list) noexcept;
KORVO_EXPORT void dumpKorvoDebugMap() noexcept;

// Writes one trace line: the TRACEFORMAT prefix, exactly `len` bytes of `msg`
// and a newline, under the library lock.
KORVO_EXPORT void dumpDebugMsg(const char* msg, size_t len, uint32_t level, const void* handler,
                               const char* file, const char* func, int line) noexcept;

// Sets the line fields from "date,time,pid,tid,handle,level,line-info,func-name";
// null reads TRACEFORMAT; "help" prints the usage; an unknown field changes nothing.
KORVO_EXPORT void setTraceFormat(const char* fields) noexcept;
KORVO_EXPORT void clearTraceFormat() noexcept;
KORVO_EXPORT void printAllTraceFormat() noexcept;

namespace Impl {
// The stream an enabled stream-style trace site fills. Making a stringstream costs
// about as much as writing the line, so each thread keeps one and reuses it, emptied
// and with its formatting reset, from line to line. A trace made while the thread's
// stream is being filled (an operator<< that itself traces) or while the thread ends
// gets a fresh stream of its own instead.
class KORVO_EXPORT TraceStream {
public:
   TraceStream();
   ~TraceStream();
   TraceStream(const TraceStream&) = delete;
   TraceStream& operator=(const TraceStream&) = delete;
   DebugStream& stream() { return *stream_; }

private:
   DebugStream* stream_;
   bool fresh_;
};

inline const DebugHandler& handlerRef(const DebugHandler& h) {
   return h;
}
inline const DebugHandler& handlerRef(const DebugHandler* h) {
   return *h;
}
template <typename P>
inline const DebugHandler& handlerRef(const std::shared_ptr<P>& h) {
   return *h;
}
}  // namespace Impl

}  // namespace Platform

namespace Fmt::Impl {

using Buffer = fmt::basic_memory_buffer<char, 500>;

KORVO_EXPORT void vfmtrace(const void* handler, unsigned level, const char* file, bool withClass,
                           const char* funcName, const char* className, int line,
                           fmt::string_view format, fmt::format_args args) noexcept;
KORVO_EXPORT void dumpDebugMsg(const char* msg, size_t len, uint32_t level, const void* handler,
                               const char* file, const char* func, int line) noexcept;
KORVO_EXPORT void buildMessageBuffer(Buffer& buffer, bool withClass, const char* funcName,
                                     const char* className, fmt::string_view format,
                                     fmt::format_args args);
KORVO_EXPORT void buildMessageBufferInternal(Buffer& buffer, bool withClass, const char* funcName,
                                             const char* className, fmt::string_view format,
                                             fmt::format_args args);
KORVO_EXPORT void buildDetailedMessageBuffer(Buffer& buffer, const char* file, int line,
                                             bool withClass, const char* funcName,
                                             const char* className, fmt::string_view format,
                                             fmt::format_args args);
KORVO_EXPORT std::string vformatstr(bool withClass, const char* funcName, const char* className,
                                    fmt::string_view format, fmt::format_args args);
KORVO_EXPORT std::string vformatstr(const char* file, int line, bool withClass,
                                    const char* funcName, const char* className,
                                    fmt::string_view format, fmt::format_args args);

// What the fmt-style trace macros call on an enabled site. The format string is
// checked against the arguments at compile time, so a wrong argument list is a build
// error rather than an exception (and a terminated daemon) once tracing is on.
template <typename... Args>
void fmtrace(const void* handler, unsigned level, const char* file, bool withClass,
             const char* funcName, const char* className, int line,
             fmt::format_string<Args...> format, Args&&... args) noexcept {
   vfmtrace(handler, level, file, withClass, funcName, className, line, format,
            fmt::make_format_args(args...));
}

}  // namespace Fmt::Impl

namespace Fmtrace::Impl {
// Formats into an existing context; for the library's own formatters of its types.
KORVO_EXPORT fmt::format_context::iterator vformat_to(fmt::format_context& context,
                                                      fmt::string_view format,
                                                      fmt::format_args args);
}  // namespace Fmtrace::Impl

// Pointer display: "NULL", or "0x" and 16 lower-case hex digits. Leaves the
// stream's formatting state as it found it.
class KORVO_EXPORT DisplayPointer {
public:
   explicit DisplayPointer(const void* p) : pointer_(p) {}
   std::string toString() const;
   const void* toValue() const { return pointer_; }

private:
   const void* pointer_;
};
KORVO_EXPORT std::ostream& operator<<(std::ostream& os, const DisplayPointer& p);

namespace Impl {
class KORVO_EXPORT DisplaySubStringBase {
public:
   static void addToStream(std::ostream& os, const char* s, size_t offset, size_t length);
   static std::string toString(const char* s, size_t offset, size_t length);
};
}  // namespace Impl

// Streams `length` characters of `s` starting at `offset`, unformatted.
class DisplaySubString {
public:
   DisplaySubString(const char* s, size_t offset, size_t length)
       : s_(s), offset_(offset), length_(length) {}
   friend std::ostream& operator<<(std::ostream& os, const DisplaySubString& d) {
      Impl::DisplaySubStringBase::addToStream(os, d.s_, d.offset_, d.length_);
      return os;
   }

private:
   const char* s_;
   size_t offset_;
   size_t length_;
};

}  // namespace Korvo

// Stream-style trace: KORVO_TRACE(handler, level, "a " << b). `handler` may be a
// DebugHandler reference, pointer or shared pointer.
#define KORVO_TRACE(handler, level, msg)                                         \
   do {                                                                          \
      const ::Korvo::Platform::DebugHandler& korvoTraceH_ =                      \
          ::Korvo::Platform::Impl::handlerRef(handler);                          \
      if (__builtin_expect(korvoTraceH_.enabled(level), 0)) {                    \
         ::Korvo::Platform::Impl::TraceStream korvoTraceL_;                      \
         ::Korvo::Platform::DebugStream& korvoTraceS_ = korvoTraceL_.stream();   \
         korvoTraceS_ << msg;                                                    \
         korvoTraceH_.dump(korvoTraceS_, (level), __FILE__, __LINE__, __func__); \
      }                                                                          \
   } while (0)

// fmt-style trace: KORVO_FMTRACE(handler, level, "x={} y={}", x, y). The format must be
// a constant string; it is checked against the arguments at compile time.
#define KORVO_FMTRACE(handler, level, format, ...) \
   KORVO_FMTRACE_WITH(handler, level, false, nullptr, format __VA_OPT__(, ) __VA_ARGS__)

// As KORVO_FMTRACE, prefixed with "Class::function() ".
#define KORVO_FMTRACE_CLASS(handler, level, className, format, ...) \
   KORVO_FMTRACE_WITH(handler, level, true, className, format __VA_OPT__(, ) __VA_ARGS__)

// The body of both.
#define KORVO_FMTRACE_WITH(handler, level, withClass, className, format, ...)                 \
   do {                                                                                       \
      const ::Korvo::Platform::DebugHandler& korvoTraceH_ =                                   \
          ::Korvo::Platform::Impl::handlerRef(handler);                                       \
      if (__builtin_expect(korvoTraceH_.enabled(level), 0)) {                                 \
         ::Korvo::Fmt::Impl::fmtrace(&korvoTraceH_, (level), __FILE__, withClass, __func__,   \
                                     className, __LINE__, format __VA_OPT__(, ) __VA_ARGS__); \
      }                                                                                       \
   } while (0)

#endif
