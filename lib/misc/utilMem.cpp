/*
 * The safe allocators: memory exhaustion is never returned to their callers; it ends the
 * process with a panic that names the caller's source location.
 */
#include <stdlib.h>
#include <string.h>

#include "log.h"
#include "util.h"

namespace {

[[noreturn]] void OutOfMemory(int bugNr, const char *file, int line)
{
   int length = Log_SourcePathLength(file);
   if (bugNr == -1) {
      Panic("Unrecoverable memory allocation failure at %.*s:%d\n", length, file, line);
   }
   Panic("Unrecoverable memory allocation failure at %.*s:%d.  Bug number: %d\n", length, file,
         line, bugNr);
}

[[noreturn]] void OutOfMemoryPlain()
{
   Panic("Unrecoverable memory allocation failure\n");
}

}  // namespace

extern "C" {

void *UtilSafeMalloc0(size_t size)
{
   void *result = malloc(size);
   if (result == nullptr && size != 0) {
      OutOfMemoryPlain();
   }
   return result;
}

void *UtilSafeCalloc0(size_t count, size_t size)
{
   void *result = calloc(count, size);
   if (result == nullptr && count != 0 && size != 0) {
      OutOfMemoryPlain();
   }
   return result;
}

void *UtilSafeRealloc0(void *ptr, size_t size)
{
   void *result = realloc(ptr, size);
   if (result == nullptr && size != 0) {
      OutOfMemoryPlain();
   }
   return result;
}

char *UtilSafeStrdup0(const char *s)
{
   if (s == nullptr) {
      return nullptr;
   }
   char *result = strdup(s);
   if (result == nullptr) {
      OutOfMemoryPlain();
   }
   return result;
}

char *UtilSafeStrndup0(const char *s, size_t n)
{
   if (s == nullptr) {
      return nullptr;
   }
   char *result = strndup(s, n);
   if (result == nullptr) {
      OutOfMemoryPlain();
   }
   return result;
}

void *UtilSafeMalloc1(size_t size, int bugNr, const char *file, int line)
{
   void *result = malloc(size);
   if (result == nullptr && size != 0) {
      OutOfMemory(bugNr, file, line);
   }
   return result;
}

void *UtilSafeCalloc1(size_t count, size_t size, int bugNr, const char *file, int line)
{
   void *result = calloc(count, size);
   if (result == nullptr && count != 0 && size != 0) {
      OutOfMemory(bugNr, file, line);
   }
   return result;
}

void *UtilSafeRealloc1(void *ptr, size_t size, int bugNr, const char *file, int line)
{
   void *result = realloc(ptr, size);
   if (result == nullptr && size != 0) {
      OutOfMemory(bugNr, file, line);
   }
   return result;
}

char *UtilSafeStrdup1(const char *s, int bugNr, const char *file, int line)
{
   if (s == nullptr) {
      return nullptr;
   }
   char *result = strdup(s);
   if (result == nullptr) {
      OutOfMemory(bugNr, file, line);
   }
   return result;
}

char *UtilSafeStrndup1(const char *s, size_t n, int bugNr, const char *file, int line)
{
   if (s == nullptr) {
      return nullptr;
   }
   char *result = strndup(s, n);
   if (result == nullptr) {
      OutOfMemory(bugNr, file, line);
   }
   return result;
}

void Util_ZeroFree(void *buf, size_t size)
{
   if (buf != nullptr) {
      explicit_bzero(buf, size);
      free(buf);
   }
}

void Util_ZeroFreeString(char *str)
{
   if (str != nullptr) {
      Util_ZeroFree(str, strlen(str));
   }
}

}  // extern "C"
