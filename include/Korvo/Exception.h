#ifndef KORVO_EXCEPTION_H
#define KORVO_EXCEPTION_H

// The library's exception family and its single assertion path.
//
// Every broken invariant in the library goes through debugAndThrowAssertException():
// by default it prints "Korvo::Assert aborting because: <text>" and terminates the
// process; after throwOnAssertFailIs(true) it throws AssertException instead (what
// tests usually want). Expected failures never come this way: they are return values.

#include <Korvo/Backtrace.h>
#include <Korvo/Export.h>

#include <exception>
#include <sstream>
#include <string>

namespace Korvo {

namespace Platform {
class DebugHandler;
// The stream a trace or assertion text is built on; one per message.
class DebugStream : public std::stringstream {};
}  // namespace Platform

class KORVO_EXPORT Exception : public std::exception {
public:
   explicit Exception(const std::string& msg) : Exception(msg, true) {}
   Exception(const std::string& msg, bool captureBacktrace);
   ~Exception() override;

   // The first call builds msg(), a newline and the captured call stack; later
   // calls return the same text.
   const char* what() const noexcept override;
   virtual const char* name() const { return "Korvo::Exception"; }

   // name("message"), e.g. Korvo::RuntimeException("bad").
   std::string msg() const;
   const std::string& message() const { return message_; }
   const Backtrace& backtrace() const { return backtrace_; }

   [[noreturn]] static void throwException(const std::string& msg);

private:
   Backtrace backtrace_;
   std::string message_;
   mutable std::string whatText_;
};

#define KORVO_DECLARE_EXCEPTION(Class, Base, Name)                                          \
   class KORVO_EXPORT Class : public Base {                                                 \
   public:                                                                                  \
      explicit Class(const std::string& msg) : Base(msg) {}                                 \
      const char* name() const override { return Name; }                                    \
      [[noreturn]] static void throwException(const std::string& msg) { throw Class(msg); } \
   }

KORVO_DECLARE_EXCEPTION(MemoryResourceException, Exception, "Korvo::MemoryResourceException");
KORVO_DECLARE_EXCEPTION(NoPermissionException, Exception, "Korvo::NoPermissionException");
KORVO_DECLARE_EXCEPTION(UnimplementedException, Exception, "Korvo::UnimplementedException");
KORVO_DECLARE_EXCEPTION(InvalidInitializeException, Exception, "Korvo::InvalidInitializeException");
KORVO_DECLARE_EXCEPTION(RuntimeException, Exception, "Korvo::RuntimeException");
KORVO_DECLARE_EXCEPTION(OutOfRangeException, Exception, "Korvo::OutOfRangeException");
KORVO_DECLARE_EXCEPTION(CorruptionDetectedException, Exception,
                        "Korvo::CorruptionDetectedException");
// A wrong size is detected corruption, so it is caught with it.
KORVO_DECLARE_EXCEPTION(InvalidSizeException, CorruptionDetectedException,
                        "Korvo::InvalidSizeException");

#undef KORVO_DECLARE_EXCEPTION

class KORVO_EXPORT AssertException : public Exception {
public:
   explicit AssertException(const std::string& msg) : Exception(msg) {}
   const char* name() const override { return "Korvo::AssertException"; }
   // Throws when throwing on assertion failure is on; otherwise prints the
   // reason to stderr and calls std::terminate().
   [[noreturn]] static void throwException(const std::string& text);
};

// Process-wide; false at start.
KORVO_EXPORT void throwOnAssertFailIs(bool on);
KORVO_EXPORT bool throwOnAssertFail();

// The single path of every assertion failure: prefixes "file:function:line: " to
// the stream's text, traces it on `handler` when `level` is enabled there, and
// hands it to AssertException::throwException. Never returns.
[[noreturn]] KORVO_EXPORT void debugAndThrowAssertException(Platform::DebugHandler* handler,
                                                            unsigned level,
                                                            Platform::DebugStream& stream,
                                                            const char* file, const char* function,
                                                            int line);
[[noreturn]] KORVO_EXPORT void debugAndThrowAssertException(Platform::DebugHandler& handler,
                                                            unsigned level,
                                                            Platform::DebugStream& stream,
                                                            const char* file, const char* function,
                                                            int line);

// Demangles a C++ type name; on failure returns a text naming the mangled name and
// the demangler's status.
KORVO_EXPORT std::string typeName(const char* mangled);

}  // namespace Korvo

// Assertions. The message is a stream expression: KORVO_ASSERT(n > 0, "n: " << n).
// The source tag that starts the assertion text is KORVO_SOURCE_FILE, which a
// source file may define (before its includes) to a short name such as
// "UtilCpp"; KORVO_ASSERT_IN names it explicitly.
#ifndef KORVO_SOURCE_FILE
#define KORVO_SOURCE_FILE __FILE__
#endif

#define KORVO_ASSERT_IN(source, cond, msg)                                                       \
   do {                                                                                          \
      if (__builtin_expect(!(cond), 0)) {                                                        \
         ::Korvo::Platform::DebugStream korvoAssertStream_;                                      \
         korvoAssertStream_ << msg;                                                              \
         ::Korvo::debugAndThrowAssertException(nullptr, 0, korvoAssertStream_, source, __func__, \
                                               __LINE__);                                        \
      }                                                                                          \
   } while (0)

#define KORVO_ASSERT(cond, msg) KORVO_ASSERT_IN(KORVO_SOURCE_FILE, cond, msg)
#define KORVO_FAIL(msg) KORVO_ASSERT(false, msg)
#define KORVO_FAIL_IN(source, msg) KORVO_ASSERT_IN(source, false, msg)

#endif
