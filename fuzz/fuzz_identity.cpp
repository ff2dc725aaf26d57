/*
 * Feeds arbitrary text to the identifier parser and to the product-state reader.
 *
 * A text the parser accepts must pack back to itself (hex digits in lower case). Whatever the
 * reader keeps of a text must survive writing and reading again unchanged.
 */
#include <ctype.h>
#include <string.h>

#include "fuzzSupport.h"
#include "productState/productStateInt.h"
#include "uuid.h"

namespace {

using fuzz::Check;

void CheckIdentifier(const std::string &text)
{
   uint8_t bytes[UUID_SIZE];
   if (!UUID_ParseText(text.c_str(), bytes)) {
      return;
   }
   std::string lower = text;
   for (char &c : lower) {
      c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
   }
   Check(lower == fuzz::Take(UUID_PackText(bytes)));
}

void CheckProductState(const std::string &text)
{
   constexpr uint32_t all = 0x01 | 0x02 | 0x04 | 0x08 | 0x10 | 0x80;
   ProductState first;
   first.Deserialize(text.c_str());
   std::string written = fuzz::Take(first.Serialize(all));
   ProductState second;
   Check(second.Deserialize(written.c_str()) && fuzz::Take(second.Serialize(all)) == written);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
   std::string text(reinterpret_cast<const char *>(data), size);
   text = text.c_str(); /* up to the first NUL, as C callers pass it */
   CheckIdentifier(text);
   CheckProductState(text);
   return 0;
}
