#include <stdlib.h>
#include <string.h>

#include <set>

#include "hashTable.h"
#include "testSupport.h"

/* Values are small integers smuggled in pointers; the free function records what it got. */
static std::vector<uintptr_t> gFreed;

static void RecordFree(void *value)
{
   gFreed.push_back(reinterpret_cast<uintptr_t>(value));
}

static void *V(uintptr_t n)
{
   return reinterpret_cast<void *>(n);
}

/* The keys in KeyArray order; ValueArray and ForEach must list the same entries in it. */
static std::vector<const void *> KeysInOrder(HashTable *ht)
{
   const void **keys = nullptr;
   void **values = nullptr;
   size_t count = 99, valueCount = 99;
   HashTable_KeyArray(ht, &keys, &count);
   HashTable_ValueArray(ht, &values, &valueCount);
   EXPECT_TRUE(count == valueCount && (count == 0) == (keys == nullptr && values == nullptr));
   std::vector<std::pair<const void *, void *>> visited;
   auto collect = [](const void *key, void *value, void *clientData) {
      static_cast<decltype(visited) *>(clientData)->emplace_back(key, value);
      return 0;
   };
   EXPECT_EQ(HashTable_ForEach(ht, collect, &visited), 0);
   for (size_t i = 0; i < count; i++) {
      EXPECT_TRUE(visited[i] == std::make_pair(keys[i], values[i])) << i;
   }
   std::vector<const void *> order(keys, keys + count);
   free(keys);
   free(values);
   return order;
}

TEST(HashTable, StringKeysInsertLookupReplaceDeleteAndCopies)
{
   gFreed.clear();
   HashTable *ht = HashTable_Alloc(16, HASH_STRING_KEY, RecordFree);
   EXPECT_TRUE(HashTable_Insert(ht, "alpha", V(1)) && HashTable_Insert(ht, "beta", V(2)));
   EXPECT_FALSE(HashTable_Insert(ht, "alpha", V(3)));  // present: old value stays
   void *value = nullptr;
   EXPECT_TRUE(HashTable_Lookup(ht, "alpha", &value) && value == V(1));
   EXPECT_FALSE(HashTable_Lookup(ht, "alph", &value));
   EXPECT_TRUE(HashTable_LookupOrInsert(ht, "beta", V(9)) == V(2) &&
               HashTable_LookupOrInsert(ht, "gamma", V(4)) == V(4));
   EXPECT_TRUE(HashTable_ReplaceOrInsert(ht, "alpha", V(11)) &&
               !HashTable_ReplaceOrInsert(ht, "delta", V(5)));
   EXPECT_FALSE(HashTable_ReplaceIfValue(ht, "alpha", V(1), V(12)) ||
                HashTable_ReplaceIfValue(ht, "missing", V(1), V(12)));
   EXPECT_TRUE(HashTable_ReplaceIfValue(ht, "alpha", V(11), V(12)));
   EXPECT_EQ(gFreed, (std::vector<uintptr_t>{1, 11}));
   EXPECT_TRUE(HashTable_LookupAndDelete(ht, "beta", &value) && value == V(2));  // not freed
   EXPECT_TRUE(HashTable_Delete(ht, "gamma") && !HashTable_Delete(ht, "gamma"));
   EXPECT_EQ(gFreed, (std::vector<uintptr_t>{1, 11, 4}));
   HashTable_Clear(ht);
   EXPECT_TRUE(HashTable_GetNumElements(ht) == 0 && !HashTable_Lookup(ht, "alpha", nullptr));
   EXPECT_EQ(std::multiset<uintptr_t>(gFreed.begin(), gFreed.end()),
             (std::multiset<uintptr_t>{1, 11, 4, 12, 5}));
   EXPECT_TRUE(HashTable_Insert(ht, "alpha", V(6)));  // the cleared table is usable
   HashTable_Free(ht);
   ht = HashTable_Alloc(8, HASH_STRING_KEY | HASH_FLAG_COPYKEY, nullptr);
   char key[] = "transient";
   EXPECT_TRUE(HashTable_Insert(ht, key, V(1)));
   EXPECT_FALSE(HashTable_Insert(ht, key, V(2)));  // the rejected copy must not leak
   memcpy(key, "scribbled", sizeof key);
   EXPECT_TRUE(HashTable_Lookup(ht, "transient", nullptr) &&
               !HashTable_Lookup(ht, "scribbled", nullptr));
   EXPECT_FALSE(HashTable_ReplaceOrInsert(ht, key, V(3)));  // a new key: "scribbled"
   EXPECT_TRUE(HashTable_Delete(ht, "transient"));
   HashTable_Free(ht);  // frees the remaining "scribbled" copy; ASan checks both
}

