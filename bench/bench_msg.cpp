/*
 * Message lookup: Msg_GetString through a 5,000-entry catalogue against GNU gettext's dgettext
 * with a compiled catalogue of the same texts (dgettext returns its own storage; Msg_GetString
 * an owned copy, so a copying variant of the peer is shown as well).
 */
#include <benchmark/benchmark.h>

#include <libintl.h>
#include <locale.h>
#include <stdlib.h>
#include <string.h>

#include <fstream>
#include <string>
#include <vector>

#include "log.h"
#include "msg.h"

namespace {

constexpr int kEntries = 5000;

struct Fixture {
   std::vector<std::string> ids;      // message-id texts for Msg_GetString
   std::vector<std::string> msgids;   // the English texts gettext looks up
   std::string dir;
   bool ok = false;
};

std::string Translated(int i)
{
   return "Texte traduit numero " + std::to_string(i) + " du catalogue";
}

const Fixture &Setup()
{
   static Fixture f = [] {
      Fixture x;
      Log_SetOutputFd(-1);
      char tmpl[] = "/tmp/bench_msg.XXXXXX";
      x.dir = mkdtemp(tmpl);
      std::string catalogue;
      std::string po = "msgid \"\"\nmsgstr \"Content-Type: text/plain; charset=UTF-8\\n\"\n\n";
      for (int i = 0; i < kEntries; i++) {
         std::string id = "bench.msg.text" + std::to_string(i);
         std::string english = "Default text number " + std::to_string(i) + " of the catalogue";
         x.ids.push_back("@&!*@*@(" + id + ")" + english);
         x.msgids.push_back(english);
         catalogue += id + " = \"" + Translated(i) + "\"\n";
         po += "msgid \"" + english + "\"\nmsgstr \"" + Translated(i) + "\"\n\n";
      }
      std::string ours = x.dir + "/messages/xx";
      std::string theirs = x.dir + "/locale/xx/LC_MESSAGES";
      if (system(("mkdir -p '" + ours + "' '" + theirs + "'").c_str()) != 0) {
         return x;
      }
      std::ofstream(ours + "/bench.tmsg") << catalogue;
      std::ofstream(x.dir + "/bench.po") << po;
      std::string compile = std::string(BENCH_MSGFMT) + " -o '" + theirs + "/bench.mo' '" +
                            x.dir + "/bench.po'";
      if (system(compile.c_str()) != 0 || !Msg_SetLocaleEx("xx", "bench", x.dir.c_str())) {
         return x;
      }
      setlocale(LC_ALL, "C.UTF-8");
      setenv("LANGUAGE", "xx", 1);
      bindtextdomain("bench", (x.dir + "/locale").c_str());
      char *ourText = Msg_GetString(x.ids[7].c_str());
      x.ok = Translated(7) == ourText && Translated(7) == dgettext("bench", x.msgids[7].c_str());
      free(ourText);
      // Both catalogues are in memory now (ours read, gettext's mapped).
      if (system(("rm -rf '" + x.dir + "'").c_str()) != 0) {
         x.ok = false;
      }
      return x;
   }();
   return f;
}

void BM_Lookup_MsgGetString(benchmark::State &state)
{
   const Fixture &f = Setup();
   if (!f.ok) {
      state.SkipWithError("catalogues not set up");
      return;
   }
   size_t i = 0;
   for (auto _ : state) {
      char *text = Msg_GetString(f.ids[i].c_str());
      benchmark::DoNotOptimize(text);
      free(text);
      i = (i + 7919) % kEntries;
   }
}
BENCHMARK(BM_Lookup_MsgGetString);

void BM_Lookup_Dgettext(benchmark::State &state)
{
   const Fixture &f = Setup();
   if (!f.ok) {
      state.SkipWithError("catalogues not set up");
      return;
   }
   size_t i = 0;
   for (auto _ : state) {
      benchmark::DoNotOptimize(dgettext("bench", f.msgids[i].c_str()));
      i = (i + 7919) % kEntries;
   }
}
BENCHMARK(BM_Lookup_Dgettext);

void BM_Lookup_DgettextCopy(benchmark::State &state)
{
   const Fixture &f = Setup();
   if (!f.ok) {
      state.SkipWithError("catalogues not set up");
      return;
   }
   size_t i = 0;
   for (auto _ : state) {
      char *text = strdup(dgettext("bench", f.msgids[i].c_str()));
      benchmark::DoNotOptimize(text);
      free(text);
      i = (i + 7919) % kEntries;
   }
}
BENCHMARK(BM_Lookup_DgettextCopy);

}  // namespace

BENCHMARK_MAIN();
