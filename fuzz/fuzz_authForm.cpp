/*
 * Transferable authorization forms come from other processes: Id_AuthSet must refuse every
 * form but one that names a live process by its exact start time, and never read past size.
 */
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>

#include "id.h"
#include "log.h"
#include "misc/idInt.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
   static bool quiet = (Log_SetOutputFd(-1), true);
   (void)quiet;
   /* A copy of exactly size bytes, so that the sanitizer sees any read beyond it. */
   uint8_t *form = static_cast<uint8_t *>(malloc(size == 0 ? 1 : size));
   for (size_t i = 0; i < size; i++) {
      form[i] = data[i];
   }
   if (Id_AuthSet(form, size)) {
      IdAuthCacheDiscard();
   }
   free(form);
   return 0;
}
