/*
 * The library's printf engine, written once as a template over its argument source.
 *
 * Two sources exist: a va_list (Str_*, bsd_vsnprintf) and an array of captured arguments
 * (MsgFmt). An argument source is a class with
 *
 *    bool Fetch(const ArgRef &ref, ArgKind kind, ArgValue *value);
 *       Stores the argument at ref.position (1-based; ref.explicitPosition tells whether the
 *       format named it with "N$") read as kind. False refuses the request and ends formatting
 *       with -1.
 *    const char *StringText(const char *s);
 *       The text a %s argument prints (a source may hide a prefix); s is never NULL.
 *
 * The same format parser serves the engine, the positional type pass of the va_list source and
 * argument capture. Capturing the arguments of a format goes like this:
 *
 *    FormatScanner walks the conversions and fills a Directive for each: the value's
 *    argument (directive.arg: 1-based position, explicit "N$" or the next sequential one;
 *    position 0 for "%%" and unknown characters, which take none), the "*" width and precision
 *    arguments (directive.widthArg, directive.precisionArg: int arguments, position 0 when
 *    absent), the flags, the literal width and precision, the length modifier as written
 *    (directive.length), the conversion character, and the kind of value the engine will
 *    request (directive.kind). positionText and conversionText quote the "N$" and the rest of
 *    the directive for messages. A directive the parser rejects comes back with a status other
 *    than ok; scanning ends there.
 *
 *    VaListSource::ReadArg then reads an argument of a given kind from a va_list, so positions
 *    are read in order with one implementation of the C types behind each kind.
 */
#ifndef TESMAR_STRING_BSDFMTENGINE_H
#define TESMAR_STRING_BSDFMTENGINE_H

#include <limits.h>
#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <math.h>
#include <strings.h>
#include <wchar.h>

#include "internal/rounding.h"

namespace bsdfmt {

/* ----------------------------------------------------------------------------------------- */
/* Number punctuation                                                                         */
/* ----------------------------------------------------------------------------------------- */

/*
 * grouping is in the form of localeconv()'s member (each byte a group size counted from the
 * right, 127 = no further grouping, the terminating NUL = the last size repeats); NULL means no
 * grouping at all. A source of punctuation that is costly to read (localeconv) sets load; the
 * engine calls it once, the first time a conversion needs punctuation.
 */
struct Punctuation {
   const char *grouping = nullptr;
   char thousandsSep = ',';
   const char *decimalPoint = ".";
   void (*load)(Punctuation *self) = nullptr;

