/*
 * CodeSet: the built-in converters, the ICU path and where the two must agree.
 */
#include <stdlib.h>
#include <unicode/utypes.h>

#include <random>

#include "codeset.h"
#include "misc/codesetBuiltin.h"
#include "testSupport.h"
#include "unicode.h"

using Bytes = std::string;

struct Result {
   bool ok;
   Bytes bytes;
};

/* The buffer's contents after convert, which starts from `initial`. */
template <typename Fn>
static Result IntoDynBuf(Fn convert, const Bytes &initial = "")
{
   DynBuf db;
   DynBuf_Init(&db);
   EXPECT_TRUE(DynBuf_Append(&db, initial.data(), initial.size()));
   bool ok = convert(&db);
   Result r{ok, Bytes(db.data == nullptr ? "" : db.data, db.size)};
   DynBuf_Destroy(&db);
   return r;
}

static Result Convert(const char *from, const Bytes &in, const char *to, int policy = 0,
                      const Bytes &initial = "")
{
   return IntoDynBuf(
       [&](DynBuf *db) {
          return CodeSet_ConvertToDynBuf(from, in.data(), in.size(), to, policy, db);
       },
       initial);
}

static Result Builtin(StringEncoding from, const Bytes &in, StringEncoding to, int policy = 0)
{
   return IntoDynBuf([&](DynBuf *db) {
      return CodeSetBuiltinConvert(from, to, in.data(), in.size(), policy, db);
   });
}

/* Runs a heap-result conversion; a result must be followed by `zeros` zero bytes. */
using HeapFn = bool (*)(const char *, size_t, char **, size_t *);
static Result Heap(HeapFn convert, const Bytes &in, size_t zeros = 4)
{
   char *out = nullptr;
   size_t size = 0;
   bool ok = convert(in.data(), in.size(), &out, &size);
   Result r{ok, ok ? Bytes(out, size) : Bytes()};
   if (ok) {
      EXPECT_EQ(Bytes(out + size, zeros), Bytes(zeros, '\0'));
   }
   free(out);
   return r;
}

static Bytes Utf16(const std::u16string &s, bool bigEndian)
{
   Bytes out;
   for (char16_t u : s) {
      char lo = (char)(u & 0xFF), hi = (char)(u >> 8);
      out += bigEndian ? Bytes{hi, lo} : Bytes{lo, hi};
   }
   return out;
}

/* ICU is in use when CodeSet_Init finds a file of the data file's name. */
class CodeSetTest : public ::testing::Test {
  protected:
   void SetUp() override { UseIcu(false); }
   void TearDown() override { UseIcu(false); }
   void UseIcu(bool on)
   {
      if (on) {
         testsupport::WriteFile(dir_ / (U_ICUDATA_NAME ".dat"), "x");
      }
      CodeSet_Init(on ? dir_.Path().c_str() : "/nonexistent/icu-data-directory");
   }
   testsupport::ScratchDir dir_;
};

TEST_F(CodeSetTest, IcuOnlyWithAnExistingDataFileElseBuiltinPairs)
{
   EXPECT_TRUE(CodeSet_Init("/nonexistent"));
   EXPECT_FALSE(Convert("UTF-8", "a", "ISO-8859-2").ok);
   EXPECT_TRUE(CodeSet_Init(dir_.Path().c_str())); /* directory without the file */
   EXPECT_FALSE(Convert("UTF-8", "a", "ISO-8859-2").ok);
   UseIcu(true);
   EXPECT_EQ(Convert("UTF-8", "\xC5\x82", "ISO-8859-2").bytes, "\xB3");
   EXPECT_STREQ(CodeSet_GetCurrentCodeSet(), "UTF-8");

   UseIcu(false);
   EXPECT_FALSE(Convert("UTF-8", "a", "UTF-16BE").ok); /* not a built-in pair */
   EXPECT_FALSE(Convert("UTF-16LE", Bytes("\x41\x00\x42", 3), "UTF-8").ok);
   EXPECT_EQ(Convert("US-ASCII", "\x41\x80", "UTF-8").bytes, "\x41\xEF\xBF\xBD");
   /* To US-ASCII, an undecodable byte is replaced on its own. */
   EXPECT_EQ(Convert("UTF-8", "a\xE2\x82z", "US-ASCII", 1).bytes, "a\x1A\x1Az");
   /* Equal pairs validate, then copy. */
   EXPECT_TRUE(Convert("UTF-16LE", Bytes("\x3D\xD8\x00\xDE", 4), "UTF-16LE").ok);
   EXPECT_FALSE(Convert("UTF-16LE", Bytes("\x00\xDE\x3D\xD8", 4), "UTF-16LE").ok);
   EXPECT_FALSE(Convert("US-ASCII", "\x80", "US-ASCII").ok);
   EXPECT_TRUE(Convert("ISO-8859-1", "\x80", "ISO-8859-1").ok);
   /* Nothing to convert succeeds and appends nothing. */
   Result none = IntoDynBuf(
       [](DynBuf *db) { return CodeSet_ConvertToDynBuf("UTF-8", nullptr, 5, "nonsense", 0, db); });
   EXPECT_TRUE(none.ok && none.bytes.empty());
}

