/*
 * CodeSet: the built-in converters, the ICU path and where the two must agree.
 */
#include <gtest/gtest.h>

#include <stdlib.h>

#include <random>
#include <string>
#include <vector>

#include "codeset.h"
#include "icuMode.h"
#include "misc/codesetBuiltin.h"
#include "testSupport.h"

namespace {

using Bytes = std::string;

/* Converts through the public entry; nullopt-like: ok is false on failure. */
struct Result {
   bool ok;
   Bytes bytes;
};

Result Convert(const char *from, const Bytes &in, const char *to, int policy = 0)
{
   DynBuf db;
   DynBuf_Init(&db);
   bool ok = CodeSet_ConvertToDynBuf(from, in.data(), in.size(), to, policy, &db);
   Result r{ok, ok ? Bytes(db.data == nullptr ? "" : db.data, db.size) : Bytes()};
   DynBuf_Destroy(&db);
   return r;
}

Result Builtin(StringEncoding from, const Bytes &in, StringEncoding to, int policy = 0)
{
   DynBuf db;
   DynBuf_Init(&db);
   bool ok = CodeSetBuiltinConvert(from, to, in.data(), in.size(), policy, &db);
   Result r{ok, ok ? Bytes(db.data == nullptr ? "" : db.data, db.size) : Bytes()};
   DynBuf_Destroy(&db);
   return r;
}

Bytes Utf16(const std::u16string &s, bool bigEndian)
{
   Bytes out;
   for (char16_t u : s) {
      char lo = (char)(u & 0xFF), hi = (char)(u >> 8);
      out += bigEndian ? Bytes{hi, lo} : Bytes{lo, hi};
   }
   return out;
}

class CodeSetTest : public ::testing::Test {
  protected:
   void SetUp() override { UseBuiltin(); }
   void TearDown() override { UseBuiltin(); }
   testsupport::ScratchDir dir_;
};

TEST_F(CodeSetTest, InitTurnsIcuOnOnlyForAnExistingDataFile)
{
   EXPECT_TRUE(CodeSet_Init("/nonexistent"));
   EXPECT_FALSE(Convert("UTF-8", "a", "ISO-8859-2").ok);
   EXPECT_TRUE(CodeSet_Init(dir_.Path().c_str())); /* directory without the file */
   EXPECT_FALSE(Convert("UTF-8", "a", "ISO-8859-2").ok);
   UseIcu(dir_);
   Result r = Convert("UTF-8", "\xC5\x82", "ISO-8859-2");
   EXPECT_TRUE(r.ok);
   EXPECT_EQ(r.bytes, "\xB3");
   EXPECT_STREQ(CodeSet_GetCurrentCodeSet(), "UTF-8");
}

TEST_F(CodeSetTest, BuiltinPairs)
{
   Result be = Convert("UTF-16BE", Bytes("\x00\x41\x00\xE9", 4), "UTF-8");
   EXPECT_TRUE(be.ok);
   EXPECT_EQ(be.bytes, "A\xC3\xA9");
   EXPECT_FALSE(Convert("UTF-8", "a", "ISO-8859-2").ok);
   EXPECT_FALSE(Convert("UTF-8", "a", "UTF-16BE").ok); /* not a built-in pair */
   EXPECT_FALSE(Convert("UTF-16LE", Bytes("\x41\x00\x42", 3), "UTF-8").ok);
   EXPECT_EQ(Convert("US-ASCII", "\x41\x80", "UTF-8").bytes, "\x41\xEF\xBF\xBD");
   EXPECT_EQ(Convert("ISO-8859-1", "\x41\xE9\xFF", "UTF-8").bytes, "A\xC3\xA9\xC3\xBF");
   EXPECT_EQ(Convert("UTF-8", "a\xC3\xA9z", "US-ASCII", 1).bytes, "a\x1Az");
   EXPECT_EQ(Convert("UTF-8", "a\xC3\xA9z", "US-ASCII", 2).bytes, "az");
   EXPECT_FALSE(Convert("UTF-8", "a\xC3\xA9z", "US-ASCII", 0).ok);
   /* An undecodable byte is replaced on its own. */
   EXPECT_EQ(Convert("UTF-8", "a\xE2\x82z", "US-ASCII", 1).bytes, "a\x1A\x1Az");
   /* Equal pairs validate, then copy. */
   EXPECT_TRUE(Convert("UTF-16LE", Bytes("\x3D\xD8\x00\xDE", 4), "UTF-16LE").ok);
   EXPECT_FALSE(Convert("UTF-16LE", Bytes("\x00\xDE\x3D\xD8", 4), "UTF-16LE").ok);
   EXPECT_FALSE(Convert("US-ASCII", "\x80", "US-ASCII").ok);
   EXPECT_TRUE(Convert("ISO-8859-1", "\x80", "ISO-8859-1").ok);
   /* Nothing to convert succeeds and appends nothing. */
   DynBuf db;
   DynBuf_Init(&db);
   EXPECT_TRUE(CodeSet_ConvertToDynBuf("UTF-8", nullptr, 5, "nonsense", 0, &db));
   EXPECT_EQ(db.size, 0u);
}

TEST_F(CodeSetTest, FailureLeavesTheBufferAsItWas)
{
   for (bool icu : {false, true}) {
      icu ? UseIcu(dir_) : UseBuiltin();
      DynBuf db;
      DynBuf_Init(&db);
      ASSERT_TRUE(DynBuf_Append(&db, "keep", 4));
      EXPECT_FALSE(CodeSet_ConvertToDynBuf("UTF-8", "ab\xFF", 3, "UTF-16LE", 0, &db));
      EXPECT_EQ(Bytes(db.data, db.size), "keep");
      DynBuf_Destroy(&db);
   }
}

TEST_F(CodeSetTest, HeapResultsEndInFourZeroBytes)
{
   for (bool icu : {false, true}) {
      icu ? UseIcu(dir_) : UseBuiltin();
      char *out = nullptr;
      size_t size = 0;
      ASSERT_TRUE(CodeSet_Convert("UTF-8", "abc", 3, "UTF-16LE", 0, &out, &size));
      EXPECT_EQ(size, 6u);
      EXPECT_EQ(Bytes(out, 10), Bytes("a\0b\0c\0\0\0\0\0", 10));
      free(out);
      ASSERT_TRUE(CodeSet_Utf16leToUtf8(Bytes("h\0i\0", 4).data(), 4, &out, &size));
      EXPECT_EQ(Bytes(out, 6), Bytes("hi\0\0\0\0", 6));
      free(out);
      ASSERT_TRUE(CodeSet_Utf8ToCurrent("xy", 2, &out, &size));
      EXPECT_STREQ(out, "xy");
      EXPECT_EQ(size, 2u);
      free(out);
   }
}

TEST_F(CodeSetTest, UnknownPolicyPanics)
{
   EXPECT_PANIC(Convert("UTF-8", "a", "UTF-16LE", 3), "NOT_IMPLEMENTED lib/misc/codeset:");
   UseIcu(dir_);
   EXPECT_PANIC(Convert("UTF-8", "a", "UTF-16LE", 3), "NOT_IMPLEMENTED lib/misc/codeset:");
}

TEST_F(CodeSetTest, Validate)
{
   for (bool icu : {false, true}) {
      icu ? UseIcu(dir_) : UseBuiltin();
      EXPECT_TRUE(CodeSet_Validate("", 0, "UTF-8"));
      EXPECT_TRUE(CodeSet_Validate("\xFF", 0, "US-ASCII"));
      EXPECT_TRUE(CodeSet_Validate("a\xC3\xA9", 3, "UTF-8"));
      EXPECT_FALSE(CodeSet_Validate("a\xC3", 2, "UTF-8"));
      EXPECT_FALSE(CodeSet_Validate("\xED\xA0\x80", 3, "UTF-8"));
      EXPECT_TRUE(CodeSet_Validate("a\0", 2, "UTF-16LE"));
      EXPECT_FALSE(CodeSet_Validate("\0\xD8", 2, "UTF-16LE"));
      EXPECT_TRUE(CodeSet_IsEncodingSupported("UTF-16BE"));
   }
   EXPECT_PANIC(CodeSet_Validate("a", (size_t)1 << 31, "UTF-8"), "VERIFY lib/misc/codeset:");
   UseIcu(dir_);
   EXPECT_TRUE(CodeSet_IsEncodingSupported("ISO-8859-2"));
   EXPECT_FALSE(CodeSet_IsEncodingSupported("no-such-encoding"));
   EXPECT_PANIC(CodeSet_Validate("a", 1, "no-such-encoding"), "VERIFY lib/misc/codeset:");
}

TEST_F(CodeSetTest, Normalize)
{
   char *out = nullptr;
   size_t size = 0;
   ASSERT_TRUE(CodeSet_Utf8NormalizeD("\xC3\xA9", 2, &out, &size));
   EXPECT_EQ(Bytes(out, size), "e\xCC\x81");
   free(out);
   ASSERT_TRUE(CodeSet_Utf8NormalizeC("e\xCC\x81!", 4, &out, &size));
   EXPECT_EQ(Bytes(out, size + 1), Bytes("\xC3\xA9!\0", 4));
   free(out);
   EXPECT_FALSE(CodeSet_Utf8NormalizeC("\xC3", 1, &out, &size));
}

/* Every code-point class survives UTF-8 -> UTF-16LE -> UTF-8 and UTF-16BE -> UTF-8. */
TEST_F(CodeSetTest, RoundTripsEveryCodePointClass)
{
   const Bytes utf8 =
       "A\x7F\xC2\x80\xDF\xBF\xE0\xA0\x80\xED\x9F\xBF\xEE\x80\x80\xEF\xBF\xBF"
       "\xF0\x90\x80\x80\xF4\x8F\xBF\xBF";
   const std::u16string units =
       u"A\x7F\x80\x7FF\x800\xD7FF\xE000\xFFFF"
       u"\xD800\xDC00\xDBFF\xDFFF";
   for (bool icu : {false, true}) {
      icu ? UseIcu(dir_) : UseBuiltin();
      char *out = nullptr;
      size_t size = 0;
      ASSERT_TRUE(CodeSet_Utf8ToUtf16le(utf8.data(), utf8.size(), &out, &size));
      EXPECT_EQ(Bytes(out, size), Utf16(units, false));
      char *back = nullptr;
      ASSERT_TRUE(CodeSet_Utf16leToUtf8(out, size, &back, &size));
      EXPECT_EQ(Bytes(back, size), utf8);
      free(out);
      free(back);
      Bytes be = Utf16(units, true);
      ASSERT_TRUE(CodeSet_Utf16beToCurrent(be.data(), be.size(), &out, &size));
      EXPECT_EQ(Bytes(out, size), utf8);
      free(out);
      /* Surrogates and values above U+10FFFF are refused. */
      EXPECT_FALSE(CodeSet_Utf8ToUtf16le("\xED\xA0\x80", 3, &out, &size));
      EXPECT_FALSE(CodeSet_Utf8ToUtf16le("\xF4\x90\x80\x80", 4, &out, &size));
      EXPECT_FALSE(CodeSet_Utf16leToUtf8(Bytes("\x00\xDC", 2).data(), 2, &out, &size));
      EXPECT_FALSE(CodeSet_Utf16leToUtf8(Bytes("\x00\xD8\x41\x00", 4).data(), 4, &out, &size));
   }
}

/* Malformed UTF-8: refused by strict decoding, one U+FFFD per maximal bad prefix otherwise. */
TEST_F(CodeSetTest, MalformedUtf8)
{
   struct Case {
      Bytes input;
      Bytes substituted;
   };
   const Bytes r = "\xEF\xBF\xBD";
   const std::vector<Case> cases = {
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
      icu ? UseIcu(dir_) : UseBuiltin();
      for (const Case &c : cases) {
         SCOPED_TRACE(testing::PrintToString(c.input) + (icu ? " icu" : " builtin"));
         EXPECT_FALSE(CodeSetIsValidUtf8(c.input.data(), c.input.size()));
         EXPECT_FALSE(Convert("UTF-8", c.input, "UTF-16LE").ok);
         EXPECT_FALSE(Convert("UTF-8", c.input, "UTF-8").ok);
         Result sub = Convert("UTF-8", c.input, "UTF-8", 1);
         EXPECT_TRUE(sub.ok);
         EXPECT_EQ(sub.bytes, c.substituted);
         Result skip = Convert("UTF-8", c.input, "UTF-8", 2);
         EXPECT_TRUE(skip.ok);
         Bytes kept;
         for (char ch : c.substituted) {
            kept += (unsigned char)ch < 0x80 ? Bytes(1, ch) : Bytes();
         }
         EXPECT_EQ(skip.bytes, kept);
      }
   }
}

/* Random text built from every code-point class, with some bytes broken. */
Bytes RandomText(std::mt19937 &rng, bool breakSome)
{
   static const std::vector<Bytes> pieces = {
       "a",
       "Z",
       " ",
       "\x7F",
       "\xC3\xA9",
       "\xDF\xBF",
       "\xE2\x82\xAC",
       "\xED\x9F\xBF",
       "\xEF\xBF\xBD",
       "\xF0\x9F\x98\x80",
       "\xF4\x8F\xBF\xBF",
       "0123456789abcdefghij",
   };
   Bytes out;
   size_t n = rng() % 40;
   for (size_t i = 0; i < n; i++) {
      out += pieces[rng() % pieces.size()];
   }
   if (breakSome && !out.empty()) {
      size_t flips = 1 + rng() % 3;
      for (size_t i = 0; i < flips; i++) {
         out[rng() % out.size()] = (char)(rng() % 256);
      }
   }
   return out;
}

/* Where both paths are defined to agree, the built-in converters give what ICU gives. */
TEST_F(CodeSetTest, BuiltinAgreesWithIcu)
{
   struct Pair {
      StringEncoding from, to;
      const char *fromName, *toName;
   };
   const Pair pairs[] = {
       {STRING_ENCODING_UTF8, STRING_ENCODING_UTF16_LE, "UTF-8", "UTF-16LE"},
       {STRING_ENCODING_UTF8, STRING_ENCODING_UTF8, "UTF-8", "UTF-8"},
       {STRING_ENCODING_UTF16_LE, STRING_ENCODING_UTF8, "UTF-16LE", "UTF-8"},
       {STRING_ENCODING_UTF16_BE, STRING_ENCODING_UTF8, "UTF-16BE", "UTF-8"},
       {STRING_ENCODING_UTF16_LE, STRING_ENCODING_UTF16_LE, "UTF-16LE", "UTF-16LE"},
       {STRING_ENCODING_ISO_8859_1, STRING_ENCODING_UTF8, "ISO-8859-1", "UTF-8"},
   };
   UseIcu(dir_);
   std::mt19937 rng(12345);
   for (int round = 0; round < 3000; round++) {
      Bytes text = RandomText(rng, round % 2 == 1);
      for (const Pair &p : pairs) {
         Bytes input = text;
         if (p.from == STRING_ENCODING_UTF16_LE || p.from == STRING_ENCODING_UTF16_BE) {
            input.resize(input.size() & ~(size_t)1); /* odd lengths differ by design */
         }
         for (int policy = 0; policy <= 2; policy++) {
            if (p.from == p.to && p.from != STRING_ENCODING_UTF8 && policy != 0) {
               continue; /* equal pairs other than UTF-8 only validate */
            }
            Result ours = Builtin(p.from, input, p.to, policy);
            Result icu = Convert(p.fromName, input, p.toName, policy);
            ASSERT_EQ(ours.ok, icu.ok) << p.fromName << "->" << p.toName << " policy " << policy
                                       << " " << testing::PrintToString(input);
            ASSERT_EQ(ours.bytes, icu.bytes) << p.fromName << "->" << p.toName << " policy "
                                             << policy << " " << testing::PrintToString(input);
         }
      }
      /* To US-ASCII from valid text, and from US-ASCII text. */
      Bytes valid = RandomText(rng, false);
      for (int policy = 0; policy <= 2; policy++) {
         Result ours = Builtin(STRING_ENCODING_UTF8, valid, STRING_ENCODING_US_ASCII, policy);
         Result icu = Convert("UTF-8", valid, "US-ASCII", policy);
         ASSERT_EQ(ours.ok, icu.ok) << testing::PrintToString(valid);
         ASSERT_EQ(ours.bytes, icu.bytes) << testing::PrintToString(valid);
      }
      Bytes ascii;
      for (char c : valid) {
         ascii += (char)(c & 0x7F);
      }
      ASSERT_EQ(Builtin(STRING_ENCODING_US_ASCII, ascii, STRING_ENCODING_UTF8).bytes,
                Convert("US-ASCII", ascii, "UTF-8").bytes);
   }
}

/* Long ASCII runs go through the block-wise paths; their edges must line up. */
TEST_F(CodeSetTest, BlockPathsAtEveryAlignment)
{
   for (size_t length = 0; length < 70; length++) {
      for (size_t at = 0; at <= length; at += 7) {
         Bytes text(length, 'x');
         text.insert(at, "\xE2\x82\xAC");
         Result wide = Builtin(STRING_ENCODING_UTF8, text, STRING_ENCODING_UTF16_LE);
         ASSERT_TRUE(wide.ok);
         ASSERT_EQ(wide.bytes.size(), 2 * (length + 1));
         ASSERT_EQ(Builtin(STRING_ENCODING_UTF16_LE, wide.bytes, STRING_ENCODING_UTF8).bytes, text);
         Bytes be;
         for (size_t i = 0; i < wide.bytes.size(); i += 2) {
            be += Bytes{wide.bytes[i + 1], wide.bytes[i]};
         }
         ASSERT_EQ(Builtin(STRING_ENCODING_UTF16_BE, be, STRING_ENCODING_UTF8).bytes, text);
         ASSERT_TRUE(CodeSetIsValidUtf8(text.data(), text.size()));
      }
   }
}

}  // namespace