   void Ensure()
   {
      if (load != nullptr) {
         void (*loader)(Punctuation *) = load;
         load = nullptr;
         loader(this);
      }
   }
};

/* The punctuation of the current locale (localeconv), read lazily. */
Punctuation LocalePunctuation();
/* No grouping, separator ",", decimal point ".". */
inline Punctuation PosixPunctuation()
{
   return Punctuation{};
}

/* ----------------------------------------------------------------------------------------- */
/* Format parser                                                                              */
/* ----------------------------------------------------------------------------------------- */

enum Flag : unsigned {
   kLeftAdjust = 1u << 0,  // "-"
   kPlus = 1u << 1,        // "+"
   kSpace = 1u << 2,       // " "
   kAlt = 1u << 3,         // "#"
   kZeroPad = 1u << 4,     // "0"
   kGroup = 1u << 5,       // "'"
};

/* Length modifiers as written; L, q and ll all read a long long for integer conversions. */
enum class Length : uint8_t {
   none,
   hh,
   h,
   l,
   ll,  // "ll" and "q"
   L,   // long long for integers, long double for floating point
   j,
   t,
   z,    // "z" and "Z"
   I,    // bare "I": size_t
   I32,  // int
   I64,  // long long
};

/* What a conversion reads from its argument source. */
enum class ArgKind : uint8_t {
   none,  // takes no argument (%%, unknown conversions)
   Int,   // int (also unsigned, %c, "*" widths)
   Long,
   LongLong,
   SizeT,
   PtrDiff,
   IntMax,
   Double,
   LongDouble,
   String,      // const char *
   WideString,  // const wchar_t * (32-bit characters)
   WideChar,    // wint_t
   Pointer,     // void * for %p
   CountSChar,  // %hhn
   CountShort,  // %hn
   CountInt,    // %n
   CountInt64,  // %ln and the other 64-bit forms
};

union ArgValue {
   int i;
   long l;
   long long ll;
   size_t sz;
   ptrdiff_t pd;
   intmax_t im;
   double d;
   long double ld;
   const char *s;
   const wchar_t *ws;
   wint_t wc;
   void *p;
   signed char *countSChar;
   short *countShort;
   int *countInt;
   int64_t *countInt64;
};

struct ArgRef {
   int position = 0;  // 1-based
   bool explicitPosition = false;
};

struct Span {
   const char *text = nullptr;
   size_t length = 0;
};

enum class ParseStatus {
   ok,
   badPosition,  // "N$" with N 0 or beyond kMaxArgPosition
   badNumber,    // a width or precision beyond INT_MAX
};

/* Highest argument position a format may name. */
constexpr int kMaxArgPosition = 1 << 16;

struct Directive {
   const char *start = nullptr;  // the "%"
   const char *end = nullptr;    // just past the conversion character
   Span positionText;            // "N$" of the value, empty when sequential
   Span conversionText;          // flags through conversion character
   unsigned flags = 0;
   int width = 0;
   ArgRef widthArg;     // position 0: no "*" width
   int precision = -1;  // -1: none
   ArgRef precisionArg;
   bool widthFromStar = false;  // false when digits after a "*" override its value
   bool precisionFromStar = false;
   Length length = Length::none;
   char conversion = '\0';  // NUL when the format ends inside the directive
   ArgKind kind = ArgKind::none;
   ArgRef arg;  // the value's argument; position 0 when kind is none
};

/* The argument kind of an integer conversion under a length modifier. */
ArgKind IntegerKind(Length length);

/*
 * What a conversion character stands for, the one table that both the engine and the
 * message-format argument capture read. Each reader gives a class its own meaning: the engine
 * prints %a and %A as unknown characters, the capture reads a double for them.
 */
enum class Conversion : uint8_t {
   unknown,        // prints the character itself, takes no argument
   percent,        // "%%"
   integer,        // d i o u x X
   longInteger,    // D O U: integers at least as long as "l"
   character,      // c
   wideCharacter,  // C
   string,         // s
   wideString,     // S
   pointer,        // p
   floating,       // e E f F g G
   hexFloating,    // a A
   count,          // n
};

namespace detail {

constexpr auto kConversionTable = [] {
   struct Table {
      Conversion of[128] = {};
   } table;
   auto set = [&table](const char *chars, Conversion conversion) {
      for (; *chars != '\0'; chars++) {
         table.of[static_cast<unsigned char>(*chars)] = conversion;
      }
   };
   set("%", Conversion::percent);
   set("dioxXu", Conversion::integer);
   set("DOU", Conversion::longInteger);
   set("c", Conversion::character);
   set("C", Conversion::wideCharacter);
   set("s", Conversion::string);
   set("S", Conversion::wideString);
   set("p", Conversion::pointer);
   set("eEfFgG", Conversion::floating);
   set("aA", Conversion::hexFloating);
   set("n", Conversion::count);
   return table;
}();

}  // namespace detail

constexpr Conversion ConversionOf(char ch)
{
   unsigned char index = static_cast<unsigned char>(ch);
   return index < 128 ? detail::kConversionTable.of[index] : Conversion::unknown;
}

/*
 * Parses the directive starting at the "%" at percent. nextArg is the next
 * sequential argument position (1-based) and advances over what the directive consumes.
 * On a bad directive, directive->end and directive->conversionText end where parsing stopped.
 * With hexFloatTakesArg, %a and %A take a value's position as the argument capture sees them
 * (their kind stays none: the engine prints them without one).
 */
ParseStatus ParseConversion(const char *percent, int *nextArg, Directive *directive,
                            bool hexFloatTakesArg = false);

/*
 * Walks a format's conversions in order, skipping literal text:
 *
 *    FormatScanner scanner(fmt);
 *    Directive directive;
 *    ParseStatus status;
 *    while (scanner.Next(&directive, &status)) {
 *       if (status != ParseStatus::ok) ...   // start and conversionText locate it
 *    }
 *
 * Next returns false at the end of the format, and after a directive that the format's
 * end cuts short (conversion NUL, which ends output there), and after a bad directive.
 */
class FormatScanner {
  public:
   explicit FormatScanner(const char *fmt, bool hexFloatTakesArg = false)
       : p_(fmt), hexFloatTakesArg_(hexFloatTakesArg)
   {
   }

   bool Next(Directive *directive, ParseStatus *status)
   {
      if (done_) {
         return false;
      }
      const char *percent = strchr(p_, '%');
      if (percent == nullptr) {
         done_ = true;
         return false;
      }
      *directive = Directive{};
      *status = ParseConversion(percent, &nextArg_, directive, hexFloatTakesArg_);
      if (*status != ParseStatus::ok) {
         done_ = true;
         return true;
      }
      if (directive->conversion == '\0') {
         done_ = true;
         return false;
      }
      p_ = directive->end;
      return true;
   }

  private:
   const char *p_;
   bool hexFloatTakesArg_;
   int nextArg_ = 1;
   bool done_ = false;
};

/* ----------------------------------------------------------------------------------------- */
/* Output                                                                                     */
/* ----------------------------------------------------------------------------------------- */

/*
 * Gathers output as up to 8 pending pieces and flushes them into a fixed buffer (excess is
 * dropped while counting goes on) or into a growing heap buffer. The count is a signed 32-bit
 * value; output that would carry it past INT_MAX fails.
 */
class Output {
  public:
   /* Fixed mode. */
   Output(char *buf, size_t size) : buf_(buf), size_(size), allocating_(false) {}

   /* Allocating mode; the first buffer is sized from the format's length. */
   explicit Output(const char *fmt) : allocating_(true)
   {
      size_t length = strlen(fmt);
      size_ = length == 0 ? 1 : (length + 64) & ~(size_t)63;
      buf_ = (char *)malloc(size_);
      failed_ = buf_ == nullptr;
   }

   ~Output()
   {
      if (allocating_) {
         free(buf_);
      }
   }

   Output(const Output &) = delete;
   Output &operator=(const Output &) = delete;

   bool Failed() const { return failed_; }
   /* Bytes held by the buffer (allocating mode) or its size (fixed mode). */
   size_t Allocated() const { return size_; }
   int Count() const { return count_; }

