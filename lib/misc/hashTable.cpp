/*
 * HashTable: a chained hash table with a fixed power-of-two bucket count.
 *
 * New entries always become the head of their chain. That is what makes the atomic mode
 * lock-free: an insertion swings the bucket head with a compare-and-swap against the head it
 * searched, and when another thread got there first it only has to search the entries added in
 * front of that head. Values are replaced with atomic exchanges. Removal, clearing and
 * destruction are never concurrent with anything else, so they use plain accesses.
 *
 * Each entry caches the full 32-bit hash and the length of its key; a lookup compares them
 * before the keys, so almost every string comparison on a chain is skipped. A copied key lives
 * in the same block as its entry.
 */
#include <ctype.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include <atomic>
#include <new>

#include "internal/publishOnce.h"
#include "hashTable.h"
#include "log.h"
#include "util.h"

namespace {

constexpr int kKeyTypeMask = 0x07;

struct HashTableEntry {
   HashTableEntry *next;
   const void *key;
   void *value;
   uint32_t hash;      /* before folding */
   uint32_t keyLength; /* of a string key, at most kLongKey */
};

/* String keys this long or longer are told apart by their text alone. */
constexpr uint32_t kLongKey = UINT32_MAX;

}  // namespace

struct HashTable {
   uint32_t numBuckets;
   uint32_t numBits;
   uint32_t mask;
   int keyType;
   bool atomic;
   bool copyKeys;
   HashTableFreeEntryFn freeFn;
   HashTableEntry **buckets;
   std::atomic<uint32_t> numEntries;
};

