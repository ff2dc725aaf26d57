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
#include "unicode.h"

const StringEncoding kEncodings[] = {STRING_ENCODING_UTF8,         STRING_ENCODING_ISO_8859_1,
                                     STRING_ENCODING_WINDOWS_1252, STRING_ENCODING_UTF16_LE,
                                     STRING_ENCODING_US_ASCII,     STRING_ENCODING_UTF16_BE};

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
   StringEncoding encoding = kEncodings[data[0] % std::size(kEncodings)];
   std::string text = (data[0] & 0x80) ? std::string(".encoding = \"") +
                                             Unicode_EncodingEnumToName(encoding) + "\"\n"
                                       : "";
   text.append(reinterpret_cast<const char *>(data) + 1, size - 1);
   Dictionary *dict = Dictionary_Create(), *again = Dictionary_Create();
   MsgList *msgs = nullptr;
   bool ok = Dictionary_LoadFromBuffer(dict, (data[0] & 0x40) ? "f" : nullptr, text.data(),
                                       text.size(), encoding, &msgs);
   Check(ok || msgs != nullptr);  // a failed read always says why
   size_t length = 0;
   char *written = ok ? Dictionary_WriteToBuffer(dict, true, &length, &msgs) : nullptr;
   Check(!ok ||
         (written != nullptr &&
          Dictionary_LoadFromBuffer(again, "w", written, length, STRING_ENCODING_UTF8, &msgs) &&
          Dictionary_NumEntries(again) == Dictionary_NumEntries(dict)));
   for (size_t i = 0; ok && i < Dictionary_NumEntries(dict); i++) {
      const char *name = Dictionary_NameAt(dict, i);
      size_t l1 = 0, l2 = 0;
      const char *v1 = Dictionary_GetBytes(dict, name, &l1),
                 *v2 = Dictionary_GetBytes(again, name, &l2);
      Check(v2 != nullptr && l1 == l2 && memcmp(v1, v2, l1) == 0);
   }
   free(written);
   MsgList_Free(msgs);
   Dictionary_Free(again);
   Dictionary_Free(dict);
   return 0;
}