   /* Queues length bytes at text, which must stay valid until the next Flush. */
   bool Print(const char *text, size_t length)
   {
      if (length > (size_t)(INT_MAX - count_)) {
         failed_ = true;
         return false;
      }
      if (numPieces_ == kMaxPieces && !Flush()) {
         return false;
      }
      pieces_[numPieces_++] = Piece{text, length};
      pending_ += length;
      count_ += (int)length;
      return true;
   }

   /* Queues count copies of c (a blank or a zero). */
   bool Pad(long long count, char c)
   {
      if (count <= 0) {
         return true;
      }
      static const char kBlanks[kPadChunk + 1] = "                ";
      static const char kZeroes[kPadChunk + 1] = "0000000000000000";
      if (count <= kPadChunk) {
         return Print(c == '0' ? kZeroes : kBlanks, (size_t)count);
      }
      if (count > INT_MAX - count_) {
         failed_ = true;
         return false;
      }
      // Long runs go straight into the buffer.
      if (!Flush()) {
         return false;
      }
      size_t length = (size_t)count;
      if (!Reserve(length)) {
         return false;
      }
      size_t room = Room();
      memset(buf_ + used_, c, length < room ? length : room);
      used_ += length < room ? length : room;
      count_ += (int)count;
      return true;
   }

   /* Moves pending pieces into the buffer. */
   bool Flush()
   {
      if (numPieces_ == 0) {
         return true;
      }
      if (!Reserve(pending_)) {
         return false;
      }
      size_t room = Room();
      char *dst = buf_ + used_;
      for (int i = 0; i < numPieces_; i++) {
         size_t n = pieces_[i].length < room ? pieces_[i].length : room;
         const char *src = pieces_[i].text;
         if (n <= 8) {
            for (size_t k = 0; k < n; k++) {
               dst[k] = src[k];
            }
         } else {
            memcpy(dst, src, n);
         }
         dst += n;
         room -= n;
      }
      used_ = (size_t)(dst - buf_);
      numPieces_ = 0;
      pending_ = 0;
      return true;
   }

   /*
    * The end of length bytes of scratch space that stays valid until the pieces queued after
    * this call are flushed. Conversions build their text there, so that they need no flush
    * of their own.
    */
   char *ScratchEnd(size_t length)
   {
      if (arenaUsed_ + length > kArenaSize) {
         if (!Flush()) {
            return nullptr;
         }
         arenaUsed_ = 0;
      }
      arenaUsed_ += length;
      return arena_ + arenaUsed_;
   }

   /*
    * Ends the output: NUL-terminates and returns the count, handing an allocated buffer to
    * *outbuf; or returns -1 after a failure (an allocated buffer is freed, *outbuf unchanged).
    */
   int Finish(char **outbuf, bool ok)
   {
      ok = ok && !failed_ && Flush();
      if (!allocating_) {
         if (size_ != 0) {
            buf_[used_ < size_ ? used_ : size_ - 1] = '\0';
         }
         return ok ? count_ : -1;
      }
      if (!ok) {
         return -1;
      }
      buf_[used_] = '\0';
      *outbuf = buf_;
      buf_ = nullptr;
      return count_;
   }

  private:
   static constexpr int kMaxPieces = 8;
   static constexpr int kPadChunk = 16;
   static constexpr size_t kArenaSize = 512;
   struct Piece {
      const char *text;
      size_t length;
   };

   /* Bytes that can still be stored (fixed mode keeps one for the NUL). */
   size_t Room() const
   {
      if (allocating_) {
         return size_ - used_;
      }
      return size_ == 0 ? 0 : size_ - 1 - used_;
   }

   /* Allocating mode: grows in steps of the current allocation until length more fit. */
   bool Reserve(size_t length)
   {
      if (!allocating_ || used_ + length + 1 <= size_) {
         return true;
      }
      size_t newSize = (used_ + length + size_) / size_ * size_;
      char *grown = (char *)realloc(buf_, newSize);
      if (grown == nullptr) {
         failed_ = true;
         return false;
      }
      buf_ = grown;
      size_ = newSize;
      return true;
   }

