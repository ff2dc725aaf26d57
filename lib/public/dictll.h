/*
 * DictLL: the line codec of configuration files. An entry line is
 *    name = "value"
 * with "|" and two hexadecimal digits standing for one byte of the value.
 */
#ifndef TESMAR_DICTLL_H
#define TESMAR_DICTLL_H

#include <stdbool.h>
#include <stddef.h>
#include <stdio.h>

#include "dynbuf.h"

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Reads the line at the start of buf (bufSize bytes). Returns the start of the next line, or
 * NULL when buf is empty. *line receives the whole line without its line feed; *name and *value
 * receive the entry (both NULL for a line that is not an entry). All three are NUL-terminated
 * copies the caller frees; a value may hold NUL bytes, so the Ex form reports lengths.
 */
const char *DictLL_UnmarshalLine(const char *buf, size_t bufSize, char **line, char **name,
                                 char **value);
const char *DictLL_UnmarshalLineEx(const char *buf, size_t bufSize, char **line,
                                   size_t *lineLength, char **name, char **value,
                                   size_t *valueLength);

/*
 * Appends a line: with a name, `name = "escaped value"`; without one, the value verbatim.
 * Then a line feed. False when memory runs out.
 */
bool DictLL_MarshalLine(DynBuf *output, const char *name, const char *value);
bool DictLL_MarshalLineEx(DynBuf *output, const char *name, const char *value,
                          size_t valueLength);

/* Results of DictLL_ReadLine. */
#define DICTLL_EOF 0
#define DICTLL_LINE 1
#define DICTLL_ERROR 2

/* Reads one line from stream, decoded as DictLL_UnmarshalLine does; errno tells an error. */
int DictLL_ReadLine(FILE *stream, char **line, char **name, char **value);
/* Writes one line; false with errno set (ENOMEM when the line cannot be built). */
bool DictLL_WriteLine(FILE *stream, const char *name, const char *value);
/* Consumes a UTF-8 byte-order mark at the start of file; nothing is read from stdin. */
bool DictLL_ReadUTF8BOM(FILE *file);

#ifdef __cplusplus
}
#endif

#endif
