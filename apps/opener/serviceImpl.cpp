/*
 * The opener side of the service hand-over: find the running services daemon, or become the
 * listener under the lock file and start it, then hand it one descriptor.
 *
 * The opener runs set-user-ID root on behalf of an unprivileged caller, so every step must
 * survive a hostile caller: it cannot be stopped while it holds the machine-wide lock, every
 * wait is bounded, nothing in the run directory is followed, and the daemon it starts inherits
 * neither the caller's identity nor its limits.
 */
#include "serviceImpl.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <sched.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/fsuid.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>

#include "hostinfo.h"
#include "internal/retry.h"
#include "internal/uniqueFd.h"
#include "location.h"
#include "log.h"
#include "str.h"

#ifndef BRIX_HANDOVER_TIMEOUT_MS
#define BRIX_HANDOVER_TIMEOUT_MS 10000
#endif

namespace {

/*
 * Every wait of a hand-over (lock, connect, greeting, verdict) ends after this long: a peer that
 * is stopped or silent must not hold other users' openers for ever.
 */
constexpr int kTimeoutMs = BRIX_HANDOVER_TIMEOUT_MS;

uid_t gSavedEuid;  // the privileged (root) id remembered by the last lowering
uid_t gCallerUid;  // the real id of the user who started the opener

struct OpenerPaths {
   const char *lockPath;
   const char *socketPath;
   const char *daemonPath;
};

long long ServiceImplNowMs(void)
{
   struct timespec now;
   clock_gettime(CLOCK_MONOTONIC, &now);
   return (long long)now.tv_sec * 1000 + now.tv_nsec / 1000000;
}

void ServiceImplTimedOut(const char *fn, const char *what)
{
   Warning("%s: Timed out after %d ms waiting for the %s.\n", fn, kTimeoutMs, what);
}

bool ServiceImplSetUids(uid_t real, uid_t effective, uid_t saved)
{
   if (setresuid(real, effective, saved) == -1) {
      Warning("%s: setresuid errno %d.\n", "ServiceImplSetUids", errno);
      return false;
   }
   return true;
}

/*
 * The identity for the steps under the lock. Real and saved uid are root, so the caller cannot
 * stop the opener while it holds the lock (a stopped holder would freeze every other opener);
 * the effective uid stays the caller's so that the daemon learns from the connection who asks
 * (SO_PEERCRED), and the file-system uid is root, which opens, binds and connects the files.
 */
bool ServiceImplEnterLockIdentity(void)
{
   if (!ServiceImplSetUids(gSavedEuid, gCallerUid, gSavedEuid)) {
      return false;
   }
   setfsuid(gSavedEuid);
   return true;
}

// Back to the caller's identity, with root kept as the saved uid for the daemon start.
bool ServiceImplLeaveRootIdentity(void)
{
   return ServiceImplSetUids(gCallerUid, gCallerUid, gSavedEuid);
}

/*
 * Root is refused in a run directory that anybody else may write: links or FIFOs planted at the
 * lock or socket path would lead it astray.
 */
bool ServiceImplRunDirIsSafe(const char *path)
{
   static const char kFn[] = "ServiceImplPickSockSide";
   char dir[PATH_MAX];
   Str_Strcpy(dir, path, sizeof dir);
   char *slash = strrchr(dir, '/');
   if (slash != nullptr) {
      *slash = '\0';
   }
   struct stat st;
   if (stat(slash == dir ? "/" : dir, &st) == -1) {
      Warning("%s: stat errno %d.\n", kFn, errno);
      return false;
   }
   if (st.st_uid != gSavedEuid || (st.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
      Warning(
          "%s: The run directory %s is not owned by root or is writable by others; "
          "refusing to use it.\n",
          kFn, dir);
      return false;
   }
   return true;
}

/*
 * Opens the lock file and takes its exclusive lock (released when the descriptor closes). The
 * open follows no link and cannot block, the file must be root's plain file, and the lock is
 * awaited for kTimeoutMs at most; *timedOut tells that the wait was given up.
 */
int ServiceImplOpenLocked(const char *lockPath, bool *timedOut)
{
   tesmar::UniqueFd fd(
       open(lockPath, O_RDONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600));
   struct stat st;
   if (!fd || fstat(fd.get(), &st) == -1) {
      return -1;
   }
   if (!S_ISREG(st.st_mode) || st.st_uid != gSavedEuid) {
      errno = EINVAL;
      return -1;
   }
   long long deadline = ServiceImplNowMs() + kTimeoutMs;
   for (int pauseMs = 1; flock(fd.get(), LOCK_EX | LOCK_NB) == -1;
        pauseMs = std::min(pauseMs * 2, 16)) {
      if (errno != EWOULDBLOCK && errno != EINTR) {
         return -1;
      }
      if (ServiceImplNowMs() >= deadline) {
         *timedOut = true;
         errno = EWOULDBLOCK;
         return -1;
      }
      usleep((useconds_t)pauseMs * 1000);
   }
   return fd.release();
}

// Binds with the socket file created at mode 0600 at once: a chmod by name after the bind could
// be redirected to another file by a link swapped in meanwhile.
int ServiceImplBindPrivate(int sock, const struct sockaddr_un &addr)
{
   mode_t mask = umask(0177);
   int rc = bind(sock, (const struct sockaddr *)&addr, sizeof addr);
   umask(mask);
   return rc;
}

// Bounds the connect (a send wait on Unix sockets) and every read of the hand-over.
bool ServiceImplBoundWaits(int sock)
{
   struct timeval bound = {kTimeoutMs / 1000, (kTimeoutMs % 1000) * 1000};
   if (setsockopt(sock, SOL_SOCKET, SO_SNDTIMEO, &bound, sizeof bound) == -1 ||
       setsockopt(sock, SOL_SOCKET, SO_RCVTIMEO, &bound, sizeof bound) == -1) {
      Warning("%s: setsockopt errno %d.\n", "ServiceImplOpener", errno);
      return false;
   }
   return true;
}

/*
 * Connects to the daemon's socket, or, when nobody listens there, becomes the listener. Runs
 * under the lock file so that exactly one opener becomes the listener. Returns the socket, or
 * -1 when no side could be picked; *isServer tells which side it is.
 */
int ServiceImplPickSockSide(const OpenerPaths &paths, bool *isServer)
{
   static const char kFn[] = "ServiceImplPickSockSide";
   if (!ServiceImplRunDirIsSafe(paths.lockPath) || !ServiceImplRunDirIsSafe(paths.socketPath)) {
      return -1;
   }
   tesmar::UniqueFd sock(socket(AF_UNIX, SOCK_STREAM, 0));  // inherited by a daemon it starts
   if (!sock) {
      Warning("%s: socket errno %d.\n", kFn, errno);
      return -1;
   }
   if (!ServiceImplBoundWaits(sock.get())) {
      return -1;
   }
   struct sockaddr_un addr = {};
   addr.sun_family = AF_UNIX;
   Str_Strcpy(addr.sun_path, paths.socketPath, sizeof addr.sun_path);

   bool picked = false;
   bool timedOut = false;
   int lockFd = ServiceImplOpenLocked(paths.lockPath, &timedOut);
   if (lockFd == -1) {
      Warning("%s: open errno %d.\n", kFn, errno);
      if (timedOut) {
         ServiceImplTimedOut(kFn, "lock");
      }
   } else if (tesmar::RetryEintr([&] {
                 return connect(sock.get(), (struct sockaddr *)&addr, sizeof addr);
              }) == 0) {
      *isServer = false;
      picked = true;
   } else if (errno != ENOENT && errno != ECONNREFUSED) {
      bool waitedTooLong = errno == EAGAIN;
      Warning("%s: connect errno %d.\n", kFn, errno);
      if (waitedTooLong) {
         ServiceImplTimedOut(kFn, "daemon to accept");
      }
   } else if (unlink(paths.socketPath) == -1 && errno != ENOENT) {
      // No socket file, or a stale one whose listener is gone: take its place.
      Warning("%s: unlink errno %d.\n", kFn, errno);
   } else if (ServiceImplBindPrivate(sock.get(), addr) == -1) {
      Warning("%s: bind errno %d.\n", kFn, errno);
   } else if (listen(sock.get(), 0) == -1) {
      Warning("%s: listen errno %d.\n", kFn, errno);
   } else {
      *isServer = true;
      picked = true;
   }

   if (!ServiceImplClose(&lockFd, &picked) || !picked) {
      return -1;
   }
   return sock.release();
}

struct FixedLimit {
   int resource;
   rlim_t soft;
   rlim_t hard;
};

/*
 * The daemon serves every user, so it must not start with the limits, niceness or OOM weight
 * of the user whose opener happened to start it. A hard limit that cannot be raised again
 * (without CAP_SYS_RESOURCE) bounds the soft one.
 */
void ServiceImplResetDaemonState(void)
{
   constexpr rlim_t kNone = RLIM_INFINITY;
   static const FixedLimit kLimits[] = {
       {RLIMIT_CPU, kNone, kNone},     {RLIMIT_FSIZE, kNone, kNone},  {RLIMIT_DATA, kNone, kNone},
       {RLIMIT_STACK, 8 << 20, kNone}, {RLIMIT_CORE, 0, kNone},       {RLIMIT_RSS, kNone, kNone},
       {RLIMIT_NPROC, kNone, kNone},   {RLIMIT_NOFILE, 1024, 4096},   {RLIMIT_AS, kNone, kNone},
       {RLIMIT_LOCKS, kNone, kNone},   {RLIMIT_RTTIME, kNone, kNone},
   };
   for (const FixedLimit &fixed : kLimits) {
      struct rlimit limit = {fixed.soft, fixed.hard};
      if (setrlimit(fixed.resource, &limit) == -1 && getrlimit(fixed.resource, &limit) == 0) {
         limit.rlim_cur = std::min(fixed.soft, limit.rlim_max);
         setrlimit(fixed.resource, &limit);
      }
   }
   setpriority(PRIO_PROCESS, 0, 0);
   struct sched_param param = {};
   sched_setscheduler(0, SCHED_OTHER, &param);
   int fd = open("/proc/self/oom_score_adj", O_WRONLY | O_CLOEXEC);
   if (fd != -1) {
      (void)!write(fd, "0", 1);
      close(fd);
   }
}

/*
 * Starts the daemon with the listening socket and the read end of a keep-alive pipe inherited;
 * the write end stays in *keepAlive until this opener's hand-over is over.
 */
bool ServiceImplDaemonStart(int listenSock, int *keepAlive, const char *daemonPath)
{
   static const char kFn[] = "ServiceImplDaemonStart";
   if (!ServiceImplClose(keepAlive, nullptr)) {
      return false;
   }
   LocationInstallHook install = Location_GetInstallHook();
   if (install != nullptr && !install()) {
      return false;
   }

   char sockText[11];
   char pipeText[11];
   Str_Snprintf(sockText, sizeof sockText, "%d", listenSock);
   int pipeFds[2];
   if (pipe(pipeFds) == -1) {
      Warning("%s: pipe errno %d.\n", kFn, errno);
      return false;
   }
   Str_Snprintf(pipeText, sizeof pipeText, "%d", pipeFds[0]);

   char *argv[] = {(char *)daemonPath, sockText, pipeText, nullptr};
   int keep[] = {listenSock, pipeFds[0]};
   /*
    * Every id is root from before the fork on, so that the caller can signal neither the
    * daemon nor the children that become it.
    */
   bool started = ServiceImplSetUids(gSavedEuid, gSavedEuid, gSavedEuid);
   if (started) {
      ServiceImplResetDaemonState();
      started = Hostinfo_Daemonize(daemonPath, argv, HOSTINFO_DAEMONIZE_DEFAULT, nullptr, keep, 2);
   }
   if (!ServiceImplLeaveRootIdentity()) {
      started = false;
   }

   ServiceImplClose(&pipeFds[0], &started);
   if (!started) {
      ServiceImplClose(&pipeFds[1], nullptr);
      return false;
   }
   *keepAlive = pipeFds[1];
   return true;
}

// Closes a held descriptor through ServiceImplClose, so that a failed close is reported.
bool ServiceImplCloseHeld(tesmar::UniqueFd &held, bool *okFlag)
{
   int fd = held.release();
   return ServiceImplClose(&fd, okFlag);
}

// Reads one byte of the hand-over, naming what timed out when the bound ended the wait.
int ServiceImplAwait(int sock, char *byte, const char *what)
{
   int got = ServiceImplReadOne(sock, byte);
   if (got == SERVICE_READ_ERROR && (errno == EAGAIN || errno == EWOULDBLOCK)) {
      ServiceImplTimedOut("ServiceImplOpener", what);
   }
   return got;
}

// Hands descriptor to the daemon, starting one when none listens; true when it said "1".
bool ServiceImplHandOver(const OpenerPaths &paths, int descriptor)
{
   tesmar::UniqueFd sock;
   int keepAlive = -1;
   bool ok = false;
   long long restartDeadline = -1;

   for (;;) {
      if (!ServiceImplCloseHeld(sock, nullptr)) {
         break;
      }
      bool isServer = false;
      if (ServiceImplEnterLockIdentity()) {
         sock.reset(ServiceImplPickSockSide(paths, &isServer));
      }
      if (!ServiceImplLeaveRootIdentity() || !sock) {
         break;
      }
      // A vanished peer must give EPIPE, not a signal: every send passes MSG_NOSIGNAL.

      if (isServer) {
         if (!ServiceImplDaemonStart(sock.get(), &keepAlive, paths.daemonPath)) {
            break;
         }
         continue;  // the daemon owns the listener now; connect to it as a client
      }

      int greeting = ServiceImplAwait(sock.get(), &gServiceImplMessageByte, "greeting");
      if (greeting == SERVICE_READ_EOF) {
         // Accepted and dropped: start over, though not for longer than one bound in all.
         long long now = ServiceImplNowMs();
         restartDeadline = restartDeadline == -1 ? now + kTimeoutMs : restartDeadline;
         if (now < restartDeadline) {
            continue;
         }
         ServiceImplTimedOut("ServiceImplOpener", "daemon to keep a connection");
         break;
      }
      if (greeting == SERVICE_READ_ERROR || !ServiceImplSendFd(sock.get(), descriptor)) {
         break;
      }
      char verdict;
      ok = ServiceImplAwait(sock.get(), &verdict, "verdict") == SERVICE_READ_BYTE && verdict == '1';
      break;
   }

   ServiceImplClose(&keepAlive, &ok);
   ServiceImplCloseHeld(sock, &ok);
   return ok;
}

/*
 * Shell mode: hands over the read end of a fresh pipe and keeps the write end open for ever,
 * so the daemon sees end of file when this process dies.
 */
int ServiceImplShell(const OpenerPaths &paths)
{
   int pipeFds[2];
   if (pipe(pipeFds) == -1) {
      Warning("%s: pipe errno %d.\n", "ServiceImplShell", errno);
      return 1;
   }
   bool ok = ServiceImplHandOver(paths, pipeFds[0]);
   ServiceImplClose(&pipeFds[0], &ok);
   // The keep-alive sleeps for ever: it must not keep root in reserve while it does.
   if (!ok || !ServiceImplSetUids(gCallerUid, gCallerUid, gCallerUid)) {
      ServiceImplClose(&pipeFds[1], nullptr);
      return 1;
   }
   for (;;) {
      sleep(60);
   }
}

}  // namespace

void ServiceImpl_PrivLower(void)
{
   gSavedEuid = geteuid();
   if (seteuid(getuid()) == -1) {
      Warning("%s: seteuid errno %d.\n", "ServiceImpl_PrivLower", errno);
   }
}

void ServiceImpl_PrivRaise(void)
{
   if (seteuid(gSavedEuid) == -1) {
      Warning("%s: seteuid errno %d.\n", "ServiceImpl_PrivRaise", errno);
   }
}

int ServiceImpl_Opener(int argc, char **argv, int verbosity, const char *lockPath,
                       const char *socketPath, const char *daemonPath)
{
   (void)verbosity;  // the log has no verbosity levels in this program
   OpenerPaths paths = {lockPath, socketPath, daemonPath};
   gCallerUid = getuid();
   // A caller that ignores SIGCHLD would make the daemon start's wait fail (ECHILD).
   signal(SIGCHLD, SIG_DFL);
   // The terminal's stop signals need no permission: they must not stop a lock holder.
   for (int stop : {SIGTSTP, SIGTTIN, SIGTTOU}) {
      signal(stop, SIG_IGN);
   }

   Log("%s: PID %u\n", "ServiceImpl_Opener", (unsigned)getpid());
   if (argc == 2) {
      return ServiceImplHandOver(paths, atoi(argv[1])) ? 0 : 1;
   }
   if (argc == 1) {
      return ServiceImplShell(paths);
   }
   Warning("Invalid number of arguments.\n");
   return 1;
}