   char *buf_;
   size_t size_;
   size_t used_ = 0;
   bool allocating_;
   bool failed_ = false;
   int count_ = 0;
   int numPieces_ = 0;
   size_t pending_ = 0;
   Piece pieces_[kMaxPieces];
   size_t arenaUsed_ = 0;
   char arena_[kArenaSize];
};

/* ----------------------------------------------------------------------------------------- */
/* Conversion helpers (bsd_vsnprintf.cpp)                                                     */
/* ----------------------------------------------------------------------------------------- */

/* Digits of a floating-point value from ecvt/fcvt, copied out under the process-wide mutex. */
struct FloatDigits {
   char *digits = nullptr;  // heap copy, freed by the destructor
   int decpt = 0;
   int sign = 0;
   FloatDigits() = default;
   FloatDigits(const FloatDigits &) = delete;
   FloatDigits &operator=(const FloatDigits &) = delete;
   ~FloatDigits() { free(digits); }
};

/* ecvt (significant digits) or fcvt (digits after the point); false when the copy fails. */
bool ConvertFloat(double value, int ndigits, bool fixed, FloatDigits *out);

/*
 * UTF-32 text to UTF-8 for %S: at most precision bytes (precision < 0: no limit), whole
 * characters only. Returns a heap buffer and its length through *length, or NULL when memory
 * fails.
 */
char *WideToUtf8(const wchar_t *text, int precision, size_t *length);

/* Stops the process: a table or scratch area that cannot be what the format needs. */
[[noreturn]] void Abort();

/* ----------------------------------------------------------------------------------------- */
/* The engine                                                                                 */
/* ----------------------------------------------------------------------------------------- */

namespace detail {

/* Integer digits are built here; 64-bit values need at most 22 (octal with its "0"). */
constexpr int kScratchSize = 100;

inline const char *SignText(char sign)
{
   return sign == '-' ? "-" : sign == '+' ? "+" : " ";
}

/*
 * Copies n digits ending at dstEnd (writing backwards) with the separator inserted per the
 * grouping string; returns the start. dst needs room for 2 * n characters.
 */
inline char *GroupDigits(const char *digits, int n, const char *grouping, char separator,
                         char *dstEnd)
{
   char *cp = dstEnd;
   const char *g = grouping;
   int inGroup = 0;
   for (int i = n - 1; i >= 0; i--) {
      *--cp = digits[i];
      int size = (unsigned char)*g;
      if (++inGroup == size && size < CHAR_MAX && i > 0) {
         *--cp = separator;
         inGroup = 0;
         if (g[1] != '\0') {
            g++;
         }
      }
   }
   return cp;
}

/* The grouping string to apply for a "'" conversion, or NULL for none. */
inline const char *ActiveGrouping(Punctuation &punct)
{
   punct.Ensure();
   if (punct.grouping == nullptr || punct.thousandsSep == '\0') {
      return nullptr;
   }
   return *punct.grouping == '\0' ? "\177" : punct.grouping;
}

inline char *UnsignedToDigits(unsigned long long value, char *end, int base, bool upper)
{
   static const char kLower[] = "0123456789abcdef";
   static const char kUpper[] = "0123456789ABCDEF";
   char *cp = end;
   if (base == 10) {
      static const char kPairs[] =
          "00010203040506070809101112131415161718192021222324252627282930313233343536373839"
          "40414243444546474849505152535455565758596061626364656667686970717273747576777879"
          "8081828384858687888990919293949596979899";
      while (value >= 100) {
         const char *pair = kPairs + 2 * (value % 100);
         value /= 100;
         *--cp = pair[1];
         *--cp = pair[0];
      }
      if (value >= 10) {
         *--cp = kPairs[2 * value + 1];
         *--cp = kPairs[2 * value];
      } else {
         *--cp = (char)('0' + value);
      }
   } else if (base == 8) {
      do {
         *--cp = (char)('0' + (value & 7));
         value >>= 3;
      } while (value != 0);
   } else {
      const char *xdigits = upper ? kUpper : kLower;
      do {
         *--cp = xdigits[value & 15];
         value >>= 4;
      } while (value != 0);
   }
   return cp;
}

/*
 * Queues one padded field: [blanks][sign][prefix][zeros for the width][zeros][body][blanks].
 * Zero padding for the width applies only when kZeroPad is left in flags.
 */
template <typename PrintBody>
inline bool PrintField(Output &out, int width, unsigned flags, char sign, const char *prefix,
                       int prefixLength, long long zeros, long long bodyLength, PrintBody printBody)
{
   long long realSize = bodyLength + zeros + (sign != '\0' ? 1 : 0) + prefixLength;
   long long pad = width > realSize ? width - realSize : 0;
   if ((flags & (kLeftAdjust | kZeroPad)) == 0 && !out.Pad(pad, ' ')) {
      return false;
   }
   if (sign != '\0' && !out.Print(SignText(sign), 1)) {
      return false;
   }
   if (prefixLength != 0 && !out.Print(prefix, (size_t)prefixLength)) {
      return false;
   }
   if ((flags & (kLeftAdjust | kZeroPad)) == kZeroPad && !out.Pad(pad, '0')) {
      return false;
   }
   if (!out.Pad(zeros, '0') || !printBody()) {
      return false;
   }
   return (flags & kLeftAdjust) == 0 || out.Pad(pad, ' ');
}

inline char SignFor(bool negative, unsigned flags)
{
   if (negative) {
      return '-';
   }
   if (flags & kPlus) {
      return '+';
   }
   return (flags & kSpace) ? ' ' : '\0';
}

/* Room for the integer part of a fixed-style double, plain and grouped. */
constexpr int kMaxIntDigits = 400;
constexpr int kIntBufSize = 3 * kMaxIntDigits;

/* Digit i of a digit string of length n (zero outside it). */
inline char DigitAt(const char *digits, int n, long long i)
{
   return i >= 0 && i < n ? digits[i] : '0';
}

/*
 * Queues a fixed-style floating-point body: the integer part (grouped when asked), and when
 * fractionDigits > 0 or alt, the decimal point and fractionDigits digits. The digits are
 * digits[0..n) with the decimal point before index decpt.
 */
inline bool PrintFixedBody(Output &out, const char *digits, int n, int decpt,
                           long long fractionDigits, bool alt, const char *grouping, char separator,
                           const char *point, size_t pointLength, char *intBuf, long long *length,
                           bool measureOnly)
{
   // Integer part: decpt digits (zeros past the string), or "0".
   int intDigits = decpt > 0 ? decpt : 1;
   if (intDigits > kMaxIntDigits) {
      Abort();  // a double has at most 309 integer digits
   }
   char *plain = intBuf + kIntBufSize - intDigits;
   for (int i = 0; i < intDigits; i++) {
      plain[i] = decpt > 0 ? DigitAt(digits, n, i) : '0';
   }
   const char *intStart = plain;
   long long intLength = intDigits;
   if (grouping != nullptr) {
      // The grouped copy is written in front of the plain digits.
      intStart = GroupDigits(plain, intDigits, grouping, separator, plain);
      intLength = plain - intStart;
   }
   bool withPoint = fractionDigits > 0 || alt;
   *length = intLength + (withPoint ? (long long)pointLength : 0) + fractionDigits;
   if (measureOnly) {
      return true;
   }
   if (!out.Print(intStart, (size_t)intLength) || (withPoint && !out.Print(point, pointLength))) {
      return false;
   }
   // Fraction: zeros before the digit string, the digits, zeros after it.
   long long leading = decpt < 0 ? -(long long)decpt : 0;
   if (leading > fractionDigits) {
      leading = fractionDigits;
   }
   long long firstIndex = decpt > 0 ? decpt : 0;
   long long available = n > firstIndex ? n - firstIndex : 0;
   long long fromDigits = fractionDigits - leading;
   if (fromDigits > available) {
      fromDigits = available;
   }
   return out.Pad(leading, '0') &&
          (fromDigits == 0 || out.Print(digits + firstIndex, (size_t)fromDigits)) &&
          out.Pad(fractionDigits - leading - fromDigits, '0');
}

}  // namespace detail

/*
 * One formatting run over a format with arguments from Source, into out.
 */
template <class Source>
class Engine {
  public:
   Engine(Output &out, Punctuation &punct, Source &source)
       : out_(out), punct_(punct), source_(source)
   {
   }

