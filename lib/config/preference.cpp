/*
 * The preference store. Until it is created every lookup answers with its default.
 */
#include "preference.h"

#include <stdlib.h>

#include <atomic>

#include "log.h"
#include "util.h"

namespace {

struct PreferenceStore;
std::atomic<PreferenceStore *> gStore{nullptr};

void PreferenceEarly(const char *name)
{
   Log("PREF early PreferenceGet(%s), using default\n", name);
}

}  // namespace

extern "C" {

bool Preference_Init(void)
{
   return true;
}

bool Preference_InitNoUserFiles(void)
{
   return true;
}

void Preference_Exit(void) {}

char *Preference_GetString(const char *defaultValue, const char *name)
{
   PreferenceEarly(name);
   return defaultValue != nullptr ? Util_SafeStrdup(defaultValue) : nullptr;
}

char *Preference_GetPathName(const char *defaultValue, const char *name)
{
   PreferenceEarly(name);
   return defaultValue != nullptr ? Util_ExpandString(defaultValue) : nullptr;
}

bool Preference_GetBool(bool defaultValue, const char *name)
{
   PreferenceEarly(name);
   return defaultValue;
}

int32_t Preference_GetTriState(int32_t defaultValue, const char *name)
{
   PreferenceEarly(name);
   return defaultValue;
}

int32_t Preference_GetLong(int32_t defaultValue, const char *name)
{
   PreferenceEarly(name);
   return defaultValue;
}

int64_t Preference_GetInt64(int64_t defaultValue, const char *name)
{
   PreferenceEarly(name);
   return defaultValue;
}

double Preference_GetDouble(double defaultValue, const char *name)
{
   PreferenceEarly(name);
   return defaultValue;
}

bool Preference_NotSet(const char *name)
{
   return true;
}

PreferenceLayer Preference_Find(const char *name)
{
   return PREF_NO_LAYER;
}

const char *Preference_LayerName(PreferenceLayer layer)
{
   return nullptr;
}

char *Preference_LayerPath(PreferenceLayer layer)
{
   return nullptr;
}

bool Preference_SetFromString(const char *text, bool overwrite)
{
   return false;
}

void Preference_Log(void) {}

}  // extern "C"
