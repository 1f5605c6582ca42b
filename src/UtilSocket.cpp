#define KORVO_SOURCE_FILE "UtilCpp"
#include "Korvo/Util.h"

#include "Korvo/Debug.h"
#include "Korvo/Exception.h"
#include "Korvo/NetNs.h"
#include "UtilImpl.h"
#include "UtilParse.h"
#include "UtilProcFd.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <stdexcept>
#include <string>

namespace Korvo::Util {

using Impl::errorText;
using Impl::utilHandler;

namespace {

constexpr int defaultMaxSendBufferSize = 8388608;
constexpr const char* wmemMaxPath = "/proc/sys/net/core/wmem_max";

int socketHere(DebugHandler& h, int domain, int type, int protocol) {
   const int sd = ::socket(domain, type, protocol);
   if (sd >= 0) {
      KORVO_TRACE(h, 2, "Util::socket() success opening local socket, sd:" << sd);
   } else {
      KORVO_TRACE(h, 2, "Util::socket() failed opening local socket: " << errorText(errno));
   }
   return sd;
}

// Puts the calling thread back into the namespace it came from. Failing here
// would leave the thread in the wrong namespace for everything it does next, so
// it is not an expected failure.
void returnToNamespace(int nsFd) {
   KORVO_ASSERT(
       ::setns(nsFd, CLONE_NEWNET) == 0,
       "Util::socket() unable to return to the original network namespace: " << errorText(errno));
}

int readMaxSendBufferSize() {
   DebugHandler& h = utilHandler();
   if (!fileExists(h, wmemMaxPath)) {
      return defaultMaxSendBufferSize;
   }
   const std::string text = fileRead(h, wmemMaxPath, true);
   try {
      const int value = std::stoi(text);
      if (value > 0) {
         return value;
      }
   } catch (const std::logic_error&) {
      // invalid_argument and out_of_range both mean "not a usable number"
   }
   KORVO_TRACE(h, 1, "Util::SYSTEM_MAX_SEND_BUFFER_SIZE() unable to convert string:" << text);
   return defaultMaxSendBufferSize;
}

}  // namespace

int socket(DebugHandler& h, int domain, int type, int protocol) {
   // The calling thread's namespace, not the process's: /proc/self/ns/net would
   // name the main thread's, which is the wrong one to return to when this thread
   // had switched before.
   const int nsFd = ::open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
   if (nsFd < 0) {
      if (errno == ENOENT || errno == EACCES) {
         return socketHere(h, domain, type, protocol);
      }
      KORVO_TRACE(h, 0,
                  "Util::socket() unable to open own network namespace: " << errorText(errno));
      return -1;
   }
   const bool switched = NetNs::setnsByName(NetNs::DEFAULT_NS, CLONE_NEWNET) == 0;
   if (!switched) {
      KORVO_TRACE(h, 5,
                  "Util::socket() cannot enter network namespace " << NetNs::DEFAULT_NS << ": "
                                                                   << errorText(errno)
                                                                   << ", using the current one");
   }
   errno = 0;
   const int sd = ::socket(domain, type, protocol);
   const int err = errno;
   const char* nsName = switched ? NetNs::DEFAULT_NS : "current";
   if (sd >= 0) {
      KORVO_TRACE(h, 2, "Util::socket() success opening " << nsName << " socket: " << sd);
   } else {
      KORVO_TRACE(h, 2,
                  "Util::socket() failed opening " << nsName << " socket: " << errorText(err));
   }
   if (switched) {
      returnToNamespace(nsFd);
   }
   KORVO_ASSERT(::close(nsFd) == 0,
                "Util::socket() unable to close network namespace fd: " << errorText(errno));
   errno = err;
   return sd;
}

socklen_t createSockaddr(DebugHandler& h, void* address, const std::string& name) {
   auto* addr = static_cast<sockaddr_un*>(address);
   std::memset(addr, 0, sizeof(*addr));
   addr->sun_family = AF_UNIX;
   // sun_path[0] stays 0: the name lives in the abstract namespace.
   const size_t length = std::min(name.size(), maxSocketNameLength);
   std::memcpy(addr->sun_path + 1, name.data(), length);
   KORVO_TRACE(h, 2, "Util::createSockaddr() using abstract socket " << name);
   return static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + length);
}

int createAndBindSocket(DebugHandler& h, const std::string& name) {
   const int sd = Util::socket(h, AF_UNIX, SOCK_SEQPACKET, 0);
   KORVO_ASSERT(sd >= 0, "Util::createAndBindSocket() socket() failed: " << errorText(errno));
   const int on = 1;
   KORVO_ASSERT(::setsockopt(sd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on)) == 0,
                "Util::createAndBindSocket() setsockopt() failed: " << errorText(errno));
   sockaddr_un address;
   const socklen_t length = createSockaddr(h, &address, name);
   KORVO_TRACE(h, 2, "Util::createAndBindSocket() using abstract socket " << name);
   if (::bind(sd, reinterpret_cast<const sockaddr*>(&address), length) != 0) {
      const int err = errno;
      ::close(sd);
      errno = err;
      RuntimeException::throwException("Util::createAndBindSocket() bind() failed for socket:" +
                                       name + " error: " + errorText(err));
   }
   return sd;
}

int setSocketSendBufferSize(int sd, int size) {
   KORVO_ASSERT(sd >= 0, "Util::setSocketSendBufferSize() invalid sd: " << sd);
   KORVO_ASSERT(size >= 1, "Util::setSocketSendBufferSize() invalid size: " << size);
   KORVO_ASSERT(::setsockopt(sd, SOL_SOCKET, SO_SNDBUF, &size, sizeof(size)) == 0,
                "Util::setSocketSendBufferSize() unable to set socket "
                    << sd << " buffer size to " << size << " bytes: " << errorText(errno));
   return 0;
}

int SYSTEM_MAX_SEND_BUFFER_SIZE() {
   // 0 means "not read yet"; racing first calls read the same value.
   static std::atomic<int> cached{0};
   int value = cached.load(std::memory_order_relaxed);
   if (value == 0) {
      value = readMaxSendBufferSize();
      cached.store(value, std::memory_order_relaxed);
   }
   return value;
}

int readSocketPid(DebugHandler& h, const std::string& name) {
   KORVO_TRACE(h, 9, "Util::readSocketPid() searching for socket name:" << name);
   const unsigned long inode = socketInodeFromNetUnix(fileRead(h, "/proc/net/unix"), name);
   if (inode == 0) {
      KORVO_TRACE(h, 5, "Util::readSocketPid() unable to find inode for socket name:" << name);
      return 0;
   }
   const std::string wanted = "socket:[" + std::to_string(inode) + "]";
   return Impl::findProcFd(h, "Util::readProcFd()", [&](const Impl::ProcFd& fd) {
      struct stat st;
      if (::stat(fd.path.c_str(), &st) != 0) {
         KORVO_TRACE(h, 9,
                     "Util::readProcFd() stat failed:" << fd.path << ": " << errorText(errno));
         return false;
      }
      if (!S_ISSOCK(st.st_mode)) {
         return false;
      }
      char link[64];
      const ssize_t n = ::readlink(fd.path.c_str(), link, sizeof(link));
      if (n <= 0) {
         return false;
      }
      const std::string target(link, static_cast<size_t>(n));
      KORVO_TRACE(h, 9, "Util::readProcFd() socket " << fd.path << "'s inode is:" << target);
      return target == wanted;
   });
}

}  // namespace Korvo::Util
