/*
 * The lock-file protocol's inner pieces, shared by its modules, the brix-lock tool, the tests
 * and the fuzz target; not part of the C API.
 */
#ifndef TESMAR_FILE_FILELOCKINT_H
#define TESMAR_FILE_FILELOCKINT_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#include "fileIO.h"
#include "fileLock.h"

#ifdef __cplusplus
#include <sys/stat.h>

#include <string>
#include <vector>

/*
 * Which file a name meant when it was looked at. Files of others are removed by name only
 * while the name still means the same file, so that a newcomer who drew the same number is
 * never removed in its place.
 */
struct FileLockFileId {
   bool known = false;
   dev_t dev = 0;
   ino_t ino = 0;
   struct timespec ctime = {};
};

FileLockFileId FileLockFileIdOf(const struct stat &st);
bool FileLockSameFile(const FileLockFileId &a, const FileLockFileId &b);
/* Removes lockDir/fileName unless it now names a file other than id; 0 or the error. */
int FileLockRemoveIfSame(const char *lockDir, const char *fileName, const FileLockFileId &id);

/* Size of every member file. */
constexpr size_t kFileLockMemberSize = 512;
/* Most fields a member text may have. */
constexpr size_t kFileLockMaxFields = 16;

/* An entry directory being watched by the scanner: its name, its age in ms, seen this pass. */
struct FileLockActiveLock {
   std::string dirName;
   uint32_t age;
   bool marked;
   FileLockFileId id;
};

/* The locker's own description while it locks. */
struct LockValues {
   char *machineID;
   char *executionID;
   const char *lockType; /* "X" or "S" */
   char *locationChecksum;
   char *memberName;
   uint32_t lamportNumber;
   uint64_t waitTime; /* start of the wait, ms of the monotonic clock */
   uint32_t msecMaxWaitTime;
   std::vector<FileLockActiveLock> lockList;
};

/* What a member file says. */
struct FileLockMemberValues {
   std::string machineID;
   std::string executionID;
   std::string lockType;
   bool hasLocationChecksum = false;
   std::string locationChecksum;
   std::string memberName;
   uint32_t lamportNumber = 0;
   FileLockFileId id; /* the member file that was read */
};

/*
 * Parses the contents of a member file (at most kFileLockMemberSize bytes; the text ends at
 * the first NUL), converting the older form. True with the values; false when the contents
 * are problematic, with the fields as split (for the log) in argv.
 */
bool FileLockParseMemberText(const char *buffer, size_t size, FileLockMemberValues *values,
                             std::vector<std::string> *argv);
/*
 * Formats the member text, NUL-padded to kFileLockMemberSize bytes. locationChecksum may be
 * NULL (no "lc=" field). False when it does not fit.
 */
bool FileLockFormatMemberText(const char *machineID, const char *executionID,
                              uint32_t lamportNumber, const char *lockType, uint64_t startTime,
                              const char *locationChecksum, char out[kFileLockMemberSize]);

/*
 * Reads the member file dirName/fileName. 0 with the values; ENOENT when it is gone or was
 * removed as problematic; another error number otherwise.
 */
int FileLockMemberValuesRead(const char *dirName, const char *fileName,
                             FileLockMemberValues *values);

/*
 * The wait visitor: 0 at once when the member comes after me (by number, then by member file
 * name) or neither lock is exclusive; otherwise waits for the member to leave, up to my
 * maximum wait (EAGAIN then).
 */
int FileLockWaitForPossession(const char *lockDir, const char *fileName,
                              const FileLockMemberValues *member, LockValues *my);

/* Unlinks lockDir/fileName without following links; ENOENT counts as success. */
int FileLockRemoveLockingFile(const char *lockDir, const char *fileName);

extern "C" {
#endif

/* The djb2 hash of the text, printed "%u", newly allocated. */
char *FileLockLocationChecksum(const char *path);
/* Whether name is a valid entry name: "M", "D" or "E", five digits, ending ".lck". */
bool FileLockValidName(const char *name);

/* This machine's identity ("uuid=..." or the older form) and its older form; cached. */
const char *FileLockGetMachineID(void);
const char *FileLockGetOldMachineID(void);
/* "pid-starttime" of this process, newly allocated; NULL when it cannot be examined. */
char *FileLockGetExecutionID(void);
/* Whether the execution id names a live process with the same start time. */
bool FileLockValidExecutionID(const char *executionID);
bool FileLockMachineIDMatch(const char *hostMachineID, const char *otherMachineID);
/* Whether the host has kernel-mandatory locks on files: never here. */
bool FileLockNativeSupported(void);

/* Releases a token taken for FileIO; 0 or the error number. */
int FileLockReleaseToken(FileLockToken *token);

#ifdef __cplusplus
}
#endif

#endif
