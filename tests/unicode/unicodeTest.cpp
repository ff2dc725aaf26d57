/*
 * System strings: construction from encoded buffers, encoding back, bounded copies, size
 * bounds, unescaping, and the code-point operations.
 */
#include <stdlib.h>
#include <string.h>
#include <unicode/utypes.h>

#include "codeset.h"
#include "testSupport.h"
#include "unicode.h"

using testsupport::Take;

using Bytes = std::string;

TEST(UnicodeAlloc, FromEncodings)
{
   EXPECT_EQ(Take(Unicode_AllocWithLength("h\0i\0\0\0", -1, STRING_ENCODING_UTF16_LE)), "hi");
   EXPECT_EQ(Take(Unicode_AllocWithLength("\xE9", 1, STRING_ENCODING_ISO_8859_1)), "\xC3\xA9");
   // Without ICU, ill-formed Unicode input is refused whatever the policy.
   EXPECT_PANIC(Unicode_AllocWithLength("a\xFF b", 3, STRING_ENCODING_UTF8),
                "Unicode_AllocWithLength: Couldn't convert invalid buffer [a\\FF ] from UTF-8 "
                "to Unicode.\n");
   EXPECT_EQ(Unicode_AllocInternal("a\xFFz", 3, 0, true), nullptr);
   EXPECT_EQ(Unicode_AllocInternal("\0\xDC", 2, STRING_ENCODING_UTF16_LE, false), nullptr);
   // Without ICU only the built-in encodings convert.
   EXPECT_PANIC(Unicode_AllocWithLength("a\x80", 2, STRING_ENCODING_ISO_8859_2),
                "Unicode_AllocWithLength: Couldn't convert invalid buffer [a\\80] from "
                "ISO-8859-2 to Unicode.\n");

   char a[] = "one", b[] = "t\xC3\xA9", *list[] = {a, b, nullptr};
   char **copy = Unicode_AllocList(list, -1, STRING_ENCODING_UTF8);
   EXPECT_TRUE(strcmp(copy[1], b) == 0 && copy[2] == nullptr);
   EXPECT_EQ(Unicode_GetAllocList(copy, 2, STRING_ENCODING_US_ASCII), nullptr);
   free(copy[0]);
   free(copy[1]);
   free(copy);
}

TEST(UnicodeBytes, GetAllocBytesAndValidity)
{
   size_t length = 0;
   void *bytes =
       Unicode_GetAllocBytesWithLength("h\xC3\xA9", STRING_ENCODING_UTF16_LE, -1, &length);
   EXPECT_EQ(Bytes((char *)bytes, length + 2), Bytes("h\0\xE9\0\0\0", 6));
   free(bytes);
   EXPECT_EQ(Unicode_GetAllocBytes("\xC3\xA9", STRING_ENCODING_US_ASCII), nullptr);
   EXPECT_PANIC(Unicode_GetAllocBytes("\xFF", STRING_ENCODING_UTF16_LE),
                "NOT_IMPLEMENTED lib/unicode/unicodeSimpleBase:");
   EXPECT_FALSE(Unicode_CanGetBytesWithEncoding("\xC3\xA9", STRING_ENCODING_US_ASCII));
   EXPECT_TRUE(Unicode_IsBufferValid(nullptr, 5, STRING_ENCODING_UTF8) &&
               Unicode_IsBufferValid("a\0\0\0", -1, STRING_ENCODING_UTF16_LE));
   EXPECT_FALSE(Unicode_IsBufferValid("\xC0\x80", -1, STRING_ENCODING_UTF8) ||
                Unicode_IsBufferValid("\0\xDC\0\0", -1, STRING_ENCODING_UTF16_LE));

   // The terminator is a whole zero unit: two zero bytes astride two units are not one.
   EXPECT_TRUE(Unicode_LengthInBytes("a\0\0b\0\0", STRING_ENCODING_UTF16_LE) == 4 &&
               Unicode_LengthInBytes("\0a\0\0\0\0\0\0", STRING_ENCODING_UTF32_BE) == 4);
}

TEST(UnicodeBytes, CopyBytesTruncates)
{
   testsupport::ScratchDir icu;  // ICU serves the encodings without a built-in converter
   testsupport::WriteFile(icu / (U_ICUDATA_NAME ".dat"), "x");
   CodeSet_Init(icu.Path().c_str());
   const char *grin = "a\xF0\x9F\x98\x80";  // "a" and U+1F600
   // A surrogate pair is kept whole or not at all; UTF-8 is cut at a character boundary; other
   // encodings are cut by bytes, even inside a character; failure keeps nothing. The buffer
   // holds the bytes kept and their terminator.
   const std::tuple<const char *, size_t, StringEncoding, bool, size_t, Bytes> cases[] = {
       {grin, 6, STRING_ENCODING_UTF16_LE, false, 2, Bytes("a\0\0\0", 4)},
       {grin, 8, STRING_ENCODING_UTF16_LE, true, 6, Bytes("a\0\x3D\xD8\x00\xDE\0\0", 8)},
       {"a\xC3\xA9", 3, STRING_ENCODING_UTF8, false, 1, Bytes("a", 2)},
       {"\xC3\xA9", 8, STRING_ENCODING_US_ASCII, false, 0, ""},
       {"\xC3\xA9t\xC3\xA9", 3, STRING_ENCODING_ISO_8859_1, false, 2, Bytes("\xE9t", 3)},
       {"ab", 4, STRING_ENCODING_UTF16_BE, false, 3, Bytes("\0a\0\0", 4)},
       {"\xE2\x82\xAC", 8, STRING_ENCODING_ISO_8859_2, false, 0, ""}};
   for (const auto &[str, capacity, encoding, complete, expectedLength, buffer] : cases) {
      SCOPED_TRACE(testing::PrintToString(str) + " into " + std::to_string(capacity));
      char buf[16];
      memset(buf, 'x', sizeof buf);
      size_t length = 99;
      EXPECT_EQ(Unicode_CopyBytes(buf, str, capacity, &length, encoding), complete);
      EXPECT_TRUE(length == expectedLength && Bytes(buf, buffer.size()) == buffer);
   }
   CodeSet_Init("/nonexistent");
}

