/*
 * The running product's identity: product code, name, version, build number, capabilities and
 * bundle identifier, each with a compiled-in default that may be overridden once, the values
 * derived from them, and a "key=value;" text form of any subset.
 *
 * Returned strings belong to the module and live for the process (values are published once
 * and never recomputed); the serialised text is the caller's to free.
 */
#ifndef TESMAR_PRODUCTSTATE_H
#define TESMAR_PRODUCTSTATE_H

#include <stdbool.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Items, as bits of a serialisation mask. */
enum {
   PRODUCTSTATE_FLAG_PRODUCT = 0x01,
   PRODUCTSTATE_FLAG_NAME = 0x02,
   PRODUCTSTATE_FLAG_VERSION = 0x04,
   PRODUCTSTATE_FLAG_BUILDNUMBER = 0x08,
   PRODUCTSTATE_FLAG_CAPABILITIES = 0x10,
   PRODUCTSTATE_FLAG_BUNDLEIDENTIFIER = 0x80,
};

uint32_t ProductState_GetProduct(void);
const char *ProductState_GetName(void);
const char *ProductState_GetVersion(void);
uint32_t ProductState_GetBuildNumber(void);
uint64_t ProductState_GetCapabilities(void);
const char *ProductState_GetBundleIdentifier(void);

/* "build-%u", or "build-00000" without a build number. */
const char *ProductState_GetBuildNumberString(void);
/* Version and build string, separated by a blank. */
const char *ProductState_GetFullVersion(void);
/* The three numbers of the version; an experimental "e.x.p" version gives the built-in ones. */
void ProductState_GetVersionNumber(unsigned int *major, unsigned int *minor, unsigned int *patch);
const char *ProductState_GetRegistryPath(void);

/*
 * Overrides. Each item can be overridden once; a second override of the same item is refused
 * (false). Values derived before an override keep their first value.
 */
bool ProductState_SetProduct(uint32_t product);
bool ProductState_SetName(const char *name);
bool ProductState_SetVersion(const char *version);
bool ProductState_SetBuildNumber(uint32_t buildNumber);
bool ProductState_SetCapabilities(uint64_t capabilities);
bool ProductState_SetBundleIdentifier(const char *bundleIdentifier);

/*
 * The selected items as "key=value;" pieces in a fixed order; string values have "#" and ";"
 * escaped as "#" plus two hex digits.
 */
char *ProductState_Serialize(uint32_t mask);

/*
 * Reads such a text back into overrides, in any order. Unknown keys are skipped. A malformed
 * piece (no "=", no closing ";", a bad number, a bad escape) or an item already overridden is
 * refused while the other pieces still apply. True when nothing was refused.
 */
bool ProductState_Deserialize(const char *text);

#ifdef __cplusplus
}
#endif

#endif
