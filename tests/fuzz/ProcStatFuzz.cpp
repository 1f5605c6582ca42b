// The start-time field of /proc/<pid>/stat lines.

#include <Korvo/Exception.h>

#include "FuzzSupport.h"
#include "UtilParse.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
   // Malformed input may end in the library's assertion: it must throw, not abort.
   Korvo::throwOnAssertFailIs(true);
   const std::string line = KorvoFuzz::text(data, size);
   try {
      // A non-empty, blank-free word from after the name's last ")".
      const std::string start = Korvo::Util::startTimeFromStat(line, "fuzz");
      KorvoFuzz::require(!start.empty() && start.find(' ') == std::string::npos &&
                         line.find(start, line.rfind(')')) != std::string::npos);
   } catch (const Korvo::AssertException& e) {
      KorvoFuzz::require(e.message().find("Util::readProcStartTime()") != std::string::npos);
   }
   return 0;
}