TEST_F(CodeSetTest, OutputsInBothModes)
{
   for (bool icu : {false, true}) {
      UseIcu(icu);
      Result kept = Convert("UTF-8", "ab\xFF", "UTF-16LE", 0, "keep");
      EXPECT_TRUE(!kept.ok && kept.bytes == "keep");  // a failure leaves the buffer as it was

      char *out = nullptr;
      size_t size = 0;
      ASSERT_TRUE(CodeSet_Convert("UTF-8", "abc", 3, "UTF-16LE", 0, &out, &size) && size == 6);
      EXPECT_EQ(Bytes(out, 10), Bytes("a\0b\0c\0\0\0\0\0", 10));
      free(out);
      EXPECT_EQ(Heap(CodeSet_Utf16leToUtf8, Bytes("h\0i\0", 4)).bytes, "hi");
      EXPECT_EQ(Heap(CodeSet_Utf8ToCurrent, "xy", 1).bytes, "xy");

      EXPECT_PANIC(Convert("UTF-8", "a", "UTF-16LE", 3), "NOT_IMPLEMENTED lib/misc/codeset:");
   }
}

TEST_F(CodeSetTest, ValidateAndNormalize)
{
   for (bool icu : {false, true}) {
      UseIcu(icu);
      EXPECT_TRUE(CodeSet_Validate("", 0, "UTF-8"));
      EXPECT_TRUE(CodeSet_Validate("\xFF", 0, "US-ASCII"));
      EXPECT_TRUE(CodeSet_Validate("a\xC3\xA9", 3, "UTF-8"));
      EXPECT_TRUE(CodeSet_Validate("a\0", 2, "UTF-16LE"));
      EXPECT_FALSE(CodeSet_Validate("\0\xD8", 2, "UTF-16LE"));
      EXPECT_TRUE(CodeSet_IsEncodingSupported("UTF-16BE"));
   }
   EXPECT_PANIC(CodeSet_Validate("a", (size_t)1 << 31, "UTF-8"), "VERIFY lib/misc/codeset:");
   EXPECT_TRUE(CodeSet_IsEncodingSupported("ISO-8859-2"));
   EXPECT_FALSE(CodeSet_IsEncodingSupported("no-such-encoding"));
   EXPECT_PANIC(CodeSet_Validate("a", 1, "no-such-encoding"), "VERIFY lib/misc/codeset:");
   EXPECT_EQ(Heap(CodeSet_Utf8NormalizeD, "\xC3\xA9", 1).bytes, "e\xCC\x81");
   EXPECT_EQ(Heap(CodeSet_Utf8NormalizeC, "e\xCC\x81!", 1).bytes, "\xC3\xA9!");
   EXPECT_FALSE(Heap(CodeSet_Utf8NormalizeC, "\xC3").ok);
}

/* Every code-point class survives UTF-8 -> UTF-16LE -> UTF-8 and UTF-16BE -> UTF-8. */
TEST_F(CodeSetTest, RoundTripsEveryCodePointClass)
{
   const Bytes utf8 =
       "A\x7F\xC2\x80\xDF\xBF\xE0\xA0\x80\xED\x9F\xBF\xEE\x80\x80\xEF\xBF\xBF"
       "\xF0\x90\x80\x80\xF4\x8F\xBF\xBF";
   const std::u16string units = u"A\x7F\x80\x7FF\x800\xD7FF\xE000\xFFFF\xD800\xDC00\xDBFF\xDFFF";
   for (bool icu : {false, true}) {
      UseIcu(icu);
      EXPECT_EQ(Heap(CodeSet_Utf8ToUtf16le, utf8).bytes, Utf16(units, false));
      EXPECT_EQ(Heap(CodeSet_Utf16leToUtf8, Utf16(units, false)).bytes, utf8);
      EXPECT_EQ(Heap(CodeSet_Utf16beToCurrent, Utf16(units, true)).bytes, utf8);
      /* Surrogates and values above U+10FFFF are refused. */
      EXPECT_FALSE(Heap(CodeSet_Utf8ToUtf16le, "\xED\xA0\x80").ok);
      EXPECT_FALSE(Heap(CodeSet_Utf8ToUtf16le, "\xF4\x90\x80\x80").ok);
      EXPECT_FALSE(Heap(CodeSet_Utf16leToUtf8, Bytes("\x00\xDC", 2)).ok);
      EXPECT_FALSE(Heap(CodeSet_Utf16leToUtf8, Bytes("\x00\xD8\x41\x00", 4)).ok);
   }
}

/*
 * Malformed UTF-8: refused by strict decoding. ICU substitutes one U+FFFD per maximal bad
 * prefix or skips it; the built-in path refuses it whatever the policy.
 */
