/*
 * UTF-32 to UTF-8 with the Unicode reference rules, for the formatter's wide strings.
 */
#include "convertUtf.h"

#include "internal/utf.h"

namespace utfconv {

namespace {

using tesmar::utf::kMaxCodePoint;
using tesmar::utf::kReplacement;

/*
 * Appends ch as UTF-8; false (nothing written) when it does not fit. Values beyond the legal
 * range are written as U+FFFD and reported through illegal.
 */
bool PutUTF8(uint32_t ch, uint8_t **target, uint8_t *targetEnd, bool *illegal)
{
   if (ch > kMaxCodePoint) {
      ch = kReplacement;
      *illegal = true;
   }
   if (static_cast<size_t>(targetEnd - *target) < tesmar::utf::Utf8Length(ch)) {
      return false;
   }
   *target = tesmar::utf::EncodeUtf8(ch, *target);
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
      if (mode == Mode::strict && tesmar::utf::IsSurrogate(ch)) {
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
