/*
 * A process that takes part in lock-file tests: counts under an exclusive lock, mixes shared
 * and exclusive holders, or holds a lock until killed. Holders record themselves
 * in a shared state file (mapped) so that any overlap is seen by whoever meets it.
 *
 *   lockProbe count LOCK STATE ROUNDS [PROCS]   exclusive read-increment-write of LOCK.counter
 *   lockProbe mixed LOCK STATE ROUNDS [PROCS]   every third holder exclusive, the rest shared
 *   lockProbe crash LOCK STATE                  counts until STATE says stop (killed at random)
 *   lockProbe hold LOCK                         locks, prints "held", sleeps until killed
 *   lockProbe id                                prints the machine id
 * Exit 3 means an overlap was seen.
 */
#include <signal.h>
#include <sys/wait.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

#include "fileLock.h"
#include "fileLockInt.h"
#include "log.h"

#include "lockProbeState.h"

namespace {

constexpr int kOverlap = 3;

FileLockToken *Lock(const char *path, bool shared)
{
   int err = 0;
   FileLockToken *token = FileLock_Lock(path, shared, FILELOCK_INFINITE_WAIT, &err, nullptr);
   if (token == nullptr) {
      exit(1);
   }
   return token;
}

/* Claims the exclusive slot; a previous holder that is dead (killed) may be replaced. */
bool EnterExclusive(ProbeState *s)
{
   int32_t expected = 0;
   int32_t me = getpid();
   while (!s->holder.compare_exchange_strong(expected, me)) {
      if (kill(expected, 0) == 0 || errno != ESRCH) {
         return false;  // a live holder is there too
      }
   }
   return s->readers.load() == 0;
}

/* The counter file: read, increment, write; a lost update shows in the final count. */
bool CountOnce(const std::string &lockPath)
{
   long value = 0;
   std::ifstream(lockPath + ".counter") >> value;
   return (std::ofstream(lockPath + ".counter") << value + 1 << "\n").good();
}

/* The holders of the count, mixed and crash modes; kOverlap as soon as an overlap is seen. */
int Run(const std::string &mode, const char *lock, ProbeState *s, long rounds)
{
   for (long i = 0; mode == "crash" ? !s->stop.load() : i < rounds; i++) {
      bool exclusive = mode != "mixed" || (i + getpid()) % 3 == 0;
      FileLockToken *t = Lock(lock, !exclusive);
      bool ok;
      if (exclusive) {
         ok = EnterExclusive(s) && (mode != "count" || CountOnce(lock));
         usleep(static_cast<useconds_t>(mode == "count"   ? 0
                                        : mode == "mixed" ? 2000
                                                          : rand() % 3000));
         ok = ok && s->readers.load() == 0;
         s->holder.store(0);
      } else {
         int32_t now = s->readers.fetch_add(1) + 1;
         int32_t seen = s->maxReaders.load();
         while (now > seen && !s->maxReaders.compare_exchange_weak(seen, now)) {
         }
         ok = s->holder.load() == 0;
         usleep(20000);
         ok = ok && s->holder.load() == 0;
         s->readers.fetch_sub(1);
      }
      s->acquisitions.fetch_add(1);
      int err = 0;
      if (!FileLock_Unlock(t, &err, nullptr)) {
         exit(1);
      }
      if (!ok) {
         s->overlaps.fetch_add(1);
         return kOverlap;
      }
   }
   return 0;
}

/* Runs body in procs children and returns the worst exit status. */
template <typename Body>
int Fan(int procs, Body body)
{
   if (procs <= 1) {
      return body();
   }
   for (int i = 0; i < procs; i++) {
      if (fork() == 0) {
         _exit(body());
      }
   }
   int worst = 0, status;
   while (wait(&status) > 0) {
      int code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
      worst = code > worst ? code : worst;
   }
   return worst;
}

}  // namespace

int main(int argc, char **argv)
{
   Log_SetOutputFd(-1);
   srand(static_cast<unsigned>(getpid()));
   std::string mode = argc > 1 ? argv[1] : "";
   if (mode == "id") {
      return printf("%s\n", FileLockGetMachineID()) > 0 ? 0 : 1;
   }
   bool counting = (mode == "count" || mode == "mixed") && argc >= 5;
   if (counting || (mode == "crash" && argc == 4)) {
      ProbeState *s = MapProbeState(argv[3], false);
      if (s == nullptr) {
         perror(argv[3]);
         return 1;
      }
      long rounds = counting ? atol(argv[4]) : 0;
      return Fan(argc > 5 ? atoi(argv[5]) : 1, [&] { return Run(mode, argv[2], s, rounds); });
   }
   if (mode == "hold" && argc == 3) {
      Lock(argv[2], false);
      printf("held\n");
      fflush(stdout);
      pause();  // until killed
   }
   return 2;  // bad arguments
}
