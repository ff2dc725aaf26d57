/*
 * A program outside the tree, built against an installed libtesmar: it touches a module from
 * each corner of the library that pulls in a separate link need (the C++ runtime, ICU through
 * the encoding converters, libcrypto through the location identifiers) and prints one line.
 */
#include <stdio.h>
#include <string.h>

#include <tesmar/codeset.h>
#include <tesmar/dynbuf.h>
#include <tesmar/hashTable.h>
#include <tesmar/str.h>
#include <tesmar/uuid.h>

int main(void)
{
   HashTable *table = HashTable_Alloc(16, HASH_STRING_KEY | HASH_FLAG_COPYKEY, NULL);
   HashTable_Insert(table, "answer", (void *)"42");
   void *value = NULL;
   char *utf8 = NULL;
   size_t utf8Size = 0;
   char *location = UUID_CreateLocation("/", 0);
   /* The converters are linked with ICU behind them, whichever one serves this text. */
   if (!HashTable_Lookup(table, "answer", &value) || location == NULL ||
       !CodeSet_Convert("ISO-8859-1", "caf\xe9", 4, "UTF-8", 0, &utf8, &utf8Size) ||
       utf8Size != 5 || memcmp(utf8, "caf\xc3\xa9", 5) != 0) {
      fputs("consumer: a library call failed\n", stderr);
      return 1;
   }
   DynBuf buf;
   DynBuf_Init(&buf);
   DynBuf_AppendString(&buf, Str_Asprintf(NULL, "answer=%s utf8=%zu uuid=%zu", (const char *)value,
                                          utf8Size, strlen(location)));
   puts(DynBuf_DetachString(&buf));
   return 0;
}
