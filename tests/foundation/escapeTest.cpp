#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>

#include <string>

#include "escape.h"
#include "testSupport.h"

namespace {

/* Takes ownership of a routine's result and returns it as a string (with embedded NULs). */
std::string Take(void *result, size_t size)
{
   if (result == nullptr) {
      return "<null>";
   }
   EXPECT_EQ(static_cast<char *>(result)[size], '\0');
   std::string text(static_cast<char *>(result), size);
   free(result);
   return text;
}

std::string Take(char *result)
{
   return Take(result, result == nullptr ? 0 : strlen(result));
}

/* Flags '%', '/', NUL, 0xFF and line feed. */
struct EscapeTable {
   int flags[256] = {};
   EscapeTable()
   {
      for (unsigned char c : std::string("%/\0\xff\n", 5)) {
         flags[c] = 1;
      }
   }
} const kTable;

std::string Do(char esc, const std::string &in)
{
   size_t size = 0;
   void *out = Escape_Do(esc, kTable.flags, in.data(), in.size(), &size);
   return Take(out, size);
}

std::string Undo(char esc, const std::string &in)
{
   size_t size = 0;
   void *out = Escape_Undo(esc, in.data(), in.size(), &size);
   return Take(out, size);
}

}  // namespace

TEST(Escape, DoWritesUpperCaseHexAndUndoReverses)
{
   const std::string in("a/b%c\nd\0e\xff", 10);
   EXPECT_EQ(Do('%', in), "a%2Fb%25c%0Ad%00e%FF");
   EXPECT_EQ(Undo('%', Do('%', in)), in);
   EXPECT_EQ(Do('%', ""), "");
   std::string nulEscaped = Do('\0', std::string("/\0", 2));  // even a NUL escape is written
   EXPECT_EQ(nulEscaped, std::string("\0002F\00000", 6));
   EXPECT_EQ(Undo('\0', nulEscaped), std::string("/\0", 2));
   size_t size = 99;
   void *out = Escape_DoString("<esc>", kTable.flags, "x/", 2, &size);
   EXPECT_EQ(Take(out, size), "x<esc>2F");
   EXPECT_EQ(Take(static_cast<char *>(Escape_Do('%', kTable.flags, "plain", 5, nullptr))), "plain");

   // Broken sequences stay as written; the byte that breaks one does not start a new one.
   const std::pair<const char *, const char *> undo[] = {
       {"%41%6a%7A", "Ajz"}, {"100%", "100%"},   {"ends %4", "ends %4"}, {"%G1 %4G", "%G1 %4G"},
       {"%%41", "%%41"},     {"%4%41", "%4%41"}, {"%41%42", "AB"}};
   for (const auto &[text, expected] : undo) {
      EXPECT_EQ(Undo('%', text), expected) << text;
   }
   EXPECT_EQ(Undo('#', "#00#"), std::string("\0#", 2));

   char buf[4];
   memset(buf, '*', sizeof buf);
   EXPECT_FALSE(Escape_UndoFixed('%', "%41BCD", 6, buf, sizeof buf));  // "ABCD" + NUL
   EXPECT_EQ(std::string(buf, 4), "****");
   EXPECT_TRUE(Escape_UndoFixed('%', "%41BC", 5, buf, sizeof buf));
   EXPECT_STREQ(buf, "ABC");
   EXPECT_FALSE(Escape_UndoFixed('%', "", 0, buf, 0));
   EXPECT_TRUE(Escape_UndoFixed('%', "%4", 2, buf, 3));
   EXPECT_STREQ(buf, "%4");
}

TEST(Escape, StripCRShellQuoteRegexSpecials)
{
   size_t size = 0;
   void *out = Escape_StripCR("a\r\nb\rc\r\r\n\r", 10, &size);
   EXPECT_EQ(Take(out, size), "a\nb\rc\r\n\r");
   out = Escape_ShellQuote("a'b", 3, &size);
   EXPECT_EQ(size, 9u);
   EXPECT_EQ(Take(out, size), "'a'\"'\"'b'");
   out = Escape_ShellQuote("", 0, &size);
   EXPECT_EQ(Take(out, size), "''");
   out = Escape_RegexSpecials("$a*.[\\]^b+?(", 12, &size);
   EXPECT_EQ(Take(out, size), "\\$a\\*\\.\\[\\\\\\]\\^b+?(");
}

TEST(Escape, StrchrUnescapeAndCommas)
{
   const char *text = "a\\,b,c";
   EXPECT_EQ(Escape_Strchr('\\', text, ','), text + 4);
   const char *escapedEscape = "\\\\,";
   EXPECT_EQ(Escape_Strchr('\\', escapedEscape, ','), escapedEscape + 2);
   EXPECT_EQ(Escape_Strchr('\\', "a\\,b", ','), nullptr);
   EXPECT_EQ(Escape_Strchr('\\', "", ','), nullptr);
   const char *escapes = "x\\\\y\\";
   EXPECT_EQ(Escape_Strchr('\\', escapes, '\\'), escapes + 1);  // an unescaped escape character

   EXPECT_EQ(Take(Escape_Unescape('\\', "a\\,b\\\\c\\")), "a,b\\c");
   EXPECT_EQ(Take(Escape_Unescape('%', "")), "");
   EXPECT_EQ(Take(Escape_Commas("a,b\\c,,")), "a\\,b\\\\c\\,\\,");
   EXPECT_EQ(Escape_Commas(nullptr), nullptr);
   const char *original = "x,\\y\\,z";  // escaping commas and unescaping are inverses
   EXPECT_EQ(Take(Escape_Unescape('\\', Take(Escape_Commas(original)).c_str())), original);
}

TEST(Escape, UnescapeCStringInPlace)
{
   // Fewer than three octal digits leave the backslash alone and read nothing beyond the end.
   const std::pair<std::string, std::string> cases[] = {
       {"\\101", "A"},     {"\\q", "\\q"},       {"a\\\\b\\nc", "a\\b\nc"},
       {"\\1012", "A2"},   {"\\12", "\\12"},     {"\\18x", "\\18x"},
       {"end\\", "end\\"}, {"\\\\101", "\\101"}, {"\\377", "\xff"}};
   for (auto [text, expected] : cases) {
      Escape_UnescapeCString(text.data());
      EXPECT_EQ(text.c_str(), expected);
   }
}

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define SANITIZED_BUILD 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define SANITIZED_BUILD 1
#endif
#endif

TEST(Escape, MemoryFailureGivesNullAndENOMEM)
{
#ifdef SANITIZED_BUILD
   GTEST_SKIP() << "sanitizers reserve more address space than the limit allows";
#endif
   // Caps the address space so that tripling a 16 MB input cannot fit.
   auto escapeUnderLimit = [] {
      std::string input(16 << 20, '%');
      long pages = 0;
      FILE *statm = fopen("/proc/self/statm", "r");
      if (statm == nullptr || fscanf(statm, "%ld", &pages) != 1 || fclose(statm) != 0) {
         exit(2);
      }
      struct rlimit limit = {(rlim_t)pages * 4096 + (24 << 20), (rlim_t)pages * 4096 + (24 << 20)};
      if (setrlimit(RLIMIT_AS, &limit) != 0) {
         exit(3);
      }
      errno = 0;
      void *out = Escape_Do('%', kTable.flags, input.data(), input.size(), nullptr);
      exit(out == nullptr && errno == ENOMEM ? 0 : 1);
   };
   EXPECT_EXIT(escapeUnderLimit(), ::testing::ExitedWithCode(0), "");
}
