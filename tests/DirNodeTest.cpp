#include <Korvo/DirNode.h>
#include <Korvo/Util.h>

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <set>

#include "TestPeer.h"
#include "UtilTestSupport.h"

namespace {

using Korvo::DirNode;
using KorvoTest::CaptureHandler;
using KorvoTest::TempDir;
namespace Util = Korvo::Util;

std::vector<std::string> sorted(std::vector<std::string> names) {
   std::sort(names.begin(), names.end());
   return names;
}

// Every name the node's stream still has to give.
std::multiset<std::string> drain(const DirNode& node) {
   std::multiset<std::string> names;
   while (const dirent* entry = node.readEntry()) {
      names.insert(entry->d_name);
   }
   return names;
}

class DirNodeTest : public ::testing::Test {
protected:
   void SetUp() override {
      for (const char* name : {"a.conf", "b.conf.bak", ".conf", "conf", "notes.txt"}) {
         Util::fileWrite(h_, dir_ / name, name);
      }
      ASSERT_EQ(Util::mkpath(dir_ / "c.conf", 0755), 0);
      ASSERT_EQ(::symlink("a.conf", (dir_ / "d.conf").c_str()), 0);
      ASSERT_EQ(::symlink("missing", (dir_ / "dangling.conf").c_str()), 0);
      ASSERT_EQ(::mkfifo((dir_ / "pipe.conf").c_str(), 0600), 0);
   }

