// korvo-lined: a line-echo daemon built on libKorvo.
//
// It listens on a Unix socket in a fresh temporary directory and on TCP 127.0.0.1
// (an ephemeral port), and echoes every line a client sends back to it.
//  - the listeners and every connection are FileDescriptorTasks;
//  - every connection has an idle TimerTask (default 600 s, plus up to 10 % jitter
//    so that many idle clients are not all closed in the same pass);
//  - a TaskGroup "housekeeping" holds a periodic task that traces the load;
//  - tracing goes to the "KorvoLined" debug handler (TRACE=KorvoLined/0 ...);
//  - SIGUSR1 prints the statistics report and the last history events and writes
//    the timeline file (<dir>/timeline.json, for https://ui.perfetto.dev or
//    chrome://tracing) and the metrics file (<dir>/metrics.prom, the Prometheus
//    text format, e.g. for node_exporter's textfile collector); SIGHUP re-reads
//    tracing levels from <dir>/TRACE; SIGTERM leaves the loop, and every task and
//    control is destroyed.
//
// Limits, so that no client can make the daemon grow: a line longer than
// maxLineBytes closes its connection, as does output a client does not read
// (more than maxOutputBytes queued); connections beyond maxConnections are
// accepted and closed at once.
//
//   korvo-lined [--idle seconds]       serve until SIGTERM
//   korvo-lined --drive                serve, and drive itself from a forked client
//   korvo-lined --selftest             bad clients under virtual time; exit 0 if fine

#include <Korvo/Korvo.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

namespace {

using Korvo::TaskPriority;

constexpr size_t maxLineBytes = 64 * 1024;
constexpr size_t maxOutputBytes = 256 * 1024;
constexpr size_t maxConnections = 256;

class Server;

class Connection : public Korvo::FileDescriptorTask {
public:
   Connection(std::shared_ptr<Korvo::TaskScheduler> s, Server& server, int fd, uint64_t id);
   ~Connection() override;
   void taskExecuteReadable() override;
   void taskExecuteWritable() override;
   void touch();
   uint64_t id() const { return id_; }

private:
   class Idle : public Korvo::TimerTask {
   public:
      Idle(std::shared_ptr<Korvo::TaskScheduler> s, Server& server, uint64_t id)
          : TimerTask(std::move(s), TaskPriority::low, "lined-idle"), server_(server), id_(id) {}
      void taskExecute() override;

   private:
      Server& server_;
      uint64_t id_;
   };
   bool flush();

   Server& server_;
   int fd_;
   uint64_t id_;
   std::string input_;
   std::string output_;
   std::shared_ptr<Idle> idle_;
};

class Listener : public Korvo::FileDescriptorTask {
public:
   Listener(std::shared_ptr<Korvo::TaskScheduler> s, Server& server, int fd, const char* name)
       : FileDescriptorTask(std::move(s), TaskPriority::high, name), server_(server), fd_(fd) {
      taskWatchReadableIs(true);
      taskWatchFdIs(fd);
   }
   ~Listener() override {
      taskWatchFdDel();
      ::close(fd_);
   }
   void taskExecuteReadable() override;
   void taskExecuteWritable() override {}

private:
   Server& server_;
   int fd_;
};

class Housekeeping : public Korvo::TimerTask {
public:
   Housekeeping(std::shared_ptr<Korvo::TaskScheduler> s, Server& server)
       : TimerTask(std::move(s), TaskPriority::low, "lined-housekeeping"), server_(server) {}
   void taskExecute() override;

private:
   Server& server_;
};

int check(int rc, const char* what) {
   if (rc < 0) {
      throw Korvo::RuntimeException(std::string(what) + ": " + std::strerror(errno));
   }
   return rc;
}

class Server : private Korvo::Platform::SignalHandler {
public:
   explicit Server(double idleSeconds)
       : log_(Korvo::Platform::getDebugHandler("KorvoLined")),
         root_(Korvo::schedulerRootKorvo()),
         idleSeconds_(idleSeconds) {
      char tmpl[] = "/tmp/korvo-lined.XXXXXX";
      if (::mkdtemp(tmpl) == nullptr) {
         check(-1, "mkdtemp");
      }
      dir_ = tmpl;
      // A longer window for the timeline than the default history keeps
      // (24 bytes an event: 2.4 MB).
      root_->historyEntryCountIs(100000);
      group_ = Korvo::TaskGroup::TaskGroupIs("housekeeping", TaskPriority::low, false, root_);
      housekeeping_ = Korvo::makeShared<Housekeeping>(group_, *this);
      for (int signo : {SIGUSR1, SIGHUP, SIGTERM}) {
         signals_.push_back(Korvo::Platform::getSignalControl(this, signo));
      }
   }
   ~Server() override {
      // Connections first: they hold tasks on the root and on nothing else.
      connections_.clear();
      unix_.reset();
      tcp_.reset();
      housekeeping_.reset();
      group_.reset();
      signals_.clear();
      ::unlink(socketPath().c_str());
   }

