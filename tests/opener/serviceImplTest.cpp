#include <fcntl.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>

#include "serviceImplIO.h"
#include "testSupport.h"

// Sends one byte with one SCM_RIGHTS control header per entry of headers.
static void SendRaw(int sock, const std::vector<std::vector<int>> &headers)
{
   alignas(struct cmsghdr) char control[256] = {};
   char byte = 'x';
   struct iovec iov = {&byte, 1};
   struct msghdr msg = {nullptr, 0, &iov, 1, nullptr, 0, 0};
   for (const std::vector<int> &fds : headers) {
      auto *header = (struct cmsghdr *)(control + msg.msg_controllen);
      *header = {CMSG_LEN(sizeof(int) * fds.size()), SOL_SOCKET, SCM_RIGHTS};
      memcpy(CMSG_DATA(header), fds.data(), sizeof(int) * fds.size());
      msg.msg_controllen += CMSG_SPACE(sizeof(int) * fds.size());
   }
   msg.msg_control = msg.msg_controllen > 0 ? control : nullptr;
   ASSERT_EQ(sendmsg(sock, &msg, MSG_NOSIGNAL), 1);
}

TEST(ServiceImpl, DescriptorCrossesWithTheMessageByteAndNothingElseDoes)
{
   int pair[2], pipeFds[2], other[2];
   ASSERT_TRUE(socketpair(AF_UNIX, SOCK_STREAM, 0, pair) == 0 && pipe(pipeFds) == 0 &&
               socketpair(AF_UNIX, SOCK_STREAM, 0, other) == 0);
   gServiceImplMessageByte = 'G';
   ASSERT_TRUE(ServiceImplSendFd(pair[0], pipeFds[1]));
   gServiceImplMessageByte = 0;
   int received = -1;
   ASSERT_TRUE(ServiceImplRecvFd(pair[1], &received));
   EXPECT_TRUE(gServiceImplMessageByte == 'G' && (fcntl(received, F_GETFD) & FD_CLOEXEC));
   ASSERT_EQ(write(received, "z", 1), 1);  // the same pipe, through the received descriptor
   char byte = 0;
   EXPECT_TRUE(ServiceImplReadOne(pipeFds[0], &byte) == SERVICE_READ_BYTE && byte == 'z');
   EXPECT_TRUE(ServiceImplWriteOne(pair[1], '1'));
   EXPECT_TRUE(ServiceImplReadOne(pair[0], &byte) == SERVICE_READ_BYTE && byte == '1');

   // Two descriptors in one header, two headers (the second truncated away), none at all.
   testsupport::LogCapture log;
   auto openFds = [] {
      return std::ranges::distance(std::filesystem::directory_iterator("/proc/self/fd"));
   };
   auto before = openFds();
   int a = pipeFds[0], b = pipeFds[1], refused = -1;
   for (const auto &headers : {std::vector<std::vector<int>>{{a, b}}, {{a}, {b}}, {}}) {
      SendRaw(other[0], headers);
      EXPECT_FALSE(ServiceImplRecvFd(other[1], &refused));
   }
   EXPECT_TRUE(refused == -1 && openFds() == before);
   close(other[0]);
   EXPECT_FALSE(ServiceImplRecvFd(other[1], &refused));  // end of file: no message
   EXPECT_EQ(log.Text(),
             "Warning: ServiceImplRecvFd: Unexpected message.\n"
             "Warning: ServiceImplRecvFd: Unexpected message.\n"
             "Warning: ServiceImplRecvFd: Unexpected message.\n");

   // A vanished peer is a silent failure, not a signal.
   close(pair[1]);
   log.Clear();
   EXPECT_EQ(ServiceImplReadOne(pair[0], &byte), SERVICE_READ_EOF);
   EXPECT_FALSE(ServiceImplWriteOne(pair[0], '1') || ServiceImplSendFd(pair[0], pipeFds[0]));
   EXPECT_EQ(log.Text(), "");
   EXPECT_EQ(ServiceImplReadOne(-1, &byte), SERVICE_READ_ERROR);
   EXPECT_FALSE(ServiceImplSendFd(pair[0], -1));
   EXPECT_EQ(log.Text(),
             "Warning: ServiceImplReadOne: read errno 9.\n"
             "Warning: ServiceImplSendFd: sendmsg errno 9.\n");
   for (int fd : {pair[0], received, pipeFds[0], pipeFds[1], other[1]}) {
      close(fd);
   }
}
