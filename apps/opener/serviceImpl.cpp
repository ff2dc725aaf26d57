/*
 * The opener side of the service hand-over: find the running services daemon, or become the
 * listener under the lock file and start it, then hand it one descriptor.
 */
#include "serviceImpl.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "hostinfo.h"
#include "location.h"
#include "log.h"
#include "str.h"

namespace {

uid_t gSavedEuid;

struct OpenerPaths {
   const char *lockPath;
   const char *socketPath;
   const char *daemonPath;
};

// Opens the lock file and takes its exclusive lock (released when the descriptor closes).
int ServiceImplOpenLocked(const char *lockPath)
{
   int fd = open(lockPath, O_RDONLY | O_CREAT | O_CLOEXEC, 0600);
   if (fd == -1) {
      return -1;
   }
   int rc;
   do {
      rc = flock(fd, LOCK_EX);
   } while (rc == -1 && errno == EINTR);
   if (rc == -1) {
      int savedErrno = errno;
      close(fd);
      errno = savedErrno;
      return -1;
   }
   return fd;
}

/*
 * Connects to the daemon's socket, or, when nobody listens there, becomes the listener. Runs
 * under the lock file so that exactly one opener becomes the listener. Returns the socket, or
 * -1 when no side could be picked; *isServer tells which side it is.
 */
int ServiceImplPickSockSide(const OpenerPaths &paths, bool *isServer)
{
   static const char kFn[] = "ServiceImplPickSockSide";
   int sock = socket(AF_UNIX, SOCK_STREAM, 0);
   if (sock == -1) {
      Warning("%s: socket errno %d.\n", kFn, errno);
      return -1;
   }
   struct sockaddr_un addr = {};
   addr.sun_family = AF_UNIX;
   Str_Strcpy(addr.sun_path, paths.socketPath, sizeof addr.sun_path);

   bool picked = false;
   int lockFd = ServiceImplOpenLocked(paths.lockPath);
   if (lockFd == -1) {
      Warning("%s: open errno %d.\n", kFn, errno);
   } else if (connect(sock, (struct sockaddr *)&addr, sizeof addr) == 0) {
      *isServer = false;
      picked = true;
   } else if (errno != ENOENT && errno != ECONNREFUSED) {
      Warning("%s: connect errno %d.\n", kFn, errno);
   } else if (unlink(paths.socketPath) == -1 && errno != ENOENT) {
      // No socket file, or a stale one whose listener is gone: take its place.
      Warning("%s: unlink errno %d.\n", kFn, errno);
   } else if (bind(sock, (struct sockaddr *)&addr, sizeof addr) == -1) {
      Warning("%s: bind errno %d.\n", kFn, errno);
   } else if (chmod(paths.socketPath, 0600) == -1) {
      Warning("%s: chmod errno %d.\n", kFn, errno);
   } else if (listen(sock, 0) == -1) {
      Warning("%s: listen errno %d.\n", kFn, errno);
   } else {
      *isServer = true;
      picked = true;
   }

   if (!ServiceImplClose(&lockFd, &picked) || !picked) {
      close(sock);
      return -1;
   }
   return sock;
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
   ServiceImpl_PrivRaise();
   bool started =
       Hostinfo_Daemonize(daemonPath, argv, HOSTINFO_DAEMONIZE_DEFAULT, nullptr, keep, 2);
   ServiceImpl_PrivLower();

   ServiceImplClose(&pipeFds[0], &started);
   if (!started) {
      ServiceImplClose(&pipeFds[1], nullptr);
      return false;
   }
   *keepAlive = pipeFds[1];
   return true;
}

// Hands descriptor to the daemon, starting one when none listens; true when it said "1".
bool ServiceImplHandOver(const OpenerPaths &paths, int descriptor)
{
   int sock = -1;
   int keepAlive = -1;
   bool ok = false;

   for (;;) {
      if (!ServiceImplClose(&sock, nullptr)) {
         break;
      }
      bool isServer = false;
      ServiceImpl_PrivRaise();
      sock = ServiceImplPickSockSide(paths, &isServer);
      ServiceImpl_PrivLower();
      if (sock == -1) {
         break;
      }
      // A vanished peer must give EPIPE, not a signal: every send passes MSG_NOSIGNAL.

      if (isServer) {
         if (!ServiceImplDaemonStart(sock, &keepAlive, paths.daemonPath)) {
            break;
         }
         continue;  // the daemon owns the listener now; connect to it as a client
      }

      int greeting = ServiceImplReadOne(sock, &gServiceImplMessageByte);
      if (greeting == SERVICE_READ_EOF) {
         continue;  // accepted and dropped: start over
      }
      if (greeting == SERVICE_READ_ERROR || !ServiceImplSendFd(sock, descriptor)) {
         break;
      }
      char verdict;
      ok = ServiceImplReadOne(sock, &verdict) == SERVICE_READ_BYTE && verdict == '1';
      break;
   }

   ServiceImplClose(&keepAlive, &ok);
   ServiceImplClose(&sock, &ok);
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
   if (!ok) {
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