   std::string socketPath() const { return dir_ + "/lined.sock"; }
   std::string timelinePath() const { return dir_ + "/timeline.json"; }
   std::string metricsPath() const { return dir_ + "/metrics.prom"; }
   const std::string& dir() const { return dir_; }
   uint16_t tcpPort() const { return tcpPort_; }
   const Korvo::Platform::DebugHandler& log() const { return *log_; }
   size_t connectionCount() const { return connections_.size(); }
   uint64_t closedIdle() const { return closedIdle_; }
   uint64_t closedLong() const { return closedLong_; }
   uint64_t refused() const { return refused_; }
   uint64_t lines() const { return lines_; }
   double lastIdleClose() const { return lastIdleClose_; }

   void listen() {
      int u = check(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0), "socket");
      sockaddr_un ua{};
      ua.sun_family = AF_UNIX;
      std::strncpy(ua.sun_path, socketPath().c_str(), sizeof(ua.sun_path) - 1);
      check(::bind(u, reinterpret_cast<sockaddr*>(&ua), sizeof(ua)), "bind unix");
      check(::listen(u, 512), "listen");
      unix_ = Korvo::makeShared<Listener>(root_, *this, u, "lined-unix");

      int t = check(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0), "socket");
      sockaddr_in ta{};
      ta.sin_family = AF_INET;
      ta.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
      check(::bind(t, reinterpret_cast<sockaddr*>(&ta), sizeof(ta)), "bind tcp");
      socklen_t len = sizeof(ta);
      check(::getsockname(t, reinterpret_cast<sockaddr*>(&ta), &len), "getsockname");
      tcpPort_ = ntohs(ta.sin_port);
      check(::listen(t, 512), "listen");
      tcp_ = Korvo::makeShared<Listener>(root_, *this, t, "lined-tcp");
      housekeeping_->scheduleTaskPeriodic(1.0);
      KORVO_TRACE(log_, 0, "listening on " << socketPath() << " and 127.0.0.1:" << tcpPort_);
   }

   void accept(int listenFd) {
      // A bounded batch per run, so a flood of connects cannot starve the clients.
      for (int i = 0; i < 64; ++i) {
         const int fd = ::accept4(listenFd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
         if (fd < 0) {
            if (errno != EAGAIN && errno != EWOULDBLOCK) {
               KORVO_TRACE(log_, 1, "accept: " << std::strerror(errno));
            }
            return;
         }
         if (connections_.size() >= maxConnections) {
            ++refused_;
            ::close(fd);
            continue;
         }
         const uint64_t id = ++nextId_;
         (listenFd == unixFd() ? unix_ : tcp_)->taskWorkCountInc(1);
         auto conn = Korvo::makeShared<Connection>(root_, *this, fd, id);
         connections_.emplace(id, std::move(conn));
         KORVO_TRACE(log_, 5, "connection " << id << " on fd " << fd);
      }
      // More may be waiting: come back after the others had their turn.
      (listenFd == unixFd() ? unix_ : tcp_)->scheduleTaskReadable();
   }

   void close(uint64_t id, const char* why) {
      KORVO_TRACE(log_, 5, "connection " << id << " closed: " << why);
      connections_.erase(id);
   }
   void idleClosed(uint64_t id) {
      ++closedIdle_;
      lastIdleClose_ = Korvo::time();
      close(id, "idle");
   }
   void lineTooLong(uint64_t id) {
      ++closedLong_;
      close(id, "line too long");
   }
   void lineEchoed() { ++lines_; }
   double idleSeconds() const { return idleSeconds_; }

   void report(std::ostream& os) {
      os << "korvo-lined: " << connections_.size() << " open connection(s), " << nextId_
         << " accepted, " << refused_ << " refused, " << lines_ << " line(s) echoed, "
         << closedIdle_ << " closed idle, " << closedLong_ << " closed for a too long line\n\n";
      root_->printStats(os, true, false, 20, 4294967295, 4294967295);
      os << "\nlast scheduler events:\n";
      root_->printHistory(os, 16);
      std::ofstream timeline(timelinePath());
      root_->writeTimeline(timeline);
      os << "\ntimeline written to " << timelinePath()
         << "\n  open it in https://ui.perfetto.dev (\"Open trace file\") or chrome://tracing\n";
      std::ofstream metrics(metricsPath());
      root_->printMetrics(metrics);
      os << "metrics written to " << metricsPath()
         << "\n  the Prometheus text format: scrape it with a textfile collector\n";
      os.flush();
   }

private:
   int unixFd() const { return unix_ ? unix_->taskWatchFd() : -1; }

   void signalReceived(int signo) override {
      if (signo == SIGUSR1) {
         report(std::cout);
      } else if (signo == SIGHUP) {
         std::ifstream file(dir_ + "/TRACE");
         std::string levels;
         std::getline(file, levels);
         Korvo::Platform::setupKorvoDebug(levels.c_str());
         KORVO_TRACE(log_, 0, "tracing set to \"" << levels << "\"");
      } else {
         KORVO_TRACE(log_, 0, "SIGTERM: stopping");
         Korvo::Platform::exitEventLoop();
      }
   }

   std::shared_ptr<Korvo::Platform::DebugHandler> log_;
   std::shared_ptr<Korvo::TaskSchedulerRoot> root_;
   double idleSeconds_;
   std::string dir_;
   uint16_t tcpPort_ = 0;
   std::shared_ptr<Korvo::TaskGroup> group_;
   std::shared_ptr<Housekeeping> housekeeping_;
   std::vector<std::shared_ptr<Korvo::Platform::SignalControl>> signals_;
   std::shared_ptr<Listener> unix_;
   std::shared_ptr<Listener> tcp_;
   std::map<uint64_t, std::shared_ptr<Connection>> connections_;
   uint64_t nextId_ = 0;
   uint64_t refused_ = 0;
   uint64_t lines_ = 0;
   uint64_t closedIdle_ = 0;
   uint64_t closedLong_ = 0;
   double lastIdleClose_ = 0.0;
};

