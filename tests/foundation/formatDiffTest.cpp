/*
 * The engine against the C library's snprintf over a generated grid of flags, widths,
 * precisions, length modifiers, conversions and boundary values, for everything the engine
 * formats the standard way. Deliberate differences are tested in formatTest.cpp.
 */
#include <float.h>
#include <limits.h>
#include <math.h>
#include <stdint.h>
#include <stdio.h>

#include <string>
#include <vector>

#include "str.h"
#include "testSupport.h"

#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"

namespace {

const char *const kFlags[] = {"", "-", "+", " ", "#", "0", "'", "+0", "- ", "#-", "0#", "+ #0"};
const char *const kWidths[] = {"", "1", "5", "12", "*"};
const char *const kPrecisions[] = {"", ".", ".0", ".1", ".5", ".17", ".*"};

class Grid {
  public:
   ~Grid() { EXPECT_EQ(mismatches_, 0) << mismatches_ << " of " << checked_ << " formats differ"; }

   /* Formats through both with identical arguments; "*" arguments come first. */
   template <typename... Args>
   void Check(const std::string &fmt, Args... args)
   {
      CheckAgainst(fmt, fmt, args...);
   }

   /* The same where the C library spells the format differently. */
   template <typename... Args>
   void CheckAgainst(const std::string &fmt, const std::string &theirFmt, Args... args)
   {
      char ours[512];
      char theirs[512];
      int ourLength = Str_Snprintf(ours, sizeof ours, fmt.c_str(), args...);
      int theirLength = snprintf(theirs, sizeof theirs, theirFmt.c_str(), args...);
      checked_++;
      std::string a(ours, ourLength < 0 ? 0 : (size_t)ourLength);
      std::string b(theirs, theirLength < 0 ? 0 : (size_t)theirLength);
      if (ourLength != theirLength || a != b) {
         if (++mismatches_ <= 20) {
            ADD_FAILURE() << "format \"" << fmt << "\": ours \"" << a << "\" (" << ourLength
                          << "), C library \"" << b << "\" (" << theirLength << ")";
         }
      }
   }

   /* Every width and precision (stars get 7/-7 and 3/-3) around the conversion text. */
   template <typename T>
   void AllShapes(const std::string &flags, const std::string &conversion, T value,
                  bool withPrecision = true)
   {
      for (const char *width : kWidths) {
         for (const char *precision : kPrecisions) {
            if (!withPrecision && *precision != '\0') {
               continue;
            }
            std::string fmt = "%" + flags + width + precision + conversion;
            bool starWidth = width[0] == '*';
            bool starPrecision = (strcmp(precision, ".*") == 0);
            if (starWidth && starPrecision) {
               Check(fmt, 7, 3, value);
               Check(fmt, -7, -3, value);
            } else if (starWidth) {
               Check(fmt, 7, value);
               Check(fmt, -7, value);
            } else if (starPrecision) {
               Check(fmt, 3, value);
               Check(fmt, -3, value);
            } else {
               Check(fmt, value);
            }
         }
      }
   }

