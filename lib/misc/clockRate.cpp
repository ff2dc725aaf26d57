/*
 * Conversion of counter values between two clock rates: target = ((x * mult) >> shift) + add,
 * with a 32-bit multiplier and a 96-bit product, so a conversion costs one multiply.
 */
#include <math.h>

#include <cstdint>

#include "clockRate.h"
#include "log.h"

extern "C" {

bool ClockRate_ComputeRatio(uint64_t sourceRate, uint64_t targetRate, uint32_t *mult,
                            uint32_t *shift)
{
   if (sourceRate == 0) {
      return false;
   }
   int exponent;
   double mantissa =
       frexp(static_cast<double>(targetRate) / static_cast<double>(sourceRate), &exponent);
   uint64_t multiplier = static_cast<uint64_t>(mantissa * 4294967296.0 + 0.5);
   if (multiplier == UINT64_C(1) << 32) {
      // A mantissa just below 1 rounds up to 2^32: the same value is 2^31 one exponent higher.
      multiplier >>= 1;
      exponent++;
   }
   if (exponent > 32 || exponent < -31) {
      return false;
   }
   *mult = static_cast<uint32_t>(multiplier);
   *shift = static_cast<uint32_t>(32 - exponent);
   return true;
}

bool ClockRate_ComputeParams(uint64_t sourceRate, uint64_t sourceValue, uint64_t targetRate,
                             uint64_t targetValue, ClockRateParams *params)
{
   uint32_t mult;
   uint32_t shift;
   if (!ClockRate_ComputeRatio(sourceRate, targetRate, &mult, &shift)) {
      return false;
   }
   unsigned __int128 product = static_cast<unsigned __int128>(sourceValue) * mult;
   uint64_t scaled = static_cast<uint64_t>(product >> shift);
   if (shift > 0) {
      scaled += static_cast<uint64_t>(product >> (shift - 1)) & 1;
   }
   params->mult = mult;
   params->shift = shift;
   params->add = static_cast<int64_t>(targetValue - scaled);
   return true;
}

void ClockRate_LogParams(const char *prefix, uint64_t sourceRate, uint64_t sourceValue,
                         uint64_t targetRate, uint64_t targetValue, const ClockRateParams *params)
{
   Log("%s %llu @ %lluHz -> %llu @ %lluHz\n", prefix, static_cast<unsigned long long>(sourceValue),
       static_cast<unsigned long long>(sourceRate), static_cast<unsigned long long>(targetValue),
       static_cast<unsigned long long>(targetRate));
   Log("%s ((x * %u) >> %u) + %lld\n", prefix, params->mult, params->shift,
       static_cast<long long>(params->add));
}

void ClockRate_LogRatio(const char *prefix, uint64_t sourceRate, uint64_t targetRate, uint32_t mult,
                        uint32_t shift)
{
   Log("%s %lluHz -> %lluHz\n", prefix, static_cast<unsigned long long>(sourceRate),
       static_cast<unsigned long long>(targetRate));
   Log("%s ((x * %u) >> %u)\n", prefix, mult, shift);
}

}  // extern "C"
