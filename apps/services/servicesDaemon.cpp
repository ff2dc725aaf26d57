/*
 * The services daemon's poll loop. Each connection is greeted, sends one byte with one
 * descriptor, and gets a verdict. A writable descriptor receives one line from the daemon; the
 * read end of a shell-mode pipe is watched until its opener goes away.
 *
 * Every user can drive the daemon, so no user may exhaust it for the others: pending
 * connections and watched pipes are counted per user (the connecting opener's effective uid),
 * the tables stay below the descriptor limit with descriptors to spare, received descriptors
 * are written to only when that cannot block, and the log is rate-limited and rotated.
 */
#include "servicesDaemon.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/sysmacros.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "internal/uniqueFd.h"
#include "log.h"
#include "serviceImplIO.h"
#include "str.h"

#ifndef BRIX_SERVICES_LOG_CAP
#define BRIX_SERVICES_LOG_CAP (1024 * 1024)
#endif

namespace {

using tesmar::UniqueFd;

constexpr size_t kMaxPendingConnections = 64;
constexpr size_t kPendingPerUser = 8;
constexpr size_t kWatchedPerUser = 64;
constexpr size_t kSpareDescriptors = 16;  // log rotation, a received descriptor, the spare
constexpr int kConnectionTimeoutMs = 5000;
constexpr char kGreeting = 'B';
constexpr off_t kLogCap = BRIX_SERVICES_LOG_CAP;  // the log is rotated beyond this size
constexpr double kLogBurst = 100;                 // log events allowed at once ...
constexpr double kLogPerSecond = 10;              // ... and over time
constexpr long kFuseMagic = 0x65735546;

struct Connection {
   UniqueFd fd;
   pid_t peerPid;
   uid_t peerUid;
   long long deadlineMs;
};

struct WatchedPipe {
   UniqueFd fd;
   pid_t peerPid;
   uid_t peerUid;
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

/*
 * The daemon's log file, rate-limited and rotated: any user can make the daemon log, so each
 * event that may log spends a token, events beyond the budget are counted instead of logged,
 * and the file is moved to "<path>.1" (replacing the older one) when it passes kLogCap.
 */
class ServicesLog {
  public:
   explicit ServicesLog(std::string path) : path_(std::move(path)) { Open(); }
   ~ServicesLog() { Log_SetOutputFd(-1); }

   // Opens the gate for one event: the log stays muted for it when the budget is spent.
   void Begin()
   {
      long long now = NowMs();
      tokens_ = std::min(kLogBurst, tokens_ + (double)(now - refilledMs_) * kLogPerSecond / 1000);
      refilledMs_ = now;
      muted_ = tokens_ < 1;
      if (muted_) {
         suppressed_++;
         Log_SetOutputFd(-1);
         return;
      }
      tokens_ -= 1;
      if (suppressed_ > 0) {
         Log("%s: %u similar lines suppressed.\n", "ServicesLog", suppressed_);
         suppressed_ = 0;
      }
   }

   void End()
   {
      Log_SetOutputFd(fd_.get());
      struct stat st;
      if (!muted_ && fd_ && fstat(fd_.get(), &st) == 0 && st.st_size >= kLogCap) {
         Rotate();
      }
   }

