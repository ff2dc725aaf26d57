/*
 * The engine against the C library's snprintf over a generated grid of flags, widths,
 * precisions, length modifiers, conversions and boundary values, for everything the engine
 * formats the standard way. Deliberate differences are tested in formatTest.cpp.
 */
#include <float.h>
#include <limits.h>
#include <math.h>
#include <stdio.h>

#include "str.h"
#include "testSupport.h"

#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"

const char *const kFlags[] = {"", "-", "+", " ", "#", "0", "'", "+0", "- ", "#-", "0#", "+ #0"};
const char *const kWidths[] = {"", "1", "5", "12", "*"};

class Grid {
  public:
   ~Grid() { EXPECT_EQ(mismatches_, 0) << mismatches_ << " of " << checked_ << " formats differ"; }

   /* Formats through both; theirFmt is the C library's spelling of fmt. */
   template <typename... Args>
   void Check(const std::string &fmt, const std::string &theirFmt, Args... args)
   {
      char ours[512], theirs[512];
      int ourLength = Str_Snprintf(ours, sizeof ours, fmt.c_str(), args...);
      int theirLength = snprintf(theirs, sizeof theirs, theirFmt.c_str(), args...);
      checked_++;
      std::string a(ours, ourLength < 0 ? 0 : (size_t)ourLength);
      std::string b(theirs, theirLength < 0 ? 0 : (size_t)theirLength);
      if ((ourLength != theirLength || a != b) && ++mismatches_ <= 20) {
         ADD_FAILURE() << "format \"" << fmt << "\": ours \"" << a << "\" (" << ourLength
                       << "), C library \"" << b << "\" (" << theirLength << ")";
      }
   }

   /*
    * "%" flags width precision conversion for every width and precision; a star width takes 7
    * and -7, a star precision 3 and -3 (which counts as none). skip(precision) can leave out a
    * precision, -1 standing for none.
    */
   template <typename T, typename Skip>
   void Shapes(const char *flags, const std::string &conversion, T value,
               const std::vector<const char *> &precisions, Skip skip)
   {
      for (const char *width : kWidths) {
         for (const char *precision : precisions) {
            bool starWidth = width[0] == '*', starPrecision = strcmp(precision, ".*") == 0;
            if (starPrecision ? skip(3) || skip(-1)
                              : skip(precision[0] == '\0' ? -1 : atoi(precision + 1))) {
               continue;
            }
            std::string fmt = std::string("%") + flags + width + precision + conversion;
            for (int sign : {1, -1}) {
               if (starWidth && starPrecision) {
                  Check(fmt, fmt, 7 * sign, 3 * sign, value);
               } else if (starWidth || starPrecision) {
                  Check(fmt, fmt, (starWidth ? 7 : 3) * sign, value);
               } else if (sign == 1) {
                  Check(fmt, fmt, value);
               }
            }
         }
      }
   }

  private:
   int checked_ = 0, mismatches_ = 0;
};

const std::vector<const char *> kPrecisions = {"", ".", ".0", ".1", ".5", ".17", ".*"};
const auto kNoSkip = [](int) { return false; };

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

TEST(FormatDiff, IntegersOfEveryLength)
{
   Grid grid;
   const long long values[] = {
       0,         1,         -1,        7,       42,      -42,     255,          256,
       32767,     -32768,    65535,     1000000, INT_MAX, INT_MIN, 2147483648LL, 1234567890123LL,
       INT64_MAX, INT64_MIN, -INT64_MAX};
   for (const char *length : {"", "hh", "h", "l", "ll", "q", "L", "j", "z", "t"}) {
      bool narrow = strlen(length) == 0 || length[0] == 'h';
      for (const char *flags : kFlags) {
         for (const char *conv : {"d", "i", "u", "o", "x", "X"}) {
            for (long long value : values) {
               if (!narrow) {
                  grid.Shapes(flags, std::string(length) + conv, value, kPrecisions, kNoSkip);
               } else if (value >= INT_MIN && value <= INT_MAX) {
                  grid.Shapes(flags, std::string(length) + conv, (int)value, kPrecisions, kNoSkip);
               }
            }
         }
      }
   }
   // The additional modifiers read what the standard ones read.
   grid.Check("%I64d|%I64u|%-+5I64x", "%lld|%llu|%-+5llx", INT64_MIN, UINT64_MAX, UINT64_MAX);
   grid.Check("%I32d|%I32u|%#I32x", "%d|%u|%#x", INT_MIN, UINT_MAX, UINT_MAX);
   grid.Check("%Id|%Iu|%.3Ix", "%zd|%zu|%.3zx", SIZE_MAX, SIZE_MAX, (size_t)0);
   grid.Check("%D %#O %U %Zu", "%ld %#lo %lu %zu", LONG_MIN, LONG_MAX, ULONG_MAX, SIZE_MAX);
}

