/*
 * The services daemon's poll loop. Each connection is greeted, sends one byte with one
 * descriptor, and gets a verdict. A writable descriptor receives one line from the daemon; the
 * read end of a shell-mode pipe is watched until its opener goes away.
 */
#include "servicesDaemon.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <vector>

#include "log.h"
#include "serviceImpl.h"
#include "str.h"

namespace {

constexpr size_t kMaxPendingConnections = 64;
constexpr size_t kMaxWatchedPipes = 1024;
constexpr int kConnectionTimeoutMs = 5000;
constexpr char kGreeting = 'B';

struct Connection {
   int fd;
   pid_t peerPid;
   long long deadlineMs;
};

struct WatchedPipe {
   int fd;
   pid_t peerPid;
};

long long NowMs(void)
{
   struct timespec now;
   clock_gettime(CLOCK_MONOTONIC, &now);
   return (long long)now.tv_sec * 1000 + now.tv_nsec / 1000000;
}

const char *FileKind(mode_t mode)
{
   if (S_ISREG(mode)) {
      return "file";
   }
   if (S_ISFIFO(mode)) {
      return "pipe";
   }
   if (S_ISSOCK(mode)) {
      return "socket";
   }
   if (S_ISCHR(mode)) {
      return "character device";
   }
   if (S_ISDIR(mode)) {
      return "directory";
   }
   return "other file";
}

class ServicesDaemon {
  public:
   ServicesDaemon(int listenFd, int keepAliveFd) : listenFd_(listenFd), keepAliveFd_(keepAliveFd) {}
   ~ServicesDaemon();
   int Run();

  private:
   bool SetUpSignals();
   void AcceptAll();
   void Serve(Connection &conn);
   bool TakeDescriptor(int fd, pid_t peerPid);
   bool WriteGreetingLine(int fd, pid_t peerPid, const char *kind);
   void DrainWatched(WatchedPipe &watched, bool *gone);
   void ExpireConnections();

   int listenFd_;
   int keepAliveFd_;
   int signalFd_ = -1;
   std::vector<Connection> connections_;
   std::vector<WatchedPipe> watched_;
};

ServicesDaemon::~ServicesDaemon()
{
   for (Connection &conn : connections_) {
      ServiceImplClose(&conn.fd, nullptr);
   }
   for (WatchedPipe &watched : watched_) {
      ServiceImplClose(&watched.fd, nullptr);
   }
   ServiceImplClose(&signalFd_, nullptr);
   ServiceImplClose(&keepAliveFd_, nullptr);
   ServiceImplClose(&listenFd_, nullptr);
}

bool ServicesDaemon::SetUpSignals()
{
   sigset_t stopSignals;
   sigemptyset(&stopSignals);
   sigaddset(&stopSignals, SIGTERM);
   sigaddset(&stopSignals, SIGINT);
   sigaddset(&stopSignals, SIGHUP);
   if (sigprocmask(SIG_BLOCK, &stopSignals, nullptr) == -1) {
      Warning("%s: sigprocmask errno %d.\n", "ServicesSetUpSignals", errno);
      return false;
   }
   signalFd_ = signalfd(-1, &stopSignals, SFD_CLOEXEC | SFD_NONBLOCK);
   if (signalFd_ == -1) {
      Warning("%s: signalfd errno %d.\n", "ServicesSetUpSignals", errno);
      return false;
   }
   signal(SIGPIPE, SIG_IGN);
   return true;
}

void ServicesDaemon::AcceptAll()
{
   while (connections_.size() < kMaxPendingConnections) {
      int fd = accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
      if (fd == -1) {
         if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR && errno != ECONNABORTED) {
            Warning("%s: accept errno %d.\n", "ServicesAccept", errno);
         }
         return;
      }
      struct ucred peer = {};
      socklen_t length = sizeof peer;
      if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &length) == -1) {
         peer.pid = 0;
      }
      if (!ServiceImplWriteOne(fd, kGreeting)) {
         close(fd);
         continue;
      }
      connections_.push_back({fd, peer.pid, NowMs() + kConnectionTimeoutMs});
   }
}

bool ServicesDaemon::WriteGreetingLine(int fd, pid_t peerPid, const char *kind)
{
   char *line =
       Str_Asprintf(nullptr, "BRIX Services (PID %u) received this %s from opener PID %d.\n",
                    (unsigned)getpid(), kind, (int)peerPid);
   if (line == nullptr) {
      return false;
   }
   // Never block on a full pipe or socket: write only what fits now.
   struct pollfd ready = {fd, POLLOUT, 0};
   bool ok = false;
   if (poll(&ready, 1, 0) == 1 && (ready.revents & POLLOUT)) {
      size_t length = strlen(line);
      ssize_t written = send(fd, line, length, MSG_NOSIGNAL | MSG_DONTWAIT);
      if (written == -1 && errno == ENOTSOCK) {
         written = write(fd, line, length);
      }
      ok = written == (ssize_t)length;
      if (!ok) {
         Warning("%s: write errno %d.\n", "ServicesWriteLine", written == -1 ? errno : 0);
      }
   } else {
      Warning("%s: The %s from opener PID %d is not ready for writing.\n", "ServicesWriteLine",
              kind, (int)peerPid);
   }
   free(line);
   return ok;
}

/*
 * Acts on a received descriptor and takes ownership of it: a writable one gets a line, the read
 * end of a pipe is watched for its writer's departure, anything else is noted and closed.
 */
