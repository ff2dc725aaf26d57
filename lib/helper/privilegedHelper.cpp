/*
 * The privileged-helper listener: a SOCK_SEQPACKET service socket served by one event loop in
 * the main thread, which accepts and checks clients, and one worker thread per accepted
 * connection, which reads that connection's datagrams and hands them to the handler in order.
 * A worker reads only as fast as its handler takes messages, so a client that sends faster
 * fills its own socket buffer and waits: memory per connection is one datagram buffer.
 *
 * A client is identified by its peer credentials, held as a pidfd from the moment of accept:
 * its executable is opened through /proc/<pid>/exe and checked through that descriptor, and the
 * pidfd must still name the same live process afterwards, so a client that exits and whose pid
 * is reused is never mistaken for the one checked. Every datagram carries its sender's
 * credentials; a message from another process, or from a client that has since executed
 * another program, ends the connection.
 */
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "internal/retry.h"
#include "internal/uniqueFd.h"
#include "log.h"
#include "privilegedHelperInt.h"
#include "propertyList.h"
#include "str.h"

#ifndef BRIX_ROOT_PREFIX
#define BRIX_ROOT_PREFIX ""
#endif
#ifndef SO_PEERPIDFD
#define SO_PEERPIDFD 77
#endif

namespace {

const char kRunDir[] = BRIX_ROOT_PREFIX "/var/run";  // also in the client side
const char kFn[] = "PrivilegedHelper_Start";

// A handler's reply waits this long for room before the client counts as not reading.
constexpr int kReplyTimeoutMs = 5000;
constexpr size_t kInfoPlistMax = 1 << 20;

enum class BundleState { kNoBundle, kNoXPCService, kNoAllowedClients, kNotArray, kReady };

struct Settings {
   BundleState bundle = BundleState::kNoBundle;
   std::vector<std::string> requirements;  // empty strings stand for non-string elements
   PrivilegedHelperMessageHandler handler = nullptr;
   void *context = nullptr;
   int replyTimeoutMs = kReplyTimeoutMs;
   int epollFd = -1;
};

Settings gSettings;                       // written before the loop starts, then read-only
std::atomic<int> gLiveConnections{0};

void CloseFds(std::vector<int> &fds)
{
   for (int fd : fds) {
      if (fd >= 0) {
         close(fd);
      }
   }
   fds.clear();
}

}  // namespace

struct PrivilegedHelperConnection {
   tesmar::UniqueFd sock;
   tesmar::UniqueFd pidfd;
   tesmar::UniqueFd procDir;  // /proc/<pid> of the validated client
   pid_t pid = 0;
   dev_t exeDev = 0;
   ino_t exeIno = 0;

   std::atomic<bool> cancelled{false};

   std::vector<int> currentFds;  // the descriptors of the message being handled

   PrivilegedHelperConnection() { gLiveConnections.fetch_add(1); }
   ~PrivilegedHelperConnection() { gLiveConnections.fetch_sub(1); }
};

