/*
 * Unicode strings: unescaping of escaped ASCII against a reference decoding, and the
 * code-point operations on whatever valid UTF-8 the input holds.
 *
 * The escape text is shaped so that it never asks for a panic (non-ASCII bytes, missing hex
 * digits, code points past U+10FFFF, surrogates), since those end the process by design.
 */
#include <stdio.h>

#include "fuzzSupport.h"
#include "internal/utf.h"
#include "unicode.h"

namespace {

/*
 * Builds an escaped text from the input bytes and the UTF-8 it must decode to. A surrogate
 * escape is no character (a lone one ends the process by design), so none is made.
 */
void Shape(const uint8_t *data, size_t size, std::string &escaped, std::string &expected)
{
   for (size_t i = 0; i < size;) {
      char c = (char)(data[i++] & 0x7F);
      uint8_t kind = i < size ? data[i] : 0;
      if (c != '\\' || kind % 3 == 0) {  // plain, or a backslash before an ordinary character
         char next = c == '\\' ? (char)(kind % 94 + 33) : c == '\0' ? ' ' : c;
         next = c == '\\' && (next == 'u' || next == 'U') ? '\\' : next;
         escaped += c == '\\' ? std::string{'\\', next} : std::string{next};
         expected += next;
         i += c == '\\';
         continue;
      }
      int digits = kind % 3 == 1 ? 4 : 8;
      uint32_t cp = 0;
      i++;
      for (int k = 0; k < 4 && i < size; k++) {
         cp = cp << 8 | data[i++];
      }
      cp = digits == 4 ? cp & 0xFFFF : cp % 0x110000;
      cp = tesmar::utf::IsSurrogate(cp) ? 0x20 : cp == 0 ? 0x41 : cp;
      char hex[16];
      snprintf(hex, sizeof hex, digits == 4 ? "\\u%04x" : "\\U%08x", cp);
      escaped += hex;
      uint8_t bytes[4];
      expected.append((const char *)bytes, (size_t)(tesmar::utf::EncodeUtf8(cp, bytes) - bytes));
   }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
   CodeSet_Init("/nonexistent/icu-data-directory");
   return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
   std::string escaped, expected;
   Shape(data, size, escaped, expected);
   Check(expected == Take(Unicode_FromEscapedAscii(escaped.c_str(), true)));

   // The code-point operations on the input when it is valid UTF-8 without NULs.
   std::string t((const char *)data, size);
   const char *text = t.c_str();
   if (t.find('\0') != std::string::npos ||
       !Unicode_IsBufferValid(text, -1, STRING_ENCODING_UTF8)) {
      return 0;
   }
   ssize_t start = size > 0 ? data[0] % 8 : 0, length = size > 1 ? (ssize_t)(data[1] % 8) - 1 : -1;
   std::string owned = Take(Unicode_Substr(text, start, length));
   const char *sub = owned.c_str();
   Check(Unicode_IsBufferValid(sub, -1, STRING_ENCODING_UTF8));
   ssize_t found = Unicode_FindSubstrInRange(text, 0, -1, sub, 0, -1),
           last = Unicode_FindLastSubstrInRange(text, 0, -1, sub, 0, -1);
   Check(found >= 0 && last >= found && (sub[0] == '\0' || found <= start));
   Check(Unicode_CompareRange(text, start, length, sub, 0, -1, false) == 0 &&
         Unicode_CompareRange(text, start, length, sub, 0, -1, true) == 0);
   Check(Unicode_CompareRange(text, 0, -1, sub, 0, -1, true) ==
         -Unicode_CompareRange(sub, 0, -1, text, 0, -1, true));
   return 0;
}
