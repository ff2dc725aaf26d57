/*
 * The printf engine on arbitrary format text. Arguments come from a captured array built from
 * the input, so every request is answered with a value of a fitting type or refused.
 *
 * Input: one byte giving the argument count (low 4 bits), then 9 bytes per argument (a type
 * byte and 8 value bytes), then the format text.
 */
#include <string.h>

#include <vector>

#include "fuzzSupport.h"
#include "msgfmt.h"

static const char *const kStrings[] = {
    "", "text", "\xC3\xA9\xE2\x82\xAC", "@&!*@*@(", "@&!*@*@(id)rest", nullptr};
static const wchar_t kWide0[] = {L'a', 0xE9, 0x1F600, 0},
                     kWide1[] = {0xD800, 0x110000, (wchar_t)0xFFFFFFFF, 0};
static const wchar_t *const kWides[] = {kWide0, kWide1, L"", nullptr};

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
   if (size == 0) {
      return 0;
   }
   int numArgs = data[0] & 15;
   size_t pos = 1;
   std::vector<MsgFmt_Arg> args;
   for (int i = 0; i < numArgs && pos + 9 <= size; i++, pos += 9) {
      // Integers, floats and pointers (only printed, never followed) from the bytes.
      MsgFmt_Arg &arg = args.emplace_back(MsgFmt_Arg{data[pos] % 10, {}});
      memcpy(&arg.v, data + pos + 1, 8);
      if (arg.type == MSGFMT_ARG_STRING8 || arg.type == MSGFMT_ARG_STRING8_MSGID) {
         arg.v.string8 = (char *)kStrings[arg.v.unsigned64 % std::size(kStrings)];
      } else if (arg.type == MSGFMT_ARG_STRING32 || arg.type == MSGFMT_ARG_STRING32_ALT) {
         arg.v.string32 = (wchar_t *)kWides[arg.v.unsigned64 % std::size(kWides)];
      }
   }
   std::string fmt((const char *)data + pos, size - pos);  // stops at an embedded NUL

   char small[16], large[512];
   int n = (int)args.size(),
       fixed = MsgFmt_Snprintf(small, sizeof small, fmt.c_str(), args.data(), n);
   // The result never depends on the buffer.
   Check(memchr(small, '\0', sizeof small) != nullptr &&
         fixed == MsgFmt_Snprintf(large, sizeof large, fmt.c_str(), args.data(), n));
   // Huge widths are cheap in fixed mode but would allocate gigabytes here.
   if (fixed >= 0 && fixed < (1 << 20)) {
      size_t length = 0;
      char *heap = MsgFmt_Asprintf(&length, fmt.c_str(), args.data(), n);
      // %c and %C of 0 put NUL bytes inside the output.
      Check(heap != nullptr && length == (size_t)fixed && heap[length] == '\0' &&
            (length >= sizeof large || memcmp(heap, large, length + 1) == 0));
      free(heap);
   }
   return 0;
}