  private:
   void Open()
   {
      fd_.reset(open(path_.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
      if (!fd_) {
         Warning("%s: Cannot open the log %s, errno %d.\n", "main", path_.c_str(), errno);
      }
      Log_SetOutputFd(fd_.get());
   }

   void Rotate()
   {
      if (rename(path_.c_str(), (path_ + ".1").c_str()) == 0) {
         Open();
      }
   }

   std::string path_;
   UniqueFd fd_;
   double tokens_ = kLogBurst;
   long long refilledMs_ = NowMs();
   unsigned suppressed_ = 0;
   bool muted_ = false;
};

// Brackets one event that may log.
class LogEvent {
  public:
   explicit LogEvent(ServicesLog &log) : log_(log) { log_.Begin(); }
   ~LogEvent() { log_.End(); }
   LogEvent(const LogEvent &) = delete;
   LogEvent &operator=(const LogEvent &) = delete;

  private:
   ServicesLog &log_;
};

class ServicesDaemon {
  public:
   ServicesDaemon(int listenFd, int keepAliveFd, const char *logPath)
       : listenFd_(listenFd), keepAliveFd_(keepAliveFd), log_(logPath)
   {
   }
   int Run();

  private:
   bool SetUp();
   void AcceptAll();
   void AcceptOne(UniqueFd fd);
   void Serve(Connection &conn);
   bool TakeDescriptor(UniqueFd fd, const Connection &conn);
   bool WriteGreetingLine(int fd, const struct stat &st, pid_t peerPid);
   void DrainWatched(WatchedPipe &watched);
   void ExpireConnections();
   int PollTimeout() const;
   void ServeReady(const std::vector<struct pollfd> &fds);

   UniqueFd listenFd_;
   UniqueFd keepAliveFd_;
   UniqueFd signalFd_;
   UniqueFd spareFd_;  // given up to accept and drop a connection when descriptors run out
   ServicesLog log_;
   dev_t pipeDev_ = 0;  // the device of anonymous pipes
   size_t maxWatched_ = 0;
   std::vector<Connection> connections_;
   std::vector<WatchedPipe> watched_;
};

bool ServicesDaemon::SetUp()
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
   signalFd_.reset(signalfd(-1, &stopSignals, SFD_CLOEXEC | SFD_NONBLOCK));
   if (!signalFd_) {
      Warning("%s: signalfd errno %d.\n", "ServicesSetUpSignals", errno);
      return false;
   }
   signal(SIGPIPE, SIG_IGN);
   signal(SIGXFSZ, SIG_IGN);  // a full file gives EFBIG instead

   // Only anonymous pipes are watched: their writer existed, so their hang-up comes.
   int probe[2];
   struct stat st;
   if (pipe2(probe, O_CLOEXEC) == -1) {
      Warning("%s: pipe errno %d.\n", "ServicesSetUp", errno);
      return false;
   }
   UniqueFd probeRead(probe[0]);
   UniqueFd probeWrite(probe[1]);
   if (fstat(probeRead.get(), &st) == -1) {
      Warning("%s: fstat errno %d.\n", "ServicesSetUp", errno);
      return false;
   }
   pipeDev_ = st.st_dev;

   spareFd_.reset(open("/dev/null", O_RDONLY | O_CLOEXEC));
   struct rlimit files;
   rlim_t limit = getrlimit(RLIMIT_NOFILE, &files) == 0 ? files.rlim_cur : 1024;
   rlim_t reserved = kMaxPendingConnections + kSpareDescriptors + 8;
   maxWatched_ = limit > reserved ? (size_t)(limit - reserved) : 0;
   return ServiceImplSetBlockingState(listenFd_.get(), false);
}

void ServicesDaemon::AcceptAll()
{
   while (connections_.size() < kMaxPendingConnections) {
      UniqueFd fd(accept4(listenFd_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
      if (!fd && (errno == EMFILE || errno == ENFILE) && spareFd_) {
         // Out of descriptors: take the connection with the spare and drop it at once.
         spareFd_.reset();
         UniqueFd(accept4(listenFd_.get(), nullptr, nullptr, SOCK_CLOEXEC));
         spareFd_.reset(open("/dev/null", O_RDONLY | O_CLOEXEC));
         LogEvent event(log_);
         Warning("%s: accept errno %d.\n", "ServicesAccept", EMFILE);
         continue;
      }
      if (!fd) {
         if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR && errno != ECONNABORTED) {
            LogEvent event(log_);
            Warning("%s: accept errno %d.\n", "ServicesAccept", errno);
         }
         return;
      }
      AcceptOne(std::move(fd));
   }
}

void ServicesDaemon::AcceptOne(UniqueFd fd)
{
   struct ucred peer = {};
   socklen_t length = sizeof peer;
   if (getsockopt(fd.get(), SOL_SOCKET, SO_PEERCRED, &peer, &length) == -1) {
      peer.pid = 0;
      peer.uid = (uid_t)-1;
   }
   size_t pending =
       (size_t)std::count_if(connections_.begin(), connections_.end(),
                             [&](const Connection &c) { return c.peerUid == peer.uid; });
   if (pending >= kPendingPerUser) {
      LogEvent event(log_);
      Warning("%s: User %u has too many pending connections; dropped one.\n", "ServicesAccept",
              (unsigned)peer.uid);
      return;
   }
   LogEvent event(log_);
   if (ServiceImplWriteOne(fd.get(), kGreeting)) {
      connections_.push_back({std::move(fd), peer.pid, peer.uid, NowMs() + kConnectionTimeoutMs});
   }
}

/*
 * Writes the daemon's line into a received descriptor, only where that cannot block: plain
 * files outside user-run (FUSE) file systems, the null device, sockets (without waiting) and
 * pipes, through a non-blocking open of their own (the sender's description stays as it is,
 * and a sender that fills the pipe meanwhile cannot make the write wait).
 */
bool ServicesDaemon::WriteGreetingLine(int fd, const struct stat &st, pid_t peerPid)
{
   static const char kFn[] = "ServicesWriteLine";
   const char *kind = FileKind(st.st_mode);
   struct statfs fs;
   bool plain = S_ISREG(st.st_mode) && fstatfs(fd, &fs) == 0 && fs.f_type != kFuseMagic;
   bool null = S_ISCHR(st.st_mode) && st.st_rdev == makedev(1, 3);
   if (!plain && !null && !S_ISFIFO(st.st_mode) && !S_ISSOCK(st.st_mode)) {
      Log("%s: Did not write into the %s from opener PID %d.\n", kFn, kind, (int)peerPid);
      return false;
   }
   char *line =
       Str_Asprintf(nullptr, "BRIX Services (PID %u) received this %s from opener PID %d.\n",
                    (unsigned)getpid(), kind, (int)peerPid);
   if (line == nullptr) {
      return false;
   }
   size_t length = strlen(line);
   ssize_t written = -1;
   if (S_ISSOCK(st.st_mode)) {
      written = send(fd, line, length, MSG_NOSIGNAL | MSG_DONTWAIT);
   } else if (S_ISFIFO(st.st_mode)) {
      char path[32];
      Str_Snprintf(path, sizeof path, "/proc/self/fd/%d", fd);
      UniqueFd own(open(path, O_WRONLY | O_NONBLOCK | O_CLOEXEC));  // ENXIO: nobody reads
      written = own ? write(own.get(), line, length) : -1;
   } else {
      written = write(fd, line, length);
   }
   int err = written == -1 ? errno : EIO;
   free(line);
   if (written == (ssize_t)length) {
      return true;
   }
   if (err == EAGAIN || err == ENXIO) {
      Warning("%s: The %s from opener PID %d is not ready for writing.\n", kFn, kind, (int)peerPid);
   } else {
      Warning("%s: write errno %d.\n", kFn, err);
   }
   return false;
}

/*
 * Acts on a received descriptor: a writable one gets a line, the read end of an anonymous pipe
 * is watched for its writer's departure (within its user's quota), anything else is noted and
 * closed. False refuses the hand-over.
 */
bool ServicesDaemon::TakeDescriptor(UniqueFd fd, const Connection &conn)
{
   static const char kFn[] = "ServicesTakeDescriptor";
   int peerPid = (int)conn.peerPid;
   struct stat st;
   int flags = fcntl(fd.get(), F_GETFL);
   if (fstat(fd.get(), &st) == -1 || flags == -1) {
      Warning("%s: fstat errno %d.\n", kFn, errno);
      return false;
   }
   const char *kind = FileKind(st.st_mode);
   int accessMode = flags & O_ACCMODE;

   if (accessMode == O_RDONLY && S_ISFIFO(st.st_mode) && st.st_dev == pipeDev_) {
      size_t mine =
          (size_t)std::count_if(watched_.begin(), watched_.end(),
                                [&](const WatchedPipe &w) { return w.peerUid == conn.peerUid; });
      if (mine >= kWatchedPerUser || watched_.size() >= maxWatched_) {
         Warning("%s: Too many keep-alive pipes of user %u; refused the one of opener PID %d.\n",
                 kFn, (unsigned)conn.peerUid, peerPid);
         return false;
      }
      watched_.push_back({std::move(fd), conn.peerPid, conn.peerUid});
      Log("%s: Watching the keep-alive pipe of opener PID %d.\n", kFn, peerPid);
      return true;
   }
   if ((accessMode == O_WRONLY || accessMode == O_RDWR) && !S_ISDIR(st.st_mode)) {
      if (WriteGreetingLine(fd.get(), st, conn.peerPid)) {
         Log("%s: Wrote a line into the %s from opener PID %d.\n", kFn, kind, peerPid);
      }
   } else {
      Log("%s: Received a read-only %s from opener PID %d; closed it.\n", kFn, kind, peerPid);
   }
   return true;
}

void ServicesDaemon::Serve(Connection &conn)
{
   LogEvent event(log_);
   int fd = -1;
   bool accepted = ServiceImplRecvFd(conn.fd.get(), &fd) && TakeDescriptor(UniqueFd(fd), conn);
   ServiceImplWriteOne(conn.fd.get(), accepted ? '1' : '0');
   conn.fd.reset();
}

void ServicesDaemon::DrainWatched(WatchedPipe &watched)
{
   char buffer[512];
   ssize_t n = read(watched.fd.get(), buffer, sizeof buffer);
   if (n > 0 || (n == -1 && (errno == EAGAIN || errno == EINTR))) {
      return;  // data on a keep-alive pipe is discarded
   }
   LogEvent event(log_);
   Log("%s: Opener PID %d has gone; its keep-alive pipe is closed.\n", "ServicesWatch",
       (int)watched.peerPid);
   watched.fd.reset();
}

void ServicesDaemon::ExpireConnections()
{
   long long now = NowMs();
   for (Connection &conn : connections_) {
      if (conn.fd && now >= conn.deadlineMs) {
         LogEvent event(log_);
         Warning("%s: Opener PID %d sent nothing in time; dropped.\n", "ServicesExpire",
                 (int)conn.peerPid);
         conn.fd.reset();
      }
   }
}

int ServicesDaemon::PollTimeout() const
{
   if (connections_.empty()) {
      return -1;
   }
   long long earliest = connections_.front().deadlineMs;
   for (const Connection &conn : connections_) {
      earliest = std::min(earliest, conn.deadlineMs);
   }
   return (int)std::max(0LL, earliest - NowMs());
}

// Acts on one poll round; fds is ordered: signals, listener, keep-alive, connections, pipes.
void ServicesDaemon::ServeReady(const std::vector<struct pollfd> &fds)
{
   if (fds[2].revents != 0) {
      char byte;
      if (ServiceImplReadOne(keepAliveFd_.get(), &byte) != SERVICE_READ_BYTE) {
         LogEvent event(log_);
         Log("%s: The starting opener has finished.\n", "ServicesDaemon");
         keepAliveFd_.reset();
      }
   }
   // Serving a connection may add a watched pipe: walk only the entries that were polled.
   size_t index = 3;
   size_t polledConnections = connections_.size();
   for (size_t i = 0; i < polledConnections && index < fds.size(); i++) {
      if (fds[index++].revents != 0) {
         Serve(connections_[i]);
      }
   }
   for (size_t i = 0; i < watched_.size() && index < fds.size(); i++) {
      if (fds[index++].revents != 0) {
         DrainWatched(watched_[i]);
      }
   }
   ExpireConnections();
   std::erase_if(connections_, [](const Connection &c) { return !c.fd; });
   std::erase_if(watched_, [](const WatchedPipe &w) { return !w.fd; });
   if (fds[1].revents != 0) {
      AcceptAll();
   }
}

int ServicesDaemon::Run()
{
   if (!SetUp()) {
      return 1;
   }
   Log("%s: PID %u, listening on descriptor %d.\n", "ServicesDaemon", (unsigned)getpid(),
       listenFd_.get());

   std::vector<struct pollfd> fds;
   for (;;) {
      fds.clear();
      bool room = connections_.size() < kMaxPendingConnections;
      fds.push_back({signalFd_.get(), POLLIN, 0});
      fds.push_back({room ? listenFd_.get() : -1, POLLIN, 0});
      fds.push_back({keepAliveFd_.get(), POLLIN, 0});
      for (const Connection &conn : connections_) {
         fds.push_back({conn.fd.get(), POLLIN, 0});
      }
      for (const WatchedPipe &watched : watched_) {
         fds.push_back({watched.fd.get(), POLLIN, 0});
      }
      if (poll(fds.data(), fds.size(), PollTimeout()) == -1) {
         if (errno == EINTR) {
            continue;
         }
         Warning("%s: poll errno %d.\n", "ServicesDaemon", errno);
         return 1;
      }
      if (fds[0].revents != 0) {
         struct signalfd_siginfo info;
         if (read(signalFd_.get(), &info, sizeof info) == (ssize_t)sizeof info) {
            Log("%s: Stopping on signal %u.\n", "ServicesDaemon", info.ssi_signo);
            return 0;
         }
      }
      ServeReady(fds);
   }
}

}  // namespace

int ServicesDaemon_Run(int listenFd, int keepAliveFd, const char *logPath)
{
   ServicesDaemon daemon(listenFd, keepAliveFd, logPath);
   return daemon.Run();
}
