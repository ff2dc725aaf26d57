/*
 * Escaping and quoting of byte strings, and the reverse.
 *
 * Every routine that builds a string collects it in a DynBuf; on a memory failure the partial
 * result is freed (errno kept as the failing allocation left it) and NULL is returned.
 */
#include <errno.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include "dynbuf.h"
#include "escape.h"
#include "log.h"
#include "strutil.h"

namespace {

const char kHexDigits[] = "0123456789ABCDEF";

/* A DynBuf that frees what it holds unless the result has been taken. */
class Output {
  public:
   Output() { DynBuf_Init(&buf_); }
   ~Output()
   {
      int savedErrno = errno;
      DynBuf_Destroy(&buf_);
      errno = savedErrno;
   }
   Output(const Output &) = delete;
   Output &operator=(const Output &) = delete;

   bool Append(const void *data, size_t size) { return DynBuf_Append(&buf_, data, size); }
   bool Append(char c) { return DynBuf_Append(&buf_, &c, 1); }

   /* Ends the text with a NUL, trims it and hands it over with its length. */
   char *Finish(size_t *sizeOut)
   {
      if (!Append('\0')) {
         return nullptr;
      }
      size_t length = buf_.size - 1;
      DynBuf_Trim(&buf_); /* a failed shrink still leaves a valid buffer */
      if (sizeOut != nullptr) {
         *sizeOut = length;
      }
      return static_cast<char *>(DynBuf_Detach(&buf_));
   }

  private:
   DynBuf buf_;
};

/*
 * Appends in to out, with each byte for which needsEscape holds replaced by what emit appends.
 * Runs of unchanged bytes are appended in one piece.
 */
template <typename NeedsEscape, typename Emit>
bool AppendEscaped(Output &out, const void *bufIn, size_t sizeIn, NeedsEscape needsEscape,
                   Emit emit)
{
   const unsigned char *in = static_cast<const unsigned char *>(bufIn);
   size_t runStart = 0;
   for (size_t i = 0; i < sizeIn; i++) {
      if (!needsEscape(in[i])) {
         continue;
      }
      if (!out.Append(in + runStart, i - runStart) || !emit(out, in[i])) {
         return false;
      }
      runStart = i + 1;
   }
   return out.Append(in + runStart, sizeIn - runStart);
}

bool AppendBackslashed(Output &out, unsigned char c)
{
   const char pair[2] = {'\\', static_cast<char>(c)};
   return out.Append(pair, sizeof pair);
}

/*
 * The unescaping scan: state 0 looks for the escape byte, state 1 expects the first hex digit,
 * state 2 the second. A byte that breaks an escape sequence returns the scan to state 0 and the
 * sequence stays as it was. The sink receives unchanged runs and decoded bytes in order.
 */
template <typename Sink>
bool UndoScan(char escByte, const void *bufIn, size_t sizeIn, Sink &&sink)
{
   const unsigned char *in = static_cast<const unsigned char *>(bufIn);
   const unsigned char esc = static_cast<unsigned char>(escByte);
   size_t runStart = 0;
   int state = 0;
   int high = 0;
   for (size_t i = 0; i < sizeIn; i++) {
      switch (state) {
         case 0:
            if (in[i] == esc) {
               state = 1;
            }
            break;
         case 1:
            high = StrUtil_HexDigitValue((unsigned char)in[i]);
            state = high < 0 ? 0 : 2;
            break;
         case 2: {
            int low = StrUtil_HexDigitValue((unsigned char)in[i]);
            if (low >= 0) {
               if (!sink(in + runStart, i - 2 - runStart) ||
                   !sink.Byte(static_cast<char>(high << 4 | low))) {
                  return false;
               }
               runStart = i + 1;
            }
            state = 0;
            break;
         }
         default:
            NOT_IMPLEMENTED();
      }
   }
   return sink(in + runStart, sizeIn - runStart);
}

/* Collects the unescaped text in a DynBuf. */
struct DynBufSink {
   Output &out;
   bool operator()(const unsigned char *run, size_t length) { return out.Append(run, length); }
   bool Byte(char c) { return out.Append(c); }
};

/* Counts the unescaped length, or writes it into a buffer known to be large enough. */
struct FixedSink {
   char *dest; /* NULL: count only */
   size_t length;
   bool operator()(const unsigned char *run, size_t n)
   {
      if (dest != nullptr && n != 0) {
         memcpy(dest + length, run, n);
      }
      length += n;
      return true;
   }
   bool Byte(char c)
   {
      if (dest != nullptr) {
         dest[length] = c;
      }
      length++;
      return true;
   }
};

/* Replaces every flagged byte by the prefix and its two upper-case hex digits. */
char *EscapeWithPrefix(const char *prefix, size_t prefixLength, const int *bytesToEsc,
                       const void *bufIn, size_t sizeIn, size_t *sizeOut)
{
   Output out;
   bool done = AppendEscaped(
       out, bufIn, sizeIn, [bytesToEsc](unsigned char c) { return bytesToEsc[c] != 0; },
       [prefix, prefixLength](Output &o, unsigned char c) {
          const char hex[2] = {kHexDigits[c >> 4], kHexDigits[c & 0xF]};
          return o.Append(prefix, prefixLength) && o.Append(hex, sizeof hex);
       });
   return done ? out.Finish(sizeOut) : nullptr;
}

bool IsOctalDigit(char c)
{
   return c >= '0' && c <= '7';
}

}  // namespace

