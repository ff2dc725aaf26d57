/*
 * CodeSet: conversion between named encodings, through ICU once CodeSet_Init found its data
 * file and through the built-in converters (codesetBuiltin) otherwise.
 *
 * Everything that calls ICU lives in codesetIcu.cpp and is reached only through the backend
 * that CodeSet_Init installs. A program that never initialises the codeset module therefore
 * links none of ICU: the root programs convert paths with the built-in converters alone and
 * cannot be made to load an ICU data file.
 */
#include "codeset.h"

#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <atomic>

#include "codesetBuiltin.h"
#include "codesetIcu.h"
#include "log.h"
#include "unicodeTypes.h"

namespace {

/* Set by CodeSet_Init when ICU is to be used, read by every conversion. */
std::atomic<const CodeSetIcuBackend *> gIcu{nullptr};

const CodeSetIcuBackend *Icu()
{
   return gIcu.load(std::memory_order_acquire);
}

bool IcuConvert(const CodeSetIcuBackend *icu, const char *codeIn, const char *bufIn, size_t sizeIn,
                const char *codeOut, int policy, DynBuf *db)
{
   CodeSetIcuResult result = icu->convertToDynBuf(codeIn, bufIn, sizeIn, codeOut, policy, db);
   if (result == CodeSetIcuResult::kUnusable) {
      NOT_IMPLEMENTED();
   }
   return result == CodeSetIcuResult::kDone;
}

bool BuiltinConvertToDynBuf(StringEncoding from, StringEncoding to, const char *bufIn,
                            size_t sizeIn, int policy, DynBuf *db)
{
   if (!CodeSetIsKnownPolicy(policy)) {
      NOT_IMPLEMENTED();
   }
   return CodeSetBuiltinConvert(Unicode_ResolveEncoding(from), Unicode_ResolveEncoding(to), bufIn,
                                sizeIn, policy, db);
}

/* Ends a conversion result with four zero bytes and hands it over as a heap block. */
bool DetachHeapResult(bool ok, DynBuf *db, char **bufOut, size_t *sizeOut)
{
   static const char zeros[kCodeSetTerminator] = {0, 0, 0, 0};
   if (!ok || !DynBuf_Append(db, zeros, sizeof zeros) || !DynBuf_Trim(db)) {
      DynBuf_Destroy(db);
      *bufOut = nullptr;
      return false;
   }
   size_t size = db->size - kCodeSetTerminator;
   *bufOut = (char *)DynBuf_Detach(db);
   if (sizeOut != nullptr) {
      *sizeOut = size;
   }
   return true;
}

/* A heap conversion between two of the encodings that both paths know by fixed names. */
bool ConvertFixed(const char *codeIn, StringEncoding from, const char *bufIn, size_t sizeIn,
                  const char *codeOut, StringEncoding to, char **bufOut, size_t *sizeOut)
{
   DynBuf db;
   DynBuf_Init(&db);
   bool ok;
   if (bufIn == nullptr || sizeIn == 0) {
      ok = true;
   } else if (const CodeSetIcuBackend *icu = Icu()) {
      ok = IcuConvert(icu, codeIn, bufIn, sizeIn, codeOut, CODESET_POLICY_NORMAL, &db);
   } else {
      ok = BuiltinConvertToDynBuf(from, to, bufIn, sizeIn, CODESET_POLICY_NORMAL, &db);
   }
   return DetachHeapResult(ok, &db, bufOut, sizeOut);
}

/* With ICU the current encoding is UTF-8 itself: a plain copy with one terminating zero. */
bool CopyCurrent(const char *bufIn, size_t sizeIn, char **bufOut, size_t *sizeOut)
{
   if (sizeIn == SIZE_MAX) {
      return false;
   }
   char *copy = (char *)malloc(sizeIn + 1);
   if (copy == nullptr) {
      return false;
   }
   if (sizeIn != 0) {
      memcpy(copy, bufIn, sizeIn);
   }
   copy[sizeIn] = '\0';
   *bufOut = copy;
   if (sizeOut != nullptr) {
      *sizeOut = sizeIn;
   }
   return true;
}

}  // namespace

void CodeSetUseIcu(const CodeSetIcuBackend *backend)
{
   gIcu.store(backend, std::memory_order_release);
}

