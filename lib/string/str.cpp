/*
 * Str: bounded copying and formatting. Every routine succeeds, reports truncation by its
 * result, or panics; none returns a half-filled buffer without saying so.
 */
#include "str.h"

#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include "log.h"

#define BUFFER_TOO_SMALL() \
   Panic("%.*s:%d Buffer too small\n", Log_SourcePathLength(__FILE__), __FILE__, __LINE__)

namespace {

/*
 * Cuts an over-long result so that the buffer holds the longest NUL-terminated prefix that
 * ends on a whole UTF-8 character.
 */
void TruncateAtCharBoundary(char *buf, size_t size)
{
   if (size == 1) {
      buf[0] = '\0';
      return;
   }
   size_t last = size - 2;
   size_t i = last;
   while (i > 0 && ((unsigned char)buf[i] & 0xC0) == 0x80) {
      i--;
   }
   unsigned char lead = (unsigned char)buf[i];
   if (lead < 0x80) {
      buf[size - 1] = '\0';
      return;
   }
   size_t count = last - i + 1;
   // A lead byte announcing exactly `count` bytes has `count` high ones followed by a zero.
   bool complete = count <= 6 && ((int8_t)lead >> (7 - count)) == -2;
   buf[complete ? size - 1 : i] = '\0';
}

int FormatFixed(bool posix, char *buf, size_t size, const char *fmt, va_list args)
{
   char *out = buf;
   return posix ? bsd_vsnprintf_posix(&out, size, fmt, args) : bsd_vsnprintf(&out, size, fmt, args);
}

/* Str_Sprintf and Str_SprintfCLocale: format, or cut and panic when the output does not fit. */
int SprintfOrPanic(bool posix, char *buf, size_t size, const char *fmt, va_list args)
{
   int length = FormatFixed(posix, buf, size, fmt, args);
   if (length < 0 || (size_t)length >= size) {
      if (size != 0) {
         TruncateAtCharBoundary(buf, size);
      }
      BUFFER_TOO_SMALL();
   }
   return length;
}

}  // namespace

extern "C" {

int Str_Sprintf(char *buf, size_t maxSize, const char *fmt, ...)
{
   va_list args;
   va_start(args, fmt);
   int length = SprintfOrPanic(false, buf, maxSize, fmt, args);
   va_end(args);
   return length;
}

int Str_SprintfCLocale(char *buf, size_t maxSize, const char *fmt, ...)
{
   va_list args;
   va_start(args, fmt);
   int length = SprintfOrPanic(true, buf, maxSize, fmt, args);
   va_end(args);
   return length;
}

int Str_Vsnprintf(char *buf, size_t size, const char *fmt, va_list args)
{
   if (size == 0) {
      return -1;
   }
   int length = FormatFixed(false, buf, size, fmt, args);
   if (length < 0 || (size_t)length >= size) {
      TruncateAtCharBoundary(buf, size);
      return -1;
   }
   return length;
}

int Str_Snprintf(char *buf, size_t size, const char *fmt, ...)
{
   va_list args;
   va_start(args, fmt);
   int length = Str_Vsnprintf(buf, size, fmt, args);
   va_end(args);
   return length;
}

char *Str_Vasprintf(size_t *length, const char *fmt, va_list args)
{
   char *buf = nullptr;
   int result = bsd_vsnprintf(&buf, 0, fmt, args);
   if (result < 0) {
      return nullptr;
   }
   if (length != nullptr) {
      *length = (size_t)result;
   }
   return buf;
}

char *Str_Asprintf(size_t *length, const char *fmt, ...)
{
   va_list args;
   va_start(args, fmt);
   char *result = Str_Vasprintf(length, fmt, args);
   va_end(args);
   return result;
}

char *Str_SafeVasprintf(size_t *length, const char *fmt, va_list args)
{
   char *result = Str_Vasprintf(length, fmt, args);
   VERIFY(result != nullptr);
   return result;
}

char *Str_SafeAsprintf(size_t *length, const char *fmt, ...)
{
   va_list args;
   va_start(args, fmt);
   char *result = Str_SafeVasprintf(length, fmt, args);
   va_end(args);
   return result;
}

char *Str_Strcpy(char *dst, const char *src, size_t maxSize)
{
   size_t length = strlen(src);
   if (length >= maxSize) {
      BUFFER_TOO_SMALL();
   }
   return (char *)memcpy(dst, src, length + 1);
}

char *Str_Strncpy(char *dst, size_t dstSize, const char *src, size_t n)
{
   size_t length = Str_Strlen(src, n);
   if (length >= dstSize) {
      BUFFER_TOO_SMALL();
   }
   memcpy(dst, src, length);
   dst[length] = '\0';
   return dst;
}

char *Str_Strcat(char *dst, const char *src, size_t maxSize)
{
   size_t dstLength = strlen(dst);
   size_t srcLength = strlen(src);
   size_t total = dstLength + srcLength;
   if (total < srcLength || total >= maxSize) {
      BUFFER_TOO_SMALL();
   }
   memcpy(dst + dstLength, src, srcLength + 1);
   return dst;
}

char *Str_Strncat(char *dst, size_t dstSize, const char *src, size_t n)
{
   size_t dstLength = Str_Strlen(dst, dstSize);
   // A count larger than needed is fine as long as what is actually copied fits.
   if (!(dstLength + n < dstSize || dstLength + strlen(src) < dstSize)) {
      BUFFER_TOO_SMALL();
   }
   return strncat(dst, src, n);
}

size_t Str_Strlen(const char *src, size_t maxLen)
{
   const char *end = (const char *)memchr(src, '\0', maxLen);
   return end != nullptr ? (size_t)(end - src) : maxLen;
}

char *Str_Strnstr(const char *src, const char *sub, size_t n)
{
   size_t subLength = strlen(sub);
   if (subLength == 0) {
      return (char *)src;
   }
   size_t srcLength = Str_Strlen(src, n);
   return (char *)memmem(src, srcLength, sub, subLength);
}

char *Str_ToLower(char *string)
{
   for (char *p = string; *p != '\0'; p++) {
      if (*p >= 'A' && *p <= 'Z') {
         *p = (char)(*p + ('a' - 'A'));
      }
   }
   return string;
}

char *Str_ToUpper(char *string)
{
   for (char *p = string; *p != '\0'; p++) {
      if (*p >= 'a' && *p <= 'z') {
         *p = (char)(*p - ('a' - 'A'));
      }
   }
   return string;
}

}  // extern "C"
