/*
 * The preference store: six dictionaries searched in a fixed order, created lazily and
 * published by compare-and-exchange, guarded by one recursive lock.
 */
#include "preference.h"

#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <atomic>

#include "dictionary.h"
#include "location.h"
#include "log.h"
#include "msg.h"
#include "str.h"
#include "userlock.h"
#include "util.h"

#ifndef BRIX_ROOT_PREFIX
#define BRIX_ROOT_PREFIX ""
#endif

namespace {

constexpr MX_Rank kPreferenceLockRank = 0xF0007100;
constexpr char kHostDefaultsPath[] = BRIX_ROOT_PREFIX "/Library/Preferences/Larkview/config";
constexpr char kUserDefaultsPath[] = "~/Library/Preferences/Larkview/config";
constexpr char kUserPreferencesPath[] = "~/Library/Preferences/Larkview/preferences";
constexpr char kNoLibDirectory[] = "/dev/null/Non-existing DEFAULT_LIBDIRECTORY";

const char *const kLayerNames[PREF_NUM_LAYERS] = {
    "GLOBAL SETTINGS", "NON PERSISTENT", "USER PREFERENCES",
    "USER DEFAULTS",   "HOST DEFAULTS",  "SITE DEFAULTS",
};

const char *const kLayerTitles[PREF_NUM_LAYERS] = {
    "DICT --- GLOBAL SETTINGS %s\n", "DICT --- NON PERSISTENT %s\n",
    "DICT --- USER PREFERENCES %s\n", "DICT --- USER DEFAULTS %s\n",
    "DICT --- HOST DEFAULTS %s\n",    "DICT --- SITE DEFAULTS %s\n",
};

struct PreferenceStore {
   Dictionary *layers[PREF_NUM_LAYERS] = {};
   char *paths[PREF_NUM_LAYERS] = {};
   MXUserRecLock *lock = nullptr;
};

std::atomic<PreferenceStore *> gStore{nullptr};

void PreferenceFree(PreferenceStore *store)
{
   for (int i = 0; i < PREF_NUM_LAYERS; i++) {
      Dictionary_Free(store->layers[i]);
      free(store->paths[i]);
   }
   MXUser_DestroyRecLock(store->lock);
   delete store;
}

/* Reads one layer's file; a file that cannot be read leaves the layer empty. */
void PreferenceRead(PreferenceStore *store, PreferenceLayer layer)
{
   const char *path = store->paths[layer];
   if (path == nullptr) {
      return;
   }
   MsgList *msgs = nullptr;
   if (!DictionaryLoad(store->layers[layer], path, true, STRING_ENCODING_DEFAULT, &msgs)) {
      Log("PREF Optional preferences file not found at %s. Using default values.\n", path);
   }
   MsgList_Free(msgs);
}

PreferenceStore *PreferenceCreate(bool allowUserFiles)
{
   auto *store = new PreferenceStore();
   store->lock = MXUser_CreateRecLock("preferenceLock", kPreferenceLockRank);
   for (auto &layer : store->layers) {
      layer = Dictionary_Create();
   }
   store->paths[PREF_HOST_DEFAULTS] = Util_SafeStrdup(kHostDefaultsPath);
   PreferenceRead(store, PREF_HOST_DEFAULTS);
   Dictionary *host = store->layers[PREF_HOST_DEFAULTS];
   if (Dictionary_GetBool(host, false, "disableUserPreferences", nullptr)) {
      allowUserFiles = false;
      Log("PREF Disabling user preferences because disableUserPreferences is set.\n");
   }

   LocationResolver resolve = Location_GetResolver();
   char *libDir = resolve != nullptr ? resolve("prefDir") : nullptr;
   if (libDir == nullptr) {
      libDir = Dictionary_GetString(host, kNoLibDirectory, "libdir", nullptr);
   }
   store->paths[PREF_GLOBAL_SETTINGS] = Str_SafeAsprintf(nullptr, "%s%s", libDir, "/settings");
   store->paths[PREF_SITE_DEFAULTS] = Str_SafeAsprintf(nullptr, "%s%s", libDir, "/config");
   free(libDir);

   if (allowUserFiles) {
      if (getuid() == geteuid()) {
         store->paths[PREF_USER_DEFAULTS] = Util_ExpandString(kUserDefaultsPath);
         store->paths[PREF_USER_PREFERENCES] = Util_ExpandString(kUserPreferencesPath);
      } else {
         Log("setuid: ignoring user's config and preferences\n");
      }
   }
   PreferenceRead(store, PREF_GLOBAL_SETTINGS);
   PreferenceRead(store, PREF_SITE_DEFAULTS);
   PreferenceRead(store, PREF_USER_DEFAULTS);
   PreferenceRead(store, PREF_USER_PREFERENCES);
   return store;
}

bool PreferenceInit(bool allowUserFiles)
{
   if (gStore.load(std::memory_order_acquire) != nullptr) {
      return true;
   }
   PreferenceStore *mine = PreferenceCreate(allowUserFiles);
   PreferenceStore *expected = nullptr;
   if (!gStore.compare_exchange_strong(expected, mine, std::memory_order_acq_rel)) {
      PreferenceFree(mine);
   }
   return true;
}

/* Holds the store lock for a scope; no store means the early-access path. */
class StoreGuard {
  public:
   StoreGuard() : store_(gStore.load(std::memory_order_acquire))
   {
      if (store_ != nullptr) {
         MXUser_AcquireRecLock(store_->lock);
      }
   }
   ~StoreGuard()
   {
      if (store_ != nullptr) {
         MXUser_ReleaseRecLock(store_->lock);
      }
   }
   StoreGuard(const StoreGuard &) = delete;
   StoreGuard &operator=(const StoreGuard &) = delete;
   PreferenceStore *Get() const { return store_; }

