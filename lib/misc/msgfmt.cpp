/*
 * MsgFmt: formatting from captured arguments, on the same engine as Str.
 */
#include "msgfmt.h"

#include <stdarg.h>
#include <stdlib.h>
#include <string.h>
#include <wchar.h>

#include <algorithm>

#include "log.h"
#include "str.h"
#include "string/bsdFmtEngine.h"
#include "util.h"

namespace {

/* "@&!*@*@(" + identifier + ")" introduces a message identifier. */
constexpr char kMsgIdPrefix[] = "@&!*@*@(";
constexpr size_t kMsgIdPrefixLength = sizeof kMsgIdPrefix - 1;

/* Arguments by position from a captured array; a request of the wrong type is refused. */
class CapturedSource {
  public:
   CapturedSource(const MsgFmt_Arg *args, int numArgs) : args_(args), numArgs_(numArgs) {}

   bool Fetch(const bsdfmt::ArgRef &ref, bsdfmt::ArgKind kind, bsdfmt::ArgValue *value)
   {
      using bsdfmt::ArgKind;
      if (ref.position < 1 || ref.position > numArgs_) {
         return false;
      }
      const MsgFmt_Arg &arg = args_[ref.position - 1];
      switch (kind) {
         case ArgKind::Int:
         case ArgKind::WideChar:
            if (arg.type != MSGFMT_ARG_INT32 && arg.type != MSGFMT_ARG_INT32_ALT) {
               return false;
            }
            if (kind == ArgKind::Int) {
               value->i = arg.v.signed32;
            } else {
               value->wc = (wint_t)arg.v.unsigned32;
            }
            return true;
         case ArgKind::Long:
         case ArgKind::LongLong:
         case ArgKind::SizeT:
         case ArgKind::PtrDiff:
         case ArgKind::IntMax:
            if (arg.type != MSGFMT_ARG_INT64) {
               return false;
            }
            // All of these are 64 bits wide here; the engine casts by conversion.
            static_assert(sizeof(long) == 8 && sizeof(size_t) == 8 && sizeof(intmax_t) == 8);
            value->ll = arg.v.signed64;
            return true;
         case ArgKind::Pointer:
            if (arg.type != MSGFMT_ARG_PTR) {
               return false;
            }
            value->p = arg.v.ptr;
            return true;
         case ArgKind::Double:
            if (arg.type != MSGFMT_ARG_FLOAT64) {
               return false;
            }
            value->d = arg.v.float64;
            return true;
         case ArgKind::String:
            if (arg.type != MSGFMT_ARG_STRING8 && arg.type != MSGFMT_ARG_STRING8_MSGID) {
               return false;
            }
            value->s = arg.v.string8;
            return true;
         case ArgKind::WideString:
            if (arg.type != MSGFMT_ARG_STRING32 && arg.type != MSGFMT_ARG_STRING32_ALT) {
               return false;
            }
            value->ws = arg.v.string32;
            return true;
         default:
            // long double cannot be captured; %n would write through a stored pointer.
            return false;
      }
   }

   /* Identifiers never reach the user: "@&!*@*@(id)text" prints as "text". */
   const char *StringText(const char *s)
   {
      if (strncmp(s, kMsgIdPrefix, kMsgIdPrefixLength) == 0) {
         const char *close = strchr(s + kMsgIdPrefixLength, ')');
         if (close != nullptr) {
            return close + 1;
         }
      }
      return s;
   }

  private:
   const MsgFmt_Arg *args_;
   int numArgs_;
};

/* ----------------------------------------------------------------------------------------- */
/* Argument capture                                                                           */
/* ----------------------------------------------------------------------------------------- */

/*
 * Where a capture keeps its array and strings: separate heap blocks, or one caller's buffer
 * (the array at its aligned start, the strings behind it; nothing there is freed by itself).
 */
class CaptureStore {
  public:
   CaptureStore() = default;
   CaptureStore(void *buf, size_t size) : buffer_(static_cast<char *>(buf)), bufferSize_(size)
   {
      arrayOffset_ = AlignUp(0, alignof(MsgFmt_Arg));
      used_ = arrayOffset_;
   }

   bool InBuffer() const { return buffer_ != nullptr; }
   MsgFmt_Arg *Args() const { return args_; }
   int Capacity() const { return capacity_; }
   size_t Used() const { return used_; }