   /* False when formatting failed (the output then reports -1). */
   bool Run(const char *fmt)
   {
      int nextArg = 1;
      for (;;) {
         const char *p = FindPercent(fmt);
         if (p != fmt && !out_.Print(fmt, (size_t)(p - fmt))) {
            return false;
         }
         if (*p == '\0') {
            return true;
         }
         Directive directive;
         if (ParseConversion(p, &nextArg, &directive) != ParseStatus::ok) {
            return false;
         }
         if (directive.conversion == '\0') {
            return true;  // a "%" at the end of the format ends the output
         }
         fmt = directive.end;
         if (!Convert(directive)) {
            return false;
         }
      }
   }

  private:
   static const char *FindPercent(const char *p)
   {
      // Literal runs between conversions are mostly short.
      for (int i = 0; i < 8; i++, p++) {
         if (*p == '\0' || *p == '%') {
            return p;
         }
      }
#ifdef __GLIBC__
      return strchrnul(p, '%');
#else
      while (*p != '\0' && *p != '%') {
         p++;
      }
      return p;
#endif
   }

   bool FetchInt(const ArgRef &ref, int *value)
   {
      ArgValue v;
      if (!source_.Fetch(ref, ArgKind::Int, &v)) {
         return false;
      }
      *value = v.i;
      return true;
   }

   bool Convert(const Directive &directive)
   {
      unsigned flags = directive.flags;
      int width = directive.width;
      int precision = directive.precision;

      // "*" arguments, fetched in the order the format lists them.
      bool precisionFirst = directive.precisionArg.position != 0 &&
                            directive.widthArg.position != 0 &&
                            directive.precisionArg.position < directive.widthArg.position;
      int starValue;
      if (precisionFirst) {
         if (!FetchInt(directive.precisionArg, &starValue)) {
            return false;
         }
         if (directive.precisionFromStar) {
            precision = starValue < 0 ? -1 : starValue;
         }
      }
      if (directive.widthArg.position != 0) {
         if (!FetchInt(directive.widthArg, &starValue)) {
            return false;
         }
         // Digits after the star override its value; the argument is read all the same.
         if (directive.widthFromStar) {
            if (starValue < 0) {
               flags |= kLeftAdjust;
               starValue = starValue == INT_MIN ? INT_MAX : -starValue;
            }
            width = starValue;
         }
      }
      if (!precisionFirst && directive.precisionArg.position != 0) {
         if (!FetchInt(directive.precisionArg, &starValue)) {
            return false;
         }
         if (directive.precisionFromStar) {
            precision = starValue < 0 ? -1 : starValue;
         }
      }

      ArgValue v;
      memset(&v, 0, sizeof v);
      if (directive.kind != ArgKind::none && !source_.Fetch(directive.arg, directive.kind, &v)) {
         return false;
      }

      char conv = directive.conversion;
      switch (conv) {
         case 'd':
         case 'i':
         case 'D':
            return SignedInteger(directive, v, flags, width, precision);
         case 'u':
         case 'U':
            return Integer(UnsignedValue(directive, v), 10, false, nullptr, '\0', flags, width,
                           precision);
         case 'o':
         case 'O':
            return Integer(UnsignedValue(directive, v), 8, false, nullptr, '\0', flags, width,
                           precision);
         case 'x':
         case 'X': {
            unsigned long long value = UnsignedValue(directive, v);
            const char *prefix =
                (flags & kAlt) && value != 0 ? (conv == 'x' ? "0x" : "0X") : nullptr;
            return Integer(value, 16, conv == 'X', prefix, '\0', flags, width, precision);
         }
         case 'p':
            return Integer((uintptr_t)v.p, 16, false, "0x", '\0', flags & ~kGroup, width,
                           precision);
         case 'e':
         case 'E':
         case 'f':
         case 'F':
         case 'g':
         case 'G':
            return Float(directive, directive.kind == ArgKind::LongDouble ? (double)v.ld : v.d,
                         flags, width, precision);
         case 's':
         case 'S':
            if (directive.kind == ArgKind::WideString) {
               return WideString(v.ws, flags, width, precision);
            }
            return String(v.s, flags, width, precision);
         case 'c':
         case 'C':
            if (directive.kind == ArgKind::WideChar) {
               return WideChar(v.wc, flags, width);
            }
            return Char((char)v.i, flags, width);
         case 'n':
            StoreCount(directive.kind, v);
            return true;
         default:
            // Unknown conversions (and "%%") print the character itself.
            return Char(conv, flags, width);
      }
   }

