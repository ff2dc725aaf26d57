#include <stdlib.h>
#include <unicode/utypes.h>

#include "codeset.h"
#include "misc/codesetBuiltin.h"
#include "testSupport.h"
#include "unicode.h"

using Bytes = std::string;

struct Result {
   bool ok;
   Bytes bytes;
};

/*
 * Converts into a buffer that starts as initial: by name (ICU, or the built-in pairs without it)
 * or, when builtin, straight through the built-in converters.
 */
static Result Convert(const char *from, const Bytes &in, const char *to, int policy = 0,
                      const Bytes &initial = "", bool builtin = false)
{
   DynBuf db;
   DynBuf_Init(&db);
   DynBuf_Append(&db, initial.data(), initial.size());
   Result r{builtin ? CodeSetBuiltinConvert(Unicode_EncodingNameToEnum(from),
                                            Unicode_EncodingNameToEnum(to), in.data(), in.size(),
                                            policy, &db)
                    : CodeSet_ConvertToDynBuf(from, in.data(), in.size(), to, policy, &db),
            ""};
   r.bytes.assign(db.data == nullptr ? "" : db.data, db.size);
   DynBuf_Destroy(&db);
   return r;
}

/* Runs a heap-result conversion; a result must be followed by `zeros` zero bytes. */
using HeapFn = bool (*)(const char *, size_t, char **, size_t *);
static Result Heap(HeapFn convert, const Bytes &in, size_t zeros = 4)
{
   char *out = nullptr;
   size_t size = 0;
   Result r{convert(in.data(), in.size(), &out, &size), ""};
   if (r.ok) {
      r.bytes.assign(out, size);
      EXPECT_EQ(Bytes(out + size, zeros), Bytes(zeros, '\0'));
   }
   free(out);
   return r;
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
   EXPECT_TRUE(CodeSet_Init(dir_.Path().c_str()));  // directory without the file
   EXPECT_FALSE(Convert("UTF-8", "a", "ISO-8859-2").ok);
   UseIcu(true);
   EXPECT_EQ(Convert("UTF-8", "\xC5\x82", "ISO-8859-2").bytes, "\xB3");

   UseIcu(false);
   // Not a built-in pair; an odd length.
   EXPECT_FALSE(Convert("UTF-8", "a", "UTF-16BE").ok ||
                Convert("UTF-16LE", Bytes("\x41\x00\x42", 3), "UTF-8").ok);
   EXPECT_EQ(Convert("US-ASCII", "\x41\x80", "UTF-8").bytes, "\x41\xEF\xBF\xBD");
   // To US-ASCII, an undecodable byte is replaced on its own.
   EXPECT_EQ(Convert("UTF-8", "a\xE2\x82z", "US-ASCII", 1).bytes, "a\x1A\x1Az");
   // Equal pairs validate, then copy.
   EXPECT_TRUE(Convert("UTF-16LE", Bytes("\x3D\xD8\x00\xDE", 4), "UTF-16LE").ok);
   EXPECT_FALSE(Convert("UTF-16LE", Bytes("\x00\xDE\x3D\xD8", 4), "UTF-16LE").ok ||
                Convert("US-ASCII", "\x80", "US-ASCII").ok);
   // Nothing to convert succeeds and appends nothing.
   DynBuf none;
   DynBuf_Init(&none);
   EXPECT_TRUE(CodeSet_ConvertToDynBuf("UTF-8", nullptr, 5, "nonsense", 0, &none) &&
               none.size == 0);
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
      EXPECT_TRUE(CodeSet_Validate("\xFF", 0, "US-ASCII") &&
                  CodeSet_Validate("a\0", 2, "UTF-16LE"));
      EXPECT_FALSE(CodeSet_Validate("\0\xD8", 2, "UTF-16LE"));
      EXPECT_TRUE(CodeSet_IsEncodingSupported("UTF-16BE"));
   }
   EXPECT_PANIC(CodeSet_Validate("a", (size_t)1 << 31, "UTF-8"), "VERIFY lib/misc/codeset:");
   EXPECT_TRUE(CodeSet_IsEncodingSupported("ISO-8859-2") &&
               !CodeSet_IsEncodingSupported("no-such-encoding"));
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
   Bytes le, be;
   for (char16_t u : units) {
      le += {(char)u, (char)(u >> 8)}, be += {(char)(u >> 8), (char)u};
   }
   for (bool icu : {false, true}) {
      UseIcu(icu);
      EXPECT_EQ(Heap(CodeSet_Utf8ToUtf16le, utf8).bytes, le);
      EXPECT_EQ(Heap(CodeSet_Utf16leToUtf8, le).bytes, utf8);
      EXPECT_EQ(Heap(CodeSet_Utf16beToCurrent, be).bytes, utf8);
      // A lone surrogate is refused.
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
       {"\xE0\x80\xAF", r + r + r},          // overlong
       {"a\xBFz", "a" + r + "z"},            // stray continuation
       {"\xED\xA0\x80", r + r + r},          // surrogate
       {"\xF4\x90\x80\x80", r + r + r + r},  // above U+10FFFF
       {"\xE2\x82z", r + "z"},               // cut short by an ASCII byte
   };
   for (bool icu : {false, true}) {
      UseIcu(icu);
      for (const auto &[input, substituted] : cases) {
         SCOPED_TRACE(testing::PrintToString(input) + (icu ? " icu" : " builtin"));
         EXPECT_FALSE(CodeSetIsValidUtf8(input.data(), input.size()) ||
                      CodeSet_Validate(input.data(), input.size(), "UTF-8") ||
                      Convert("UTF-8", input, "UTF-16LE").ok ||
                      Convert("UTF-8", input, "UTF-8").ok);
         Result sub = Convert("UTF-8", input, "UTF-8", 1),
                skip = Convert("UTF-8", input, "UTF-8", 2);
         Bytes kept = substituted;
         std::erase_if(kept, [](char ch) { return (unsigned char)ch >= 0x80; });
         EXPECT_TRUE(icu ? sub.bytes == substituted && skip.bytes == kept : !sub.ok && !skip.ok);
      }
   }
}