namespace {

/*
 * Shared links and values are read with acquire loads, which pair with the release
 * compare-and-swap that publishes an entry. On this kind of hardware they cost what a plain
 * load costs, so the non-atomic mode uses them too.
 */
template <typename T>
T *LoadAcquire(T *&slot)
{
   return std::atomic_ref<T *>(slot).load(std::memory_order_acquire);
}

uint32_t RotateLeft5(uint32_t h)
{
   return (h << 5) | (h >> 27);
}

/* A key's hash and, for a string, its length. */
struct KeyHash {
   uint32_t hash;
   uint32_t length;
};

uint32_t Saturated(size_t length)
{
   return length < kLongKey ? static_cast<uint32_t>(length) : kLongKey;
}

/*
 * The string hash rotates the running value left by five after each byte. The length is found
 * first so that the loop needs no end test per byte: fewer instructions per key leave the
 * processor room to overlap the memory accesses of successive lookups.
 */
__attribute__((always_inline)) inline KeyHash HashString(const unsigned char *s)
{
   size_t length = strlen(reinterpret_cast<const char *>(s));
   uint32_t h = 0;
   size_t i = 0;
   for (; i + 4 <= length; i += 4) {
      h = RotateLeft5(h ^ s[i]);
      h = RotateLeft5(h ^ s[i + 1]);
      h = RotateLeft5(h ^ s[i + 2]);
      h = RotateLeft5(h ^ s[i + 3]);
   }
   for (; i < length; i++) {
      h = RotateLeft5(h ^ s[i]);
   }
   return {h, Saturated(length)};
}

KeyHash HashKey(const HashTable *ht, const void *key)
{
   switch (ht->keyType) {
      case HASH_STRING_KEY:
         return HashString(static_cast<const unsigned char *>(key));
      case HASH_ISTRING_KEY: {
         uint32_t h = 0;
         const unsigned char *s = static_cast<const unsigned char *>(key);
         for (; *s != '\0'; s++) {
            h = RotateLeft5(h ^ static_cast<uint32_t>(tolower(*s)));
         }
         return {h, Saturated(static_cast<size_t>(s - static_cast<const unsigned char *>(key)))};
      }
      case HASH_INT_KEY: {
         uint64_t k = reinterpret_cast<uintptr_t>(key);
         return {(static_cast<uint32_t>(k >> 32) ^ static_cast<uint32_t>(k)) * 48271u, 0};
      }
      default:
         NOT_REACHED();
   }
}

/* Folds a full hash down to a bucket index. */
uint32_t BucketOf(const HashTable *ht, uint32_t hash)
{
   if (ht->mask == 0) {
      return 0; /* one bucket: folding could never reduce a non-zero hash */
   }
   while (hash > ht->mask) {
      hash = (hash >> ht->numBits) ^ (hash & ht->mask);
   }
   return hash;
}

/* Whether e holds the case-sensitive string key whose hash and length are kh. */
bool StringKeyIs(const HashTableEntry *e, const char *key, KeyHash kh)
{
   return e->hash == kh.hash && e->keyLength == kh.length &&
          (kh.length == kLongKey ? strcmp(static_cast<const char *>(e->key), key) == 0
                                 : memcmp(e->key, key, kh.length) == 0);
}

bool KeysEqual(const HashTable *ht, const HashTableEntry *e, const void *key, KeyHash kh)
{
   switch (ht->keyType) {
      case HASH_INT_KEY:
         return e->key == key;
      case HASH_ISTRING_KEY:
         return e->hash == kh.hash && e->keyLength == kh.length &&
                strcasecmp(static_cast<const char *>(e->key), static_cast<const char *>(key)) == 0;
      default:
         return StringKeyIs(e, static_cast<const char *>(key), kh);
   }
}

/* Searches the chain from `from` up to (not including) `stop`. */
HashTableEntry *SearchChain(const HashTable *ht, HashTableEntry *from, HashTableEntry *stop,
                            const void *key, KeyHash kh)
{
   for (HashTableEntry *e = from; e != stop; e = LoadAcquire(e->next)) {
      if (KeysEqual(ht, e, key, kh)) {
         return e;
      }
   }
   return nullptr;
}

/* Case-sensitive string keys, the common kind, take a path with nothing to decide per entry. */
HashTableEntry *FindString(const HashTable *ht, const char *key)
{
   KeyHash kh = HashString(reinterpret_cast<const unsigned char *>(key));
   for (HashTableEntry *e = LoadAcquire(ht->buckets[BucketOf(ht, kh.hash)]); e != nullptr;
        e = LoadAcquire(e->next)) {
      if (StringKeyIs(e, key, kh)) {
         return e;
      }
   }
   return nullptr;
}

HashTableEntry *FindEntry(const HashTable *ht, const void *key)
{
   if (ht->keyType == HASH_STRING_KEY) {
      return FindString(ht, static_cast<const char *>(key));
   }
   KeyHash kh = HashKey(ht, key);
   return SearchChain(ht, LoadAcquire(ht->buckets[BucketOf(ht, kh.hash)]), nullptr, key, kh);
}

HashTableEntry *NewEntry(const HashTable *ht, const void *key, void *value, KeyHash kh)
{
   HashTableEntry *e;
   if (ht->copyKeys && ht->keyType != HASH_INT_KEY) {
      size_t length = strlen(static_cast<const char *>(key)) + 1;
      e = static_cast<HashTableEntry *>(Util_SafeMalloc(sizeof *e + length));
      char *copy = reinterpret_cast<char *>(e + 1);
      memcpy(copy, key, length);
      e->key = copy;
   } else {
      e = static_cast<HashTableEntry *>(Util_SafeMalloc(sizeof *e));
      e->key = key;
   }
   e->next = nullptr;
   e->value = value;
   e->hash = kh.hash;
   e->keyLength = kh.length;
   return e;
}

/* Releases an entry (and its key copy, which shares its block); the value is not touched. */
void FreeEntry(HashTableEntry *e)
{
   free(e);
}

void DropValue(const HashTable *ht, void *value)
{
   if (ht->freeFn != nullptr) {
      ht->freeFn(value);
   }
}

/*
 * Inserts key/value unless the key is present. Returns the present entry, or nullptr when the
 * new entry went in.
 */
HashTableEntry *InsertUnlessPresent(HashTable *ht, const void *key, void *value)
{
   KeyHash kh = HashKey(ht, key);
   HashTableEntry **bucket = &ht->buckets[BucketOf(ht, kh.hash)];
   HashTableEntry *head = LoadAcquire(*bucket);
   HashTableEntry *found = SearchChain(ht, head, nullptr, key, kh);
   if (found != nullptr) {
      return found;
   }
   HashTableEntry *entry = NewEntry(ht, key, value, kh);
   if (!ht->atomic) {
      entry->next = head;
      *bucket = entry;
      ht->numEntries.store(ht->numEntries.load(std::memory_order_relaxed) + 1,
                           std::memory_order_relaxed);
      return nullptr;
   }
   std::atomic_ref<HashTableEntry *> headRef(*bucket);
   for (;;) {
      entry->next = head;
      HashTableEntry *searched = head;
      if (headRef.compare_exchange_weak(head, entry, std::memory_order_release,
                                        std::memory_order_acquire)) {
         break;
      }
      /* Someone changed the head; only the entries in front of the one we searched are new. */
      found = SearchChain(ht, head, searched, key, kh);
      if (found != nullptr) {
         FreeEntry(entry);
         return found;
      }
   }
   ht->numEntries.fetch_add(1, std::memory_order_relaxed);
   return nullptr;
}

void ReplaceValue(HashTable *ht, HashTableEntry *e, void *value)
{
   void *old;
   if (ht->atomic) {
      old = std::atomic_ref<void *>(e->value).exchange(value, std::memory_order_acq_rel);
   } else {
      old = e->value;
      e->value = value;
   }
   DropValue(ht, old);
}

void ClearBuckets(HashTable *ht)
{
   for (uint32_t i = 0; i < ht->numBuckets; i++) {
      HashTableEntry *e = ht->buckets[i];
      ht->buckets[i] = nullptr;
      while (e != nullptr) {
         HashTableEntry *next = e->next;
         DropValue(ht, e->value);
         FreeEntry(e);
         e = next;
      }
   }
   ht->numEntries.store(0, std::memory_order_relaxed);
}

/* Visits every entry, bucket by bucket and each chain from its head, until fn returns non-zero. */
template <typename Fn>
int VisitEntries(const HashTable *ht, Fn fn)
{
   for (uint32_t i = 0; i < ht->numBuckets; i++) {
      for (HashTableEntry *e = LoadAcquire(ht->buckets[i]); e != nullptr;
           e = LoadAcquire(e->next)) {
         int result = fn(e);
         if (result != 0) {
            return result;
         }
      }
   }
   return 0;
}

uint32_t Log2(uint32_t powerOfTwo)
{
   uint32_t bits = 0;
   while (powerOfTwo > 1) {
      powerOfTwo >>= 1;
      bits++;
   }
   return bits;
}

}  // namespace

