/*
 * The one-byte protocol helpers of the service hand-over, shared by the opener and the daemon.
 * Every send passes MSG_NOSIGNAL, so a vanished peer gives EPIPE instead of a signal.
 */
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "internal/retry.h"
#include "log.h"
#include "serviceImplIO.h"

char gServiceImplMessageByte;

namespace {

union ControlBuffer {
   char bytes[CMSG_SPACE(sizeof(int))];
   struct cmsghdr align;
};

// A message of the message byte and room for one descriptor's control header.
struct FdMessage {
   struct iovec iov = {&gServiceImplMessageByte, 1};
   struct msghdr msg = {};
   ControlBuffer control = {};  // last: its header ends in a flexible array

   FdMessage()
   {
      msg.msg_iov = &iov;
      msg.msg_iovlen = 1;
      msg.msg_control = control.bytes;
      msg.msg_controllen = sizeof control.bytes;
   }
   FdMessage(const FdMessage &) = delete;
   FdMessage &operator=(const FdMessage &) = delete;
};

// Closes every descriptor a refused message brought in, so that none leaks.
void ServiceImplCloseReceived(struct msghdr *msg)
{
   for (struct cmsghdr *c = CMSG_FIRSTHDR(msg); c != nullptr; c = CMSG_NXTHDR(msg, c)) {
      if (c->cmsg_level != SOL_SOCKET || c->cmsg_type != SCM_RIGHTS) {
         continue;
      }
      size_t count = (c->cmsg_len - CMSG_LEN(0)) / sizeof(int);
      for (size_t i = 0; i < count; i++) {
         int fd;
         memcpy(&fd, CMSG_DATA(c) + i * sizeof(int), sizeof fd);
         close(fd);
      }
   }
}

}  // namespace

bool ServiceImplWriteOne(int fd, char byte)
{
   ssize_t n = tesmar::RetryEintr([&] {
      ssize_t sent = send(fd, &byte, 1, MSG_NOSIGNAL);
      return sent == -1 && errno == ENOTSOCK ? write(fd, &byte, 1) : sent;
   });
   if (n == 1) {
      return true;
   }
   if (n == -1 && errno != EPIPE) {
      Warning("%s: write errno %d.\n", "ServiceImplWriteOne", errno);
   }
   return false;
}

int ServiceImplReadOne(int fd, char *buffer)
{
   ssize_t n = tesmar::RetryEintr([&] { return read(fd, buffer, 1); });
   if (n == 0) {
      return SERVICE_READ_EOF;
   }
   if (n == -1) {
      int savedErrno = errno;  // the caller tells a timeout from other failures
      Warning("%s: read errno %d.\n", "ServiceImplReadOne", savedErrno);
      errno = savedErrno;
      return SERVICE_READ_ERROR;
   }
   return SERVICE_READ_BYTE;
}

bool ServiceImplSendFd(int sock, int fd)
{
   FdMessage message;
   struct cmsghdr *header = CMSG_FIRSTHDR(&message.msg);
   header->cmsg_len = CMSG_LEN(sizeof(int));
   header->cmsg_level = SOL_SOCKET;
   header->cmsg_type = SCM_RIGHTS;
   memcpy(CMSG_DATA(header), &fd, sizeof fd);

   const struct msghdr *msg = &message.msg;
   ssize_t n = tesmar::RetryEintr([&] { return sendmsg(sock, msg, MSG_NOSIGNAL); });
   if (n == 1) {
      return true;
   }
   if (n == -1 && errno != EPIPE) {
      Warning("%s: sendmsg errno %d.\n", "ServiceImplSendFd", errno);
   }
   return false;
}

bool ServiceImplRecvFd(int sock, int *fdOut)
{
   FdMessage message;
   struct msghdr &msg = message.msg;
   ssize_t n = tesmar::RetryEintr([&] { return recvmsg(sock, &msg, MSG_CMSG_CLOEXEC); });
   if (n == 0) {
      return false;
   }
   if (n == -1) {
      Warning("%s: recvmsg errno %d.\n", "ServiceImplRecvFd", errno);
      return false;
   }

   // Linux reports the MSG_CMSG_CLOEXEC request back in the flags; anything else is suspect.
   struct cmsghdr *header = CMSG_FIRSTHDR(&msg);
   if ((msg.msg_flags & ~MSG_CMSG_CLOEXEC) == 0 && header != nullptr &&
       header->cmsg_len == CMSG_LEN(sizeof(int)) && header->cmsg_level == SOL_SOCKET &&
       header->cmsg_type == SCM_RIGHTS && CMSG_NXTHDR(&msg, header) == nullptr) {
      memcpy(fdOut, CMSG_DATA(header), sizeof *fdOut);
      return true;
   }
   ServiceImplCloseReceived(&msg);
   Warning("%s: Unexpected message.\n", "ServiceImplRecvFd");
   return false;
}

bool ServiceImplSetBlockingState(int fd, bool blocking)
{
   int flags = fcntl(fd, F_GETFL);
   if (flags == -1) {
      Warning("%s: fcntl get errno %d.\n", "ServiceImplSetBlockingState", errno);
      return false;
   }
   flags = blocking ? (flags & ~O_NONBLOCK) : (flags | O_NONBLOCK);
   if (fcntl(fd, F_SETFL, flags) == -1) {
      Warning("%s: fcntl set errno %d.\n", "ServiceImplSetBlockingState", errno);
      return false;
   }
   return true;
}

bool ServiceImplClose(int *fdSlot, bool *okFlag)
{
   if (*fdSlot == -1) {
      return true;
   }
   bool closed = close(*fdSlot) == 0;
   if (!closed) {
      Warning("%s: close %d errno %d.\n", "ServiceImplClose", *fdSlot, errno);
      if (okFlag != nullptr) {
         *okFlag = false;
      }
   }
   *fdSlot = -1;
   return closed;
}
