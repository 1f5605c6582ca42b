// /proc/<pid>/maps texts, their look-ups and display.

#include <Korvo/Mappings.h>

#include <sstream>

#include "FuzzSupport.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
   const std::string text = KorvoFuzz::text(data, size);
   const Korvo::MappingInfos infos = Korvo::MappingInfos::parse(text);
   KorvoFuzz::require(infos.size() <= size / 8 + 1);
   for (const Korvo::MappingInfo& info : infos) {
      KorvoFuzz::require(info.path.size() <= 4096);
      if (info.start < info.end) {
         const auto* address = reinterpret_cast<const void*>(info.start);
         const Korvo::MappingInfo found = infos.find(address);
         KorvoFuzz::require(found.start <= info.start && info.start < found.end);
      }
      const Korvo::MappingInfo byPath = infos.find(info.path, info.offset);
      KorvoFuzz::require(byPath.empty() || byPath.perms != "---p");
   }
   std::ostringstream shown;
   shown << infos;
   KorvoFuzz::require(shown.str().rfind("MappingInfos [\n", 0) == 0);
   return 0;
}
