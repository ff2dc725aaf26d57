/*
 * CodeSet: conversion between named encodings, through ICU when its data file was found at
 * start-up and through the built-in converters (codesetBuiltin) otherwise.
 */
#include "codeset.h"

#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include <atomic>
#include <memory>

#include <unicode/ucnv.h>
#include <unicode/unorm2.h>
#include <unicode/ustring.h>
#include <unicode/utypes.h>

#include "codesetBuiltin.h"
#include "location.h"
#include "log.h"
#include "str.h"
#include "unicodeTypes.h"

/*
 * The product-location module hands out its path lookup through Location_GetResolver. The
 * reference is weak so that programs without that module link without it; they never use ICU.
 */
#pragma weak Location_GetResolver

namespace {

/* Set by CodeSet_Init, read by every conversion. */
std::atomic<bool> gUseIcu{false};

constexpr const char kIcuDataFile[] = U_ICUDATA_NAME ".dat";
/* Without a product location the directory is one that cannot exist, so ICU stays unused. */
constexpr const char kUnreachableIcuDir[] =
    "/dev/null/Non-existing DEFAULT_LIBDIRECTORY"
    "/icu";
constexpr size_t kPivotUnits = 1024;
constexpr size_t kHeapTerminator = 4;

bool UseIcu()
{
   return gUseIcu.load(std::memory_order_relaxed);
}

bool IsKnownPolicy(int policy)
{
   return policy >= CODESET_POLICY_NORMAL && policy <= CODESET_POLICY_SKIP;
}

/* Closes an ICU converter when it goes out of scope. */
struct ConverterCloser {
   void operator()(UConverter *cv) const { ucnv_close(cv); }
};
using Converter = std::unique_ptr<UConverter, ConverterCloser>;

bool InstallCallbacks(UConverter *source, UConverter *target, int policy)
{
   UConverterToUCallback toU;
   UConverterFromUCallback fromU;
   switch (policy) {
      case CODESET_POLICY_NORMAL:
         toU = UCNV_TO_U_CALLBACK_STOP;
         fromU = UCNV_FROM_U_CALLBACK_STOP;
         break;
      case CODESET_POLICY_SUBSTITUTE:
         toU = UCNV_TO_U_CALLBACK_SUBSTITUTE;
         fromU = UCNV_FROM_U_CALLBACK_SUBSTITUTE;
         break;
      case CODESET_POLICY_SKIP:
         toU = UCNV_TO_U_CALLBACK_SKIP;
         fromU = UCNV_FROM_U_CALLBACK_SKIP;
         break;
      default:
         NOT_IMPLEMENTED();
   }
   UErrorCode status = U_ZERO_ERROR;
   ucnv_setToUCallBack(source, toU, nullptr, nullptr, nullptr, &status);
   if (U_FAILURE(status)) {
      return false;
   }
   ucnv_setFromUCallBack(target, fromU, nullptr, nullptr, nullptr, &status);
   return U_SUCCESS(status);
}

bool IcuConvertToDynBuf(const char *codeIn, const char *bufIn, size_t sizeIn, const char *codeOut,
                        int policy, DynBuf *db)
{
   UErrorCode status = U_ZERO_ERROR;
   Converter source(ucnv_open(codeIn, &status));
   if (U_FAILURE(status)) {
      return false;
   }
   Converter target(ucnv_open(codeOut, &status));
   if (U_FAILURE(status)) {
      return false;
   }
   if (!IsKnownPolicy(policy)) {
      NOT_IMPLEMENTED();
   }
   if (!InstallCallbacks(source.get(), target.get(), policy)) {
      return false;
   }

   size_t start = db->size;
   size_t want = start + sizeIn + kHeapTerminator;
   if (sizeIn > SIZE_MAX - kHeapTerminator || want < start || !DynBuf_Enlarge(db, want)) {
      return false;
   }
   UChar pivot[kPivotUnits];
   UChar *pivotSource = pivot;
   UChar *pivotTarget = pivot;
   const char *src = bufIn;
   for (;;) {
      char *out = db->data + db->size;
      status = U_ZERO_ERROR;
      ucnv_convertEx(target.get(), source.get(), &out, db->data + db->allocated, &src,
                     bufIn + sizeIn, pivot, &pivotSource, &pivotTarget, pivot + kPivotUnits, false,
                     true, &status);
      db->size = (size_t)(out - db->data);
      if (status != U_BUFFER_OVERFLOW_ERROR) {
         break;
      }
      size_t doubled = db->allocated * 2;
      if (doubled / 2 != db->allocated || !DynBuf_Enlarge(db, doubled)) {
         db->size = start;
         return false;
      }
   }
   if (U_FAILURE(status)) {
      db->size = start;
      return false;
   }
   return true;
}

bool BuiltinConvertToDynBuf(StringEncoding from, StringEncoding to, const char *bufIn,
                            size_t sizeIn, int policy, DynBuf *db)
{
   if (!IsKnownPolicy(policy)) {
      NOT_IMPLEMENTED();
   }
   return CodeSetBuiltinConvert(Unicode_ResolveEncoding(from), Unicode_ResolveEncoding(to), bufIn,
                                sizeIn, policy, db);
}

/* Ends a conversion result with four zero bytes and hands it over as a heap block. */
bool DetachHeapResult(bool ok, DynBuf *db, char **bufOut, size_t *sizeOut)
{
   static const char zeros[kHeapTerminator] = {0, 0, 0, 0};
   if (!ok || !DynBuf_Append(db, zeros, sizeof zeros) || !DynBuf_Trim(db)) {
      DynBuf_Destroy(db);
      *bufOut = nullptr;
      return false;
   }
   size_t size = db->size - kHeapTerminator;
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
   } else if (UseIcu()) {
      ok = IcuConvertToDynBuf(codeIn, bufIn, sizeIn, codeOut, CODESET_POLICY_NORMAL, &db);
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

struct FreeDeleter {
   void operator()(void *p) const { free(p); }
};

bool Normalize(bool compose, const char *bufIn, size_t sizeIn, char **bufOut, size_t *sizeOut)
{
   if (bufIn == nullptr) {
      return false;
   }
   size_t length = strnlen(bufIn, sizeIn);
   if (length > INT32_MAX / 2) {
      return false;
   }
   UErrorCode status = U_ZERO_ERROR;
   int32_t units = 0;
   u_strFromUTF8(nullptr, 0, &units, bufIn, (int32_t)length, &status);
   if (status != U_BUFFER_OVERFLOW_ERROR && U_FAILURE(status)) {
      return false;
   }
   std::unique_ptr<UChar, FreeDeleter> text((UChar *)malloc(((size_t)units + 1) * sizeof(UChar)));
   if (!text) {
      return false;
   }
   status = U_ZERO_ERROR;
   u_strFromUTF8(text.get(), units + 1, nullptr, bufIn, (int32_t)length, &status);
   if (U_FAILURE(status)) {
      return false;
   }
   const UNormalizer2 *normalizer =
       compose ? unorm2_getNFCInstance(&status) : unorm2_getNFDInstance(&status);
   if (U_FAILURE(status)) {
      return false;
   }
   int32_t normUnits = unorm2_normalize(normalizer, text.get(), units, nullptr, 0, &status);
   if (status != U_BUFFER_OVERFLOW_ERROR && U_FAILURE(status)) {
      return false;
   }
   std::unique_ptr<UChar, FreeDeleter> norm(
       (UChar *)malloc(((size_t)normUnits + 1) * sizeof(UChar)));
   if (!norm) {
      return false;
   }
   status = U_ZERO_ERROR;
   unorm2_normalize(normalizer, text.get(), units, norm.get(), normUnits + 1, &status);
   if (U_FAILURE(status)) {
      return false;
   }
   int32_t bytes = 0;
   u_strToUTF8(nullptr, 0, &bytes, norm.get(), normUnits, &status);
   if (status != U_BUFFER_OVERFLOW_ERROR && U_FAILURE(status)) {
      return false;
   }
   char *out = (char *)malloc((size_t)bytes + 1);
   if (out == nullptr) {
      return false;
   }
   status = U_ZERO_ERROR;
   u_strToUTF8(out, bytes + 1, nullptr, norm.get(), normUnits, &status);
   if (U_FAILURE(status)) {
      free(out);
      return false;
   }
   out[bytes] = '\0';
   *bufOut = out;
   if (sizeOut != nullptr) {
      *sizeOut = (size_t)bytes;
   }
   return true;
}

}  // namespace

extern "C" {

bool CodeSet_Init(const char *icuDataDir)
{
   char *dir = nullptr;
   if (icuDataDir != nullptr) {
      dir = strdup(icuDataDir);
   } else if (Location_GetResolver != nullptr) {
      LocationResolver lookup = Location_GetResolver();
      char *found = lookup != nullptr ? lookup("icuDir") : nullptr;
      if (found == nullptr) {
         gUseIcu.store(false);
         return true;
      }
      dir = strdup(found);
      free(found);
   } else {
      dir = strdup(kUnreachableIcuDir);
   }
   char *path = dir != nullptr ? Str_Asprintf(nullptr, "%s/%s", dir, kIcuDataFile) : nullptr;
   free(dir);

   bool useIcu = false;
   struct stat st;
   if (path != nullptr && stat(path, &st) == 0 && !S_ISDIR(st.st_mode)) {
      u_setDataDirectory(path);
      useIcu = true;
   }
   free(path);
   gUseIcu.store(useIcu);
   return true;
}

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
   if (UseIcu()) {
      return IcuConvertToDynBuf(codeIn, bufIn, sizeIn, codeOut, policy, db);
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
   if (UseIcu()) {
      return CopyCurrent(bufIn, sizeIn, bufOut, sizeOut);
   }
   return ConvertFixed("UTF-8", STRING_ENCODING_UTF8, bufIn, sizeIn, "UTF-8",
                       STRING_ENCODING_DEFAULT, bufOut, sizeOut);
}

bool CodeSet_CurrentToUtf8(const char *bufIn, size_t sizeIn, char **bufOut, size_t *sizeOut)
{
   if (UseIcu()) {
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
   if (UseIcu()) {
      return IcuConvertToDynBuf("UTF-16LE", bufIn, sizeIn, "UTF-8", CODESET_POLICY_NORMAL, db);
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

bool CodeSet_Utf8NormalizeC(const char *bufIn, size_t sizeIn, char **bufOut, size_t *sizeOut)
{
   return Normalize(true, bufIn, sizeIn, bufOut, sizeOut);
}

bool CodeSet_Utf8NormalizeD(const char *bufIn, size_t sizeIn, char **bufOut, size_t *sizeOut)
{
   return Normalize(false, bufIn, sizeIn, bufOut, sizeOut);
}

bool CodeSet_IsEncodingSupported(const char *name)
{
   if (UseIcu()) {
      UErrorCode status = U_ZERO_ERROR;
      Converter cv(ucnv_open(name, &status));
      return U_SUCCESS(status);
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
   if (UseIcu()) {
      UErrorCode status = U_ZERO_ERROR;
      Converter cv(ucnv_open(code, &status));
      VERIFY(U_SUCCESS(status));
      ucnv_setToUCallBack(cv.get(), UCNV_TO_U_CALLBACK_STOP, nullptr, nullptr, nullptr, &status);
      VERIFY(U_SUCCESS(status));
      ucnv_toUChars(cv.get(), nullptr, 0, buf, (int32_t)size, &status);
      return status == U_BUFFER_OVERFLOW_ERROR;
   }
   DynBuf db;
   DynBuf_Init(&db);
   bool ok = BuiltinConvertToDynBuf(UnicodeIANALookup(code), STRING_ENCODING_UTF8, buf, size,
                                    CODESET_POLICY_NORMAL, &db);
   DynBuf_Destroy(&db);
   return ok;
}

}  // extern "C"
