// The process name of /proc/<pid>/status and the command line of
// /proc/<pid>/cmdline.

#include <sstream>

#include "FuzzSupport.h"
#include "UtilParse.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
   const std::string raw = KorvoFuzz::text(data, size);
   std::istringstream status(raw);
   const std::optional<std::string> title = Korvo::Util::titleFromStatus(status);
   KorvoFuzz::require(title.has_value() == (raw.find("Name:") != std::string::npos));
   if (title && !title->empty()) {
      const std::string blanks = " \t\n";
      KorvoFuzz::require(blanks.find(title->front()) == std::string::npos &&
                         blanks.find(title->back()) == std::string::npos &&
                         title->find('\n') == std::string::npos);
   }
   const std::string cmdline = Korvo::Util::cmdlineFromText(raw);
   KorvoFuzz::require(cmdline.size() <= raw.size() && cmdline.find('\0') == std::string::npos);
   return 0;
}
