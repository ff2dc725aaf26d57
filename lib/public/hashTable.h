/*
 * HashTable: a chained hash table with a fixed power-of-two bucket count, string,
 * case-insensitive string or pointer-sized keys, and an optional lock-free (atomic) mode in
 * which several threads may insert, look up and replace values at once.
 */
#ifndef TESMAR_HASHTABLE_H
#define TESMAR_HASHTABLE_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct HashTable HashTable;

typedef void (*HashTableFreeEntryFn)(void *value);
typedef int (*HashTableForEachCallback)(const void *key, void *value, void *clientData);

/* Creation flags: bits 0-2 the key type, then the mode bits. */
#define HASH_STRING_KEY 0  /* NUL-terminated string, compared exactly */
#define HASH_ISTRING_KEY 1 /* string compared without regard to case */
#define HASH_INT_KEY 2     /* pointer-sized value compared by identity */
#define HASH_FLAG_ATOMIC 0x08
#define HASH_FLAG_COPYKEY 0x10

HashTable *HashTable_Alloc(uint32_t numBuckets, int flags, HashTableFreeEntryFn freeFn);
HashTable *HashTable_AllocShared(HashTable **var, uint32_t numBuckets, int flags,
                                 HashTableFreeEntryFn freeFn);
void HashTable_Free(HashTable *ht);
void HashTable_Clear(HashTable *ht);
bool HashTable_Lookup(const HashTable *ht, const void *key, void **value);
bool HashTable_Insert(HashTable *ht, const void *key, void *value);
void *HashTable_LookupOrInsert(HashTable *ht, const void *key, void *value);
bool HashTable_ReplaceOrInsert(HashTable *ht, const void *key, void *value);
bool HashTable_ReplaceIfValue(HashTable *ht, const void *key, void *oldValue, void *newValue);
bool HashTable_Delete(HashTable *ht, const void *key);
bool HashTable_LookupAndDelete(HashTable *ht, const void *key, void **value);
uint32_t HashTable_GetNumElements(const HashTable *ht);
void HashTable_KeyArray(const HashTable *ht, const void ***keys, size_t *count);
void HashTable_ValueArray(const HashTable *ht, void ***values, size_t *count);
int HashTable_ForEach(const HashTable *ht, HashTableForEachCallback cb, void *clientData);

#ifdef __cplusplus
}
#endif

#endif
