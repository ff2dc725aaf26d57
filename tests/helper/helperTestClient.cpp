/*
 * A client for the privileged-helper tests, copied and signed (or not) by them.
 *
 *    helper-test-client echo SOCKET|FD N         N numbered requests, each reply checked, over
 *                                                a new or an inherited connection
 *    helper-test-client exec SOCKET PROGRAM N    connects, then becomes PROGRAM with "echo FD N"
 *    helper-test-client fork SOCKET N            connects; a child process sends the requests
 *    helper-test-client silent SOCKET COUNT MS   COUNT connections held MS ms without a word
 *    helper-test-client noread SOCKET N MS       N requests, no reply read, then MS ms of sleep
 *    helper-test-client raw SOCKET FILE          the file sent as one datagram; then waits for
 *                                                the end of the connection
 *    helper-test-client passfd SOCKET            a pipe's write end sent and passed back
 *
 * Exit status: 0 as expected (raw: a reply came), 3 the helper ended the connection, 4 a wrong
 * or missing reply, 5 the connection stayed open without a reply, 2 usage or set-up failure.
 */
#include <ctype.h>
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "privilegedHelper.h"

namespace {

constexpr int kTimeoutMs = 5000;

plist_t Request(long seq)
{
   plist_t request = plist_new_dict();
   plist_dict_set_item(request, "seq", plist_new_uint((uint64_t)seq));
   return request;
}

// A reply's "seq" (-1 when it has none, -2 when there is no reply: errno says why); frees it.
long Seq(plist_t reply)
{
   uint64_t seq = ~0ull;
   if (plist_t node = reply != nullptr ? plist_dict_get_item(reply, "seq") : nullptr) {
      plist_get_uint_val(node, &seq);
   }
   long result = reply == nullptr ? -2 : seq == ~0ull ? -1 : (long)seq;
   plist_free(reply);
   return result;
}

int Echo(PrivilegedHelperClient *client, long count)
{
   for (long i = 0; i < count; i++) {
      plist_t request = Request(i);
      long seq = Seq(PrivilegedHelperClient_SendWithReply(client, request, kTimeoutMs));
      plist_free(request);
      if (seq != i) {
         return seq == -2 && (errno == ECONNRESET || errno == EPIPE) ? 3 : 4;
      }
   }
   // Every request answered exactly once: nothing more arrives.
   long extra = Seq(PrivilegedHelperClient_Receive(client, 50, nullptr, nullptr));
   return extra != -2 ? 4 : errno == ETIMEDOUT ? 0 : 3;
}

// Sends a request, passing fds.
bool Send(PrivilegedHelperClient *client, long seq, int *fds = nullptr, size_t count = 0)
{
   plist_t request = Request(seq);
   bool sent = PrivilegedHelperClient_Send(client, request, fds, count);
   plist_free(request);
   return sent;
}

int RawConnect(const char *path)
{
   struct sockaddr_un addr = {AF_UNIX, {}};
   snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path);
   int sock = socket(AF_UNIX, SOCK_SEQPACKET, 0);
   if (sock == -1 || connect(sock, (const struct sockaddr *)&addr, sizeof addr) == -1) {
      perror("connect");
      exit(2);
   }
   return sock;
}

int PassFd(PrivilegedHelperClient *client)
{
   int ends[2], back = -1;
   size_t count = 1;
   char byte = 0;
   if (pipe(ends) == -1 || !Send(client, 0, &ends[1], 1)) {
      return 2;
   }
   close(ends[1]);
   long seq = Seq(PrivilegedHelperClient_Receive(client, kTimeoutMs, &back, &count));
   return seq == -2 ? 3
          : count == 1 && write(back, "x", 1) == 1 && read(ends[0], &byte, 1) == 1 && byte == 'x'
              ? 0
              : 4;
}

}  // namespace

int main(int argc, char **argv)
{
   if (argc < 3) {
      return 2;
   }
   std::string mode = argv[1];
   long n = argc >= 4 ? atol(argv[3]) : 0;
   if (mode == "exec" && argc == 5) {
      std::string fd = std::to_string(RawConnect(argv[2]));  // inherited by the next program
      execl(argv[3], argv[3], "echo", fd.c_str(), argv[4], (char *)nullptr);
      return 2;
   }
   bool raw = mode == "raw";
   int sock = raw ? RawConnect(argv[2]) : isdigit((unsigned char)argv[2][0]) ? atoi(argv[2]) : -1;
   PrivilegedHelperClient *client = sock >= 0 ? PrivilegedHelperClient_FromFd(sock)
                                              : PrivilegedHelperClient_ConnectPath(argv[2]);
   std::vector<PrivilegedHelperClient *> held = {client};
   int status = 0;
   if (client == nullptr) {
      status = 2;
   } else if (mode == "echo") {
      status = Echo(client, n);
   } else if (mode == "fork") {
      pid_t child = fork();
      if (child == 0) {
         _exit(Echo(client, n));
      }
      waitpid(child, &status, 0);
      status = WIFEXITED(status) ? WEXITSTATUS(status) : 2;
   } else if (mode == "silent" || mode == "noread") {
      for (long i = 1; mode == "silent" && i < n; i++) {
         held.push_back(PrivilegedHelperClient_ConnectPath(argv[2]));
      }
      // The helper may give up on a client that does not read its replies.
      for (long i = 0; mode == "noread" && i < n && Send(client, i); i++) {
      }
      usleep(argc >= 5 ? (useconds_t)atol(argv[4]) * 1000 : 0);
   } else if (raw && argc == 4) {
      std::ifstream in(argv[3], std::ios::binary);
      std::string bytes(std::istreambuf_iterator<char>(in), {});
      if (send(sock, bytes.data(), bytes.size(), MSG_NOSIGNAL) == -1) {
         status = errno == EPIPE || errno == ECONNRESET ? 3 : 2;
      } else {
         long seq = Seq(PrivilegedHelperClient_Receive(client, 1000, nullptr, nullptr));
         status = seq != -2 ? 0 : errno == ETIMEDOUT ? 5 : 3;
      }
   } else {
      status = mode == "passfd" ? PassFd(client) : 2;
   }
   for (PrivilegedHelperClient *c : held) {
      PrivilegedHelperClient_Close(c);
   }
   return status;
}