   /* Grows the array to capacity slots, the new ones zeroed. */
   bool Grow(int capacity)
   {
      size_t bytes = (size_t)capacity * sizeof(MsgFmt_Arg);
      MsgFmt_Arg *grown;
      if (InBuffer()) {
         if (arrayOffset_ > bufferSize_ || bytes > bufferSize_ - arrayOffset_) {
            return false;
         }
         grown = reinterpret_cast<MsgFmt_Arg *>(buffer_ + arrayOffset_);
      } else {
         grown = static_cast<MsgFmt_Arg *>(realloc(args_, bytes));
         if (grown == nullptr) {
            return false;
         }
      }
      memset(static_cast<void *>(grown + capacity_), 0,
             (size_t)(capacity - capacity_) * sizeof(MsgFmt_Arg));
      args_ = grown;
      capacity_ = capacity;
      return true;
   }

   /* Ends the scan: in a buffer, strings go right behind the slots in use. */
   void CloseArray(int numArgs)
   {
      if (InBuffer()) {
         used_ = arrayOffset_ + (size_t)numArgs * sizeof(MsgFmt_Arg);
      }
   }

   char *CopyString(const char *s, size_t length)
   {
      char *copy = static_cast<char *>(Take(length + 1, 1));
      if (copy != nullptr) {
         memcpy(copy, s, length);
         copy[length] = '\0';
      }
      return copy;
   }

   wchar_t *CopyWide(const wchar_t *s)
   {
      size_t bytes = (wcslen(s) + 1) * sizeof(wchar_t);
      wchar_t *copy = static_cast<wchar_t *>(Take(bytes, alignof(wchar_t)));
      if (copy != nullptr) {
         memcpy(copy, s, bytes);
      }
      return copy;
   }

   /* Gives up the array; its string slots must hold pointers or NULL. */
   void Discard(int numArgs)
   {
      if (!InBuffer()) {
         MsgFmt_FreeArgs(args_, numArgs);
      }
      args_ = nullptr;
      capacity_ = 0;
      used_ = arrayOffset_;
   }

   /* The error text: a heap string, or in buffer mode the buffer itself. */
   char *Error(const char *fmt, ...) __attribute__((format(printf, 2, 3)))
   {
      va_list va;
      va_start(va, fmt);
      char *text;
      if (InBuffer()) {
         VERIFY(Str_Vsnprintf(buffer_, bufferSize_, fmt, va) >= 0);
         text = buffer_;
      } else {
         text = Str_Vasprintf(nullptr, fmt, va);
         VERIFY(text != nullptr);
      }
      va_end(va);
      return text;
   }

  private:
   size_t AlignUp(size_t offset, size_t alignment) const
   {
      uintptr_t address = reinterpret_cast<uintptr_t>(buffer_) + offset;
      return offset + ((alignment - address % alignment) % alignment);
   }

   void *Take(size_t bytes, size_t alignment)
   {
      if (!InBuffer()) {
         return malloc(bytes);
      }
      size_t offset = AlignUp(used_, alignment);
      if (offset > bufferSize_ || bytes > bufferSize_ - offset) {
         return nullptr;
      }
      used_ = offset + bytes;
      return buffer_ + offset;
   }

   char *buffer_ = nullptr;
   size_t bufferSize_ = 0;
   size_t arrayOffset_ = 0;
   size_t used_ = 0;
   MsgFmt_Arg *args_ = nullptr;
   int capacity_ = 0;
};

/*
 * While the format is scanned, an 8-bit string slot's value says how much of the string the
 * conversions read: all of it, a fixed precision (0 or more), or the precision passed as the
 * int argument at position N (stored as -1 - N).
 */
constexpr int64_t kWholeString = -1;

int64_t StarPrecision(int position)
{
   return -1 - (int64_t)position;
}

int64_t CombinePrefixes(int64_t a, int64_t b)
{
   if (a == b) {
      return a;
   }
   if (a >= 0 && b >= 0) {
      return std::max(a, b);
   }
   return kWholeString;
}

/* Records, conversion by conversion, the type each argument position must have. */
class ArgTypes {
  public:
   explicit ArgTypes(CaptureStore &store) : store_(store) {}

   int NumArgs() const { return numArgs_; }

