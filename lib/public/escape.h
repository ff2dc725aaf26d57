/*
 * Escaping and quoting of byte strings. Each routine that returns a string returns a new
 * NUL-terminated heap string (NULL when memory fails) and its length without the NUL through
 * the optional sizeOut.
 */
#ifndef TESMAR_ESCAPE_H
#define TESMAR_ESCAPE_H

#include <stdbool.h>
#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/* bytesToEsc: 256 flags; a non-zero flag escapes that byte as escStr plus two hex digits. */
void *Escape_DoString(const char *escStr, const int *bytesToEsc, const void *bufIn, size_t sizeIn,
                      size_t *sizeOut);
void *Escape_Do(char escByte, const int *bytesToEsc, const void *bufIn, size_t sizeIn,
                size_t *sizeOut);
void *Escape_Undo(char escByte, const void *bufIn, size_t sizeIn, size_t *sizeOut);
bool Escape_UndoFixed(char escByte, const void *bufIn, size_t sizeIn, void *bufOut,
                      size_t bufOutSize);
void *Escape_StripCR(const void *bufIn, size_t sizeIn, size_t *sizeOut);
char *Escape_ShellQuote(const void *bufIn, size_t sizeIn, size_t *sizeOut);
char *Escape_RegexSpecials(const void *bufIn, size_t sizeIn, size_t *sizeOut);
const char *Escape_Strchr(char escByte, const char *bufIn, char c);
char *Escape_Unescape(char escByte, const char *bufIn);
void Escape_UnescapeCString(char *buf);
char *Escape_Commas(const char *string);

#ifdef __cplusplus
}
#endif

#endif