   static unsigned long long UnsignedValue(const Directive &directive, const ArgValue &v)
   {
      switch (directive.kind) {
         case ArgKind::Int:
            if (directive.length == Length::hh) {
               return (unsigned char)v.i;
            }
            if (directive.length == Length::h) {
               return (unsigned short)v.i;
            }
            return (unsigned int)v.i;
         case ArgKind::Long:
            return (unsigned long)v.l;
         case ArgKind::LongLong:
            return (unsigned long long)v.ll;
         case ArgKind::SizeT:
            return v.sz;
         case ArgKind::PtrDiff:
            return (size_t)v.pd;
         default:
            return (uintmax_t)v.im;
      }
   }

   bool SignedInteger(const Directive &directive, const ArgValue &v, unsigned flags, int width,
                      int precision)
   {
      long long value;
      switch (directive.kind) {
         case ArgKind::Int:
            value = directive.length == Length::hh  ? (signed char)v.i
                    : directive.length == Length::h ? (short)v.i
                                                    : v.i;
            break;
         case ArgKind::Long:
            value = v.l;
            break;
         case ArgKind::LongLong:
            value = v.ll;
            break;
         case ArgKind::SizeT:
            value = (long long)(ptrdiff_t)v.sz;
            break;
         case ArgKind::PtrDiff:
            value = v.pd;
            break;
         default:
            value = v.im;
            break;
      }
      unsigned long long magnitude =
          value < 0 ? 0ULL - (unsigned long long)value : (unsigned long long)value;
      return Integer(magnitude, 10, false, nullptr, detail::SignFor(value < 0, flags), flags, width,
                     precision);
   }

   bool Integer(unsigned long long value, int base, bool upper, const char *prefix, char sign,
                unsigned flags, int width, int precision)
   {
      if (precision >= 0) {
         flags &= ~kZeroPad;
      }
      char *end = out_.ScratchEnd(detail::kScratchSize);
      if (end == nullptr) {
         return false;
      }
      char *scratch = end - detail::kScratchSize;
      char *cp = end;
      if (value != 0 || precision != 0) {
         cp = detail::UnsignedToDigits(value, end, base, upper);
      }
      if (base == 8 && (flags & kAlt) && (cp == end || *cp != '0')) {
         *--cp = '0';
      }
      int ndigits = (int)(end - cp);
      if ((flags & kGroup) && base == 10 && ndigits > 1) {
         const char *grouping = detail::ActiveGrouping(punct_);
         if (grouping != nullptr) {
            // Grouped digits are rebuilt in front of the plain ones.
            end = cp;
            cp = detail::GroupDigits(cp, ndigits, grouping, punct_.thousandsSep, cp);
         }
      }
      if (cp < scratch) {
         Abort();
      }
      long long size = end - cp;
      long long zeros = precision > size ? precision - size : 0;
      return detail::PrintField(out_, width, flags, sign, prefix, prefix ? 2 : 0, zeros, size,
                                [&] { return out_.Print(cp, (size_t)size); });
   }

   bool Char(char c, unsigned flags, int width)
   {
      char *end = out_.ScratchEnd(1);
      if (end == nullptr) {
         return false;
      }
      end[-1] = c;
      return detail::PrintField(out_, width, flags & ~kZeroPad, '\0', nullptr, 0, 0, 1,
                                [&] { return out_.Print(end - 1, 1); });
   }

   bool WideChar(wint_t wc, unsigned flags, int width)
   {
      char bytes[MB_LEN_MAX];
      mbstate_t state;
      memset(&state, 0, sizeof state);
      size_t length = wcrtomb(bytes, (wchar_t)wc, &state);
      if (length == (size_t)-1) {
         return false;
      }
      return detail::PrintField(out_, width, flags & ~kZeroPad, '\0', nullptr, 0, 0,
                                (long long)length, [&] { return out_.Print(bytes, length); }) &&
             out_.Flush();
   }

   bool String(const char *s, unsigned flags, int width, int precision)
   {
      s = s == nullptr ? "(null)" : source_.StringText(s);
      size_t length = precision >= 0 ? strnlen(s, (size_t)precision) : strlen(s);
      return detail::PrintField(out_, width, flags & ~kZeroPad, '\0', nullptr, 0, 0,
                                (long long)length, [&] { return out_.Print(s, length); });
   }

