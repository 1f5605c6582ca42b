// /proc/net/unix socket tables and /proc/locks or fdinfo lock lines.

#include "FuzzSupport.h"
#include "UtilParse.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
   const std::string text = KorvoFuzz::text(data, size);
   // The first line names the socket to look for; the rest is the table.
   const size_t newline = text.find('\n');
   const std::string name = text.substr(0, newline == std::string::npos ? 0 : newline);
   const unsigned long inode = Korvo::Util::socketInodeFromNetUnix(text, name);
   if (inode != 0) {
      KorvoFuzz::require(text.find("@") != std::string::npos);
   }
   const bool held = Korvo::Util::lockTextHasHeldLock(text);
   if (held) {
      KorvoFuzz::require(text.find("OFDLCK") != std::string::npos ||
                         text.find("POSIX") != std::string::npos);
   }
   return 0;
}
