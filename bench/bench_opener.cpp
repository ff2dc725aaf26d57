/*
 * The opener as a whole process: a hand-over to a running daemon against a minimal static
 * client doing the same, a cold start, and Hostinfo_Daemonize under a huge descriptor limit
 * against a small one. Needs root (the programs use a private root in the build tree).
 */
#include <benchmark/benchmark.h>

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
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

#include "hostinfo.h"

extern char **environ;
namespace fs = std::filesystem;

namespace {

const std::string kRoot = BENCH_ROOT;
const std::string kSocketPath = kRoot + "/var/run/BRIX Services.sock";
const std::string kDaemonPath =
    kRoot +
    "/Library/Application Support/Tesmar/Larkview/Services/Contents/Library/services/BRIX Services";

// Runs program with args to its end; returns its exit status (-1 if abnormal).
int Run(const std::string &program, std::vector<std::string> args)
{
   args.insert(args.begin(), program);
   std::vector<char *> argv;
   for (std::string &arg : args) {
      argv.push_back(arg.data());
   }
   argv.push_back(nullptr);
   posix_spawn_file_actions_t actions;
   posix_spawn_file_actions_init(&actions);
   posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
   pid_t pid;
   int rc = posix_spawn(&pid, program.c_str(), &actions, nullptr, argv.data(), environ);
   posix_spawn_file_actions_destroy(&actions);
   int status;
   if (rc != 0 || waitpid(pid, &status, 0) != pid) {
      return -1;
   }
   return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Peak resident memory (KiB) of one run of program, measured by a small static launcher.
long PeakRssKiB(const std::string &program, const std::vector<std::string> &args)
{
   std::string out = kRoot + "/maxrss";
   std::vector<std::string> launcherArgs = {out, program};
   launcherArgs.insert(launcherArgs.end(), args.begin(), args.end());
   if (Run(BENCH_MAXRSS, launcherArgs) != 0) {
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

std::vector<pid_t> DaemonPids()
{
   std::vector<pid_t> pids;
   DIR *proc = opendir("/proc");
   struct dirent *entry;
   while (proc != nullptr && (entry = readdir(proc)) != nullptr) {
      char target[4096];
      std::string link = std::string("/proc/") + entry->d_name + "/exe";
      ssize_t n = readlink(link.c_str(), target, sizeof target - 1);
      if (n > 0 && std::string(target, (size_t)n) == kDaemonPath) {
         pids.push_back(atoi(entry->d_name));
      }
   }
   if (proc != nullptr) {
      closedir(proc);
   }
   return pids;
}

// Daemons are re-parented to this process, so stopping one also reaps it.
void StopDaemons()
{
   for (pid_t pid : DaemonPids()) {
      kill(pid, SIGKILL);
      waitpid(pid, nullptr, 0);
   }
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
   if (Run(BENCH_OPENER, {fd}) != 0) {  // starts the daemon
      state.SkipWithError("the opener failed to start the daemon");
      return;
   }
   std::string program = opener ? BENCH_OPENER : BENCH_PEER;
   std::vector<std::string> args =
       opener ? std::vector<std::string>{fd} : std::vector<std::string>{kSocketPath, fd};
   state.counters["peak_rss_KiB"] = (double)PeakRssKiB(program, args);
   for (auto _ : state) {
      if (Run(program, args) != 0) {
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
      int status = Run(BENCH_OPENER, {fd});
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
