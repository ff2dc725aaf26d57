/*
 * The host text readers: a /proc/<pid>/stat line (whose command name the process picks) and
 * os-release text. Neither may read outside its input or accept a start time that is not a
 * whole decimal field.
 */
#include "misc/hostinfoInt.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
   std::string_view text(reinterpret_cast<const char *>(data), size);
   uint64_t ticks;
   if (HostinfoParseStatStartTicks(text, &ticks) && text.rfind(')') == std::string_view::npos) {
      __builtin_trap();
   }
   std::string value;
   for (const char *key : {"NAME", "VERSION_ID", "ID"}) {
      if (HostinfoOSReleaseValue(text, key, &value) && value.size() > size) {
         __builtin_trap();
      }
   }
   return 0;
}
