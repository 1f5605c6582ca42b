// Local sockets and the network namespace helper.

#include <Korvo/NetNs.h>
#include <Korvo/Util.h>

#include <fcntl.h>
#include <sched.h>
#include <sys/un.h>

#include <cstring>
#include <random>

#include "NetNsPath.h"
#include "UtilParse.h"
#include "UtilTestSupport.h"

using KorvoTest::assertionText;
namespace Util = Korvo::Util;
using SocketTest = KorvoTest::UtilFixture;

// A name no other test run uses at the same time.
std::string uniqueName(const std::string& prefix) {
   return prefix + std::to_string(::getpid()) + "-" + std::to_string(std::random_device()());
}

// Names longer than an address holds are cut the same way everywhere.
TEST_F(SocketTest, AbstractNamesBindConnectAndAreCutAlike) {
   sockaddr_un address;
   std::memset(&address, 0x5a, sizeof(address));
   EXPECT_EQ(Util::createSockaddr(h_, &address, "abc"), 6u);
   EXPECT_EQ(std::string(address.sun_path, 5), std::string("\0abc\0", 5)) << "the rest is zeroed";
   const std::string name = uniqueName("korvo-socket-test") + std::string(120, 'a');
   const int sd = Util::createAndBindSocket(h_, name + "-one");
   ASSERT_EQ(::listen(sd, 1), 0);
   const int client = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
   const socklen_t length = Util::createSockaddr(h_, &address, name + "-two");
   EXPECT_EQ(::connect(client, reinterpret_cast<sockaddr*>(&address), length), 0);
   EXPECT_EQ(Util::readSocketPid(h_, name + "-two"), ::getpid());
   try {
      Util::createAndBindSocket(h_, name + "-two");
      ADD_FAILURE() << "a taken name must not bind";
   } catch (const Korvo::RuntimeException& e) {
      EXPECT_EQ(e.message(), "Util::createAndBindSocket() bind() failed for socket:" + name +
                                 "-two error: Address already in use");
   }
   ::close(client);
   ::close(sd);
   EXPECT_EQ(Util::readSocketPid(h_, name + "-one"), 0) << "gone with its socket";
}

TEST_F(SocketTest, SocketInodesFromNetUnix) {
   const std::string table =
       "Num       RefCount Protocol Flags    Type St Inode Path\n"
       "0000000000000000: 00000002 00000000 00010000 0005 01 1001 @svc\n"
       "0000000000000000: 00000002 00000000 00010000 0005 01  1003 @with blank\n"
       "0000000000000000: 00000002 00000000 00010000 0001 01 1004 /run/svc\n"
       "0000000000000000: 00000002 00000000 00010000 0005 01 x1006 @bad-inode\n"
       "0000000000000000: 00000002 00000000 00010000 0005 01 1007 @a@b";
   const std::pair<std::string, unsigned long> names[] = {
       {"svc", 1001},   {"with blank", 1003}, {"sv", 0},
       {"/run/svc", 0}, {"bad-inode", 0},     {{"a\0b", 3}, 1007},  // zero bytes show as @
   };
   for (const auto& [name, inode] : names)
      EXPECT_EQ(Util::socketInodeFromNetUnix(table, name), inode) << name;
}

TEST_F(SocketTest, SendBufferSizing) {
   const int sd = Util::socket(h_, AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
   EXPECT_EQ(Util::setSocketSendBufferSize(sd, 65536), 0);
   const int file = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
   const std::pair<std::function<void()>, std::string> misuses[] = {
       {[] { Util::setSocketSendBufferSize(-1, 1024); }, "invalid sd: -1"},
       {[&] { Util::setSocketSendBufferSize(file, 1024); },
        "unable to set socket " + std::to_string(file) + " buffer size to 1024 bytes: "},
   };
   for (const auto& [call, text] : misuses)
      EXPECT_NE(assertionText(call).find("Util::setSocketSendBufferSize() " + text),
                std::string::npos);
   ::close(file);
   ::close(sd);
   EXPECT_EQ(Util::SYSTEM_MAX_SEND_BUFFER_SIZE(),
             std::stoi(Util::fileRead(h_, "/proc/sys/net/core/wmem_max")));
   EXPECT_EQ(Util::socket(h_, AF_UNIX, 12345, 0), -1);
}

TEST_F(SocketTest, NamespaceNamesMapToFiles) {
   EXPECT_EQ(Korvo::NetNs::nsPath(Korvo::NetNs::DEFAULT_NS) + " " + Korvo::NetNs::nsPath("blue") +
                 " " + Korvo::NetNs::nsPath("/proc/self/ns/net"),
             "/proc/1/ns/net /var/run/netns/blue /proc/self/ns/net");
   const std::pair<std::string, int> failures[] = {
       {"..", EINVAL}, {uniqueName("korvo-no-ns"), ENOENT}, {"/dev/null", EINVAL}};
   for (const auto& [name, error] : failures) {
      errno = 0;
      EXPECT_EQ(Korvo::NetNs::setnsByName(name, CLONE_NEWNET), -1) << name;
      EXPECT_EQ(errno, error) << name;
   }
}
