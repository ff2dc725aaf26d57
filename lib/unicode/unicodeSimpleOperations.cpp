/*
 * Code-point operations on system strings: substrings, searches, comparison with optional
 * simple case folding, joining and formatting.
 */
#include <stdarg.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include "log.h"
#include "internal/utf.h"
#include "misc/codesetBuiltin.h"
#include "str.h"
#include "unicodeOperations.h"
#include "util.h"

namespace {

#include "caseFolding.inc"

/* Byte offsets of a code-point range within a valid UTF-8 string. */
struct ByteRange {
   size_t begin;
   size_t end;
   size_t startIndex; /* the clamped start, in code points */
   size_t count;      /* code points in the range */
};

size_t CharLength(unsigned char lead)
{
   return lead < 0x80 ? 1 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
}

size_t CodePointCount(const char *s, size_t size)
{
   size_t count = 0;
   for (size_t i = 0; i < size; i++) {
      count += ((unsigned char)s[i] & 0xC0) != 0x80;
   }
   return count;
}

/* Validates str (panicking with the caller's name) and returns its length in bytes. */
size_t CheckedLength(const char *str, const char *caller)
{
   size_t size = strlen(str);
   if (!CodeSetIsValidUtf8(str, size)) {
      Panic("%s: invalid UTF8 string @ %p\n", caller, (const void *)str);
   }
   return size;
}

/* Advances from byte offset `at` over n code points (stopping at size). */
size_t Advance(const char *s, size_t size, size_t at, size_t n)
{
   while (n > 0 && at < size) {
      at += CharLength((unsigned char)s[at]);
      n--;
   }
   return at;
}

ByteRange RangeOf(const char *s, size_t size, ssize_t start, ssize_t length)
{
   size_t total = CodePointCount(s, size);
   size_t first = start < 0 ? 0 : (size_t)start > total ? total : (size_t)start;
   size_t count = total - first;
   if (length >= 0 && (size_t)length < count) {
      count = (size_t)length;
   }
   ByteRange r;
   r.begin = Advance(s, size, 0, first);
   r.end = Advance(s, size, r.begin, count);
   r.startIndex = first;
   r.count = count;
   return r;
}

/* Yields the UTF-16 code units of valid UTF-8 text one by one. */
class Utf16Units {
  public:
   Utf16Units(const char *s, size_t size) : s_((const uint8_t *)s), size_(size) {}

   bool Done() const { return pendingLow_ == 0 && at_ >= size_; }

   /* The next unit; for a high surrogate, *codePoint receives the whole character. */
   uint32_t Next(uint32_t *codePoint)
   {
      if (pendingLow_ != 0) {
         uint32_t low = pendingLow_;
         pendingLow_ = 0;
         *codePoint = low;
         return low;
      }
      uint8_t lead = s_[at_];
      if (lead < 0x80) {
         at_++;
         *codePoint = lead;
         return lead;
      }
      uint32_t cp = 0;
      int len = tesmar::utf::DecodeUtf8(s_ + at_, size_ - at_, &cp, false);
      at_ += (size_t)len; /* the text was validated before */
      *codePoint = cp;
      uint32_t units[2];
      if (tesmar::utf::EncodeUtf16(cp, units) == 2) {
         pendingLow_ = units[1];
      }
      return units[0];
   }

