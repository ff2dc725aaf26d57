/*
 * The opener's signature checks: a file against an identifier and the maker's signer, and the
 * identifier of a bundle folder.
 */
#ifndef BRIX_CODE_SIGNATURE_H
#define BRIX_CODE_SIGNATURE_H

#include <stdbool.h>

/* Whether path carries the maker's signature with identifier; logs the failing step's code. */
bool PrivilegedHelper_CheckCodeSignature(const char *path, const char *identifier);

/*
 * The same check on an open file or bundle folder (path names it in the log). With requireRoot
 * the code and, for a bundle, every entry in it must be owned by user and group 0.
 */
bool PrivilegedHelperCheckFd(int fd, const char *path, const char *identifier, bool requireRoot);

/* The bundle identifier of the bundle folder at path, newly allocated, or NULL (logged). */
char *CoreFoundationUtils_GetBundleIdentifier(const char *path);

#endif
