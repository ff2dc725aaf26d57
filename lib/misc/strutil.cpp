/*
 * Byte counts for people: "0 bytes", "1 byte", "1.5 KB", "1023.5 KB", "1 TB".
 */
#include <math.h>
#include <stdlib.h>

#include <cstdint>

#include "str.h"
#include "strutil.h"

extern "C" {

char *StrUtil_FormatByteCount(uint64_t size)
{
   static constexpr uint64_t kKilo = UINT64_C(1) << 10;
   static constexpr uint64_t kMega = UINT64_C(1) << 20;
   static constexpr uint64_t kGiga = UINT64_C(1) << 30;
   static constexpr uint64_t kTera = UINT64_C(1) << 40;

   const char *unitFormat;
   double value = static_cast<double>(size);
   unsigned precision = 1;
   if (size >= kTera) {
      unitFormat = "%s TB";
      value = ldexp(value, -40);
   } else if (size >= kGiga) {
      unitFormat = "%s GB";
      value = ldexp(value, -30);
   } else if (size >= kMega) {
      unitFormat = "%s MB";
      value = ldexp(value, -20);
   } else if (size >= kKilo) {
      unitFormat = "%s KB";
      value = ldexp(value, -10);
   } else {
      unitFormat = size == 1 ? "%s byte" : "%s bytes";
      precision = 0;
   }

   // A value that one decimal would show as n.0 (or nearly so) is shown as the whole n.
   double whole = floor(value + 0.5);
   if (fabs(value - whole) < 0.01) {
      value = whole;
      precision = 0;
   }

   char *numberFormat = Str_Asprintf(nullptr, "%%.%uf", precision);
   if (numberFormat == nullptr) {
      return nullptr;
   }
   char *number = Str_Asprintf(nullptr, numberFormat, value);
   free(numberFormat);
   if (number == nullptr) {
      return nullptr;
   }
   char *result = Str_Asprintf(nullptr, unitFormat, number);
   free(number);
   return result;
}

}  // extern "C"
