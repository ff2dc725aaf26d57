#include <fcntl.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>

#include "serviceImplIO.h"
#include "testSupport.h"

using testsupport::LogCapture;

// Sends one byte with one SCM_RIGHTS control header per entry of headers.
static void SendRaw(int sock, const std::vector<std::vector<int>> &headers)
{
   alignas(struct cmsghdr) char control[256] = {};
   char byte = 'x';
   struct iovec iov = {&byte, 1};
   struct msghdr msg = {};
   msg.msg_iov = &iov;
   msg.msg_iovlen = 1;
   for (const std::vector<int> &fds : headers) {
      auto *header = (struct cmsghdr *)(control + msg.msg_controllen);
      header->cmsg_len = CMSG_LEN(sizeof(int) * fds.size());
      header->cmsg_level = SOL_SOCKET;
      header->cmsg_type = SCM_RIGHTS;
      memcpy(CMSG_DATA(header), fds.data(), sizeof(int) * fds.size());
      msg.msg_controllen += CMSG_SPACE(sizeof(int) * fds.size());
   }
   msg.msg_control = msg.msg_controllen > 0 ? control : nullptr;
   ASSERT_EQ(sendmsg(sock, &msg, MSG_NOSIGNAL), 1);
}

static size_t OpenDescriptorCount()
{
   auto entries = std::filesystem::directory_iterator("/proc/self/fd");
   return (size_t)std::distance(begin(entries), end(entries));
}

TEST(ServiceImpl, DescriptorCrossesWithTheMessageByte)
{
   int pair[2], pipeFds[2];
   ASSERT_TRUE(socketpair(AF_UNIX, SOCK_STREAM, 0, pair) == 0 && pipe(pipeFds) == 0);

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
   for (int fd : {pair[0], received, pipeFds[0], pipeFds[1]}) {
      close(fd);
   }
}

TEST(ServiceImpl, UnexpectedMessagesAreRefusedWithoutLeaks)
{
   int pair[2];
   ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
   int a = open("/dev/null", O_RDONLY);
   int b = open("/dev/null", O_RDONLY);
   LogCapture log;
   size_t before = OpenDescriptorCount();
   int received = -1;

   SendRaw(pair[0], {{a, b}});  // two descriptors in one header
   EXPECT_FALSE(ServiceImplRecvFd(pair[1], &received));
   SendRaw(pair[0], {{a}, {b}});  // two headers: the second is truncated away
   EXPECT_FALSE(ServiceImplRecvFd(pair[1], &received));
   SendRaw(pair[0], {});  // no descriptor at all
   EXPECT_FALSE(ServiceImplRecvFd(pair[1], &received));
   EXPECT_EQ(received, -1);
   EXPECT_EQ(OpenDescriptorCount(), before);

   close(pair[0]);
   EXPECT_FALSE(ServiceImplRecvFd(pair[1], &received));  // end of file: no message
   EXPECT_EQ(log.Text(),
             "Warning: ServiceImplRecvFd: Unexpected message.\n"
             "Warning: ServiceImplRecvFd: Unexpected message.\n"
             "Warning: ServiceImplRecvFd: Unexpected message.\n");
   for (int fd : {pair[1], a, b}) {
      close(fd);
   }
}
