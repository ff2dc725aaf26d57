/*
 * The printf engine where it deliberately differs from the C library, its punctuation and the
 * captured-argument source of MsgFmt.
 */
#include <limits.h>
#include <math.h>
#include <stdlib.h>
#include <wchar.h>

#include "msgfmt.h"
#include "str.h"
#include "string/bsdFmtEngine.h"
#include "testSupport.h"

/* Formats in allocating mode with the given punctuation ("<error>" on failure). */
static std::string Punct(const char *grouping, char separator, const char *point, const char *fmt,
                         ...)
{
   bsdfmt::Punctuation punct{grouping, separator, point};
   va_list args;
   va_start(args, fmt);
   bsdfmt::VaListSource source(fmt, args);
   char *out = nullptr;
   int length = bsdfmt::Format(&out, 0, punct, fmt, source);
   va_end(args);
   std::string result = length < 0 ? "<error>" : std::string(out, (size_t)length);
   free(out);
   return result;
}

/* POSIX punctuation, as bsd_vsnprintf_posix uses. */
#define Fmt(...) Punct(nullptr, ',', ".", __VA_ARGS__)

/* Through the exported entry in fixed mode. */
static int FixedPosix(char *buf, size_t size, const char *fmt, ...)
{
   va_list args;
   va_start(args, fmt);
   int length = bsd_vsnprintf_posix(&buf, size, fmt, args);
   va_end(args);
   return length;
}

TEST(Format, DocumentedDifferencesAndWideText)
{
   EXPECT_EQ(Fmt("%s|%.3s|%8s|%S", nullptr, nullptr, nullptr, nullptr),
             "(null)|(nu|  (null)|(null)");
   EXPECT_EQ(Fmt("%a%A%d", 5), "aA5");  // no argument consumed
   EXPECT_EQ(Fmt("%y|%5%|%-3k|"), "y|    %|k  |");
   EXPECT_EQ(Fmt("abc%") + Fmt("abc%-5"), "abcabc");
   EXPECT_EQ(Fmt("%.0f %.0f %.0f %.0f %.0f", 2.5, 0.5, -2.5, 1.5, 0.49), "3 1 -3 2 0");
   EXPECT_EQ(Fmt("%E|%f|%F|%e|%+g|%010f|%-5G|", INFINITY, -INFINITY, NAN, NAN, INFINITY, INFINITY,
                 -INFINITY),
             "INF|-inf|NAN|nan|+inf|       inf|-INF |");
   // Digits come from ecvt/fcvt, which stop at 17; the rest are zeros.
   EXPECT_EQ(Fmt("%.20f|%.20e", 0.1, 0.1), "0.10000000000000001000|1.00000000000000000000e-01");
   const wchar_t mixed[] = {L'a', 0xE9, 0x20AC, 0x1F600, 0}, unterminated[2] = {L'x', L'y'};
   EXPECT_EQ(Fmt("%S|%ls|%.2S", mixed, L"", unterminated),
             "a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80||xy");
   // Surrogates pass through as three bytes; values beyond U+10FFFF become U+FFFD.
   const wchar_t odd[] = {0xD800, 0xDFFF, 0x110000, (wchar_t)0xFFFFFFFF, 0};
   EXPECT_EQ(Fmt("%S", odd), "\xED\xA0\x80\xED\xBF\xBF\xEF\xBF\xBD\xEF\xBF\xBD");
   // A precision keeps whole characters only and bounds what is read.
   EXPECT_EQ(Fmt("%.2S|%.1S|%.7S|%-6.3S|", mixed, mixed, mixed, mixed),
             "a|a|a\xC3\xA9\xE2\x82\xAC|a\xC3\xA9   |");
   EXPECT_EQ(Fmt("x%Cy", (wint_t)0x110000), "<error>");
}

TEST(Format, GroupingFollowsTheGroupingString)
{
   EXPECT_EQ(Punct("\3", ',', ".", "%'d %'i %'u %'d", 1234567, -1234567, 1000u, 999),
             "1,234,567 -1,234,567 1,000 999");
   EXPECT_EQ(
       Punct("\3\2", '.', ",", "%'lld", 123456789LL) + Punct("\3\177", ',', ".", "%'d", 123456789),
       "12.34.56.789123456,789");
   EXPECT_EQ(Punct("", ',', ".", "%'d", 1234567) + Fmt("%'d", 1), "12345671");  // no groups
   // Only decimal integers and the integer part of fixed-style floats are grouped.
   EXPECT_EQ(Punct("\3", ',', ".", "%'x %'o %'p", 0x123456, 01234567, (void *)0x123456),
             "123456 1234567 0x123456");
   EXPECT_EQ(Punct("\3", ',', ",", "%'.2f|%'.10g|%'g|%'e", 1234567.891, 1234567.0, 1e7, 1234567.0),
             "1,234,567,89|1,234,567|1e+07|1,234567e+06");
   EXPECT_EQ(Punct("\3", ',', ".", "%'.0f|%'f|%'012d|%'-12d|", 1e20, 0.5, 1234567, -1234),
             "100,000,000,000,000,000,000|0.500000|0001,234,567|-1,234      |");
}

