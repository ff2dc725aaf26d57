/*
 * The built-in converters against ICU on the same input, for every pair and policy where the
 * two are defined to agree, and the built-in validators against ICU's.
 *
 * Input: one selector byte (pair and policy), then the text.
 */
#include <stdio.h>

#include <algorithm>

#include <unicode/uchar.h>
#include <unicode/utypes.h>

#include "fuzzSupport.h"
#include "internal/utf.h"
#include "misc/codesetBuiltin.h"

namespace {

struct Pair {
   StringEncoding from, to;
   const char *fromName, *toName;
};

const Pair kPairs[] = {
    {STRING_ENCODING_UTF8, STRING_ENCODING_UTF16_LE, "UTF-8", "UTF-16LE"},
    {STRING_ENCODING_UTF8, STRING_ENCODING_UTF8, "UTF-8", "UTF-8"},
    {STRING_ENCODING_UTF8, STRING_ENCODING_US_ASCII, "UTF-8", "US-ASCII"},
    {STRING_ENCODING_UTF16_LE, STRING_ENCODING_UTF8, "UTF-16LE", "UTF-8"},
    {STRING_ENCODING_UTF16_BE, STRING_ENCODING_UTF8, "UTF-16BE", "UTF-8"},
    {STRING_ENCODING_UTF16_LE, STRING_ENCODING_UTF16_LE, "UTF-16LE", "UTF-16LE"},
    {STRING_ENCODING_UTF16_BE, STRING_ENCODING_UTF16_BE, "UTF-16BE", "UTF-16BE"},
    {STRING_ENCODING_US_ASCII, STRING_ENCODING_UTF8, "US-ASCII", "UTF-8"},
    {STRING_ENCODING_US_ASCII, STRING_ENCODING_US_ASCII, "US-ASCII", "US-ASCII"},
    {STRING_ENCODING_ISO_8859_1, STRING_ENCODING_UTF8, "ISO-8859-1", "UTF-8"},
};

struct Result {
   bool ok;
   std::string bytes;
};

Result Run(bool icu, const Pair &p, const std::string &in, int policy)
{
   DynBuf db;
   DynBuf_Init(&db);
   bool ok = icu ? CodeSet_ConvertToDynBuf(p.fromName, in.data(), in.size(), p.toName, policy, &db)
                 : CodeSetBuiltinConvert(p.from, p.to, in.data(), in.size(), policy, &db);
   Result r{ok, ok && db.size != 0 ? std::string(db.data, db.size) : std::string()};
   DynBuf_Destroy(&db);
   return r;
}

/* ICU's substitution drops default-ignorable characters (format controls and the like). */
bool HasDefaultIgnorable(const std::string &utf8)
{
   const uint8_t *s = (const uint8_t *)utf8.data();
   for (size_t i = 0; i < utf8.size();) {
      uint32_t cp;
      int len = tesmar::utf::DecodeUtf8(s + i, utf8.size() - i, &cp, false);
      if (len <= 0) {
         return false;
      }
      if (u_hasBinaryProperty((UChar32)cp, UCHAR_DEFAULT_IGNORABLE_CODE_POINT)) {
         return true;
      }
      i += (size_t)len;
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
   const Pair &p = kPairs[data[0] % (sizeof kPairs / sizeof kPairs[0])];
   int policy = (data[0] / 16) % 3;
   std::string in((const char *)data + 1, size - 1);

   /* Where the built-in rules differ from ICU by design, shape the input to agree. */
   bool utf16In = p.from == STRING_ENCODING_UTF16_LE || p.from == STRING_ENCODING_UTF16_BE;
   if (utf16In) {
      in.resize(in.size() & ~(size_t)1);
   }
   if (p.from == p.to && p.from != STRING_ENCODING_UTF8) {
      policy = 0;
   }
   if (p.from == STRING_ENCODING_US_ASCII) {
      for (char &c : in) {
         c &= 0x7F;
      }
   }
   if (p.to == STRING_ENCODING_US_ASCII && p.from == STRING_ENCODING_UTF8 &&
       (!CodeSetIsValidUtf8(in.data(), in.size()) || HasDefaultIgnorable(in))) {
      return 0;
   }

   /* Ill-formed input fails the built-in path whatever the policy; ICU repairs it. */
   if (policy != 0 && p.to != STRING_ENCODING_US_ASCII && !Run(false, p, in, 0).ok) {
      fuzz::Check(!Run(false, p, in, policy).ok);
      policy = 0;
   }

   Result ours = Run(false, p, in, policy);
   Result icu = Run(true, p, in, policy);
   if (ours.ok != icu.ok || ours.bytes != icu.bytes) {
      fprintf(stderr, "%s -> %s policy %d: built-in %d (%zu bytes), ICU %d (%zu bytes)\n",
              p.fromName, p.toName, policy, ours.ok, ours.bytes.size(), icu.ok, icu.bytes.size());
      abort();
   }

   /* The validators agree with ICU's on the raw text. */
   std::string raw((const char *)data + 1, size - 1);
   if (raw.size() < (1u << 20)) {
      bool ascii = std::all_of(raw.begin(), raw.end(), [](char c) { return (c & 0x80) == 0; });
      fuzz::Check(CodeSetIsValidUtf8(raw.data(), raw.size()) ==
                  CodeSet_Validate(raw.data(), raw.size(), "UTF-8"));
      fuzz::Check(raw.size() % 2 != 0 || CodeSetIsValidUtf16(raw.data(), raw.size(), true) ==
                                             CodeSet_Validate(raw.data(), raw.size(), "UTF-16BE"));
      fuzz::Check(ascii == CodeSet_Validate(raw.data(), raw.size(), "US-ASCII"));
   }
   return 0;
}
