/*
 * Feeds arbitrary names to the parser that recognises renumbered copies ("base-N.ext") and
 * checks that every name it accepts prints back from its parts, and that the copies it makes
 * from a number parse back to that number.
 *
 * The input is cut at NULs into a name, a base name and an extension.
 */
#include <string.h>

#include "file/fileInt.h"
#include "fuzzSupport.h"
#include "str.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
   std::string fields[3], input(reinterpret_cast<const char *>(data), size);
   for (size_t i = 0, at = 0; i < 3 && at <= size; at += fields[i++].size() + 1) {
      fields[i] = input.c_str() + at;
   }
   const std::string &name = fields[0], &base = fields[1], &ext = fields[2];

   uint32_t number = 0;
   if (FileRotateParseCopy(name.c_str(), base.c_str(), ext.c_str(), &number)) {
      Check(number != 0 &&
            name == Take(Str_SafeAsprintf(nullptr, "%s-%u%s", base.c_str(), number, ext.c_str())));
   }
   uint32_t n = 0, back = 0;
   memcpy(&n, data, size < 4 ? size : 4);
   n += n == 0;
   if (ext.find_first_of("0123456789") != 0) {
      std::string copy = Take(Str_SafeAsprintf(nullptr, "%s-%u%s", base.c_str(), n, ext.c_str()));
      Check(FileRotateParseCopy(copy.c_str(), base.c_str(), ext.c_str(), &back) && back == n);
   }
   return 0;
}
