/*
 * Configuration files and the preference store against their peers:
 *  - reading a 10,000-entry file: Dictionary vs GLib key files and inih (into a hash map);
 *  - a typed lookup through the store (six layers) vs std::unordered_map find under a
 *    std::recursive_mutex;
 *  - writing back a 10,000-entry file with one entry changed (no peer).
 */
#include <benchmark/benchmark.h>

#include <glib.h>
#include <ini.h>
#include <stdlib.h>

#include <fstream>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "dictionary.h"
#include "log.h"
#include "preference.h"
#include "util.h"

namespace {

constexpr int kEntries = 10000;

std::string Name(int i)
{
   char buf[32];
   snprintf(buf, sizeof buf, "section.key%05d", i);
   return buf;
}

/* "name=value" lines, the form every reader takes. */
const std::string &Content()
{
   static const std::string text = [] {
      std::string t;
      for (int i = 0; i < kEntries; i++) {
         t += Name(i) + "=" + std::to_string(i * 7) + "\n";
      }
      return t;
   }();
   return text;
}

void BM_Read_Dictionary(benchmark::State &state)
{
   const std::string &text = Content();
   for (auto _ : state) {
      Dictionary *dict = Dictionary_Create();
      MsgList *msgs = nullptr;
      if (!Dictionary_LoadFromBuffer(dict, "bench", text.data(), text.size(),
                                     STRING_ENCODING_UTF8, &msgs)) {
         state.SkipWithError("read failed");
      }
      benchmark::DoNotOptimize(dict);
      Dictionary_Free(dict);
   }
}
BENCHMARK(BM_Read_Dictionary);

void BM_Read_GKeyFile(benchmark::State &state)
{
   const std::string text = "[s]\n" + Content();
   for (auto _ : state) {
      GKeyFile *file = g_key_file_new();
      if (!g_key_file_load_from_data(file, text.data(), text.size(), G_KEY_FILE_NONE, nullptr)) {
         state.SkipWithError("read failed");
      }
      benchmark::DoNotOptimize(file);
      g_key_file_free(file);
   }
}
BENCHMARK(BM_Read_GKeyFile);

int InihStore(void *user, const char *section, const char *name, const char *value)
{
   static_cast<std::unordered_map<std::string, std::string> *>(user)->emplace(name, value);
   return 1;
}

void BM_Read_Inih(benchmark::State &state)
{
   const std::string &text = Content();
   for (auto _ : state) {
      std::unordered_map<std::string, std::string> map;
      if (ini_parse_string(text.c_str(), InihStore, &map) != 0) {
         state.SkipWithError("read failed");
      }
      benchmark::DoNotOptimize(map);
   }
}
BENCHMARK(BM_Read_Inih);

void WriteFile(const std::string &path, const std::string &text)
{
   std::string dir = path.substr(0, path.rfind('/'));
   if (system(("mkdir -p '" + dir + "'").c_str()) != 0) {
      abort();
   }
   std::ofstream(path) << text;
}

/* The store with the names spread over its six layers, every layer holding its share. */
void CreateStore()
{
   static bool created = false;
   if (created) {
      return;
   }
   created = true;
   Log_SetOutputFd(-1);
   char tmpl[] = "/tmp/bench_config.XXXXXX";
   std::string root = mkdtemp(tmpl);
   std::string files[6];
   std::vector<std::string> nonPersistent;
   for (int i = 0; i < kEntries; i++) {
      std::string line = Name(i) + " = \"" + std::to_string(i * 7) + "\"\n";
      if (i % 6 == PREF_NON_PERSISTENT) {
         nonPersistent.push_back(Name(i) + "=" + std::to_string(i * 7));
      } else {
         files[i % 6] += line;
      }
   }
   WriteFile(root + "/lib/settings", files[PREF_GLOBAL_SETTINGS]);
   WriteFile(root + "/home/Library/Preferences/Larkview/preferences",
             files[PREF_USER_PREFERENCES]);
   WriteFile(root + "/home/Library/Preferences/Larkview/config", files[PREF_USER_DEFAULTS]);
   WriteFile(BRIX_ROOT_PREFIX "/Library/Preferences/Larkview/config",
             "libdir = \"" + root + "/lib\"\n" + files[PREF_HOST_DEFAULTS]);
   WriteFile(root + "/lib/config", files[PREF_SITE_DEFAULTS]);
   Util_OverrideHomeDirectory((root + "/home").c_str());
   Preference_Init();
   for (const auto &s : nonPersistent) {
      Preference_SetFromString(s.c_str(), true);
   }
   if (system(("rm -rf '" + root + "'").c_str()) != 0) {
      abort();
   }
}

const std::vector<std::string> &Names()
{
   static const std::vector<std::string> names = [] {
      std::vector<std::string> n;
      // A fixed shuffle, so that consecutive lookups do not walk the layers in order.
      for (int i = 0; i < kEntries; i++) {
         n.push_back(Name((int)((i * 7919L) % kEntries)));
      }
      return n;
   }();
   return names;
}

void BM_Lookup_Preference(benchmark::State &state)
{
   CreateStore();
   const auto &names = Names();
   size_t i = 0;
   if (Preference_GetLong(-1, names[1].c_str()) < 0) {
      state.SkipWithError("store not populated");
   }
   for (auto _ : state) {
      benchmark::DoNotOptimize(Preference_GetLong(0, names[i].c_str()));
      i = i + 1 == names.size() ? 0 : i + 1;
   }
}
BENCHMARK(BM_Lookup_Preference);

void BM_Lookup_UnorderedMap(benchmark::State &state)
{
   std::unordered_map<std::string, std::string> map;
   for (int i = 0; i < kEntries; i++) {
      map.emplace(Name(i), std::to_string(i * 7));
   }
   std::recursive_mutex mutex;
   const auto &names = Names();
   size_t i = 0;
   for (auto _ : state) {
      std::lock_guard<std::recursive_mutex> guard(mutex);
      auto it = map.find(names[i]);
      benchmark::DoNotOptimize(it);
      i = i + 1 == names.size() ? 0 : i + 1;
   }
}
BENCHMARK(BM_Lookup_UnorderedMap);

void BM_WriteBack_Dictionary(benchmark::State &state)
{
   std::string text = ".encoding = \"UTF-8\"\n# a comment\n";
   for (int i = 0; i < kEntries; i++) {
      text += Name(i) + " = \"value " + std::to_string(i) + "\"\n";
   }
   Dictionary *dict = Dictionary_Create();
   MsgList *msgs = nullptr;
   Dictionary_LoadFromBuffer(dict, "bench", text.data(), text.size(), STRING_ENCODING_UTF8,
                             &msgs);
   Dictionary_SetString(dict, Name(kEntries / 2).c_str(), "changed");
   for (auto _ : state) {
      size_t length = 0;
      char *out = Dictionary_WriteToBuffer(dict, true, &length, &msgs);
      benchmark::DoNotOptimize(out);
      free(out);
   }
   Dictionary_Free(dict);
   state.SetBytesProcessed((int64_t)state.iterations() * (int64_t)text.size());
}
BENCHMARK(BM_WriteBack_Dictionary);

}  // namespace

BENCHMARK_MAIN();