/* On well-formed text, the built-in converters give what ICU gives under every policy. */
TEST_F(CodeSetTest, BuiltinAgreesWithIcu)
{
   const std::pair<std::string, std::string> pairs[] = {
       {"UTF-8", "UTF-16LE"}, {"UTF-8", "UTF-8"},      {"UTF-16LE", "UTF-8"},
       {"UTF-16BE", "UTF-8"}, {"ISO-8859-1", "UTF-8"}, {"US-ASCII", "UTF-8"},
       {"UTF-8", "US-ASCII"}, {"UTF-16LE", "UTF-16LE"}};
   UseIcu(true);
   for (const auto &[from, to] : pairs) {
      for (Bytes input : {"", "a Z\x7F\xC3\xA9\xDF\xBF\xE2\x82\xAC\xED\x9F\xBF\xEF\xBF\xBD",
                          "\xF0\x9F\x98\x80\xF4\x8F\xBF\xBF"
                          "0123456789"}) {
         if (from.starts_with("UTF-16")) {
            input = Convert("UTF-8", input, from.c_str()).bytes;
         } else if (from == "US-ASCII") {
            std::erase_if(input, [](char c) { return c & 0x80; });
         }
         // Equal pairs other than UTF-8 only validate.
         for (int policy = 0; policy <= (from == to && from != "UTF-8" ? 0 : 2); policy++) {
            Result ours = Convert(from.c_str(), input, to.c_str(), policy, "", true),
                   icu = Convert(from.c_str(), input, to.c_str(), policy);
            EXPECT_TRUE(ours.ok == icu.ok && ours.bytes == icu.bytes)
                << from << "->" << to << " policy " << policy << " "
                << testing::PrintToString(input);
         }
      }
   }
}
