/*
 * Base64 with the standard alphabet and "=" padding.
 */
#ifndef TESMAR_BASE64_H
#define TESMAR_BASE64_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Bytes needed to encode srcLength bytes, the terminating NUL included. */
size_t Base64_EncodedLength(const uint8_t *src, size_t srcLength);
/* Upper bound of the decoded size of an encoded text of srcLength characters. */
size_t Base64_DecodedLength(const char *src, size_t srcLength);

bool Base64_Encode(const uint8_t *src, size_t srcLength, char *target, size_t targetSize,
                   size_t *dataLength);
/* Allocating encode: *target is a new NUL-terminated string, or NULL on failure. */
bool Base64_EasyEncode(const uint8_t *src, size_t srcLength, char **target);

/* Decodes up to the first NUL or "=". */
bool Base64_Decode(const char *src, uint8_t *target, size_t targetSize, size_t *dataLength);
/* Decodes at most inSize characters. */
bool Base64_ChunkDecode(const char *src, size_t inSize, uint8_t *target, size_t targetSize,
                        size_t *dataLength);
/* Allocating decode: a new buffer and its length; on failure NULL and 0. */
bool Base64_EasyDecode(const char *src, uint8_t **target, size_t *targetSize);
/* Decodes into a caller's buffer; fails when the result does not fit. */
bool Base64_DecodeFixed(const char *src, char *outBuf, size_t outBufSize);

/* True when every character is a letter, a digit, "+", "/" or "=". */
bool Base64_ValidEncoding(const char *src, size_t srcLength);

#ifdef __cplusplus
}
#endif

#endif
