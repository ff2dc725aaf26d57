#include <ctype.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <map>
#include <set>
#include <string>
#include <vector>

#include "hashTable.h"
#include "testSupport.h"

namespace {

/* Values are small integers smuggled in pointers; the free function records what it got. */
std::vector<uintptr_t> gFreed;

void RecordFree(void *value)
{
   gFreed.push_back(reinterpret_cast<uintptr_t>(value));
}

void *V(uintptr_t n)
{
   return reinterpret_cast<void *>(n);
}

class HashTableTest : public ::testing::Test {
  protected:
   void SetUp() override { gFreed.clear(); }
};

/* Keys as visited by ForEach, which must agree with KeyArray and ValueArray. */
int CollectKey(const void *key, void *value, void *clientData)
{
   auto *seen = static_cast<std::vector<std::pair<const void *, void *>> *>(clientData);
   seen->emplace_back(key, value);
   return 0;
}

}  // namespace

TEST_F(HashTableTest, StringKeysInsertLookupReplaceDelete)
{
   HashTable *ht = HashTable_Alloc(16, HASH_STRING_KEY, RecordFree);
   EXPECT_TRUE(HashTable_Insert(ht, "alpha", V(1)));
   EXPECT_TRUE(HashTable_Insert(ht, "beta", V(2)));
   EXPECT_FALSE(HashTable_Insert(ht, "alpha", V(3))); /* present: old value stays */
   EXPECT_TRUE(gFreed.empty());
   void *value = nullptr;
   EXPECT_TRUE(HashTable_Lookup(ht, "alpha", &value));
   EXPECT_EQ(value, V(1));
   EXPECT_TRUE(HashTable_Lookup(ht, "beta", nullptr));
   EXPECT_FALSE(HashTable_Lookup(ht, "Alpha", &value));
   EXPECT_FALSE(HashTable_Lookup(ht, "alph", &value));

   EXPECT_EQ(HashTable_LookupOrInsert(ht, "beta", V(9)), V(2));
   EXPECT_EQ(HashTable_LookupOrInsert(ht, "gamma", V(4)), V(4));
   EXPECT_EQ(HashTable_GetNumElements(ht), 3u);

   EXPECT_TRUE(HashTable_ReplaceOrInsert(ht, "alpha", V(11)));
   EXPECT_FALSE(HashTable_ReplaceOrInsert(ht, "delta", V(5)));
   EXPECT_EQ(gFreed, std::vector<uintptr_t>{1});

   EXPECT_FALSE(HashTable_ReplaceIfValue(ht, "alpha", V(1), V(12)));
   EXPECT_FALSE(HashTable_ReplaceIfValue(ht, "missing", V(1), V(12)));
   EXPECT_TRUE(HashTable_ReplaceIfValue(ht, "alpha", V(11), V(12)));
   EXPECT_EQ(gFreed, (std::vector<uintptr_t>{1, 11}));
   HashTable_Lookup(ht, "alpha", &value);
   EXPECT_EQ(value, V(12));

   EXPECT_TRUE(HashTable_LookupAndDelete(ht, "beta", &value)); /* handed back, not freed */
   EXPECT_EQ(value, V(2));
   EXPECT_TRUE(HashTable_Delete(ht, "gamma"));
   EXPECT_FALSE(HashTable_Delete(ht, "gamma"));
   EXPECT_EQ(gFreed, (std::vector<uintptr_t>{1, 11, 4}));
   EXPECT_EQ(HashTable_GetNumElements(ht), 2u);

   HashTable_Clear(ht);
   EXPECT_EQ(HashTable_GetNumElements(ht), 0u);
   EXPECT_FALSE(HashTable_Lookup(ht, "alpha", nullptr));
   std::multiset<uintptr_t> freed(gFreed.begin(), gFreed.end());
   EXPECT_EQ(freed, (std::multiset<uintptr_t>{1, 11, 4, 12, 5}));
   EXPECT_TRUE(HashTable_Insert(ht, "alpha", V(6))); /* the cleared table is usable */
   HashTable_Free(ht);
   EXPECT_EQ(gFreed.back(), 6u);
   HashTable_Free(nullptr);
}

TEST_F(HashTableTest, CaseInsensitiveKeys)
{
   HashTable *ht = HashTable_Alloc(128, HASH_ISTRING_KEY | HASH_FLAG_COPYKEY, nullptr);
   EXPECT_TRUE(HashTable_Insert(ht, "UTF-8", V(1)));
   EXPECT_FALSE(HashTable_Insert(ht, "utf-8", V(2)));
   void *value = nullptr;
   EXPECT_TRUE(HashTable_Lookup(ht, "Utf-8", &value));
   EXPECT_EQ(value, V(1));
   EXPECT_FALSE(HashTable_Lookup(ht, "utf8", nullptr));
   EXPECT_TRUE(HashTable_Delete(ht, "uTF-8"));
   EXPECT_EQ(HashTable_GetNumElements(ht), 0u);
   HashTable_Free(ht);
}