   /* NULL, or the error text. */
   char *Record(const bsdfmt::Directive &d)
   {
      char *error = nullptr;
      if (d.widthArg.position != 0) {
         error = Set(d, d.widthArg.position, MSGFMT_ARG_INT32, kWholeString);
      }
      if (error == nullptr && d.precisionArg.position != 0) {
         error = Set(d, d.precisionArg.position, MSGFMT_ARG_INT32, kWholeString);
      }
      if (error != nullptr) {
         return error;
      }
      int32_t type;
      error = TypeOf(d, &type);
      if (error != nullptr || type == MSGFMT_ARG_INVALID) {
         return error;
      }
      int64_t prefix = kWholeString;
      if (d.precisionArg.position != 0 && d.precisionFromStar) {
         prefix = StarPrecision(d.precisionArg.position);
      } else if (d.precision >= 0) {
         prefix = d.precision;
      }
      return Set(d, d.arg.position, type, prefix);
   }

  private:
   static int Len(const bsdfmt::Span &span) { return (int)span.length; }

   /*
    * The argument type of d's value: MSGFMT_ARG_INVALID for a conversion that takes none;
    * NULL, or the error text for a conversion that cannot be captured.
    */
   char *TypeOf(const bsdfmt::Directive &d, int32_t *type)
   {
      using bsdfmt::Length;
      *type = MSGFMT_ARG_INVALID;
      switch (bsdfmt::ConversionOf(d.conversion)) {
         case bsdfmt::Conversion::percent:
            return nullptr;
         case bsdfmt::Conversion::count:
            return store_.Error("MsgFmtGetArg1: %%n not supported, pos \"%.*s\", type \"%.*s\"",
                                Len(d.positionText), d.positionText.text, Len(d.conversionText),
                                d.conversionText.text);
         case bsdfmt::Conversion::integer:
         case bsdfmt::Conversion::longInteger:
            *type = d.kind == bsdfmt::ArgKind::Int ? MSGFMT_ARG_INT32 : MSGFMT_ARG_INT64;
            return nullptr;
         case bsdfmt::Conversion::character:
            VerifyLength(d.length == Length::none || d.length == Length::l);
            *type = MSGFMT_ARG_INT32;
            return nullptr;
         case bsdfmt::Conversion::wideCharacter:
            *type = MSGFMT_ARG_INT32;
            return nullptr;
         case bsdfmt::Conversion::string:
            VerifyLength(d.length == Length::none || d.length == Length::l);
            *type = d.length == Length::none ? MSGFMT_ARG_STRING8 : MSGFMT_ARG_STRING32;
            return nullptr;
         case bsdfmt::Conversion::wideString:
            *type = MSGFMT_ARG_STRING32;
            return nullptr;
         case bsdfmt::Conversion::pointer:
            VerifyLength(d.length == Length::none);
            *type = MSGFMT_ARG_PTR;
            return nullptr;
         case bsdfmt::Conversion::floating:
         case bsdfmt::Conversion::hexFloating:
            if (d.length == Length::L || d.length == Length::j) {
               return store_.Error(
                   "MsgFmtGetArg1: %%%c%c not supported, pos \"%.*s\", type \"%.*s\"",
                   d.length == Length::L ? 'L' : 'j', d.conversion, Len(d.positionText),
                   d.positionText.text, Len(d.conversionText), d.conversionText.text);
            }
            VerifyLength(d.length == Length::none || d.length == Length::l);
            *type = MSGFMT_ARG_FLOAT64;
            return nullptr;
         default:
            return store_.Error("MsgFmtGetArg1: %%%c not understood, pos \"%.*s\", type \"%.*s\"",
                                d.conversion, Len(d.positionText), d.positionText.text,
                                Len(d.conversionText), d.conversionText.text);
      }
   }

   /* A length modifier that makes no sense for its conversion is a programming error. */
   static void VerifyLength(bool sensible)
   {
      if (!sensible) {
         NOT_REACHED();
      }
   }

