/*
 * The engine against the C library's snprintf over a grid of flags, widths, precisions, length
 * modifiers, conversions and boundary values. Deliberate differences are in formatTest.cpp.
 */
#include <float.h>
#include <limits.h>
#include <math.h>
#include <stdio.h>

#include <functional>

#include "str.h"
#include "testSupport.h"

/* Formats through both; theirFmt is the C library's spelling of fmt. */
template <typename... Args>
static void Same(const std::string &fmt, const std::string &theirFmt, Args... args)
{
   char ours[512], theirs[512];
   int ourLength = Str_Snprintf(ours, sizeof ours, fmt.c_str(), args...);
   int theirLength = snprintf(theirs, sizeof theirs, theirFmt.c_str(), args...);
   ASSERT_EQ(std::string(ours, std::max(ourLength, 0)) + "|" + std::to_string(ourLength),
             std::string(theirs, std::max(theirLength, 0)) + "|" + std::to_string(theirLength))
       << fmt;
}

/*
 * Every flag set, width and precision for conv and value, and star widths and precisions of
 * both signs (a negative star precision counts as none). skip(precision) leaves a precision
 * out, -1 standing for none.
 */
template <typename T>
static void Grid(
    const std::vector<const char *> &flagSets, const std::string &conv, T value,
    const std::vector<const char *> &precisions,
    const std::function<bool(int)> &skip = [](int) { return false; })
{
   for (const char *flags : flagSets) {
      for (const char *precision : precisions) {
         if (skip(*precision ? atoi(precision + 1) : -1)) {
            continue;
         }
         for (const char *width : {"", "1", "12"}) {
            std::string fmt = std::string("%") + flags + width + precision + conv;
            Same(fmt, fmt, value);
         }
      }
      std::string star = std::string("%") + flags + "*.*" + conv;
      if (!skip(3) && !skip(-1)) {
         Same(star, star, 7, 3, value);
         Same(star, star, -7, -3, value);
      }
   }
}

const std::vector<const char *> kFlags = {"", "-", "+", " ", "#", "0", "'", "- ", "+ #0"};
const std::vector<const char *> kPrecisions = {"", ".", ".0", ".1", ".17"};

/* Whether ecvt's digits for value are the ones the C library's %e prints. */
static bool EcvtAgreesWithPrintf(double value, int ndigits)
{
   if (!isfinite(value) || value == 0) {
      return true;
   }
   int decpt, sign;
   std::string digits = ecvt(value, ndigits, &decpt, &sign);
   char printed[64];
   snprintf(printed, sizeof printed, "%.*e", ndigits - 1, fabs(value));
   std::string expected(printed, strchr(printed, 'e'));
   std::erase(expected, '.');
   return digits == expected && decpt - 1 == atoi(strchr(printed, 'e') + 1);
}

TEST(FormatDiff, IntegersCharactersStringsAndPointers)
{
   const long long values[] = {0,     1,       -1,      42,           255,       256,      -32768,
                               65535, INT_MAX, INT_MIN, 2147483648LL, INT64_MAX, INT64_MIN};
   for (const char *length : {"", "hh", "h", "l", "ll", "q", "L", "j", "z", "t"}) {
      bool narrow = *length == '\0' || *length == 'h';
      for (const char *conv : {"d", "i", "u", "o", "x", "X"}) {
         for (long long value : values) {
            if (!narrow) {
               Grid(kFlags, std::string(length) + conv, value, kPrecisions);
            } else if (value >= INT_MIN && value <= INT_MAX) {
               Grid(kFlags, std::string(length) + conv, (int)value, kPrecisions);
            }
         }
      }
   }
   // The additional modifiers read what the standard ones read.
   Same("%I64d|%I64u|%-+5I64x", "%lld|%llu|%-+5llx", INT64_MIN, UINT64_MAX, UINT64_MAX);
   Same("%I32d|%I32u|%#I32x", "%d|%u|%#x", INT_MIN, UINT_MAX, UINT_MAX);
   Same("%Id|%Iu|%.3Ix", "%zd|%zu|%.3zx", SIZE_MAX, SIZE_MAX, (size_t)0);
   Same("%D %#O %U %Zu", "%ld %#lo %lu %zu", LONG_MIN, LONG_MAX, ULONG_MAX, SIZE_MAX);

   for (int c : {(int)'a', 0xE9}) {
      Grid({"", "-"}, "c", c, {""});
   }
   for (const char *s : {"", "a", "hello world", "\xC3\xA9t\xC3\xA9"}) {
      Grid({"", "-"}, "s", s, kPrecisions);
   }
   // The C library prints "(nil)" for a NULL pointer and a sign for "+"/" "; both excluded.
   for (uintptr_t p : {(uintptr_t)1, UINTPTR_MAX}) {
      Grid({"", "-", "#", "0"}, "p", (void *)p, kPrecisions);
   }
   Same("%lc|%5C|%-3lc|", "%lc|%5lc|%-3lc|", (wint_t)'x', (wint_t)'y', (wint_t)'z');
   Same("%ls|%.2S|%5ls|%%", "%ls|%.2ls|%5ls|%%", L"abc", L"abc", L"d");
}

TEST(FormatDiff, FloatingPoint)
{
   const double values[] = {0.0,      -0.0,      1.0,     -2.0 / 3, 9.5,       99.9995,
                            1e21,     1e-300,    DBL_MAX, 4.9e-324, 9.9999995, 999999.5,
                            INFINITY, -INFINITY, NAN,     -NAN};
   // ecvt and fcvt give at most 17 digits, so the precision stays at or below 16. The C
   // library's ecvt scales by powers of ten before rounding, so its digits can differ from its
   // printf's in the last places and at ties; such cases are skipped by asking ecvt itself.
   for (char conv : std::string("eEfFgG")) {
      for (double value : values) {
         Grid(kFlags, std::string(1, conv), value, {"", ".0", ".1", ".6", ".16"}, [&](int digits) {
            switch (conv | 0x20) {
               case 'e':
                  return !EcvtAgreesWithPrintf(value, (digits < 0 ? 6 : digits) + 1);
               case 'g':
                  return !EcvtAgreesWithPrintf(value, digits < 0 ? 6 : digits == 0 ? 1 : digits);
               default:  // %.0f rounds half-way values away from zero, the C library to even
                  return digits == 0 && fabs(value - trunc(value)) == 0.5;
            }
         });
      }
   }
   Same("%.17f|%Lf|%Le|%Lg", "%.17f|%Lf|%Le|%Lg", 0.1, (long double)1.5, (long double)-2.5e-7,
        (long double)1e30);
   // Positional arguments with a star width and precision.
   Same("%1$*2$.*3$f|%1$g|%4$c", "%1$*2$.*3$f|%1$g|%4$c", 3.14159, 10, 2, 'z');
}
