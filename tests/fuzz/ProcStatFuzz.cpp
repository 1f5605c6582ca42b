// The start-time field of /proc/<pid>/stat lines.

#include "FuzzSupport.h"
#include "UtilParse.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
   KorvoFuzz::throwOnAssert();
   const std::string line = KorvoFuzz::text(data, size);
   try {
      const std::string start = Korvo::Util::startTimeFromStat(line, "fuzz");
      // A non-empty, blank-free word from after the name's last ")".
      const size_t close = line.rfind(')');
      KorvoFuzz::require(!start.empty() && start.find(' ') == std::string::npos);
      KorvoFuzz::require(close != std::string::npos &&
                         line.find(start, close) != std::string::npos);
   } catch (const Korvo::AssertException& e) {
      KorvoFuzz::require(e.message().find("Util::readProcStartTime()") != std::string::npos);
   }
   return 0;
}
