#ifndef KORVO_BACKTRACE_H
#define KORVO_BACKTRACE_H

#include <Korvo/Export.h>

#include <cstdint>
#include <string>

namespace Korvo {

// A captured call stack: up to 100 program counters, innermost first. Capturing
// allocates nothing; pretty() resolves names through the dynamic loader.
class KORVO_EXPORT Backtrace {
public:
   static constexpr uint32_t maxFrames = 100;

   explicit Backtrace(bool unwindNow = true);

   // Records the current stack (replacing what was recorded).
   void unwind();
   // "Backtrace:\n" and one line per frame, or "No backtrace available\n".
   std::string pretty() const;
   uint32_t frames() const { return count_; }
   void* frame(uint32_t i) const { return pcs_[i]; }

   // True unless KORVO_BACKTRACE_VERBOSITY is exactly "0".
   static bool verbosity();

private:
   void* pcs_[maxFrames];
   uint32_t count_;
};

}  // namespace Korvo

#endif
