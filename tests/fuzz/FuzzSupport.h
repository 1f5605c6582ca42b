#ifndef KORVO_TESTS_FUZZ_FUZZSUPPORT_H
#define KORVO_TESTS_FUZZ_FUZZSUPPORT_H

// Shared by the /proc parser harnesses. Each harness defines
// LLVMFuzzerTestOneInput; built with clang it is a libFuzzer target, otherwise it
// is linked with FuzzDriver.cpp, which feeds it a bounded set of generated inputs.

#include <Korvo/Exception.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

namespace KorvoFuzz {

// Malformed input may legitimately end in the library's assertion; it must throw,
// not abort, so the harness can go on.
inline void throwOnAssert() {
   static const bool once = (Korvo::throwOnAssertFailIs(true), true);
   (void)once;
}

inline std::string text(const uint8_t* data, size_t size) {
   return std::string(reinterpret_cast<const char*>(data), size);
}

// A property every input must keep; a violation is a crash the fuzzer reports.
inline void require(bool holds) {
   if (!holds) {
      std::abort();
   }
}

}  // namespace KorvoFuzz

#endif
