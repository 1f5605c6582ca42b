#include "Korvo/IntrospectionMap.h"

#include "Korvo/Locking.h"

#include <unordered_map>

namespace Korvo {

namespace {

using PrinterMap = std::unordered_map<std::string, IntrospectionMap::Printer>;

// Never freed: values may be traced from static destructors.
PrinterMap& printerMap() {
   static PrinterMap* const map = new PrinterMap();
   return *map;
}

}  // namespace

void IntrospectionMap::printerIs(const std::string& typeName, Printer printer) {
   Platform::LocoGuard guard;
   if (printer) {
      printerMap()[typeName] = std::move(printer);
   } else {
      printerMap().erase(typeName);
   }
}

IntrospectionMap::Printer IntrospectionMap::printer(const std::string& typeName) {
   Platform::LocoGuard guard;
   const PrinterMap& map = printerMap();
   const auto it = map.find(typeName);
   return it == map.end() ? Printer() : it->second;
}

size_t IntrospectionMap::printers() {
   Platform::LocoGuard guard;
   return printerMap().size();
}

std::string dumpHex(const void* data, int size) {
   if (size <= 0) {
      return std::string();
   }
   if (data == nullptr) {
      return "NULL";
   }
   static constexpr char digits[] = "0123456789abcdef";
   const auto* bytes = static_cast<const unsigned char*>(data);
   std::string out;
   out.reserve(static_cast<size_t>(size) * 3 - 1);
   for (int i = 0; i < size; ++i) {
      if (i > 0) {
         out += ' ';
      }
      out += digits[bytes[i] >> 4];
      out += digits[bytes[i] & 0xf];
   }
   return out;
}

}  // namespace Korvo
