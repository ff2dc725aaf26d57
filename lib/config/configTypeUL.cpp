/*
 * Config entry points that this library does not give behaviour: settings are read-only here,
 * so each stops with a fatal check.
 */
#include "config.h"
#include "log.h"

extern "C" {

void Config_SetString(const char *value, const char *fmt, ...)
{
   NOT_IMPLEMENTED();
}

void Config_SetBool(bool value, const char *fmt, ...)
{
   NOT_IMPLEMENTED();
}

void Config_SetLong(int32_t value, const char *fmt, ...)
{
   NOT_IMPLEMENTED();
}

void Config_Unset(const char *fmt, ...)
{
   NOT_IMPLEMENTED();
}

bool Config_Save(void)
{
   NOT_REACHED();
}

}  // extern "C"