namespace {

using ConnectionPtr = std::unique_ptr<PrivilegedHelperConnection>;

bool ReadWholeFile(const char *path, std::string *out)
{
   tesmar::UniqueFd fd(open(path, O_RDONLY | O_CLOEXEC));
   struct stat st;
   if (!fd || fstat(fd.get(), &st) == -1 || !S_ISREG(st.st_mode) ||
       (size_t)st.st_size > kInfoPlistMax) {
      return false;
   }
   out->resize((size_t)st.st_size);
   size_t done = 0;
   while (done < out->size()) {
      ssize_t got = tesmar::RetryEintr(
          [&] { return read(fd.get(), out->data() + done, out->size() - done); });
      if (got <= 0) {
         return false;
      }
      done += (size_t)got;
   }
   return true;
}

/*
 * The Info.plist of the program's own bundle: Contents/Info.plist when the program lies in a
 * bundle's Contents/MacOS folder, otherwise Info.plist beside the program. Empty when the
 * program's own path cannot be read.
 */
std::string MainBundleInfoPlist(void)
{
   char exe[PATH_MAX];
   ssize_t length = readlink("/proc/self/exe", exe, sizeof exe - 1);
   if (length <= 0) {
      return {};
   }
   exe[length] = '\0';
   std::string dir(exe, (size_t)(strrchr(exe, '/') - exe));
   static const char kMacOS[] = "/Contents/MacOS";
   if (dir.size() >= sizeof kMacOS - 1 &&
       dir.compare(dir.size() - (sizeof kMacOS - 1), std::string::npos, kMacOS) == 0) {
      return dir.substr(0, dir.size() - (sizeof "/MacOS" - 1)) + "/Info.plist";
   }
   return dir + "/Info.plist";
}

// Reads the allowed clients from the Info.plist; an unreadable file is a bundle without them.
void LoadRequirements(const char *infoPlistPath)
{
   std::string path = infoPlistPath != nullptr ? infoPlistPath : MainBundleInfoPlist();
   if (path.empty()) {
      gSettings.bundle = BundleState::kNoBundle;
      return;
   }
   gSettings.bundle = BundleState::kNoXPCService;
   using Kind = codesign::PlistValue::Kind;
   std::string text;
   codesign::PlistValue root;
   if (!ReadWholeFile(path.c_str(), &text) ||
       !codesign::PlistParse((const uint8_t *)text.data(), text.size(), root)) {
      return;
   }
   const codesign::PlistValue *service = root.Get("XPCService");
   const codesign::PlistValue *clients = nullptr;
   if (service != nullptr && service->kind == Kind::kDict) {
      gSettings.bundle = BundleState::kNoAllowedClients;
      clients = service->Get("_AllowedClients");
   }
   if (clients != nullptr) {
      gSettings.bundle = BundleState::kNotArray;
      if (clients->kind == Kind::kArray) {
         gSettings.bundle = BundleState::kReady;
         for (const codesign::PlistValue &item : clients->items) {
            gSettings.requirements.push_back(item.kind == Kind::kString ? item.bytes : "");
         }
      }
   }
}

[[noreturn]] void StartFailed(const char *step)
{
   Warning("%s: %s errno %d.\n", kFn, step, errno);
   exit(1);
}

/*
 * Root serves only from a directory that nobody else can write: a link or socket planted there
 * would redirect the service.
 */
void CheckRunDirectory(const char *dir)
{
   struct stat st;
   if (stat(dir, &st) == -1) {
      StartFailed("stat");
   }
   if (!S_ISDIR(st.st_mode) || (st.st_uid != 0 && st.st_uid != geteuid()) ||
       (st.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
      Warning("%s: The run directory %s is writable by others; refusing to use it.\n", kFn, dir);
      exit(1);
   }
}

/*
 * Takes the service's lock file for the life of the process: one helper serves a name, and a
 * socket file found at the path while the lock is held is stale.
 */
void LockService(const std::string &lockPath)
{
   int fd = open(lockPath.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
   struct stat st;
   if (fd == -1 || fstat(fd, &st) == -1) {
      StartFailed("open");
   }
   if (!S_ISREG(st.st_mode) || st.st_uid != geteuid()) {
      errno = EINVAL;
      StartFailed("open");
   }
   if (tesmar::RetryEintr([&] { return flock(fd, LOCK_EX | LOCK_NB); }) == -1) {
      if (errno == EWOULDBLOCK) {
         Warning("%s: Another helper already serves %s.\n", kFn, lockPath.c_str());
         exit(1);
      }
      StartFailed("flock");
   }
   // Deliberately kept open (and locked) until the process ends.
}

bool FillAddress(struct sockaddr_un *addr, const std::string &path)
{
   *addr = {};
   addr->sun_family = AF_UNIX;
   if (path.size() >= sizeof addr->sun_path) {
      errno = ENAMETOOLONG;
      return false;
   }
   memcpy(addr->sun_path, path.c_str(), path.size() + 1);
   return true;
}

/*
 * The service socket: bound under a temporary name, given its mode and made to listen before a
 * rename puts it in place, so that the path always names either the old file or a ready socket
 * with the right mode.
 */
int Listen(const std::string &dir, const char *serviceName, mode_t mode)
{
   std::string path = dir + "/" + serviceName;
   std::string temporary = dir + "/." + serviceName + "." + std::to_string(getpid());
   struct sockaddr_un addr;
   struct sockaddr_un finalAddr;
   if (!FillAddress(&addr, temporary) || !FillAddress(&finalAddr, path)) {
      StartFailed("socket path");
   }
   int sock = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
   if (sock == -1) {
      StartFailed("socket");
   }
   int on = 1;
   if (setsockopt(sock, SOL_SOCKET, SO_PASSCRED, &on, sizeof on) == -1) {
      StartFailed("setsockopt");
   }
   struct stat st;
   if (lstat(path.c_str(), &st) == 0 && !S_ISSOCK(st.st_mode)) {
      Warning("%s: %s is not a socket; refusing to replace it.\n", kFn, path.c_str());
      exit(1);
   }
   unlink(temporary.c_str());
   if (bind(sock, (const struct sockaddr *)&addr, sizeof addr) == -1) {
      StartFailed("bind");
   }
   if (chmod(temporary.c_str(), mode) == -1 || listen(sock, SOMAXCONN) == -1 ||
       rename(temporary.c_str(), path.c_str()) == -1) {
      int savedErrno = errno;
      unlink(temporary.c_str());
      errno = savedErrno;
      StartFailed("listen");
   }
   return sock;
}

// The executable path for the log; "unknown process" if it cannot be read.
std::string ProcessPath(pid_t pid)
{
   char link[64];
   char path[4096];
   snprintf(link, sizeof link, "/proc/%d/exe", (int)pid);
   ssize_t length = readlink(link, path, sizeof path - 1);
   if (length <= 0) {
      return "unknown process";
   }
   return std::string(path, (size_t)length);
}

int PeerPidfd(int sock, pid_t pid)
{
   int pidfd = -1;
   socklen_t length = sizeof pidfd;
   if (getsockopt(sock, SOL_SOCKET, SO_PEERPIDFD, &pidfd, &length) == 0 && pidfd >= 0) {
      fcntl(pidfd, F_SETFD, FD_CLOEXEC);
      return pidfd;
   }
   // Kernels before 6.5: the pidfd of the pid, opened as soon as the connection is seen.
   return (int)syscall(SYS_pidfd_open, pid, 0);
}

void RefuseClient(void)
{
   Warning("Validation failed. Canceling connection.\n");
}

/*
 * Checks the client's executable against each allowed requirement in order; true when one is
 * satisfied and the process checked is still the one that connected.
 */
bool ValidateClient(PrivilegedHelperConnection &conn)
{
   pid_t pid = conn.pid;
   switch (gSettings.bundle) {
   case BundleState::kNoBundle:
      Warning("%5d: Unable to find main bundle.\n", pid);
      return false;
   case BundleState::kNoXPCService:
      Warning("%5d: Unable to find XPCService dictionary.\n", pid);
      return false;
   case BundleState::kNoAllowedClients:
      Warning("%5d: Unable to find _AllowedClients array.\n", pid);
      return false;
   case BundleState::kNotArray:
      Warning("%5d: Unexpected _AllowedClients type.\n", pid);
      return false;
   case BundleState::kReady:
      break;
   }
   tesmar::UniqueFd exe(PrivilegedHelperOpenClientExe(conn.pidfd.get(), pid));
   struct stat st;
   if (!exe || fstat(exe.get(), &st) == -1) {
      return false;
   }
   for (const std::string &requirement : gSettings.requirements) {
      int status = -1;
      if (PrivilegedHelperClientSatisfies(exe.get(), requirement.c_str(), &status)) {
         conn.exeDev = st.st_dev;
         conn.exeIno = st.st_ino;
         char dir[64];
         snprintf(dir, sizeof dir, "/proc/%d", (int)pid);
         conn.procDir.reset(open(dir, O_PATH | O_DIRECTORY | O_CLOEXEC));
         return conn.procDir && PrivilegedHelperPidfdNames(conn.pidfd.get(), pid);
      }
      Log("%5d: Failed validation. (%d)\n", pid, status);
   }
   return false;
}

// The sender is the client that was checked, still running the program that was checked.
bool SenderIsClient(const PrivilegedHelperConnection &conn, pid_t sender)
{
   // The pidfd was bound to this pid at validation; while it has not ended, the pid is its.
   struct pollfd pfd = {conn.pidfd.get(), POLLIN, 0};
   if (sender != conn.pid || poll(&pfd, 1, 0) != 0) {
      return false;
   }
   struct stat st;
   return fstatat(conn.procDir.get(), "exe", &st, 0) == 0 && st.st_dev == conn.exeDev &&
          st.st_ino == conn.exeIno;
}

void ConnectionError(PrivilegedHelperConnection *conn, const char *what)
{
   Warning("%5d: Connection received unexpected XPC Error: %s\n", conn->pid, what);
   PrivilegedHelperConnection_Cancel(conn);
}

void Deliver(PrivilegedHelperConnection *conn, const uint8_t *bytes, size_t size, pid_t sender,
             std::vector<int> &fds)
{
   if (!SenderIsClient(*conn, sender)) {
      ConnectionError(conn, "Message from a process other than the validated client");
      return;
   }
   plist_t dict = nullptr;
   switch (PrivilegedHelperDecode(bytes, size, &dict)) {
   case PRIVILEGED_HELPER_DECODED:
      conn->currentFds = std::move(fds);
      gSettings.handler(conn, dict, gSettings.context);
      plist_free(dict);
      CloseFds(conn->currentFds);
      return;
   case PRIVILEGED_HELPER_NOT_DICTIONARY:
      Warning("%5d: Connection received unexpected event type.\n", conn->pid);
      return;
   case PRIVILEGED_HELPER_MALFORMED:
      ConnectionError(conn, "Malformed message");
      return;
   case PRIVILEGED_HELPER_TOO_LARGE:
      ConnectionError(conn, "Message too large");
      return;
   }
}

// The connection's worker: its datagrams, in order, until the connection ends.
void Work(ConnectionPtr conn)
{
   // Not zero-filled: pages of the buffer become resident only as large datagrams arrive.
   std::unique_ptr<uint8_t[]> buffer(new uint8_t[PRIVILEGED_HELPER_MAX_MESSAGE + 1]);
   alignas(struct cmsghdr) char control[CMSG_SPACE(sizeof(struct ucred)) +
                                        CMSG_SPACE(sizeof(int) * PRIVILEGED_HELPER_MAX_FDS)];
   std::vector<int> fds;
   for (;;) {
      struct iovec iov = {buffer.get(), PRIVILEGED_HELPER_MAX_MESSAGE + 1};
      struct msghdr msg = {};
      msg.msg_iov = &iov;
      msg.msg_iovlen = 1;
      msg.msg_control = control;
      msg.msg_controllen = sizeof control;
      ssize_t got = recvmsg(conn->sock.get(), &msg, MSG_CMSG_CLOEXEC);
      if (got == -1 && errno == EINTR) {
         continue;
      }
      pid_t sender = 0;  // no credentials: not the client
      for (struct cmsghdr *cmsg = CMSG_FIRSTHDR(&msg); got >= 0 && cmsg != nullptr;
           cmsg = CMSG_NXTHDR(&msg, cmsg)) {
         if (cmsg->cmsg_level != SOL_SOCKET) {
            continue;
         }
         if (cmsg->cmsg_type == SCM_RIGHTS) {
            size_t count = (cmsg->cmsg_len - CMSG_LEN(0)) / sizeof(int);
            const uint8_t *data = CMSG_DATA(cmsg);
            for (size_t i = 0; i < count; i++) {
               int fd;
               memcpy(&fd, data + i * sizeof(int), sizeof fd);
               fds.push_back(fd);
            }
         } else if (cmsg->cmsg_type == SCM_CREDENTIALS) {
            struct ucred cred;
            memcpy(&cred, CMSG_DATA(cmsg), sizeof cred);
            sender = cred.pid;
         }
      }
      if (got <= 0) {
         CloseFds(fds);
         Log("%5d: Connection closed by client.\n", conn->pid);
         return;
      }
      if (conn->cancelled.load()) {
         CloseFds(fds);
      } else if ((msg.msg_flags & (MSG_TRUNC | MSG_CTRUNC)) != 0 ||
                 (size_t)got > PRIVILEGED_HELPER_MAX_MESSAGE) {
         CloseFds(fds);
         ConnectionError(conn.get(), "Message too large");
      } else {
         Deliver(conn.get(), buffer.get(), (size_t)got, sender, fds);
      }
      CloseFds(fds);
   }
}

void AcceptOne(int listener)
{
   int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);  // the worker blocks on it
   if (fd == -1) {
      if (errno != EAGAIN && errno != EINTR && errno != ECONNABORTED) {
         Warning("Listener received unexpected XPC Error: %s\n", strerror(errno));
         if (errno == EMFILE || errno == ENFILE) {
            usleep(10000);  // out of descriptors: let connections end before trying again
         }
      }
      return;
   }
   auto conn = std::make_unique<PrivilegedHelperConnection>();
   conn->sock.reset(fd);
   struct ucred cred = {};
   socklen_t length = sizeof cred;
   if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &length) == -1) {
      Warning("Listener received unexpected XPC Error: %s\n", strerror(errno));
      return;
   }
   conn->pid = cred.pid;
   conn->pidfd.reset(PeerPidfd(fd, cred.pid));
   Log("%5d: Received connection from %s\n", conn->pid, ProcessPath(conn->pid).c_str());