extern "C" {

HashTable *HashTable_Alloc(uint32_t numBuckets, int flags, HashTableFreeEntryFn freeFn)
{
   if ((numBuckets & (numBuckets - 1)) != 0) {
      Panic("%s only takes powers of 2 \n", "HashTable_Alloc");
   }
   /* Counts 0 and 1 both get one bucket, so that no key can index past the array. */
   uint32_t usable = numBuckets == 0 ? 1 : numBuckets;
   void *memory = Util_SafeMalloc(sizeof(HashTable));
   HashTable *ht = new (memory) HashTable;
   ht->numBuckets = usable;
   ht->numBits = Log2(usable);
   ht->mask = usable - 1;
   ht->keyType = flags & kKeyTypeMask;
   ht->atomic = (flags & HASH_FLAG_ATOMIC) != 0;
   ht->copyKeys = (flags & HASH_FLAG_COPYKEY) != 0;
   ht->freeFn = freeFn;
   ht->buckets = static_cast<HashTableEntry **>(Util_SafeCalloc(usable, sizeof(HashTableEntry *)));
   ht->numEntries.store(0, std::memory_order_relaxed);
   return ht;
}

HashTable *HashTable_AllocShared(HashTable **var, uint32_t numBuckets, int flags,
                                 HashTableFreeEntryFn freeFn)
{
   return tesmar::GetOrPublish(
       var, [&] { return HashTable_Alloc(numBuckets, flags, freeFn); }, HashTable_Free);
}

void HashTable_Free(HashTable *ht)
{
   if (ht == nullptr) {
      return;
   }
   ClearBuckets(ht);
   free(ht->buckets);
   ht->~HashTable();
   free(ht);
}

void HashTable_Clear(HashTable *ht)
{
   ClearBuckets(ht);
}

bool HashTable_Lookup(const HashTable *ht, const void *key, void **value)
{
   HashTableEntry *e = FindEntry(ht, key);
   if (e == nullptr) {
      return false;
   }
   if (value != nullptr) {
      *value = LoadAcquire(e->value);
   }
   return true;
}

bool HashTable_Insert(HashTable *ht, const void *key, void *value)
{
   return InsertUnlessPresent(ht, key, value) == nullptr;
}

void *HashTable_LookupOrInsert(HashTable *ht, const void *key, void *value)
{
   HashTableEntry *present = InsertUnlessPresent(ht, key, value);
   return present == nullptr ? value : LoadAcquire(present->value);
}

bool HashTable_ReplaceOrInsert(HashTable *ht, const void *key, void *value)
{
   HashTableEntry *present = FindEntry(ht, key);
   if (present == nullptr) {
      present = InsertUnlessPresent(ht, key, value);
      if (present == nullptr) {
         return false;
      }
   }
   ReplaceValue(ht, present, value);
   return true;
}

bool HashTable_ReplaceIfValue(HashTable *ht, const void *key, void *oldValue, void *newValue)
{
   HashTableEntry *e = FindEntry(ht, key);
   if (e == nullptr) {
      return false;
   }
   if (ht->atomic) {
      void *expected = oldValue;
      if (!std::atomic_ref<void *>(e->value).compare_exchange_strong(
              expected, newValue, std::memory_order_acq_rel, std::memory_order_acquire)) {
         return false;
      }
   } else {
      if (e->value != oldValue) {
         return false;
      }
      e->value = newValue;
   }
   DropValue(ht, oldValue);
   return true;
}

bool HashTable_LookupAndDelete(HashTable *ht, const void *key, void **value)
{
   KeyHash kh = HashKey(ht, key);
   for (HashTableEntry **link = &ht->buckets[BucketOf(ht, kh.hash)]; *link != nullptr;
        link = &(*link)->next) {
      HashTableEntry *e = *link;
      if (!KeysEqual(ht, e, key, kh)) {
         continue;
      }
      *link = e->next;
      ht->numEntries.fetch_sub(1, std::memory_order_relaxed);
      if (value != nullptr) {
         *value = e->value;
      } else {
         DropValue(ht, e->value);
      }
      FreeEntry(e);
      return true;
   }
   return false;
}

bool HashTable_Delete(HashTable *ht, const void *key)
{
   return HashTable_LookupAndDelete(ht, key, nullptr);
}

uint32_t HashTable_GetNumElements(const HashTable *ht)
{
   return ht->numEntries.load(std::memory_order_relaxed);
}

void HashTable_KeyArray(const HashTable *ht, const void ***keys, size_t *count)
{
   size_t n = HashTable_GetNumElements(ht);
   *keys = nullptr;
   *count = 0;
   if (n == 0) {
      return;
   }
   const void **array = static_cast<const void **>(Util_SafeMalloc(n * sizeof *array));
   size_t filled = 0;
   VisitEntries(ht, [&](HashTableEntry *e) {
      array[filled++] = e->key;
      return filled == n ? 1 : 0;
   });
   *keys = array;
   *count = filled;
}

void HashTable_ValueArray(const HashTable *ht, void ***values, size_t *count)
{
   size_t n = HashTable_GetNumElements(ht);
   *values = nullptr;
   *count = 0;
   if (n == 0) {
      return;
   }
   void **array = static_cast<void **>(Util_SafeMalloc(n * sizeof *array));
   size_t filled = 0;
   VisitEntries(ht, [&](HashTableEntry *e) {
      array[filled++] = LoadAcquire(e->value);
      return filled == n ? 1 : 0;
   });
   *values = array;
   *count = filled;
}

int HashTable_ForEach(const HashTable *ht, HashTableForEachCallback cb, void *clientData)
{
   return VisitEntries(
       ht, [&](HashTableEntry *e) { return cb(e->key, LoadAcquire(e->value), clientData); });
}

}  // extern "C"
