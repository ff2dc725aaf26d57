/*
 * Dictionary: the in-memory form of a configuration file. An ordered set of named, typed
 * entries plus the file's lines as read, so that a file can be read, queried, changed and
 * written back with its comments, order and unknown lines kept. Problems the user should see
 * are appended to a message list; names are compared without regard to case.
 */
#ifndef TESMAR_DICTIONARY_H
#define TESMAR_DICTIONARY_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#include "msgList.h"
#include "unicodeTypes.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct Dictionary Dictionary;

/* Entry types (also the codes of the getter interface). */
#define DICT_ANY 0
#define DICT_STRING 1
#define DICT_BOOL 2
#define DICT_LONG 3
#define DICT_DOUBLE 4
#define DICT_TRISTATE 5
#define DICT_INT64 6

Dictionary *Dictionary_Create(void);
/* Frees every entry and line, wiping their text. NULL is ignored. */
void Dictionary_Free(Dictionary *dict);
/* Drops every entry and line and forgets the encoding. */
void Dictionary_Clear(Dictionary *dict);

/*
 * Reads a file ("-" is standard input) into dict. With clear, the dictionary is emptied first.
 * defaultEncoding decodes a file that declares none. False with the reason on *msgs.
 */
bool DictionaryLoad(Dictionary *dict, const char *path, bool clear,
                    StringEncoding defaultEncoding, MsgList **msgs);
/* Reads a file's text already in memory; name is used in messages (NULL for none). */
bool Dictionary_LoadFromBuffer(Dictionary *dict, const char *name, const char *text,
                               size_t length, StringEncoding defaultEncoding, MsgList **msgs);

/* The file text: comments and unchanged lines as read. Owned; NULL with the reason on *msgs. */
char *Dictionary_WriteToBuffer(Dictionary *dict, bool withEncryptedPart, size_t *length,
                               MsgList **msgs);
/* Writes the file text to path atomically (sibling temporary file, then rename). */
bool Dictionary_WriteFile(Dictionary *dict, const char *path, MsgList **msgs);

/* The file's encoding; -2 when not yet known. */
StringEncoding Dictionary_GetEncoding(const Dictionary *dict);

bool Dictionary_IsDefined(const Dictionary *dict, const char *name);
/* The entry's type, -1 when it is not defined. */
int Dictionary_GetType(const Dictionary *dict, const char *name);
size_t Dictionary_NumEntries(const Dictionary *dict);
/* The name of the entry at index (in entry order), NULL past the end. Borrowed. */
const char *Dictionary_NameAt(const Dictionary *dict, size_t index);

/*
 * Typed gets. A value that does not parse as the type gives the default, with a message on
 * *msgs (msgs may be NULL). A name that is not defined gives the default without a message.
 */
char *Dictionary_GetString(Dictionary *dict, const char *defaultValue, const char *name,
                           MsgList **msgs);
bool Dictionary_GetBool(Dictionary *dict, bool defaultValue, const char *name, MsgList **msgs);
int32_t Dictionary_GetLong(Dictionary *dict, int32_t defaultValue, const char *name,
                           MsgList **msgs);
double Dictionary_GetDouble(Dictionary *dict, double defaultValue, const char *name,
                            MsgList **msgs);
int32_t Dictionary_GetTriState(Dictionary *dict, int32_t defaultValue, const char *name,
                               MsgList **msgs);
int64_t Dictionary_GetInt64(Dictionary *dict, int64_t defaultValue, const char *name,
                            MsgList **msgs);
/*
 * The typed get by type code (DICT_STRING .. DICT_INT64): the value as written for that type,
 * owned; NULL when the name is not defined or its value does not parse (then with a message).
 */
char *Dictionary_GetTypedText(Dictionary *dict, const char *name, int type, MsgList **msgs);
/* The string value's bytes (may hold NUL bytes) without copying; NULL when not defined. */
const char *Dictionary_GetBytes(const Dictionary *dict, const char *name, size_t *length);
/* A string or untyped entry's text without copying; NULL otherwise. For catalogue lookups. */
const char *Dictionary_LookupString(const Dictionary *dict, const char *name);
/* The value formatted as written to a file; owned; NULL when not defined. */
char *Dictionary_FormatValue(const Dictionary *dict, const char *name);

/* Typed sets: a new entry goes after the others; a changed one is rewritten in its place. */
void Dictionary_SetString(Dictionary *dict, const char *name, const char *value);
void Dictionary_SetBytes(Dictionary *dict, const char *name, const char *value, size_t length);
void Dictionary_SetBool(Dictionary *dict, const char *name, bool value);
void Dictionary_SetLong(Dictionary *dict, const char *name, int32_t value);
void Dictionary_SetDouble(Dictionary *dict, const char *name, double value);
void Dictionary_SetTriState(Dictionary *dict, const char *name, int32_t value);
void Dictionary_SetInt64(Dictionary *dict, const char *name, int64_t value);
/*
 * Sets a string entry from "name=value" (split at the first "="). Without overwrite an
 * existing entry is kept and the "already defined" message is appended; false then.
 */
bool Dictionary_SetFromString(Dictionary *dict, const char *text, bool overwrite,
                              MsgList **msgs);
/* Removes an entry and its line; false when it was not defined. */
bool Dictionary_Unset(Dictionary *dict, const char *name);
/* Makes "#!" + interpreter the first line unless the file already starts with "#!". */
void Dictionary_SetInterpreter(Dictionary *dict, const char *interpreter);

/* Logs every entry that is not a default ("DICT ..." lines), hiding secrets. */
void Dictionary_Log(const Dictionary *dict);
/* The same lines handed to emit (each ends in a line feed) instead of the log. */
typedef void (*DictionaryDumpFn)(void *context, const char *line);
void Dictionary_Dump(const Dictionary *dict, DictionaryDumpFn emit, void *context);

/* Adds an execute bit for every read bit of path; false (and a log line) on failure. */
bool Dictionary_MakeExecutable(const char *path);
/* "base.extension", owned; NULL (and a log line) on failure. */
char *Dictionary_DeriveFileName(const char *base, const char *extension);
/*
 * Copies the open file fd (named path) to "path-copy-N" from its start, keeping fd's position.
 * Failures are only logged.
 */
void DictionarySaveFileCopy(int fd, const char *path);

#ifdef __cplusplus
}
#endif

#endif