   char *Set(const bsdfmt::Directive &d, int position, int32_t type, int64_t prefix)
   {
      if (position > store_.Capacity()) {
         int capacity = std::max(store_.Capacity() + position, 4);
         if (!store_.Grow(capacity)) {
            return store_.InBuffer()
                       ? store_.Error("MsgFmtGetArg1: out of memory at arg %d", position)
                       : store_.Error("MsgFmt_GetArgs: out of memory");
         }
      }
      MsgFmt_Arg &slot = store_.Args()[position - 1];
      if (slot.type == MSGFMT_ARG_INVALID) {
         slot.type = type;
         slot.v.signed64 = type == MSGFMT_ARG_STRING8 ? prefix : 0;
      } else if (slot.type != type) {
         return store_.Error(
             "MsgFmtGetArg1: incompatible specifiers for argument %d, old type "
             "%d, new type %d, pos \"%.*s\", type \"%.*s\"",
             position, slot.type, type, Len(d.positionText), d.positionText.text,
             Len(d.conversionText), d.conversionText.text);
      } else if (type == MSGFMT_ARG_STRING8) {
         slot.v.signed64 = CombinePrefixes(slot.v.signed64, prefix);
      }
      numArgs_ = std::max(numArgs_, position);
      return nullptr;
   }

   CaptureStore &store_;
   int numArgs_ = 0;
};

/* How many bytes of s a string slot keeps; args before index i have been read already. */
size_t KeptLength(const char *s, int64_t prefix, const MsgFmt_Arg *args, int i)
{
   if (prefix <= StarPrecision(1)) {
      int position = (int)(-1 - prefix);
      prefix = position - 1 < i ? args[position - 1].v.signed32 : kWholeString;
   }
   return prefix < 0 ? strlen(s) : strnlen(s, (size_t)prefix);
}

/*
 * Reads every position from the argument list, in order. On failure *failedAt is the slot
 * where reading stopped; slots from there on hold no pointers.
 */
char *ReadArgs(CaptureStore &store, int numArgs, va_list va, int *failedAt)
{
   MsgFmt_Arg *args = store.Args();
   for (int i = 0; i < numArgs; i++) {
      MsgFmt_Arg &arg = args[i];
      *failedAt = i;
      switch (arg.type) {
         case MSGFMT_ARG_INVALID:
            return store.Error("MsgFmt_GetArgs: gap in arguments at position %d", i + 1);
         case MSGFMT_ARG_INT32:
         case MSGFMT_ARG_INT32_ALT:
            arg.v.signed64 = 0;
            arg.v.signed32 = va_arg(va, int);
            break;
         case MSGFMT_ARG_INT64:
            arg.v.signed64 = va_arg(va, long long);
            break;
         case MSGFMT_ARG_PTR:
            arg.v.ptr = va_arg(va, void *);
            break;
         case MSGFMT_ARG_FLOAT64:
            arg.v.float64 = va_arg(va, double);
            break;
         case MSGFMT_ARG_STRING8:
         case MSGFMT_ARG_STRING8_MSGID: {
            int64_t prefix = arg.v.signed64;
            const char *s = va_arg(va, const char *);
            arg.v.string8 = nullptr;
            if (s != nullptr) {
               arg.v.string8 = store.CopyString(s, KeptLength(s, prefix, args, i));
               if (arg.v.string8 == nullptr) {
                  return store.Error("MsgFmt_GetArgs: out of memory");
               }
            }
            break;
         }
         case MSGFMT_ARG_STRING32:
         case MSGFMT_ARG_STRING32_ALT: {
            const wchar_t *s = va_arg(va, const wchar_t *);
            arg.v.string32 = nullptr;
            if (s != nullptr) {
               arg.v.string32 = store.CopyWide(s);
               if (arg.v.string32 == nullptr) {
                  return store.Error("MsgFmt_GetArgs: out of memory");
               }
            }
            break;
         }
         default:
            NOT_REACHED();
      }
   }
   return nullptr;
}

bool GetArgs(CaptureStore &store, const char *fmt, va_list va, MsgFmt_Arg **argsOut,
             int *numArgsOut, char **error)
{
   ArgTypes types(store);
   bsdfmt::FormatScanner scanner(fmt, true);
   bsdfmt::Directive d;
   bsdfmt::ParseStatus status;
   char *failure = nullptr;
   while (failure == nullptr && scanner.Next(&d, &status)) {
      if (status == bsdfmt::ParseStatus::ok) {
         failure = types.Record(d);
      } else if (status == bsdfmt::ParseStatus::badPosition) {
         failure =
             store.Error("MsgFmtGetArg1: bad specifier, status %d, pos \"%.*s\", type \"%.*s\"",
                         (int)status, (int)d.positionText.length, d.positionText.text,
                         (int)d.conversionText.length, d.conversionText.text);
      } else {
         failure = store.Error("MsgFmt_GetArgs: error in format string");
      }
   }
   int numArgs = types.NumArgs();
   int unread = 0;
   if (failure == nullptr) {
      store.CloseArray(numArgs);
      failure = ReadArgs(store, numArgs, va, &unread);
   }
   if (failure != nullptr) {
      if (!store.InBuffer()) { /* a buffer now holds the error text over the slots */
         for (int i = unread; i < numArgs; i++) {
            store.Args()[i].v.signed64 = 0; /* string slots not yet read hold no pointers */
         }
      }
      store.Discard(numArgs);
      *argsOut = nullptr;
      *numArgsOut = 0;
      if (error != nullptr) {
         *error = failure;
      } else if (!store.InBuffer()) {
         free(failure);
      }
      return false;
   }
   *argsOut = store.Args();
   *numArgsOut = numArgs;
   return true;
}

}  // namespace

