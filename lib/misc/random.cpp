/*
 * Random bytes from the operating system, and the seeded TT800 generator for uses that need
 * speed and repeatability rather than unpredictability.
 */
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include <cstdint>

#include "internal/retry.h"
#include "internal/uniqueFd.h"
#include "log.h"
#include "random.h"
#include "util.h"

namespace {

constexpr const char kRandomDevice[] = "/dev/urandom";
constexpr const char kFunction[] = "RandomBytesPosix";

constexpr unsigned kWords = 25;
/* The system's text for an error number; strerror_r keeps this safe on any thread. */
class ErrorText {
  public:
   explicit ErrorText(int error) : text_(strerror_r(error, buffer_, sizeof buffer_)) {}
   const char *c_str() const { return text_; }

  private:
   char buffer_[128];
   const char *text_;
};

constexpr uint32_t kTwist = 0x8EBFD028u;

/* The generator's published initial state. */
constexpr uint32_t kInitialState[kWords] = {
    0x95F24DABu, 0x0B685215u, 0xE76CCAE7u, 0xAF3EC239u, 0x715FAD23u, 0x24A590ADu, 0x69E4B5EFu,
    0xBF456141u, 0x96BC1B7Bu, 0xA7BDF825u, 0xC1DE75B7u, 0x8858A9C9u, 0x2DA87693u, 0xB657F9DDu,
    0xFFDC8A9Fu, 0x8121DA71u, 0x8B823ECBu, 0x885D05F5u, 0x4E20CD47u, 0x5A9AD5D9u, 0x512C0C03u,
    0xEA857CCDu, 0x4CC1D30Fu, 0x8891A8A1u, 0xA6B7AADBu,
};

}  // namespace

extern "C" {

bool Random_Bytes(size_t size, void *buffer)
{
   tesmar::UniqueFd fd(open(kRandomDevice, O_RDONLY | O_CLOEXEC));
   if (!fd) {
      Log("%s: failed to open %s: %s\n", kFunction, kRandomDevice, ErrorText(errno).c_str());
      return false;
   }

   uint8_t *out = static_cast<uint8_t *>(buffer);
   size_t wanted = size;
   while (wanted > 0) {
      ssize_t got = tesmar::RetryEintr([&] { return read(fd.get(), out, wanted); });
      if (got == -1) {
         int error = errno;
         fd.reset();
         Log("%s: %zu byte read failed while reading from %s: %s\n", kFunction, wanted,
             kRandomDevice, ErrorText(error).c_str());
         return false;
      }
      if (got == 0) {
         fd.reset();
         Log("%s: zero length read while reading from %s\n", kFunction, kRandomDevice);
         return false;
      }
      out += got;
      wanted -= static_cast<size_t>(got);
   }

   if (fd.close() == -1) {
      Log("%s: failed to close %s: %s\n", kFunction, kRandomDevice, ErrorText(errno).c_str());
   }
   return true;
}

FastRandomState *Random_FastSeed(uint32_t seed)
{
   FastRandomState *state = static_cast<FastRandomState *>(Util_SafeMalloc(sizeof *state));
   for (unsigned k = 0; k < kWords; k++) {
      state->x[k] = kInitialState[k] ^ seed;
   }
   state->i = kWords - 1;
   state->j = 6;
   return state;
}

uint32_t Random_FastNext(FastRandomState *state)
{
   // Indices outside the state (a corrupted record) wrap instead of reading out of bounds.
   state->i = (state->i + 1) % kWords;
   state->j = (state->j + 1) % kWords;
   uint32_t a = state->x[state->i];
   uint32_t b = state->x[state->j];
   uint32_t y = (a >> 1) ^ b ^ ((a & 1) != 0 ? kTwist : 0);
   state->x[(state->i + 1) % kWords] = y;

   y ^= (y << 7) & 0x2B5B2500u;
   y ^= (y << 15) & 0xDB8B0000u;
   return y ^ (y >> 16);
}

}  // extern "C"
