/*
 * Base64 encode and decode of 1 MiB against memcpy of the same data, the physical limit.
 * Bytes processed are the raw data bytes in every case, so the rates compare directly.
 */
#include <benchmark/benchmark.h>
#include <string.h>

#include <cstdint>
#include <random>
#include <vector>

#include "base64.h"

namespace {

constexpr size_t kSize = 1 << 20;

std::vector<uint8_t> RandomData()
{
   std::mt19937 rng(1);
   std::vector<uint8_t> data(kSize);
   for (auto &b : data) {
      b = static_cast<uint8_t>(rng());
   }
   return data;
}

void BM_Base64Encode(benchmark::State &state)
{
   std::vector<uint8_t> data = RandomData();
   std::vector<char> text(Base64_EncodedLength(data.data(), data.size()));
   for (auto _ : state) {
      size_t length;
      benchmark::DoNotOptimize(
          Base64_Encode(data.data(), data.size(), text.data(), text.size(), &length));
      benchmark::ClobberMemory();
   }
   state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kSize));
}

void BM_Base64Decode(benchmark::State &state)
{
   std::vector<uint8_t> data = RandomData();
   std::vector<char> text(Base64_EncodedLength(data.data(), data.size()));
   size_t textLength;
   Base64_Encode(data.data(), data.size(), text.data(), text.size(), &textLength);
   std::vector<uint8_t> out(kSize);
   for (auto _ : state) {
      size_t length;
      benchmark::DoNotOptimize(
          Base64_ChunkDecode(text.data(), textLength, out.data(), out.size(), &length));
      benchmark::ClobberMemory();
   }
   if (memcmp(out.data(), data.data(), kSize) != 0) {
      state.SkipWithError("decode does not round-trip");
   }
   state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kSize));
}

void BM_Memcpy(benchmark::State &state)
{
   std::vector<uint8_t> data = RandomData();
   std::vector<uint8_t> out(kSize);
   for (auto _ : state) {
      memcpy(out.data(), data.data(), kSize);
      benchmark::DoNotOptimize(out.data());
      benchmark::ClobberMemory();
   }
   state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kSize));
}

}  // namespace

BENCHMARK(BM_Base64Encode);
BENCHMARK(BM_Base64Decode);
BENCHMARK(BM_Memcpy);

BENCHMARK_MAIN();
