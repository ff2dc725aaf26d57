/*
 * Making system strings from encoded buffers and encoding them back.
 */
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include "codeset.h"
#include "dynbuf.h"
#include "escape.h"
#include "log.h"
#include "strutil.h"
#include "internal/utf.h"
#include "misc/codesetBuiltin.h"
#include "unicodeBase.h"
#include "unicodeTypes.h"
#include "util.h"

namespace {

size_t UnitWidth(StringEncoding encoding)
{
   switch (encoding) {
      case STRING_ENCODING_UTF16_LE:
      case STRING_ENCODING_UTF16_BE:
      case STRING_ENCODING_UTF16:
         return 2;
      case STRING_ENCODING_UTF32_LE:
      case STRING_ENCODING_UTF32_BE:
      case STRING_ENCODING_UTF32:
         return 4;
      default:
         return 1;
   }
}

bool IsAscii(const char *buf, size_t size)
{
   for (size_t i = 0; i < size; i++) {
      if ((unsigned char)buf[i] >= 0x80) {
         return false;
      }
   }
   return true;
}

/* A heap copy of size bytes with one zero byte after them. */
char *CopyWithNul(const char *buf, size_t size)
{
   char *copy = (char *)Util_SafeMalloc(size + 1);
   memcpy(copy, buf, size);
   copy[size] = '\0';
   return copy;
}

size_t ResolveLength(const void *buffer, ssize_t lengthInBytes, StringEncoding encoding)
{
   return lengthInBytes < 0 ? Unicode_LengthInBytes(buffer, encoding) : (size_t)lengthInBytes;
}

/*
 * How many of the first `keep` bytes of UTF-8 text to keep so that no character is cut:
 * step back over continuation bytes and drop the last character if it is incomplete.
 */
size_t Utf8CutPoint(const char *text, size_t keep)
{
   if (keep == 0) {
      return 0;
   }
   const unsigned char *s = (const unsigned char *)text;
   size_t i = keep - 1;
   while (i > 0 && (s[i] & 0xC0) == 0x80) {
      i--;
   }
   if (s[i] < 0x80) {
      return keep;
   }
   size_t count = keep - i;
   /* A lead byte announces its length by its leading one bits. */
   return ((signed char)s[i] >> (7 - count)) == -2 ? keep : i;
}

/* Escapes control, non-ASCII and backslash bytes as "\XX" for a panic message. */
char *EscapeForMessage(const void *buffer, size_t size)
{
   int flags[256];
   for (int c = 0; c < 256; c++) {
      flags[c] = c < 0x20 || c >= 0x7F || c == '\\';
   }
   return (char *)Escape_Do('\\', flags, buffer, size, nullptr);
}

}  // namespace