extern "C" {

void *Escape_DoString(const char *escStr, const int *bytesToEsc, const void *bufIn, size_t sizeIn,
                      size_t *sizeOut)
{
   return EscapeWithPrefix(escStr, strlen(escStr), bytesToEsc, bufIn, sizeIn, sizeOut);
}

void *Escape_Do(char escByte, const int *bytesToEsc, const void *bufIn, size_t sizeIn,
                size_t *sizeOut)
{
   /* Passed with its length, so that even a NUL escape byte is written. */
   return EscapeWithPrefix(&escByte, 1, bytesToEsc, bufIn, sizeIn, sizeOut);
}

void *Escape_Undo(char escByte, const void *bufIn, size_t sizeIn, size_t *sizeOut)
{
   Output out;
   if (!UndoScan(escByte, bufIn, sizeIn, DynBufSink{out})) {
      return nullptr;
   }
   return out.Finish(sizeOut);
}

bool Escape_UndoFixed(char escByte, const void *bufIn, size_t sizeIn, void *bufOut,
                      size_t bufOutSize)
{
   FixedSink counter{nullptr, 0};
   UndoScan(escByte, bufIn, sizeIn, counter);
   if (counter.length >= bufOutSize) {
      return false;
   }
   FixedSink writer{static_cast<char *>(bufOut), 0};
   UndoScan(escByte, bufIn, sizeIn, writer);
   writer.dest[writer.length] = '\0';
   return true;
}

void *Escape_StripCR(const void *bufIn, size_t sizeIn, size_t *sizeOut)
{
   const char *in = static_cast<const char *>(bufIn);
   Output out;
   size_t runStart = 0;
   for (size_t i = 0; i + 1 < sizeIn; i++) {
      if (in[i] == '\r' && in[i + 1] == '\n') {
         if (!out.Append(in + runStart, i - runStart)) {
            return nullptr;
         }
         runStart = i + 1;
      }
   }
   if (!out.Append(in + runStart, sizeIn - runStart)) {
      return nullptr;
   }
   return out.Finish(sizeOut);
}

char *Escape_ShellQuote(const void *bufIn, size_t sizeIn, size_t *sizeOut)
{
   /* A quote cannot appear inside single quotes: close, quote it in double quotes, reopen. */
   static const char kQuotedQuote[] = "'\"'\"'";
   Output out;
   bool done = out.Append('\'') &&
               AppendEscaped(
                   out, bufIn, sizeIn, [](unsigned char c) { return c == '\''; },
                   [](Output &o, unsigned char) {
                      return o.Append(kQuotedQuote, sizeof kQuotedQuote - 1);
                   }) &&
               out.Append('\'');
   return done ? out.Finish(sizeOut) : nullptr;
}

char *Escape_RegexSpecials(const void *bufIn, size_t sizeIn, size_t *sizeOut)
{
   Output out;
   bool done = AppendEscaped(
       out, bufIn, sizeIn,
       [](unsigned char c) { return c != '\0' && strchr("$*.[\\]^", c) != nullptr; },
       AppendBackslashed);
   return done ? out.Finish(sizeOut) : nullptr;
}

const char *Escape_Strchr(char escByte, const char *bufIn, char c)
{
   bool escaped = false;
   for (const char *p = bufIn; *p != '\0'; p++) {
      if (escaped) {
         escaped = false;
      } else if (*p == c) {
         return p;
      } else if (*p == escByte) {
         escaped = true;
      }
   }
   return nullptr;
}

/* An escape character keeps the character after it; a lone one at the very end is dropped. */
char *Escape_Unescape(char escByte, const char *bufIn)
{
   Output out;
   bool escaped = false;
   for (const char *p = bufIn; *p != '\0'; p++) {
      if (!escaped && *p == escByte) {
         escaped = true;
         continue;
      }
      escaped = false;
      if (!out.Append(*p)) {
         return nullptr;
      }
   }
   return out.Finish(nullptr);
}

void Escape_UnescapeCString(char *buf)
{
   size_t read = 0;
   size_t write = 0;
   while (buf[read] != '\0') {
      char c = buf[read];
      if (c == '\\') {
         char next = buf[read + 1];
         if (next == '\\') {
            read++;
         } else if (next == 'n') {
            c = '\n';
            read++;
         } else if (IsOctalDigit(next) && IsOctalDigit(buf[read + 2]) &&
                    IsOctalDigit(buf[read + 3])) {
            /* "\ooo"; values above 0377 keep their low eight bits. */
            c = static_cast<char>((next - '0') << 6 | (buf[read + 2] - '0') << 3 |
                                  (buf[read + 3] - '0'));
            read += 3;
         }
      }
      buf[write++] = c;
      read++;
   }
   buf[write] = '\0';
}

char *Escape_Commas(const char *string)
{
   if (string == nullptr) {
      return nullptr;
   }
   Output out;
   bool done = AppendEscaped(
       out, string, strlen(string), [](unsigned char c) { return c == ',' || c == '\\'; },
       AppendBackslashed);
   return done ? out.Finish(nullptr) : nullptr;
}

}  // extern "C"
