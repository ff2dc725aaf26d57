/*
 * The state lockProbe processes share through a mapped file: who holds exclusively, how many
 * hold shared, and what was seen.
 */
#ifndef TESMAR_TESTS_LOCKPROBESTATE_H
#define TESMAR_TESTS_LOCKPROBESTATE_H

#include <atomic>
#include <cstdint>

struct ProbeState {
   std::atomic<int32_t> holder;  /* pid of the exclusive holder, 0 when none */
   std::atomic<int32_t> readers; /* shared holders right now */
   std::atomic<int32_t> maxReaders;
   std::atomic<int32_t> overlaps;
   std::atomic<int64_t> acquisitions;
   std::atomic<bool> stop;
};

#endif