TEST(HashTable, HashesDecideTheOrderOfEveryListing)
{
   // Buckets in order, each chain newest first. With 4 buckets delta, beta and alpha share
   // bucket 0, epsilon, gamma and zeta take 1 to 3, in every spelling for the case-insensitive
   // hash; integers 1, 2 and 5 share bucket 0, 3 and 6 bucket 3.
   const char *const spellings[][6] = {{"alpha", "beta", "gamma", "delta", "epsilon", "zeta"},
                                       {"ALPHA", "Beta", "GAMMA", "deltA", "EPSILON", "Zeta"}};
   const int listed[6] = {3, 1, 0, 4, 2, 5};  // delta, beta, alpha, epsilon, gamma, zeta
   for (int type : {HASH_STRING_KEY, HASH_ISTRING_KEY}) {
      HashTable *ht = HashTable_Alloc(4, type, nullptr);
      const char *const *keys = spellings[type == HASH_ISTRING_KEY];
      std::vector<const void *> expected;
      for (int i = 0; i < 6; i++) {
         HashTable_Insert(ht, keys[i], nullptr);
         expected.push_back(keys[listed[i]]);
      }
      EXPECT_EQ(KeysInOrder(ht), expected) << "key type " << type;
      EXPECT_EQ(HashTable_Insert(ht, "Alpha", nullptr), type == HASH_STRING_KEY);
      EXPECT_EQ(HashTable_Lookup(ht, "GAMMA", nullptr), type == HASH_ISTRING_KEY);
      EXPECT_EQ(HashTable_Delete(ht, "ZETA"), type == HASH_ISTRING_KEY);
      HashTable_Free(ht);
   }

   gFreed.clear();
   HashTable *ht = HashTable_Alloc(4, HASH_INT_KEY | HASH_FLAG_COPYKEY, RecordFree);
   EXPECT_TRUE(KeysInOrder(ht).empty());
   for (uintptr_t k : {1, 2, 3, 5, 6}) {
      HashTable_Insert(ht, V(k), V(k * 10));
   }
   EXPECT_EQ(KeysInOrder(ht), (std::vector<const void *>{V(5), V(2), V(1), V(6), V(3)}));
   int calls = 0;
   auto stopAtThird = [](const void *, void *, void *clientData) {
      return ++*static_cast<int *>(clientData) == 3 ? 42 : 0;
   };
   EXPECT_TRUE(HashTable_ForEach(ht, stopAtThird, &calls) == 42 && calls == 3);
   // Keys that differ only in their high half, and zero, are told apart (and never copied).
   for (uintptr_t k : {uintptr_t{0}, uintptr_t{1} << 32, (uintptr_t{1} << 32) | 1}) {
      EXPECT_TRUE(HashTable_Insert(ht, V(k), V(k + 100)));
   }
   EXPECT_TRUE(KeysInOrder(ht).size() == 8u && !HashTable_Lookup(ht, V(4), nullptr));
   HashTable_Free(ht);
   EXPECT_EQ(gFreed.size(), 8u);
}

TEST(HashTable, BucketCountsZeroAndOneMakeOneChainOthersMustBePowersOfTwo)
{
   // 0 and 1 pass the power-of-two test and must behave as one chain, not hang or overrun.
   for (uint32_t buckets : {0u, 1u}) {
      HashTable *ht = HashTable_Alloc(buckets, HASH_STRING_KEY | HASH_FLAG_COPYKEY, nullptr);
      for (uintptr_t i = 0; i < 1000; i++) {
         ASSERT_TRUE(HashTable_Insert(ht, ("key" + std::to_string(i)).c_str(), V(i)));
      }
      void *value = nullptr;
      EXPECT_TRUE(HashTable_GetNumElements(ht) == 1000 && HashTable_Lookup(ht, "key0", &value) &&
                  value == V(0) && !HashTable_Lookup(ht, "key1000", nullptr));
      HashTable_Free(ht);
   }
   EXPECT_PANIC(HashTable_Alloc(100, HASH_STRING_KEY, nullptr),
                "HashTable_Alloc only takes powers of 2 \n");
}
