/*
 * The client side of a privileged helper connection.
 */
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <new>
#include <vector>

#include "internal/retry.h"
#include "internal/uniqueFd.h"
#include "privilegedHelperInt.h"
#include "str.h"

struct PrivilegedHelperClient {
   tesmar::UniqueFd sock;
   std::vector<uint8_t> buffer;
};

#ifndef BRIX_ROOT_PREFIX
#define BRIX_ROOT_PREFIX ""
#endif

namespace {

const char kRunDir[] = BRIX_ROOT_PREFIX "/var/run";

// A reply never waits for room longer than this; the helper reads as fast as it handles.
constexpr int kSendTimeoutMs = 10000;

bool WaitReadable(int sock, int timeoutMs)
{
   struct pollfd pfd = {sock, POLLIN, 0};
   int rc = tesmar::RetryEintr([&] { return poll(&pfd, 1, timeoutMs); });
   if (rc == 0) {
      errno = ETIMEDOUT;
      return false;
   }
   return rc > 0;
}

void CloseAll(const int *fds, size_t count)
{
   for (size_t i = 0; i < count; i++) {
      close(fds[i]);
   }
}

}  // namespace

// Kept apart from the listener so that clients link none of it.
char *PrivilegedHelper_SocketPath(const char *runDirectory, const char *serviceName)
{
   if (serviceName == nullptr || serviceName[0] == '\0' || serviceName[0] == '.' ||
       strchr(serviceName, '/') != nullptr) {
      errno = EINVAL;
      return nullptr;
   }
   return Str_Asprintf(nullptr, "%s/%s", runDirectory != nullptr ? runDirectory : kRunDir,
                       serviceName);
}

PrivilegedHelperClient *PrivilegedHelperClient_ConnectPath(const char *socketPath)
{
   struct sockaddr_un addr = {};
   addr.sun_family = AF_UNIX;
   if (socketPath == nullptr || strlen(socketPath) >= sizeof addr.sun_path) {
      errno = ENAMETOOLONG;
      return nullptr;
   }
   strcpy(addr.sun_path, socketPath);
   tesmar::UniqueFd sock(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
   if (!sock || tesmar::RetryEintr([&] {
                   return connect(sock.get(), (const struct sockaddr *)&addr, sizeof addr);
                }) == -1) {
      return nullptr;
   }
   auto *client = new (std::nothrow) PrivilegedHelperClient;
   if (client == nullptr) {
      errno = ENOMEM;
      return nullptr;
   }
   client->sock = std::move(sock);
   return client;
}

PrivilegedHelperClient *PrivilegedHelperClient_FromFd(int sock)
{
   auto *client = new (std::nothrow) PrivilegedHelperClient;
   if (client == nullptr) {
      errno = ENOMEM;
      return nullptr;
   }
   client->sock.reset(sock);
   return client;
}

PrivilegedHelperClient *PrivilegedHelperClient_Connect(const char *serviceName)
{
   char *path = PrivilegedHelper_SocketPath(nullptr, serviceName);
   if (path == nullptr) {
      return nullptr;
   }
   PrivilegedHelperClient *client = PrivilegedHelperClient_ConnectPath(path);
   int savedErrno = errno;
   free(path);
   errno = savedErrno;
   return client;
}

void PrivilegedHelperClient_Close(PrivilegedHelperClient *client)
{
   delete client;
}

bool PrivilegedHelperClient_Send(PrivilegedHelperClient *client, plist_t message, const int *fds,
                                 size_t fdCount)
{
   return PrivilegedHelperSendMessage(client->sock.get(), message, fds, fdCount, kSendTimeoutMs);
}

plist_t PrivilegedHelperClient_Receive(PrivilegedHelperClient *client, int timeoutMs, int *fds,
                                       size_t *fdCount)
{
   size_t room = fds != nullptr && fdCount != nullptr ? *fdCount : 0;
   if (fdCount != nullptr) {
      *fdCount = 0;
   }
   if (client->buffer.empty()) {
      client->buffer.resize(PRIVILEGED_HELPER_MAX_MESSAGE + 1);
   }
   alignas(struct cmsghdr) char control[CMSG_SPACE(sizeof(int) * PRIVILEGED_HELPER_MAX_FDS)];
   struct iovec iov = {client->buffer.data(), client->buffer.size()};
   struct msghdr msg = {};
   ssize_t got;
   for (;;) {
      // With a bound, wait first: a reply is rarely there already, and this saves a call.
      if (timeoutMs >= 0 && !WaitReadable(client->sock.get(), timeoutMs)) {
         return nullptr;
      }
      msg = {};
      msg.msg_iov = &iov;
      msg.msg_iovlen = 1;
      msg.msg_control = control;
      msg.msg_controllen = sizeof control;
      got = recvmsg(client->sock.get(), &msg,
                    MSG_CMSG_CLOEXEC | (timeoutMs >= 0 ? MSG_DONTWAIT : 0));
      if (got >= 0 || (errno != EAGAIN && errno != EINTR)) {
         break;
      }
   }
   if (got < 0) {
      return nullptr;
   }
   for (struct cmsghdr *cmsg = CMSG_FIRSTHDR(&msg); cmsg != nullptr;
        cmsg = CMSG_NXTHDR(&msg, cmsg)) {
      if (cmsg->cmsg_level != SOL_SOCKET || cmsg->cmsg_type != SCM_RIGHTS) {
         continue;
      }
      size_t count = (cmsg->cmsg_len - CMSG_LEN(0)) / sizeof(int);
      int received[PRIVILEGED_HELPER_MAX_FDS];
      memcpy(received, CMSG_DATA(cmsg), count * sizeof(int));
      size_t kept = count < room ? count : room;
      memcpy(fds, received, kept * sizeof(int));
      CloseAll(received + kept, count - kept);
      room -= kept;
      fds += kept;
      *fdCount += kept;
   }
   if (got == 0) {
      errno = ECONNRESET;
      return nullptr;
   }
   plist_t dict = nullptr;
   PrivilegedHelperDecodeStatus status =
       (msg.msg_flags & MSG_TRUNC) != 0
           ? PRIVILEGED_HELPER_TOO_LARGE
           : PrivilegedHelperDecode(client->buffer.data(), (size_t)got, &dict);
   if (status != PRIVILEGED_HELPER_DECODED) {
      errno = status == PRIVILEGED_HELPER_TOO_LARGE ? EMSGSIZE : EBADMSG;
      return nullptr;
   }
   return dict;
}

plist_t PrivilegedHelperClient_SendWithReply(PrivilegedHelperClient *client, plist_t message,
                                             int timeoutMs)
{
   if (!PrivilegedHelperClient_Send(client, message, nullptr, 0)) {
      return nullptr;
   }
   return PrivilegedHelperClient_Receive(client, timeoutMs, nullptr, nullptr);
}
