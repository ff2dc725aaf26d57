/*
 * HashTable string-key lookup against std::unordered_map, and DynBuf appends of small pieces
 * against std::string::append.
 */
#include <benchmark/benchmark.h>

#include <algorithm>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

#include "dynbuf.h"
#include "hashTable.h"

namespace {

/* Distinct identifier-like keys of 8 to 24 characters, in a fixed pseudo-random order. */
const std::vector<std::string> &Keys(size_t count)
{
   static std::vector<std::string> keys;
   if (keys.size() != count) {
      std::mt19937 random(20261121);
      std::uniform_int_distribution<int> length(8, 24);
      const char alphabet[] = "abcdefghijklmnopqrstuvwxyz0123456789_.-/";
      std::uniform_int_distribution<size_t> letter(0, sizeof alphabet - 2);
      std::unordered_map<std::string, int> unique;
      keys.clear();
      while (keys.size() < count) {
         std::string key;
         for (int i = length(random); i > 0; i--) {
            key += alphabet[letter(random)];
         }
         if (unique.emplace(key, 0).second) {
            keys.push_back(key);
         }
      }
   }
   return keys;
}

/* The order in which the keys are looked up: every key once, shuffled. */
std::vector<size_t> LookupOrder(size_t count)
{
   std::vector<size_t> order(count);
   for (size_t i = 0; i < count; i++) {
      order[i] = i;
   }
   std::shuffle(order.begin(), order.end(), std::mt19937(7));
   return order;
}

/* 2^17 buckets for 100k keys: a load of about 0.76, close to the peer's default of at most 1. */
constexpr uint32_t kBuckets = 1u << 17;

void BM_HashTableLookup(benchmark::State &state)
{
   size_t count = static_cast<size_t>(state.range(0));
   const auto &keys = Keys(count);
   HashTable *ht = HashTable_Alloc(kBuckets, HASH_STRING_KEY | HASH_FLAG_COPYKEY, nullptr);
   for (size_t i = 0; i < count; i++) {
      HashTable_Insert(ht, keys[i].c_str(), reinterpret_cast<void *>(i + 1));
   }
   auto order = LookupOrder(count);
   for (auto _ : state) {
      uintptr_t sum = 0;
      for (size_t i : order) {
         void *value = nullptr;
         HashTable_Lookup(ht, keys[i].c_str(), &value);
         sum += reinterpret_cast<uintptr_t>(value);
      }
      benchmark::DoNotOptimize(sum);
   }
   state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * count));
   HashTable_Free(ht);
}

void BM_UnorderedMapLookup(benchmark::State &state)
{
   size_t count = static_cast<size_t>(state.range(0));
   const auto &keys = Keys(count);
   std::unordered_map<std::string, uintptr_t> map;
   for (size_t i = 0; i < count; i++) {
      map.emplace(keys[i], i + 1);
   }
   auto order = LookupOrder(count);
   for (auto _ : state) {
      uintptr_t sum = 0;
      for (size_t i : order) {
         auto found = map.find(keys[i]);
         sum += found == map.end() ? 0 : found->second;
      }
      benchmark::DoNotOptimize(sum);
   }
   state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * count));
}

BENCHMARK(BM_HashTableLookup)->Arg(100000);
BENCHMARK(BM_UnorderedMapLookup)->Arg(100000);

constexpr size_t kAppendTotal = 10 * 1000 * 1000;

/* Piece lengths of 1 to 32 bytes, repeating, and the bytes they are cut from. */
const std::vector<size_t> &PieceLengths()
{
   static const std::vector<size_t> lengths = [] {
      std::mt19937 random(11);
      std::uniform_int_distribution<size_t> length(1, 32);
      std::vector<size_t> v(4096);
      for (auto &n : v) {
         n = length(random);
      }
      return v;
   }();
   return lengths;
}

const char kSource[33] = "abcdefghijklmnopqrstuvwxyz012345";

void BM_DynBufAppend(benchmark::State &state)
{
   const auto &lengths = PieceLengths();
   for (auto _ : state) {
      DynBuf b;
      DynBuf_Init(&b);
      size_t piece = 0;
      while (b.size < kAppendTotal) {
         DynBuf_Append(&b, kSource, lengths[piece++ & 4095]);
      }
      benchmark::DoNotOptimize(b.data);
      DynBuf_Destroy(&b);
   }
   state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kAppendTotal));
}

void BM_StdStringAppend(benchmark::State &state)
{
   const auto &lengths = PieceLengths();
   for (auto _ : state) {
      std::string s;
      size_t piece = 0;
      while (s.size() < kAppendTotal) {
         s.append(kSource, lengths[piece++ & 4095]);
      }
      benchmark::DoNotOptimize(s.data());
   }
   state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kAppendTotal));
}

BENCHMARK(BM_DynBufAppend);
BENCHMARK(BM_StdStringAppend);

}  // namespace

BENCHMARK_MAIN();
