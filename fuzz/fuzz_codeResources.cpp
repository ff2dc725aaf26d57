/* The CodeResources reader over arbitrary property lists. */
#include "codeSign.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
   char identifier[256];
   size_t count;
   CodeSignParseResources(data, size, identifier, sizeof identifier, &count);
   return 0;
}
