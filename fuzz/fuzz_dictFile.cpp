/*
 * Whole configuration files over arbitrary bytes: reading never fails uncleanly, and a file
 * that reads is written back into one that reads again with the same entries and values.
 *
 * Input: one selector byte (the default encoding, and whether to declare one), then the file.
 */
#include <string.h>

#include <unicode/utypes.h>

#include "dictionary.h"
#include "fuzzSupport.h"
#include "log.h"

namespace {

const StringEncoding kEncodings[] = {
    STRING_ENCODING_UTF8,     STRING_ENCODING_ISO_8859_1, STRING_ENCODING_WINDOWS_1252,
    STRING_ENCODING_UTF16_LE, STRING_ENCODING_US_ASCII,   STRING_ENCODING_UTF16_BE,
};
const char *const kDeclared[] = {"UTF-8",    "ISO-8859-1", "windows-1252",
                                 "UTF-16LE", "US-ASCII",   "UTF-16BE"};
constexpr size_t kNumEncodings = sizeof kEncodings / sizeof kEncodings[0];

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
   Log_SetOutputFd(-1);
   fuzz::InitCodeSetWithEmptyData(U_ICUDATA_NAME ".dat");
   return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
   if (size == 0) {
      return 0;
   }
   size_t pick = data[0] % kNumEncodings;
   std::string text;
   if (data[0] & 0x80) {
      text = std::string(".encoding = \"") + kDeclared[pick] + "\"\n";
   }
   text.append(reinterpret_cast<const char *>(data) + 1, size - 1);

   Dictionary *dict = Dictionary_Create();
   MsgList *msgs = nullptr;
   bool ok = Dictionary_LoadFromBuffer(dict, (data[0] & 0x40) ? "f" : nullptr, text.data(),
                                       text.size(), kEncodings[pick], &msgs);
   fuzz::Check(ok || msgs != nullptr);  // a failed read always says why
   MsgList_Free(msgs);
   msgs = nullptr;
   if (ok) {
      size_t length = 0;
      char *written = Dictionary_WriteToBuffer(dict, true, &length, &msgs);
      fuzz::Check(written != nullptr);
      Dictionary *again = Dictionary_Create();
      MsgList *msgs2 = nullptr;
      fuzz::Check(
          Dictionary_LoadFromBuffer(again, "w", written, length, STRING_ENCODING_UTF8, &msgs2) &&
          Dictionary_NumEntries(again) == Dictionary_NumEntries(dict));
      for (size_t i = 0; i < Dictionary_NumEntries(dict); i++) {
         const char *name = Dictionary_NameAt(dict, i);
         size_t l1 = 0;
         size_t l2 = 0;
         const char *v1 = Dictionary_GetBytes(dict, name, &l1);
         const char *v2 = Dictionary_GetBytes(again, name, &l2);
         fuzz::Check(v2 != nullptr && l1 == l2 && memcmp(v1, v2, l1) == 0);
      }
      MsgList_Free(msgs2);
      Dictionary_Free(again);
      free(written);
   }
   MsgList_Free(msgs);
   Dictionary_Free(dict);
   return 0;
}
