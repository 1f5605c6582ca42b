#include "Korvo/Exception.h"

#include <cxxabi.h>
#include <fmt/format.h>

#include <cstdlib>

namespace Korvo {

std::string typeName(const char* mangled) {
   int status = 0;
   char* demangled = abi::__cxa_demangle(mangled, nullptr, nullptr, &status);
   if (demangled == nullptr || status != 0) {
      std::free(demangled);
      return fmt::format("Korvo::typeName() unable to demangle type {} status:{}",
                         mangled ? mangled : "", status);
   }
   std::string result(demangled);
   std::free(demangled);
   return result;
}

}  // namespace Korvo
