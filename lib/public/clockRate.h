/*
 * Conversion of counter values between two clock rates by a 32-bit multiply and a shift.
 */
#ifndef TESMAR_CLOCKRATE_H
#define TESMAR_CLOCKRATE_H

#include <stdbool.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct ClockRateParams {
   uint32_t mult;
   uint32_t shift;
   int64_t add;
} ClockRateParams;

bool ClockRate_ComputeParams(uint64_t sourceRate, uint64_t sourceValue, uint64_t targetRate,
                             uint64_t targetValue, ClockRateParams *params);
bool ClockRate_ComputeRatio(uint64_t sourceRate, uint64_t targetRate, uint32_t *mult,
                            uint32_t *shift);
void ClockRate_LogParams(const char *prefix, uint64_t sourceRate, uint64_t sourceValue,
                         uint64_t targetRate, uint64_t targetValue, const ClockRateParams *params);
void ClockRate_LogRatio(const char *prefix, uint64_t sourceRate, uint64_t targetRate, uint32_t mult,
                        uint32_t shift);

/* ((x * mult) >> shift) + add, with a 96-bit product. */
static inline uint64_t ClockRate_Apply(const ClockRateParams *params, uint64_t x)
{
   unsigned __int128 product = (unsigned __int128)x * params->mult;
   return (uint64_t)(product >> params->shift) + (uint64_t)params->add;
}

#ifdef __cplusplus
}
#endif

#endif