  private:
   PreferenceStore *store_;
};

/* The first layer defining name; USER PREFERENCES (for its default) when none does. */
Dictionary *PreferenceLayerFor(PreferenceStore *store, const char *name)
{
   for (Dictionary *layer : store->layers) {
      if (Dictionary_IsDefined(layer, name)) {
         return layer;
      }
   }
   return store->layers[PREF_USER_PREFERENCES];
}

/* Hands a lookup's messages about malformed values to the user messages. */
void PreferenceReport(MsgList *msgs)
{
   if (msgs != nullptr) {
      Msg_AppendMsgList(msgs);
      MsgList_Free(msgs);
   }
}

/*
 * The lookup shared by every typed getter: get(dictionary, messages) runs under the lock on the
 * layer that answers; before the store exists the early-access line is logged and early()
 * answers.
 */
template <class Get, class Early>
auto PreferenceLookup(const char *name, Get get, Early early) -> decltype(early())
{
   MsgList *msgs = nullptr;
   decltype(early()) result;
   {
      StoreGuard guard;
      if (guard.Get() == nullptr) {
         Log("PREF early PreferenceGet(%s), using default\n", name);
         return early();
      }
      result = get(PreferenceLayerFor(guard.Get(), name), &msgs);
   }
   PreferenceReport(msgs);
   return result;
}

char *ExpandHome(char *path)
{
   if (path == nullptr || path[0] != '~') {
      return path;
   }
   char *expanded = Util_ExpandString(path);
   free(path);
   return expanded != nullptr ? expanded : Util_SafeStrdup("");
}

}  // namespace