   int checked_ = 0;
   int mismatches_ = 0;
};

/* Whether ecvt's digits for value are the ones the C library's %e prints. */
bool EcvtAgreesWithPrintf(double value, int ndigits)
{
   if (!isfinite(value) || value == 0) {
      return true;
   }
   int decpt;
   int sign;
   std::string digits = ecvt(value, ndigits, &decpt, &sign);
   char printed[64];
   snprintf(printed, sizeof printed, "%.*e", ndigits - 1, fabs(value));
   std::string expected;
   for (const char *p = printed; *p != 'e'; p++) {
      if (*p != '.') {
         expected += *p;
      }
   }
   return digits == expected && decpt - 1 == atoi(strchr(printed, 'e') + 1);
}

template <typename T>
void IntegerGrid(Grid &grid, const char *length, const std::vector<T> &values)
{
   for (const char *flags : kFlags) {
      for (const char *conv : {"d", "i", "u", "o", "x", "X"}) {
         for (T value : values) {
            grid.AllShapes(flags, std::string(length) + conv, value);
         }
      }
   }
}

TEST(FormatDiff, IntegersOfEveryLength)
{
   Grid grid;
   std::vector<int> ints = {0,   1,     -1,     7,     42,      -42,     255,
                            256, 32767, -32768, 65535, 1000000, INT_MAX, INT_MIN};
   for (const char *length : {"", "hh", "h"}) {
      IntegerGrid(grid, length, ints);
   }
   std::vector<long long> wide = {0,
                                  1,
                                  -1,
                                  1234567890123LL,
                                  INT_MAX,
                                  INT_MIN,
                                  (long long)INT_MAX + 1,
                                  INT64_MAX,
                                  INT64_MIN,
                                  (long long)UINT64_MAX};
   for (const char *length : {"l", "ll", "q", "L", "j", "z", "t"}) {
      IntegerGrid(grid, length, wide);
   }
   // The additional modifiers read what the standard ones read.
   grid.CheckAgainst("%I64d|%I64u|%-+5I64x", "%lld|%llu|%-+5llx", INT64_MIN, UINT64_MAX,
                     UINT64_MAX);
   grid.CheckAgainst("%I32d|%I32u|%#I32x", "%d|%u|%#x", INT_MIN, UINT_MAX, UINT_MAX);
   grid.CheckAgainst("%Id|%Iu|%.3Ix", "%zd|%zu|%.3zx", (size_t)SIZE_MAX, (size_t)SIZE_MAX,
                     (size_t)0);
   grid.CheckAgainst("%D %#O %U %Zu", "%ld %#lo %lu %zu", LONG_MIN, LONG_MAX, ULONG_MAX, SIZE_MAX);
}

TEST(FormatDiff, CharactersStringsAndPointers)
{
   Grid grid;
   for (const char *flags : {"", "-", "#", "+", " "}) {
      for (int c : {(int)'a', (int)' ', 0xE9, (int)'%'}) {
         grid.AllShapes(flags, "c", c, false);
      }
      for (const char *s : {"", "a", "hello world", "\xC3\xA9t\xC3\xA9"}) {
         grid.AllShapes(flags, "s", s);
      }
   }
   // The C library prints "(nil)" for a NULL pointer and a sign for "+"/" "; both excluded.
   for (const char *flags : {"", "-", "#", "0", "-0"}) {
      for (uintptr_t p : {(uintptr_t)1, (uintptr_t)0xdeadbeef, UINTPTR_MAX}) {
         grid.AllShapes(flags, "p", (void *)p);
      }
   }
   grid.Check("%lc|%5C|%-3lc|", (wint_t)'x', (wint_t)'y', (wint_t)'z');
   grid.Check("%ls|%.2S|%5ls|", L"abc", L"abc", L"d");
   grid.Check("%%|%s%%", "x");
}

TEST(FormatDiff, FloatingPoint)
{
   Grid grid;
   const double values[] = {0.0,         -0.0,     1.0,       -1.0,     0.1,        0.25,
                            1.0 / 3,     -2.0 / 3, 9.5,       99.9995,  123456.789, 1e-5,
                            0.000123456, 1e15,     1e21,      1e-300,   1e300,      DBL_MAX,
                            DBL_MIN,     4.9e-324, 9.9999995, 999999.5, 1e100 / 3,  INFINITY,
                            -INFINITY,   NAN,      -NAN};
   // ecvt and fcvt give at most 17 digits where the C library gives exact expansions; so no
   // precision beyond 16 for %e (17 significant digits), 17 for %g and 17 for %f. Besides,
   // the C library's ecvt scales the value by powers of ten before rounding, so for %e and %g
   // its digits can differ from its printf's in the last places and at decimal ties; such
   // cases are skipped by asking ecvt itself.
   const char *const precisions[] = {"", ".0", ".1", ".3", ".6", ".10", ".16", ".*"};
   for (const char *flags : kFlags) {
      for (const char *conv : {"e", "E", "f", "F", "g", "G"}) {
         for (double value : values) {
            for (const char *width : kWidths) {
               for (const char *precision : precisions) {
                  // %.0f rounds half-way values away from zero, the C library to even.
                  bool halfway = fabs(value - trunc(value)) == 0.5;
                  if (halfway && (*conv | 0x20) == 'f' && strcmp(precision, ".0") == 0) {
                     continue;
                  }
                  std::string fmt = std::string("%") + flags + width + precision + conv;
                  int digits = precision[0] == '\0'             ? 6
                               : (strcmp(precision, ".*") == 0) ? 4
                                                                : atoi(precision + 1);
                  if ((*conv | 0x20) == 'e' && !EcvtAgreesWithPrintf(value, digits + 1)) {
                     continue;
                  }
                  if ((*conv | 0x20) == 'g' &&
                      !EcvtAgreesWithPrintf(value, digits == 0 ? 1 : digits)) {
                     continue;
                  }
                  if (width[0] == '*' && (strcmp(precision, ".*") == 0)) {
                     grid.Check(fmt, -12, 2, value);
                  } else if (width[0] == '*') {
                     grid.Check(fmt, 12, value);
                  } else if ((strcmp(precision, ".*") == 0)) {
                     grid.Check(fmt, 4, value);
                  } else {
                     grid.Check(fmt, value);
                  }
               }
            }
         }
      }
   }
   grid.Check("%.17f|%Lf|%Le|%Lg", 0.1, (long double)1.5, (long double)-2.5e-7, (long double)1e30);
}

TEST(FormatDiff, MixedAndPositionalFormats)
{
   Grid grid;
   grid.Check("%s:%d %u 0x%08x", "lib/string/str", -12, 4000000000u, 0xbeefu);
   grid.Check("%04d-%02d-%02dT%02d:%02d:%02d.%03d| ", 2026, 11, 21, 7, 5, 9, 12);
   grid.Check("%2$s %1$s %2$s", "a", "b");
   grid.Check("%1$*2$.*3$f|%1$g|%4$c", 3.14159, 10, 2, 'z');
   grid.Check("%3$lld %2$hhd %1$s", "x", 300, INT64_MIN);
   grid.Check("%9$d %8$d %7$d %6$d %5$d %4$d %3$d %2$d %1$d", 1, 2, 3, 4, 5, 6, 7, 8, 9);
}

}  // namespace
