#include <stdarg.h>
#include <stdlib.h>

#include "msgfmt.h"
#include "str.h"
#include "testSupport.h"

struct Captured {
   bool ok = false;
   MsgFmt_Arg *args = nullptr;
   int numArgs = 0;
   std::string error;
   std::string Format(const char *fmt) const
   {
      return testsupport::Take(MsgFmt_Asprintf(nullptr, fmt, args, numArgs));
   }
};

/* Captures into buf (of *size bytes) when one is given, else on the heap. */
static Captured Capture(void *buf, size_t *size, const char *fmt, ...)
{
   va_list va;
   va_start(va, fmt);
   Captured c;
   char *error = nullptr;
   c.ok = buf == nullptr ? MsgFmt_GetArgs(fmt, va, &c.args, &c.numArgs, &error)
                         : MsgFmt_GetArgsInBuffer(fmt, va, &c.args, &c.numArgs, &error, buf, size);
   va_end(va);
   if (!c.ok) {
      EXPECT_TRUE(c.args == nullptr && c.numArgs == 0);
      c.error = error != nullptr ? error : "(no error)";
      free(buf == nullptr ? error : nullptr);
   }
   return c;
}
#define Capture(...) Capture(nullptr, nullptr, __VA_ARGS__)
#define CaptureInBuffer(buf, size, ...) (Capture)(buf, size, __VA_ARGS__)

TEST(MsgFmtCapture, EveryTypeRoundTrips)
{
   const wchar_t *wide = L"w\u00e9";
   int x = 0;
   const char *fmt = "%d|%lld|%p|%f|%s|%ls|%c|%u|%zu|%hhd|%*d|%.3s|%S|%e|%jd|%a|%%";
#define ARGS                                                                                       \
   -5, -1234567890123LL, (void *)&x, 2.5, "text", wide, 'q', 7u, (size_t)99, 300, 6, 42, "abcdef", \
       wide, 1e10, (intmax_t)-9, 1.5
   Captured c = Capture(fmt, ARGS);
   ASSERT_TRUE(c.ok) << c.error;
   EXPECT_EQ(c.Format(fmt), testsupport::Take(Str_Asprintf(nullptr, fmt, ARGS)));
#undef ARGS
   // A deep copy outlives the original.
   MsgFmt_Arg *copy = MsgFmt_CopyArgs(c.args, c.numArgs);
   MsgFmt_FreeArgs(c.args, c.numArgs);
   c.args = copy;
   EXPECT_EQ(c.Format("%5$s %6$ls"), "text w\u00e9");
   MsgFmt_FreeArgs(copy, c.numArgs);

   // Positions may come in any order and repeat with one type; NULL strings stay NULL.
   Captured p = Capture("%2$s %1$d %2$s %3$s", 4, "two", (const char *)nullptr);
   EXPECT_EQ(p.Format("%2$s %1$d %2$s %3$s"), "two 4 two (null)");
   MsgFmt_FreeArgs(p.args, p.numArgs);

   // A precision passed as an argument limits the copy too: the text need not end in NUL.
   const char raw[3] = {'a', 'b', 'c'};
   Captured star = Capture("%.*s|%2$.*1$s", 2, raw);
   EXPECT_EQ(star.Format("%.*s|%2$.*1$s"), "ab|ab");
   MsgFmt_FreeArgs(star.args, star.numArgs);
}

TEST(MsgFmtCapture, ErrorTextsAndTheBufferMode)
{
   EXPECT_EQ(Capture("%2$s", "a", "b").error, "MsgFmt_GetArgs: gap in arguments at position 1");
   EXPECT_EQ(Capture("%s %1$lu", "x").error,
             "MsgFmtGetArg1: incompatible specifiers for argument 1, old type 6, new type 2, "
             "pos \"1$\", type \"lu\"");
   EXPECT_EQ(Capture("ab%n", &errno).error,
             "MsgFmtGetArg1: %n not supported, pos \"\", type \"n\"");
   EXPECT_EQ(Capture("%-8jg", 1.0).error,
             "MsgFmtGetArg1: %jg not supported, pos \"\", type \"-8jg\"");
   EXPECT_EQ(Capture("%d %y", 1).error, "MsgFmtGetArg1: %y not understood, pos \"\", type \"y\"");
   EXPECT_EQ(Capture("%99999$d", 1).error,
             "MsgFmtGetArg1: bad specifier, status 1, pos \"\", type \"\"");
   EXPECT_EQ(Capture("%99999999999d", 1).error, "MsgFmt_GetArgs: error in format string");
   EXPECT_PANIC(Capture("%hs", "x"), "NOT_REACHED lib/misc/msgfmt:");
   EXPECT_PANIC(Capture("%lp", nullptr), "NOT_REACHED lib/misc/msgfmt:");
   alignas(8) char buf[256];
   size_t size = sizeof buf;
   Captured c = CaptureInBuffer(buf, &size, "%s=%d (%ls)", "key", 12, L"wide");
   ASSERT_TRUE(c.ok) << c.error;
   EXPECT_TRUE(reinterpret_cast<char *>(c.args) == buf && c.args[0].v.string8 < buf + sizeof buf);
   EXPECT_EQ(c.Format("%s=%d (%ls)"), "key=12 (wide)");
   // Room for the error text, not for five slots; then not for the string.
   size = 60;
   EXPECT_EQ(CaptureInBuffer(buf, &size, "%5$d %4$d %3$d %2$d %1$d", 1, 2, 3, 4, 5).error,
             "MsgFmtGetArg1: out of memory at arg 5");
   size = 128;
   EXPECT_EQ(CaptureInBuffer(buf, &size, "%s", std::string(200, 'x').c_str()).error,
             "MsgFmt_GetArgs: out of memory");
}
