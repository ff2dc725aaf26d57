/*
 * The wire form of helper messages: one binary property list per SOCK_SEQPACKET datagram,
 * descriptors attached as SCM_RIGHTS.
 */
#include <errno.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>

#include <memory>

#include "internal/retry.h"
#include "privilegedHelperInt.h"

namespace {

constexpr char kBinaryMagic[] = "bplist00";
constexpr size_t kBinaryMagicLen = sizeof kBinaryMagic - 1;

struct PlistBinFree {
   void operator()(char *data) const { plist_to_bin_free(data); }
};

bool WaitWritable(int sock, int timeoutMs)
{
   struct pollfd pfd = {sock, POLLOUT, 0};
   int rc = tesmar::RetryEintr([&] { return poll(&pfd, 1, timeoutMs); });
   if (rc == 0) {
      errno = ETIMEDOUT;
      return false;
   }
   return rc > 0;
}

}  // namespace

PrivilegedHelperDecodeStatus PrivilegedHelperDecode(const uint8_t *data, size_t size,
                                                    plist_t *dict)
{
   *dict = nullptr;
   if (size > PRIVILEGED_HELPER_MAX_MESSAGE) {
      return PRIVILEGED_HELPER_TOO_LARGE;
   }
   // Only the binary form is taken: the text parsers are larger and slower and nothing sends XML.
   if (size < kBinaryMagicLen || memcmp(data, kBinaryMagic, kBinaryMagicLen) != 0) {
      return PRIVILEGED_HELPER_MALFORMED;
   }
   plist_t root = nullptr;
   plist_from_bin((const char *)data, (uint32_t)size, &root);
   if (root == nullptr) {
      return PRIVILEGED_HELPER_MALFORMED;
   }
   if (plist_get_node_type(root) != PLIST_DICT) {
      plist_free(root);
      return PRIVILEGED_HELPER_NOT_DICTIONARY;
   }
   *dict = root;
   return PRIVILEGED_HELPER_DECODED;
}

bool PrivilegedHelperSendMessage(int sock, plist_t message, const int *fds, size_t fdCount,
                                 int timeoutMs)
{
   if (message == nullptr || plist_get_node_type(message) != PLIST_DICT ||
       fdCount > PRIVILEGED_HELPER_MAX_FDS) {
      errno = EINVAL;
      return false;
   }
   char *raw = nullptr;
   uint32_t length = 0;
   plist_to_bin(message, &raw, &length);
   std::unique_ptr<char, PlistBinFree> encoded(raw);
   if (raw == nullptr) {
      errno = ENOMEM;
      return false;
   }
   if (length > PRIVILEGED_HELPER_MAX_MESSAGE) {
      errno = EMSGSIZE;
      return false;
   }
   struct iovec iov = {raw, length};
   struct msghdr msg = {};
   msg.msg_iov = &iov;
   msg.msg_iovlen = 1;
   alignas(struct cmsghdr) char control[CMSG_SPACE(sizeof(int) * PRIVILEGED_HELPER_MAX_FDS)];
   if (fdCount > 0) {
      msg.msg_control = control;
      msg.msg_controllen = CMSG_SPACE(sizeof(int) * fdCount);
      struct cmsghdr *cmsg = CMSG_FIRSTHDR(&msg);
      cmsg->cmsg_level = SOL_SOCKET;
      cmsg->cmsg_type = SCM_RIGHTS;
      cmsg->cmsg_len = CMSG_LEN(sizeof(int) * fdCount);
      memcpy(CMSG_DATA(cmsg), fds, sizeof(int) * fdCount);
   }
   for (;;) {
      ssize_t sent = sendmsg(sock, &msg, MSG_NOSIGNAL | MSG_DONTWAIT);
      if (sent >= 0) {
         return true;
      }
      if (errno == EINTR) {
         continue;
      }
      if (errno != EAGAIN || !WaitWritable(sock, timeoutMs)) {
         return false;
      }
   }
}
