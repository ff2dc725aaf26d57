/*
 * Cached error texts: one process-wide table from number to entry and one from text to entry.
 * Entries are never freed, so a text handed out once stays valid; concurrent first uses of one
 * number agree on a single entry (insert or take the one already there).
 */
#include "err.h"

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "hashTable.h"
#include "str.h"
#include "util.h"

namespace {

constexpr uint32_t kNumBuckets = 2048;
constexpr size_t kBufferSize = 2048;

struct ErrInfo {
   Err_Number number;
   char *text;
};

HashTable *gNumTable = nullptr;
HashTable *gStrTable = nullptr;

HashTable *ErrTable(HashTable **slot, int keyType)
{
   HashTable *table = __atomic_load_n(slot, __ATOMIC_ACQUIRE);
   if (table == nullptr) {
      table = HashTable_AllocShared(slot, kNumBuckets, keyType | HASH_FLAG_ATOMIC, nullptr);
   }
   return table;
}

/* The system's text, with a final UTF-8 sequence that the buffer cut short removed. */
char *ErrSystemText(Err_Number number)
{
   char buf[kBufferSize];
   buf[0] = '\0';
   // The GNU strerror_r may return a static text instead of filling buf.
   const char *text = strerror_r(number, buf, sizeof buf);
   if (text == nullptr || *text == '\0') {
      Str_Sprintf(buf, sizeof buf, "Unknown error %d", number);
      text = buf;
   }
   size_t len = strnlen(text, kBufferSize - 1);
   size_t end = len;
   size_t lead = end;
   while (lead > 0 && (static_cast<unsigned char>(text[lead - 1]) & 0xC0) == 0x80) {
      lead--;
   }
   if (lead > 0 && static_cast<unsigned char>(text[lead - 1]) >= 0xC0) {
      unsigned char c = static_cast<unsigned char>(text[lead - 1]);
      size_t need = c >= 0xF0 ? 4 : c >= 0xE0 ? 3 : 2;
      if (end - (lead - 1) < need) {
         len = lead - 1;
      }
   }
   return Util_SafeStrndup(text, len);
}

}  // namespace

extern "C" {

const char *Err_Errno2String(Err_Number errorNumber)
{
   int savedErrno = errno;
   HashTable *numTable = ErrTable(&gNumTable, HASH_INT_KEY);
   void *key = reinterpret_cast<void *>(static_cast<intptr_t>(errorNumber));
   void *found = nullptr;
   ErrInfo *info;
   if (HashTable_Lookup(numTable, key, &found)) {
      info = static_cast<ErrInfo *>(found);
   } else {
      auto *fresh = static_cast<ErrInfo *>(Util_SafeMalloc(sizeof(ErrInfo)));
      fresh->number = errorNumber;
      fresh->text = ErrSystemText(errorNumber);
      info = static_cast<ErrInfo *>(HashTable_LookupOrInsert(numTable, key, fresh));
      if (info != fresh) {
         free(fresh->text);
         free(fresh);
      } else {
         HashTable_LookupOrInsert(ErrTable(&gStrTable, HASH_STRING_KEY), info->text, info);
      }
   }
   errno = savedErrno;
   return info->text;
}

const char *Err_ErrString(void)
{
   return Err_Errno2String(errno);
}

Err_Number Err_String2Errno(const char *text)
{
   HashTable *strTable = __atomic_load_n(&gStrTable, __ATOMIC_ACQUIRE);
   void *found = nullptr;
   if (text == nullptr || strTable == nullptr || !HashTable_Lookup(strTable, text, &found)) {
      return -1;
   }
   return static_cast<ErrInfo *>(found)->number;
}

}  // extern "C"
