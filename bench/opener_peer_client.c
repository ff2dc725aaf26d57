/*
 * The smallest client of the hand-over: connect, read the greeting, send it back with the
 * descriptor, read the verdict. Usage: opener_peer_client SOCKET-PATH FD
 */
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

int main(int argc, char **argv)
{
   if (argc != 3 || strlen(argv[1]) >= sizeof(((struct sockaddr_un *)0)->sun_path)) {
      return 2;
   }
   int sock = socket(AF_UNIX, SOCK_STREAM, 0);
   struct sockaddr_un addr = {0};
   addr.sun_family = AF_UNIX;
   strcpy(addr.sun_path, argv[1]);
   if (sock == -1 || connect(sock, (struct sockaddr *)&addr, sizeof addr) == -1) {
      return 1;
   }
   char byte;
   if (read(sock, &byte, 1) != 1) {
      return 1;
   }
   int fd = atoi(argv[2]);
   union {
      char bytes[CMSG_SPACE(sizeof(int))];
      struct cmsghdr align;
   } control;
   memset(&control, 0, sizeof control);
   struct iovec iov = {&byte, 1};
   struct msghdr msg = {0};
   msg.msg_iov = &iov;
   msg.msg_iovlen = 1;
   msg.msg_control = control.bytes;
   msg.msg_controllen = sizeof control.bytes;
   struct cmsghdr *header = CMSG_FIRSTHDR(&msg);
   header->cmsg_len = CMSG_LEN(sizeof(int));
   header->cmsg_level = SOL_SOCKET;
   header->cmsg_type = SCM_RIGHTS;
   memcpy(CMSG_DATA(header), &fd, sizeof fd);
   if (sendmsg(sock, &msg, MSG_NOSIGNAL) != 1 || read(sock, &byte, 1) != 1) {
      return 1;
   }
   return byte == '1' ? 0 : 1;
}