TEST_F(HashTableTest, IntegerKeysCompareByIdentity)
{
   HashTable *ht = HashTable_Alloc(4, HASH_INT_KEY | HASH_FLAG_COPYKEY, RecordFree);
   /* Keys differing only in their high half, and a key of zero. */
   const uintptr_t keys[] = {0, 1, uintptr_t{1} << 32, (uintptr_t{1} << 32) | 1, 48271, 7, 8};
   for (uintptr_t k : keys) {
      EXPECT_TRUE(HashTable_Insert(ht, V(k), V(k + 100)));
   }
   for (uintptr_t k : keys) {
      void *value = nullptr;
      EXPECT_TRUE(HashTable_Lookup(ht, V(k), &value));
      EXPECT_EQ(value, V(k + 100));
   }
   EXPECT_FALSE(HashTable_Lookup(ht, V(2), nullptr));
   EXPECT_EQ(HashTable_GetNumElements(ht), 7u);
   HashTable_Free(ht);
   EXPECT_EQ(gFreed.size(), 7u);
}

TEST_F(HashTableTest, CopiedKeysAreOwnedByTheTable)
{
   HashTable *ht = HashTable_Alloc(8, HASH_STRING_KEY | HASH_FLAG_COPYKEY, nullptr);
   char key[] = "transient";
   EXPECT_TRUE(HashTable_Insert(ht, key, V(1)));
   EXPECT_FALSE(HashTable_Insert(ht, key, V(2))); /* the rejected copy must not leak */
   memcpy(key, "scribbled", sizeof key);
   EXPECT_TRUE(HashTable_Lookup(ht, "transient", nullptr));
   EXPECT_FALSE(HashTable_Lookup(ht, "scribbled", nullptr));

   const void **keys = nullptr;
   size_t count = 0;
   HashTable_KeyArray(ht, &keys, &count);
   ASSERT_EQ(count, 1u);
   EXPECT_NE(keys[0], static_cast<const void *>(key));
   EXPECT_STREQ(static_cast<const char *>(keys[0]), "transient");
   free(keys);

   EXPECT_FALSE(HashTable_ReplaceOrInsert(ht, key, V(3))); /* a new key: "scribbled" */
   EXPECT_TRUE(HashTable_Delete(ht, "transient"));
   HashTable_Free(ht); /* frees the remaining "scribbled" copy; ASan checks both */

   /* Without copying, the table keeps the caller's pointer. */
   ht = HashTable_Alloc(8, HASH_STRING_KEY, nullptr);
   HashTable_Insert(ht, key, V(1));
   HashTable_KeyArray(ht, &keys, &count);
   ASSERT_EQ(count, 1u);
   EXPECT_EQ(keys[0], static_cast<const void *>(key));
   free(keys);
   HashTable_Free(ht);
}

TEST_F(HashTableTest, ArraysAndForEachVisitBucketsInOrder)
{
   HashTable *ht = HashTable_Alloc(4, HASH_INT_KEY, nullptr);
   const void **keys = reinterpret_cast<const void **>(1);
   void **values = reinterpret_cast<void **>(1);
   size_t count = 99;
   HashTable_KeyArray(ht, &keys, &count);
   EXPECT_EQ(keys, nullptr);
   EXPECT_EQ(count, 0u);
   HashTable_ValueArray(ht, &values, &count);
   EXPECT_EQ(values, nullptr);

   /*
    * Integer keys hash to k * 48271; with 4 buckets, 1, 2 and 5 fold to bucket 0, 3 and 6 to
    * bucket 3. Within a bucket the newest entry comes first.
    */
   for (uintptr_t k : {1, 2, 3, 5, 6}) {
      HashTable_Insert(ht, V(k), V(k * 10));
   }
   HashTable_KeyArray(ht, &keys, &count);
   ASSERT_EQ(count, 5u);
   std::vector<uintptr_t> keyOrder;
   for (size_t i = 0; i < count; i++) {
      keyOrder.push_back(reinterpret_cast<uintptr_t>(keys[i]));
   }
   free(keys);
   HashTable_ValueArray(ht, &values, &count);
   ASSERT_EQ(count, 5u);
   std::vector<std::pair<const void *, void *>> seen;
   EXPECT_EQ(HashTable_ForEach(ht, CollectKey, &seen), 0);
   ASSERT_EQ(seen.size(), 5u);
   for (size_t i = 0; i < count; i++) {
      EXPECT_EQ(seen[i].first, V(keyOrder[i]));
      EXPECT_EQ(values[i], V(keyOrder[i] * 10));
   }
   free(values);

   EXPECT_EQ(keyOrder, (std::vector<uintptr_t>{5, 2, 1, 6, 3}));

   int calls = 0;
   auto stopAtThird = [](const void *, void *, void *clientData) {
      return ++*static_cast<int *>(clientData) == 3 ? 42 : 0;
   };
   EXPECT_EQ(HashTable_ForEach(ht, stopAtThird, &calls), 42);
   EXPECT_EQ(calls, 3);
   HashTable_Free(ht);
}

