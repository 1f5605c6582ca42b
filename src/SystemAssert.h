#ifndef KORVO_SRC_SYSTEMASSERT_H
#define KORVO_SRC_SYSTEMASSERT_H

// The system library's assertion, kept on in every build type: for plain
// conditions whose failure means the process cannot go on (the load-time checks,
// the library lock's own bookkeeping). Not installed.

#define KORVO_SYSTEM_ASSERT(cond) \
   ((cond) ? (void)0 : ::Korvo::Impl::systemAssertFail(#cond, __FILE__, __LINE__, __func__))

namespace Korvo::Impl {
[[noreturn]] void systemAssertFail(const char* expr, const char* file, int line,
                                   const char* function);
}

#endif
