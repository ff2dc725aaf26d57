#include <atomic>

#include "hashTable.h"
#include "testSupport.h"

using testsupport::RunThreads;

static constexpr int kThreads = 4;
static std::atomic<int> gFreeCalls{0};

static void *V(uintptr_t n)
{
   return reinterpret_cast<void *>(n);
}

TEST(HashTableThread, ConcurrentInsertsOfOverlappingKeysCountEachOnce)
{
   // Few buckets, so that threads keep racing on the same chain heads.
   HashTable *ht =
       HashTable_Alloc(8, HASH_STRING_KEY | HASH_FLAG_ATOMIC | HASH_FLAG_COPYKEY, nullptr);
   constexpr int kKeys = 2000;
   std::atomic<int> inserted{0};
   std::vector<std::vector<void *>> seen(kThreads, std::vector<void *>(kKeys));
   RunThreads(kThreads, [&](int t) {
      for (int i = 0; i < kKeys; i++) {
         // Each thread walks the keys from a different place and reads back what won.
         int k = (i + t * kKeys / kThreads) % kKeys;
         std::string key = "k" + std::to_string(k);
         inserted += HashTable_Insert(ht, key.c_str(), V(t + 1)) ? 1 : 0;
         seen[t][k] = HashTable_LookupOrInsert(ht, key.c_str(), V(99));
      }
   });
   EXPECT_TRUE(inserted == kKeys && HashTable_GetNumElements(ht) == (uint32_t)kKeys);
   for (int k = 0; k < kKeys; k++) {
      void *value = nullptr;
      ASSERT_TRUE(HashTable_Lookup(ht, ("k" + std::to_string(k)).c_str(), &value));
      EXPECT_LT(reinterpret_cast<uintptr_t>(value) - 1, uintptr_t{kThreads});
      for (int t = 0; t < kThreads; t++) {
         EXPECT_EQ(seen[t][k], value) << "all threads agree on key " << k;
      }
   }
   HashTable_Free(ht);
}

TEST(HashTableThread, AtomicReplaceLosesNoUpdate)
{
   HashTable *ht =
       HashTable_Alloc(4, HASH_INT_KEY | HASH_FLAG_ATOMIC, [](void *) { gFreeCalls++; });
   HashTable_Insert(ht, V(1), V(0));
   constexpr int kIncrements = 2000;
   RunThreads(kThreads, [&](int t) {
      for (int i = 0; i < kIncrements; i++) {
         void *current = nullptr;  // a counter built on compare-and-swap
         do {
            HashTable_Lookup(ht, V(1), &current);
         } while (!HashTable_ReplaceIfValue(ht, V(1), current, V((uintptr_t)current + 1)));
         HashTable_ReplaceOrInsert(ht, V(100 + t), V(i));
      }
   });
   void *value = nullptr;
   EXPECT_TRUE(HashTable_Lookup(ht, V(1), &value) && value == V(kThreads * kIncrements));
   // Each successful swap and each replacement hands exactly one old value to the free function.
   EXPECT_EQ(gFreeCalls.load(), kThreads * kIncrements + kThreads * (kIncrements - 1));
   HashTable_Free(ht);
}

TEST(HashTableThread, AllocSharedHasOneWinner)
{
   for (int round = 0; round < 20; round++) {
      HashTable *shared = nullptr;
      std::vector<HashTable *> got(kThreads);
      RunThreads(kThreads, [&](int t) {
         got[t] = HashTable_AllocShared(&shared, 16, HASH_INT_KEY | HASH_FLAG_ATOMIC, nullptr);
         HashTable_Insert(got[t], V(t), V(1));
      });
      // The losers freed their own tables (ASan checks for leaks) and all use the winner's.
      EXPECT_EQ(got, std::vector<HashTable *>(kThreads, shared));
      EXPECT_EQ(HashTable_GetNumElements(shared), 0u + kThreads);
      HashTable_Free(shared);
   }
}
