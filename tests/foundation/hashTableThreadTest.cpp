#include <stdint.h>

#include <atomic>
#include <barrier>
#include <string>
#include <thread>
#include <vector>

#include "hashTable.h"
#include "testSupport.h"

namespace {

constexpr int kThreads = 4;

std::atomic<int> gFreeCalls{0};

void CountFree(void *)
{
   gFreeCalls.fetch_add(1, std::memory_order_relaxed);
}

void *V(uintptr_t n)
{
   return reinterpret_cast<void *>(n);
}

template <typename Body>
void RunThreads(Body body)
{
   std::barrier start(kThreads);
   std::vector<std::thread> threads;
   for (int t = 0; t < kThreads; t++) {
      threads.emplace_back([&, t] {
         start.arrive_and_wait();
         body(t);
      });
   }
   for (auto &thread : threads) {
      thread.join();
   }
}

}  // namespace

TEST(HashTableThread, ConcurrentInsertsOfOverlappingKeysCountEachOnce)
{
   /* Few buckets, so that threads keep racing on the same chain heads. */
   HashTable *ht =
       HashTable_Alloc(8, HASH_STRING_KEY | HASH_FLAG_ATOMIC | HASH_FLAG_COPYKEY, nullptr);
   constexpr int kKeys = 2000;
   std::vector<std::string> keys;
   for (int i = 0; i < kKeys; i++) {
      keys.push_back("k" + std::to_string(i));
   }
   std::atomic<int> inserted{0};
   std::vector<std::vector<uintptr_t>> seen(kThreads, std::vector<uintptr_t>(kKeys));
   RunThreads([&](int t) {
      for (int i = 0; i < kKeys; i++) {
         /* Each thread walks the keys from a different place and also reads back. */
         int k = (i + t * kKeys / kThreads) % kKeys;
         if (HashTable_Insert(ht, keys[k].c_str(), V(t + 1))) {
            inserted.fetch_add(1);
         }
         seen[t][k] =
             reinterpret_cast<uintptr_t>(HashTable_LookupOrInsert(ht, keys[k].c_str(), V(99)));
         void *value = nullptr;
         if (HashTable_Lookup(ht, keys[(k + kKeys / 2) % kKeys].c_str(), &value)) {
            uintptr_t owner = reinterpret_cast<uintptr_t>(value);
            EXPECT_TRUE(owner >= 1 && owner <= kThreads) << owner;
         }
      }
   });
   EXPECT_EQ(inserted.load(), kKeys);
   EXPECT_EQ(HashTable_GetNumElements(ht), static_cast<uint32_t>(kKeys));
   for (int k = 0; k < kKeys; k++) {
      void *value = nullptr;
      ASSERT_TRUE(HashTable_Lookup(ht, keys[k].c_str(), &value));
      for (int t = 0; t < kThreads; t++) {
         EXPECT_EQ(seen[t][k], reinterpret_cast<uintptr_t>(value)) << "all threads agree";
      }
   }
   HashTable_Free(ht);
}

TEST(HashTableThread, AtomicReplaceLosesNoUpdate)
{
   gFreeCalls = 0;
   HashTable *ht = HashTable_Alloc(4, HASH_INT_KEY | HASH_FLAG_ATOMIC, CountFree);
   HashTable_Insert(ht, V(1), V(0));
   constexpr int kIncrements = 2000;
   RunThreads([&](int t) {
      for (int i = 0; i < kIncrements; i++) {
         /* A counter built on compare-and-swap: retry until our increment lands. */
         for (;;) {
            void *current = nullptr;
            HashTable_Lookup(ht, V(1), &current);
            uintptr_t n = reinterpret_cast<uintptr_t>(current);
            if (HashTable_ReplaceIfValue(ht, V(1), current, V(n + 1))) {
               break;
            }
         }
         HashTable_ReplaceOrInsert(ht, V(100 + t), V(i));
      }
   });
   void *value = nullptr;
   ASSERT_TRUE(HashTable_Lookup(ht, V(1), &value));
   EXPECT_EQ(reinterpret_cast<uintptr_t>(value), uintptr_t{kThreads * kIncrements});
   /* Each successful swap and each replacement hands exactly one old value to the free function. */
   EXPECT_EQ(gFreeCalls.load(), kThreads * kIncrements + kThreads * (kIncrements - 1));
   EXPECT_EQ(HashTable_GetNumElements(ht), uint32_t{1 + kThreads});
   HashTable_Free(ht);
}

TEST(HashTableThread, AllocSharedHasOneWinner)
{
   for (int round = 0; round < 20; round++) {
      HashTable *shared = nullptr;
      std::vector<HashTable *> got(kThreads);
      RunThreads([&](int t) {
         got[t] = HashTable_AllocShared(
             &shared, 16, HASH_STRING_KEY | HASH_FLAG_ATOMIC | HASH_FLAG_COPYKEY, nullptr);
         HashTable_Insert(got[t], ("t" + std::to_string(t)).c_str(), V(1));
      });
      for (HashTable *ht : got) {
         EXPECT_EQ(ht, shared); /* the losers freed their own tables: ASan checks for leaks */
      }
      EXPECT_EQ(HashTable_GetNumElements(shared), 0u + kThreads);
      EXPECT_EQ(HashTable_AllocShared(&shared, 16, 0, nullptr), shared);
      HashTable_Free(shared);
   }
}
