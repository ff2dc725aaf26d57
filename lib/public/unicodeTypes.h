/*
 * The encoding enumeration and the encoding-name table.
 *
 * A StringEncoding names one encoding of the name table; values 0 to 323 are valid, -1 means
 * the process's current encoding (resolved on use) and -2 an unknown or unsupported encoding.
 */
#ifndef TESMAR_UNICODE_TYPES_H
#define TESMAR_UNICODE_TYPES_H

#include <stdbool.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef int32_t StringEncoding;

enum {
   STRING_ENCODING_UNKNOWN = -2,
   STRING_ENCODING_DEFAULT = -1,
   STRING_ENCODING_UTF8 = 0,
   STRING_ENCODING_UTF16_LE = 1,
   STRING_ENCODING_UTF16_BE = 2,
   STRING_ENCODING_UTF16 = 3,
   STRING_ENCODING_UTF32_LE = 4,
   STRING_ENCODING_UTF32_BE = 5,
   STRING_ENCODING_UTF32 = 6,
   STRING_ENCODING_US_ASCII = 7,
   STRING_ENCODING_ISO_8859_1 = 8,
   STRING_ENCODING_ISO_8859_2 = 9,
   STRING_ENCODING_ISO_8859_15 = 20,
   STRING_ENCODING_GB_18030 = 21,
   STRING_ENCODING_BIG_5 = 22,
   STRING_ENCODING_GBK = 24,
   STRING_ENCODING_SHIFT_JIS = 27,
   STRING_ENCODING_EUC_JP = 28,
   STRING_ENCODING_ISO_2022_JP = 29,
   STRING_ENCODING_WINDOWS_1250 = 33,
   STRING_ENCODING_WINDOWS_1251 = 34,
   STRING_ENCODING_WINDOWS_1252 = 35,
   STRING_ENCODING_MAX_SPECIFIED = 324, /* first value that names no encoding */
};

/*
 * Initialises the conversion layer once per process; icuDataDir (or NULL for the product's
 * ICU directory) is where the ICU data file is looked for. Later calls do nothing.
 */
void Unicode_Init(const char *icuDataDir);
/* Destroys the encoding-name cache. */
void Unicode_Shutdown(void);

/* The encoding for an IANA, ICU or Windows name; -2 when unknown or unsupported. */
StringEncoding UnicodeIANALookup(const char *name);
/* The same; the name-to-encoding entry point for other modules. */
StringEncoding Unicode_EncodingNameToEnum(const char *name);
/* The encoding's preferred name; panics for a value that has no row. */
const char *Unicode_EncodingEnumToName(StringEncoding encoding);
/* -1 becomes the current encoding; any other value is returned as it is. */
StringEncoding Unicode_ResolveEncoding(StringEncoding encoding);
/* The current encoding (UTF-8 on this platform). */
StringEncoding Unicode_GetCurrentEncoding(void);
/* True for every value below 324 (the special values -1 and -2 included). */
bool Unicode_IsEncodingValid(StringEncoding encoding);

#ifdef __cplusplus
}
#endif

#endif
