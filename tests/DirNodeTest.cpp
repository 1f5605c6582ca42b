#include <Korvo/DirNode.h>
#include <Korvo/Util.h>

#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <iterator>
#include <set>

#include "UtilTestSupport.h"

namespace {

using Korvo::DirNode;
using Korvo::RuntimeException;

// Every name the node's stream still has to give.
std::multiset<std::string> drain(const DirNode& node) {
   std::multiset<std::string> names;
   while (const dirent* entry = node.readEntry())
      names.insert(entry->d_name);
   return names;
}

size_t openFds() {
   const std::filesystem::directory_iterator fds("/proc/self/fd");
   return static_cast<size_t>(std::distance(begin(fds), end(fds)));
}

// The text of the RuntimeException that `call` throws.
template <typename Call>
std::string thrown(Call&& call) {
   try {
      call();
   } catch (const RuntimeException& e) {
      return e.message();
   }
   return "(nothing thrown)";
}

class DirNodeTest : public ::testing::Test {
protected:
   void SetUp() override {
      for (const char* name : {"a.conf", "b.conf.bak", ".conf", "conf", "notes.txt"})
         Korvo::Util::fileWrite(h_, dir_ / name, name);
      ASSERT_EQ(::mkdir((dir_ / "c.conf").c_str(), 0755), 0);
      ASSERT_EQ(::symlink("a.conf", (dir_ / "d.conf").c_str()), 0);
      ASSERT_EQ(::symlink("missing", (dir_ / "dangling.conf").c_str()), 0);
      ASSERT_EQ(::mkfifo((dir_ / "pipe.conf").c_str(), 0600), 0);
   }

   std::shared_ptr<KorvoTest::CaptureHandler> capture_ =
       std::make_shared<KorvoTest::CaptureHandler>();
   KorvoTest::CaptureHandler& h_ = *capture_;
   KorvoTest::TempDir dir_;
   const std::multiset<std::string> all_ = {
       ".",         "..",     "a.conf", "b.conf.bak",    ".conf",    "conf",
       "notes.txt", "c.conf", "d.conf", "dangling.conf", "pipe.conf"};
};

TEST_F(DirNodeTest, FindFilesListsRegularFilesAndLinksAndReadingStartsOver) {
   DirNode node(h_, dir_.path(), nullptr);
   const std::vector<std::string> expected = {".conf", "a.conf", "d.conf", "dangling.conf"};
   for (int round = 0; round < 2; ++round) {
      std::vector<std::string> found = node.findFiles(".conf");
      std::sort(found.begin(), found.end());
      EXPECT_EQ(found, expected);
   }
   EXPECT_EQ(node.findFiles("").size(), 7u) << "an empty extension matches every file";
   EXPECT_EQ(drain(node), std::multiset<std::string>()) << "findFiles read to the end";
   node.rewind();
   EXPECT_EQ(drain(node), all_);
}

TEST_F(DirNodeTest, WhatCannotBeOpenedOrReadThrows) {
   DirNode empty(h_);
   EXPECT_EQ(thrown([&] { empty.readEntry(); }),
             "DirNode::readEntry() cannot read  because the directory is not open");
   EXPECT_EQ(thrown([&] { empty.rewind(); }),
             "DirNode::rewind() cannot rewind  because the directory is not open");
   const std::string missing = dir_ / "missing";
   EXPECT_EQ(thrown([&] { DirNode(h_, missing, nullptr); }),
             "DirNode::DirNode() failed to open " + missing + " errno: No such file or directory");
   DirNode node(h_, dir_.path(), nullptr);
   EXPECT_NE(thrown([&] { node.pathIs(missing); }), "(nothing thrown)");
   EXPECT_FALSE(node.isOpen()) << "a failed reopen leaves no stream";
   EXPECT_EQ(node.path(), missing);
   node.pathIs(dir_.path());
   EXPECT_EQ(drain(node), all_);

   ASSERT_EQ(::mkdir((dir_ / "closed").c_str(), 0), 0);
   const int code = KorvoTest::runUnprivileged([&] {
      const std::string text = thrown([&] { DirNode(h_, dir_ / "closed", nullptr); });
      return text.ends_with("errno: Permission denied") ? 0 : 1;
   });
   if (code != KorvoTest::childSkipped) {
      EXPECT_EQ(code, 0) << "an unreadable directory";
   }
}

TEST_F(DirNodeTest, CopiesShareOneStreamThatTheLastHolderCloses) {
   const size_t fdsBefore = openFds();
   for (const bool originalFirst : {true, false}) {
      auto original = std::make_unique<DirNode>(h_, dir_.path(), nullptr);
      auto copy = std::make_unique<DirNode>(*original);
      EXPECT_EQ(openFds(), fdsBefore + 1) << "a handle, not a second open";
      // One read position: what one node reads, the other does not see again.
      EXPECT_EQ(drain(*copy), all_);
      EXPECT_EQ(original->readEntry(), nullptr);
      (originalFirst ? original : copy).reset();
      DirNode& survivor = originalFirst ? *copy : *original;
      EXPECT_EQ(survivor.streamUseCount(), 1);
      survivor.rewind();
      EXPECT_EQ(drain(survivor), all_);
      (originalFirst ? copy : original).reset();
      EXPECT_EQ(openFds(), fdsBefore) << "closed with the last holder";
   }
   {
      auto top = std::make_shared<DirNode>(h_, dir_.path(), nullptr);
      DirNode sub(h_, dir_ / "c.conf", top);
      EXPECT_EQ(sub.parent(), top);
      EXPECT_EQ(drain(sub), (std::multiset<std::string>{".", ".."}));
      sub = *top;
      EXPECT_EQ(openFds(), fdsBefore + 1) << "sub's own stream was closed";
      sub.pathIs(dir_.path());
      EXPECT_EQ(top->streamUseCount(), 2) << "the same path keeps the stream";
      sub.openDir();
      EXPECT_EQ(top->streamUseCount(), 1) << "a reopen is a stream of its own";
      top->readEntry();
      EXPECT_EQ(drain(sub), all_) << "with its own position";
      DirNode moved(std::move(sub));
      EXPECT_FALSE(sub.isOpen());
      EXPECT_EQ(drain(moved), std::multiset<std::string>()) << "moved with its position";
   }
   EXPECT_EQ(openFds(), fdsBefore);
}

}  // namespace
