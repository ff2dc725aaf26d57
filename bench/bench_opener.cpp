/*
 * The opener as a whole process: a hand-over to a running daemon against a minimal static
 * client doing the same, a cold start, and Hostinfo_Daemonize under a huge descriptor limit
 * against a small one. Needs root (the programs use a private root in the build tree).
 */
#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <stdio.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "benchProcess.h"
#include "hostinfo.h"

namespace fs = std::filesystem;

namespace {

const std::string kRoot = BENCH_ROOT;
const std::string kSocketPath = kRoot + "/var/run/BRIX Services.sock";
const std::string kDaemonPath =
    kRoot +
    "/Library/Application Support/Tesmar/Larkview/Services/Contents/Library/services/BRIX Services";

// Peak resident memory (KiB) of one run of program, measured by a small static launcher.
long PeakRssKiB(const std::string &program, const std::vector<std::string> &args)
{
   std::string out = kRoot + "/maxrss";
   std::vector<std::string> launcherArgs = {out, program};
   launcherArgs.insert(launcherArgs.end(), args.begin(), args.end());
   if (benchprocess::Run(BENCH_MAXRSS, launcherArgs) != 0) {
      return -1;
   }
   FILE *in = fopen(out.c_str(), "r");
   long kib = -1;
   if (in != nullptr) {
      if (fscanf(in, "%ld", &kib) != 1) {
         kib = -1;
      }
      fclose(in);
   }
   return kib;
}

void StopDaemons()
{
   benchprocess::StopProcessesRunning(kDaemonPath);
}

bool PrepareRoot(benchmark::State &state)
{
   if (geteuid() != 0) {
      state.SkipWithError("needs root: the daemon runs from a root-owned private tree");
      return false;
   }
   prctl(PR_SET_CHILD_SUBREAPER, 1);
   StopDaemons();
   fs::remove_all(kRoot);
   fs::create_directories(kRoot + "/var/run");
   fs::create_directories(kRoot + "/var/log");
   fs::create_directories(fs::path(kDaemonPath).parent_path());
   fs::copy_file(BENCH_SERVICES, kDaemonPath);
   return true;
}

// A descriptor for the daemon to write its line into, inherited by the spawned client.
int HandedDescriptor()
{
   static int fd = open("/dev/null", O_WRONLY);
   return fd;
}

void HandOver(benchmark::State &state, bool opener)
{
   if (!PrepareRoot(state)) {
      return;
   }
   std::string fd = std::to_string(HandedDescriptor());
   if (benchprocess::Run(BENCH_OPENER, {fd}) != 0) {  // starts the daemon
      state.SkipWithError("the opener failed to start the daemon");
      return;
   }
   std::string program = opener ? BENCH_OPENER : BENCH_PEER;
   std::vector<std::string> args =
       opener ? std::vector<std::string>{fd} : std::vector<std::string>{kSocketPath, fd};
   state.counters["peak_rss_KiB"] = (double)PeakRssKiB(program, args);
   for (auto _ : state) {
      if (benchprocess::Run(program, args) != 0) {
         state.SkipWithError("hand-over failed");
         break;
      }
   }
   StopDaemons();
}

void BM_OpenerHandOver(benchmark::State &state)
{
   HandOver(state, true);
}
BENCHMARK(BM_OpenerHandOver)->UseRealTime()->Unit(benchmark::kMicrosecond);

void BM_PeerClientHandOver(benchmark::State &state)
{
   HandOver(state, false);
}
BENCHMARK(BM_PeerClientHandOver)->UseRealTime()->Unit(benchmark::kMicrosecond);

void BM_OpenerColdStart(benchmark::State &state)
{
   if (!PrepareRoot(state)) {
      return;
   }
   std::string fd = std::to_string(HandedDescriptor());
   for (auto _ : state) {
      StopDaemons();
      unlink(kSocketPath.c_str());
      auto start = std::chrono::steady_clock::now();
      int status = benchprocess::Run(BENCH_OPENER, {fd});
      auto elapsed = std::chrono::steady_clock::now() - start;
      if (status != 0) {
         state.SkipWithError("cold start failed");
         break;
      }
      state.SetIterationTime(std::chrono::duration<double>(elapsed).count());
   }
   StopDaemons();
}
BENCHMARK(BM_OpenerColdStart)->UseManualTime()->Unit(benchmark::kMillisecond);

// Hostinfo_Daemonize of a program that exits at once, under the descriptor limit state.range(0).
void BM_Daemonize(benchmark::State &state)
{
   struct rlimit saved;
   getrlimit(RLIMIT_NOFILE, &saved);
   rlim_t wanted = (rlim_t)state.range(0);
   struct rlimit limit = {wanted, std::max(wanted, saved.rlim_max)};
   if (setrlimit(RLIMIT_NOFILE, &limit) != 0) {
      // Where the hard limit cannot be raised (a container), measure at the hard limit.
      limit = {std::min(wanted, saved.rlim_max), saved.rlim_max};
      if (setrlimit(RLIMIT_NOFILE, &limit) != 0) {
         state.SkipWithError("cannot set the descriptor limit");
         return;
      }
   }
   state.counters["nofile"] = (double)limit.rlim_cur;
   prctl(PR_SET_CHILD_SUBREAPER, 1);
   const char *argv[] = {"true", nullptr};
   for (auto _ : state) {
      if (!Hostinfo_Daemonize("/bin/true", (char *const *)argv, HOSTINFO_DAEMONIZE_DEFAULT, nullptr,
                              nullptr, 0)) {
         state.SkipWithError("Hostinfo_Daemonize failed");
         break;
      }
      state.PauseTiming();
      waitpid(-1, nullptr, 0);  // the daemon, re-parented here
      state.ResumeTiming();
   }
   setrlimit(RLIMIT_NOFILE, &saved);
}
BENCHMARK(BM_Daemonize)->Arg(1024)->Arg(1048576)->UseRealTime()->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
