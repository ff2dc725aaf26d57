/*
 * The small shared pieces of the lock-file protocol that other file modules use too: a quick
 * random number generator under a spin lock and a randomised sleep.
 */
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

#include "fileInt.h"
#include "random.h"

namespace {

std::atomic<bool> gRandomBusy{false};
FastRandomState *gRandomState = nullptr;

}  // namespace

extern "C" {

uint32_t FileSimpleRandom(void)
{
   while (gRandomBusy.exchange(true, std::memory_order_acquire)) {
   }
   if (gRandomState == nullptr) {
      gRandomState = Random_FastSeed(static_cast<uint32_t>(getpid()));
   }
   uint32_t value = Random_FastNext(gRandomState);
   gRandomBusy.store(false, std::memory_order_release);
   return value;
}

uint32_t FileSleeper(uint32_t msecMin, uint32_t msecMax)
{
   uint32_t msec = msecMin;
   if (msecMin != msecMax) {
      uint64_t span = static_cast<uint64_t>(msecMax - msecMin);
      msec = msecMin + static_cast<uint32_t>((span * FileSimpleRandom()) >> 32);
   }
   struct timespec ts = {static_cast<time_t>(msec / 1000),
                         static_cast<long>(msec % 1000) * 1000000L};
   while (nanosleep(&ts, &ts) == -1 && errno == EINTR) {
   }
   return msec;
}

}  // extern "C"
