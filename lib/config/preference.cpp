/*
 * The preference store: six dictionaries searched in a fixed order, created lazily and
 * published by compare-and-exchange, guarded by one recursive lock.
 */
#include "preference.h"

#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <unistd.h>

#include <atomic>
#include <deque>

#include "dictionary.h"
#include "hashTable.h"
#include "user/dictionaryInt.h"
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

using tesmar::dict::Entry;

/* Where a name is answered: the entry of the first layer that defines it. */
struct PreferenceSlot {
   Entry *entry;
   PreferenceLayer layer;
   PreferenceSlot *sameHash;  // the next slot whose name has the same hash
};

constexpr uint32_t kMinIndexBuckets = 64;

struct PreferenceStore {
   Dictionary *layers[PREF_NUM_LAYERS] = {};
   char *paths[PREF_NUM_LAYERS] = {};
   MXUserRecLock *lock = nullptr;
   /*
    * The layers merged: each name once, with the layer that answers it. Entries never move or
    * go away while the store lives, so the slots can point at them.
    */
   HashTable *index = nullptr;
   uint32_t buckets = 0;
   std::deque<PreferenceSlot> slots;
};

void *PreferenceIndexKey(uint64_t hash)
{
   return reinterpret_cast<void *>(static_cast<uintptr_t>(hash));
}

PreferenceSlot *PreferenceFindSlot(const PreferenceStore *store, std::string_view name,
                                   uint64_t hash)
{
   void *value = nullptr;
   if (!HashTable_Lookup(store->index, PreferenceIndexKey(hash), &value)) {
      return nullptr;
   }
   auto *slot = static_cast<PreferenceSlot *>(value);
   while (slot != nullptr && !tesmar::dict::NameEquals(slot->entry->NameView(), name)) {
      slot = slot->sameHash;
   }
   return slot;
}

void PreferenceLinkSlot(PreferenceStore *store, PreferenceSlot *slot)
{
   // The table gives back the value it holds, which is slot itself when slot was inserted.
   void *head = HashTable_LookupOrInsert(store->index, PreferenceIndexKey(slot->entry->hash), slot);
   slot->sameHash = nullptr;
   if (head != slot) {
      slot->sameHash = static_cast<PreferenceSlot *>(head)->sameHash;
      static_cast<PreferenceSlot *>(head)->sameHash = slot;
   }
}

/* Records that layer answers for entry's name unless a layer before it already does. */
void PreferenceIndexEntry(PreferenceStore *store, Entry *entry, PreferenceLayer layer)
{
   PreferenceSlot *slot = PreferenceFindSlot(store, entry->NameView(), entry->hash);
   if (slot != nullptr) {
      if (layer < slot->layer) {
         slot->entry = entry;
         slot->layer = layer;
      }
      return;
   }
   if (store->slots.size() >= (size_t)store->buckets * 2) {
      // Grow: a table twice as large, every slot linked again.
      HashTable_Free(store->index);
      store->buckets *= 2;
      store->index = HashTable_Alloc(store->buckets, HASH_INT_KEY, nullptr);
      for (auto &s : store->slots) {
         PreferenceLinkSlot(store, &s);
      }
   }
   store->slots.push_back(PreferenceSlot{entry, layer, nullptr});
   PreferenceLinkSlot(store, &store->slots.back());
}

void PreferenceBuildIndex(PreferenceStore *store)
{
   size_t total = 0;
   for (Dictionary *layer : store->layers) {
      total += layer->entries.size();
   }
   store->buckets = kMinIndexBuckets;
   while (store->buckets < total && store->buckets < (1u << 24)) {
      store->buckets <<= 1;
   }
   store->index = HashTable_Alloc(store->buckets, HASH_INT_KEY, nullptr);
   for (int i = 0; i < PREF_NUM_LAYERS; i++) {
      for (Entry *entry : store->layers[i]->entries) {
         PreferenceIndexEntry(store, entry, (PreferenceLayer)i);
      }
   }
}

