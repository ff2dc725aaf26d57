/*
 * The encoding-name table, name lookup with its cache, the current encoding and the one-time
 * initialisation of the conversion layer.
 */
#include <ctype.h>
#include <string.h>

#include <atomic>
#include <new>

#include "codeset.h"
#include "hashTable.h"
#include "log.h"
#include "unicodeInt.h"
#include "unicodeTypes.h"

namespace {

const UnicodeEncodingRow kEncodingTable[] = {
#include "encodingTable.inc"
};
constexpr size_t kEncodingRows = sizeof kEncodingTable / sizeof kEncodingTable[0];
static_assert(kEncodingRows == 325, "the encoding table has 325 rows");

constexpr uint32_t kCacheBuckets = 128;

/* Name -> row, filled by lookups; installed by compare-and-swap on first use. */
HashTable *gNameCache;
std::atomic<StringEncoding> gCurrentEncoding{STRING_ENCODING_UNKNOWN};

bool IsAlnum(unsigned char c)
{
   return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

unsigned char Lower(unsigned char c)
{
   return c >= 'A' && c <= 'Z' ? (unsigned char)(c - 'A' + 'a') : c;
}

/* Whether name reduces (letters and digits, lower-cased) to the already reduced text. */
bool ReducedEquals(const char *name, const char *reduced)
{
   const unsigned char *p = (const unsigned char *)name;
   const unsigned char *r = (const unsigned char *)reduced;
   for (; *p != '\0'; p++) {
      if (!IsAlnum(*p)) {
         continue;
      }
      if (Lower(*p) != *r) {
         return false;
      }
      r++;
   }
   return *r == '\0';
}

/* The row of a "windows-<digits>" name by its code page; NULL when it is none or no row has it. */
const UnicodeEncodingRow *FindByCodePage(const char *name)
{
   if (strncmp(name, "windows-", 8) != 0 && strncmp(name, "Windows-", 8) != 0) {
      return nullptr;
   }
   uint64_t codePage = 0;
   for (const char *p = name + 8; *p != '\0'; p++) {
      if (*p < '0' || *p > '9') {
         return nullptr;
      }
      codePage = codePage * 10 + (uint64_t)(*p - '0');
      if (codePage > UINT32_MAX) {
         return nullptr;
      }
   }
   for (const UnicodeEncodingRow &row : kEncodingTable) {
      if (row.windowsCodePage == codePage) {
         return &row;
      }
   }
   return nullptr;
}

const UnicodeEncodingRow *FindByExactName(const char *name)
{
   for (const UnicodeEncodingRow &row : kEncodingTable) {
      for (const char *const *n = row.names; *n != nullptr; n++) {
         if (strcmp(*n, name) == 0) {
            return &row;
         }
      }
   }
   return nullptr;
}

const UnicodeEncodingRow *FindByReducedName(const char *name)
{
   size_t length = strlen(name);
   char stackBuf[64];
   char *reduced = length < sizeof stackBuf ? stackBuf : new (std::nothrow) char[length + 1];
   if (reduced == nullptr) {
      return nullptr;
   }
   size_t k = 0;
   for (const unsigned char *p = (const unsigned char *)name; *p != '\0'; p++) {
      if (IsAlnum(*p)) {
         reduced[k++] = (char)Lower(*p);
      }
   }
   reduced[k] = '\0';
   const UnicodeEncodingRow *found = nullptr;
   for (size_t i = 0; i < kEncodingRows && found == nullptr; i++) {
      for (const char *const *n = kEncodingTable[i].names; *n != nullptr; n++) {
         if (ReducedEquals(*n, reduced)) {
            found = &kEncodingTable[i];
            break;
         }
      }
   }
   if (reduced != stackBuf) {
      delete[] reduced;
   }
   return found;
}

StringEncoding EncodingOf(const UnicodeEncodingRow *row)
{
   return row->supported ? row->encoding : STRING_ENCODING_UNKNOWN;
}

}  // namespace

const UnicodeEncodingRow *UnicodeEncodingTable(size_t *count)
{
   *count = kEncodingRows;
   return kEncodingTable;
}

const UnicodeEncodingRow *UnicodeFindEncodingRow(const char *name)
{
   const UnicodeEncodingRow *row = FindByCodePage(name);
   if (row == nullptr) {
      row = FindByExactName(name);
   }
   if (row == nullptr) {
      row = FindByReducedName(name);
   }
   return row;
}

extern "C" {

StringEncoding UnicodeIANALookup(const char *name)
{
   if (name == nullptr) {
      return STRING_ENCODING_UNKNOWN;
   }
   HashTable *cache =
       HashTable_AllocShared(&gNameCache, kCacheBuckets,
                             HASH_ISTRING_KEY | HASH_FLAG_ATOMIC | HASH_FLAG_COPYKEY, nullptr);
   void *cached;
   if (HashTable_Lookup(cache, name, &cached)) {
      return EncodingOf((const UnicodeEncodingRow *)cached);
   }
   const UnicodeEncodingRow *row = UnicodeFindEncodingRow(name);
   if (row == nullptr) {
      Log("%s: Did not find an IANA match for encoding \"%s\"\n", "UnicodeIANALookup", name);
      return STRING_ENCODING_UNKNOWN;
   }
   HashTable_Insert(cache, name, (void *)row);
   return EncodingOf(row);
}

StringEncoding Unicode_EncodingNameToEnum(const char *name)
{
   return UnicodeIANALookup(name);
}

const char *Unicode_EncodingEnumToName(StringEncoding encoding)
{
   for (const UnicodeEncodingRow &row : kEncodingTable) {
      if (row.encoding == encoding) {
         return row.names[row.preferredName];
      }
   }
   Log("%s: Unknown encoding %d.\n", "Unicode_EncodingEnumToName", encoding);
   NOT_REACHED();
}

StringEncoding Unicode_ResolveEncoding(StringEncoding encoding)
{
   if (encoding != STRING_ENCODING_DEFAULT) {
      return encoding;
   }
   StringEncoding current = gCurrentEncoding.load(std::memory_order_relaxed);
   if (current == STRING_ENCODING_UNKNOWN) {
      current = UnicodeIANALookup(CodeSet_GetCurrentCodeSet());
      gCurrentEncoding.store(current, std::memory_order_relaxed);
   }
   return current;
}

StringEncoding Unicode_GetCurrentEncoding(void)
{
   return Unicode_ResolveEncoding(STRING_ENCODING_DEFAULT);
}

bool Unicode_IsEncodingValid(StringEncoding encoding)
{
   return encoding < STRING_ENCODING_MAX_SPECIFIED;
}

void Unicode_Shutdown(void)
{
   HashTable_Free(gNameCache);
   gNameCache = nullptr;
}

}  // extern "C"
