/*
 * The printf engine's entries for argument lists, and the helpers the engine template shares
 * with every argument source: floating-point digits, wide-string conversion, the positional
 * type table.
 */
#include <locale.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "bsdFmtEngine.h"
#include "convertUtf.h"
#include "str.h"

static_assert(sizeof(wchar_t) == sizeof(uint32_t), "wide strings are UTF-32");

namespace bsdfmt {

namespace {

/* ecvt and fcvt return a static buffer: every call and its copy happen under this mutex. */
pthread_mutex_t gFloatMutex = PTHREAD_MUTEX_INITIALIZER;

void LoadLocalePunctuation(Punctuation *punct)
{
   const struct lconv *lc = localeconv();
   punct->grouping = lc->grouping;
   punct->thousandsSep = lc->thousands_sep != nullptr ? lc->thousands_sep[0] : '\0';
   punct->decimalPoint = lc->decimal_point;
}

}  // namespace

/* The argument kind of an integer conversion under a length modifier. */
ArgKind IntegerKind(Length length)
{
   switch (length) {
      case Length::l:
         return ArgKind::Long;
      case Length::ll:
      case Length::L:
      case Length::I64:
         return ArgKind::LongLong;
      case Length::j:
         return ArgKind::IntMax;
      case Length::t:
         return ArgKind::PtrDiff;
      case Length::z:
      case Length::I:
         return ArgKind::SizeT;
      default:
         return ArgKind::Int;
   }
}

namespace {

/* Reads decimal digits; false when the value exceeds limit. */
bool ParseDigits(const char *&p, int limit, int *value)
{
   long long n = 0;
   bool ok = true;
   while (*p >= '0' && *p <= '9') {
      n = n * 10 + (*p - '0');
      if (n > limit) {
         ok = false;
         n = limit;
      }
      p++;
   }
   *value = (int)n;
   return ok;
}

/* A "*" or "*N$" argument reference after the star; nextArg counts sequential arguments. */
ParseStatus ParseStar(const char *&p, int *nextArg, ArgRef *ref)
{
   const char *q = p;
   int n = 0;
   bool fits = ParseDigits(q, INT_MAX, &n);
   if (*q == '$') {
      if (!fits || n < 1 || n > kMaxArgPosition) {
         return ParseStatus::badPosition;
      }
      ref->position = n;
      ref->explicitPosition = true;
      p = q + 1;
   } else {
      ref->position = (*nextArg)++;
      ref->explicitPosition = false;
   }
   return ParseStatus::ok;
}

/* A flag character: true, with the flag added, when ch is one. */
bool ParseFlag(char ch, Directive *directive)
{
   switch (ch) {
      case ' ':
         directive->flags |= kSpace;
         return true;
      case '#':
         directive->flags |= kAlt;
         return true;
      case '-':
         directive->flags |= kLeftAdjust;
         return true;
      case '+':
         directive->flags |= kPlus;
         return true;
      case '\'':
         directive->flags |= kGroup;
         return true;
      case '0':
         directive->flags |= kZeroPad;
         return true;
      default:
         return false;
   }
}

/* A length modifier starting with ch (p just past it): true, with p past the modifier. */
bool ParseLength(char ch, const char *&p, Directive *directive)
{
   auto doubled = [&p](char next, Length twice, Length once) {
      if (*p == next) {
         p++;
         return twice;
      }
      return once;
   };
   switch (ch) {
      case 'h':
         directive->length = doubled('h', Length::hh, Length::h);
         return true;
      case 'l':
         directive->length = doubled('l', Length::ll, Length::l);
         return true;
      case 'q':
         directive->length = Length::ll;
         return true;
      case 'L':
         directive->length = Length::L;
         return true;
      case 'j':
         directive->length = Length::j;
         return true;
      case 't':
         directive->length = Length::t;
         return true;
      case 'z':
      case 'Z':
         directive->length = Length::z;
         return true;
      case 'I':
         if (p[0] == '6' && p[1] == '4') {
            p += 2;
            directive->length = Length::I64;
         } else if (p[0] == '3' && p[1] == '2') {
            p += 2;
            directive->length = Length::I32;
         } else {
            directive->length = Length::I;
         }
         return true;
      default:
         return false;
   }
}

/* A precision after its "." (p just past the dot). */
ParseStatus ParsePrecision(const char *&p, int *nextArg, Directive *directive)
{
   if (*p == '*') {
      p++;
      ParseStatus status = ParseStar(p, nextArg, &directive->precisionArg);
      if (status == ParseStatus::ok) {
         directive->precisionFromStar = true;
      }
      return status;
   }
   directive->precisionFromStar = false;
   return ParseDigits(p, INT_MAX, &directive->precision) ? ParseStatus::ok : ParseStatus::badNumber;
}

/*
 * Digits after the flags (p at the first): a width, or the value's "N$" position, which then
 * goes to *explicitPos.
 */
ParseStatus ParseWidthOrPosition(const char *&p, Directive *directive, int *explicitPos)
{
   const char *digits = p;
   int n;
   bool fits = ParseDigits(p, INT_MAX, &n);
   if (*p == '$') {
      if (!fits || n > kMaxArgPosition) {
         return ParseStatus::badPosition;
      }
      *explicitPos = n;
      p++;
      directive->positionText = Span{digits, (size_t)(p - digits)};
      directive->conversionText.text = p;
      return ParseStatus::ok;
   }
   if (!fits) {
      return ParseStatus::badNumber;
   }
   directive->width = n;
   directive->widthFromStar = false;  // "%*5d": the star's argument is read, then unused
   return ParseStatus::ok;
}

/* The argument kind of the conversion character under the directive's length modifier. */
ArgKind ClassifyConversion(char ch, Directive *directive)
{
   Length &length = directive->length;
   switch (ConversionOf(ch)) {
      case Conversion::integer:
         return IntegerKind(length);
      case Conversion::longInteger:
         if (length == Length::none || length == Length::hh || length == Length::h ||
             length == Length::I32) {
            length = Length::l;
         }
         return IntegerKind(length);
      case Conversion::character:
         return length == Length::l ? ArgKind::WideChar : ArgKind::Int;
      case Conversion::wideCharacter:
         length = Length::l;
         return ArgKind::WideChar;
      case Conversion::string:
         return length == Length::l ? ArgKind::WideString : ArgKind::String;
      case Conversion::wideString:
         length = Length::l;
         return ArgKind::WideString;
      case Conversion::pointer:
         return ArgKind::Pointer;
      case Conversion::floating:
         return length == Length::L ? ArgKind::LongDouble : ArgKind::Double;
      case Conversion::count:
         switch (length) {
            case Length::hh:
               return ArgKind::CountSChar;
            case Length::h:
               return ArgKind::CountShort;
            case Length::none:
            case Length::I32:
               return ArgKind::CountInt;
            default:
               return ArgKind::CountInt64;
         }
      default:
         return ArgKind::none;  // "%%", %a, unknown characters, the format's end
   }
}

/*
 * Reads flags, width, precision, position and length up to the conversion character; *stop
 * follows the parse so that a failure can say where it ended.
 */
ParseStatus ParseModifiers(const char *&p, int *nextArg, Directive *directive, int *explicitPos,
                           const char **stop)
{
   for (;; *stop = p) {
      char ch = *p;
      ParseStatus status = ParseStatus::ok;
      if (ParseFlag(ch, directive)) {
         p++;
      } else if (ch == '*') {
         p++;
         status = ParseStar(p, nextArg, &directive->widthArg);
         if (status == ParseStatus::ok) {
            directive->widthFromStar = true;
         }
      } else if (ch == '.') {
         p++;
         status = ParsePrecision(p, nextArg, directive);
      } else if (ch >= '1' && ch <= '9') {
         status = ParseWidthOrPosition(p, directive, explicitPos);
      } else if (!ParseLength(ch, ++p, directive)) {
         p--;
         return ParseStatus::ok;
      }
      if (status != ParseStatus::ok) {
         return status;
      }
   }
}

ParseStatus ParseDirective(const char *percent, int *nextArg, Directive *directive,
                           bool hexFloatTakesArg, const char **stop)
{
   const char *p = percent + 1;
   directive->start = percent;
   directive->conversionText.text = p;
   int explicitPos = 0;
   ParseStatus status = ParseModifiers(p, nextArg, directive, &explicitPos, stop);
   if (status != ParseStatus::ok) {
      return status;
   }
   char ch = *p++;
   directive->conversion = ch;
   directive->end = ch == '\0' ? p - 1 : p;
   directive->conversionText.length = (size_t)(directive->end - directive->conversionText.text);
   directive->kind = ClassifyConversion(ch, directive);
   if (directive->kind != ArgKind::none ||
       (hexFloatTakesArg && ConversionOf(ch) == Conversion::hexFloating)) {
      directive->arg = explicitPos != 0 ? ArgRef{explicitPos, true} : ArgRef{(*nextArg)++, false};
   }
   return ParseStatus::ok;
}

}  // namespace

ParseStatus ParseConversion(const char *percent, int *nextArg, Directive *directive,
                            bool hexFloatTakesArg)
{
   const char *stop = percent + 1;
   ParseStatus status = ParseDirective(percent, nextArg, directive, hexFloatTakesArg, &stop);
   if (status != ParseStatus::ok) {
      directive->end = stop;
      directive->conversionText.length = (size_t)(stop - directive->conversionText.text);
   }
   return status;
}

Punctuation LocalePunctuation()
{
   Punctuation punct;
   punct.load = LoadLocalePunctuation;
   return punct;
}

void Abort()
{
   abort();
}

bool ConvertFloat(double value, int ndigits, bool fixed, FloatDigits *out)
{
   pthread_mutex_lock(&gFloatMutex);
   const char *digits = fixed ? fcvt(value, ndigits, &out->decpt, &out->sign)
                              : ecvt(value, ndigits, &out->decpt, &out->sign);
   out->digits = digits != nullptr ? strdup(digits) : nullptr;
   pthread_mutex_unlock(&gFloatMutex);
   return out->digits != nullptr;
}

char *WideToUtf8(const wchar_t *text, int precision, size_t *length)
{
   // Every character makes at least one byte, so a precision bounds what is read.
   size_t wideLength = precision >= 0 ? wcsnlen(text, (size_t)precision) : wcslen(text);
   size_t limit = precision >= 0 ? (size_t)precision : SIZE_MAX;
   size_t capacity = 4 * wideLength < limit ? 4 * wideLength : limit;
   char *buf = (char *)malloc(capacity + 4);
   if (buf == nullptr) {
      return nullptr;
   }
   const uint32_t *source = (const uint32_t *)text;
   const uint32_t *sourceEnd = source + wideLength;
   uint8_t *target = (uint8_t *)buf;
   for (;;) {
      utfconv::Result result = utfconv::UTF32toUTF8(
          &source, sourceEnd, &target, (uint8_t *)buf + capacity, utfconv::Mode::lenient);
      if (result != utfconv::Result::targetExhausted || capacity >= limit) {
         break;  // done, or the precision cuts the text at the last whole character
      }
      size_t used = (size_t)((char *)target - buf);
      size_t grown = capacity * 2 < limit ? capacity * 2 : limit;
      char *bigger = (char *)realloc(buf, grown + 4);
      if (bigger == nullptr) {
         free(buf);
         return nullptr;
      }
      buf = bigger;
      capacity = grown;
      target = (uint8_t *)buf + used;
   }
   *length = (size_t)((char *)target - buf);
   buf[*length] = '\0';
   return buf;
}

void VaListSource::ReadArg(va_list *ap, ArgKind kind, ArgValue *value)
{
   switch (kind) {
      case ArgKind::Long:
         value->l = va_arg(*ap, long);
         break;
      case ArgKind::LongLong:
         value->ll = va_arg(*ap, long long);
         break;
      case ArgKind::SizeT:
         value->sz = va_arg(*ap, size_t);
         break;
      case ArgKind::PtrDiff:
         value->pd = va_arg(*ap, ptrdiff_t);
         break;
      case ArgKind::IntMax:
         value->im = va_arg(*ap, intmax_t);
         break;
      case ArgKind::Double:
         value->d = va_arg(*ap, double);
         break;
      case ArgKind::LongDouble:
         value->ld = va_arg(*ap, long double);
         break;
      case ArgKind::String:
         value->s = va_arg(*ap, const char *);
         break;
      case ArgKind::WideString:
         value->ws = va_arg(*ap, const wchar_t *);
         break;
      case ArgKind::WideChar:
         value->wc = va_arg(*ap, wint_t);
         break;
      case ArgKind::Pointer:
      case ArgKind::CountSChar:
      case ArgKind::CountShort:
      case ArgKind::CountInt:
      case ArgKind::CountInt64:
         value->p = va_arg(*ap, void *);
         break;
      case ArgKind::none:  // a position no conversion names: read as an int
      case ArgKind::Int:
         value->i = va_arg(*ap, int);
         break;
   }
}

void VaListSource::Record(const ArgRef &ref, ArgKind kind)
{
   int position = ref.position;
   if (position == 0) {
      return;
   }
   if (position >= capacity_) {
      int grown = 2 * capacity_ > position + 1 ? 2 * capacity_ : position + 1;
      Entry *table;
      if (table_ == stackTable_) {
         table = (Entry *)malloc((size_t)grown * sizeof(Entry));
         if (table != nullptr) {
            memcpy(table, stackTable_, sizeof stackTable_);
         }
      } else {
         table = (Entry *)realloc(table_, (size_t)grown * sizeof(Entry));
      }
      if (table == nullptr) {
         Abort();  // deliberately: a format this large cannot be formatted at all
      }
      memset(table + capacity_, 0, (size_t)(grown - capacity_) * sizeof(Entry));
      table_ = table;
      capacity_ = grown;
   }
   table_[position].kind = kind;
   if (position > highest_) {
      highest_ = position;
   }
}

void VaListSource::BuildTable()
{
   built_ = true;
   memset(stackTable_, 0, sizeof stackTable_);
   FormatScanner scanner(fmt_);
   Directive directive;
   ParseStatus status;
   while (scanner.Next(&directive, &status) && status == ParseStatus::ok) {
      Record(directive.widthArg, ArgKind::Int);
      Record(directive.precisionArg, ArgKind::Int);
      Record(directive.arg, directive.kind);
   }
   va_list ap;
   va_copy(ap, start_);
   for (int i = 1; i <= highest_; i++) {
      ReadArg(&ap, table_[i].kind, &table_[i].value);
   }
   va_end(ap);
}

}  // namespace bsdfmt

extern "C" {

int bsd_vsnprintf(char **outbuf, size_t bufSize, const char *fmt, va_list args)
{
   bsdfmt::Punctuation punct = bsdfmt::LocalePunctuation();
   bsdfmt::VaListSource source(fmt, args);
   return bsdfmt::Format(outbuf, bufSize, punct, fmt, source);
}

int bsd_vsnprintf_posix(char **outbuf, size_t bufSize, const char *fmt, va_list args)
{
   bsdfmt::Punctuation punct = bsdfmt::PosixPunctuation();
   bsdfmt::VaListSource source(fmt, args);
   return bsdfmt::Format(outbuf, bufSize, punct, fmt, source);
}

}  // extern "C"
