/*
 * PROVISIONAL: stands in for the formatting engine until it lands; forwards to the C library.
 */
#include <stdio.h>
#include <stdlib.h>

#include "str.h"

extern "C" {

int bsd_vsnprintf(char **outbuf, size_t bufSize, const char *fmt, va_list args)
{
   if (*outbuf == nullptr) {
      char *result = nullptr;
      int length = vasprintf(&result, fmt, args);
      if (length < 0) {
         return -1;
      }
      *outbuf = result;
      return length;
   }
   return vsnprintf(*outbuf, bufSize, fmt, args);
}

int bsd_vsnprintf_posix(char **outbuf, size_t bufSize, const char *fmt, va_list args)
{
   return bsd_vsnprintf(outbuf, bufSize, fmt, args);
}

}  // extern "C"
