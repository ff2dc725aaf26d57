/*
 * Feeds arbitrary text to the identifier parser and to the product-state reader.
 *
 * A text the parser accepts must pack back to itself (hex digits in lower case). Whatever the
 * reader keeps of a text must survive writing and reading again unchanged.
 */
#include <string.h>
#include <strings.h>

#include "fuzzSupport.h"
#include "productState/productStateInt.h"
#include "uuid.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
   // Up to the first NUL, as C callers pass it.
   std::string text = std::string(reinterpret_cast<const char *>(data), size).c_str();
   uint8_t bytes[UUID_SIZE];
   Check(!UUID_ParseText(text.c_str(), bytes) ||
         strcasecmp(text.c_str(), Take(UUID_PackText(bytes)).c_str()) == 0);

   constexpr uint32_t all = 0x01 | 0x02 | 0x04 | 0x08 | 0x10 | 0x80;
   ProductState first, second;
   first.Deserialize(text.c_str());
   std::string written = Take(first.Serialize(all));
   Check(second.Deserialize(written.c_str()) && Take(second.Serialize(all)) == written);
   return 0;
}
