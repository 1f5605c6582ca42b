// /proc/net/unix socket tables and /proc/locks or fdinfo lock lines.

#include "FuzzSupport.h"
#include "UtilParse.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
   const std::string text = KorvoFuzz::text(data, size);
   // The first line names the socket to look for; the rest is the table.
   const std::string name =
       text.substr(0, text.find('\n') == std::string::npos ? 0 : text.find('\n'));
   if (Korvo::Util::socketInodeFromNetUnix(text, name) != 0)
      KorvoFuzz::require(text.find('@') != std::string::npos);
   if (Korvo::Util::lockTextHasHeldLock(text))
      KorvoFuzz::require(text.find("OFDLCK") != std::string::npos ||
                         text.find("POSIX") != std::string::npos);
   return 0;
}