   bool WideString(const wchar_t *ws, unsigned flags, int width, int precision)
   {
      if (ws == nullptr) {
         return String(nullptr, flags, width, precision);
      }
      size_t length;
      char *text = WideToUtf8(ws, precision, &length);
      if (text == nullptr) {
         return false;
      }
      bool ok = detail::PrintField(out_, width, flags & ~kZeroPad, '\0', nullptr, 0, 0,
                                   (long long)length, [&] { return out_.Print(text, length); }) &&
                out_.Flush();
      free(text);
      return ok;
   }

   void StoreCount(ArgKind kind, const ArgValue &v)
   {
      int count = out_.Count();
      switch (kind) {
         case ArgKind::CountSChar:
            *v.countSChar = (signed char)count;
            break;
         case ArgKind::CountShort:
            *v.countShort = (short)count;
            break;
         case ArgKind::CountInt64:
            *v.countInt64 = count;
            break;
         default:
            *v.countInt = count;
            break;
      }
   }

   __attribute__((noinline)) bool Float(const Directive &directive, double value, unsigned flags,
                                        int width, int precision)
   {
      char conv = directive.conversion;
      bool upper = conv == 'E' || conv == 'F' || conv == 'G';
      char style = (char)(conv | 0x20);
      int prec = precision < 0 ? 6 : precision;
      FloatDigits fd;
      bool dropLast = false;
      if (!FloatToDigits(style, value, &prec, &fd, &dropLast)) {
         return false;
      }

      const char *digits = fd.digits;
      bool negative = fd.sign != 0;
      if (*digits == '-') {
         negative = true;
         digits++;
      }
      if (fd.decpt == 9999 || strcasecmp(digits, "inf") == 0 || strcasecmp(digits, "nan") == 0) {
         bool inf = (*digits | 0x20) == 'i';
         const char *text = inf ? (upper ? "INF" : "inf") : (upper ? "NAN" : "nan");
         return detail::PrintField(out_, width, flags & ~kZeroPad, detail::SignFor(negative, flags),
                                   nullptr, 0, 0, 3, [&] { return out_.Print(text, 3); }) &&
                out_.Flush();
      }

      int n = (int)strlen(digits);
      if (dropLast && n > 0) {
         n--;
      }
      // Trailing zeros are noted so that %g can drop them.
      int significant = n;
      while (significant > 0 && digits[significant - 1] == '0') {
         significant--;
      }
      bool zero = significant == 0;
      int decpt = zero && style != 'f' ? 1 : fd.decpt;
      char sign = detail::SignFor(negative, flags);
      bool alt = (flags & kAlt) != 0;

      bool fixed = style == 'f';
      long long fractionDigits = prec;
      if (style == 'g') {
         ChooseGeneralForm(prec, decpt, significant, alt, &fixed, &fractionDigits);
      }

      punct_.Ensure();
      const char *point = punct_.decimalPoint;
      if (point == nullptr || *point == '\0') {
         point = ".";
      }
      size_t pointLength = strlen(point);

      if (fixed) {
         const char *grouping = (flags & kGroup) ? detail::ActiveGrouping(punct_) : nullptr;
         char intBuf[detail::kIntBufSize];
         long long bodyLength;
         detail::PrintFixedBody(out_, digits, n, decpt, fractionDigits, alt, grouping,
                                punct_.thousandsSep, point, pointLength, intBuf, &bodyLength, true);
         return detail::PrintField(out_, width, flags, sign, nullptr, 0, 0, bodyLength,
                                   [&] {
                                      long long ignored;
                                      return detail::PrintFixedBody(
                                          out_, digits, n, decpt, fractionDigits, alt, grouping,
                                          punct_.thousandsSep, point, pointLength, intBuf, &ignored,
                                          false);
                                   }) &&
                out_.Flush();
      }

      return PrintExponential(flags, width, sign, upper, digits, n, decpt, fractionDigits, alt,
                              point, pointLength);
   }

   /*
    * The digits of value for a style ('e', 'f' or 'g') at precision *prec (which %g raises from
    * 0 to 1); *dropLast when one digit more than wanted was made for rounding.
    */
   static bool FloatToDigits(char style, double value, int *prec, FloatDigits *fd, bool *dropLast)
   {
      if (style == 'e') {
         return ConvertFloat(value, *prec == INT_MAX ? *prec : *prec + 1, false, fd);
      }
      if (style == 'g') {
         if (*prec == 0) {
            *prec = 1;
         }
         return ConvertFloat(value, *prec, false, fd);
      }
      if (*prec == 0) {
         // Half-way cases round away from zero, then the one extra digit is dropped.
         *dropLast = true;
         return ConvertFloat(tesmar::RoundHalfAway(value), 1, true, fd);
      }
      return ConvertFloat(value, *prec, true, fd);
   }

   /* %g: fixed or exponent form, and how many fraction digits it shows. */
   static void ChooseGeneralForm(int prec, int decpt, int significant, bool alt, bool *fixed,
                                 long long *fractionDigits)
   {
      *fixed = decpt >= -3 && decpt <= prec;
      if (*fixed) {
         *fractionDigits = (long long)prec - decpt;
         if (!alt) {
            // Only significant digits stay.
            long long lastUseful = significant - (long long)decpt;
            *fractionDigits = lastUseful < 0                 ? 0
                              : lastUseful < *fractionDigits ? lastUseful
                                                             : *fractionDigits;
         }
         return;
      }
      *fractionDigits = prec - 1;
      if (!alt) {
         long long lastUseful = significant > 0 ? significant - 1 : 0;
         if (lastUseful < *fractionDigits) {
            *fractionDigits = lastUseful;
         }
      }
   }

