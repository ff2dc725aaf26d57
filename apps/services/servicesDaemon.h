/*
 * The services daemon's event loop: the receiving side of the hand-over.
 */
#ifndef BRIX_SERVICES_DAEMON_H
#define BRIX_SERVICES_DAEMON_H

/*
 * Serves the listening socket until SIGTERM, SIGINT or SIGHUP: greets each connection, receives
 * its descriptor, answers "1" (or "0" when the message was refused) and acts on the descriptor.
 * keepAliveFd is the starting opener's pipe (-1 for none). Logs to logPath, rate-limited and
 * rotated. Returns the exit status.
 */
int ServicesDaemon_Run(int listenFd, int keepAliveFd, const char *logPath);

#endif
