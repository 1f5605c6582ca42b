#ifndef KORVO_DIRNODE_H
#define KORVO_DIRNODE_H

// An open directory with a path, a trace handler and an optional parent node:
// read its entries one at a time, start over, or list the files whose names end
// in an extension.
//
// Copies are handles, not second opens: a copy (or a copy-assigned node) shares
// the original's directory stream, its read position included. The stream is
// closed exactly once, when the last node sharing it lets go of it (destroyed,
// reopened with openDir()/pathIs(), or assigned over). Nodes sharing a stream
// must be used from one thread.
//
// Failures of the directory calls throw RuntimeException, except in the
// destructor, which traces them at level 0. Every call traces at level 9.

#include <Korvo/Debug.h>
#include <Korvo/Export.h>

#include <dirent.h>

#include <memory>
#include <string>
#include <vector>

namespace Korvo {

class KORVO_EXPORT DirNode : public Debuggable {
public:
   // `h` must be owned by a shared pointer (as getDebugHandler() makes them); the
   // node keeps it alive.
   explicit DirNode(Platform::DebugHandler& h);
   // Opens `path`; throws RuntimeException when it cannot.
   DirNode(Platform::DebugHandler& h, const std::string& path, std::shared_ptr<DirNode> parent);
   DirNode(const DirNode&) = default;
   DirNode(DirNode&&) noexcept = default;
   DirNode& operator=(const DirNode&) = default;
   DirNode& operator=(DirNode&&) noexcept = default;
   ~DirNode() override;

   // Opens `path` afresh, first letting go of the current stream (closing it when
   // no other node shares it; a failed close throws). When the open fails the
   // node is left without a stream and RuntimeException is thrown.
   void openDir();
   // The next entry ("." and ".." included), or null at the end. The entry stays
   // valid until the next read on this stream. Throws when no stream is open or
   // the read fails.
   struct dirent* readEntry() const;
   // Back to the first entry. Throws when no stream is open.
   void rewind() const;
   // Names (without the path), in directory order, of the regular files and
   // symbolic links whose names end in `extension`; a name equal to it matches.
   // Rewinds first, so repeated calls give the same list; leaves the stream at
   // its end.
   std::vector<std::string> findFiles(const std::string& extension) const;
   // Changes the path and reopens (see openDir()). Nothing happens when the path
   // is unchanged and open; an unchanged path whose open had failed is retried.
   void pathIs(const std::string& path);

   const std::string& path() const { return path_; }
   const std::shared_ptr<DirNode>& parent() const { return parent_; }
   bool isOpen() const { return dir_ != nullptr; }

private:
   friend class TestPeer;
   class Stream;

   std::shared_ptr<Stream> dir_;
   std::shared_ptr<DirNode> parent_;
   std::string path_;
};

}  // namespace Korvo

#endif
