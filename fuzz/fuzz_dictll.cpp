/*
 * The configuration line codec: whatever a line reads as, writing the entry and reading it
 * again gives the same name and value, and a line is never read past its end.
 */
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include "dictll.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
   const char *buf = reinterpret_cast<const char *>(data);
   char *line;
   char *name;
   char *value;
   size_t lineLength;
   size_t valueLength;
   const char *next =
       DictLL_UnmarshalLineEx(buf, size, &line, &lineLength, &name, &value, &valueLength);
   if (size == 0) {
      if (next != nullptr || line != nullptr) {
         abort();
      }
      return 0;
   }
   if (next == nullptr || next <= buf || next > buf + size || lineLength > size ||
       memcmp(line, buf, lineLength) != 0) {
      abort();
   }
   if (name != nullptr) {
      DynBuf out;
      DynBuf_Init(&out);
      if (!DictLL_MarshalLineEx(&out, name, value, valueLength)) {
         abort();
      }
      char *line2;
      char *name2;
      char *value2;
      size_t lineLength2;
      size_t valueLength2;
      const char *text = static_cast<const char *>(DynBuf_Get(&out));
      const char *next2 = DictLL_UnmarshalLineEx(text, DynBuf_GetSize(&out), &line2, &lineLength2,
                                                 &name2, &value2, &valueLength2);
      if (next2 != text + DynBuf_GetSize(&out) || name2 == nullptr || strcmp(name, name2) != 0 ||
          valueLength2 != valueLength || memcmp(value, value2, valueLength) != 0) {
         abort();
      }
      free(line2);
      free(name2);
      free(value2);
      DynBuf_Destroy(&out);
   }
   free(line);
   free(name);
   free(value);
   return 0;
}