/* The entry that answers for name, nullptr when no layer defines it. */
Entry *PreferenceFind(const PreferenceStore *store, const char *name, PreferenceLayer *layer)
{
   std::string_view view(name);
   PreferenceSlot *slot = PreferenceFindSlot(store, view, tesmar::dict::NameHash(view));
   if (layer != nullptr) {
      *layer = slot != nullptr ? slot->layer : PREF_NO_LAYER;
   }
   return slot != nullptr ? slot->entry : nullptr;
}

std::atomic<PreferenceStore *> gStore{nullptr};

void PreferenceFree(PreferenceStore *store)
{
   for (int i = 0; i < PREF_NUM_LAYERS; i++) {
      Dictionary_Free(store->layers[i]);
      free(store->paths[i]);
   }
   MXUser_DestroyRecLock(store->lock);
   if (store->index != nullptr) {
      HashTable_Free(store->index);
   }
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
   PreferenceBuildIndex(store);
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

/* Hands a lookup's messages about malformed values to the user messages. */
void PreferenceReport(MsgList *msgs)
{
   if (msgs != nullptr) {
      Msg_AppendMsgList(msgs);
      MsgList_Free(msgs);
   }
}

/*
 * The lookup shared by every typed getter: get(entry, messages) runs under the lock on the
 * entry of the first layer that defines the name (nullptr when none does, for the default);
 * before the store exists the early-access line is logged and early() answers.
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
      result = get(PreferenceFind(guard.Get(), name, nullptr), &msgs);
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
       [&](Entry *e, MsgList **) { return GetStringEntry(e, defaultValue); },
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
       [&](Entry *e, MsgList **msgs) {
          tesmar::dict::Value def;
          def.b = defaultValue;
          tesmar::dict::Value result;
          GetTypedEntry(e, DICT_BOOL, def, &result, msgs);
          return result.b;
       },
       [&] { return defaultValue; });
}

int32_t Preference_GetTriState(int32_t defaultValue, const char *name)
{
   return PreferenceLookup(
       name,
       [&](Entry *e, MsgList **msgs) {
          tesmar::dict::Value def;
          def.l = defaultValue;
          tesmar::dict::Value result;
          GetTypedEntry(e, DICT_TRISTATE, def, &result, msgs);
          return result.l;
       },
       [&] { return defaultValue; });
}

int32_t Preference_GetLong(int32_t defaultValue, const char *name)
{
   return PreferenceLookup(
       name,
       [&](Entry *e, MsgList **msgs) {
          tesmar::dict::Value def;
          def.l = defaultValue;
          tesmar::dict::Value result;
          GetTypedEntry(e, DICT_LONG, def, &result, msgs);
          return result.l;
       },
       [&] { return defaultValue; });
}

int64_t Preference_GetInt64(int64_t defaultValue, const char *name)
{
   return PreferenceLookup(
       name,
       [&](Entry *e, MsgList **msgs) {
          tesmar::dict::Value def;
          def.i = defaultValue;
          tesmar::dict::Value result;
          GetTypedEntry(e, DICT_INT64, def, &result, msgs);
          return result.i;
       },
       [&] { return defaultValue; });
}

double Preference_GetDouble(double defaultValue, const char *name)
{
   return PreferenceLookup(
       name,
       [&](Entry *e, MsgList **msgs) {
          tesmar::dict::Value def;
          def.d = defaultValue;
          tesmar::dict::Value result;
          GetTypedEntry(e, DICT_DOUBLE, def, &result, msgs);
          return result.d;
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
   PreferenceLayer layer = PREF_NO_LAYER;
   if (guard.Get() != nullptr) {
      PreferenceFind(guard.Get(), name, &layer);
   }
   return layer;
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
      Dictionary *layer = guard.Get()->layers[PREF_NON_PERSISTENT];
      ok = Dictionary_SetFromString(layer, text, overwrite, &msgs);
      const char *equals = strchr(text, '=');
      std::string_view name = equals != nullptr ? std::string_view(text, (size_t)(equals - text))
                                                : std::string_view(text);
      Entry *entry = tesmar::dict::Find(layer, name);
      if (entry != nullptr) {
         PreferenceIndexEntry(guard.Get(), entry, PREF_NON_PERSISTENT);
      }
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
