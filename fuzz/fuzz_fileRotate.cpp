/*
 * Feeds arbitrary names to the parser that recognises renumbered copies ("base-N.ext") and
 * checks that every name it accepts prints back from its parts, and that the copies it makes
 * from a number parse back to that number.
 *
 * The input is cut at NULs into a name, a base name and an extension.
 */
#include "file/fileInt.h"
#include "fuzzSupport.h"
#include "str.h"

using fuzz::Check;

static std::string Field(const std::string &input, size_t &at)
{
   size_t end = input.find('\0', at);
   std::string field = input.substr(at, end == std::string::npos ? std::string::npos : end - at);
   at = end == std::string::npos ? input.size() : end + 1;
   return field;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
   std::string input(reinterpret_cast<const char *>(data), size);
   size_t at = 0;
   std::string name = Field(input, at);
   std::string base = Field(input, at);
   std::string ext = Field(input, at);

   uint32_t number = 0;
   if (FileRotateParseCopy(name.c_str(), base.c_str(), ext.c_str(), &number)) {
      Check(number != 0 && name == fuzz::Take(Str_SafeAsprintf(nullptr, "%s-%u%s", base.c_str(),
                                                               number, ext.c_str())));
   }
   uint32_t n = 1;
   for (size_t i = 0; i < 4 && i < size; i++) {
      n = n * 251 + data[i];
   }
   n = n == 0 ? 1 : n;
   if (ext.find_first_of("0123456789") != 0) {
      char *copy = Str_SafeAsprintf(nullptr, "%s-%u%s", base.c_str(), n, ext.c_str());
      uint32_t back = 0;
      Check(FileRotateParseCopy(copy, base.c_str(), ext.c_str(), &back) && back == n);
      free(copy);
   }
   return 0;
}
