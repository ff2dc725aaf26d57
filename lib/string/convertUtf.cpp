/*
 * UTF-8 / UTF-16 / UTF-32 conversions with the Unicode reference rules: legal UTF-8 lead bytes
 * are 0xC2..0xF4, with the narrower second-byte ranges after 0xE0, 0xED, 0xF0 and 0xF4.
 */
#include "convertUtf.h"

namespace utfconv {

namespace {

constexpr uint32_t kReplacement = 0xFFFD;
constexpr uint32_t kMaxBmp = 0xFFFF;
constexpr uint32_t kMaxLegal = 0x10FFFF;
constexpr uint32_t kSurHighStart = 0xD800;
constexpr uint32_t kSurHighEnd = 0xDBFF;
constexpr uint32_t kSurLowStart = 0xDC00;
constexpr uint32_t kSurLowEnd = 0xDFFF;

/* Trailing bytes announced by each lead byte (values 4 and 5 are never legal). */
int TrailingBytes(uint8_t lead)
{
   if (lead < 0xC0) {
      return 0;
   }
   if (lead < 0xE0) {
      return 1;
   }
   if (lead < 0xF0) {
      return 2;
   }
   if (lead < 0xF8) {
      return 3;
   }
   return lead < 0xFC ? 4 : 5;
}

/* What the lead byte of an n-byte sequence carries on top of the code point bits. */
constexpr uint32_t kOffsets[6] = {0x00000000UL, 0x00003080UL, 0x000E2080UL,
                                  0x03C82080UL, 0xFA082080UL, 0x82082080UL};
constexpr uint8_t kFirstByteMark[7] = {0x00, 0x00, 0xC0, 0xE0, 0xF0, 0xF8, 0xFC};

bool IsSurrogate(uint32_t ch)
{
   return ch >= kSurHighStart && ch <= kSurLowEnd;
}

/*
 * Appends ch as UTF-8; false (nothing written) when it does not fit. Values beyond the legal
 * range are written as U+FFFD and reported through illegal.
 */
bool PutUTF8(uint32_t ch, uint8_t **target, uint8_t *targetEnd, bool *illegal)
{
   int bytes;
   if (ch < 0x80) {
      bytes = 1;
   } else if (ch < 0x800) {
      bytes = 2;
   } else if (ch < 0x10000) {
      bytes = 3;
   } else if (ch <= kMaxLegal) {
      bytes = 4;
   } else {
      bytes = 3;
      ch = kReplacement;
      *illegal = true;
   }
   if (targetEnd - *target < bytes) {
      return false;
   }
   uint8_t *out = *target + bytes;
   switch (bytes) {
      case 4:
         *--out = (uint8_t)((ch | 0x80) & 0xBF);
         ch >>= 6;
         [[fallthrough]];
      case 3:
         *--out = (uint8_t)((ch | 0x80) & 0xBF);
         ch >>= 6;
         [[fallthrough]];
      case 2:
         *--out = (uint8_t)((ch | 0x80) & 0xBF);
         ch >>= 6;
         [[fallthrough]];
      default:
         *--out = (uint8_t)(ch | kFirstByteMark[bytes]);
   }
   *target += bytes;
   return true;
}

/* Reads one UTF-8 character; the caller has checked that length bytes are available. */
uint32_t GetUTF8(const uint8_t *source, int trailing)
{
   uint32_t ch = 0;
   for (int i = 0; i <= trailing; i++) {
      if (i > 0) {
         ch <<= 6;
      }
      ch += source[i];
   }
   return ch - kOffsets[trailing];
}

}  // namespace

bool IsLegalUTF8(const uint8_t *source, size_t length)
{
   if (length < 1 || length > 4) {
      return false;
   }
   // Every byte after the first is a continuation byte.
   for (size_t i = length - 1; i >= 1; i--) {
      if (source[i] < 0x80 || source[i] > 0xBF) {
         return false;
      }
   }
   uint8_t lead = source[0];
   if (length > 1) {
      uint8_t second = source[1];
      switch (lead) {
         case 0xE0:
            if (second < 0xA0) {
               return false;
            }
            break;
         case 0xED:
            if (second > 0x9F) {
               return false;
            }
            break;
         case 0xF0:
            if (second < 0x90) {
               return false;
            }
            break;
         case 0xF4:
            if (second > 0x8F) {
               return false;
            }
            break;
         default:
            break;
      }
   }
   if (lead >= 0x80 && lead < 0xC2) {
      return false;
   }
   return lead <= 0xF4;
}

Result UTF32toUTF8(const uint32_t **source, const uint32_t *sourceEnd, uint8_t **target,
                   uint8_t *targetEnd, Mode mode)
{
   Result result = Result::ok;
   const uint32_t *in = *source;
   uint8_t *out = *target;
   while (in < sourceEnd) {
      uint32_t ch = *in;
      if (mode == Mode::strict && IsSurrogate(ch)) {
         result = Result::sourceIllegal;
         break;
      }
      bool illegal = false;
      if (!PutUTF8(ch, &out, targetEnd, &illegal)) {
         result = Result::targetExhausted;
         break;
      }
      if (illegal) {
         result = Result::sourceIllegal;
      }
      in++;
   }
   *source = in;
   *target = out;
   return result;
}

Result UTF16toUTF8(const uint16_t **source, const uint16_t *sourceEnd, uint8_t **target,
                   uint8_t *targetEnd, Mode mode)
{
   Result result = Result::ok;
   const uint16_t *in = *source;
   uint8_t *out = *target;
   while (in < sourceEnd) {
      const uint16_t *start = in;
      uint32_t ch = *in++;
      if (ch >= kSurHighStart && ch <= kSurHighEnd) {
         if (in >= sourceEnd) {
            in = start;  // the pair's second half may still come
            result = Result::sourceExhausted;
            break;
         }
         uint32_t low = *in;
         if (low >= kSurLowStart && low <= kSurLowEnd) {
            ch = ((ch - kSurHighStart) << 10) + (low - kSurLowStart) + 0x10000;
            in++;
         } else if (mode == Mode::strict) {
            in = start;
            result = Result::sourceIllegal;
            break;
         }
      } else if (mode == Mode::strict && ch >= kSurLowStart && ch <= kSurLowEnd) {
         in = start;
         result = Result::sourceIllegal;
         break;
      }
      bool illegal = false;
      if (!PutUTF8(ch, &out, targetEnd, &illegal)) {
         in = start;
         result = Result::targetExhausted;
         break;
      }
   }
   *source = in;
   *target = out;
   return result;
}

/*
 * Decodes the UTF-8 source one character at a time and hands each code point to put, which
 * returns false when its target is full.
 */
template <typename Put>
Result DecodeUTF8(const uint8_t **source, const uint8_t *sourceEnd, Put put)
{
   Result result = Result::ok;
   const uint8_t *in = *source;
   while (in < sourceEnd) {
      int trailing = TrailingBytes(*in);
      if (trailing >= sourceEnd - in) {
         result = Result::sourceExhausted;
         break;
      }
      if (!IsLegalUTF8(in, (size_t)trailing + 1)) {
         result = Result::sourceIllegal;
         break;
      }
      Result step = put(GetUTF8(in, trailing));
      if (step != Result::ok) {
         result = step;
         break;
      }
      in += trailing + 1;
   }
   *source = in;
   return result;
}

Result UTF8toUTF32(const uint8_t **source, const uint8_t *sourceEnd, uint32_t **target,
                   uint32_t *targetEnd, Mode mode)
{
   uint32_t *out = *target;
   Result result = DecodeUTF8(source, sourceEnd, [&](uint32_t ch) {
      if (out >= targetEnd) {
         return Result::targetExhausted;
      }
      if (IsSurrogate(ch)) {
         if (mode == Mode::strict) {
            return Result::sourceIllegal;
         }
      } else if (ch > kMaxLegal) {
         ch = kReplacement;
      }
      *out++ = ch;
      return Result::ok;
   });
   *target = out;
   return result;
}

Result UTF8toUTF16(const uint8_t **source, const uint8_t *sourceEnd, uint16_t **target,
                   uint16_t *targetEnd, Mode mode)
{
   uint16_t *out = *target;
   Result result = DecodeUTF8(source, sourceEnd, [&](uint32_t ch) {
      if (out >= targetEnd) {
         return Result::targetExhausted;
      }
      if (ch <= kMaxBmp) {
         if (IsSurrogate(ch) && mode == Mode::strict) {
            return Result::sourceIllegal;
         }
         *out++ = (uint16_t)ch;
      } else if (ch > kMaxLegal) {
         *out++ = (uint16_t)kReplacement;
      } else {
         if (targetEnd - out < 2) {
            return Result::targetExhausted;
         }
         ch -= 0x10000;
         *out++ = (uint16_t)((ch >> 10) + kSurHighStart);
         *out++ = (uint16_t)((ch & 0x3FF) + kSurLowStart);
      }
      return Result::ok;
   });
   *target = out;
   return result;
}

Result UTF32toUTF16(const uint32_t **source, const uint32_t *sourceEnd, uint16_t **target,
                    uint16_t *targetEnd, Mode mode)
{
   Result result = Result::ok;
   const uint32_t *in = *source;
   uint16_t *out = *target;
   while (in < sourceEnd) {
      if (out >= targetEnd) {
         result = Result::targetExhausted;
         break;
      }
      uint32_t ch = *in;
      if (ch <= kMaxBmp) {
         if (IsSurrogate(ch) && mode == Mode::strict) {
            result = Result::sourceIllegal;
            break;
         }
         *out++ = (uint16_t)ch;
      } else if (ch > kMaxLegal) {
         if (mode == Mode::strict) {
            result = Result::sourceIllegal;
            break;
         }
         *out++ = (uint16_t)kReplacement;
      } else {
         if (targetEnd - out < 2) {
            result = Result::targetExhausted;
            break;
         }
         ch -= 0x10000;
         *out++ = (uint16_t)((ch >> 10) + kSurHighStart);
         *out++ = (uint16_t)((ch & 0x3FF) + kSurLowStart);
      }
      in++;
   }
   *source = in;
   *target = out;
   return result;
}

Result UTF16toUTF32(const uint16_t **source, const uint16_t *sourceEnd, uint32_t **target,
                    uint32_t *targetEnd, Mode mode)
{
   Result result = Result::ok;
   const uint16_t *in = *source;
   uint32_t *out = *target;
   while (in < sourceEnd) {
      const uint16_t *start = in;
      uint32_t ch = *in++;
      if (ch >= kSurHighStart && ch <= kSurHighEnd) {
         if (in >= sourceEnd) {
            in = start;
            result = Result::sourceExhausted;
            break;
         }
         uint32_t low = *in;
         if (low >= kSurLowStart && low <= kSurLowEnd) {
            ch = ((ch - kSurHighStart) << 10) + (low - kSurLowStart) + 0x10000;
            in++;
         } else if (mode == Mode::strict) {
            in = start;
            result = Result::sourceIllegal;
            break;
         }
      } else if (mode == Mode::strict && ch >= kSurLowStart && ch <= kSurLowEnd) {
         in = start;
         result = Result::sourceIllegal;
         break;
      }
      if (out >= targetEnd) {
         in = start;
         result = Result::targetExhausted;
         break;
      }
      *out++ = ch;
   }
   *source = in;
   *target = out;
   return result;
}

}  // namespace utfconv
