#include <string.h>
#include <wchar.h>

#include <algorithm>

#include "str.h"
#include "strutil.h"
#include "testSupport.h"

// Each fixed-buffer routine reports the overflow with its own source line.
static const char kTooSmall[] = "lib/string/str:[0-9]+ Buffer too small\n";

/* A wide character no locale can convert: the engine fails on it. */
static constexpr wint_t kUnconvertible = 0x110000;

TEST(Str, SnprintfCutsAtWholeCharacterForEverySize)
{
   const std::string text = "a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80z\xF0\x9F\x98\x80";
   const size_t ends[] = {0, 1, 3, 6, 10, 11, 15};  // where each character ends
   for (size_t size = 0; size <= text.size() + 1; size++) {
      SCOPED_TRACE(size);
      std::vector<char> buf(size + 1, '#');
      int result = Str_Snprintf(buf.data(), size, "%s", text.c_str());
      EXPECT_EQ(buf[size], '#');  // nothing written past the buffer
      EXPECT_EQ(result, text.size() < size ? (int)text.size() : -1);
      if (size > 0) {
         EXPECT_EQ(buf.data(), text.substr(0, *(std::upper_bound(ends, ends + 7, size - 1) - 1)));
      }
   }
}

TEST(Str, SprintfAndAsprintf)
{
   char buf[8] = "zz";
   EXPECT_TRUE(Str_Sprintf(buf, sizeof buf, "%s", "1234567") == 7 &&
               Str_SprintfCLocale(buf, sizeof buf, "%'d", 1234567) == 7 &&
               strcmp(buf, "1234567") == 0);
   EXPECT_PANIC_MATCHING(Str_Sprintf(buf, sizeof buf, "%s", "12345678"), kTooSmall);
   EXPECT_PANIC_MATCHING(Str_SprintfCLocale(buf, sizeof buf, "%d", 123456789), kTooSmall);
   // An engine failure is reported the same way.
   EXPECT_PANIC_MATCHING(Str_Sprintf(buf, sizeof buf, "%lc", kUnconvertible), kTooSmall);

   size_t length = 99;
   EXPECT_EQ(testsupport::Take(Str_Asprintf(&length, "%s=%d", "key", -7)), "key=-7");
   EXPECT_TRUE(Str_Asprintf(&length, "%lc", kUnconvertible) == nullptr && length == 6);
   EXPECT_PANIC_MATCHING(Str_SafeAsprintf(nullptr, "%lc", kUnconvertible),
                         "VERIFY lib/string/str:[0-9]+\n");
}

TEST(Str, CopiesTheirPanicsSearchesAndCase)
{
   char buf[6];
   EXPECT_STREQ(Str_Strcpy(buf, "hello", sizeof buf), "hello");
   EXPECT_PANIC_MATCHING(Str_Strcpy(buf, "hello!", sizeof buf), kTooSmall);

   EXPECT_STREQ(Str_Strncpy(buf, sizeof buf, "hello world", 5), "hello");
   EXPECT_PANIC_MATCHING(Str_Strncpy(buf, sizeof buf, "hello world", 6), kTooSmall);

   EXPECT_STREQ(Str_Strcat(Str_Strncpy(buf, sizeof buf, "hi", 100), "cde", sizeof buf), "hicde");
   EXPECT_PANIC_MATCHING(Str_Strcat(buf, "f", sizeof buf), kTooSmall);

   Str_Strcpy(buf, "ab", sizeof buf);
   EXPECT_STREQ(Str_Strncat(buf, sizeof buf, "cdefgh", 2), "abcd");
   // A count larger than needed is fine while the source itself fits.
   EXPECT_STREQ(Str_Strncat(buf, sizeof buf, "e", 50), "abcde");
   EXPECT_PANIC_MATCHING(Str_Strncat(buf, sizeof buf, "fg", 50), kTooSmall);
   EXPECT_TRUE(Str_Strlen("abc", 10) == 3 && Str_Strlen("abcdef", 4) == 4);
   const char *hay = "one two three";
   EXPECT_EQ(Str_Strnstr(hay, "two", 7), hay + 4);
   EXPECT_EQ(Str_Strnstr(hay, "two", 6), nullptr);  // would end past the limit
   EXPECT_EQ(Str_Strnstr(hay, "", 0), hay);
   char text[] = "MiXeD \xC3\x89t\xC3\xA9 1Z";
   EXPECT_STREQ(Str_ToLower(text), "mixed \xC3\x89t\xC3\xA9 1z");
   EXPECT_STREQ(Str_ToUpper(text), "MIXED \xC3\x89T\xC3\xA9 1Z");
}

TEST(StrUtil, FormatByteCount)
{
   // Within 0.01 of a whole number prints it whole (1023.999 KB, 1.0098 KB, 2.997 KB), but
   // 1.0107 KB and 2.988 KB keep their decimal.
   const std::pair<uint64_t, const char *> cases[] = {
       {1, "1 byte"},  {1023, "1023 bytes"},        {1536, "1.5 KB"}, {2684354560, "2.5 GB"},
       {3069, "3 KB"}, {UINT64_MAX, "16777216 TB"}, {1035, "1.0 KB"}, {1048575, "1024 KB"}};
   for (const auto &[count, expected] : cases) {
      EXPECT_EQ(testsupport::Take(StrUtil_FormatByteCount(count)), expected);
   }
}
