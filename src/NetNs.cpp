#include "Korvo/NetNs.h"

#include "NetNsPath.h"

#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <cerrno>

namespace Korvo::NetNs {
namespace {

constexpr const char* initNs = "/proc/1/ns/net";
constexpr const char* namedNsDir = "/var/run/netns/";

int openNs(const std::string& name) {
   const std::string path = nsPath(name);
   if (path.empty()) {
      errno = EINVAL;
      return -1;
   }
   int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
   if (fd < 0 && name == DEFAULT_NS) {
      // pid 1 may be off limits (a sandbox that hides it); a bind-mounted name
      // is the other way to find the default namespace. The first error is the
      // telling one when neither exists.
      const int err = errno;
      fd = ::open((std::string(namedNsDir) + DEFAULT_NS).c_str(), O_RDONLY | O_CLOEXEC);
      if (fd < 0) {
         errno = err;
      }
   }
   return fd;
}

}  // namespace

std::string nsPath(const std::string& name) {
   if (name == DEFAULT_NS) {
      return initNs;
   }
   if (!name.empty() && name[0] == '/') {
      return name;
   }
   if (name.empty() || name == "." || name == ".." || name.find('/') != std::string::npos) {
      return std::string();
   }
   return namedNsDir + name;
}

int setnsByName(const std::string& name, int flags) {
   const int fd = openNs(name);
   if (fd < 0) {
      return -1;
   }
   const int rc = ::setns(fd, flags);
   const int err = errno;
   ::close(fd);
   errno = err;
   return rc;
}

}  // namespace Korvo::NetNs