   /* Exponent style: d[.ddd]e+XX from n digits with the decimal point at decpt. */
   bool PrintExponential(unsigned flags, int width, char sign, bool upper, const char *digits,
                         int n, int decpt, long long fractionDigits, bool alt, const char *point,
                         size_t pointLength)
   {
      int exponent = decpt - 1;
      char expText[16];
      char *expEnd = expText + sizeof expText;
      char *ep =
          detail::UnsignedToDigits(exponent < 0 ? 0ULL - (unsigned long long)(long long)exponent
                                                : (unsigned long long)exponent,
                                   expEnd, 10, false);
      if (expEnd - ep < 2) {
         *--ep = '0';
      }
      *--ep = exponent < 0 ? '-' : '+';
      *--ep = upper ? 'E' : 'e';
      long long expLength = expEnd - ep;
      bool withPoint = fractionDigits > 0 || alt;
      long long fromDigits = n - 1 < fractionDigits ? (n > 1 ? n - 1 : 0) : fractionDigits;
      long long bodyLength =
          1 + (withPoint ? (long long)pointLength : 0) + fractionDigits + expLength;
      const char *first = n > 0 ? digits : "0";
      return detail::PrintField(
                 out_, width, flags, sign, nullptr, 0, 0, bodyLength,
                 [&] {
                    return out_.Print(first, 1) && (!withPoint || out_.Print(point, pointLength)) &&
                           (fromDigits == 0 || out_.Print(digits + 1, (size_t)fromDigits)) &&
                           out_.Pad(fractionDigits - fromDigits, '0') &&
                           out_.Print(ep, (size_t)expLength);
                 }) &&
             out_.Flush();
   }

   Output &out_;
   Punctuation &punct_;
   Source &source_;
};

/*
 * Formats fmt with arguments from source: into *outbuf of size bytes when *outbuf is not NULL,
 * otherwise into a new heap buffer stored in *outbuf. Returns the length of the complete output
 * (without NUL), or -1.
 */
template <class Source>
int Format(char **outbuf, size_t size, Punctuation &punct, const char *fmt, Source &source)
{
   if (*outbuf != nullptr) {
      Output out(*outbuf, size);
      bool ok = Engine<Source>(out, punct, source).Run(fmt);
      return out.Finish(outbuf, ok);
   }
   Output out(fmt);
   if (out.Failed()) {
      return -1;
   }
   bool ok = Engine<Source>(out, punct, source).Run(fmt);
   return out.Finish(outbuf, ok);
}

/* ----------------------------------------------------------------------------------------- */
/* The va_list argument source                                                                */
/* ----------------------------------------------------------------------------------------- */

/*
 * Sequential arguments are read straight from the list. At the first positional reference the
 * whole format is scanned once to record each position's type, and all arguments are read
 * into a table by position; from then on every argument comes from the table. The table holds
 * 8 entries on the stack and grows on the heap to the larger of twice its size and the
 * position plus one; failing to grow aborts the process.
 */
class VaListSource {
  public:
   VaListSource(const char *fmt, va_list args) : fmt_(fmt)
   {
      va_copy(args_, args);
      va_copy(start_, args);
   }

   ~VaListSource()
   {
      va_end(args_);
      va_end(start_);
      if (table_ != stackTable_) {
         free(table_);
      }
   }

   VaListSource(const VaListSource &) = delete;
   VaListSource &operator=(const VaListSource &) = delete;

   bool Fetch(const ArgRef &ref, ArgKind kind, ArgValue *value)
   {
      if (!ref.explicitPosition && !built_) {
         // The common kinds are read here; the rest out of line.
         if (kind == ArgKind::Int) {
            value->i = va_arg(args_, int);
         } else if (kind == ArgKind::String) {
            value->s = va_arg(args_, const char *);
         } else {
            ReadArg(&args_, kind, value);
         }
         return true;
      }
      if (!built_) {
         BuildTable();
      }
      if (ref.position < 1 || ref.position > highest_) {
         return false;
      }
      *value = table_[ref.position].value;
      return true;
   }

   const char *StringText(const char *s) { return s; }

   /* Entries of the type table (8 until a position beyond 7 is recorded). */
   int TableCapacity() const { return capacity_; }

   /* Reads the next argument of ap as kind (a position of kind none is read as an int). */
   static void ReadArg(va_list *ap, ArgKind kind, ArgValue *value);

  private:
   struct Entry {
      ArgKind kind;
      ArgValue value;
   };
   static constexpr int kStackEntries = 8;

   void Record(const ArgRef &ref, ArgKind kind);
   void BuildTable();

   const char *fmt_;
   va_list args_;
   va_list start_;
   bool built_ = false;
   int highest_ = 0;
   int capacity_ = kStackEntries;
   Entry stackTable_[kStackEntries];  // cleared when the table is built
   Entry *table_ = stackTable_;
};

}  // namespace bsdfmt

#endif