bool ServicesDaemon::TakeDescriptor(int fd, pid_t peerPid)
{
   static const char kFn[] = "ServicesTakeDescriptor";
   struct stat st;
   int flags = fcntl(fd, F_GETFL);
   if (fstat(fd, &st) == -1 || flags == -1) {
      Warning("%s: fstat errno %d.\n", kFn, errno);
      close(fd);
      return false;
   }
   const char *kind = FileKind(st.st_mode);
   int accessMode = flags & O_ACCMODE;

   if (accessMode == O_RDONLY && S_ISFIFO(st.st_mode) && watched_.size() < kMaxWatchedPipes) {
      watched_.push_back({fd, peerPid});
      Log("%s: Watching the keep-alive pipe of opener PID %d.\n", kFn, (int)peerPid);
      return true;
   }
   if ((accessMode == O_WRONLY || accessMode == O_RDWR) && !S_ISDIR(st.st_mode)) {
      if (WriteGreetingLine(fd, peerPid, kind)) {
         Log("%s: Wrote a line into the %s from opener PID %d.\n", kFn, kind, (int)peerPid);
      }
   } else {
      Log("%s: Received a read-only %s from opener PID %d; closed it.\n", kFn, kind, (int)peerPid);
   }
   close(fd);
   return true;
}

void ServicesDaemon::Serve(Connection &conn)
{
   int fd = -1;
   bool accepted = ServiceImplRecvFd(conn.fd, &fd) && TakeDescriptor(fd, conn.peerPid);
   ServiceImplWriteOne(conn.fd, accepted ? '1' : '0');
   ServiceImplClose(&conn.fd, nullptr);
}

void ServicesDaemon::DrainWatched(WatchedPipe &watched, bool *gone)
{
   char buffer[512];
   ssize_t n = read(watched.fd, buffer, sizeof buffer);
   if (n > 0 || (n == -1 && (errno == EAGAIN || errno == EINTR))) {
      *gone = false;  // data on a keep-alive pipe is discarded
      return;
   }
   Log("%s: Opener PID %d has gone; its keep-alive pipe is closed.\n", "ServicesWatch",
       (int)watched.peerPid);
   ServiceImplClose(&watched.fd, nullptr);
   *gone = true;
}

void ServicesDaemon::ExpireConnections()
{
   long long now = NowMs();
   for (Connection &conn : connections_) {
      if (conn.fd != -1 && now >= conn.deadlineMs) {
         Warning("%s: Opener PID %d sent nothing in time; dropped.\n", "ServicesExpire",
                 (int)conn.peerPid);
         ServiceImplClose(&conn.fd, nullptr);
      }
   }
}

int ServicesDaemon::Run()
{
   if (!SetUpSignals() || !ServiceImplSetBlockingState(listenFd_, false)) {
      return 1;
   }
   Log("%s: PID %u, listening on descriptor %d.\n", "ServicesDaemon", (unsigned)getpid(),
       listenFd_);

   for (;;) {
      // Order: signals, listener, keep-alive, connections, watched pipes.
      std::vector<struct pollfd> fds;
      fds.push_back({signalFd_, POLLIN, 0});
      fds.push_back({connections_.size() < kMaxPendingConnections ? listenFd_ : -1, POLLIN, 0});
      fds.push_back({keepAliveFd_, POLLIN, 0});
      for (const Connection &conn : connections_) {
         fds.push_back({conn.fd, POLLIN, 0});
      }
      for (const WatchedPipe &watched : watched_) {
         fds.push_back({watched.fd, POLLIN, 0});
      }
      size_t polledConnections = connections_.size();
      size_t polledWatched = watched_.size();

      int timeout = -1;
      if (!connections_.empty()) {
         long long earliest = connections_.front().deadlineMs;
         for (const Connection &conn : connections_) {
            earliest = conn.deadlineMs < earliest ? conn.deadlineMs : earliest;
         }
         long long wait = earliest - NowMs();
         timeout = wait < 0 ? 0 : (int)wait;
      }
      if (poll(fds.data(), fds.size(), timeout) == -1) {
         if (errno == EINTR) {
            continue;
         }
         Warning("%s: poll errno %d.\n", "ServicesDaemon", errno);
         return 1;
      }

      if (fds[0].revents != 0) {
         struct signalfd_siginfo info;
         if (read(signalFd_, &info, sizeof info) == (ssize_t)sizeof info) {
            Log("%s: Stopping on signal %u.\n", "ServicesDaemon", info.ssi_signo);
            return 0;
         }
      }
      if (fds[2].revents != 0) {
         char byte;
         if (ServiceImplReadOne(keepAliveFd_, &byte) != SERVICE_READ_BYTE) {
            Log("%s: The starting opener has finished.\n", "ServicesDaemon");
            ServiceImplClose(&keepAliveFd_, nullptr);
         }
      }
      // Serving a connection may add a watched pipe: walk only the entries that were polled.
      size_t index = 3;
      for (size_t i = 0; i < polledConnections; i++) {
         if (fds[index++].revents != 0) {
            Serve(connections_[i]);
         }
      }
      for (size_t i = 0; i < polledWatched; i++) {
         bool gone = false;
         if (fds[index++].revents != 0) {
            DrainWatched(watched_[i], &gone);
         }
      }
      ExpireConnections();
      std::erase_if(connections_, [](const Connection &c) { return c.fd == -1; });
      std::erase_if(watched_, [](const WatchedPipe &w) { return w.fd == -1; });
      if (fds[1].revents != 0) {
         AcceptAll();
      }
   }
}

}  // namespace

int ServicesDaemon_Run(int listenFd, int keepAliveFd)
{
   ServicesDaemon daemon(listenFd, keepAliveFd);
   return daemon.Run();
}