extern "C" {

const char *CodeSet_GetCurrentCodeSet(void)
{
   return "UTF-8";
}

bool CodeSet_ConvertToDynBuf(const char *codeIn, const char *bufIn, size_t sizeIn,
                             const char *codeOut, int policy, DynBuf *db)
{
   if (bufIn == nullptr || sizeIn == 0) {
      return true;
   }
   if (const CodeSetIcuBackend *icu = Icu()) {
      return IcuConvert(icu, codeIn, bufIn, sizeIn, codeOut, policy, db);
   }
   return BuiltinConvertToDynBuf(UnicodeIANALookup(codeIn), UnicodeIANALookup(codeOut), bufIn,
                                 sizeIn, policy, db);
}

bool CodeSet_Convert(const char *codeIn, const char *bufIn, size_t sizeIn, const char *codeOut,
                     int policy, char **bufOut, size_t *sizeOut)
{
   DynBuf db;
   DynBuf_Init(&db);
   bool ok = CodeSet_ConvertToDynBuf(codeIn, bufIn, sizeIn, codeOut, policy, &db);
   return DetachHeapResult(ok, &db, bufOut, sizeOut);
}

bool CodeSet_Utf8ToCurrent(const char *bufIn, size_t sizeIn, char **bufOut, size_t *sizeOut)
{
   if (Icu() != nullptr) {
      return CopyCurrent(bufIn, sizeIn, bufOut, sizeOut);
   }
   return ConvertFixed("UTF-8", STRING_ENCODING_UTF8, bufIn, sizeIn, "UTF-8",
                       STRING_ENCODING_DEFAULT, bufOut, sizeOut);
}

bool CodeSet_CurrentToUtf8(const char *bufIn, size_t sizeIn, char **bufOut, size_t *sizeOut)
{
   if (Icu() != nullptr) {
      return CopyCurrent(bufIn, sizeIn, bufOut, sizeOut);
   }
   return ConvertFixed("UTF-8", STRING_ENCODING_DEFAULT, bufIn, sizeIn, "UTF-8",
                       STRING_ENCODING_UTF8, bufOut, sizeOut);
}

bool CodeSet_Utf16leToUtf8Db(const char *bufIn, size_t sizeIn, DynBuf *db)
{
   if (bufIn == nullptr || sizeIn == 0) {
      return true;
   }
   if (const CodeSetIcuBackend *icu = Icu()) {
      return IcuConvert(icu, "UTF-16LE", bufIn, sizeIn, "UTF-8", CODESET_POLICY_NORMAL, db);
   }
   return BuiltinConvertToDynBuf(STRING_ENCODING_UTF16_LE, STRING_ENCODING_UTF8, bufIn, sizeIn,
                                 CODESET_POLICY_NORMAL, db);
}

bool CodeSet_Utf16leToUtf8(const char *bufIn, size_t sizeIn, char **bufOut, size_t *sizeOut)
{
   return ConvertFixed("UTF-16LE", STRING_ENCODING_UTF16_LE, bufIn, sizeIn, "UTF-8",
                       STRING_ENCODING_UTF8, bufOut, sizeOut);
}

bool CodeSet_Utf8ToUtf16le(const char *bufIn, size_t sizeIn, char **bufOut, size_t *sizeOut)
{
   return ConvertFixed("UTF-8", STRING_ENCODING_UTF8, bufIn, sizeIn, "UTF-16LE",
                       STRING_ENCODING_UTF16_LE, bufOut, sizeOut);
}

bool CodeSet_CurrentToUtf16le(const char *bufIn, size_t sizeIn, char **bufOut, size_t *sizeOut)
{
   return CodeSet_Convert(CodeSet_GetCurrentCodeSet(), bufIn, sizeIn, "UTF-16LE",
                          CODESET_POLICY_NORMAL, bufOut, sizeOut);
}

bool CodeSet_Utf16leToCurrent(const char *bufIn, size_t sizeIn, char **bufOut, size_t *sizeOut)
{
   return CodeSet_Convert("UTF-16LE", bufIn, sizeIn, CodeSet_GetCurrentCodeSet(),
                          CODESET_POLICY_NORMAL, bufOut, sizeOut);
}

bool CodeSet_Utf16beToCurrent(const char *bufIn, size_t sizeIn, char **bufOut, size_t *sizeOut)
{
   return CodeSet_Convert("UTF-16BE", bufIn, sizeIn, CodeSet_GetCurrentCodeSet(),
                          CODESET_POLICY_NORMAL, bufOut, sizeOut);
}

bool CodeSet_IsEncodingSupported(const char *name)
{
   if (const CodeSetIcuBackend *icu = Icu()) {
      return icu->isSupported(name);
   }
   StringEncoding encoding = UnicodeIANALookup(name);
   return CodeSetBuiltinHandles(encoding, encoding);
}

bool CodeSet_Validate(const char *buf, size_t size, const char *code)
{
   VERIFY(size < ((size_t)1 << 31));
   if (size == 0) {
      return true;
   }
   if (const CodeSetIcuBackend *icu = Icu()) {
      CodeSetIcuResult result = icu->validate(buf, size, code);
      VERIFY(result != CodeSetIcuResult::kUnusable);
      return result == CodeSetIcuResult::kDone;
   }

   DynBuf db;
   DynBuf_Init(&db);
   bool ok = BuiltinConvertToDynBuf(UnicodeIANALookup(code), STRING_ENCODING_UTF8, buf, size,
                                    CODESET_POLICY_NORMAL, &db);
   DynBuf_Destroy(&db);
   return ok;
}

}  // extern "C"
