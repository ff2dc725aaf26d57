/*
 * Random bytes from the operating system and the seeded TT800 generator.
 */
#ifndef TESMAR_RANDOM_H
#define TESMAR_RANDOM_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

bool Random_Bytes(size_t size, void *buffer);

typedef struct FastRandomState {
   uint32_t x[25];
   uint32_t i;
   uint32_t j;
} FastRandomState;

/* A new generator state from the panicking allocator; the caller frees it. */
FastRandomState *Random_FastSeed(uint32_t seed);
uint32_t Random_FastNext(FastRandomState *state);

#ifdef __cplusplus
}
#endif

#endif
