/*
 * The configuration line codec: whatever a line reads as, writing the entry and reading it
 * again gives the same name and value, and a line is never read past its end.
 */
#include <string.h>

#include "dictll.h"
#include "fuzzSupport.h"

/* Reads the first line of text; the line, name and value are freed when the owner goes. */
struct Line {
   char *line = nullptr, *name = nullptr, *value = nullptr;
   size_t lineLength = 0, valueLength = 0;
   const char *next;
   Line(const char *text, size_t size)
       : next(DictLL_UnmarshalLineEx(text, size, &line, &lineLength, &name, &value, &valueLength))
   {
   }
   ~Line()
   {
      free(line);
      free(name);
      free(value);
   }
};

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
   const char *buf = reinterpret_cast<const char *>(data);
   Line first(buf, size);
   Check(size == 0 ? first.next == nullptr && first.line == nullptr
                   : first.next > buf && first.next <= buf + size && first.lineLength <= size &&
                         memcmp(first.line, buf, first.lineLength) == 0);
   if (size != 0 && first.name != nullptr) {
      DynBuf out;
      DynBuf_Init(&out);
      Check(DictLL_MarshalLineEx(&out, first.name, first.value, first.valueLength));
      const char *text = static_cast<const char *>(DynBuf_Get(&out));
      Line again(text, DynBuf_GetSize(&out));
      Check(again.next == text + DynBuf_GetSize(&out) && again.name != nullptr &&
            strcmp(first.name, again.name) == 0 && again.valueLength == first.valueLength &&
            memcmp(first.value, again.value, first.valueLength) == 0);
      DynBuf_Destroy(&out);
   }
   return 0;
}
