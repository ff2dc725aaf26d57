/*
 * Product location: where each file of the product lies.
 *
 * Every process declares which executable it is (a process tag); the product root is found by
 * stripping that executable's depth from its own real path, and a fixed table maps location
 * keys to paths relative to the root. The module also names the machine-wide
 * application-support directory and holds the services-installation hook.
 */
#ifndef TESMAR_LOCATION_H
#define TESMAR_LOCATION_H

#include <stdbool.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Resolves a location key to a newly allocated absolute path, or NULL. */
typedef char *(*LocationResolver)(const char *key);

/* Installs the services files before a daemon is started; false stops the start. */
typedef bool (*LocationInstallHook)(void);

/* Fixes the executable's depth below the product root from the process tag. */
void Location_Init(const char *processTag);

/* The absolute path of key (root + relative path), newly allocated; NULL if unknown or on error. */
char *Location_Get(const char *key);

/* The relative path of key in the table (not a copy), or NULL if the key is unknown. */
const char *Location_GetRelative(const char *key);

/* Location_Get, for modules that must not depend on this one at link time. */
LocationResolver Location_GetResolver(void);

/* The machine-wide application-support directory (a constant, not a copy). */
const char *Location_GetAppSupportDir(void);

/* The process-wide install-hook slot; NULL when nothing is registered. */
void Location_SetInstallHook(LocationInstallHook hook);
LocationInstallHook Location_GetInstallHook(void);

#ifdef __cplusplus
}
#endif

#endif
