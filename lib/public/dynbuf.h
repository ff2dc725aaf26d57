/*
 * DynBuf: a growable byte buffer. A zeroed DynBuf is empty and valid.
 *
 * Plain forms report failure as false and leave the buffer as it was; the Safe forms panic
 * with "Unrecoverable memory allocation failure at <file>:<line>" naming the caller.
 */
#ifndef TESMAR_DYNBUF_H
#define TESMAR_DYNBUF_H

#include <stdbool.h>
#include <stddef.h>
#include <string.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct DynBuf {
   char *data;
   size_t size;      /* bytes in use */
   size_t allocated; /* bytes reserved */
} DynBuf;

void DynBuf_Init(DynBuf *b);
void DynBuf_Destroy(DynBuf *b);
void DynBuf_Attach(DynBuf *b, size_t size, void *data);
void *DynBuf_Detach(DynBuf *b);
char *DynBuf_DetachString(DynBuf *b);
bool DynBuf_Enlarge(DynBuf *b, size_t minSize);
bool DynBuf_Insert(DynBuf *b, size_t offset, const void *data, size_t size);
bool DynBuf_Trim(DynBuf *b);
bool DynBuf_Copy(const DynBuf *src, DynBuf *dest);
void DynBuf_SetString(DynBuf *b, const char *string);

/* Out-of-line part of DynBuf_Append: grows the buffer, then appends. */
bool DynBufAppendSlow(DynBuf *b, const void *data, size_t size);

static inline bool DynBuf_Append(DynBuf *b, const void *data, size_t size)
{
   if (size <= b->allocated - b->size) {
      if (size != 0) {
         memcpy(b->data + b->size, data, size);
         b->size += size;
      }
      return true;
   }
   return DynBufAppendSlow(b, data, size);
}

void DynBuf_SafeInternalAppend(DynBuf *b, const void *data, size_t size, const char *file,
                               unsigned line);
void DynBuf_SafeInternalInsert(DynBuf *b, size_t offset, const void *data, size_t size,
                               const char *file, unsigned line);
void DynBuf_SafeInternalEnlarge(DynBuf *b, size_t minSize, const char *file, unsigned line);

#define DynBuf_SafeAppend(b, data, size) \
   DynBuf_SafeInternalAppend((b), (data), (size), __FILE__, __LINE__)
#define DynBuf_SafeInsert(b, offset, data, size) \
   DynBuf_SafeInternalInsert((b), (offset), (data), (size), __FILE__, __LINE__)
#define DynBuf_SafeEnlarge(b, minSize) \
   DynBuf_SafeInternalEnlarge((b), (minSize), __FILE__, __LINE__)

static inline void *DynBuf_Get(const DynBuf *b)
{
   return b->data;
}
static inline size_t DynBuf_GetSize(const DynBuf *b)
{
   return b->size;
}
static inline size_t DynBuf_GetAllocatedSize(const DynBuf *b)
{
   return b->allocated;
}
static inline void DynBuf_SetSize(DynBuf *b, size_t size)
{
   b->size = size;
}

/* Appends the string with its NUL, then drops the NUL from the size (so more can follow). */
static inline bool DynBuf_AppendString(DynBuf *b, const char *s)
{
   if (!DynBuf_Append(b, s, strlen(s) + 1)) {
      return false;
   }
   b->size--;
   return true;
}

#ifdef __cplusplus
}
#endif

#endif
