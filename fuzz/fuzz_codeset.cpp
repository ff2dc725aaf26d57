/*
 * The built-in converters against ICU on the same input, for every pair and policy where the
 * two are defined to agree, and the built-in validators against ICU's.
 *
 * Input: one selector byte (pair and policy), then the text.
 */
#include <algorithm>

#include <unicode/uchar.h>
#include <unicode/utypes.h>

#include "fuzzSupport.h"
#include "internal/utf.h"
#include "misc/codesetBuiltin.h"
#include "unicode.h"

namespace {

const StringEncoding u8 = STRING_ENCODING_UTF8, le = STRING_ENCODING_UTF16_LE,
                     be = STRING_ENCODING_UTF16_BE, ascii = STRING_ENCODING_US_ASCII;
const std::pair<StringEncoding, StringEncoding> kPairs[] = {
    {u8, le}, {u8, u8}, {u8, ascii}, {le, u8},       {be, u8},
    {le, le}, {be, be}, {ascii, u8}, {ascii, ascii}, {STRING_ENCODING_ISO_8859_1, u8}};

std::pair<bool, std::string> Run(bool icu, StringEncoding from, StringEncoding to,
                                 const std::string &in, int policy)
{
   DynBuf db;
   DynBuf_Init(&db);
   bool ok = icu ? CodeSet_ConvertToDynBuf(Unicode_EncodingEnumToName(from), in.data(), in.size(),
                                           Unicode_EncodingEnumToName(to), policy, &db)
                 : CodeSetBuiltinConvert(from, to, in.data(), in.size(), policy, &db);
   std::pair<bool, std::string> r{ok, ok && db.size != 0 ? std::string(db.data, db.size) : ""};
   DynBuf_Destroy(&db);
   return r;
}

/* ICU's substitution drops default-ignorable characters (format controls and the like). */
bool HasDefaultIgnorable(const std::string &utf8)
{
   uint32_t cp;
   for (size_t i = 0, len; i < utf8.size(); i += len) {
      int n =
          tesmar::utf::DecodeUtf8((const uint8_t *)utf8.data() + i, utf8.size() - i, &cp, false);
      if (n <= 0 || u_hasBinaryProperty((UChar32)cp, UCHAR_DEFAULT_IGNORABLE_CODE_POINT)) {
         return n > 0;
      }
      len = (size_t)n;
   }
   return false;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
   fuzz::InitCodeSetWithEmptyData(U_ICUDATA_NAME ".dat");
   return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
   if (size == 0) {
      return 0;
   }
   auto [from, to] = kPairs[data[0] % std::size(kPairs)];
   int policy = from == to && from != u8 ? 0 : (data[0] / 16) % 3;  // equal pairs only validate
   const std::string raw((const char *)data + 1, size - 1);
   std::string in = raw;
   // Where the built-in rules differ from ICU by design, shape the input to agree.
   if (from == le || from == be) {
      in.resize(in.size() & ~(size_t)1);
   } else if (from == ascii) {
      std::ranges::for_each(in, [](char &c) { c &= 0x7F; });
   } else if (to == ascii &&
              (!CodeSetIsValidUtf8(in.data(), in.size()) || HasDefaultIgnorable(in))) {
      return 0;
   }
   // Ill-formed input fails the built-in path whatever the policy; ICU repairs it.
   if (policy != 0 && to != ascii && !Run(false, from, to, in, 0).first) {
      Check(!Run(false, from, to, in, policy).first);
      policy = 0;
   }
   Check(Run(false, from, to, in, policy) == Run(true, from, to, in, policy));

   // The validators agree with ICU's on the raw text.
   bool isAscii = std::ranges::all_of(raw, [](char c) { return (c & 0x80) == 0; });
   Check(CodeSetIsValidUtf8(raw.data(), raw.size()) ==
             CodeSet_Validate(raw.data(), raw.size(), "UTF-8") &&
         isAscii == CodeSet_Validate(raw.data(), raw.size(), "US-ASCII"));
   Check(raw.size() % 2 != 0 || CodeSetIsValidUtf16(raw.data(), raw.size(), true) ==
                                    CodeSet_Validate(raw.data(), raw.size(), "UTF-16BE"));
   return 0;
}
