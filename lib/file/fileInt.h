/*
 * Internal interfaces of the file library, shared between its modules and reached by the
 * tests and fuzz targets; not part of the C API.
 */
#ifndef TESMAR_FILE_FILEINT_H
#define TESMAR_FILE_FILEINT_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/uio.h>

#include "fileIO.h"

#ifdef __cplusplus
extern "C" {
#endif

/* A quick pseudo-random number, seeded once with the process id. */
uint32_t FileSimpleRandom(void);
/* Sleeps a uniformly drawn number of milliseconds in [msecMin, msecMax). */
uint32_t FileSleeper(uint32_t msecMin, uint32_t msecMax);

/* Unlinks path (and first a link's target when handleLink is set); 0 or the error number. */
int FileDeletion(const char *path, bool handleLink);
bool FileDeleteDirectoryTree(const char *path, bool contentOnly);
char *FileGetTmpDir(bool useConf);
char *FileCreateSafeTmpDir(bool useConf, bool perProcess);

/* The settings of the vectored calls, read once per process; also sets up the aligned pool. */
void FileIOPosixInit(void);
/* Whether a vectored transfer of count entries and totalSize bytes would be gathered. */
bool FileIOWouldCoalesce(int count, size_t totalSize, bool forceCoalesce);

/*
 * Parses name as a renumbered copy: baseName + "-" + number (no leading zero, no 0) + ext.
 * True with the number when it is one.
 */
bool FileRotateParseCopy(const char *name, const char *baseName, const char *ext, uint32_t *number);

#ifdef __cplusplus
}
#endif

#endif