   if (gLiveConnections.load() > PRIVILEGED_HELPER_MAX_CONNECTIONS) {
      Warning("%5d: Too many connections.\n", conn->pid);
      RefuseClient();
      return;
   }
   if (!conn->pidfd || !ValidateClient(*conn)) {
      RefuseClient();
      return;
   }
   pid_t pid = conn->pid;
   try {
      std::thread(Work, std::move(conn)).detach();
   } catch (...) {
      Warning("%5d: No worker for the connection.\n", pid);
      RefuseClient();
   }
}

}  // namespace

void PrivilegedHelper_Start(const char *serviceName, PrivilegedHelperMessageHandler handler,
                            void *context)
{
   PrivilegedHelper_StartWithOptions(serviceName, nullptr, handler, context);
}

void PrivilegedHelper_StartWithOptions(const char *serviceName,
                                       const PrivilegedHelperOptions *options,
                                       PrivilegedHelperMessageHandler handler, void *context)
{
   Log("Starting service: %s\n", serviceName != nullptr ? serviceName : "(null)");
   PrivilegedHelperOptions defaults = {};
   if (options == nullptr) {
      options = &defaults;
   }
   const char *dir = options->runDirectory != nullptr ? options->runDirectory : kRunDir;
   char *socketPath = PrivilegedHelper_SocketPath(dir, serviceName);
   if (socketPath == nullptr || handler == nullptr) {
      errno = EINVAL;
      StartFailed("service name");
   }
   free(socketPath);
   signal(SIGPIPE, SIG_IGN);
   gSettings.handler = handler;
   gSettings.context = context;
   if (options->replyTimeoutMs > 0) {
      gSettings.replyTimeoutMs = options->replyTimeoutMs;
   }
   LoadRequirements(options->infoPlistPath);

   CheckRunDirectory(dir);
   LockService(std::string(dir) + "/" + serviceName + ".lock");
   int listener = Listen(dir, serviceName, options->socketMode != 0 ? options->socketMode : 0600);

   gSettings.epollFd = epoll_create1(EPOLL_CLOEXEC);
   struct epoll_event event = {};
   event.events = EPOLLIN;
   event.data.ptr = nullptr;
   if (gSettings.epollFd == -1 ||
       epoll_ctl(gSettings.epollFd, EPOLL_CTL_ADD, listener, &event) == -1) {
      StartFailed("epoll");
   }
   struct epoll_event events[8];
   for (;;) {
      int count = epoll_wait(gSettings.epollFd, events, 8, -1);
      for (int i = 0; i < count; i++) {
         for (int n = 0; n < 64; n++) {  // a burst of clients at a time
            AcceptOne(listener);
         }
      }
   }
}