Connection::Connection(std::shared_ptr<Korvo::TaskScheduler> s, Server& server, int fd, uint64_t id)
    : FileDescriptorTask(s, TaskPriority::normal, "lined-conn"), server_(server), fd_(fd), id_(id) {
   idle_ = Korvo::makeShared<Idle>(std::move(s), server, id);
   taskWatchReadableIs(true);
   taskWatchFdIs(fd);
   touch();
}

Connection::~Connection() {
   taskWatchFdDel();
   ::close(fd_);
}

void Connection::touch() {
   idle_->scheduleTaskJitterUp(server_.idleSeconds(), 10);
}

void Connection::Idle::taskExecute() {
   server_.idleClosed(id_);
}

void Connection::taskExecuteReadable() {
   char buffer[16384];
   const ssize_t n = ::recv(fd_, buffer, sizeof(buffer), 0);
   if (n == 0 || (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR)) {
      server_.close(id_, n == 0 ? "end of input" : std::strerror(errno));
      return;
   }
   if (n < 0) {
      return;
   }
   taskWorkCountInc(static_cast<unsigned long>(n));
   touch();
   input_.append(buffer, static_cast<size_t>(n));
   size_t start = 0;
   for (size_t nl; (nl = input_.find('\n', start)) != std::string::npos; start = nl + 1) {
      output_.append(input_, start, nl + 1 - start);
      server_.lineEchoed();
   }
   input_.erase(0, start);
   if (input_.size() > maxLineBytes) {
      server_.lineTooLong(id_);
      return;
   }
   if (!flush()) {
      server_.close(id_, "client does not read");
   }
}

void Connection::taskExecuteWritable() {
   if (!flush()) {
      server_.close(id_, "client does not read");
   }
}

// Sends what it can; false when the client lets too much pile up.
bool Connection::flush() {
   while (!output_.empty()) {
      const ssize_t n = ::send(fd_, output_.data(), output_.size(), MSG_NOSIGNAL);
      if (n < 0) {
         if (errno == EAGAIN || errno == EWOULDBLOCK) {
            taskWatchWritableIs(true);
            break;
         }
         return false;
      }
      output_.erase(0, static_cast<size_t>(n));
   }
   return output_.size() <= maxOutputBytes;
}

