/*
 * Conversions, validation and normalisation through ICU, and CodeSet_Init, which finds ICU's
 * data file and switches the codeset module over to this backend.
 */
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include <memory>

#include <unicode/ucnv.h>
#include <unicode/unorm2.h>
#include <unicode/ustring.h>
#include <unicode/utypes.h>

#include "codesetIcu.h"
#include "location.h"
#include "log.h"
#include "str.h"

/*
 * The product-location module hands out its path lookup through Location_GetResolver. The
 * reference is weak so that programs without that module link without it; they never use ICU.
 */
#pragma weak Location_GetResolver

namespace {

constexpr const char kIcuDataFile[] = U_ICUDATA_NAME ".dat";
/* Without a product location the directory is one that cannot exist, so ICU stays unused. */
constexpr const char kUnreachableIcuDir[] =
    "/dev/null/Non-existing DEFAULT_LIBDIRECTORY"
    "/icu";
constexpr size_t kPivotUnits = 1024;

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
         return false;
   }
   UErrorCode status = U_ZERO_ERROR;
   ucnv_setToUCallBack(source, toU, nullptr, nullptr, nullptr, &status);
   if (U_FAILURE(status)) {
      return false;
   }
   ucnv_setFromUCallBack(target, fromU, nullptr, nullptr, nullptr, &status);
   return U_SUCCESS(status);
}

CodeSetIcuResult IcuConvertToDynBuf(const char *codeIn, const char *bufIn, size_t sizeIn,
                                    const char *codeOut, int policy, DynBuf *db)
{
   UErrorCode status = U_ZERO_ERROR;
   Converter source(ucnv_open(codeIn, &status));
   if (U_FAILURE(status)) {
      return CodeSetIcuResult::kFailed;
   }
   Converter target(ucnv_open(codeOut, &status));
   if (U_FAILURE(status)) {
      return CodeSetIcuResult::kFailed;
   }
   if (!CodeSetIsKnownPolicy(policy)) {
      return CodeSetIcuResult::kUnusable;
   }
   if (!InstallCallbacks(source.get(), target.get(), policy)) {
      return CodeSetIcuResult::kFailed;
   }

   size_t start = db->size;
   size_t want = start + sizeIn + kCodeSetTerminator;
   if (sizeIn > SIZE_MAX - kCodeSetTerminator || want < start || !DynBuf_Enlarge(db, want)) {
      return CodeSetIcuResult::kFailed;
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
         return CodeSetIcuResult::kFailed;
      }
   }
   if (U_FAILURE(status)) {
      db->size = start;
      return CodeSetIcuResult::kFailed;
   }
   return CodeSetIcuResult::kDone;
}

bool IcuIsSupported(const char *name)
{
   UErrorCode status = U_ZERO_ERROR;
   Converter cv(ucnv_open(name, &status));
   return U_SUCCESS(status);
}

CodeSetIcuResult IcuValidate(const char *buf, size_t size, const char *code)
{
   UErrorCode status = U_ZERO_ERROR;
   Converter cv(ucnv_open(code, &status));
   if (U_SUCCESS(status)) {
      ucnv_setToUCallBack(cv.get(), UCNV_TO_U_CALLBACK_STOP, nullptr, nullptr, nullptr, &status);
   }
   if (U_FAILURE(status)) {
      return CodeSetIcuResult::kUnusable;
   }
   ucnv_toUChars(cv.get(), nullptr, 0, buf, (int32_t)size, &status);
   return status == U_BUFFER_OVERFLOW_ERROR ? CodeSetIcuResult::kDone : CodeSetIcuResult::kFailed;
}

constexpr CodeSetIcuBackend kIcuBackend = {IcuConvertToDynBuf, IcuIsSupported, IcuValidate};

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
         CodeSetUseIcu(nullptr);
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
   CodeSetUseIcu(useIcu ? &kIcuBackend : nullptr);
   return true;
}

bool CodeSet_Utf8NormalizeC(const char *bufIn, size_t sizeIn, char **bufOut, size_t *sizeOut)
{
   return Normalize(true, bufIn, sizeIn, bufOut, sizeOut);
}

bool CodeSet_Utf8NormalizeD(const char *bufIn, size_t sizeIn, char **bufOut, size_t *sizeOut)
{
   return Normalize(false, bufIn, sizeIn, bufOut, sizeOut);
}

}  // extern "C"
