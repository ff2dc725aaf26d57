#include <stdarg.h>
#include <stdlib.h>
#include <string.h>

#include "msgfmt.h"
#include "str.h"
#include "testSupport.h"

struct Captured {
   bool ok = false;
   MsgFmt_Arg *args = nullptr;
   int numArgs = 0;
   std::string error;
};

/* Captures into buf (of *size bytes) when one is given, else on the heap. */
static Captured VCapture(void *buf, size_t *size, const char *fmt, va_list va)
{
   Captured c;
   char *error = nullptr;
   c.ok = buf == nullptr ? MsgFmt_GetArgs(fmt, va, &c.args, &c.numArgs, &error)
                         : MsgFmt_GetArgsInBuffer(fmt, va, &c.args, &c.numArgs, &error, buf, size);
   if (!c.ok) {
      EXPECT_EQ(c.args, nullptr);
      EXPECT_EQ(c.numArgs, 0);
      c.error = error != nullptr ? error : "(no error)";
      if (buf == nullptr) {
         free(error);
      }
   }
   return c;
}

static Captured Capture(const char *fmt, ...)
{
   va_list va;
   va_start(va, fmt);
   Captured c = VCapture(nullptr, nullptr, fmt, va);
   va_end(va);
   return c;
}

static Captured CaptureInBuffer(void *buf, size_t *size, const char *fmt, ...)
{
   va_list va;
   va_start(va, fmt);
   Captured c = VCapture(buf, size, fmt, va);
   va_end(va);
   return c;
}

static std::string Format(const char *fmt, const Captured &c)
{
   return testsupport::Take(MsgFmt_Asprintf(nullptr, fmt, c.args, c.numArgs));
}

TEST(MsgFmtCapture, EveryTypeRoundTrips)
{
   const wchar_t *wide = L"w\u00e9";
   int x = 0;
   const char *fmt = "%d|%lld|%p|%f|%s|%ls|%c|%u|%zu|%hhd|%*d|%.3s|%S|%e|%jd|%%";
   Captured c = Capture(fmt, -5, -1234567890123LL, (void *)&x, 2.5, "text", wide, 'q', 7u,
                        (size_t)99, 300, 6, 42, "abcdef", wide, 1e10, (intmax_t)-9);
   ASSERT_TRUE(c.ok) << c.error;
   EXPECT_EQ(c.numArgs, 16);
   EXPECT_STREQ(c.args[12].v.string8, "abc"); /* only what the precision reads is copied */
   EXPECT_EQ(Format(fmt, c),
             testsupport::Take(Str_Asprintf(nullptr, fmt, -5, -1234567890123LL, (void *)&x, 2.5,
                                            "text", wide, 'q', 7u, (size_t)99, 300, 6, 42, "abcdef",
                                            wide, 1e10, (intmax_t)-9)));
   /* A deep copy outlives the original; a mismatched format is refused. */
   MsgFmt_Arg *copy = MsgFmt_CopyArgs(c.args, c.numArgs);
   MsgFmt_FreeArgs(c.args, c.numArgs);
   c.args = copy;
   EXPECT_EQ(Format("%5$s %6$ls", c), "text w\u00e9");
   EXPECT_EQ(MsgFmt_Asprintf(nullptr, "%5$d", c.args, c.numArgs), nullptr);
   EXPECT_EQ(MsgFmt_Asprintf(nullptr, "%17$d", c.args, c.numArgs), nullptr);
   MsgFmt_FreeArgs(copy, c.numArgs);

   /* Positions may come in any order and repeat with one type; NULL strings stay NULL. */
   Captured p = Capture("%2$s %1$d %2$s %3$s", 4, "two", (const char *)nullptr);
   EXPECT_EQ(Format("%2$s %1$d %2$s %3$s", p), "two 4 two (null)");
   MsgFmt_FreeArgs(p.args, p.numArgs);

   /* A precision passed as an argument limits the copy too: the text need not end in NUL. */
   const char raw[3] = {'a', 'b', 'c'};
   Captured star = Capture("%.*s|%2$.*1$s", 2, raw);
   EXPECT_STREQ(star.args[1].v.string8, "ab");
   EXPECT_EQ(Format("%.*s|%2$.*1$s", star), "ab|ab");
   MsgFmt_FreeArgs(star.args, star.numArgs);

   EXPECT_TRUE(Capture("no conversions, 100%%").ok);

   /* %a and %A capture doubles, though the engine prints them as their letters. */
   Captured hex = Capture("%a|%A", 1.5, -2.0);
   ASSERT_TRUE(hex.ok && hex.numArgs == 2) << hex.error;
   EXPECT_TRUE(hex.args[0].type == MSGFMT_ARG_FLOAT64 && hex.args[1].v.float64 == -2.0);
   MsgFmt_FreeArgs(hex.args, hex.numArgs);
}

