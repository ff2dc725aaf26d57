/*
 * Privileged helper: a request/reply round trip of a small dictionary against a bare
 * SOCK_SEQPACKET echo pair (the floor), the accept and requirement check of a new signed
 * client, and 64 clients sending 1,000 messages each.
 *
 * The benchmark signs a copy of itself with the test signing authority and runs from it, so
 * that the helper it starts accepts it.
 */
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "codeSign.h"
#include "privilegedHelper.h"

namespace {

const char kService[] = "com.tesmar.bench.helper";
const char kSignedEnv[] = "BENCH_HELPER_SIGNED_DIR";

std::string gDir;
std::string gSocket;
pid_t gHelper = -1;

plist_t SmallRequest(void)
{
   plist_t request = plist_new_dict();
   plist_dict_set_item(request, "command", plist_new_string("echo"));
   plist_dict_set_item(request, "seq", plist_new_uint(42));
   return request;
}

void StartHelper(void)
{
   std::ofstream(gDir + "/Info.plist")
       << "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict><key>XPCService</key><dict>"
          "<key>_AllowedClients</key><array><string>identifier \"com.tesmar.bench\" and anchor "
          "apple generic and anchor trusted and cert leaf[subject.CN] = *\"Tesmar, Inc.\"*"
          "</string></array></dict></dict></plist>\n";
   gSocket = gDir + "/" + kService;
   gHelper = fork();
   if (gHelper == 0) {
      int devNull = open("/dev/null", O_WRONLY);
      dup2(devNull, 1);
      std::string plist = gDir + "/Info.plist";
      execl(HELPER_PROGRAM, HELPER_PROGRAM, "--run-dir", gDir.c_str(), "--info-plist",
            plist.c_str(), kService, (char *)nullptr);
      _exit(127);
   }
   for (int i = 0; i < 2000 && access(gSocket.c_str(), F_OK) != 0; i++) {
      usleep(1000);
   }
}

PrivilegedHelperClient *ConnectAccepted(void)
{
   PrivilegedHelperClient *client = PrivilegedHelperClient_ConnectPath(gSocket.c_str());
   if (client == nullptr) {
      return nullptr;
   }
   plist_t request = SmallRequest();
   plist_t reply = PrivilegedHelperClient_SendWithReply(client, request, 5000);
   plist_free(request);
   if (reply == nullptr) {
      PrivilegedHelperClient_Close(client);
      return nullptr;
   }
   plist_free(reply);
   return client;
}

void BM_RoundTrip_Helper(benchmark::State &state)
{
   PrivilegedHelperClient *client = ConnectAccepted();
   if (client == nullptr) {
      state.SkipWithError("client not accepted");
      return;
   }
   plist_t request = SmallRequest();
   for (auto _ : state) {
      plist_t reply = PrivilegedHelperClient_SendWithReply(client, request, 5000);
      if (reply == nullptr) {
         state.SkipWithError("no reply");
         break;
      }
      plist_free(reply);
   }
   plist_free(request);
   PrivilegedHelperClient_Close(client);
}
BENCHMARK(BM_RoundTrip_Helper);

// The floor: the same encoded bytes echoed by another process over a bare socket pair (the
// helper is another process too).
void BM_RoundTrip_SeqpacketEcho(benchmark::State &state)
{
   int pair[2];
   socketpair(AF_UNIX, SOCK_SEQPACKET, 0, pair);
   pid_t echo = fork();
   if (echo == 0) {
      close(pair[0]);
      char buffer[4096];
      ssize_t got;
      while ((got = recv(pair[1], buffer, sizeof buffer, 0)) > 0) {
         send(pair[1], buffer, (size_t)got, MSG_NOSIGNAL);
      }
      _exit(0);
   }
   close(pair[1]);
   plist_t request = SmallRequest();
   char *raw = nullptr;
   uint32_t length = 0;
   plist_to_bin(request, &raw, &length);
   char buffer[4096];
   for (auto _ : state) {
      send(pair[0], raw, length, MSG_NOSIGNAL);
      benchmark::DoNotOptimize(recv(pair[0], buffer, sizeof buffer, 0));
   }
   plist_to_bin_free(raw);
   plist_free(request);
   close(pair[0]);
   waitpid(echo, nullptr, 0);
}
BENCHMARK(BM_RoundTrip_SeqpacketEcho);

// A new client each time: connect, accept, requirement check, one round trip, close.
void BM_AcceptSignedClient(benchmark::State &state)
{
   for (auto _ : state) {
      PrivilegedHelperClient *client = ConnectAccepted();
      if (client == nullptr) {
         state.SkipWithError("client not accepted");
         break;
      }
      PrivilegedHelperClient_Close(client);
   }
}
BENCHMARK(BM_AcceptSignedClient)->Unit(benchmark::kMillisecond);

// 64 clients of 1,000 messages each; items per second is messages per second.
void BM_SixtyFourClients(benchmark::State &state)
{
   constexpr int kClients = 64;
   constexpr int kMessages = 1000;
   for (auto _ : state) {
      std::atomic<int> failures{0};
      std::vector<std::thread> threads;
      for (int c = 0; c < kClients; c++) {
         threads.emplace_back([&] {
            PrivilegedHelperClient *client = ConnectAccepted();
            if (client == nullptr) {
               failures++;
               return;
            }
            plist_t request = SmallRequest();
            for (int i = 0; i < kMessages; i++) {
               plist_t reply = PrivilegedHelperClient_SendWithReply(client, request, 10000);
               if (reply == nullptr) {
                  failures++;
                  break;
               }
               plist_free(reply);
            }
            plist_free(request);
            PrivilegedHelperClient_Close(client);
         });
      }
      for (std::thread &thread : threads) {
         thread.join();
      }
      if (failures.load() != 0) {
         state.SkipWithError("a client failed");
         break;
      }
   }
   state.SetItemsProcessed(state.iterations() * kClients * kMessages);
}
BENCHMARK(BM_SixtyFourClients)->Unit(benchmark::kMillisecond)->UseRealTime();

// Runs the benchmarks from a signed copy of this program; false if that could not be made.
bool ReexecSigned(char **argv)
{
   char dir[] = "/tmp/bench-helper-XXXXXX";
   if (mkdtemp(dir) == nullptr) {
      return false;
   }
   std::string copy = std::string(dir) + "/bench_helper";
   std::filesystem::copy_file("/proc/self/exe", copy);
   char error[256] = "";
   std::string pki = PKI_DIR;
   if (!CodeSign_Sign(copy.c_str(), "com.tesmar.bench", (pki + "/leaf.pem").c_str(),
                      (pki + "/leaf.key").c_str(), nullptr, error, sizeof error)) {
      fprintf(stderr, "bench_helper: cannot sign a copy: %s\n", error);
      return false;
   }
   chmod(copy.c_str(), 0700);
   setenv(kSignedEnv, dir, 1);
   execv(copy.c_str(), argv);
   return false;
}

}  // namespace

int main(int argc, char **argv)
{
   const char *signedDir = getenv(kSignedEnv);
   if (signedDir == nullptr) {
      ReexecSigned(argv);
      return 1;
   }
   gDir = signedDir;
   signal(SIGPIPE, SIG_IGN);
   StartHelper();
   benchmark::Initialize(&argc, argv);
   benchmark::RunSpecifiedBenchmarks();
   benchmark::Shutdown();
   kill(gHelper, SIGKILL);
   waitpid(gHelper, nullptr, 0);
   std::filesystem::remove_all(gDir);
   return 0;
}
