#include <Korvo/DirNode.h>
#include <Korvo/Util.h>

#include <algorithm>
#include <filesystem>

#include "TestPeer.h"
#include "UtilTestSupport.h"

namespace {

using Korvo::DirNode;

// How many names the node's stream still has to give.
size_t drain(const DirNode& node) {
   size_t n = 0;
   while (node.readEntry())
      ++n;
   return n;
}

size_t openFds() {
   const std::filesystem::directory_iterator fds("/proc/self/fd");
   return static_cast<size_t>(std::distance(begin(fds), end(fds)));
}

struct DirNodeTest : KorvoTest::UtilFixture {
   void SetUp() override {
      for (const char* name : {"a.conf", "b.conf.bak", ".conf", "conf"})
         Korvo::Util::fileWrite(h_, dir_ / name, name);
      ASSERT_EQ(::mkdir((dir_ / "c.conf").c_str(), 0755), 0);
      ASSERT_EQ(::symlink("missing", (dir_ / "d.conf").c_str()), 0);
   }
   const size_t all_ = 8;  // with "." and ".."
};

TEST_F(DirNodeTest, FindFilesListsFilesAndLinksWithTheExtension) {
   DirNode node(h_, dir_.path(), nullptr);
   for (int round = 0; round < 2; ++round) {
      std::vector<std::string> found = node.findFiles(".conf");
      std::sort(found.begin(), found.end());
      EXPECT_EQ(found, (std::vector<std::string>{".conf", "a.conf", "d.conf"}));
   }
   EXPECT_EQ(node.findFiles("").size(), 5u) << "an empty extension matches every file";
   EXPECT_EQ(drain(node), 0u);
   node.rewind();
   EXPECT_EQ(drain(node), all_);
}

TEST_F(DirNodeTest, WhatIsNotOpenThrows) {
   DirNode empty(h_);
   try {
      empty.rewind();
      ADD_FAILURE();
   } catch (const Korvo::RuntimeException& e) {
      EXPECT_EQ(e.message(), "DirNode::rewind() cannot rewind  because the directory is not open");
   }
   EXPECT_THROW(empty.readEntry(), Korvo::RuntimeException);
   const std::string missing = dir_ / "missing";
   try {
      DirNode node(h_, missing, nullptr);
      ADD_FAILURE();
   } catch (const Korvo::RuntimeException& e) {
      EXPECT_EQ(e.message(), "DirNode::DirNode() failed to open " + missing +
                                 " errno: No such file or directory");
   }
   DirNode node(h_, dir_.path(), nullptr);
   EXPECT_THROW(node.pathIs(missing), Korvo::RuntimeException);
   EXPECT_FALSE(node.isOpen()) << "a failed reopen leaves no stream";
   EXPECT_EQ(node.path(), missing);
   node.pathIs(dir_.path());
   EXPECT_EQ(drain(node), all_);
}

TEST_F(DirNodeTest, CopiesShareOneStreamThatTheLastHolderCloses) {
   const size_t fdsBefore = openFds();
   for (const bool originalFirst : {true, false}) {
      auto original = std::make_unique<DirNode>(h_, dir_.path(), nullptr);
      auto copy = std::make_unique<DirNode>(*original);
      EXPECT_EQ(openFds(), fdsBefore + 1) << "a handle, not a second open";
      EXPECT_EQ(drain(*copy), all_);
      EXPECT_EQ(original->readEntry(), nullptr) << "one read position";
      (originalFirst ? original : copy).reset();
      EXPECT_EQ(Korvo::TestPeer::streamUseCount(*(originalFirst ? copy : original)), 1);
      (originalFirst ? copy : original).reset();
      EXPECT_EQ(openFds(), fdsBefore) << "closed with the last holder";
   }
   auto top = std::make_shared<DirNode>(h_, dir_.path(), nullptr);
   DirNode sub(h_, dir_ / "c.conf", top);
   EXPECT_EQ(sub.parent(), top);
   sub = *top;
   EXPECT_EQ(openFds(), fdsBefore + 1) << "sub's own stream was closed";
   sub.pathIs(dir_.path());
   EXPECT_EQ(Korvo::TestPeer::streamUseCount(*top), 2) << "the same path keeps the stream";
   sub.openDir();
   EXPECT_EQ(Korvo::TestPeer::streamUseCount(*top), 1) << "a reopen is a stream of its own";
   top->readEntry();
   EXPECT_EQ(drain(sub), all_) << "with its own position";
   DirNode moved(std::move(sub));
   EXPECT_FALSE(sub.isOpen());
   EXPECT_EQ(drain(moved), 0u) << "moved with its position";
}

}  // namespace
