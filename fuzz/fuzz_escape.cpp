/*
 * Feeds arbitrary bytes to the unescaping routines and checks the escaping round trips.
 *
 * The first input byte picks the escape character; the rest is the text.
 */
#include <string.h>

#include "escape.h"
#include "fuzzSupport.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
   if (size == 0) {
      return 0;
   }
   char esc = static_cast<char>(data[0]);
   const char *text = reinterpret_cast<const char *>(data + 1);
   size_t length = size - 1;

   // Undo never grows the text, and the fixed form agrees with the allocating one.
   size_t undoneSize = 0, escapedSize = 0;
   char *undone = static_cast<char *>(Escape_Undo(esc, text, length, &undoneSize));
   std::string fixed(length + 1, '\0');
   Check(undone != nullptr && undoneSize <= length && undone[undoneSize] == '\0' &&
         Escape_UndoFixed(esc, text, length, fixed.data(), fixed.size()) &&
         memcmp(fixed.data(), undone, undoneSize + 1) == 0 &&
         !Escape_UndoFixed(esc, text, length, fixed.data(), undoneSize));
   free(undone);

   // Escaping every escape character plus a data-chosen set, then undoing, gives the input.
   int table[256] = {};
   table[static_cast<unsigned char>(esc)] = 1;
   for (size_t i = 0; i < length; i += 3) {
      table[data[1 + i]] = 1;
   }
   char *escaped = static_cast<char *>(Escape_Do(esc, table, text, length, &escapedSize));
   char *back = static_cast<char *>(Escape_Undo(esc, escaped, escapedSize, &undoneSize));
   Check(back != nullptr && undoneSize == length && memcmp(back, text, length) == 0);
   free(back);
   free(escaped);

   // The NUL-terminated routines see the text up to its first NUL.
   std::string cstring(text, strnlen(text, length));
   Check(Take(Escape_Unescape(esc, cstring.c_str())).size() <= cstring.size());
   std::string commas = Take(Escape_Commas(cstring.c_str()));
   Check(Take(Escape_Unescape('\\', commas.c_str())) == cstring);

   std::string inPlace = cstring;
   Escape_UnescapeCString(inPlace.data());
   Check(strlen(inPlace.c_str()) <= cstring.size());
   const char *found = Escape_Strchr(esc, cstring.c_str(), ',');
   Check(found == nullptr ||
         (*found == ',' && found >= cstring.c_str() && found < cstring.c_str() + cstring.size()));
   return 0;
}
