/*
 * brix-services: the services daemon, started by the opener as
 *
 *    brix-services LISTEN-FD KEEPALIVE-FD
 *
 * with the listening socket and the read end of the starting opener's keep-alive pipe
 * inherited. It runs as root with every identity set to root, logs to its log file and stops
 * on SIGTERM.
 */
#include <errno.h>
#include <fcntl.h>
#include <grp.h>
#include <limits.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include "log.h"
#include "servicesDaemon.h"

#ifndef BRIX_ROOT_PREFIX
#define BRIX_ROOT_PREFIX ""
#endif

namespace {

const char kLogPath[] = BRIX_ROOT_PREFIX "/var/log/BRIX Services.log";

bool ParseDescriptor(const char *text, int *fd)
{
   char *end;
   errno = 0;
   long value = strtol(text, &end, 10);
   if (errno != 0 || end == text || *end != '\0' || value < 0 || value > INT_MAX ||
       fcntl((int)value, F_GETFD) == -1) {
      return false;
   }
   *fd = (int)value;
   return true;
}

/*
 * Started from a set-user-ID opener, the daemon has a root effective id but the caller's real
 * ids; make every id root so that the caller can neither signal nor trace it.
 */
bool BecomeFullyRoot(void)
{
   if (geteuid() != 0) {
      return true;  // an unprivileged run (tests of the protocol) keeps its identity
   }
   return setgroups(0, nullptr) == 0 && setresgid(0, 0, 0) == 0 && setresuid(0, 0, 0) == 0;
}

}  // namespace

int main(int argc, char **argv)
{
   int listenFd;
   int keepAliveFd;
   if (argc != 3 || !ParseDescriptor(argv[1], &listenFd) ||
       !ParseDescriptor(argv[2], &keepAliveFd)) {
      Warning("%s: usage: %s LISTEN-FD KEEPALIVE-FD (both open descriptors)\n", "main",
              argc > 0 ? argv[0] : "brix-services");
      return 1;
   }
   if (!BecomeFullyRoot()) {
      Warning("%s: Cannot set root identity, errno %d.\n", "main", errno);
      return 1;
   }

   int accepting = 0;
   socklen_t length = sizeof accepting;
   if (getsockopt(listenFd, SOL_SOCKET, SO_ACCEPTCONN, &accepting, &length) == -1 || !accepting) {
      Warning("%s: Descriptor %d is not a listening socket.\n", "main", listenFd);
      return 1;
   }
   // Neither inherited descriptor may reach anything this daemon might start.
   fcntl(listenFd, F_SETFD, FD_CLOEXEC);
   fcntl(keepAliveFd, F_SETFD, FD_CLOEXEC);

   return ServicesDaemon_Run(listenFd, keepAliveFd, kLogPath);
}
