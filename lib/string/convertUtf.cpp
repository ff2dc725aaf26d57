/*
 * UTF-32 to UTF-8 with the Unicode reference rules, for the formatter's wide strings.
 */
#include "convertUtf.h"

namespace utfconv {

namespace {

constexpr uint32_t kReplacement = 0xFFFD;
constexpr uint32_t kMaxLegal = 0x10FFFF;
constexpr uint32_t kSurHighStart = 0xD800;
constexpr uint32_t kSurLowEnd = 0xDFFF;

constexpr uint8_t kFirstByteMark[5] = {0x00, 0x00, 0xC0, 0xE0, 0xF0};

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

}  // namespace

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

}  // namespace utfconv
