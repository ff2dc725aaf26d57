/*
 * Unicode and codeset benchmarks, each beside its ICU peer where there is one:
 *   BM_BuiltinUtf8ToUtf16le/<text>  vs  BM_IcuConvertEx/<text>   (1 MiB ASCII, 1 MiB mixed script)
 *   BM_CompareRangeIgnoreCase/1024  vs  BM_IcuStrCaseCompare/1024
 *   BM_IANALookupCached, BM_IANALookupReducedUncached (no peer)
 */
#include <benchmark/benchmark.h>

#include <stdlib.h>

#include <string>
#include <vector>

#include <unicode/uchar.h>
#include <unicode/ucnv.h>
#include <unicode/ustring.h>

#include "codeset.h"
#include "unicode.h"
#include "unicode/unicodeInt.h"

namespace {

constexpr size_t kTextSize = 1 << 20;

std::string Repeat(const std::string &piece, size_t size)
{
   std::string out;
   while (out.size() + piece.size() <= size) {
      out += piece;
   }
   return out;
}

const std::string &AsciiText()
{
   static const std::string text =
       Repeat("The quick brown fox jumps over the lazy dog; 0123456789.\n", kTextSize);
   return text;
}

const std::string &MixedText()
{
   /* Latin with accents, Greek, Cyrillic, CJK, an emoji and plain ASCII. */
   static const std::string text = Repeat(
       "Caf\xC3\xA9 na\xC3\xAFve \xCE\xB1\xCE\xB2\xCE\xB3 \xD0\xBC\xD0\xB8\xD1\x80 "
       "\xE6\x97\xA5\xE6\x9C\xAC\xE8\xAA\x9E \xF0\x9F\x98\x80 plain ascii words here.\n",
       kTextSize);
   return text;
}

const std::string &TextFor(int which)
{
   return which == 0 ? AsciiText() : MixedText();
}

void BM_BuiltinUtf8ToUtf16le(benchmark::State &state)
{
   CodeSet_Init("/nonexistent/icu-data-directory");
   const std::string &text = TextFor((int)state.range(0));
   for (auto _ : state) {
      char *out = nullptr;
      size_t size = 0;
      if (!CodeSet_Utf8ToUtf16le(text.data(), text.size(), &out, &size)) {
         state.SkipWithError("conversion failed");
         break;
      }
      benchmark::DoNotOptimize(out);
      free(out);
   }
   state.SetBytesProcessed((int64_t)state.iterations() * (int64_t)text.size());
   state.SetLabel(state.range(0) == 0 ? "ascii" : "mixed");
}
BENCHMARK(BM_BuiltinUtf8ToUtf16le)->Arg(0)->Arg(1);

void BM_IcuConvertEx(benchmark::State &state)
{
   const std::string &text = TextFor((int)state.range(0));
   UErrorCode status = U_ZERO_ERROR;
   UConverter *source = ucnv_open("UTF-8", &status);
   UConverter *target = ucnv_open("UTF-16LE", &status);
   std::vector<char> out(2 * text.size() + 4);
   for (auto _ : state) {
      char *dst = out.data();
      const char *src = text.data();
      UChar pivot[1024];
      UChar *pivotSource = pivot, *pivotTarget = pivot;
      status = U_ZERO_ERROR;
      ucnv_convertEx(target, source, &dst, out.data() + out.size(), &src, text.data() + text.size(),
                     pivot, &pivotSource, &pivotTarget, pivot + 1024, true, true, &status);
      if (U_FAILURE(status)) {
         state.SkipWithError("conversion failed");
         break;
      }
      benchmark::DoNotOptimize(dst);
   }
   ucnv_close(source);
   ucnv_close(target);
   state.SetBytesProcessed((int64_t)state.iterations() * (int64_t)text.size());
   state.SetLabel(state.range(0) == 0 ? "ascii" : "mixed");
}
BENCHMARK(BM_IcuConvertEx)->Arg(0)->Arg(1);

void BM_IANALookupCached(benchmark::State &state)
{
   UnicodeIANALookup("ISO-8859-15");
   for (auto _ : state) {
      benchmark::DoNotOptimize(UnicodeIANALookup("ISO-8859-15"));
   }
}
BENCHMARK(BM_IANALookupCached);

/* The uncached path for a name that only the reduced comparison finds, near the table's end. */
void BM_IANALookupReducedUncached(benchmark::State &state)
{
   for (auto _ : state) {
      benchmark::DoNotOptimize(UnicodeFindEncodingRow("windows_57011"));
   }
}
BENCHMARK(BM_IANALookupReducedUncached);

/* 1 KiB strings that are equal ignoring case, so the whole length is compared. */
std::string CaseText(bool upper)
{
   std::string piece = upper ? "HELLO W\xC3\x96RLD \xCE\xA3\xCE\x9F\xCE\xA6\xCE\x99\xCE\x91 "
                             : "hello w\xC3\xB6rld \xCF\x83\xCE\xBF\xCF\x86\xCE\xB9\xCE\xB1 ";
   return Repeat(piece, 1024);
}

void BM_CompareRangeIgnoreCase(benchmark::State &state)
{
   std::string a = CaseText(true), b = CaseText(false);
   for (auto _ : state) {
      benchmark::DoNotOptimize(Unicode_CompareRange(a.c_str(), 0, -1, b.c_str(), 0, -1, true));
   }
}
BENCHMARK(BM_CompareRangeIgnoreCase)->Arg(1024);

void BM_IcuStrCaseCompare(benchmark::State &state)
{
   std::u16string a, b;
   for (const auto &[text, out] : {std::pair{CaseText(true), &a}, {CaseText(false), &b}}) {
      int32_t length = 0;
      UErrorCode status = U_ZERO_ERROR;
      out->resize(text.size());
      u_strFromUTF8((UChar *)out->data(), (int32_t)out->size(), &length, text.data(),
                    (int32_t)text.size(), &status);
      out->resize((size_t)length);
   }
   for (auto _ : state) {
      UErrorCode status = U_ZERO_ERROR;
      benchmark::DoNotOptimize(u_strCaseCompare((const UChar *)a.data(), (int32_t)a.size(),
                                                (const UChar *)b.data(), (int32_t)b.size(),
                                                U_FOLD_CASE_DEFAULT, &status));
   }
}
BENCHMARK(BM_IcuStrCaseCompare)->Arg(1024);

}  // namespace

BENCHMARK_MAIN();