pid_t PrivilegedHelperConnection_Pid(const PrivilegedHelperConnection *connection)
{
   return connection->pid;
}

size_t PrivilegedHelperConnection_FdCount(const PrivilegedHelperConnection *connection)
{
   return connection->currentFds.size();
}

int PrivilegedHelperConnection_TakeFd(PrivilegedHelperConnection *connection, size_t index)
{
   if (index >= connection->currentFds.size()) {
      return -1;
   }
   int fd = connection->currentFds[index];
   connection->currentFds[index] = -1;
   return fd;
}

bool PrivilegedHelperConnection_Reply(PrivilegedHelperConnection *connection, plist_t message,
                                      const int *fds, size_t fdCount)
{
   if (connection->cancelled.load()) {
      errno = ECONNRESET;
      return false;
   }
   if (PrivilegedHelperSendMessage(connection->sock.get(), message, fds, fdCount,
                                   gSettings.replyTimeoutMs)) {
      return true;
   }
   int savedErrno = errno;
   if (savedErrno == ETIMEDOUT) {
      ConnectionError(connection, "Client does not read replies");
   }
   errno = savedErrno;
   return false;
}

void PrivilegedHelperConnection_Cancel(PrivilegedHelperConnection *connection)
{
   if (!connection->cancelled.exchange(true)) {
      // The event loop sees the end of the connection and reports it to the worker.
      shutdown(connection->sock.get(), SHUT_RDWR);
   }
}

int PrivilegedHelperOpenClientExe(int pidfd, pid_t pid)
{
   char link[64];
   snprintf(link, sizeof link, "/proc/%d/exe", (int)pid);
   tesmar::UniqueFd exe(open(link, O_RDONLY | O_CLOEXEC));
   if (!exe) {
      return -1;
   }
   if (!PrivilegedHelperPidfdNames(pidfd, pid)) {
      errno = ESRCH;
      return -1;
   }
   return exe.release();
}

bool PrivilegedHelperPidfdNames(int pidfd, pid_t pid)
{
   struct pollfd pfd = {pidfd, POLLIN, 0};
   if (poll(&pfd, 1, 0) != 0) {
      return false;  // the process has ended (or the descriptor is not a pidfd)
   }
   char path[64];
   snprintf(path, sizeof path, "/proc/self/fdinfo/%d", pidfd);
   tesmar::UniqueFd fd(open(path, O_RDONLY | O_CLOEXEC));
   char text[512];
   ssize_t length = fd ? read(fd.get(), text, sizeof text - 1) : -1;
   if (length <= 0) {
      return false;
   }
   text[length] = '\0';
   const char *line = strstr(text, "\nPid:\t");
   return line != nullptr && atoi(line + 6) == (int)pid;
}
