#ifndef KORVO_TESTS_FUZZ_FUZZSUPPORT_H
#define KORVO_TESTS_FUZZ_FUZZSUPPORT_H

// Shared by the /proc parser harnesses. Built with clang each is a libFuzzer
// target; otherwise FuzzDriver.cpp feeds it a bounded set of generated inputs.

#include <cstdint>
#include <cstdlib>
#include <string>

namespace KorvoFuzz {

inline std::string text(const uint8_t* data, size_t size) {
   return std::string(reinterpret_cast<const char*>(data), size);
}

// A property every input must keep; a violation is a crash the fuzzer reports.
inline void require(bool holds) {
   if (!holds)
      std::abort();
}

}  // namespace KorvoFuzz

#endif