TEST(FormatDiff, CharactersStringsAndPointers)
{
   Grid grid;
   for (const char *flags : {"", "-", "#", "+", " "}) {
      for (int c : {(int)'a', (int)' ', 0xE9, (int)'%'}) {
         grid.Shapes(flags, "c", c, {""}, kNoSkip);
      }
      for (const char *s : {"", "a", "hello world", "\xC3\xA9t\xC3\xA9"}) {
         grid.Shapes(flags, "s", s, kPrecisions, kNoSkip);
      }
   }
   // The C library prints "(nil)" for a NULL pointer and a sign for "+"/" "; both excluded.
   for (const char *flags : {"", "-", "#", "0", "-0"}) {
      for (uintptr_t p : {(uintptr_t)1, (uintptr_t)0xdeadbeef, UINTPTR_MAX}) {
         grid.Shapes(flags, "p", (void *)p, kPrecisions, kNoSkip);
      }
   }
   grid.Check("%lc|%5C|%-3lc|", "%lc|%5lc|%-3lc|", (wint_t)'x', (wint_t)'y', (wint_t)'z');
   grid.Check("%ls|%.2S|%5ls|", "%ls|%.2ls|%5ls|", L"abc", L"abc", L"d");
   grid.Check("%%|%s%%", "%%|%s%%", "x");
}

TEST(FormatDiff, FloatingPoint)
{
   Grid grid;
   const double values[] = {0.0,         -0.0,     1.0,       -1.0,     0.1,        0.25,
                            1.0 / 3,     -2.0 / 3, 9.5,       99.9995,  123456.789, 1e-5,
                            0.000123456, 1e15,     1e21,      1e-300,   1e300,      DBL_MAX,
                            DBL_MIN,     4.9e-324, 9.9999995, 999999.5, 1e100 / 3,  INFINITY,
                            -INFINITY,   NAN,      -NAN};
   // ecvt and fcvt give at most 17 digits where the C library gives exact expansions, so the
   // precision stays at or below 16. The C library's ecvt also scales by powers of ten before
   // rounding, so for %e and %g its digits can differ from its printf's in the last places and
   // at decimal ties; such cases are skipped by asking ecvt itself.
   const std::vector<const char *> precisions = {"", ".0", ".1", ".3", ".6", ".10", ".16", ".*"};
   for (const char *flags : kFlags) {
      for (char conv : std::string("eEfFgG")) {
         for (double value : values) {
            grid.Shapes(flags, std::string(1, conv), value, precisions, [&](int digits) {
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
   }
   grid.Check("%.17f|%Lf|%Le|%Lg", "%.17f|%Lf|%Le|%Lg", 0.1, (long double)1.5, (long double)-2.5e-7,
              (long double)1e30);
}

TEST(FormatDiff, MixedAndPositionalFormats)
{
   Grid grid;
   auto same = [&](const std::string &fmt, auto... args) { grid.Check(fmt, fmt, args...); };
   same("%s:%d %u 0x%08x", "lib/string/str", -12, 4000000000u, 0xbeefu);
   same("%04d-%02d-%02dT%02d:%02d:%02d.%03d| ", 2026, 11, 21, 7, 5, 9, 12);
   same("%1$*2$.*3$f|%1$g|%4$c", 3.14159, 10, 2, 'z');
   same("%3$lld %2$hhd %1$s", "x", 300, INT64_MIN);
   same("%9$d %8$d %7$d %6$d %5$d %4$d %3$d %2$d %1$s", "1", 2, 3, 4, 5, 6, 7, 8, 9);
}
