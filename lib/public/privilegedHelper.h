/*
 * Privileged helper: a service that accepts connections only from clients whose executable
 * satisfies one of the code requirements listed in the helper's own Info.plist
 * ("XPCService" -> "_AllowedClients"), and passes every dictionary a client sends to a handler.
 *
 * A service is a SOCK_SEQPACKET Unix-domain socket named after the service in the run
 * directory. One datagram carries one message: a dictionary encoded as a binary property list
 * of at most PRIVILEGED_HELPER_MAX_MESSAGE bytes, with up to PRIVILEGED_HELPER_MAX_FDS
 * descriptors attached. A client that sends anything larger is disconnected.
 *
 * Messages of one connection reach the handler in the order they were sent, one at a time, on
 * that connection's own thread; different connections run in parallel.
 */
#ifndef TESMAR_PRIVILEGED_HELPER_H
#define TESMAR_PRIVILEGED_HELPER_H

#include <plist/plist.h>
#include <stdbool.h>
#include <stddef.h>
#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif

#define PRIVILEGED_HELPER_MAX_MESSAGE 65536
#define PRIVILEGED_HELPER_MAX_FDS 16
/* Accepted connections served at once; further clients are turned away until one ends. */
#define PRIVILEGED_HELPER_MAX_CONNECTIONS 256

typedef struct PrivilegedHelperConnection PrivilegedHelperConnection;

/*
 * Called for each dictionary of an accepted connection. message belongs to the listener and is
 * freed after the call; descriptors that came with it are reached through the connection and
 * closed after the call unless taken.
 */
typedef void (*PrivilegedHelperMessageHandler)(PrivilegedHelperConnection *connection,
                                               plist_t message, void *context);

typedef struct PrivilegedHelperOptions {
   unsigned socketMode;         /* permission bits of the socket file; 0 means 0600 */
   const char *runDirectory;    /* NULL: the machine's run directory */
   const char *infoPlistPath;   /* NULL: the Info.plist of the program's own bundle */
   int replyTimeoutMs;          /* how long a reply waits for room; 0 means 5000 */
} PrivilegedHelperOptions;

/* Serves serviceName with the default options. Never returns. */
void PrivilegedHelper_Start(const char *serviceName, PrivilegedHelperMessageHandler handler,
                            void *context) __attribute__((noreturn));

/* Serves serviceName as options say (NULL: defaults). Never returns; exits 1 if it cannot listen. */
void PrivilegedHelper_StartWithOptions(const char *serviceName,
                                       const PrivilegedHelperOptions *options,
                                       PrivilegedHelperMessageHandler handler, void *context)
    __attribute__((noreturn));

/* The socket path of serviceName in runDirectory (NULL: the machine's), newly allocated. */
char *PrivilegedHelper_SocketPath(const char *runDirectory, const char *serviceName);

/* The process id of the connection's client. */
pid_t PrivilegedHelperConnection_Pid(const PrivilegedHelperConnection *connection);

/* The descriptors of the message being handled: count, and taking one (-1 if none left). */
size_t PrivilegedHelperConnection_FdCount(const PrivilegedHelperConnection *connection);
int PrivilegedHelperConnection_TakeFd(PrivilegedHelperConnection *connection, size_t index);

/*
 * Sends a dictionary (and descriptors, which stay the caller's) to the client. Waits at most the
 * reply timeout for room; a client that reads nothing for that long is disconnected. false with
 * errno on failure.
 */
bool PrivilegedHelperConnection_Reply(PrivilegedHelperConnection *connection, plist_t message,
                                      const int *fds, size_t fdCount);

/* Ends the connection; the messages already queued are dropped. */
void PrivilegedHelperConnection_Cancel(PrivilegedHelperConnection *connection);

/* Client side. */
typedef struct PrivilegedHelperClient PrivilegedHelperClient;

/* Connects to serviceName in the machine's run directory. NULL with errno on failure. */
PrivilegedHelperClient *PrivilegedHelperClient_Connect(const char *serviceName);
/* Connects to a socket path. NULL with errno on failure. */
PrivilegedHelperClient *PrivilegedHelperClient_ConnectPath(const char *socketPath);
/* A client over a connected socket it takes over (for instance one inherited). */
PrivilegedHelperClient *PrivilegedHelperClient_FromFd(int sock);
void PrivilegedHelperClient_Close(PrivilegedHelperClient *client);

/* Sends one dictionary with descriptors (which stay the caller's). false with errno. */
bool PrivilegedHelperClient_Send(PrivilegedHelperClient *client, plist_t message, const int *fds,
                                 size_t fdCount);

/*
 * Receives one dictionary, waiting at most timeoutMs (-1: no limit). Received descriptors are
 * stored in fds (up to *fdCount, which is updated; extra ones are closed); fds may be NULL.
 * NULL with errno on failure: ETIMEDOUT, ECONNRESET when the helper closed the connection,
 * EBADMSG for a message that is not a dictionary.
 */
plist_t PrivilegedHelperClient_Receive(PrivilegedHelperClient *client, int timeoutMs, int *fds,
                                       size_t *fdCount);

/* Sends message and waits for one reply (see Receive); NULL with errno. */
plist_t PrivilegedHelperClient_SendWithReply(PrivilegedHelperClient *client, plist_t message,
                                             int timeoutMs);

#ifdef __cplusplus
}
#endif

#endif
