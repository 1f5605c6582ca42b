#include "Korvo/Backtrace.h"
#include "Korvo/Exception.h"

#include <cxxabi.h>

#include <cstdlib>
#include <exception>
#include <iostream>

namespace Korvo {
namespace {

void printCurrentException() {
   std::exception_ptr current = std::current_exception();
   if (!current) {
      return;
   }
   const std::type_info* type = abi::__cxa_current_exception_type();
   const char* mangled = type ? type->name() : "";
   if (*mangled == '*') {
      ++mangled;
   }
   std::cerr << "terminate called after throwing an instance of '" << typeName(mangled) << "'"
             << std::endl;
   try {
      std::rethrow_exception(current);
   } catch (const std::exception& e) {
      // Korvo::Exception is a std::exception; its what() carries its own stack.
      std::cerr << "  what(): " << e.what() << std::endl;
   } catch (...) {
   }
}

[[noreturn]] void terminateHandler() {
   printCurrentException();
   if (Backtrace::verbosity()) {
      Backtrace here(true);
      std::cerr << here.pretty() << std::flush;
   }
   std::abort();
}

__attribute__((constructor(103))) void installTerminateHandler() {
   std::set_terminate(terminateHandler);
}

}  // namespace
}  // namespace Korvo
