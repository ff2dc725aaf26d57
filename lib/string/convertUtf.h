/*
 * UTF-32 to UTF-8 following the Unicode reference rules.
 *
 * Advances *source and *target over what it converted and stops at the first character that
 * does not fit or is illegal, leaving both pointers just before it. In lenient mode unpaired
 * surrogates pass through as three-byte sequences; in strict mode they are illegal. Values above
 * U+10FFFF become U+FFFD in either mode (the result then says sourceIllegal, but conversion goes
 * on).
 */
#ifndef TESMAR_STRING_CONVERTUTF_H
#define TESMAR_STRING_CONVERTUTF_H

#include <stddef.h>
#include <stdint.h>

namespace utfconv {

enum class Result { ok, sourceExhausted, targetExhausted, sourceIllegal };
enum class Mode { strict, lenient };

Result UTF32toUTF8(const uint32_t **source, const uint32_t *sourceEnd, uint8_t **target,
                   uint8_t *targetEnd, Mode mode);

}  // namespace utfconv

#endif
