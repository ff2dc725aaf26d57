#include <dirent.h>
#include <fcntl.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

#include "serviceImpl.h"
#include "testSupport.h"

using testsupport::LogCapture;

namespace {

int OpenDescriptorCount()
{
   int count = 0;
   DIR *dir = opendir("/proc/self/fd");
   while (readdir(dir) != nullptr) {
      count++;
   }
   closedir(dir);
   return count;
}

// Sends one byte with the given descriptors, in one control message or one message each.
void SendRaw(int sock, const int *fds, int count, bool separateHeaders)
{
   char control[CMSG_SPACE(sizeof(int) * 4) * 4] = {};
   char byte = 'x';
   struct iovec iov = {&byte, 1};
   struct msghdr msg = {};
   msg.msg_iov = &iov;
   msg.msg_iovlen = 1;
   if (count > 0) {
      msg.msg_control = control;
      msg.msg_controllen =
          separateHeaders ? CMSG_SPACE(sizeof(int)) * count : CMSG_SPACE(sizeof(int) * count);
      struct cmsghdr *header = CMSG_FIRSTHDR(&msg);
      for (int i = 0; i < count; i++) {
         header->cmsg_level = SOL_SOCKET;
         header->cmsg_type = SCM_RIGHTS;
         if (separateHeaders) {
            header->cmsg_len = CMSG_LEN(sizeof(int));
            memcpy(CMSG_DATA(header), &fds[i], sizeof(int));
            header = CMSG_NXTHDR(&msg, header);
         } else {
            header->cmsg_len = CMSG_LEN(sizeof(int) * count);
            memcpy(CMSG_DATA(header), fds, sizeof(int) * count);
            break;
         }
      }
   }
   ASSERT_EQ(sendmsg(sock, &msg, MSG_NOSIGNAL), 1);
}

}  // namespace

TEST(ServiceImpl, DescriptorCrossesWithTheMessageByte)
{
   int pair[2];
   ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
   int pipeFds[2];
   ASSERT_EQ(pipe(pipeFds), 0);

   gServiceImplMessageByte = 'G';
   ASSERT_TRUE(ServiceImplSendFd(pair[0], pipeFds[1]));
   gServiceImplMessageByte = 0;
   int received = -1;
   ASSERT_TRUE(ServiceImplRecvFd(pair[1], &received));
   EXPECT_EQ(gServiceImplMessageByte, 'G');
   EXPECT_EQ(fcntl(received, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
   ASSERT_EQ(write(received, "z", 1), 1);  // the same pipe, through the received descriptor
   char byte = 0;
   EXPECT_EQ(ServiceImplReadOne(pipeFds[0], &byte), SERVICE_READ_BYTE);
   EXPECT_EQ(byte, 'z');

   EXPECT_TRUE(ServiceImplWriteOne(pair[1], '1'));
   EXPECT_EQ(ServiceImplReadOne(pair[0], &byte), SERVICE_READ_BYTE);
   EXPECT_EQ(byte, '1');

   // A vanished peer is a silent failure, not a signal.
   close(pair[1]);
   LogCapture log;
   EXPECT_EQ(ServiceImplReadOne(pair[0], &byte), SERVICE_READ_EOF);
   EXPECT_FALSE(ServiceImplWriteOne(pair[0], '1'));
   EXPECT_FALSE(ServiceImplSendFd(pair[0], pipeFds[0]));
   EXPECT_EQ(log.Text(), "");

   EXPECT_EQ(ServiceImplReadOne(-1, &byte), SERVICE_READ_ERROR);
   EXPECT_FALSE(ServiceImplSendFd(pair[0], -1));
   EXPECT_EQ(log.Text(),
             "Warning: ServiceImplReadOne: read errno 9.\n"
             "Warning: ServiceImplSendFd: sendmsg errno 9.\n");
   close(pair[0]);
   close(received);
   close(pipeFds[0]);
   close(pipeFds[1]);
}

TEST(ServiceImpl, UnexpectedMessagesAreRefusedWithoutLeaks)
{
   int pair[2];
   ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
   int a = open("/dev/null", O_RDONLY);
   int b = open("/dev/null", O_RDONLY);
   int fds[] = {a, b};
   LogCapture log;
   int before = OpenDescriptorCount();
   int received = -1;

   SendRaw(pair[0], fds, 2, false);  // two descriptors in one header
   EXPECT_FALSE(ServiceImplRecvFd(pair[1], &received));
   SendRaw(pair[0], fds, 2, true);  // two headers: the second is truncated away
   EXPECT_FALSE(ServiceImplRecvFd(pair[1], &received));
   SendRaw(pair[0], fds, 0, false);  // no descriptor at all
   EXPECT_FALSE(ServiceImplRecvFd(pair[1], &received));
   EXPECT_EQ(received, -1);
   EXPECT_EQ(OpenDescriptorCount(), before);

   close(pair[0]);
   EXPECT_FALSE(ServiceImplRecvFd(pair[1], &received));  // end of file: no message
   EXPECT_EQ(log.Text(),
             "Warning: ServiceImplRecvFd: Unexpected message.\n"
             "Warning: ServiceImplRecvFd: Unexpected message.\n"
             "Warning: ServiceImplRecvFd: Unexpected message.\n");
   close(pair[1]);
   close(a);
   close(b);
}