TEST(Format, PositionalArguments)
{
   EXPECT_EQ(Fmt("%2$hhd %1$lld %3$Lf", INT64_MIN, 0x17F, (long double)2.5),
             "127 -9223372036854775808 2.500000");
   // Digits after a star override it, but its argument is still consumed.
   EXPECT_EQ(Fmt("%*3d|%.*.1f|%s", 9, 7, 5, 2.25, "end"), "  7|2.2|end");
   EXPECT_EQ(Fmt("%1$d %3$d", 1, 2, 3), "1 3");  // an unnamed position is read as an int
   // More positions than the engine keeps without allocating.
   EXPECT_EQ(Fmt("%12$s%11$s%10$s%9$s%8$s%7$s%6$s%5$s%4$s%3$s%2$s%1$s", "a", "b", "c", "d", "e",
                 "f", "g", "h", "i", "j", "k", "l"),
             "lkjihgfedcba");
   for (const char *bad : {"%70000$d", "%*0$d", "%99999999999d", "%.99999999999d"}) {
      EXPECT_EQ(Fmt(bad, 1), "<error>") << bad;
   }
}

TEST(Format, CountStoresEveryWidthAndLimit)
{
   struct {
      signed char hh;
      int plain;
      long long ll;
      size_t z;
   } n = {0, 0, -1, 0};
   std::string pad(200, 'x');
   EXPECT_EQ(Fmt("%s%hhn%n%lln%zn|", pad.c_str(), &n.hh, &n.plain, &n.ll, &n.z), pad + "|");
   EXPECT_TRUE(n.hh == (signed char)200 && n.plain == 200 && n.ll == 200 && n.z == 200);

   // Fixed mode drops what does not fit but goes on counting, up to INT_MAX.
   char buf[8] = "#######";
   EXPECT_EQ(FixedPosix(buf, 4, "%s-%d%n", "abcdef", 42, &n.plain), 9);
   EXPECT_TRUE(std::string(buf, 5) == std::string("abc\0#", 5) && n.plain == 9);
   EXPECT_TRUE(FixedPosix(buf, 0, "xyz") == 3 && buf[0] == 'a');
   EXPECT_EQ(FixedPosix(buf, sizeof buf, "%2147483647d", 1), INT_MAX);
   EXPECT_STREQ(buf, "       ");
   EXPECT_EQ(FixedPosix(buf, sizeof buf, "%.2147483647d", 1), INT_MAX);
   EXPECT_EQ(FixedPosix(buf, sizeof buf, "%2147483647dx", 1), -1);
   EXPECT_EQ(FixedPosix(buf, sizeof buf, "x%2147483647d", 1), -1);
}

TEST(Format, CapturedArguments)
{
   MsgFmt_Arg args[4] = {{MSGFMT_ARG_INT32, {.signed32 = -5}},
                         {MSGFMT_ARG_STRING32_ALT, {.string32 = (wchar_t *)L"w\u00e9"}},
                         {MSGFMT_ARG_STRING8_MSGID, {.string8 = (char *)"@&!*@*@(msg.id)Hi"}},
                         {MSGFMT_ARG_INT32_ALT, {.signed32 = 'Z'}}};
   size_t length = 0;
   std::string s = testsupport::Take(MsgFmt_Asprintf(&length, "%2$S %3$s %4$c %1$u %4$x", args, 4));
   EXPECT_EQ(s, "w\xC3\xA9 Hi Z 4294967291 5a");
   EXPECT_EQ(length, s.size());
   // Without a buffer fixed mode only counts.
   EXPECT_EQ(MsgFmt_Snprintf(nullptr, 0, "%d", args, 1), 2);

   // Identifiers are hidden only when the prefix is complete and closed.
   MsgFmt_Arg ids[3] = {{MSGFMT_ARG_STRING8, {.string8 = (char *)"@&!*@*@(open"}},
                        {MSGFMT_ARG_STRING8, {.string8 = (char *)"@&!*@*@()bare"}},
                        {MSGFMT_ARG_STRING8, {.string8 = (char *)"x@&!*@*@(a)b"}}};
   EXPECT_EQ(testsupport::Take(MsgFmt_Asprintf(nullptr, "%s|%s|%s|%1$.2s", ids, 3)),
             "@&!*@*@(open|bare|x@&!*@*@(a)b|@&");

   // A conversion that does not match the captured type, or no argument at all, fails.
   MsgFmt_Arg pair[2] = {args[0], ids[0]};
   for (const char *fmt :
        {"%s", "%lld", "%f", "%S", "%3$d", "%d%d", "%n", "%Lf", "%*d", "%*2$d|"}) {
      EXPECT_EQ(MsgFmt_Asprintf(nullptr, fmt, pair, 2), nullptr) << fmt;
   }
}
