#include "Korvo/Backtrace.h"

#include "Korvo/Debug.h"

#define UNW_LOCAL_ONLY
#include <dlfcn.h>
#include <libunwind.h>

#include <cstdlib>
#include <cstring>
#include <sstream>

namespace Korvo {

Backtrace::Backtrace(bool unwindNow) : count_(0) {
   if (unwindNow) {
      unwind();
   }
}

void Backtrace::unwind() {
   count_ = 0;
   unw_context_t context;
   unw_cursor_t cursor;
   if (unw_getcontext(&context) != 0 || unw_init_local(&cursor, &context) != 0) {
      return;
   }
   // The first step leaves unwind() itself, so the innermost frame recorded is
   // its caller.
   while (count_ < maxFrames && unw_step(&cursor) > 0) {
      unw_word_t ip = 0;
      unw_get_reg(&cursor, UNW_REG_IP, &ip);
      pcs_[count_++] = reinterpret_cast<void*>(ip);
   }
}

std::string Backtrace::pretty() const {
   if (count_ == 0) {
      return "No backtrace available\n";
   }
   std::ostringstream os;
   os << "Backtrace:\n";
   for (uint32_t i = 0; i < count_; ++i) {
      Dl_info info;
      if (dladdr(pcs_[i], &info) != 0) {
         os << (info.dli_fname ? info.dli_fname : "");
         if (info.dli_sname) {
            const auto offset =
                reinterpret_cast<uintptr_t>(pcs_[i]) - reinterpret_cast<uintptr_t>(info.dli_saddr);
            os << "(" << info.dli_sname << "+0x" << std::hex << offset << std::dec << ")";
         }
      }
      os << " [" << DisplayPointer(pcs_[i]) << "]\n";
   }
   return os.str();
}

bool Backtrace::verbosity() {
   const char* value = std::getenv("KORVO_BACKTRACE_VERBOSITY");
   return value == nullptr || std::strcmp(value, "0") != 0;
}

}  // namespace Korvo
