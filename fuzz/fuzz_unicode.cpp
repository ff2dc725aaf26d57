/*
 * Unicode strings: unescaping of escaped ASCII against a reference decoding, and the
 * code-point operations on whatever valid UTF-8 the input holds.
 *
 * The escape text is shaped so that it never asks for a panic (non-ASCII bytes, missing hex
 * digits, code points past U+10FFFF, surrogates), since those end the process by design.
 */
#include "fuzzSupport.h"
#include "internal/utf.h"
#include "unicode.h"

namespace {

const char kHex[] = "0123456789abcdef";

void AppendUtf8(std::string &out, uint32_t cp)
{
   uint8_t bytes[4];
   out.append((const char *)bytes, (size_t)(tesmar::utf::EncodeUtf8(cp, bytes) - bytes));
}

/*
 * Builds an escaped text from the input bytes and the UTF-8 it must decode to. A surrogate
 * escape is no character (a lone one ends the process by design), so none is made.
 */
void Shape(const uint8_t *data, size_t size, std::string &escaped, std::string &expected)
{
   size_t i = 0;
   while (i < size) {
      uint8_t b = data[i++];
      char c = (char)(b & 0x7F);
      if (c == '\0') {
         c = ' ';
      }
      if (c != '\\') {
         escaped += c;
         expected += c;
         continue;
      }
      uint8_t kind = i < size ? data[i++] : 0;
      if (kind % 3 == 0) { /* a backslash before an ordinary character */
         char next = (char)(kind % 94 + 33);
         if (next == 'u' || next == 'U') {
            next = '\\';
         }
         escaped += '\\';
         escaped += next;
         expected += next;
         continue;
      }
      int digits = kind % 3 == 1 ? 4 : 8;
      uint32_t cp = 0;
      for (int k = 0; k < 4 && i < size; k++) {
         cp = cp << 8 | data[i++];
      }
      cp = digits == 4 ? cp & 0xFFFF : cp % 0x110000;
      if (tesmar::utf::IsSurrogate(cp)) {
         cp = 0x20;
      }
      if (cp == 0) {
         cp = 0x41;
      }
      escaped += '\\';
      escaped += digits == 4 ? 'u' : 'U';
      for (int k = digits - 1; k >= 0; k--) {
         escaped += kHex[(cp >> (4 * k)) & 0xF];
      }
      AppendUtf8(expected, cp);
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
   fuzz::Check(expected == fuzz::Take(Unicode_FromEscapedAscii(escaped.c_str(), true)));

   /* The code-point operations on the input when it is valid UTF-8 without NULs. */
   std::string text((const char *)data, size);
   if (text.find('\0') != std::string::npos ||
       !Unicode_IsBufferValid(text.data(), (ssize_t)text.size(), STRING_ENCODING_UTF8)) {
      return 0;
   }
   ssize_t start = size > 0 ? data[0] % 8 : 0;
   ssize_t length = size > 1 ? (ssize_t)(data[1] % 8) - 1 : -1;
   std::string owned = fuzz::Take(Unicode_Substr(text.c_str(), start, length));
   const char *sub = owned.c_str();
   fuzz::Check(Unicode_IsBufferValid(sub, -1, STRING_ENCODING_UTF8));
   ssize_t found = Unicode_FindSubstrInRange(text.c_str(), 0, -1, sub, 0, -1);
   ssize_t last = Unicode_FindLastSubstrInRange(text.c_str(), 0, -1, sub, 0, -1);
   fuzz::Check(found >= 0 && last >= found && (sub[0] == '\0' || found <= start));
   fuzz::Check(Unicode_CompareRange(text.c_str(), start, length, sub, 0, -1, false) == 0 &&
               Unicode_CompareRange(text.c_str(), start, length, sub, 0, -1, true) == 0);
   fuzz::Check(Unicode_CompareRange(text.c_str(), 0, -1, sub, 0, -1, true) ==
               -Unicode_CompareRange(sub, 0, -1, text.c_str(), 0, -1, true));
   return 0;
}
