/*
 * The lock-file lock against its peers in one run: an uncontended exclusive lock and unlock on
 * tmpfs against liblockfile's lockfile_create/lockfile_remove and against flock on an open
 * descriptor (the kernel's lower bound); eight contending processes (acquisitions per second,
 * longest wait); and the time a waiter needs to take the lock after its holder is killed.
 *
 * Everything lives on tmpfs (/dev/shm) unless BENCH_LOCK_DIR names another place.
 */
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <lockfile.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <string>

#include "file.h"
#include "fileLock.h"
#include "log.h"

namespace {

std::string Dir()
{
   static std::string dir = [] {
      const char *base = getenv("BENCH_LOCK_DIR");
      std::string t = std::string(base != nullptr ? base : "/dev/shm") + "/bench-lock-XXXXXX";
      if (mkdtemp(t.data()) == nullptr) {
         abort();
      }
      return t;
   }();
   return dir;
}

uint64_t NowNs()
{
   struct timespec ts;
   clock_gettime(CLOCK_MONOTONIC, &ts);
   return static_cast<uint64_t>(ts.tv_sec) * 1000000000u + static_cast<uint64_t>(ts.tv_nsec);
}

void BM_FileLockUncontended(benchmark::State &state)
{
   std::string path = Dir() + "/uncontended";
   for (auto _ : state) {
      int err = 0;
      FileLockToken *token = FileLock_Lock(path.c_str(), false, 0, &err, nullptr);
      if (token == nullptr) {
         state.SkipWithError("lock failed");
         break;
      }
      FileLock_Unlock(token, &err, nullptr);
   }
   state.counters["cycles/s"] =
       benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_FileLockUncontended)->UseRealTime();

void BM_LiblockfileUncontended(benchmark::State &state)
{
   std::string path = Dir() + "/peer.lock";
   for (auto _ : state) {
      if (lockfile_create(path.c_str(), 0, 0) != L_SUCCESS) {
         state.SkipWithError("lockfile_create failed");
         break;
      }
      lockfile_remove(path.c_str());
   }
   state.counters["cycles/s"] =
       benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_LiblockfileUncontended)->UseRealTime();

void BM_FlockUncontended(benchmark::State &state)
{
   std::string path = Dir() + "/flock";
   int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
   for (auto _ : state) {
      flock(fd, LOCK_EX);
      flock(fd, LOCK_UN);
   }
   close(fd);
   state.counters["cycles/s"] =
       benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_FlockUncontended)->UseRealTime();

/* Eight processes, each taking the lock a number of times; the longest wait of any of them. */
void BM_FileLockContended8(benchmark::State &state)
{
   constexpr int kProcs = 8;
   const int rounds = static_cast<int>(state.range(0));
   std::string path = Dir() + "/contended";
   uint64_t longest = 0;
   uint64_t total = 0;
   for (auto _ : state) {
      int p[2];
      if (pipe(p) != 0) {
         abort();
      }
      pid_t pids[kProcs];
      for (int i = 0; i < kProcs; i++) {
         pids[i] = fork();
         if (pids[i] == 0) {
            close(p[0]);
            uint64_t worst = 0;
            for (int r = 0; r < rounds; r++) {
               uint64_t start = NowNs();
               int err = 0;
               FileLockToken *t =
                   FileLock_Lock(path.c_str(), false, FILELOCK_INFINITE_WAIT, &err, nullptr);
               worst = std::max(worst, NowNs() - start);
               FileLock_Unlock(t, &err, nullptr);
            }
            ssize_t n = write(p[1], &worst, sizeof worst);
            _exit(n == sizeof worst ? 0 : 1);
         }
      }
      close(p[1]);
      for (int i = 0; i < kProcs; i++) {
         uint64_t worst = 0;
         if (read(p[0], &worst, sizeof worst) == sizeof worst) {
            longest = std::max(longest, worst);
         }
      }
      close(p[0]);
      for (pid_t pid : pids) {
         waitpid(pid, nullptr, 0);
      }
      total += kProcs * static_cast<uint64_t>(rounds);
   }
   state.counters["acquisitions/s"] =
       benchmark::Counter(static_cast<double>(total), benchmark::Counter::kIsRate);
   state.counters["longest_wait_ms"] = static_cast<double>(longest) / 1e6;
}
BENCHMARK(BM_FileLockContended8)
    ->Arg(10)
    ->Iterations(1)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

/* A holder killed with SIGKILL while a waiter waits: the time until the waiter holds. */
void BM_FileLockRecovery(benchmark::State &state)
{
   std::string path = Dir() + "/recovery";
   for (auto _ : state) {
      state.PauseTiming();
      int held[2];
      int got[2];
      if (pipe(held) != 0 || pipe(got) != 0) {
         abort();
      }
      pid_t holder = fork();
      if (holder == 0) {
         int err = 0;
         FileLock_Lock(path.c_str(), false, FILELOCK_INFINITE_WAIT, &err, nullptr);
         char c = 'h';
         ssize_t n = write(held[1], &c, 1);
         (void)n;
         while (true) {
            pause();
         }
      }
      char c;
      if (read(held[0], &c, 1) != 1) {
         abort();
      }
      pid_t waiter = fork();
      if (waiter == 0) {
         int err = 0;
         FileLockToken *t =
             FileLock_Lock(path.c_str(), false, FILELOCK_INFINITE_WAIT, &err, nullptr);
         uint64_t at = NowNs();
         ssize_t n = write(got[1], &at, sizeof at);
         FileLock_Unlock(t, &err, nullptr);
         _exit(n == sizeof at ? 0 : 1);
      }
      usleep(300000);  // the waiter is now in its wait
      uint64_t killedAt = NowNs();
      kill(holder, SIGKILL);
      waitpid(holder, nullptr, 0);
      uint64_t acquiredAt = 0;
      if (read(got[0], &acquiredAt, sizeof acquiredAt) != sizeof acquiredAt) {
         abort();
      }
      waitpid(waiter, nullptr, 0);
      for (int fd : {held[0], held[1], got[0], got[1]}) {
         close(fd);
      }
      state.SetIterationTime(static_cast<double>(acquiredAt - killedAt) / 1e9);
      state.ResumeTiming();
   }
}
BENCHMARK(BM_FileLockRecovery)->Iterations(10)->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char **argv)
{
   Log_SetOutputFd(-1);
   benchmark::Initialize(&argc, argv);
   benchmark::RunSpecifiedBenchmarks();
   benchmark::Shutdown();
   File_DeleteDirectoryTree(Dir().c_str());
   return 0;
}
