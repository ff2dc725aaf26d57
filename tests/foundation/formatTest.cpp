/*
 * The printf engine where it deliberately differs from the C library, its internal pieces
 * (output list, parser, positional table, punctuation, UTF conversions) and the
 * captured-argument source of MsgFmt.
 */
#include <limits.h>
#include <math.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <wchar.h>

#include <string>

#include "msgfmt.h"
#include "str.h"
#include "string/bsdFmtEngine.h"
#include "string/convertUtf.h"
#include "testSupport.h"

#pragma GCC diagnostic ignored "-Wformat"
#pragma GCC diagnostic ignored "-Wformat-extra-args"
#pragma GCC diagnostic ignored "-Wformat-zero-length"

namespace {

std::string Fmt(const char *fmt, ...)
{
   va_list args;
   va_start(args, fmt);
   char *out = nullptr;
   int length = bsd_vsnprintf_posix(&out, 0, fmt, args);
   va_end(args);
   if (length < 0) {
      return "<error>";
   }
   std::string result(out, (size_t)length);
   free(out);
   return result;
}

/* Formats with explicit punctuation. */
std::string WithPunct(const char *grouping, char separator, const char *point, const char *fmt, ...)
{
   bsdfmt::Punctuation punct;
   punct.grouping = grouping;
   punct.thousandsSep = separator;
   punct.decimalPoint = point;
   va_list args;
   va_start(args, fmt);
   bsdfmt::VaListSource source(fmt, args);
   char *out = nullptr;
   int length = bsdfmt::Format(&out, 0, punct, fmt, source);
   va_end(args);
   if (length < 0) {
      return "<error>";
   }
   std::string result(out, (size_t)length);
   free(out);
   return result;
}

/* The positional type table's size after the first positional fetch of fmt. */
int TableCapacityFor(const char *fmt, ...)
{
   va_list args;
   va_start(args, fmt);
   bsdfmt::VaListSource source(fmt, args);
   bsdfmt::ArgValue value;
   source.Fetch(bsdfmt::ArgRef{1, true}, bsdfmt::ArgKind::Int, &value);
   va_end(args);
   return source.TableCapacity();
}

TEST(Format, DocumentedDifferences)
{
   EXPECT_EQ(Fmt("%s|%.3s|%8s|%S", nullptr, nullptr, nullptr, nullptr),
             "(null)|(nu|  (null)|(null)");
   EXPECT_EQ(Fmt("%a%A%d", 5), "aA5");  // no argument consumed
   EXPECT_EQ(Fmt("%y|%5%|%-3k|"), "y|    %|k  |");
   EXPECT_EQ(Fmt("abc%"), "abc");
   EXPECT_EQ(Fmt("abc%-5"), "abc");
   EXPECT_EQ(Fmt("%.0f %.0f %.0f %.0f %.0f", 2.5, 0.5, -2.5, 1.5, 0.49), "3 1 -3 2 0");
   EXPECT_EQ(Fmt("%E|%f|%F|%e|%+g|%010f|%-5G|", INFINITY, -INFINITY, NAN, NAN, INFINITY, INFINITY,
                 -INFINITY),
             "INF|-inf|NAN|nan|+inf|       inf|-INF |");
   // %s with a precision reads no further than the precision.
   char unterminated[3] = {'a', 'b', 'c'};
   EXPECT_EQ(Fmt("%.3s", unterminated), "abc");
   EXPECT_EQ(Fmt("%Lf|%Le", (long double)0.1, (long double)1e300), "0.100000|1.000000e+300");
   // Digits come from ecvt/fcvt, which stop at 17; the rest are zeros.
   EXPECT_EQ(Fmt("%.20f|%.20e", 0.1, 0.1), "0.10000000000000001000|1.00000000000000000000e-01");
}

TEST(Format, LengthModifiers)
{
   EXPECT_EQ(Fmt("%I64d %Id %I32d", INT64_MIN, SIZE_MAX, -1), "-9223372036854775808 -1 -1");
   EXPECT_EQ(Fmt("%I64u %Iu %I32u", UINT64_MAX, SIZE_MAX, UINT_MAX),
             "18446744073709551615 18446744073709551615 4294967295");
   EXPECT_EQ(Fmt("%qd %Ld %Zu %zd", INT64_MIN, -5LL, SIZE_MAX, (size_t)-3),
             "-9223372036854775808 -5 18446744073709551615 -3");
   EXPECT_EQ(Fmt("%hhd %hhu %hd %hu", 0x1FF, 0x1FF, 0x18000, 0x18000), "-1 255 -32768 32768");
   EXPECT_EQ(Fmt("%D %O %U", -1L, 8L, ULONG_MAX), "-1 10 18446744073709551615");
}

TEST(Format, GroupingFollowsTheGroupingString)
{
   EXPECT_EQ(WithPunct("\3", ',', ".", "%'d %'i %'u", 1234567, -1234567, 1000u),
             "1,234,567 -1,234,567 1,000");
   EXPECT_EQ(WithPunct("\3", ',', ".", "%'d %'d %'d", 0, 999, 1000), "0 999 1,000");
   EXPECT_EQ(WithPunct("\3\2", '.', ",", "%'lld", 123456789LL), "12.34.56.789");
   EXPECT_EQ(WithPunct("\3\177", ',', ".", "%'d", 123456789), "123456,789");
   EXPECT_EQ(WithPunct("\1", ' ', ".", "%'llu", UINT64_MAX),
             "1 8 4 4 6 7 4 4 0 7 3 7 0 9 5 5 1 6 1 5");
   EXPECT_EQ(WithPunct("", ',', ".", "%'d", 1234567), "1234567");  // empty: no groups
   EXPECT_EQ(WithPunct(nullptr, ',', ".", "%'d", 1234567), "1234567");
   // Only decimal integers and the integer part of fixed-style floats are grouped.
   EXPECT_EQ(WithPunct("\3", ',', ".", "%'x %'o %'p", 0x123456, 01234567, (void *)0x123456),
             "123456 1234567 0x123456");
   EXPECT_EQ(
       WithPunct("\3", ',', ",", "%'.2f|%'.10g|%'g|%'e", 1234567.891, 1234567.0, 1e7, 1234567.0),
       "1,234,567,89|1,234,567|1e+07|1,234567e+06");
   EXPECT_EQ(WithPunct("\3", ',', ".", "%'.0f|%'f", 1e20, 0.5),
             "100,000,000,000,000,000,000|0.500000");
   EXPECT_EQ(WithPunct("\3", ',', ".", "%'012d|%'-12d|", 1234567, -1234),
             "0001,234,567|-1,234      |");
   // The plain entry point has no grouping string; the locale one reads the C locale here.
   EXPECT_EQ(Fmt("%'d", 1234567), "1234567");
   char buf[32];
   EXPECT_EQ(Str_Snprintf(buf, sizeof buf, "%'d", 1234567), 7);
}

TEST(Format, PositionalArgumentsAndTheirTable)
{
   EXPECT_EQ(Fmt("%2$s %1$s", "a", "b"), "b a");
   EXPECT_EQ(Fmt("%3$*1$.*2$f|", 8, 2, 3.14159), "    3.14|");
   EXPECT_EQ(Fmt("%2$hhd %1$lld %3$Lf", INT64_MIN, 0x17F, (long double)2.5),
             "127 -9223372036854775808 2.500000");
   // Digits after a star override it, but its argument is still consumed.
   EXPECT_EQ(Fmt("%*3d|%.*.1f|%s", 9, 7, 5, 2.25, "end"), "  7|2.2|end");
   // A position no conversion names is read as an int.
   EXPECT_EQ(Fmt("%1$d %3$d", 1, 2, 3), "1 3");

   EXPECT_EQ(TableCapacityFor("%1$d %7$d", 1, 2, 3, 4, 5, 6, 7), 8);
   EXPECT_EQ(TableCapacityFor("%1$d %8$d", 1, 2, 3, 4, 5, 6, 7, 8), 16);
   EXPECT_EQ(TableCapacityFor("%1$d %20$d", 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16,
                              17, 18, 19, 20),
             21);
   // 8 -> 16 -> 32: doubling wins over the position plus one.
   EXPECT_EQ(TableCapacityFor("%1$d %9$d %17$d", 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15,
                              16, 17),
             32);
   EXPECT_EQ(Fmt("%25$s%24$s%23$s%22$s%21$s%20$s%19$s%18$s%17$s%16$s%15$s%14$s%13$s%12$s%11$s"
                 "%10$s%9$s%8$s%7$s%6$s%5$s%4$s%3$s%2$s%1$s",
                 "a", "b", "c", "d", "e", "f", "g", "h", "i", "j", "k", "l", "m", "n", "o", "p",
                 "q", "r", "s", "t", "u", "v", "w", "x", "y"),
             "yxwvutsrqponmlkjihgfedcba");
   // Bad positions and numbers fail the whole format.
   EXPECT_EQ(Fmt("%70000$d", 1), "<error>");
   EXPECT_EQ(Fmt("%*0$d", 1), "<error>");
   EXPECT_EQ(Fmt("%99999999999d", 1), "<error>");
}

TEST(Format, CountStoresEveryWidth)
{
   signed char hh = 0;
   short h = 0;
   int plain = 0;
   long l = -1;
   long long ll = -1;
   intmax_t j = -1;
   size_t z = 0;
   int64_t i64 = -1;
   std::string pad(200, 'x');
   EXPECT_EQ(
       Fmt("%s%hhn%hn%n%ln%lln%jn%zn%I64n|", pad.c_str(), &hh, &h, &plain, &l, &ll, &j, &z, &i64),
       pad + "|");
   EXPECT_EQ(hh, (signed char)200);
   EXPECT_EQ(h, 200);
   EXPECT_EQ(plain, 200);
   EXPECT_EQ(l, 200);
   EXPECT_EQ(ll, 200);
   EXPECT_EQ(j, 200);
   EXPECT_EQ(z, 200u);
   EXPECT_EQ(i64, 200);
}

int FixedPosix(char *buf, size_t size, const char *fmt, ...)
{
   va_list args;
   va_start(args, fmt);
   char *out = buf;
   int length = bsd_vsnprintf_posix(&out, size, fmt, args);
   va_end(args);
   return length;
}

TEST(Format, FixedModeCountsPastTheBuffer)
{
   char buf[8];
   memset(buf, '#', sizeof buf);
   int stored = 0;
   EXPECT_EQ(FixedPosix(buf, 4, "%s-%d%n", "abcdef", 42, &stored), 9);
   EXPECT_STREQ(buf, "abc");
   EXPECT_EQ(stored, 9);
   EXPECT_EQ(buf[4], '#');
   EXPECT_EQ(FixedPosix(buf, 0, "abc"), 3);
   EXPECT_EQ(buf[0], 'a');
   // Long padding beyond the buffer costs nothing and is still counted.
   EXPECT_EQ(FixedPosix(buf, sizeof buf, "%100000000d", 1), 100000000);
   EXPECT_STREQ(buf, "       ");
   // The count is a signed 32-bit value.
   EXPECT_EQ(FixedPosix(buf, sizeof buf, "%2147483647d", 1), INT_MAX);
   EXPECT_EQ(FixedPosix(buf, sizeof buf, "%2147483647dx", 1), -1);
   EXPECT_EQ(FixedPosix(buf, sizeof buf, "x%2147483647d", 1), -1);
   EXPECT_EQ(FixedPosix(buf, sizeof buf, "%.2147483647d", 1), INT_MAX);
}

TEST(Format, AllocatingModeGrowsInStepsOfItsSize)
{
   EXPECT_EQ(bsdfmt::Output("").Allocated(), 1u);
   EXPECT_EQ(bsdfmt::Output("%d").Allocated(), 64u);
   EXPECT_EQ(bsdfmt::Output(std::string(63, 'x').c_str()).Allocated(), 64u);
   EXPECT_EQ(bsdfmt::Output(std::string(64, 'x').c_str()).Allocated(), 128u);

   bsdfmt::Output out("%s");
   std::string text(100, 'y');
   ASSERT_TRUE(out.Print(text.c_str(), 63) && out.Flush());
   EXPECT_EQ(out.Allocated(), 64u);  // 63 bytes and the NUL fit
   ASSERT_TRUE(out.Print(text.c_str(), 1) && out.Flush());
   EXPECT_EQ(out.Allocated(), 128u);
   ASSERT_TRUE(out.Print(text.c_str(), 100) && out.Flush());
   EXPECT_EQ(out.Allocated(), 256u);  // (164 + 128) rounded down to a multiple of 128
   ASSERT_TRUE(out.Pad(1000, ' '));
   EXPECT_EQ(out.Allocated(), 1280u);
   char *result = nullptr;
   EXPECT_EQ(out.Finish(&result, true), 1164);
   EXPECT_EQ(strlen(result), 1164u);
   free(result);

   std::string big(100000, 'z');
   size_t length = 0;
   char *s = Str_Asprintf(&length, "<%s|%s>", big.c_str(), big.c_str());
   ASSERT_NE(s, nullptr);
   EXPECT_EQ(length, 200003u);
   EXPECT_EQ(std::string(s), "<" + big + "|" + big + ">");
   free(s);
   EXPECT_EQ(Fmt(""), "");
}

TEST(Format, WideStringsAndCharacters)
{
   const wchar_t mixed[] = {L'a', 0xE9, 0x20AC, 0x1F600, 0};
   EXPECT_EQ(Fmt("%S|%ls", mixed, L""), "a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80|");
   // Surrogates pass through as three bytes; values beyond U+10FFFF become U+FFFD.
   const wchar_t odd[] = {0xD800, 0xDFFF, 0x110000, (wchar_t)0xFFFFFFFF, 0};
   EXPECT_EQ(Fmt("%S", odd), "\xED\xA0\x80\xED\xBF\xBF\xEF\xBF\xBD\xEF\xBF\xBD");
   // A precision keeps whole characters only.
   EXPECT_EQ(Fmt("%.2S|%.1S|%.7S|%-6.3S|", mixed, mixed, mixed, mixed),
             "a|a|a\xC3\xA9\xE2\x82\xAC|a\xC3\xA9   |");
   // The precision also bounds what is read.
   const wchar_t unterminated[2] = {L'x', L'y'};
   EXPECT_EQ(Fmt("%.2S", unterminated), "xy");
   EXPECT_EQ(Fmt("%C%lc%3C", (wint_t)'A', (wint_t)'b', (wint_t)'c'), "Ab  c");
   EXPECT_EQ(Fmt("x%Cy", (wint_t)0x110000), "<error>");
}

TEST(Format, ParserReportsSpansAndStatus)
{
   const char *fmt = "a%2$-*1$.*3$lldb%%%s%";
   bsdfmt::FormatScanner scanner(fmt);
   bsdfmt::Directive directive;
   bsdfmt::ParseStatus status;
   ASSERT_TRUE(scanner.Next(&directive, &status));
   EXPECT_EQ(status, bsdfmt::ParseStatus::ok);
   EXPECT_EQ(directive.start, fmt + 1);
   EXPECT_EQ(std::string(directive.positionText.text, directive.positionText.length), "2$");
   EXPECT_EQ(std::string(directive.conversionText.text, directive.conversionText.length),
             "-*1$.*3$lld");
   EXPECT_EQ(directive.arg.position, 2);
   EXPECT_TRUE(directive.arg.explicitPosition);
   EXPECT_EQ(directive.widthArg.position, 1);
   EXPECT_EQ(directive.precisionArg.position, 3);
   EXPECT_EQ(directive.flags, (unsigned)bsdfmt::kLeftAdjust);
   EXPECT_EQ(directive.length, bsdfmt::Length::ll);
   EXPECT_EQ(directive.conversion, 'd');
   EXPECT_EQ(directive.kind, bsdfmt::ArgKind::LongLong);

   ASSERT_TRUE(scanner.Next(&directive, &status));
   EXPECT_EQ(directive.conversion, '%');
   EXPECT_EQ(directive.kind, bsdfmt::ArgKind::none);
   ASSERT_TRUE(scanner.Next(&directive, &status));
   EXPECT_EQ(directive.conversion, 's');
   EXPECT_EQ(directive.arg.position, 1);  // sequential numbering ignores explicit positions
   EXPECT_FALSE(directive.arg.explicitPosition);
   EXPECT_FALSE(scanner.Next(&directive, &status));  // the trailing "%" ends the format

   bsdfmt::FormatScanner bad("%5$d %.99999999999d");
   ASSERT_TRUE(bad.Next(&directive, &status));
   ASSERT_TRUE(bad.Next(&directive, &status));
   EXPECT_EQ(status, bsdfmt::ParseStatus::badNumber);
   EXPECT_FALSE(bad.Next(&directive, &status));
}

TEST(Format, UtfConversions)
{
   using namespace utfconv;
   const uint8_t good[] = {'a', 0xC3, 0xA9, 0xF0, 0x9F, 0x98, 0x80};
   uint16_t utf16[8];
   const uint8_t *in = good;
   uint16_t *out = utf16;
   EXPECT_EQ(UTF8toUTF16(&in, good + sizeof good, &out, utf16 + 8, Mode::strict), Result::ok);
   ASSERT_EQ(out - utf16, 4);
   EXPECT_EQ(utf16[2], 0xD83D);
   EXPECT_EQ(utf16[3], 0xDE00);

   // Too little room stops before the character, pair included.
   in = good;
   out = utf16;
   EXPECT_EQ(UTF8toUTF16(&in, good + sizeof good, &out, utf16 + 3, Mode::strict),
             Result::targetExhausted);
   EXPECT_EQ(in, good + 3);

   // A cut sequence, an overlong form and the limits after E0, ED and F4.
   const uint8_t cut[] = {'x', 0xE2, 0x82};
   uint32_t utf32[4];
   in = cut;
   uint32_t *out32 = utf32;
   EXPECT_EQ(UTF8toUTF32(&in, cut + 3, &out32, utf32 + 4, Mode::strict), Result::sourceExhausted);
   EXPECT_EQ(in, cut + 1);
   for (auto bytes :
        {std::string("\xC0\x80"), std::string("\xE0\x9F\xBF"), std::string("\xED\xA0\x80"),
         std::string("\xF4\x90\x80\x80"), std::string("\xF5\x80\x80\x80")}) {
      EXPECT_FALSE(IsLegalUTF8((const uint8_t *)bytes.data(), bytes.size()));
   }
   EXPECT_TRUE(IsLegalUTF8((const uint8_t *)"\xF4\x8F\xBF\xBF", 4));
   EXPECT_TRUE(IsLegalUTF8((const uint8_t *)"\xED\x9F\xBF", 3));

   // Unpaired surrogates: refused when strict, passed through when lenient.
   const uint32_t lone[] = {0xDC00};
   uint8_t utf8[8];
   const uint32_t *in32 = lone;
   uint8_t *out8 = utf8;
   EXPECT_EQ(UTF32toUTF8(&in32, lone + 1, &out8, utf8 + 8, Mode::strict), Result::sourceIllegal);
   EXPECT_EQ(out8, utf8);
   EXPECT_EQ(UTF32toUTF8(&in32, lone + 1, &out8, utf8 + 8, Mode::lenient), Result::ok);
   EXPECT_EQ(out8 - utf8, 3);
   const uint16_t high[] = {0xD800, 'a'};
   const uint16_t *in16 = high;
   out32 = utf32;
   EXPECT_EQ(UTF16toUTF32(&in16, high + 2, &out32, utf32 + 4, Mode::strict), Result::sourceIllegal);
   EXPECT_EQ(UTF16toUTF32(&in16, high + 2, &out32, utf32 + 4, Mode::lenient), Result::ok);
   EXPECT_EQ(out32 - utf32, 2);
   const uint32_t astral[] = {0x10437};
   in32 = astral;
   out = utf16;
   EXPECT_EQ(UTF32toUTF16(&in32, astral + 1, &out, utf16 + 8, Mode::strict), Result::ok);
   EXPECT_EQ(utf16[0], 0xD801);
   EXPECT_EQ(utf16[1], 0xDC37);
   in16 = utf16;
   out8 = utf8;
   EXPECT_EQ(UTF16toUTF8(&in16, utf16 + 2, &out8, utf8 + 8, Mode::strict), Result::ok);
   EXPECT_EQ(std::string((char *)utf8, (size_t)(out8 - utf8)), "\xF0\x90\x90\xB7");
}

MsgFmt_Arg Int32(int32_t v)
{
   MsgFmt_Arg a{};
   a.type = MSGFMT_ARG_INT32;
   a.v.signed32 = v;
   return a;
}

MsgFmt_Arg Int64(int64_t v)
{
   MsgFmt_Arg a{};
   a.type = MSGFMT_ARG_INT64;
   a.v.signed64 = v;
   return a;
}

MsgFmt_Arg Str8(const char *s, int32_t type = MSGFMT_ARG_STRING8)
{
   MsgFmt_Arg a{};
   a.type = type;
   a.v.string8 = (char *)s;
   return a;
}

TEST(Format, CapturedArgumentsRoundTrip)
{
   MsgFmt_Arg args[8];
   args[0] = Int32(-5);
   args[1] = Int64(INT64_MIN);
   args[2].type = MSGFMT_ARG_PTR;
   args[2].v.ptr = (void *)0xabc;
   args[3].type = MSGFMT_ARG_FLOAT64;
   args[3].v.float64 = 2.5;
   args[4] = Str8("text");
   args[5].type = MSGFMT_ARG_STRING32;
   args[5].v.string32 = (wchar_t *)L"w\u00e9";
   args[6] = Str8("@&!*@*@(msg.id)Hi there", MSGFMT_ARG_STRING8_MSGID);
   args[7] = Int32('Z');
   size_t length = 0;
   char *s = MsgFmt_Asprintf(
       &length, "%1$d %2$lld %2$jd %3$p %4$.1f %4$g %5$s %6$S %6$ls %7$s %8$c %1$u", args, 8);
   ASSERT_NE(s, nullptr);
   EXPECT_STREQ(s,
                "-5 -9223372036854775808 -9223372036854775808 0xabc 2.5 2.5 text w\xC3\xA9 "
                "w\xC3\xA9 Hi there Z 4294967291");
   EXPECT_EQ(length, strlen(s));
   free(s);

   // The alternative integer and wide-string codes read the same way.
   MsgFmt_Arg alt[2];
   alt[0] = Int32(-2);
   alt[0].type = MSGFMT_ARG_INT32_ALT;
   alt[1].type = MSGFMT_ARG_STRING32_ALT;
   alt[1].v.string32 = (wchar_t *)L"ok";
   s = MsgFmt_Asprintf(nullptr, "%1$d %1$x %2$S", alt, 2);
   ASSERT_NE(s, nullptr);
   EXPECT_STREQ(s, "-2 fffffffe ok");
   free(s);

   // Sequential conversions take the array in order; fixed mode counts past the buffer.
   char buf[6];
   EXPECT_EQ(MsgFmt_Snprintf(buf, sizeof buf, "%d,%lld", args, 2), 23);
   EXPECT_STREQ(buf, "-5,-9");

   // Identifiers are hidden only when the prefix is complete and closed.
   MsgFmt_Arg ids[3] = {Str8("@&!*@*@(open"), Str8("@&!*@*@()bare"), Str8("x@&!*@*@(a)b")};
   s = MsgFmt_Asprintf(nullptr, "%s|%s|%s|%1$.2s", ids, 3);
   ASSERT_NE(s, nullptr);
   EXPECT_STREQ(s, "@&!*@*@(open|bare|x@&!*@*@(a)b|@&");
   free(s);
}

TEST(Format, CapturedArgumentsRefuseMismatches)
{
   MsgFmt_Arg args[2] = {Int32(1), Str8("s")};
   const char *refused[] = {"%s",   "%lld", "%f", "%p",   "%S",  "%2$d", "%2$c",
                            "%3$d", "%d%d", "%n", "%2$n", "%Lf", "%*d",  "%2$*1$d"};
   for (const char *fmt : refused) {
      EXPECT_EQ(MsgFmt_Asprintf(nullptr, fmt, args, 2), nullptr) << fmt;
      char buf[16];
      EXPECT_EQ(MsgFmt_Snprintf(buf, sizeof buf, fmt, args, 2), -1) << fmt;
   }
   char buf[16];
   EXPECT_EQ(MsgFmt_Snprintf(buf, sizeof buf, "%*2$d|", args, 2), -1);
   EXPECT_EQ(MsgFmt_Snprintf(buf, sizeof buf, "%1$*1$d|", args, 2), 2);
   EXPECT_STREQ(buf, "1|");
   EXPECT_EQ(MsgFmt_Snprintf(nullptr, 0, "%d", args, 1), 1);
}

}  // namespace
