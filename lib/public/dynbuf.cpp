/*
 * DynBuf: a growable byte buffer.
 *
 * The allocation grows from 128 bytes by doubling up to 256 KiB and by 256 KiB steps after
 * that, which keeps small buffers cheap and bounds the waste of large ones. Plain operations
 * leave the buffer untouched when memory fails; the Safe forms panic naming their caller.
 */
#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include "dynbuf.h"
#include "log.h"

namespace {

constexpr size_t kInitialAllocation = 128;
constexpr size_t kLinearStep = 256 * 1024;

/*
 * The allocation the growth rule gives for a buffer of `allocated` bytes that must hold at
 * least minSize; 0 when the arithmetic overflows.
 */
size_t GrownAllocation(size_t allocated, size_t minSize)
{
   size_t grown;
   if (allocated == 0) {
      grown = kInitialAllocation;
   } else if (allocated < kLinearStep) {
      grown = allocated * 2;
   } else {
      grown = allocated + kLinearStep;
   }
   if (grown < minSize) {
      grown = minSize;
   }
   return grown < allocated ? 0 : grown;
}

/* Moves the data to a block of exactly newAllocated bytes; false (buffer unchanged) on failure. */
bool Reallocate(DynBuf *b, size_t newAllocated)
{
   if (newAllocated == 0) {
      free(b->data);
      b->data = nullptr;
      b->allocated = 0;
      return true;
   }
   char *data = static_cast<char *>(realloc(b->data, newAllocated));
   if (data == nullptr) {
      return false;
   }
   b->data = data;
   b->allocated = newAllocated;
   return true;
}

[[noreturn]] void OutOfMemoryAt(const char *file, unsigned line)
{
   Panic("Unrecoverable memory allocation failure at %.*s:%u\n", Log_SourcePathLength(file), file,
         line);
}

}  // namespace

extern "C" {

void DynBuf_Init(DynBuf *b)
{
   b->data = nullptr;
   b->size = 0;
   b->allocated = 0;
}

void DynBuf_Destroy(DynBuf *b)
{
   free(b->data);
   DynBuf_Init(b);
}

void DynBuf_Attach(DynBuf *b, size_t size, void *data)
{
   free(b->data);
   b->data = static_cast<char *>(data);
   b->size = size;
   b->allocated = size;
}

void *DynBuf_Detach(DynBuf *b)
{
   void *data = b->data;
   b->data = nullptr;
   b->allocated = 0;
   return data;
}

char *DynBuf_DetachString(DynBuf *b)
{
   if (b->size >= b->allocated) {
      size_t needed = b->size + 1;
      size_t grown = needed == 0 ? 0 : GrownAllocation(b->allocated, needed);
      if (grown == 0 || !Reallocate(b, grown)) {
         Panic_MemAlloc(__FILE__, __LINE__);
      }
   }
   b->data[b->size] = '\0';
   return static_cast<char *>(DynBuf_Detach(b));
}

bool DynBuf_Enlarge(DynBuf *b, size_t minSize)
{
   size_t grown = GrownAllocation(b->allocated, minSize);
   if (grown == 0) {
      errno = ENOMEM;
      return false;
   }
   return Reallocate(b, grown);
}

bool DynBuf_Insert(DynBuf *b, size_t offset, const void *data, size_t size)
{
   if (size == 0) {
      return true;
   }
   VERIFY(offset <= b->size);
   size_t newSize = b->size + size;
   if (newSize < size) {
      errno = ENOMEM;
      return false;
   }
   if (newSize > b->allocated && !DynBuf_Enlarge(b, newSize)) {
      return false;
   }
   memmove(b->data + offset + size, b->data + offset, b->size - offset);
   memcpy(b->data + offset, data, size);
   b->size = newSize;
   return true;
}

bool DynBufAppendSlow(DynBuf *b, const void *data, size_t size)
{
   return DynBuf_Insert(b, b->size, data, size);
}

bool DynBuf_Trim(DynBuf *b)
{
   return Reallocate(b, b->size);
}

bool DynBuf_Copy(const DynBuf *src, DynBuf *dest)
{
   DynBuf copy;
   DynBuf_Init(&copy);
   if (src->allocated != 0) {
      copy.data = static_cast<char *>(malloc(src->allocated));
      if (copy.data == nullptr) {
         return false;
      }
      copy.allocated = src->allocated;
      copy.size = src->size;
      if (src->size != 0) {
         memcpy(copy.data, src->data, src->size);
      }
   }
   *dest = copy;
   return true;
}

void DynBuf_SetString(DynBuf *b, const char *string)
{
   if (string == nullptr) {
      DynBuf_Init(b);
      return;
   }
   size_t length = strlen(string);
   b->data = const_cast<char *>(string);
   b->size = length;
   b->allocated = length + 1;
}

void DynBuf_SafeInternalAppend(DynBuf *b, const void *data, size_t size, const char *file,
                               unsigned line)
{
   if (!DynBuf_Append(b, data, size)) {
      OutOfMemoryAt(file, line);
   }
}

void DynBuf_SafeInternalInsert(DynBuf *b, size_t offset, const void *data, size_t size,
                               const char *file, unsigned line)
{
   if (!DynBuf_Insert(b, offset, data, size)) {
      OutOfMemoryAt(file, line);
   }
}

void DynBuf_SafeInternalEnlarge(DynBuf *b, size_t minSize, const char *file, unsigned line)
{
   if (!DynBuf_Enlarge(b, minSize)) {
      OutOfMemoryAt(file, line);
   }
}

}  // extern "C"
