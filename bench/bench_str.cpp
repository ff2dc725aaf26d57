/*
 * Str formatting against the C library: fixed-buffer and allocating forms on typical integer
 * and string formats, and the floating-point path.
 */
#include <benchmark/benchmark.h>
#include <stdio.h>
#include <stdlib.h>

#include "str.h"

namespace {

const char kName[] = "lib/misc/hashTable";

/* Each format is run with the same arguments by both sides. */
#define FORMAT_CASES(X)                                                          \
   X(SrcLine, "%s:%d %u 0x%08x", kName, 1234, 4000000000u, 0xbeefu)              \
   X(Stamp, "%04d-%02d-%02dT%02d:%02d:%02d.%03d| ", 2026, 11, 21, 7, 45, 3, 123) \
   X(Message, "%s: connect errno %d.\n", "ServiceImplPickSockSide", 13)          \
   X(Mixed, "[%s] %-12s %lld bytes, %5.2s%%", "msg.id", "FileIO_Open", 1234567890123LL, "99")

#define SNPRINTF_BENCH(name, ...)                                              \
   void BM_StrSnprintf_##name(benchmark::State &state)                         \
   {                                                                           \
      char buf[256];                                                           \
      for (auto _ : state) {                                                   \
         benchmark::DoNotOptimize(Str_Snprintf(buf, sizeof buf, __VA_ARGS__)); \
         benchmark::ClobberMemory();                                           \
      }                                                                        \
   }                                                                           \
   BENCHMARK(BM_StrSnprintf_##name)->Name("BM_StrSnprintf/" #name);            \
   void BM_GlibcSnprintf_##name(benchmark::State &state)                       \
   {                                                                           \
      char buf[256];                                                           \
      for (auto _ : state) {                                                   \
         benchmark::DoNotOptimize(snprintf(buf, sizeof buf, __VA_ARGS__));     \
         benchmark::ClobberMemory();                                           \
      }                                                                        \
   }                                                                           \
   BENCHMARK(BM_GlibcSnprintf_##name)->Name("BM_GlibcSnprintf/" #name);        \
   void BM_StrAsprintf_##name(benchmark::State &state)                         \
   {                                                                           \
      for (auto _ : state) {                                                   \
         char *s = Str_Asprintf(nullptr, __VA_ARGS__);                         \
         benchmark::DoNotOptimize(s);                                          \
         free(s);                                                              \
      }                                                                        \
   }                                                                           \
   BENCHMARK(BM_StrAsprintf_##name)->Name("BM_StrAsprintf/" #name);            \
   void BM_GlibcAsprintf_##name(benchmark::State &state)                       \
   {                                                                           \
      for (auto _ : state) {                                                   \
         char *s = nullptr;                                                    \
         benchmark::DoNotOptimize(asprintf(&s, __VA_ARGS__));                  \
         free(s);                                                              \
      }                                                                        \
   }                                                                           \
   BENCHMARK(BM_GlibcAsprintf_##name)->Name("BM_GlibcAsprintf/" #name);

FORMAT_CASES(SNPRINTF_BENCH)

#define FLOAT_CASES(X)          \
   X(F, "%f", 3.14159265358979) \
   X(G, "%g", 0.000123456789)   \
   X(E, "%.3e", 6.02214076e23)

FLOAT_CASES(SNPRINTF_BENCH)

}  // namespace

BENCHMARK_MAIN();
