// /proc/<pid>/maps texts, their look-ups and display.

#include <Korvo/Mappings.h>

#include <sstream>

#include "FuzzSupport.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
   const Korvo::MappingInfos infos = Korvo::MappingInfos::parse(KorvoFuzz::text(data, size));
   KorvoFuzz::require(infos.size() <= size / 8 + 1);
   for (const Korvo::MappingInfo& info : infos) {
      const Korvo::MappingInfo found = infos.find(reinterpret_cast<const void*>(info.start));
      KorvoFuzz::require(info.path.size() <= 4096 &&
                         infos.find(info.path, info.offset).perms != "---p");
      KorvoFuzz::require(info.start >= info.end ||
                         (found.start <= info.start && info.start < found.end));
   }
   std::ostringstream shown;
   shown << infos;
   KorvoFuzz::require(shown.str().rfind("MappingInfos [\n", 0) == 0);
   return 0;
}