extern "C" {

bool Preference_Init(void)
{
   return PreferenceInit(true);
}

bool Preference_InitNoUserFiles(void)
{
   return PreferenceInit(false);
}

void Preference_Exit(void)
{
   PreferenceStore *store = gStore.exchange(nullptr, std::memory_order_acq_rel);
   if (store != nullptr) {
      PreferenceFree(store);
   }
}

char *Preference_GetString(const char *defaultValue, const char *name)
{
   return PreferenceLookup(
       name,
       [&](Dictionary *d, MsgList **msgs) {
          return Dictionary_GetString(d, defaultValue, name, msgs);
       },
       [&]() -> char * { return defaultValue != nullptr ? Util_SafeStrdup(defaultValue) : nullptr; });
}

char *Preference_GetPathName(const char *defaultValue, const char *name)
{
   return ExpandHome(Preference_GetString(defaultValue, name));
}

bool Preference_GetBool(bool defaultValue, const char *name)
{
   return PreferenceLookup(
       name,
       [&](Dictionary *d, MsgList **msgs) {
          return Dictionary_GetBool(d, defaultValue, name, msgs);
       },
       [&] { return defaultValue; });
}

int32_t Preference_GetTriState(int32_t defaultValue, const char *name)
{
   return PreferenceLookup(
       name,
       [&](Dictionary *d, MsgList **msgs) {
          return Dictionary_GetTriState(d, defaultValue, name, msgs);
       },
       [&] { return defaultValue; });
}

int32_t Preference_GetLong(int32_t defaultValue, const char *name)
{
   return PreferenceLookup(
       name,
       [&](Dictionary *d, MsgList **msgs) {
          return Dictionary_GetLong(d, defaultValue, name, msgs);
       },
       [&] { return defaultValue; });
}

int64_t Preference_GetInt64(int64_t defaultValue, const char *name)
{
   return PreferenceLookup(
       name,
       [&](Dictionary *d, MsgList **msgs) {
          return Dictionary_GetInt64(d, defaultValue, name, msgs);
       },
       [&] { return defaultValue; });
}

double Preference_GetDouble(double defaultValue, const char *name)
{
   return PreferenceLookup(
       name,
       [&](Dictionary *d, MsgList **msgs) {
          return Dictionary_GetDouble(d, defaultValue, name, msgs);
       },
       [&] { return defaultValue; });
}

bool Preference_NotSet(const char *name)
{
   return Preference_Find(name) == PREF_NO_LAYER;
}

PreferenceLayer Preference_Find(const char *name)
{
   StoreGuard guard;
   if (guard.Get() == nullptr) {
      return PREF_NO_LAYER;
   }
   for (int i = 0; i < PREF_NUM_LAYERS; i++) {
      if (Dictionary_IsDefined(guard.Get()->layers[i], name)) {
         return (PreferenceLayer)i;
      }
   }
   return PREF_NO_LAYER;
}

const char *Preference_LayerName(PreferenceLayer layer)
{
   return layer >= 0 && layer < PREF_NUM_LAYERS ? kLayerNames[layer] : nullptr;
}

char *Preference_LayerPath(PreferenceLayer layer)
{
   StoreGuard guard;
   if (guard.Get() == nullptr || layer < 0 || layer >= PREF_NUM_LAYERS ||
       guard.Get()->paths[layer] == nullptr) {
      return nullptr;
   }
   return Util_SafeStrdup(guard.Get()->paths[layer]);
}

bool Preference_SetFromString(const char *text, bool overwrite)
{
   MsgList *msgs = nullptr;
   bool ok;
   {
      StoreGuard guard;
      if (guard.Get() == nullptr) {
         return false;
      }
      ok = Dictionary_SetFromString(guard.Get()->layers[PREF_NON_PERSISTENT], text, overwrite,
                                    &msgs);
   }
   PreferenceReport(msgs);
   return ok;
}

void Preference_Log(void)
{
   StoreGuard guard;
   PreferenceStore *store = guard.Get();
   if (store == nullptr) {
      return;
   }
   for (int i = 0; i < PREF_NUM_LAYERS; i++) {
      bool userLayer = i == PREF_USER_PREFERENCES || i == PREF_USER_DEFAULTS;
      if (userLayer && store->paths[i] == nullptr) {
         continue;
      }
      Log(kLayerTitles[i], store->paths[i] != nullptr ? store->paths[i] : "");
      Dictionary_Log(store->layers[i]);
   }
}

}  // extern "C"
