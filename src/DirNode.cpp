#define KORVO_SOURCE_FILE "DirNodeCpp"
#include "Korvo/DirNode.h"

#include "Korvo/Allocator.h"
#include "Korvo/Exception.h"
#include "UtilImpl.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <string_view>

namespace Korvo {

using Util::Impl::errorText;

// One open directory stream, shared by a node and its copies; whichever of them
// lets go last closes it, exactly once. Keeps the path it was opened with and
// the handler, to report a close that fails where nobody can be thrown at.
class DirNode::Stream {
 public:
   Stream(std::shared_ptr<Platform::DebugHandler> h, std::string path)
       : h_(std::move(h)), path_(std::move(path)), dir_(::opendir(path_.c_str())) {}
   ~Stream() {
      if (dir_ != nullptr && close() != 0) {
         KORVO_TRACE(*h_, 0,
                     "DirNode::~DirNode() failed to close " << path_ << " errno: "
                                                            << errorText(errno));
      }
   }
   Stream(const Stream&) = delete;
   Stream& operator=(const Stream&) = delete;

   // closedir() frees the stream even when it reports an error, so the stream is
   // gone either way.
   int close() {
      const int rc = ::closedir(dir_);
      dir_ = nullptr;
      return rc;
   }

   DIR* dir() const { return dir_; }
   const std::string& path() const { return path_; }

 private:
   std::shared_ptr<Platform::DebugHandler> h_;
   std::string path_;
   DIR* dir_;
};

namespace {

bool isFileOrLink(unsigned char type) {
   return type == DT_REG || type == DT_LNK;
}

// Some file systems do not fill in d_type; ask the inode then.
unsigned char entryType(DIR* dir, const dirent& entry) {
   if (entry.d_type != DT_UNKNOWN) {
      return entry.d_type;
   }
   struct stat st;
   if (::fstatat(::dirfd(dir), entry.d_name, &st, AT_SYMLINK_NOFOLLOW) != 0) {
      return DT_UNKNOWN;
   }
   return S_ISREG(st.st_mode) ? DT_REG : S_ISLNK(st.st_mode) ? DT_LNK : DT_UNKNOWN;
}

}  // namespace

DirNode::DirNode(Platform::DebugHandler& h) : Debuggable(h) {}

DirNode::DirNode(Platform::DebugHandler& h, const std::string& path,
                 std::shared_ptr<DirNode> parent)
    : Debuggable(h), parent_(std::move(parent)), path_(path) {
   KORVO_TRACE(*debug_, 9, "DirNode::DirNode() path: " << path_);
   openDir();
}

DirNode::~DirNode() {
   KORVO_TRACE(*debug_, 9, "DirNode::~DirNode() path:" << path_);
}

void DirNode::openDir() {
   if (dir_ != nullptr) {
      // Only the last holder closes; the others just let go. Closing here rather
      // than in Stream's destructor lets a failure be thrown.
      std::shared_ptr<Stream> old = std::move(dir_);
      if (old.use_count() == 1 && old->close() != 0) {
         RuntimeException::throwException("DirNode::openDir() failed to close " + old->path() +
                                          " before reopening. errno: " + errorText(errno));
      }
   }
   auto stream = makeShared<Stream>(debug_, path_);
   if (stream->dir() == nullptr) {
      RuntimeException::throwException("DirNode::DirNode() failed to open " + path_ +
                                       " errno: " + errorText(errno));
   }
   dir_ = std::move(stream);
}

struct dirent* DirNode::readEntry() const {
   KORVO_TRACE(*debug_, 9, "DirNode::readEntry() path:" << path_);
   if (dir_ == nullptr) {
      RuntimeException::throwException("DirNode::readEntry() cannot read " + path_ +
                                       " because the directory is not open");
   }
   // readdir() returns null both at the end and on error; only errno tells.
   errno = 0;
   struct dirent* entry = ::readdir(dir_->dir());
   if (entry == nullptr && errno != 0) {
      RuntimeException::throwException("DirNode::readEntry() failed to read " + path_ +
                                       " errno: " + errorText(errno));
   }
   return entry;
}

void DirNode::rewind() const {
   KORVO_TRACE(*debug_, 9, "DirNode::rewind() path:" << path_);
   if (dir_ == nullptr) {
      RuntimeException::throwException("DirNode::rewind() cannot rewind " + path_ +
                                       " because the directory is not open");
   }
   ::rewinddir(dir_->dir());
}

std::vector<std::string> DirNode::findFiles(const std::string& extension) const {
   KORVO_TRACE(*debug_, 9, "DirNode::findFiles() path:" << path_);
   rewind();
   std::vector<std::string> found;
   while (const struct dirent* entry = readEntry()) {
      if (!isFileOrLink(entryType(dir_->dir(), *entry))) {
         continue;
      }
      const std::string_view name = entry->d_name;
      if (name.size() >= extension.size() && name.ends_with(extension)) {
         KORVO_TRACE(*debug_, 8,
                     "DirNode::findFiles() found file with extension " << extension << ": "
                                                                       << name);
         found.emplace_back(name);
      } else {
         KORVO_TRACE(*debug_, 9, "DirNode::findFiles() path:" << path_ << " skipping file: " << name);
      }
   }
   KORVO_TRACE(*debug_, 8,
               "DirNode::findFiles() extension: " << extension << " found " << found.size()
                                                  << " files in " << path_);
   return found;
}

void DirNode::pathIs(const std::string& path) {
   KORVO_TRACE(*debug_, 9, "DirNode::pathIs() path: " << path);
   if (path == path_ && dir_ != nullptr) {
      return;
   }
   path_ = path;
   openDir();
}

}  // namespace Korvo
