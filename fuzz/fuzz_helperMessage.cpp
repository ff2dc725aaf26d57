/*
 * The helper's message decoder over arbitrary datagrams: whatever arrives, it returns a status,
 * and a decoded dictionary encodes and decodes again.
 */
#include "fuzzSupport.h"
#include "privilegedHelperInt.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
   plist_t dict = nullptr;
   if (PrivilegedHelperDecode(data, size, &dict) != PRIVILEGED_HELPER_DECODED) {
      return 0;
   }
   char *raw = nullptr;
   uint32_t length = 0;
   plist_to_bin(dict, &raw, &length);
   plist_t again = nullptr;
   Check(raw == nullptr || length > PRIVILEGED_HELPER_MAX_MESSAGE ||
         PrivilegedHelperDecode((const uint8_t *)raw, length, &again) == PRIVILEGED_HELPER_DECODED);
   plist_free(again);
   plist_to_bin_free(raw);
   plist_free(dict);
   return 0;
}