TEST(UnicodeBytes, BytesRequired)
{
   EXPECT_EQ(Unicode_BytesRequired("a", STRING_ENCODING_UTF16_LE), 22u);
   EXPECT_EQ(Unicode_BytesRequired("a\xF0\x9F\x98\x80", STRING_ENCODING_UTF16_LE), 26u);
   // A NUL inside a sequence ends the walk.
   EXPECT_EQ(Unicode_BytesRequired("a\xE2\x82", STRING_ENCODING_UTF16_LE), 2u + 20u);
}

TEST(UnicodeEscapes, FromEscapedAscii)
{
   EXPECT_EQ(Take(Unicode_FromEscapedAscii("a\\u00e9", false)), "a\\u00e9");
   EXPECT_EQ(Take(Unicode_FromEscapedAscii("\\\\\\q\\", true)), "\\q");
   EXPECT_PANIC(Unicode_FromEscapedAscii("\\u00", true),
                "NOT_IMPLEMENTED lib/unicode/unicodeSimpleBase:");
   EXPECT_PANIC(Unicode_FromEscapedAscii("\xC3\xA9", true),
                "VERIFY lib/unicode/unicodeSimpleBase:");
}

TEST(UnicodeOperations, SubstringsAndSearches)
{
   const char *s = "a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80z";  // a e-acute euro grin z
   EXPECT_EQ(Take(Unicode_Substr(s, 1, 2)), "\xC3\xA9\xE2\x82\xAC");
   EXPECT_EQ(Take(Unicode_Substr(s, 3, -1)), "\xF0\x9F\x98\x80z");
   EXPECT_EQ(Take(Unicode_Substr(s, 9, 1)), "");
   EXPECT_PANIC(Unicode_Substr("a\xC3", 0, 1), "Unicode_Substr: invalid UTF8 string @ ");

   const char *t = "ab\u00E9ab\u00E9ab";  // 8 code points
   EXPECT_EQ(Unicode_FindSubstrInRange(t, 0, -1, "b\xC3\xA9", 0, -1), 1);
   EXPECT_EQ(Unicode_FindSubstrInRange(t, 2, 3, "b\xC3\xA9", 0, -1), -1);
   EXPECT_EQ(Unicode_FindLastSubstrInRange(t, 0, 7, "ab", 0, -1), 3);
   EXPECT_TRUE(Unicode_FindLastSubstrInRange(t, 5, -1, "", 0, -1) == 5 &&
               Unicode_FindLastSubstrInRange(t, 6, -1, "abc", 0, -1) == -1);
   EXPECT_PANIC(Unicode_FindSubstrInRange(t, 0, -1, "\xFF", 0, -1),
                "Unicode_FindSubstrInRange: invalid UTF8 string @ ");
   EXPECT_PANIC(Unicode_FindLastSubstrInRange("\xFF", 0, -1, "a", 0, -1),
                "Unicode_FindLastSubstrInRange: invalid UTF8 string @ ");
}

TEST(UnicodeOperations, CompareRangeAndJoin)
{
   // Simple folding beyond ASCII (E-acute, Kelvin sign); characters above
   // U+FFFF order after every BMP character; a string that is not UTF-8 compares as smaller.
   const std::tuple<const char *, const char *, bool, int> whole[] = {
       {"ABC", "abc", false, -1},
       {"\xC3\x89", "\xC3\xA9", true, 0},
       {"\xE2\x84\xAA", "k", true, 0},
       {"\xFF", "a", false, -1},
       {"\xEF\xBC\xA1", "\xF0\x90\x80\x80", true, -1}};
   for (auto [a, b, fold, expected] : whole) {
      EXPECT_EQ(Unicode_CompareRange(a, 0, -1, b, 0, -1, fold), expected) << a << " " << b;
   }
   // Ranges by code point.
   EXPECT_EQ(Unicode_CompareRange("xx\xC3\xA9y", 2, 2, "\xC3\x89Y", 0, -1, true), 0);

   EXPECT_EQ(Unicode_Join(nullptr, "a", nullptr), nullptr);
   EXPECT_EQ(Take(Unicode_Join("a", "b\xC3\xA9", "", "c", nullptr)), "ab\u00E9c");
}