extern "C" {

char *MsgFmt_Asprintf(size_t *length, const char *fmt, const MsgFmt_Arg *args, int numArgs)
{
   char *buf = nullptr;
   bsdfmt::Punctuation punct = bsdfmt::LocalePunctuation();
   CapturedSource source(args, numArgs);
   int result = bsdfmt::Format(&buf, 0, punct, fmt, source);
   if (result < 0) {
      return nullptr;
   }
   if (length != nullptr) {
      *length = (size_t)result;
   }
   return buf;
}

int MsgFmt_Snprintf(char *buf, size_t size, const char *fmt, const MsgFmt_Arg *args, int numArgs)
{
   bsdfmt::Punctuation punct = bsdfmt::LocalePunctuation();
   CapturedSource source(args, numArgs);
   // A NULL buffer would select allocating mode; with size 0 nothing is written anyway.
   char scratch[1];
   char *out = buf != nullptr ? buf : scratch;
   return bsdfmt::Format(&out, buf != nullptr ? size : 0, punct, fmt, source);
}

bool MsgFmt_GetArgs(const char *fmt, va_list args, MsgFmt_Arg **argsOut, int *numArgs, char **error)
{
   CaptureStore store;
   return GetArgs(store, fmt, args, argsOut, numArgs, error);
}

bool MsgFmt_GetArgsInBuffer(const char *fmt, va_list args, MsgFmt_Arg **argsOut, int *numArgs,
                            char **error, void *buf, size_t *bufSize)
{
   CaptureStore store(buf, *bufSize);
   if (!GetArgs(store, fmt, args, argsOut, numArgs, error)) {
      return false;
   }
   *bufSize = store.Used();
   return true;
}

void MsgFmt_FreeArgs(MsgFmt_Arg *args, int numArgs)
{
   if (args == nullptr) {
      return;
   }
   for (int i = 0; i < numArgs; i++) {
      switch (args[i].type) {
         case MSGFMT_ARG_STRING8:
         case MSGFMT_ARG_STRING8_MSGID:
            free(args[i].v.string8);
            break;
         case MSGFMT_ARG_STRING32:
         case MSGFMT_ARG_STRING32_ALT:
            free(args[i].v.string32);
            break;
         default:
            break;
      }
   }
   free(args);
}

MsgFmt_Arg *MsgFmt_CopyArgs(const MsgFmt_Arg *args, int numArgs)
{
   if (numArgs <= 0) {
      return nullptr;
   }
   auto *copy = static_cast<MsgFmt_Arg *>(Util_SafeMalloc((size_t)numArgs * sizeof(MsgFmt_Arg)));
   memcpy(static_cast<void *>(copy), args, (size_t)numArgs * sizeof(MsgFmt_Arg));
   for (int i = 0; i < numArgs; i++) {
      switch (copy[i].type) {
         case MSGFMT_ARG_STRING8:
         case MSGFMT_ARG_STRING8_MSGID:
            copy[i].v.string8 = Util_SafeStrdup(args[i].v.string8);
            break;
         case MSGFMT_ARG_STRING32:
         case MSGFMT_ARG_STRING32_ALT:
            if (args[i].v.string32 != nullptr) {
               size_t bytes = (wcslen(args[i].v.string32) + 1) * sizeof(wchar_t);
               copy[i].v.string32 = static_cast<wchar_t *>(Util_SafeMalloc(bytes));
               memcpy(copy[i].v.string32, args[i].v.string32, bytes);
            }
            break;
         default:
            break;
      }
   }
   return copy;
}

}  // extern "C"
