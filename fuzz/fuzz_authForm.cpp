/*
 * Transferable authorization forms come from other processes: Id_AuthSet must refuse every
 * form but one that names a live process by its exact start time, and never read past size.
 */
#include <vector>

#include "id.h"
#include "log.h"
#include "misc/idInt.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
   [[maybe_unused]] static bool quiet = (Log_SetOutputFd(-1), true);
   std::vector<uint8_t> form(data, data + size);  // exactly size bytes, for the sanitizer
   if (Id_AuthSet(form.data(), size)) {
      IdAuthCacheDiscard();
   }
   return 0;
}
