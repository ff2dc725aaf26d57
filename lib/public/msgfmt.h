/*
 * Message-format arguments: the arguments of a printf-style format captured into a
 * self-contained array, and formatting from such an array later.
 */
#ifndef TESMAR_MSGFMT_H
#define TESMAR_MSGFMT_H

#include <stdarg.h>
#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Type codes of a captured argument. */
enum {
   MSGFMT_ARG_INVALID = 0,       /* no conversion refers to this position */
   MSGFMT_ARG_INT32 = 1,         /* 32-bit integer */
   MSGFMT_ARG_INT64 = 2,         /* 64-bit integer (modifiers L, j, l, t, z and their kin) */
   MSGFMT_ARG_INT32_ALT = 3,     /* 32-bit integer, read as type 1 */
   MSGFMT_ARG_PTR = 4,           /* pointer (%p) */
   MSGFMT_ARG_FLOAT64 = 5,       /* double */
   MSGFMT_ARG_STRING8 = 6,       /* NUL-terminated 8-bit string */
   MSGFMT_ARG_STRING32 = 7,      /* wide string of 32-bit characters */
   MSGFMT_ARG_STRING32_ALT = 8,  /* wide string, read as type 7 */
   MSGFMT_ARG_STRING8_MSGID = 9, /* 8-bit string carrying a message identifier */
};

typedef struct MsgFmt_Arg {
   int32_t type;
   union {
      int32_t signed32;
      uint32_t unsigned32;
      int64_t signed64;
      uint64_t unsigned64;
      void *ptr;
      double float64;
      char *string8;
      wchar_t *string32;
   } v;
} MsgFmt_Arg;

/*
 * Formats fmt with the captured arguments (by position) and the current locale's number
 * punctuation. A conversion whose type does not match its captured argument fails; %n is
 * refused; a %s argument that begins with a message identifier prints only the text after it.
 *
 * MsgFmt_Asprintf returns a new string (its length, without NUL, through length when given) or
 * NULL. MsgFmt_Snprintf formats into buf of size bytes (cut silently, NUL-terminated when size
 * is not 0) and returns the length of the complete output, or -1.
 */
char *MsgFmt_Asprintf(size_t *length, const char *fmt, const MsgFmt_Arg *args, int numArgs);
int MsgFmt_Snprintf(char *buf, size_t size, const char *fmt, const MsgFmt_Arg *args, int numArgs);

/*
 * Captures the arguments of fmt from args into a new array of *numArgs entries, one per
 * argument position. On failure returns false, leaves nothing allocated and gives an error text
 * through error (the caller frees it). Strings are copied (an 8-bit string only as far as the
 * format's precision reads it); %n, long double and gaps in the positions are refused.
 */
bool MsgFmt_GetArgs(const char *fmt, va_list args, MsgFmt_Arg **argsOut, int *numArgs,
                    char **error);

/*
 * The same with the array and its strings placed in buf (nothing to free). *bufSize gives the
 * room on entry and the bytes used on success. The error text is written into buf.
 */
bool MsgFmt_GetArgsInBuffer(const char *fmt, va_list args, MsgFmt_Arg **argsOut, int *numArgs,
                            char **error, void *buf, size_t *bufSize);

/* Frees a heap array from MsgFmt_GetArgs or MsgFmt_CopyArgs with its strings. */
void MsgFmt_FreeArgs(MsgFmt_Arg *args, int numArgs);

/* A deep copy on the heap. */
MsgFmt_Arg *MsgFmt_CopyArgs(const MsgFmt_Arg *args, int numArgs);

#ifdef __cplusplus
}
#endif

#endif
