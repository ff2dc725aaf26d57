/*
 * Config: typed settings read by name through the preference store. Each getter formats its
 * name printf-style into a 1,024-byte buffer, then asks the store; every getter takes a default,
 * which is also the answer before the store exists.
 */
#ifndef TESMAR_CONFIG_H
#define TESMAR_CONFIG_H

#include <stdbool.h>
#include <stdint.h>

#include "log.h"

#ifdef __cplusplus
extern "C" {
#endif

/* An owned copy of the value (or of the default), NULL when both are absent. */
char *Config_GetString(const char *defaultValue, const char *fmt, ...) TESMAR_PRINTF(2, 3);
/* As Config_GetString, with a leading "~" expanded to the user's home directory. */
char *Config_GetPathName(const char *defaultValue, const char *fmt, ...) TESMAR_PRINTF(2, 3);
bool Config_GetBool(bool defaultValue, const char *fmt, ...) TESMAR_PRINTF(2, 3);
/* 1 true, 0 false, -1 default. */
int32_t Config_GetTriState(int32_t defaultValue, const char *fmt, ...) TESMAR_PRINTF(2, 3);
/* The tristate as a bool: the default when the setting says "default". */
bool Config_GetTriStateAsBool(bool defaultValue, const char *fmt, ...) TESMAR_PRINTF(2, 3);
int32_t Config_GetLong(int32_t defaultValue, const char *fmt, ...) TESMAR_PRINTF(2, 3);
int64_t Config_GetInt64(int64_t defaultValue, const char *fmt, ...) TESMAR_PRINTF(2, 3);
double Config_GetDouble(double defaultValue, const char *fmt, ...) TESMAR_PRINTF(2, 3);
/* True when no layer defines the name (and before the store exists). */
bool Config_NotSet(const char *fmt, ...) TESMAR_PRINTF(1, 2);

/* Entry points without behaviour in this library: each stops with a fatal check. */
void Config_SetString(const char *value, const char *fmt, ...) TESMAR_PRINTF(2, 3);
void Config_SetBool(bool value, const char *fmt, ...) TESMAR_PRINTF(2, 3);
void Config_SetLong(int32_t value, const char *fmt, ...) TESMAR_PRINTF(2, 3);
void Config_Unset(const char *fmt, ...) TESMAR_PRINTF(1, 2);
bool Config_Save(void);

#ifdef __cplusplus
}
#endif

#endif
