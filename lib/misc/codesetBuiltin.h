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

/* Whether buf is well-formed UTF-8 (no surrogates, nothing above U+10FFFF, no overlongs). */
bool CodeSetIsValidUtf8(const char *buf, size_t size);
/* Whether buf is well-formed UTF-16 in the given byte order (an even size, paired surrogates). */
bool CodeSetIsValidUtf16(const char *buf, size_t size, bool bigEndian);

/* Whether the built-in converters handle from -> to. */
bool CodeSetBuiltinHandles(StringEncoding from, StringEncoding to);

/*
 * Appends the conversion of buf from -> to to db. Ill-formed input fails whatever the policy,
 * except into US-ASCII, where a character that has no byte fails, becomes 0x1A or is dropped
 * as the policy (0, 1, 2) says. On failure db is left as it was.
 */
bool CodeSetBuiltinConvert(StringEncoding from, StringEncoding to, const char *buf, size_t size,
                           int policy, DynBuf *db);

#endif
