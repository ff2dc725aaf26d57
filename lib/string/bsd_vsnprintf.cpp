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

ParseStatus ParseDirective(const char *percent, int *nextArg, Directive *directive,
                           const char **stop)
{
   const char *p = percent + 1;
   directive->start = percent;
   directive->conversionText.text = p;
   int explicitPos = 0;
   ParseStatus status;
   for (;; *stop = p) {
      char ch = *p++;
      switch (ch) {
         case ' ':
            directive->flags |= kSpace;
            continue;
         case '#':
            directive->flags |= kAlt;
            continue;
         case '-':
            directive->flags |= kLeftAdjust;
            continue;
         case '+':
            directive->flags |= kPlus;
            continue;
         case '\'':
            directive->flags |= kGroup;
            continue;
         case '0':
            directive->flags |= kZeroPad;
            continue;
         case '*':
            status = ParseStar(p, nextArg, &directive->widthArg);
            if (status != ParseStatus::ok) {
               return status;
            }
            directive->widthFromStar = true;
            continue;
         case '.':
            if (*p == '*') {
               p++;
               status = ParseStar(p, nextArg, &directive->precisionArg);
               if (status != ParseStatus::ok) {
                  return status;
               }
               directive->precisionFromStar = true;
            } else {
               directive->precisionFromStar = false;
               if (!ParseDigits(p, INT_MAX, &directive->precision)) {
                  return ParseStatus::badNumber;
               }
            }
            continue;
         case '1':
         case '2':
         case '3':
         case '4':
         case '5':
         case '6':
         case '7':
         case '8':
         case '9': {
            const char *digits = p - 1;
            int n;
            bool fits = ParseDigits(--p, INT_MAX, &n);
            if (*p == '$') {
               if (!fits || n > kMaxArgPosition) {
                  return ParseStatus::badPosition;
               }
               explicitPos = n;
               p++;
               directive->positionText = Span{digits, (size_t)(p - digits)};
               directive->conversionText.text = p;
               continue;
            }
            if (!fits) {
               return ParseStatus::badNumber;
            }
            directive->width = n;
            directive->widthFromStar = false;  // "%*5d": the star's argument is read, then unused
            continue;
         }
         case 'h':
            if (*p == 'h') {
               p++;
               directive->length = Length::hh;
            } else {
               directive->length = Length::h;
            }
            continue;
         case 'l':
            if (*p == 'l') {
               p++;
               directive->length = Length::ll;
            } else {
               directive->length = Length::l;
            }
            continue;
         case 'q':
            directive->length = Length::ll;
            continue;
         case 'L':
            directive->length = Length::L;
            continue;
         case 'j':
            directive->length = Length::j;
            continue;
         case 't':
            directive->length = Length::t;
            continue;
         case 'z':
         case 'Z':
            directive->length = Length::z;
            continue;
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
            continue;
         default:
            break;
      }

      // The conversion character.
      directive->conversion = ch;
      directive->end = ch == '\0' ? p - 1 : p;
      directive->conversionText.length = (size_t)(directive->end - directive->conversionText.text);
      switch (ch) {
         case 'd':
         case 'i':
         case 'o':
         case 'u':
         case 'x':
         case 'X':
            directive->kind = IntegerKind(directive->length);
            break;
         case 'D':
         case 'O':
         case 'U':
            if (directive->length == Length::none || directive->length == Length::hh ||
                directive->length == Length::h || directive->length == Length::I32) {
               directive->length = Length::l;
            }
            directive->kind = IntegerKind(directive->length);
            break;
         case 'c':
            directive->kind = directive->length == Length::l ? ArgKind::WideChar : ArgKind::Int;
            break;
         case 'C':
            directive->length = Length::l;
            directive->kind = ArgKind::WideChar;
            break;
         case 's':
            directive->kind =
                directive->length == Length::l ? ArgKind::WideString : ArgKind::String;
            break;
         case 'S':
            directive->length = Length::l;
            directive->kind = ArgKind::WideString;
            break;
         case 'p':
            directive->kind = ArgKind::Pointer;
            break;
         case 'e':
         case 'E':
         case 'f':
         case 'F':
         case 'g':
         case 'G':
            directive->kind =
                directive->length == Length::L ? ArgKind::LongDouble : ArgKind::Double;
            break;
         case 'n':
            switch (directive->length) {
               case Length::hh:
                  directive->kind = ArgKind::CountSChar;
                  break;
               case Length::h:
                  directive->kind = ArgKind::CountShort;
                  break;
               case Length::none:
               case Length::I32:
                  directive->kind = ArgKind::CountInt;
                  break;
               default:
                  directive->kind = ArgKind::CountInt64;
                  break;
            }
            break;
         default:
            directive->kind = ArgKind::none;  // "%%", unknown characters, the format's end
            break;
      }
      if (directive->kind != ArgKind::none) {
         if (explicitPos != 0) {
            directive->arg = ArgRef{explicitPos, true};
         } else {
            directive->arg = ArgRef{(*nextArg)++, false};
         }
      }
      return ParseStatus::ok;
   }
}

}  // namespace

ParseStatus ParseConversion(const char *percent, int *nextArg, Directive *directive)
{
   const char *stop = percent + 1;
   ParseStatus status = ParseDirective(percent, nextArg, directive, &stop);
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
