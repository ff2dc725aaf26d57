#include <errno.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <string.h>

#include <string>

#include "escape.h"
#include "testSupport.h"

namespace {

/* Takes ownership of a routine's result and returns it as a string (with embedded NULs). */
std::string Take(void *result, size_t size)
{
   EXPECT_NE(result, nullptr);
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
   return result == nullptr ? "<null>" : Take(result, strlen(result));
}

struct EscapeTable {
   int flags[256] = {};
   EscapeTable(std::initializer_list<unsigned char> bytes)
   {
      for (unsigned char b : bytes) {
         flags[b] = 1;
      }
   }
};

std::string Do(char esc, const EscapeTable &table, const std::string &in)
{
   size_t size = 0;
   void *out = Escape_Do(esc, table.flags, in.data(), in.size(), &size);
   return Take(out, size);
}

std::string Undo(char esc, const std::string &in)
{
   size_t size = 0;
   void *out = Escape_Undo(esc, in.data(), in.size(), &size);
   return Take(out, size);
}

std::string UnescapeCString(std::string text)
{
   Escape_UnescapeCString(text.data());
   return text.c_str();
}

}  // namespace

TEST(Escape, DoWritesUpperCaseHexAndRoundTrips)
{
   EscapeTable table{'%', '/', 0x00, 0xFF, '\n'};
   std::string in("a/b%c\nd\0e\xff", 10);
   std::string escaped = Do('%', table, in);
   EXPECT_EQ(escaped, "a%2Fb%25c%0Ad%00e%FF");
   EXPECT_EQ(Undo('%', escaped), in);

   size_t size = 99;
   void *out = Escape_DoString("<esc>", table.flags, "x/", 2, &size);
   EXPECT_EQ(Take(out, size), "x<esc>2F");
   EXPECT_EQ(Do('%', table, ""), "");
   /* Even a NUL escape byte is written out. */
   std::string nulEscaped = Do('\0', table, std::string("/\0", 2));
   EXPECT_EQ(nulEscaped, std::string("\0002F\00000", 6));
   EXPECT_EQ(Undo('\0', nulEscaped), std::string("/\0", 2));
   EXPECT_STREQ(static_cast<char *>(out = Escape_Do('%', table.flags, "plain", 5, nullptr)),
                "plain");
   free(out);
}

TEST(Escape, UndoKeepsBrokenSequences)
{
   EXPECT_EQ(Undo('%', "%41%6a%7A"), "Ajz");
   EXPECT_EQ(Undo('%', "100%"), "100%");
   EXPECT_EQ(Undo('%', "ends %4"), "ends %4");
   EXPECT_EQ(Undo('%', "%G1 %4G"), "%G1 %4G");
   /* The byte that breaks a sequence is not itself taken as a new escape. */
   EXPECT_EQ(Undo('%', "%%41"), "%%41");
   EXPECT_EQ(Undo('%', "%4%41"), "%4%41");
   EXPECT_EQ(Undo('%', "%41%42"), "AB");
   EXPECT_EQ(Undo('#', "#00#"), std::string("\0#", 2));
}

TEST(Escape, UndoFixedFitsWithItsNulOrCopiesNothing)
{
   char buf[4];
   memset(buf, '*', sizeof buf);
   EXPECT_FALSE(Escape_UndoFixed('%', "%41BCD", 6, buf, sizeof buf)); /* "ABCD" + NUL */
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

   char *quoted = Escape_ShellQuote("a'b", 3, &size);
   EXPECT_EQ(size, 9u);
   EXPECT_EQ(Take(quoted, size), "'a'\"'\"'b'");
   quoted = Escape_ShellQuote("", 0, &size);
   EXPECT_EQ(Take(quoted, size), "''");

   char *regex = Escape_RegexSpecials("$a*.[\\]^b+?(", 12, &size);
   EXPECT_EQ(Take(regex, size), "\\$a\\*\\.\\[\\\\\\]\\^b+?(");
}

TEST(Escape, StrchrSkipsEscapedCharacters)
{
   const char *text = "a\\,b,c";
   EXPECT_EQ(Escape_Strchr('\\', text, ','), text + 4);
   const char *escapedEscape = "\\\\,";
   EXPECT_EQ(Escape_Strchr('\\', escapedEscape, ','), escapedEscape + 2);
   EXPECT_EQ(Escape_Strchr('\\', "a\\,b", ','), nullptr);
   EXPECT_EQ(Escape_Strchr('\\', "", ','), nullptr);
   const char *escapes = "x\\\\y\\";
   EXPECT_EQ(Escape_Strchr('\\', escapes, '\\'), escapes + 1); /* an unescaped escape character */
}

TEST(Escape, UnescapeAndCommas)
{
   EXPECT_EQ(Take(Escape_Unescape('\\', "a\\,b\\\\c\\")), "a,b\\c");
   EXPECT_EQ(Take(Escape_Unescape('%', "")), "");

   char *commas = Escape_Commas("a,b\\c,,");
   EXPECT_EQ(Take(commas), "a\\,b\\\\c\\,\\,");
   EXPECT_EQ(Escape_Commas(nullptr), nullptr);
   /* Escaping commas and unescaping with the same character are inverses. */
   const char *original = "x,\\y\\,z";
   EXPECT_EQ(Take(Escape_Unescape('\\', Take(Escape_Commas(original)).c_str())), original);
}

TEST(Escape, UnescapeCStringInPlace)
{
   EXPECT_EQ(UnescapeCString("\\101"), "A");
   EXPECT_EQ(UnescapeCString("\\q"), "\\q");
   EXPECT_EQ(UnescapeCString("a\\\\b\\nc"), "a\\b\nc");
   EXPECT_EQ(UnescapeCString("\\1012"), "A2");
   /* Fewer than three octal digits leave the backslash alone and read nothing beyond the end. */
   EXPECT_EQ(UnescapeCString("\\12"), "\\12");
   EXPECT_EQ(UnescapeCString("\\18x"), "\\18x");
   EXPECT_EQ(UnescapeCString("end\\"), "end\\");
   EXPECT_EQ(UnescapeCString("\\\\101"), "\\101");
   EXPECT_EQ(UnescapeCString("\\377"), "\xff");
}

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define SANITIZED_BUILD 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define SANITIZED_BUILD 1
#endif
#endif

#ifndef SANITIZED_BUILD
/* Caps the address space so that tripling a 16 MB input cannot fit; exits 0 on a clean failure. */
[[noreturn]] static void EscapeUnderMemoryLimit()
{
   std::string input(16 << 20, '%');
   EscapeTable table{'%'};
   FILE *statm = fopen("/proc/self/statm", "r");
   unsigned long pages = 0;
   if (statm == nullptr || fscanf(statm, "%lu", &pages) != 1) {
      exit(2);
   }
   fclose(statm);
   rlim_t limit = pages * 4096 + (24 << 20);
   struct rlimit rl = {limit, limit};
   if (setrlimit(RLIMIT_AS, &rl) != 0) {
      exit(3);
   }
   errno = 0;
   void *out = Escape_Do('%', table.flags, input.data(), input.size(), nullptr);
   exit(out == nullptr && errno == ENOMEM ? 0 : 1);
}
#endif

TEST(Escape, MemoryFailureGivesNullAndENOMEM)
{
#ifdef SANITIZED_BUILD
   GTEST_SKIP() << "sanitizers reserve more address space than the limit allows";
#else
   EXPECT_EXIT(EscapeUnderMemoryLimit(), ::testing::ExitedWithCode(0), "");
#endif
}
