/*
 * The state lockProbe processes share through a mapped file: who holds exclusively, how many
 * hold shared, and what was seen.
 */
#ifndef TESMAR_TESTS_LOCKPROBESTATE_H
#define TESMAR_TESTS_LOCKPROBESTATE_H

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>

struct ProbeState {
   std::atomic<int32_t> holder;  /* pid of the exclusive holder, 0 when none */
   std::atomic<int32_t> readers; /* shared holders right now */
   std::atomic<int32_t> maxReaders;
   std::atomic<int32_t> overlaps;
   std::atomic<int64_t> acquisitions;
   std::atomic<bool> stop;
};

/* Maps the state file (created zeroed when missing, or emptied first); nullptr on failure. */
inline ProbeState *MapProbeState(const char *path, bool empty)
{
   int fd = open(path, O_RDWR | O_CREAT | O_CLOEXEC | (empty ? O_TRUNC : 0), 0644);
   if (fd == -1 || ftruncate(fd, sizeof(ProbeState)) == -1) {
      return nullptr;
   }
   void *p = mmap(nullptr, sizeof(ProbeState), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
   close(fd);
   return p == MAP_FAILED ? nullptr : static_cast<ProbeState *>(p);
}

#endif