void Listener::taskExecuteReadable() {
   server_.accept(fd_);
}

void Housekeeping::taskExecute() {
   KORVO_TRACE(server_.log(), 3,
               "housekeeping: " << server_.connectionCount() << " connection(s), "
                                << server_.lines() << " line(s)");
}

// ---- the built-in client ------------------------------------------------------

int connectUnix(const std::string& path) {
   int fd = check(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0), "socket");
   sockaddr_un a{};
   a.sun_family = AF_UNIX;
   std::strncpy(a.sun_path, path.c_str(), sizeof(a.sun_path) - 1);
   check(::connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof(a)), "connect");
   return fd;
}

int connectTcp(uint16_t port) {
   int fd = check(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0), "socket");
   sockaddr_in a{};
   a.sin_family = AF_INET;
   a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
   a.sin_port = htons(port);
   check(::connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof(a)), "connect");
   return fd;
}

// Blocking echo of `lines` lines on one connection; false on a wrong echo.
bool echo(int fd, int lines, int seed) {
   std::string sent;
   for (int i = 0; i < lines; ++i) {
      sent += "line " + std::to_string(seed) + "." + std::to_string(i) + "\n";
   }
   if (::send(fd, sent.data(), sent.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(sent.size())) {
      return false;
   }
   std::string got;
   char buffer[4096];
   while (got.size() < sent.size()) {
      const ssize_t n = ::recv(fd, buffer, sizeof(buffer), 0);
      if (n <= 0) {
         return false;
      }
      got.append(buffer, static_cast<size_t>(n));
   }
   return got == sent;
}

// The forked client of --drive: 300 connections, 3000 lines, a too long line and a
// client that vanishes; then SIGUSR1 and SIGTERM to the daemon.
int drive(const std::string& path, uint16_t port, pid_t daemon) {
   int bad = 0;
   for (int c = 0; c < 300; ++c) {
      const int fd = c % 3 == 0 ? connectTcp(port) : connectUnix(path);
      bad += echo(fd, 10, c) ? 0 : 1;
      ::close(fd);
   }
   {
      // A megabyte without a newline: the daemon must hang up.
      const int fd = connectUnix(path);
      const std::string junk(1 << 20, 'x');
      ::send(fd, junk.data(), junk.size(), MSG_NOSIGNAL);
      char c;
      bad += ::recv(fd, &c, 1, 0) <= 0 ? 0 : 1;
      ::close(fd);
   }
   ::close(connectUnix(path));  // connects and vanishes
   std::cout << "client: 300 connections, 3000 lines, " << bad << " failure(s)\n\n" << std::flush;
   ::kill(daemon, SIGUSR1);
   ::usleep(300 * 1000);  // let the report come out before the stop
   ::kill(daemon, SIGTERM);
   return bad == 0 ? 0 : 1;
}

// ---- the self-test under virtual time -------------------------------------------

int failures = 0;
void expect(bool ok, const std::string& what) {
   std::cout << (ok ? "ok   " : "FAIL ") << what << "\n";
   failures += ok ? 0 : 1;
}

// A non-blocking client; -1 when the daemon's backlog is full.
int nonblockingUnix(const std::string& path) {
   const int fd = check(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0), "socket");
   sockaddr_un a{};
   a.sun_family = AF_UNIX;
   std::strncpy(a.sun_path, path.c_str(), sizeof(a.sun_path) - 1);
   if (::connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof(a)) != 0) {
      check(errno == EAGAIN ? 0 : -1, "connect");
      ::close(fd);
      return -1;
   }
   return fd;
}

