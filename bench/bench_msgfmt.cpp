// Capturing a message's arguments and formatting it later, against formatting it at once.
#include <benchmark/benchmark.h>
#include <stdarg.h>
#include <stdlib.h>

#include "msgfmt.h"
#include "str.h"

namespace {

const char kFormat[] = "%s: cannot open \"%s\" (error %d, %u tries, %.2f s)\n";

char *CaptureAndFormat(const char *fmt, ...)
{
   va_list va;
   va_start(va, fmt);
   MsgFmt_Arg *args = nullptr;
   int numArgs = 0;
   char *error = nullptr;
   bool ok = MsgFmt_GetArgs(fmt, va, &args, &numArgs, &error);
   va_end(va);
   if (!ok) {
      free(error);
      return nullptr;
   }
   char *text = MsgFmt_Asprintf(nullptr, fmt, args, numArgs);
   MsgFmt_FreeArgs(args, numArgs);
   return text;
}

}  // namespace

static void BM_MsgFmtGetArgsAsprintf(benchmark::State &state)
{
   for (auto _ : state) {
      char *text =
          CaptureAndFormat(kFormat, "FileIO_Open", "/var/run/BRIX Services.lock", 13, 3u, 0.25);
      benchmark::DoNotOptimize(text);
      free(text);
   }
}
BENCHMARK(BM_MsgFmtGetArgsAsprintf);

static void BM_StrAsprintf(benchmark::State &state)
{
   for (auto _ : state) {
      char *text = Str_Asprintf(nullptr, kFormat, "FileIO_Open", "/var/run/BRIX Services.lock", 13,
                                3u, 0.25);
      benchmark::DoNotOptimize(text);
      free(text);
   }
}
BENCHMARK(BM_StrAsprintf);

BENCHMARK_MAIN();
