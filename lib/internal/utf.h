/*
 * UTF-8 and UTF-16 encoding and decoding of one code point at a time: the one decoder and the
 * one encoder of each form that the converters, the formatter and the string module share.
 * Nothing here allocates or panics; callers decide what an ill-formed sequence means.
 */
#pragma once

#include <stddef.h>
#include <stdint.h>

namespace tesmar::utf {

constexpr uint32_t kReplacement = 0xFFFD;
constexpr uint32_t kMaxCodePoint = 0x10FFFF;

constexpr bool IsSurrogate(uint32_t cp)
{
   return cp >= 0xD800 && cp <= 0xDFFF;
}

constexpr bool IsHighSurrogate(uint32_t unit)
{
   return unit >= 0xD800 && unit <= 0xDBFF;
}

constexpr bool IsLowSurrogate(uint32_t unit)
{
   return unit >= 0xDC00 && unit <= 0xDFFF;
}

/*
 * Strict decoding of one UTF-8 character from p (avail > 0 bytes). Returns the length of a
 * well-formed character and its code point through *cp, or the negated length of the maximal
 * ill-formed prefix (at least 1) when the bytes are not a character. Overlong forms and values
 * above U+10FFFF are ill-formed; surrogates too unless allowSurrogates.
 */
__attribute__((always_inline)) inline int DecodeUtf8(const uint8_t *p, size_t avail, uint32_t *cp,
                                                     bool allowSurrogates)
{
   uint8_t lead = p[0];
   if (lead < 0x80) {
      *cp = lead;
      return 1;
   }
   if (lead < 0xC2 || lead > 0xF4) {
      return -1;
   }
   int len = lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
   /* The second byte's range excludes overlong forms, surrogates and values past U+10FFFF. */
   uint8_t lo = 0x80, hi = 0xBF;
   if (lead == 0xE0) {
      lo = 0xA0;
   } else if (lead == 0xED && !allowSurrogates) {
      hi = 0x9F;
   } else if (lead == 0xF0) {
      lo = 0x90;
   } else if (lead == 0xF4) {
      hi = 0x8F;
   }
   uint32_t value = lead & (0x7F >> len);
   for (int k = 1; k < len; k++) {
      if (static_cast<size_t>(k) >= avail) {
         return -k;
      }
      uint8_t b = p[k];
      if (k == 1 ? (b < lo || b > hi) : (b & 0xC0) != 0x80) {
         return -k;
      }
      value = value << 6 | (b & 0x3F);
   }
   *cp = value;
   return len;
}

/* The UTF-8 length of cp (at most U+10FFFF; a surrogate takes three bytes). */
constexpr size_t Utf8Length(uint32_t cp)
{
   return cp < 0x80 ? 1 : cp < 0x800 ? 2 : cp < 0x10000 ? 3 : 4;
}

/* Writes cp (at most U+10FFFF) as UTF-8 at out, which has room for it; returns the end. */
inline uint8_t *EncodeUtf8(uint32_t cp, uint8_t *out)
{
   if (cp < 0x80) {
      *out++ = static_cast<uint8_t>(cp);
   } else if (cp < 0x800) {
      *out++ = static_cast<uint8_t>(0xC0 | (cp >> 6));
      *out++ = static_cast<uint8_t>(0x80 | (cp & 0x3F));
   } else if (cp < 0x10000) {
      *out++ = static_cast<uint8_t>(0xE0 | (cp >> 12));
      *out++ = static_cast<uint8_t>(0x80 | ((cp >> 6) & 0x3F));
      *out++ = static_cast<uint8_t>(0x80 | (cp & 0x3F));
   } else {
      *out++ = static_cast<uint8_t>(0xF0 | (cp >> 18));
      *out++ = static_cast<uint8_t>(0x80 | ((cp >> 12) & 0x3F));
      *out++ = static_cast<uint8_t>(0x80 | ((cp >> 6) & 0x3F));
      *out++ = static_cast<uint8_t>(0x80 | (cp & 0x3F));
   }
   return out;
}

/*
 * Splits cp (at most U+10FFFF) into UTF-16 units: returns 1 with the unit in units[0], or 2
 * with a surrogate pair.
 */
constexpr int EncodeUtf16(uint32_t cp, uint32_t units[2])
{
   if (cp < 0x10000) {
      units[0] = cp;
      return 1;
   }
   cp -= 0x10000;
   units[0] = 0xD800 | (cp >> 10);
   units[1] = 0xDC00 | (cp & 0x3FF);
   return 2;
}

/*
 * Decodes one code point from UTF-16 units: first, and second when hasSecond. Returns the
 * number of units used (1 or 2), or 0 for an unpaired surrogate (a high surrogate without a
 * low one after it, or a lone low surrogate); *cp is first in that case.
 */
constexpr int DecodeUtf16(uint32_t first, uint32_t second, bool hasSecond, uint32_t *cp)
{
   *cp = first;
   if (!IsSurrogate(first)) {
      return 1;
   }
   if (!IsHighSurrogate(first) || !hasSecond || !IsLowSurrogate(second)) {
      return 0;
   }
   *cp = 0x10000 + ((first - 0xD800) << 10) + (second - 0xDC00);
   return 2;
}

}  // namespace tesmar::utf
