/*
 * The configuration line codec: whatever a line reads as, writing the entry and reading it
 * again gives the same name and value, and a line is never read past its end.
 */
#include <string.h>

#include "dictll.h"
#include "fuzzSupport.h"

using fuzz::Check;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
   const char *buf = reinterpret_cast<const char *>(data);
   char *line, *name, *value;
   size_t lineLength, valueLength;
   const char *next =
       DictLL_UnmarshalLineEx(buf, size, &line, &lineLength, &name, &value, &valueLength);
   if (size == 0) {
      Check(next == nullptr && line == nullptr);
      return 0;
   }
   Check(next != nullptr && next > buf && next <= buf + size && lineLength <= size &&
         memcmp(line, buf, lineLength) == 0);
   if (name != nullptr) {
      DynBuf out;
      DynBuf_Init(&out);
      Check(DictLL_MarshalLineEx(&out, name, value, valueLength));
      char *line2, *name2, *value2;
      size_t lineLength2, valueLength2;
      const char *text = static_cast<const char *>(DynBuf_Get(&out));
      const char *next2 = DictLL_UnmarshalLineEx(text, DynBuf_GetSize(&out), &line2, &lineLength2,
                                                 &name2, &value2, &valueLength2);
      Check(next2 == text + DynBuf_GetSize(&out) && name2 != nullptr && strcmp(name, name2) == 0 &&
            valueLength2 == valueLength && memcmp(value, value2, valueLength) == 0);
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
