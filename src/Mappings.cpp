#include "Korvo/Mappings.h"

#include <cstdint>
#include <ios>

namespace Korvo {
namespace {

constexpr const char* guardPerms = "---p";

// Reads one line's path: blanks are skipped, a newline (or the end) means an
// anonymous mapping. False when nothing usable follows.
bool readPath(std::FILE* stream, std::string& path) {
   int c;
   do {
      c = std::fgetc(stream);
   } while (c == ' ' || c == '\t');
   if (c == '\n' || c == EOF) {
      path.clear();
      return true;
   }
   std::ungetc(c, stream);
   // One whitespace-free word; a longer one is cut here and the rest fails the
   // next line's scan.
   char word[4097];
   if (std::fscanf(stream, "%4096s", word) != 1) {
      return false;
   }
   path = word;
   return true;
}

bool readMapping(std::FILE* stream, MappingInfo& info) {
   unsigned long start, end, offset, inode;
   unsigned major, minor;
   char perms[33];
   if (std::fscanf(stream, "%lx-%lx %32s %lx %x:%x %lx", &start, &end, perms, &offset, &major,
                   &minor, &inode) != 7) {
      return false;
   }
   info.start = start;
   info.end = end;
   info.perms = perms;
   info.offset = offset;
   info.major = major;
   info.minor = minor;
   info.inode = inode;
   return readPath(stream, info.path);
}

}  // namespace

void MappingInfos::insert(const MappingInfo& info) {
   infos_.push_back(info);
}

MappingInfo MappingInfos::find(const void* address) const {
   const auto a = reinterpret_cast<uintptr_t>(address);
   for (const MappingInfo& info : infos_) {
      if (info.start <= a && a < info.end) {
         return info;
      }
   }
   return MappingInfo();
}

MappingInfo MappingInfos::find(const std::string& path, unsigned long offset) const {
   for (const MappingInfo& info : infos_) {
      if (info.path == path && info.offset == offset && info.perms != guardPerms) {
         return info;
      }
   }
   return MappingInfo();
}

MappingInfos MappingInfos::read(std::FILE* stream) {
   // Reading stops at the first line that does not scan whole, including one
   // whose path holds a blank: what follows it is not trusted to line up.
   MappingInfos infos;
   MappingInfo info;
   while (readMapping(stream, info)) {
      infos.insert(info);
   }
   return infos;
}

MappingInfos MappingInfos::parse(const std::string& text) {
   if (text.empty()) {
      return MappingInfos();
   }
   std::FILE* stream = ::fmemopen(const_cast<char*>(text.data()), text.size(), "r");
   if (stream == nullptr) {
      return MappingInfos();
   }
   MappingInfos infos = read(stream);
   std::fclose(stream);
   return infos;
}

MappingInfos PidMappings::populate(int pid) {
   char path[64];
   std::snprintf(path, sizeof(path), "/proc/%d/maps", pid);
   std::FILE* stream = std::fopen(path, "re");
   if (stream == nullptr) {
      return MappingInfos();
   }
   MappingInfos infos = MappingInfos::read(stream);
   std::fclose(stream);
   MappingInfos& entry = cache()[pid];
   entry = std::move(infos);
   return entry;
}

MappingInfos PidMappings::mappingInfos(int pid) {
   return cache()[pid];
}

void PidMappings::forget(int pid) {
   cache().erase(pid);
}

std::unordered_map<int, MappingInfos>& PidMappings::cache() {
   // Never destroyed, so exit-time code may still use it.
   static auto* cache = new std::unordered_map<int, MappingInfos>();
   return *cache;
}

std::ostream& operator<<(std::ostream& os, const MappingInfo& info) {
   // The stream stays in hexadecimal afterwards, as the header promises.
   os << "MappingInfo { start:0x" << std::hex << info.start << " end:0x" << info.end
      << " perms:" << info.perms << " offset:0x" << info.offset << " major:0x" << info.major
      << " minor:0x" << info.minor << " inode:0x" << info.inode << " path:" << info.path << " }";
   return os;
}

std::ostream& operator<<(std::ostream& os, const MappingInfos& infos) {
   os << "MappingInfos [" << std::endl;
   for (const MappingInfo& info : infos) {
      os << info << std::endl;
   }
   os << "]";
   return os;
}

}  // namespace Korvo
