/*
 * MsgFmt: formatting from captured arguments, on the same engine as Str.
 */
#include "msgfmt.h"

#include <string.h>

#include "string/bsdFmtEngine.h"

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

}  // extern "C"
