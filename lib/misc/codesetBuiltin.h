/*
 * The built-in converters that stand in for ICU when its data file is absent: UTF-8, UTF-16LE,
 * UTF-16BE, US-ASCII and ISO-8859-1, addressed by the encoding enumeration.
 */
#ifndef TESMAR_CODESET_BUILTIN_H
#define TESMAR_CODESET_BUILTIN_H

#include <stddef.h>
#include <stdint.h>

#include "dynbuf.h"
#include "unicodeTypes.h"

/*
 * Strict decoding of one UTF-8 character from p (avail > 0 bytes). Returns the number of bytes
 * of a well-formed character and its code point through *cp, or the negated length of the
 * maximal ill-formed prefix (at least 1 byte) when the bytes are not a character. Overlong
 * forms and values above U+10FFFF are ill-formed; surrogates only when allowSurrogates is
 * false.
 */
int CodeSetDecodeUtf8(const uint8_t *p, size_t avail, uint32_t *cp, bool allowSurrogates);

/* Whether buf is well-formed UTF-8 (no surrogates, nothing above U+10FFFF, no overlongs). */
bool CodeSetIsValidUtf8(const char *buf, size_t size);
/* Whether buf is well-formed UTF-16 in the given byte order (an even size, paired surrogates). */
bool CodeSetIsValidUtf16(const char *buf, size_t size, bool bigEndian);

/* Whether the built-in converters handle from -> to. */
bool CodeSetBuiltinHandles(StringEncoding from, StringEncoding to);

/*
 * Appends the conversion of buf from -> to to db following the policy (0 fail, 1 substitute,
 * 2 skip). On failure db is left as it was.
 */
bool CodeSetBuiltinConvert(StringEncoding from, StringEncoding to, const char *buf, size_t size,
                           int policy, DynBuf *db);

#endif
