/*
 * A client for the privileged-helper tests, copied and signed (or not) by them.
 *
 *    helper-test-client echo SOCKET N            N numbered requests, each reply checked
 *    helper-test-client fd FD N                  the same over an inherited connection
 *    helper-test-client exec SOCKET PROGRAM N    connects, then becomes PROGRAM with "fd FD N"
 *    helper-test-client fork SOCKET N            connects; a child process sends the requests
 *    helper-test-client silent SOCKET COUNT MS   COUNT connections held MS ms without a word
 *    helper-test-client noread SOCKET N MS       N requests, no reply read, then MS ms of sleep
 *    helper-test-client raw SOCKET FILE...       each file sent as one datagram; then waits
 *                                                for the end of the connection
 *    helper-test-client passfd SOCKET            a pipe's write end sent and passed back
 *
 * Exit status: 0 as expected (raw: a reply came), 3 the helper ended the connection, 4 a wrong
 * or missing reply, 5 the connection stayed open without a reply, 2 usage or set-up failure.
 */
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
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

int Echo(PrivilegedHelperClient *client, long count)
{
   for (long i = 0; i < count; i++) {
      plist_t request = Request(i);
      plist_t reply = PrivilegedHelperClient_SendWithReply(client, request, kTimeoutMs);
      plist_free(request);
      if (reply == nullptr) {
         return errno == ECONNRESET || errno == EPIPE ? 3 : 4;
      }
      uint64_t seq = ~0ull;
      plist_t node = plist_dict_get_item(reply, "seq");
      if (node != nullptr) {
         plist_get_uint_val(node, &seq);
      }
      plist_free(reply);
      if (seq != (uint64_t)i) {
         return 4;
      }
   }
   // Every request answered exactly once: nothing more arrives.
   plist_t extra = PrivilegedHelperClient_Receive(client, 50, nullptr, nullptr);
   if (extra != nullptr) {
      plist_free(extra);
      return 4;
   }
   return errno == ETIMEDOUT ? 0 : 3;
}

int WaitForEnd(PrivilegedHelperClient *client, long)
{
   plist_t reply = PrivilegedHelperClient_Receive(client, 1000, nullptr, nullptr);
   if (reply != nullptr) {
      plist_free(reply);
      return 0;
   }
   return errno == ETIMEDOUT ? 5 : 3;
}

int RawConnect(const char *path)
{
   struct sockaddr_un addr = {};
   addr.sun_family = AF_UNIX;
   snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path);
   int sock = socket(AF_UNIX, SOCK_SEQPACKET, 0);
   if (sock == -1 || connect(sock, (const struct sockaddr *)&addr, sizeof addr) == -1) {
      perror("connect");
      exit(2);
   }
   return sock;
}

PrivilegedHelperClient *Connect(const char *path)
{
   PrivilegedHelperClient *client = PrivilegedHelperClient_ConnectPath(path);
   if (client == nullptr) {
      perror("connect");
      exit(2);
   }
   return client;
}

int PassFd(PrivilegedHelperClient *client, long)
{
   int pipeFds[2];
   if (pipe(pipeFds) == -1) {
      return 2;
   }
   plist_t request = plist_new_dict();
   bool sent = PrivilegedHelperClient_Send(client, request, &pipeFds[1], 1);
   plist_free(request);
   close(pipeFds[1]);
   int back = -1;
   size_t count = 1;
   plist_t reply =
       sent ? PrivilegedHelperClient_Receive(client, kTimeoutMs, &back, &count) : nullptr;
   if (reply == nullptr) {
      return 3;
   }
   plist_free(reply);
   char byte = 0;
   if (count != 1 || write(back, "x", 1) != 1 || read(pipeFds[0], &byte, 1) != 1 || byte != 'x') {
      return 4;
   }
   return 0;
}

// Runs one mode over client and closes it.
int Finish(PrivilegedHelperClient *client, int (*run)(PrivilegedHelperClient *, long), long arg)
{
   int status = run(client, arg);
   PrivilegedHelperClient_Close(client);
   return status;
}

}  // namespace

int main(int argc, char **argv)
{
   if (argc < 3) {
      return 2;
   }
   std::string mode = argv[1];
   if (mode == "echo" && argc == 4) {
      return Finish(Connect(argv[2]), Echo, atol(argv[3]));
   }
   if (mode == "fd" && argc == 4) {
      return Finish(PrivilegedHelperClient_FromFd(atoi(argv[2])), Echo, atol(argv[3]));
   }
   if (mode == "exec" && argc == 5) {
      int sock = RawConnect(argv[2]);  // no close-on-exec: the next program inherits it
      std::string fd = std::to_string(sock);
      execl(argv[3], argv[3], "fd", fd.c_str(), argv[4], (char *)nullptr);
      return 2;
   }
   if (mode == "fork" && argc == 4) {
      PrivilegedHelperClient *client = Connect(argv[2]);
      pid_t child = fork();
      if (child == 0) {
         _exit(Echo(client, atol(argv[3])));
      }
      int status = 0;
      waitpid(child, &status, 0);
      PrivilegedHelperClient_Close(client);
      return WIFEXITED(status) ? WEXITSTATUS(status) : 2;
   }
   if (mode == "silent" && argc == 5) {
      std::vector<PrivilegedHelperClient *> held;
      for (long i = 0; i < atol(argv[3]); i++) {
         held.push_back(Connect(argv[2]));
      }
      usleep((useconds_t)atol(argv[4]) * 1000);
      for (PrivilegedHelperClient *client : held) {
         PrivilegedHelperClient_Close(client);
      }
      return 0;
   }
   if (mode == "noread" && argc == 5) {
      PrivilegedHelperClient *client = Connect(argv[2]);
      for (long i = 0; i < atol(argv[3]); i++) {
         plist_t request = Request(i);
         bool sent = PrivilegedHelperClient_Send(client, request, nullptr, 0);
         plist_free(request);
         if (!sent) {
            break;  // the helper gave up on this client
         }
      }
      usleep((useconds_t)atol(argv[4]) * 1000);
      PrivilegedHelperClient_Close(client);
      return 0;
   }
   if (mode == "raw") {
      int sock = RawConnect(argv[2]);
      for (int i = 3; i < argc; i++) {
         std::ifstream in(argv[i], std::ios::binary);
         std::string bytes(std::istreambuf_iterator<char>(in), {});
         if (send(sock, bytes.data(), bytes.size(), MSG_NOSIGNAL) == -1) {
            return errno == EPIPE || errno == ECONNRESET ? 3 : 2;
         }
      }
      return Finish(PrivilegedHelperClient_FromFd(sock), WaitForEnd, 0);
   }
   if (mode == "passfd") {
      return Finish(Connect(argv[2]), PassFd, 0);
   }
   return 2;
}
