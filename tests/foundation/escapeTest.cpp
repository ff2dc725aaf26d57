#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>

#include "escape.h"
#include "testSupport.h"

using testsupport::Take;

/* Calls routine(args..., &size) and takes ownership of its result (NULs included). */
template <typename Result, typename... Params, typename... Args>
static std::string Call(Result *(*routine)(Params...), Args... args)
{
   size_t size = 0;
   char *result = static_cast<char *>(routine(args..., &size));
   EXPECT_TRUE(result == nullptr || result[size] == '\0');
   std::string text = result != nullptr ? std::string(result, size) : "(null)";
   free(result);
   return text;
}

/* Flags '%', '/', NUL, 0xFF and line feed. */
static const struct EscapeTable {
   int flags[256] = {};
   EscapeTable() { flags[+'%'] = flags[+'/'] = flags[0] = flags[0xff] = flags[+'\n'] = 1; }
} kTable;

static std::string Do(char esc, const std::string &in)
{
   return Call(Escape_Do, esc, kTable.flags, in.data(), in.size());
}

TEST(Escape, EveryFormOfEscapingAndItsReverse)
{
   const std::string in("a/b%c\nd\0e\xff", 10);
   EXPECT_EQ(Do('%', in), "a%2Fb%25c%0Ad%00e%FF");
   // Even a NUL escape is written.
   EXPECT_EQ(Do('\0', std::string("/\0", 2)), std::string("\0002F\00000", 6));
   EXPECT_EQ(Call(Escape_DoString, "<esc>", kTable.flags, "x/", 2), "x<esc>2F");

   // Broken sequences stay as written; the byte that breaks one does not start a new one.
   const std::pair<const char *, const char *> undo[] = {
       {"%41%6a%7A", "Ajz"}, {"ends %4", "ends %4"}, {"%G1 %4G", "%G1 %4G"}, {"%4%41", "%4%41"}};
   for (const auto &[text, expected] : undo) {
      EXPECT_EQ(Call(Escape_Undo, '%', text, strlen(text)), expected) << text;
   }

   char buf[4] = {'*', '*', '*', '*'};  // no room for "ABCD" and its NUL: nothing written
   EXPECT_TRUE(!Escape_UndoFixed('%', "%41BCD", 6, buf, sizeof buf) &&
               std::string(buf, 4) == "****");
   EXPECT_EQ(Call(Escape_StripCR, "a\r\nb\rc\r\r\n\r", 10), "a\nb\rc\r\n\r");
   EXPECT_EQ(Call(Escape_ShellQuote, "a'b", 3) + Call(Escape_ShellQuote, "", 0), "'a'\"'\"'b'''");
   EXPECT_EQ(Call(Escape_RegexSpecials, "$a*.[\\]^b+?(", 12), "\\$a\\*\\.\\[\\\\\\]\\^b+?(");

   // Offset of the first unescaped match, -1 for none; an escaped escape does not escape.
   const std::tuple<const char *, char, int> strchr[] = {
       {"a\\,b,c", ',', 4}, {"\\\\,", ',', 2}, {"a\\,b", ',', -1}, {"x\\\\y\\", '\\', 1}};
   for (auto [text, c, offset] : strchr) {
      const char *found = Escape_Strchr('\\', text, c);
      EXPECT_EQ(found == nullptr ? -1 : found - text, offset) << text;
   }
   EXPECT_EQ(Take(Escape_Unescape('\\', "a\\,b\\\\c\\")), "a,b\\c");
   EXPECT_EQ(Take(Escape_Commas("a,b\\c,,")), "a\\,b\\\\c\\,\\,");

   // Fewer than three octal digits leave the backslash alone and read nothing beyond the end.
   const std::pair<std::string, std::string> cString[] = {
       {"\\1012", "A2"},   {"\\q", "\\q"},     {"a\\\\b\\nc", "a\\b\nc"},
       {"\\18x", "\\18x"}, {"end\\", "end\\"}, {"\\377", "\xff"}};
   for (auto [text, expected] : cString) {
      Escape_UnescapeCString(text.data());
      EXPECT_EQ(text.c_str(), expected);
   }
}

TEST(Escape, MemoryFailureGivesNullAndENOMEM)
{
#if SANITIZED_BUILD
   GTEST_SKIP() << "sanitizers reserve more address space than the limit allows";
#endif
   // Caps the address space 24 MB above its current size, so tripling 16 MB cannot fit.
   EXPECT_TRUE(testsupport::InChild([] {
      std::string input(16 << 20, '%');
      FILE *statm = fopen("/proc/self/statm", "r");
      rlim_t pages = 0;
      bool sized = statm != nullptr && fscanf(statm, "%lu", &pages) == 1;
      struct rlimit limit = {pages * 4096 + (24 << 20), pages * 4096 + (24 << 20)};
      errno = 0;
      return sized && setrlimit(RLIMIT_AS, &limit) == 0 &&
             Escape_Do('%', kTable.flags, input.data(), input.size(), nullptr) == nullptr &&
             errno == ENOMEM;
   }));
}