TEST_F(HashTableTest, StringHashDecidesTheOrder)
{
   /*
    * The order of KeyArray shows the bucket of every key: with 4 buckets the xor-and-rotate hash
    * folds delta, beta and alpha to bucket 0, epsilon to 1, gamma to 2, zeta to 3. The
    * case-insensitive table must place the upper-case spellings the same way.
    */
   const char *keys[] = {"alpha", "beta", "gamma", "delta", "epsilon", "zeta"};
   const char *upper[] = {"ALPHA", "Beta", "GAMMA", "deltA", "EPSILON", "Zeta"};
   const std::vector<std::string> expected = {"delta", "beta", "alpha", "epsilon", "gamma", "zeta"};
   for (int type : {HASH_STRING_KEY, HASH_ISTRING_KEY}) {
      HashTable *ht = HashTable_Alloc(4, type, nullptr);
      for (size_t i = 0; i < 6; i++) {
         HashTable_Insert(ht, type == HASH_STRING_KEY ? keys[i] : upper[i], nullptr);
      }
      const void **array = nullptr;
      size_t count = 0;
      HashTable_KeyArray(ht, &array, &count);
      ASSERT_EQ(count, 6u);
      std::vector<std::string> order;
      for (size_t i = 0; i < count; i++) {
         std::string key = static_cast<const char *>(array[i]);
         for (char &c : key) {
            c = static_cast<char>(tolower(c));
         }
         order.push_back(key);
      }
      free(array);
      EXPECT_EQ(order, expected) << "key type " << type;
      HashTable_Free(ht);
   }
}

TEST_F(HashTableTest, ManyKeysShareChains)
{
   /* About twenty entries per chain: every key must still be told apart from its neighbours. */
   HashTable *ht = HashTable_Alloc(256, HASH_STRING_KEY | HASH_FLAG_COPYKEY, nullptr);
   std::map<std::string, uintptr_t> expected;
   for (uintptr_t i = 0; i < 5000; i++) {
      std::string key = "key" + std::to_string(i * 7919);
      expected[key] = i;
      ASSERT_TRUE(HashTable_Insert(ht, key.c_str(), V(i)));
   }
   EXPECT_EQ(HashTable_GetNumElements(ht), 5000u);
   for (const auto &[key, n] : expected) {
      void *value = nullptr;
      ASSERT_TRUE(HashTable_Lookup(ht, key.c_str(), &value)) << key;
      EXPECT_EQ(value, V(n));
   }
   HashTable_Free(ht);
}

TEST_F(HashTableTest, SingleBucketTablesStillWork)
{
   /* 0 and 1 pass the power-of-two test; both must behave as one chain, not hang or overrun. */
   for (uint32_t buckets : {0u, 1u}) {
      HashTable *ht = HashTable_Alloc(buckets, HASH_STRING_KEY, nullptr);
      EXPECT_TRUE(HashTable_Insert(ht, "one", V(1)));
      EXPECT_TRUE(HashTable_Insert(ht, "two", V(2)));
      void *value = nullptr;
      EXPECT_TRUE(HashTable_Lookup(ht, "one", &value));
      EXPECT_EQ(value, V(1));
      EXPECT_EQ(HashTable_GetNumElements(ht), 2u);
      HashTable_Free(ht);
   }
}

TEST(HashTableDeathTest, BadBucketCountAndKeyType)
{
   EXPECT_PANIC(HashTable_Alloc(100, HASH_STRING_KEY, nullptr),
                "HashTable_Alloc only takes powers of 2 \n");
   HashTable *odd = HashTable_Alloc(8, 3, nullptr);
   EXPECT_PANIC(HashTable_Insert(odd, "k", nullptr), "NOT_REACHED lib/misc/hashTable:");
   HashTable_Free(odd);
}
