/*
 * Config getters: format the setting's name, then ask the preference store.
 */
#include "config.h"

#include <stdarg.h>

#include "preference.h"
#include "str.h"

namespace {

constexpr size_t kNameSize = 1024;

/* Formats a setting name; an over-long name is cut at the buffer's end. */
void ConfigFormatName(char (&name)[kNameSize], const char *fmt, va_list args)
{
   if (Str_Vsnprintf(name, sizeof name, fmt, args) < 0) {
      name[sizeof name - 1] = '\0';
   }
}

}  // namespace

#define CONFIG_NAME(fmt)                \
   char name[kNameSize];                \
   do {                                 \
      va_list args;                     \
      va_start(args, fmt);              \
      ConfigFormatName(name, fmt, args); \
      va_end(args);                     \
   } while (0)

extern "C" {

char *Config_GetString(const char *defaultValue, const char *fmt, ...)
{
   CONFIG_NAME(fmt);
   return Preference_GetString(defaultValue, name);
}

char *Config_GetPathName(const char *defaultValue, const char *fmt, ...)
{
   CONFIG_NAME(fmt);
   return Preference_GetPathName(defaultValue, name);
}

bool Config_GetBool(bool defaultValue, const char *fmt, ...)
{
   CONFIG_NAME(fmt);
   return Preference_GetBool(defaultValue, name);
}

int32_t Config_GetTriState(int32_t defaultValue, const char *fmt, ...)
{
   CONFIG_NAME(fmt);
   return Preference_GetTriState(defaultValue, name);
}

bool Config_GetTriStateAsBool(bool defaultValue, const char *fmt, ...)
{
   CONFIG_NAME(fmt);
   int32_t value = Preference_GetTriState(-1, name);
   return value == -1 ? defaultValue : value != 0;
}

int32_t Config_GetLong(int32_t defaultValue, const char *fmt, ...)
{
   CONFIG_NAME(fmt);
   return Preference_GetLong(defaultValue, name);
}

int64_t Config_GetInt64(int64_t defaultValue, const char *fmt, ...)
{
   CONFIG_NAME(fmt);
   return Preference_GetInt64(defaultValue, name);
}

double Config_GetDouble(double defaultValue, const char *fmt, ...)
{
   CONFIG_NAME(fmt);
   return Preference_GetDouble(defaultValue, name);
}

bool Config_NotSet(const char *fmt, ...)
{
   CONFIG_NAME(fmt);
   return Preference_NotSet(name);
}

}  // extern "C"