TEST_F(CodeSetTest, MalformedUtf8)
{
   const Bytes r = "\xEF\xBF\xBD";
   const std::pair<Bytes, Bytes> cases[] = {
       {"\xC0\xAF", r + r},                 /* overlong two-byte */
       {"\xE0\x80\xAF", r + r + r},         /* overlong three-byte */
       {"\xF0\x80\x80\xAF", r + r + r + r}, /* overlong four-byte */
       {"\xE2\x82", r},                     /* truncated */
       {"\xF0\x9F\x98", r},                 /* truncated four-byte */
       {"\x80", r},                         /* stray continuation */
       {"a\xBFz", "a" + r + "z"},           /* stray continuation inside text */
       {"\xED\xA0\x80", r + r + r},         /* surrogate */
       {"\xF4\x90\x80\x80", r + r + r + r}, /* above U+10FFFF */
       {"\xF5\x80", r + r},                 /* lead byte out of range */
       {"\xE2\x82z", r + "z"},              /* cut short by an ASCII byte */
   };
   for (bool icu : {false, true}) {
      UseIcu(icu);
      for (const auto &[input, substituted] : cases) {
         SCOPED_TRACE(testing::PrintToString(input) + (icu ? " icu" : " builtin"));
         EXPECT_FALSE(CodeSetIsValidUtf8(input.data(), input.size()));
         EXPECT_FALSE(CodeSet_Validate(input.data(), input.size(), "UTF-8"));
         EXPECT_FALSE(Convert("UTF-8", input, "UTF-16LE").ok);
         EXPECT_FALSE(Convert("UTF-8", input, "UTF-8").ok);
         Result sub = Convert("UTF-8", input, "UTF-8", 1);
         if (!icu) {
            EXPECT_FALSE(sub.ok);
            EXPECT_FALSE(Convert("UTF-8", input, "UTF-16LE", 2).ok);
            continue;
         }
         EXPECT_TRUE(sub.ok && sub.bytes == substituted);
         Bytes kept = substituted;
         std::erase_if(kept, [](char ch) { return (unsigned char)ch >= 0x80; });
         EXPECT_EQ(Convert("UTF-8", input, "UTF-8", 2).bytes, kept);
      }
   }
}

/* Random text built from every code-point class, with some bytes broken. */
static Bytes RandomText(std::mt19937 &rng, bool breakSome)
{
   // clang-format off
   static const std::vector<Bytes> pieces = {
       "a", "Z", " ", "\x7F", "\xC3\xA9", "\xDF\xBF", "\xE2\x82\xAC", "\xED\x9F\xBF",
       "\xEF\xBF\xBD", "\xF0\x9F\x98\x80", "\xF4\x8F\xBF\xBF", "0123456789abcdefghij"};
   // clang-format on
   Bytes out;
   for (size_t i = 0, n = rng() % 40; i < n; i++) {
      out += pieces[rng() % pieces.size()];
   }
   for (size_t i = 0, flips = breakSome ? 1 + rng() % 3 : 0; i < flips && !out.empty(); i++) {
      out[rng() % out.size()] = (char)(rng() % 256);
   }
   return out;
}

/* Where both paths are defined to agree, the built-in converters give what ICU gives. */
TEST_F(CodeSetTest, BuiltinAgreesWithIcu)
{
   const StringEncoding u8 = STRING_ENCODING_UTF8, le = STRING_ENCODING_UTF16_LE,
                        be = STRING_ENCODING_UTF16_BE, ascii = STRING_ENCODING_US_ASCII;
   const std::pair<StringEncoding, StringEncoding> pairs[] = {
       {u8, le},    {u8, u8},    {le, u8}, {be, u8}, {STRING_ENCODING_ISO_8859_1, u8},
       {ascii, u8}, {u8, ascii}, {le, le}};
   UseIcu(true);
   std::mt19937 rng(12345);
   for (int round = 0; round < 3000; round++) {
      const Bytes text = RandomText(rng, round % 2 == 1);
      for (const auto &[from, to] : pairs) {
         const char *fromName = Unicode_EncodingEnumToName(from);
         const char *toName = Unicode_EncodingEnumToName(to);
         Bytes input = text;
         if (from == le || from == be) {
            /* Valid text as UTF-16; broken text as raw units, lone surrogates included. */
            input = round % 2 == 0 ? Convert("UTF-8", text, fromName).bytes : text;
            input.resize(input.size() & ~(size_t)1); /* odd lengths differ by design */
         } else if (from == ascii) {
            for (char &c : input) {
               c &= 0x7F; /* other bytes: the built-in path substitutes under every policy */
            }
         } else if (to == ascii && round % 2 == 1) {
            continue; /* broken sequences: the built-in path replaces byte by byte */
         }
         for (int policy = 0; policy <= 2; policy++) {
            if (from == to && from != u8 && policy != 0) {
               continue; /* equal pairs other than UTF-8 only validate */
            }
            Result ours = Builtin(from, input, to, policy);
            SCOPED_TRACE(std::string(fromName) + "->" + toName + " policy " +
                         std::to_string(policy) + " " + testing::PrintToString(input));
            /* Ill-formed input fails the built-in path under every policy. */
            if (policy != 0 && to != ascii && !Builtin(from, input, to).ok) {
               ASSERT_FALSE(ours.ok);
               continue;
            }
            Result icu = Convert(fromName, input, toName, policy);
            ASSERT_EQ(ours.ok, icu.ok);
            ASSERT_EQ(ours.bytes, icu.bytes);
         }
      }
   }
}
