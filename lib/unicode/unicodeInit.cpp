/*
 * Unicode_Init: sets up the codeset module once per process. It is a file of its own because it
 * is what links ICU into a program; programs that never call it use the built-in converters.
 */
#include <unistd.h>

#include <atomic>

#include "codeset.h"
#include "log.h"
#include "unicodeTypes.h"

namespace {

constexpr useconds_t kInitRetryMicroseconds = 250000;

std::atomic<int> gInitSpin{0};
bool gInitialized;

}  // namespace

extern "C" {

void Unicode_Init(const char *icuDataDir)
{
   int expected = 0;
   while (!gInitSpin.compare_exchange_strong(expected, 1)) {
      expected = 0;
      usleep(kInitRetryMicroseconds);
   }
   if (!gInitialized) {
      if (!CodeSet_Init(icuDataDir)) {
         gInitSpin.store(0);
         Panic("Failed to initialize codeset.\n");
      }
      gInitialized = true;
   }
   gInitSpin.store(0);
}

}  // extern "C"
