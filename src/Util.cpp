#define KORVO_SOURCE_FILE "UtilCpp"
#include "Korvo/Util.h"

#include "Korvo/Debug.h"
#include "Korvo/Exception.h"
#include "UtilImpl.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <memory>

namespace Korvo::Util {

namespace Impl {
KORVO_COMPONENT_DEBUG(utilHandler, "KorvoUtil");
}  // namespace Impl

using Impl::errorText;
using Impl::UmaskZero;
using Impl::utilHandler;

namespace {

// mkpath with the umask already at 0, so each level gets `mode` exactly.
int makeDirs(const std::string& path, unsigned mode) {
   KORVO_TRACE(utilHandler(), 9,
               "Util::mkpath() creating path: " << path << " mode: " << std::oct << mode);
   if (::mkdir(path.c_str(), mode) == 0 || errno == EEXIST) {
      return 0;
   }
   if (errno != ENOENT) {
      return -1;
   }
   // A missing parent: make it, then try again. A path without a parent to make
   // ("x" in a vanished working directory, "/x" without a root) stays a failure.
   const size_t slash = path.rfind('/');
   if (slash == std::string::npos || slash == 0) {
      return -1;
   }
   if (makeDirs(path.substr(0, slash), mode) != 0) {
      return -1;
   }
   if (::mkdir(path.c_str(), mode) != 0 && errno != EEXIST) {
      return -1;
   }
   ::chmod(path.c_str(), mode);
   return 0;
}

// Traces `message` at level 0 and throws it, unless the caller asked not to.
void reportWriteFailure(DebugHandler& h, const std::string& message, bool noThrow) {
   KORVO_TRACE(h, 0, message);
   if (!noThrow) {
      RuntimeException::throwException(message);
   }
}

// Reads all of `fd`; false on a read error. Sizes from fstat() are only a hint:
// /proc and /sys files report 0.
bool readAll(int fd, std::string& out) {
   char buffer[16384];
   for (;;) {
      const ssize_t n = ::read(fd, buffer, sizeof(buffer));
      if (n > 0) {
         out.append(buffer, static_cast<size_t>(n));
      } else if (n == 0) {
         return true;
      } else if (errno != EINTR) {
         return false;
      }
   }
}

}  // namespace

int mkpath(const std::string& path, unsigned mode) {
   UmaskZero umaskZero;
   return makeDirs(path, mode);
}

int trimpath(const std::string& absolute, const std::string& trailing) {
   KORVO_ASSERT(!absolute.empty(), "absolute path is empty");
   KORVO_ASSERT(absolute[0] == '/', "absolute path is not absolute");
   KORVO_ASSERT(!trailing.empty(), "trailing path is empty");
   KORVO_ASSERT(trailing.size() < absolute.size(), "trailing path longer than absolute path");
   KORVO_ASSERT(absolute.compare(absolute.size() - trailing.size(), trailing.size(), trailing) == 0,
                "trailing path is not a terminal substring of absolute path");
   // Directories at or above `stop` belong to the part that stays.
   const size_t stop = absolute.size() - trailing.size();
   std::string current = absolute;
   for (;;) {
      KORVO_TRACE(utilHandler(), 9, "Util::trimpath() removing dir " << current);
      if (::rmdir(current.c_str()) != 0 && errno != ENOENT) {
         KORVO_TRACE(
             utilHandler(), 5,
             "Util::trimpath() rmdir() error " << current << " reason: " << errorText(errno));
         return -1;
      }
      const size_t slash = current.rfind('/');
      if (slash == std::string::npos || slash <= stop) {
         break;
      }
      current.resize(slash);
   }
   KORVO_TRACE(
       utilHandler(), 5,
       "Util::trimpath() removed sub-tree " << trailing << " from absolute path " << absolute);
   return 0;
}

void fileWrite(DebugHandler& h, const std::string& path, const std::string& data, bool noThrow) {
   int fd;
   {
      UmaskZero umaskZero;
      fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
   }
   if (fd < 0) {
      reportWriteFailure(
          h, "Util::fileWrite() unable to open " + path + " reason:" + errorText(errno), noThrow);
      return;
   }
   // One write, deliberately: a short write is reported, not retried.
   const ssize_t written = ::write(fd, data.data(), data.size());
   if (written < 0) {
      const int err = errno;
      ::close(fd);
      errno = err;
      reportWriteFailure(
          h, "Util::fileWrite() unable to write to " + path + " reason:" + errorText(err), noThrow);
      return;
   }
   if (static_cast<size_t>(written) != data.size()) {
      KORVO_TRACE(h, 0,
                  "Util::fileWrite() wrote:" << written << " bytes to file:" << path
                                             << " but wanted to write:" << data.size());
   }
   if (::close(fd) != 0) {
      reportWriteFailure(h,
                         "Util::fileWrite() unable to close fd:" + std::to_string(fd) +
                             " reason:" + errorText(errno),
                         noThrow);
   }
}

std::string fileRead(DebugHandler& h, const std::string& path, bool stripNewline) {
   const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
   if (fd < 0) {
      KORVO_TRACE(h, 5, "Util::fileRead() unable to open file " << path);
      return std::string();
   }
   std::string text;
   const bool ok = readAll(fd, text);
   const int err = errno;
   ::close(fd);
   if (!ok) {
      errno = err;
      KORVO_TRACE(h, 5, "Util::fileRead() failed to read from " << path << ": " << errorText(err));
      return std::string();
   }
   if (stripNewline && !text.empty() && text.back() == '\n') {
      text.pop_back();
   }
   KORVO_TRACE(h, 5, "Util::fileRead() read " << text.size() << " bytes from " << path);
   return text;
}

bool fileExists(DebugHandler& h, const std::string& path) {
   struct stat st;
   const int rc = ::stat(path.c_str(), &st);
   KORVO_TRACE(h, 5, "Util::fileExists() checking if " << path << " exists, stat result: " << rc);
   return rc == 0;
}

bool fileRemove(DebugHandler& h, const std::string& path) {
   if (::unlink(path.c_str()) == 0) {
      KORVO_TRACE(h, 5, "Util::fileRemove() removed file " << path);
      return true;
   }
   if (errno == ENOENT) {
      return true;
   }
   KORVO_TRACE(h, 0, "Util::fileRemove() unlink() error " << path << ": " << errorText(errno));
   return false;
}

size_t fileSize(DebugHandler& h, const std::string& path) {
   struct stat st;
   if (::stat(path.c_str(), &st) != 0) {
      KORVO_TRACE(h, 5,
                  "Util::fileSize() unable to stat file " << path << ": " << errorText(errno));
      return 0;
   }
   return static_cast<size_t>(st.st_size);
}

size_t fileSize(DebugHandler& h, int fd) {
   struct stat st;
   if (::fstat(fd, &st) != 0) {
      KORVO_TRACE(h, 5, "Util::fileSize() unable to fstat fd " << fd << ": " << errorText(errno));
      return 0;
   }
   return static_cast<size_t>(st.st_size);
}

int truncate(DebugHandler& h, const std::string& path, int fd, size_t length) {
   const int rc = ::ftruncate(fd, static_cast<off_t>(length));
   if (rc != 0) {
      KORVO_TRACE(h, 0,
                  "Util::truncate() ftruncate() size:" << length << " " << path
                                                       << " error: " << errorText(errno));
   }
   return rc;
}

bool touch(DebugHandler& h, const std::string& path) {
   int fd;
   {
      UmaskZero umaskZero;
      // Never O_TRUNC, and no write: the file's contents and times stay as they are.
      fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0666);
   }
   if (fd < 0) {
      KORVO_TRACE(h, 1, "Util::touch() unable to open " << path << " reason:" << errorText(errno));
      return false;
   }
   if (::close(fd) != 0) {
      KORVO_TRACE(h, 1,
                  "Util::touch() unable to close fd:" << fd << " file:" << path
                                                      << " reason:" << errorText(errno));
      return false;
   }
   KORVO_TRACE(h, 5, "Util::touch() touched " << path);
   return true;
}

std::string getCwd(DebugHandler& h) {
   char buffer[4096];
   if (::getcwd(buffer, sizeof(buffer)) == nullptr) {
      const std::string message =
          std::string("Util::getCwd() getcwd() failed: ") + errorText(errno);
      KORVO_TRACE(h, 0, message);
      RuntimeException::throwException(message);
   }
   return buffer;
}

}  // namespace Korvo::Util
