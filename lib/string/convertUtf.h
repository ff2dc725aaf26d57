/*
 * Conversions between UTF-8, UTF-16 and UTF-32 following the Unicode reference rules.
 *
 * Each routine advances *source and *target over what it converted and stops at the first
 * character that does not fit or is illegal, leaving both pointers just before it. In lenient
 * mode unpaired surrogates pass through (as three-byte sequences in UTF-8); in strict mode they
 * are illegal. UTF-32 values above U+10FFFF become U+FFFD in either mode (the result then says
 * sourceIllegal, but conversion goes on).
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
Result UTF8toUTF32(const uint8_t **source, const uint8_t *sourceEnd, uint32_t **target,
                   uint32_t *targetEnd, Mode mode);
Result UTF16toUTF8(const uint16_t **source, const uint16_t *sourceEnd, uint8_t **target,
                   uint8_t *targetEnd, Mode mode);
Result UTF8toUTF16(const uint8_t **source, const uint8_t *sourceEnd, uint16_t **target,
                   uint16_t *targetEnd, Mode mode);
Result UTF32toUTF16(const uint32_t **source, const uint32_t *sourceEnd, uint16_t **target,
                    uint16_t *targetEnd, Mode mode);
Result UTF16toUTF32(const uint16_t **source, const uint16_t *sourceEnd, uint32_t **target,
                    uint32_t *targetEnd, Mode mode);

/* True when the length bytes at source form one legal UTF-8 sequence. */
bool IsLegalUTF8(const uint8_t *source, size_t length);

}  // namespace utfconv

#endif
