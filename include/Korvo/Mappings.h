#ifndef KORVO_MAPPINGS_H
#define KORVO_MAPPINGS_H

// The memory mappings of a process, as /proc/<pid>/maps lists them, with
// look-ups by address and by file position, and a process-wide cache by pid.

#include <Korvo/Export.h>

#include <cstdint>
#include <cstdio>
#include <ostream>
#include <string>
#include <unordered_map>
#include <vector>

namespace Korvo {

// One line of a maps file. Default-constructed (all zero, strings empty) it is
// what the look-ups return for "not found".
struct KORVO_EXPORT MappingInfo {
   uint64_t start = 0;  // first address
   uint64_t end = 0;    // first address after the mapping
   std::string perms;   // as the kernel writes it: "r-xp", "---p" for a guard
   uint64_t offset = 0;
   uint32_t major = 0;
   uint32_t minor = 0;
   // The inode column is scanned as hexadecimal like the columns before it, so
   // the display form below shows the kernel's digits unchanged; compare it with
   // a stat() result through that reading, not numerically.
   uint64_t inode = 0;
   std::string path;  // "" for an anonymous mapping

   bool empty() const { return start == 0 && end == 0; }
   bool operator==(const MappingInfo&) const = default;
};

class KORVO_EXPORT MappingInfos {
 public:
   using const_iterator = std::vector<MappingInfo>::const_iterator;

   // Appends a copy; the order is the file's order.
   void insert(const MappingInfo& info);
   // The first mapping with start <= address < end, else an empty one. O(n).
   MappingInfo find(const void* address) const;
   // The first mapping of `path` at file `offset` that is not an inaccessible
   // guard ("---p"), else an empty one. O(n).
   MappingInfo find(const std::string& path, unsigned long offset) const;

   size_t size() const { return infos_.size(); }
   bool empty() const { return infos_.empty(); }
   const MappingInfo& operator[](size_t i) const { return infos_[i]; }
   const_iterator begin() const { return infos_.begin(); }
   const_iterator end() const { return infos_.end(); }

   // Reads maps lines from `stream` until one does not scan. The path is one
   // blank-free word, so a path with a blank (such as a deleted file's
   // " (deleted)" mark) ends the reading there: the mappings before it are kept,
   // the rest are not read.
   static MappingInfos read(std::FILE* stream);
   // The same over a maps text.
   static MappingInfos parse(const std::string& text);

 private:
   std::vector<MappingInfo> infos_;
};

// A process-wide cache of mappings by pid. Not locked: use it from one thread,
// or guard it yourself.
class KORVO_EXPORT PidMappings {
 public:
   // Reads /proc/<pid>/maps, replaces the cache entry of `pid` with the result and
   // returns a copy. When the file cannot be opened (the process is gone) the
   // result is empty and the cache is left as it was.
   static MappingInfos populate(int pid);
   // A copy of the cached mappings of `pid`; empty when none were read (an empty
   // entry is then made).
   static MappingInfos mappingInfos(int pid);
   // Drops the entry of `pid`, so that the cache does not grow with pids that
   // come and go.
   static void forget(int pid);

 private:
   static std::unordered_map<int, MappingInfos>& cache();
};

// "MappingInfo { start:0x... end:0x... perms:... offset:0x... major:0x...
// minor:0x... inode:0x... path:... }". The stream is left in hexadecimal mode.
KORVO_EXPORT std::ostream& operator<<(std::ostream& os, const MappingInfo& info);
// "MappingInfos [\n", each mapping followed by "\n" (flushed), then "]".
KORVO_EXPORT std::ostream& operator<<(std::ostream& os, const MappingInfos& infos);

}  // namespace Korvo

#endif