  private:
   const uint8_t *s_;
   size_t size_;
   size_t at_ = 0;
   uint32_t pendingLow_ = 0;
};

inline uint32_t Fold(uint32_t unit)
{
   const uint16_t *page = kFoldPages[unit >> 8];
   return page != nullptr ? page[unit & 0xFF] : unit;
}

bool IsWholeString(ssize_t start, ssize_t length)
{
   return start == 0 && length < 0;
}

/* The byte range of one side of a comparison; false when it is not valid UTF-8. */
bool CompareSide(const char *str, ssize_t start, ssize_t length, const char **text, size_t *size)
{
   size_t total = strlen(str);
   if (IsWholeString(start, length)) {
      if (!CodeSetIsValidUtf8(str, total)) {
         return false;
      }
      *text = str;
      *size = total;
      return true;
   }
   CheckedLength(str, "Unicode_Substr");
   ByteRange r = RangeOf(str, total, start, length);
   *text = str + r.begin;
   *size = r.end - r.begin;
   return true;
}

/*
 * The code-point index of the first (or last) occurrence of a range of strToFind within a range
 * of str; -1 when there is none. An empty needle is found at the range's start. caller names
 * the public routine for the panic on invalid UTF-8.
 */
ssize_t FindInRange(const char *caller, const char *str, ssize_t strStart, ssize_t strLength,
                    const char *strToFind, ssize_t strToFindStart, ssize_t strToFindLength,
                    bool last)
{
   size_t size = CheckedLength(str, caller);
   size_t needleSize = CheckedLength(strToFind, caller);
   ByteRange hay = RangeOf(str, size, strStart, strLength);
   ByteRange needle = RangeOf(strToFind, needleSize, strToFindStart, strToFindLength);
   size_t needleBytes = needle.end - needle.begin;
   if (needle.count == 0) {
      return (ssize_t)hay.startIndex;
   }
   ssize_t found = -1;
   size_t index = hay.startIndex;
   for (size_t at = hay.begin; at + needleBytes <= hay.end;
        at += CharLength((unsigned char)str[at]), index++) {
      if (memcmp(str + at, strToFind + needle.begin, needleBytes) == 0) {
         found = (ssize_t)index;
         if (!last) {
            break;
         }
      }
   }
   return found;
}

}  // namespace

extern "C" {

char *Unicode_Substr(const char *str, ssize_t start, ssize_t length)
{
   size_t size = CheckedLength(str, "Unicode_Substr");
   ByteRange r = RangeOf(str, size, start, length);
   return Util_SafeStrndup(str + r.begin, r.end - r.begin);
}

ssize_t Unicode_FindSubstrInRange(const char *str, ssize_t strStart, ssize_t strLength,
                                  const char *strToFind, ssize_t strToFindStart,
                                  ssize_t strToFindLength)
{
   return FindInRange("Unicode_FindSubstrInRange", str, strStart, strLength, strToFind,
                      strToFindStart, strToFindLength, false);
}

ssize_t Unicode_FindLastSubstrInRange(const char *str, ssize_t strStart, ssize_t strLength,
                                      const char *strToFind, ssize_t strToFindStart,
                                      ssize_t strToFindLength)
{
   return FindInRange("Unicode_FindLastSubstrInRange", str, strStart, strLength, strToFind,
                      strToFindStart, strToFindLength, true);
}

int Unicode_CompareRange(const char *str1, ssize_t str1Start, ssize_t str1Length, const char *str2,
                         ssize_t str2Start, ssize_t str2Length, bool ignoreCase)
{
   const char *text1, *text2;
   size_t size1, size2;
   if (!CompareSide(str1, str1Start, str1Length, &text1, &size1) ||
       !CompareSide(str2, str2Start, str2Length, &text2, &size2)) {
      return -1;
   }
   Utf16Units a(text1, size1), b(text2, size2);
   for (;;) {
      if (a.Done() || b.Done()) {
         return a.Done() == b.Done() ? 0 : a.Done() ? -1 : 1;
      }
      uint32_t cpA, cpB;
      uint32_t unitA = a.Next(&cpA), unitB = b.Next(&cpB);
      if (ignoreCase) {
         unitA = Fold(unitA);
         unitB = Fold(unitB);
      }
      if (unitA == unitB) {
         continue;
      }
      /* A high surrogate stands for its whole character, so the order is by code point. */
      if (tesmar::utf::IsHighSurrogate(unitA)) {
         unitA = cpA;
      }
      if (tesmar::utf::IsHighSurrogate(unitB)) {
         unitB = cpB;
      }
      return unitA < unitB ? -1 : 1;
   }
}

char *Unicode_Join(const char *first, ...)
{
   if (first == nullptr) {
      return nullptr;
   }
   char *result = Util_SafeStrdup(first);
   va_list args;
   va_start(args, first);
   const char *next;
   while ((next = va_arg(args, const char *)) != nullptr) {
      char *joined = Str_Asprintf(nullptr, "%s%s", result, next);
      free(result);
      result = joined;
      if (result == nullptr) {
         break;
      }
   }
   va_end(args);
   return result;
}

char *Unicode_Format(const char *fmt, ...)
{
   va_list args;
   va_start(args, fmt);
   char *result = Str_Vasprintf(nullptr, fmt, args);
   va_end(args);
   return result;
}

}  // extern "C"