extern "C" {

size_t Unicode_LengthInBytes(const void *buffer, StringEncoding encoding)
{
   size_t width = UnitWidth(Unicode_ResolveEncoding(encoding));
   const unsigned char *p = (const unsigned char *)buffer;
   if (width == 1) {
      return strlen((const char *)p);
   }
   size_t length = 0;
   for (;;) {
      bool zero = true;
      for (size_t k = 0; k < width; k++) {
         zero = zero && p[length + k] == 0;
      }
      if (zero) {
         return length;
      }
      length += width;
   }
}

char *Unicode_AllocInternal(const void *buffer, ssize_t lengthInBytes, StringEncoding encoding,
                            bool strict)
{
   if (buffer == nullptr) {
      return nullptr;
   }
   encoding = Unicode_ResolveEncoding(encoding);
   size_t size = ResolveLength(buffer, lengthInBytes, encoding);
   const char *bytes = (const char *)buffer;
   char *result = nullptr;
   if (!strict) {
      CodeSet_Convert(Unicode_EncodingEnumToName(encoding), bytes, size, "UTF-8",
                      CODESET_POLICY_SUBSTITUTE, &result, nullptr);
      return result;
   }
   switch (encoding) {
      case STRING_ENCODING_UTF8:
         return CodeSetIsValidUtf8(bytes, size) ? CopyWithNul(bytes, size) : nullptr;
      case STRING_ENCODING_US_ASCII:
         return IsAscii(bytes, size) ? CopyWithNul(bytes, size) : nullptr;
      case STRING_ENCODING_UTF16_LE:
         CodeSet_Utf16leToUtf8(bytes, size, &result, nullptr);
         return result;
      default:
         CodeSet_Convert(Unicode_EncodingEnumToName(encoding), bytes, size, "UTF-8",
                         CODESET_POLICY_NORMAL, &result, nullptr);
         return result;
   }
}

char *Unicode_AllocWithLength(const void *buffer, ssize_t lengthInBytes, StringEncoding encoding)
{
   if (buffer == nullptr) {
      return nullptr;
   }
   encoding = Unicode_ResolveEncoding(encoding);
   char *result = Unicode_AllocInternal(buffer, lengthInBytes, encoding, false);
   if (result == nullptr) {
      size_t size = ResolveLength(buffer, lengthInBytes, encoding);
      char *escaped = EscapeForMessage(buffer, size);
      Panic("%s: Couldn't convert invalid buffer [%s] from %s to Unicode.\n",
            "Unicode_AllocWithLength", escaped != nullptr ? escaped : "(couldn't escape bytes)",
            Unicode_EncodingEnumToName(encoding));
   }
   return result;
}

char *Unicode_FromEscapedAscii(const char *ascii, bool unescape)
{
   if (!unescape) {
      return Util_SafeStrdup(ascii);
   }
   DynBuf units;
   DynBuf_Init(&units);
   for (const unsigned char *p = (const unsigned char *)ascii; *p != '\0'; p++) {
      VERIFY(*p < 0x80);
      uint32_t cp = *p;
      if (cp == '\\') {
         p++;
         if (*p == '\0') {
            break;
         }
         VERIFY(*p < 0x80);
         cp = *p;
         if (*p == 'u' || *p == 'U') {
            int digits = *p == 'u' ? 4 : 8;
            cp = 0;
            for (int k = 0; k < digits; k++) {
               unsigned char c = *++p;
               int value = StrUtil_HexDigitValue(c);
               if (value < 0) {
                  NOT_IMPLEMENTED();
               }
               cp = cp << 4 | (uint32_t)value;
            }
            VERIFY(cp < 0x110000);
         }
      }
      uint32_t pair[2];
      int count = tesmar::utf::EncodeUtf16(cp, pair);
      uint8_t out[4];
      for (int k = 0; k < count; k++) {
         out[2 * k] = (uint8_t)pair[k];
         out[2 * k + 1] = (uint8_t)(pair[k] >> 8);
      }
      DynBuf_SafeAppend(&units, out, 2 * (size_t)count);
   }
   char *result = units.size == 0 ? Util_SafeStrdup("")
                                  : Unicode_AllocWithLength(units.data, (ssize_t)units.size,
                                                            STRING_ENCODING_UTF16_LE);
   DynBuf_Destroy(&units);
   return result;
}

/* The number of entries of a list: count, or up to its NULL terminator when count is negative. */
static size_t ListLength(char *const *list, ssize_t count)
{
   if (count >= 0) {
      return (size_t)count;
   }
   size_t n = 0;
   while (list[n] != nullptr) {
      n++;
   }
   return n;
}

char **Unicode_AllocList(char **srcArray, ssize_t count, StringEncoding encoding)
{
   if (srcArray == nullptr) {
      return nullptr;
   }
   size_t n = ListLength(srcArray, count);
   char **result = (char **)Util_SafeCalloc(n + 1, sizeof *result);
   for (size_t i = 0; i < n; i++) {
      result[i] = Unicode_AllocWithLength(srcArray[i], -1, encoding);
   }
   return result;
}

char **Unicode_GetAllocList(char *const *srcArray, ssize_t count, StringEncoding encoding)
{
   if (srcArray == nullptr) {
      return nullptr;
   }
   size_t n = ListLength(srcArray, count);
   char **result = (char **)Util_SafeCalloc(n + 1, sizeof *result);
   for (size_t i = 0; i < n; i++) {
      if (srcArray[i] == nullptr) {
         continue;
      }
      result[i] = (char *)Unicode_GetAllocBytes(srcArray[i], encoding);
      if (result[i] == nullptr) {
         for (size_t k = 0; k < i; k++) {
            free(result[k]);
         }
         free(result);
         return nullptr;
      }
   }
   return result;
}

void *Unicode_GetAllocBytes(const char *str, StringEncoding encoding)
{
   return Unicode_GetAllocBytesWithLength(str, encoding, -1, nullptr);
}

void *Unicode_GetAllocBytesWithLength(const char *str, StringEncoding encoding,
                                      ssize_t lengthInBytes, size_t *retLength)
{
   if (str == nullptr) {
      return nullptr;
   }
   encoding = Unicode_ResolveEncoding(encoding);
   size_t size = lengthInBytes < 0 ? strlen(str) : (size_t)lengthInBytes;
   char *result = nullptr;
   size_t resultSize = size;
   switch (encoding) {
      case STRING_ENCODING_UTF8:
         result = CopyWithNul(str, size);
         break;
      case STRING_ENCODING_UTF16_LE:
         if (!CodeSet_Utf8ToUtf16le(str, size, &result, &resultSize)) {
            NOT_IMPLEMENTED();
         }
         break;
      case STRING_ENCODING_US_ASCII:
         result = IsAscii(str, size) ? CopyWithNul(str, size) : nullptr;
         break;
      default:
         if (!CodeSet_Convert("UTF-8", str, size, Unicode_EncodingEnumToName(encoding),
                              CODESET_POLICY_NORMAL, &result, &resultSize)) {
            result = nullptr;
         }
         break;
   }
   if (result != nullptr && retLength != nullptr) {
      *retLength = resultSize;
   }
   return result;
}

bool Unicode_CanGetBytesWithEncoding(const char *str, StringEncoding encoding)
{
   if (str == nullptr) {
      return true;
   }
   void *bytes = Unicode_GetAllocBytes(str, encoding);
   free(bytes);
   return bytes != nullptr;
}

bool Unicode_CopyBytes(void *destBuffer, const char *str, size_t maxLengthInBytes,
                       size_t *retLength, StringEncoding encoding)
{
   encoding = Unicode_ResolveEncoding(encoding);
   char *dest = (char *)destBuffer;
   size_t kept = 0;
   bool complete = false;
   switch (encoding) {
      case STRING_ENCODING_UTF16_LE: {
         char *units = nullptr;
         size_t size = 0;
         if (maxLengthInBytes < 2 || !CodeSet_Utf8ToUtf16le(str, strlen(str), &units, &size)) {
            break;
         }
         kept = size < maxLengthInBytes - 2 ? size : (maxLengthInBytes - 2) & ~(size_t)1;
         if (kept >= 2 && kept < size) {
            unsigned last = (unsigned char)units[kept - 2] | (unsigned char)units[kept - 1] << 8;
            if (tesmar::utf::IsHighSurrogate(last)) {
               kept -= 2;
            }
         }
         memcpy(dest, units, kept);
         dest[kept] = dest[kept + 1] = '\0';
         complete = kept == size;
         free(units);
         break;
      }
      case STRING_ENCODING_UTF8:
      case STRING_ENCODING_US_ASCII: {
         size_t size = strlen(str);
         if (maxLengthInBytes == 0 ||
             (encoding == STRING_ENCODING_US_ASCII && !IsAscii(str, size))) {
            break;
         }
         kept = size < maxLengthInBytes - 1 ? size : maxLengthInBytes - 1;
         if (kept < size && encoding == STRING_ENCODING_UTF8) {
            kept = Utf8CutPoint(str, kept);
         }
         memcpy(dest, str, kept);
         dest[kept] = '\0';
         complete = kept == size;
         break;
      }
      default: {
         char *bytes = nullptr;
         size_t size = 0;
         if (maxLengthInBytes == 0 ||
             !CodeSet_Convert("UTF-8", str, strlen(str), Unicode_EncodingEnumToName(encoding),
                              CODESET_POLICY_NORMAL, &bytes, &size)) {
            break;
         }
         kept = size < maxLengthInBytes - 1 ? size : maxLengthInBytes - 1;
         memcpy(dest, bytes, kept);
         dest[kept] = '\0';
         complete = kept == size;
         free(bytes);
         break;
      }
   }
   if (retLength != nullptr) {
      *retLength = kept;
   }
   return complete;
}

size_t Unicode_BytesRequired(const char *str, StringEncoding encoding)
{
   encoding = Unicode_ResolveEncoding(encoding);
   if (encoding == STRING_ENCODING_UTF8) {
      return strlen(str) + 1;
   }
   size_t basic;
   switch (encoding) {
      case STRING_ENCODING_UTF16_LE:
      case STRING_ENCODING_UTF16_BE:
      case STRING_ENCODING_UTF16:
         basic = 2;
         break;
      case STRING_ENCODING_UTF32_LE:
      case STRING_ENCODING_UTF32_BE:
      case STRING_ENCODING_UTF32:
         basic = 4;
         break;
      case STRING_ENCODING_US_ASCII:
      case STRING_ENCODING_ISO_8859_1:
      case STRING_ENCODING_WINDOWS_1252:
         basic = 1;
         break;
      default:
         basic = 7;
         break;
   }
   const unsigned char *s = (const unsigned char *)str;
   size_t total = 0;
   while (*s != '\0') {
      size_t len = *s >= 0xF0 ? 4 : *s >= 0xE0 ? 3 : *s >= 0xC0 ? 2 : 1;
      size_t k = 1;
      while (k < len && s[k] != '\0') {
         k++;
      }
      if (k < len) {
         break; /* a NUL inside the sequence ends the walk */
      }
      total += basic == 2 && len == 4 ? 4 : basic;
      s += len;
   }
   return total + 10 * basic;
}

bool Unicode_IsBufferValid(const void *buffer, ssize_t lengthInBytes, StringEncoding encoding)
{
   if (buffer == nullptr) {
      return true;
   }
   encoding = Unicode_ResolveEncoding(encoding);
   size_t size = ResolveLength(buffer, lengthInBytes, encoding);
   switch (encoding) {
      case STRING_ENCODING_UTF8:
         return CodeSetIsValidUtf8((const char *)buffer, size);
      case STRING_ENCODING_US_ASCII:
         return IsAscii((const char *)buffer, size);
      default:
         return CodeSet_Validate((const char *)buffer, size, Unicode_EncodingEnumToName(encoding));
   }
}

}  // extern "C"
