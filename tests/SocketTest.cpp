// Local sockets in the default network namespace, and the namespace helper.

#include <Korvo/NetNs.h>
#include <Korvo/Util.h>

#include <fcntl.h>
#include <linux/sockios.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <fstream>
#include <functional>

#include "NetNsPath.h"
#include "UtilParse.h"
#include "UtilTestSupport.h"

namespace {

using KorvoTest::CaptureHandler;
namespace Util = Korvo::Util;
namespace NetNs = Korvo::NetNs;

ino_t inodeOf(const char* path) {
   struct stat st;
   return ::stat(path, &st) == 0 ? st.st_ino : 0;
}

ino_t inodeOf(int fd) {
   struct stat st;
   return ::fstat(fd, &st) == 0 ? st.st_ino : 0;
}

ino_t threadNamespace() {
   return inodeOf("/proc/thread-self/ns/net");
}

// The network namespace a socket was made in.
ino_t socketNamespace(int sd) {
   const int ns = ::ioctl(sd, SIOCGSKNS);
   const ino_t inode = ns >= 0 ? inodeOf(ns) : 0;
   ::close(ns);
   return inode;
}

class SocketTest : public ::testing::Test {
protected:
   std::shared_ptr<CaptureHandler> capture_ = CaptureHandler::make();
   CaptureHandler& h_ = *capture_;
};

TEST_F(SocketTest, CreateSockaddrFillsAnAbstractAddress) {
   sockaddr_un address;
   std::memset(&address, 0x5a, sizeof(address));
   EXPECT_EQ(Util::createSockaddr(h_, &address, "abc"), 6u);
   EXPECT_EQ(address.sun_family, AF_UNIX);
   EXPECT_EQ(address.sun_path[0], '\0');
   EXPECT_EQ(std::string(address.sun_path + 1, 3), "abc");
   EXPECT_EQ(address.sun_path[4], '\0') << "the rest is zeroed";
   EXPECT_TRUE(h_.has(2, "Util::createSockaddr() using abstract socket abc"));

   EXPECT_EQ(Util::createSockaddr(h_, &address, ""), 3u);

   const std::string longName(200, 'n');
   const socklen_t length = Util::createSockaddr(h_, &address, longName + "tail");
   EXPECT_EQ(length, 3u + 107u);
   EXPECT_EQ(length, sizeof(address)) << "the cut name fills the address exactly";
   EXPECT_EQ(std::string(address.sun_path + 1, 107), longName.substr(0, 107));
}

TEST_F(SocketTest, CreateAndBindSocketMakesAConnectableSeqpacketSocket) {
   const std::string name = KorvoTest::uniqueName("korvo-socket-test");
   const int sd = Util::createAndBindSocket(h_, name);
   ASSERT_GE(sd, 0);
   int type = 0, reuse = 0;
   socklen_t size = sizeof(int);
   ::getsockopt(sd, SOL_SOCKET, SO_TYPE, &type, &size);
   ::getsockopt(sd, SOL_SOCKET, SO_REUSEADDR, &reuse, &size);
   EXPECT_EQ(type, SOCK_SEQPACKET);
   EXPECT_EQ(reuse, 1);
   EXPECT_TRUE(h_.has(2, "Util::createAndBindSocket() using abstract socket " + name));

   ASSERT_EQ(::listen(sd, 1), 0);
   const int client = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
   sockaddr_un address;
   const socklen_t length = Util::createSockaddr(h_, &address, name);
   EXPECT_EQ(::connect(client, reinterpret_cast<sockaddr*>(&address), length), 0);
   ::close(client);

   try {
      Util::createAndBindSocket(h_, name);
      ADD_FAILURE() << "a taken name must not bind";
   } catch (const Korvo::RuntimeException& e) {
      EXPECT_EQ(e.message(), "Util::createAndBindSocket() bind() failed for socket:" + name +
                                 " error: Address already in use");
   }
   ::close(sd);
}

TEST_F(SocketTest, NamesLongerThanTheAddressAreCutTheSameWayEverywhere) {
   const std::string stem = KorvoTest::uniqueName("korvo-long");
   const std::string first = stem + std::string(120, 'a') + "-one";
   const std::string second = stem + std::string(120, 'a') + "-two";
   const int sd = Util::createAndBindSocket(h_, first);
   EXPECT_THROW(Util::createAndBindSocket(h_, second), Korvo::RuntimeException)
       << "both names cut to the same 107 characters";
   EXPECT_EQ(Util::readSocketPid(h_, second), ::getpid()) << "and are looked up cut as well";
   ::close(sd);
}

TEST_F(SocketTest, ReadSocketPidFindsTheOwningProcess) {
   const std::string mine = KorvoTest::uniqueName("korvo-mine");
   const int sd = Util::createAndBindSocket(h_, mine);
   EXPECT_EQ(Util::readSocketPid(h_, mine), ::getpid());
   EXPECT_TRUE(h_.has(5, "Util::readProcFd() found owner pid:" + std::to_string(::getpid())));
   ::close(sd);

   const std::string theirs = KorvoTest::uniqueName("korvo-theirs");
   int ready[2], done[2];
   ASSERT_EQ(::pipe2(ready, O_CLOEXEC), 0);
   ASSERT_EQ(::pipe2(done, O_CLOEXEC), 0);
   const pid_t child = ::fork();
   if (child == 0) {
      const int own = Util::createAndBindSocket(h_, theirs);
      char c = 'r';
      (void)!::write(ready[1], &c, 1);
      (void)!::read(done[0], &c, 1);
      ::close(own);
      ::_exit(0);
   }
   char c;
   ASSERT_EQ(::read(ready[0], &c, 1), 1);
   EXPECT_EQ(Util::readSocketPid(h_, theirs), child);
   (void)!::write(done[1], &c, 1);
   ::waitpid(child, nullptr, 0);
   for (int fd : {ready[0], ready[1], done[0], done[1]}) {
      ::close(fd);
   }

   h_.clear();
   EXPECT_EQ(Util::readSocketPid(h_, theirs), 0) << "gone with its process";
   EXPECT_TRUE(h_.has(5, "Util::readSocketPid() unable to find inode"));
}

TEST_F(SocketTest, SocketInodeFromNetUnixMatchesWholeNames) {
   const std::string table =
       "Num       RefCount Protocol Flags    Type St Inode Path\n"
       "0000000000000000: 00000002 00000000 00010000 0005 01 1001 @svc\n"
       "0000000000000000: 00000002 00000000 00010000 0005 01 1002 @svc-two\n"
       "0000000000000000: 00000002 00000000 00010000 0005 01  1003 @with blank\n"
       "0000000000000000: 00000002 00000000 00010000 0001 01 1004 /run/svc\n"
       "0000000000000000: 00000003 00000000 00000000 0001 03  1005\n"
       "0000000000000000: 00000002 00000000 00010000 0005 01 x1006 @bad-inode\n"
       "garbage @svc-three\n"
       "0000000000000000: 00000002 00000000 00010000 0005 01 1007 @a@b";
   EXPECT_EQ(Util::socketInodeFromNetUnix(table, "svc"), 1001u);
   EXPECT_EQ(Util::socketInodeFromNetUnix(table, "svc-two"), 1002u);
   EXPECT_EQ(Util::socketInodeFromNetUnix(table, "with blank"), 1003u);
   EXPECT_EQ(Util::socketInodeFromNetUnix(table, "sv"), 0u) << "no prefix matches";
   EXPECT_EQ(Util::socketInodeFromNetUnix(table, "/run/svc"), 0u) << "only abstract names";
   EXPECT_EQ(Util::socketInodeFromNetUnix(table, "bad-inode"), 0u);
   EXPECT_EQ(Util::socketInodeFromNetUnix(table, "svc-three"), 0u);
   EXPECT_EQ(Util::socketInodeFromNetUnix(table, std::string("a\0b", 3)), 1007u)
       << "zero bytes show as @";
   EXPECT_EQ(Util::socketInodeFromNetUnix("", "svc"), 0u);
}

TEST_F(SocketTest, SendBufferSizing) {
   const int sd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
   EXPECT_EQ(Util::setSocketSendBufferSize(sd, 65536), 0);
   int size = 0;
   socklen_t length = sizeof(size);
   ::getsockopt(sd, SOL_SOCKET, SO_SNDBUF, &size, &length);
   EXPECT_GE(size, 65536);

   EXPECT_NE(KorvoTest::assertionText([] {
                Util::setSocketSendBufferSize(-1, 1024);
             }).find("Util::setSocketSendBufferSize() invalid sd: -1"),
             std::string::npos);
   EXPECT_NE(KorvoTest::assertionText([&] {
                Util::setSocketSendBufferSize(sd, 0);
             }).find("Util::setSocketSendBufferSize() invalid size: 0"),
             std::string::npos);
   const int file = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
   EXPECT_NE(KorvoTest::assertionText([&] { Util::setSocketSendBufferSize(file, 1024); })
                 .find("Util::setSocketSendBufferSize() unable to set socket " +
                       std::to_string(file) + " buffer size to 1024 bytes: "),
             std::string::npos);
   ::close(file);
   ::close(sd);

   const int max = Util::SYSTEM_MAX_SEND_BUFFER_SIZE();
   std::ifstream wmem("/proc/sys/net/core/wmem_max");
   int expected = 8388608;
   wmem >> expected;
   EXPECT_EQ(max, expected);
   EXPECT_EQ(Util::SYSTEM_MAX_SEND_BUFFER_SIZE(), max);
}

TEST_F(SocketTest, SocketReportsFailuresByReturnValue) {
   const int sd = Util::socket(h_, AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
   ASSERT_GE(sd, 0);
   const ino_t ns = socketNamespace(sd);
   EXPECT_TRUE(ns == threadNamespace() || ns == inodeOf("/proc/1/ns/net"));
   ::close(sd);
   EXPECT_TRUE(h_.has(2, "Util::socket() success opening ")) << h_.all();
   errno = 0;
   EXPECT_EQ(Util::socket(h_, AF_UNIX, 12345, 0), -1);
   EXPECT_NE(errno, 0);
   EXPECT_TRUE(h_.has(2, "Util::socket() failed opening ")) << h_.all();
}

TEST_F(SocketTest, NamespaceNamesMapToFiles) {
   EXPECT_EQ(NetNs::nsPath(NetNs::DEFAULT_NS), "/proc/1/ns/net");
   EXPECT_EQ(NetNs::nsPath("blue"), "/var/run/netns/blue");
   EXPECT_EQ(NetNs::nsPath("/proc/self/ns/net"), "/proc/self/ns/net");
   for (const char* bad : {"", ".", "..", "a/b"}) {
      EXPECT_EQ(NetNs::nsPath(bad), "") << bad;
      errno = 0;
      EXPECT_EQ(NetNs::setnsByName(bad, CLONE_NEWNET), -1) << bad;
      EXPECT_EQ(errno, EINVAL) << bad;
   }
   errno = 0;
   EXPECT_EQ(NetNs::setnsByName(KorvoTest::uniqueName("korvo-no-such-ns"), CLONE_NEWNET), -1);
   EXPECT_EQ(errno, ENOENT);
   const ino_t before = threadNamespace();
   EXPECT_EQ(NetNs::setnsByName("/dev/null", CLONE_NEWNET), -1) << "not a namespace file";
   EXPECT_EQ(threadNamespace(), before);
}

// Runs `body` in a child that has its own network namespace; skipped without the
// privilege to make one.
int inNewNetworkNamespace(const std::function<int(ino_t original)>& body) {
   return KorvoTest::runInChild([&] {
      const ino_t original = threadNamespace();
      if (original == 0 || ::unshare(CLONE_NEWNET) != 0) {
         return KorvoTest::childSkipped;
      }
      return threadNamespace() != original ? body(original) : 3;
   });
}

TEST_F(SocketTest, SetnsByNameMovesTheCallingThread) {
   const int code = inNewNetworkNamespace([](ino_t original) {
      // The parent's namespace, reached through a descriptor this child inherited.
      const int keep = ::open(("/proc/" + std::to_string(::getppid()) + "/ns/net").c_str(),
                              O_RDONLY | O_CLOEXEC);
      if (keep < 0) {
         return KorvoTest::childSkipped;
      }
      const std::string path = "/proc/self/fd/" + std::to_string(keep);
      const bool entered = NetNs::setnsByName(path, CLONE_NEWNET) == 0;
      return entered && threadNamespace() == original ? 0 : 1;
   });
   if (code == KorvoTest::childSkipped) {
      GTEST_SKIP() << "no privilege to make network namespaces";
   }
   EXPECT_EQ(code, 0);
}

// With a private mount namespace and a fresh /run, the default namespace can be
// named by /run/netns/default (or is pid 1's when that is open to us), and a
// thread in another namespace gets its socket there and stays where it was.
TEST_F(SocketTest, SocketIsMadeInTheDefaultNamespaceAndTheThreadStaysPut) {
   const int code = KorvoTest::runInChild([&] {
      const ino_t original = threadNamespace();
      if (::unshare(CLONE_NEWNS) != 0 ||
          ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
          ::mount("korvo-test", "/run", "tmpfs", 0, nullptr) != 0) {
         return KorvoTest::childSkipped;
      }
      ::mkdir("/run/netns", 0755);
      ::close(::open("/run/netns/default", O_RDONLY | O_CREAT | O_CLOEXEC, 0444));
      if (::mount("/proc/thread-self/ns/net", "/run/netns/default", nullptr, MS_BIND, nullptr) !=
              0 ||
          ::unshare(CLONE_NEWNET) != 0) {
         return KorvoTest::childSkipped;
      }
      const ino_t isolated = threadNamespace();
      const int init = ::open("/proc/1/ns/net", O_RDONLY | O_CLOEXEC);
      const ino_t expected = init >= 0 ? inodeOf(init) : original;
      const int sd = Util::socket(h_, AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
      if (sd < 0) {
         return 1;
      }
      if (socketNamespace(sd) != expected) {
         return 2;
      }
      if (threadNamespace() != isolated) {
         return 3;
      }
      return h_.has(2, "Util::socket() success opening default socket: ") ? 0 : 4;
   });
   if (code == KorvoTest::childSkipped) {
      GTEST_SKIP() << "no privilege to make mount and network namespaces";
   }
   EXPECT_EQ(code, 0);
}

TEST_F(SocketTest, WithoutAReachableDefaultNamespaceTheSocketStaysHere) {
   const int code = KorvoTest::runInChild([&] {
      if (::unshare(CLONE_NEWNS) != 0 ||
          ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
          ::mount("korvo-test", "/run", "tmpfs", 0, nullptr) != 0 || ::unshare(CLONE_NEWNET) != 0) {
         return KorvoTest::childSkipped;
      }
      const int init = ::open("/proc/1/ns/net", O_RDONLY | O_CLOEXEC);
      if (init >= 0) {
         return KorvoTest::childSkipped;  // pid 1's namespace is reachable here
      }
      const ino_t isolated = threadNamespace();
      const int sd = Util::socket(h_, AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
      if (sd < 0 || socketNamespace(sd) != isolated || threadNamespace() != isolated) {
         return 1;
      }
      return h_.has(2, "Util::socket() success opening current socket: ") ? 0 : 2;
   });
   if (code == KorvoTest::childSkipped) {
      GTEST_SKIP() << "needs namespaces and an unreachable pid 1";
   }
   EXPECT_EQ(code, 0);
}

}  // namespace
