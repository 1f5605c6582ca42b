#include <Korvo/DirNode.h>
#include <Korvo/Util.h>

#include <algorithm>

#include "TestPeer.h"
#include "UtilTestSupport.h"

using Korvo::DirNode;

// How many names the node's stream still has to give.
size_t drain(const DirNode& node) {
   size_t n = 0;
   while (node.readEntry())
      ++n;
   return n;
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

TEST_F(DirNodeTest, FindFilesListsFilesAndLinksAndWhatIsNotOpenThrows) {
   DirNode node(h_, dir_.path(), nullptr);
   std::vector<std::string> found = node.findFiles(".conf");
   std::sort(found.begin(), found.end());
   EXPECT_EQ(found, (std::vector<std::string>{".conf", "a.conf", "d.conf"}));
   EXPECT_EQ(node.findFiles("").size(), 5u) << "each call starts over; \"\" matches every file";
   DirNode empty(h_);
   EXPECT_THROW(empty.rewind(), Korvo::RuntimeException);
   EXPECT_THROW(empty.readEntry(), Korvo::RuntimeException);
   const std::string missing = dir_ / "missing";
   try {
      node.pathIs(missing);
      ADD_FAILURE();
   } catch (const Korvo::RuntimeException& e) {
      EXPECT_EQ(e.message(), "DirNode::DirNode() failed to open " + missing +
                                 " errno: No such file or directory");
   }
   EXPECT_FALSE(node.isOpen()) << "a failed reopen leaves no stream";
   EXPECT_EQ(node.path(), missing);
}

// Copies share one stream and one read position; the last holder closes it.
TEST_F(DirNodeTest, CopiesShareOneStream) {
   auto top = std::make_shared<DirNode>(h_, dir_.path(), nullptr);
   auto copy = std::make_unique<DirNode>(*top);
   EXPECT_EQ(drain(*copy), all_);
   EXPECT_EQ(top->readEntry(), nullptr);
   copy.reset();
   EXPECT_EQ(Korvo::TestPeer::streamUseCount(*top), 1);
   DirNode sub(h_, dir_ / "c.conf", top);
   EXPECT_EQ(sub.parent(), top);
   sub = *top;  // lets go of its own stream
   sub.pathIs(dir_.path());
   EXPECT_EQ(Korvo::TestPeer::streamUseCount(*top), 2) << "the same path keeps the stream";
   sub.openDir();
   EXPECT_EQ(Korvo::TestPeer::streamUseCount(*top), 1) << "a reopen is a stream of its own";
   sub.rewind();
   EXPECT_EQ(drain(sub), all_) << "with its own position";
}