TEST(MsgFmtCapture, ErrorTexts)
{
   EXPECT_EQ(Capture("%2$s", "a", "b").error, "MsgFmt_GetArgs: gap in arguments at position 1");
   EXPECT_EQ(Capture("%1$d %1$s", 1).error,
             "MsgFmtGetArg1: incompatible specifiers for argument 1, old type 1, new type 6, "
             "pos \"1$\", type \"s\"");
   EXPECT_EQ(Capture("%s %1$lu", "x").error,
             "MsgFmtGetArg1: incompatible specifiers for argument 1, old type 6, new type 2, "
             "pos \"1$\", type \"lu\"");
   EXPECT_EQ(Capture("ab%n", &errno).error,
             "MsgFmtGetArg1: %n not supported, pos \"\", type \"n\"");
   EXPECT_EQ(Capture("%3$Lf", 1.0).error,
             "MsgFmtGetArg1: %Lf not supported, pos \"3$\", type \"Lf\"");
   EXPECT_EQ(Capture("%-8jg", 1.0).error,
             "MsgFmtGetArg1: %jg not supported, pos \"\", type \"-8jg\"");
   EXPECT_EQ(Capture("%d %y", 1).error, "MsgFmtGetArg1: %y not understood, pos \"\", type \"y\"");
   EXPECT_EQ(Capture("%99999$d", 1).error,
             "MsgFmtGetArg1: bad specifier, status 1, pos \"\", type \"\"");
   EXPECT_EQ(Capture("%99999999999d", 1).error, "MsgFmt_GetArgs: error in format string");
   EXPECT_PANIC(Capture("%hs", "x"), "NOT_REACHED lib/misc/msgfmt:");
   EXPECT_PANIC(Capture("%lp", nullptr), "NOT_REACHED lib/misc/msgfmt:");
}

TEST(MsgFmtCapture, BufferModeKeepsEverythingInTheBuffer)
{
   alignas(8) char buf[256];
   size_t size = sizeof buf;
   Captured c = CaptureInBuffer(buf, &size, "%s=%d (%ls)", "key", 12, L"wide");
   ASSERT_TRUE(c.ok) << c.error;
   EXPECT_EQ(reinterpret_cast<char *>(c.args), buf);
   EXPECT_EQ(size, 3 * sizeof(MsgFmt_Arg) + 4 + 5 * sizeof(wchar_t));
   EXPECT_EQ(c.args[0].v.string8, buf + 3 * sizeof(MsgFmt_Arg));
   EXPECT_EQ(Format("%s=%d (%ls)", c), "key=12 (wide)");

   /* Room for the error text, not for five slots; then not for the string. */
   size = 60;
   EXPECT_EQ(CaptureInBuffer(buf, &size, "%5$d %4$d %3$d %2$d %1$d", 1, 2, 3, 4, 5).error,
             "MsgFmtGetArg1: out of memory at arg 5");
   std::string longText(200, 'x');
   size = 128;
   EXPECT_EQ(CaptureInBuffer(buf, &size, "%s", longText.c_str()).error,
             "MsgFmt_GetArgs: out of memory");
}
