/*
 * The preference store: six dictionaries searched in a fixed order (global settings, run-time
 * settings, user preferences, user defaults, host defaults, site defaults), created lazily and
 * guarded by one recursive lock. Before the store exists every getter returns its default.
 */
#ifndef TESMAR_PREFERENCE_H
#define TESMAR_PREFERENCE_H

#include <stdbool.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* The layers, in lookup order. */
typedef enum PreferenceLayer {
   PREF_GLOBAL_SETTINGS = 0,
   PREF_NON_PERSISTENT = 1,
   PREF_USER_PREFERENCES = 2,
   PREF_USER_DEFAULTS = 3,
   PREF_HOST_DEFAULTS = 4,
   PREF_SITE_DEFAULTS = 5,
   PREF_NUM_LAYERS = 6,
   PREF_NO_LAYER = -1,
} PreferenceLayer;

/* Creates the store (user files allowed) unless one exists; always true. */
bool Preference_Init(void);
/* Creates the store with user files never read. */
bool Preference_InitNoUserFiles(void);
/* Takes the store out of use and frees it; getters answer with defaults afterwards. */
void Preference_Exit(void);

char *Preference_GetString(const char *defaultValue, const char *name);
char *Preference_GetPathName(const char *defaultValue, const char *name);
bool Preference_GetBool(bool defaultValue, const char *name);
int32_t Preference_GetTriState(int32_t defaultValue, const char *name);
int32_t Preference_GetLong(int32_t defaultValue, const char *name);
int64_t Preference_GetInt64(int64_t defaultValue, const char *name);
double Preference_GetDouble(double defaultValue, const char *name);
bool Preference_NotSet(const char *name);

/* The first layer defining name, PREF_NO_LAYER when none does or there is no store. */
PreferenceLayer Preference_Find(const char *name);
/* The layer's title ("GLOBAL SETTINGS" ...); NULL for an invalid layer. */
const char *Preference_LayerName(PreferenceLayer layer);
/* An owned copy of the layer's file path, NULL when the layer has none or there is no store. */
char *Preference_LayerPath(PreferenceLayer layer);

/*
 * Sets "name=value" as a string in the run-time layer. Without overwrite an existing entry is
 * kept and the "already defined" message is appended to the user messages; returns false then.
 */
bool Preference_SetFromString(const char *text, bool overwrite);

/* Logs every layer with its path and entries; the user layers only when their files exist. */
void Preference_Log(void);

#ifdef __cplusplus
}
#endif

#endif
