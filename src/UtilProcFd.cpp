#define KORVO_SOURCE_FILE "UtilCpp"
#include "UtilProcFd.h"

#include "Korvo/Debug.h"
#include "Korvo/Exception.h"
#include "UtilImpl.h"

#include <dirent.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <memory>
#include <vector>

namespace Korvo::Util::Impl {
namespace {

struct DirCloser {
   void operator()(DIR* dir) const { ::closedir(dir); }
};
using DirPtr = std::unique_ptr<DIR, DirCloser>;

bool parsePid(const char* name, int& pid) {
   const char* end = name + std::strlen(name);
   auto [ptr, ec] = std::from_chars(name, end, pid);
   return ec == std::errc() && ptr == end && pid > 0;
}

// The pids under /proc, ascending. Collected first so no directory stream of
// /proc stays open while each process's table is read.
std::vector<int> listPids(Platform::DebugHandler& h, const char* who) {
   DirPtr proc(::opendir("/proc"));
   KORVO_ASSERT(proc != nullptr, "Couldn't open /proc");
   std::vector<int> pids;
   while (const dirent* entry = ::readdir(proc.get())) {
      const std::string name = entry->d_name;
      if (name == "." || name == ".." || name == "self" || name == "thread-self") {
         continue;
      }
      int pid = 0;
      if (!parsePid(entry->d_name, pid)) {
         KORVO_TRACE(h, 9, who << " could not convert pid from " << name);
         continue;
      }
      pids.push_back(pid);
   }
   std::sort(pids.begin(), pids.end());
   return pids;
}

// The descriptor of `pid` that `visit` accepts; false when none (or the table is
// not readable: another user's process, or one that has just exited).
bool visitFds(Platform::DebugHandler& h, const char* who, int pid,
              const std::function<bool(const ProcFd&)>& visit) {
   const std::string dirPath = "/proc/" + std::to_string(pid) + "/fd";
   DirPtr fds(::opendir(dirPath.c_str()));
   if (!fds) {
      KORVO_TRACE(h, 9, who << " cannot read " << dirPath << ": " << errorText(errno));
      return false;
   }
   while (const dirent* entry = ::readdir(fds.get())) {
      if (entry->d_name[0] == '.') {
         continue;
      }
      ProcFd fd{pid, entry->d_name, dirPath + "/" + entry->d_name};
      KORVO_TRACE(h, 9, who << " reading entry " << fd.path);
      if (visit(fd)) {
         return true;
      }
   }
   return false;
}

}  // namespace

int findProcFd(Platform::DebugHandler& h, const char* who,
               const std::function<bool(const ProcFd&)>& visit) {
   for (const int pid : listPids(h, who)) {
      if (visitFds(h, who, pid, visit)) {
         KORVO_TRACE(h, 5, who << " found owner pid:" << pid);
         return pid;
      }
   }
   return 0;
}

}  // namespace Korvo::Util::Impl