// Bad clients, each against the daemon's limits; the clock is virtual, so the
// ten-minute idle timeout passes without waiting.
int selftest() {
   Korvo::Platform::setFastForward(true);
   rlimit lim{};
   ::getrlimit(RLIMIT_NOFILE, &lim);
   lim.rlim_cur = std::min<rlim_t>(lim.rlim_max, 8192);
   ::setrlimit(RLIMIT_NOFILE, &lim);
   std::string dir;
   {
      Server server(600.0);
      dir = server.dir();
      server.listen();
      const double start = Korvo::time();

      // An idle client is closed after 600 to 660 s of (virtual) time.
      const int idle = nonblockingUnix(server.socketPath());
      Korvo::Platform::doEventLoop(1.0);
      expect(server.connectionCount() == 1, "idle client accepted");
      Korvo::Platform::doEventLoop(700.0);
      const double after = server.lastIdleClose() - start;
      expect(server.closedIdle() == 1 && after >= 600.0 && after <= 661.0,
             "idle client closed after " + std::to_string(after) + " s");
      char c;
      expect(::recv(idle, &c, 1, 0) == 0, "idle client sees end of input");
      ::close(idle);

      // A megabyte without a newline closes the connection at the line limit.
      const int longLine = nonblockingUnix(server.socketPath());
      const std::string junk(64 * 1024, 'x');
      size_t sent = 0;
      for (int pass = 0; pass < 1000 && server.closedLong() == 0; ++pass) {
         const ssize_t n = ::send(longLine, junk.data(), junk.size(), MSG_NOSIGNAL);
         sent += n > 0 ? static_cast<size_t>(n) : 0;
         Korvo::Platform::doEventLoop(0.0);
      }
      expect(server.closedLong() == 1 && sent <= (1u << 20),
             "a line without end closed after " + std::to_string(sent) + " bytes");
      ::close(longLine);

      // Connect and vanish: the connection goes at end of input.
      ::close(nonblockingUnix(server.socketPath()));
      Korvo::Platform::doEventLoop(1.0);
      expect(server.connectionCount() == 0, "a vanished client is forgotten");

      // A flood of connections: at most maxConnections are kept.
      std::vector<int> flood;
      for (int i = 0; i < 2000; ++i) {
         const int fd = nonblockingUnix(server.socketPath());
         if (fd >= 0) {
            flood.push_back(fd);
         }
         if (i % 64 == 63) {
            Korvo::Platform::doEventLoop(0.0);
         }
      }
      Korvo::Platform::doEventLoop(1.0);
      expect(server.connectionCount() == maxConnections && server.refused() > 0 &&
                 flood.size() > maxConnections,
             "flood: " + std::to_string(server.connectionCount()) + " kept, " +
                 std::to_string(server.refused()) + " refused");
      for (int fd : flood) {
         ::close(fd);
      }
      Korvo::Platform::doEventLoop(1.0);
      expect(server.connectionCount() == 0, "flood gone");

      // An ordinary client still gets its lines back.
      const int fd = nonblockingUnix(server.socketPath());
      const std::string lines = "one\ntwo\n";
      ::send(fd, lines.data(), lines.size(), MSG_NOSIGNAL);
      Korvo::Platform::doEventLoop(1.0);
      char buffer[64];
      const ssize_t n = ::recv(fd, buffer, sizeof(buffer), 0);
      expect(n > 0 && std::string(buffer, static_cast<size_t>(n)) == lines, "lines echoed");
      ::close(fd);
      Korvo::Platform::doEventLoop(1.0);
   }
   Korvo::Platform::setFastForward(false);
   ::rmdir(dir.c_str());
   std::cout << (failures == 0 ? "selftest passed\n" : "selftest FAILED\n");
   return failures == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
   double idle = 600.0;
   bool driveIt = false;
   for (int i = 1; i < argc; ++i) {
      if (std::strcmp(argv[i], "--selftest") == 0) {
         return selftest();
      } else if (std::strcmp(argv[i], "--drive") == 0) {
         driveIt = true;
      } else if (std::strcmp(argv[i], "--idle") == 0 && i + 1 < argc) {
         idle = std::atof(argv[++i]);
      } else {
         std::cerr << "usage: korvo-lined [--idle seconds] [--drive] [--selftest]\n";
         return 2;
      }
   }
   int rc = 0;
   {
      Server server(idle);
      server.listen();
      std::cout << "korvo-lined " << ::getpid() << ": unix " << server.socketPath()
                << ", tcp 127.0.0.1:" << server.tcpPort() << "\n"
                << "  kill -USR1 " << ::getpid() << "   report and timeline\n"
                << "  kill -TERM " << ::getpid() << "   stop\n\n"
                << std::flush;
      pid_t child = -1;
      if (driveIt) {
         const pid_t self = ::getpid();
         child = check(::fork(), "fork");
         if (child == 0) {
            ::_exit(drive(server.socketPath(), server.tcpPort(), self));
         }
      }
      Korvo::Platform::doEventLoop();
      if (child > 0) {
         int status = 0;
         ::waitpid(child, &status, 0);
         rc = WIFEXITED(status) ? WEXITSTATUS(status) : 1;
      }
      std::cout << "korvo-lined: stopped; " << server.lines() << " line(s) echoed, timeline in "
                << server.timelinePath() << "\n";
   }
   return rc;
}