   std::shared_ptr<CaptureHandler> capture_ = CaptureHandler::make();
   CaptureHandler& h_ = *capture_;
   TempDir dir_;
   const std::multiset<std::string> all_ = {
       ".",         "..",     "a.conf", "b.conf.bak",    ".conf",    "conf",
       "notes.txt", "c.conf", "d.conf", "dangling.conf", "pipe.conf"};
};

TEST_F(DirNodeTest, FindFilesListsRegularFilesAndLinksWithTheExtension) {
   DirNode node(h_, dir_.path(), nullptr);
   const std::vector<std::string> expected = {".conf", "a.conf", "d.conf", "dangling.conf"};
   EXPECT_EQ(sorted(node.findFiles(".conf")), expected);
   EXPECT_EQ(sorted(node.findFiles(".conf")), expected) << "each call starts over";
   EXPECT_EQ(node.findFiles(".none"), std::vector<std::string>());
   EXPECT_EQ(node.findFiles("").size(), 7u) << "an empty extension matches every file";

   EXPECT_TRUE(h_.has(8, "found file with extension .conf: a.conf"));
   EXPECT_TRUE(h_.has(9, " skipping file: b.conf.bak"));
   EXPECT_TRUE(h_.has(8, "DirNode::findFiles() extension: .conf found 4 files in " + dir_.path()));
   EXPECT_TRUE(h_.has(9, "DirNode::findFiles() path:" + dir_.path()));
}

TEST_F(DirNodeTest, ReadEntryWalksOnceAndRewindStartsOver) {
   DirNode node(h_, dir_.path(), nullptr);
   EXPECT_TRUE(h_.has(9, "DirNode::DirNode() path: " + dir_.path()));
   EXPECT_EQ(drain(node), all_);
   EXPECT_EQ(node.readEntry(), nullptr) << "the end stays the end";
   node.rewind();
   EXPECT_EQ(drain(node), all_);
   EXPECT_TRUE(h_.has(9, "DirNode::readEntry() path:" + dir_.path()));
   EXPECT_TRUE(h_.has(9, "DirNode::rewind() path:" + dir_.path()));
}

TEST_F(DirNodeTest, ANodeWithoutAStreamThrows) {
   DirNode empty(h_);
   EXPECT_FALSE(empty.isOpen());
   EXPECT_EQ(empty.path(), "");
   try {
      empty.readEntry();
      ADD_FAILURE() << "no exception";
   } catch (const Korvo::RuntimeException& e) {
      EXPECT_EQ(e.message(), "DirNode::readEntry() cannot read  because the directory is not open");
   }
   try {
      empty.rewind();
      ADD_FAILURE() << "no exception";
   } catch (const Korvo::RuntimeException& e) {
      EXPECT_EQ(e.message(), "DirNode::rewind() cannot rewind  because the directory is not open");
   }
   EXPECT_THROW(empty.findFiles(".conf"), Korvo::RuntimeException);
}

TEST_F(DirNodeTest, OpeningWhatIsNotADirectoryThrows) {
   const std::string missing = dir_ / "missing";
   try {
      DirNode node(h_, missing, nullptr);
      ADD_FAILURE() << "no exception";
   } catch (const Korvo::RuntimeException& e) {
      EXPECT_EQ(e.message(), "DirNode::DirNode() failed to open " + missing +
                                 " errno: No such file or directory");
   }
   EXPECT_THROW(DirNode(h_, dir_ / "a.conf", nullptr), Korvo::RuntimeException);

   DirNode node(h_, dir_.path(), nullptr);
   EXPECT_THROW(node.pathIs(missing), Korvo::RuntimeException);
   EXPECT_FALSE(node.isOpen()) << "a failed reopen leaves no stream";
   EXPECT_EQ(node.path(), missing);
   EXPECT_TRUE(h_.has(9, "DirNode::pathIs() path: " + missing));
   EXPECT_THROW(node.readEntry(), Korvo::RuntimeException);
   node.pathIs(dir_.path());
   EXPECT_EQ(drain(node), all_);

   ASSERT_EQ(Util::mkpath(dir_ / "closed", 0), 0);
   const int code = KorvoTest::runUnprivileged([&] {
      try {
         DirNode denied(h_, dir_ / "closed", nullptr);
      } catch (const Korvo::RuntimeException& e) {
         return e.message().find("errno: Permission denied") != std::string::npos ? 0 : 1;
      }
      return 2;
   });
   if (code != KorvoTest::childSkipped) {
      EXPECT_EQ(code, 0) << "an unreadable directory";
   }
}

TEST_F(DirNodeTest, ACopySharesTheStreamWhichClosesOnceWhicheverGoesLast) {
   const size_t fdsBefore = KorvoTest::openFdCount();
   for (const bool originalFirst : {true, false}) {
      auto original = std::make_unique<DirNode>(h_, dir_.path(), nullptr);
      auto copy = std::make_unique<DirNode>(*original);
      EXPECT_EQ(KorvoTest::openFdCount(), fdsBefore + 1) << "a handle, not a second open";
      EXPECT_EQ(Korvo::TestPeer::streamUseCount(*original), 2);

      // One read position: what one node reads, the other does not see again.
      std::multiset<std::string> seen;
      seen.insert(original->readEntry()->d_name);
      seen.insert(copy->readEntry()->d_name);
      for (const std::string& name : drain(*original)) {
         seen.insert(name);
      }
      EXPECT_EQ(seen, all_);
      EXPECT_EQ(copy->readEntry(), nullptr);

      (originalFirst ? original : copy).reset();
      DirNode& survivor = originalFirst ? *copy : *original;
      EXPECT_EQ(KorvoTest::openFdCount(), fdsBefore + 1) << "still open for the survivor";
      EXPECT_EQ(Korvo::TestPeer::streamUseCount(survivor), 1);
      survivor.rewind();
      EXPECT_EQ(drain(survivor), all_);
      (originalFirst ? copy : original).reset();
      EXPECT_EQ(KorvoTest::openFdCount(), fdsBefore) << "closed with the last holder";
   }
}

TEST_F(DirNodeTest, AssignmentAndReopeningLetGoOfTheOldStream) {
   const size_t fdsBefore = KorvoTest::openFdCount();
   {
      DirNode top(h_, dir_.path(), nullptr);
      DirNode sub(h_, dir_ / "c.conf", nullptr);
      EXPECT_EQ(KorvoTest::openFdCount(), fdsBefore + 2);
      sub = top;
      EXPECT_EQ(KorvoTest::openFdCount(), fdsBefore + 1) << "sub's own stream was closed";
      EXPECT_EQ(Korvo::TestPeer::streamUseCount(top), 2);

      sub.openDir();
      EXPECT_EQ(KorvoTest::openFdCount(), fdsBefore + 2) << "a reopen is a stream of its own";
      EXPECT_EQ(Korvo::TestPeer::streamUseCount(top), 1);
      EXPECT_EQ(Korvo::TestPeer::streamUseCount(sub), 1);
      top.readEntry();
      EXPECT_EQ(drain(sub), all_) << "and its own position";

      DirNode moved(std::move(sub));
      EXPECT_FALSE(sub.isOpen());
      EXPECT_EQ(drain(moved), std::multiset<std::string>()) << "moved with its position";
      EXPECT_EQ(KorvoTest::openFdCount(), fdsBefore + 2);
   }
   EXPECT_EQ(KorvoTest::openFdCount(), fdsBefore);
}

TEST_F(DirNodeTest, PathIsWithTheSamePathKeepsTheStream) {
   DirNode node(h_, dir_.path(), nullptr);
   const DirNode copy(node);
   node.readEntry();
   node.pathIs(dir_.path());
   EXPECT_EQ(Korvo::TestPeer::streamUseCount(node), 2) << "no reopen";
   EXPECT_EQ(drain(node).size(), all_.size() - 1) << "and the position is kept";
}

TEST_F(DirNodeTest, ChildNodesKeepTheirParent) {
   auto parent = std::make_shared<DirNode>(h_, dir_.path(), nullptr);
   DirNode child(h_, dir_ / "c.conf", parent);
   EXPECT_EQ(child.parent(), parent);
   EXPECT_EQ(parent.use_count(), 2);
   EXPECT_EQ(drain(child), (std::multiset<std::string>{".", ".."}));
}

}  // namespace
