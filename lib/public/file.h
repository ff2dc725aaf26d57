/*
 * File and directory operations on paths: tests, creation and deletion, copies of files and
 * trees, moves, rotation of numbered copies, path arithmetic, times and permissions, listing,
 * size limits, capacity and free space, and safe temporary files and directories.
 *
 * Paths are UTF-8. Returned strings belong to the caller (free them); arguments are borrowed.
 * Failures leave errno as the failing system call set it.
 */
#ifndef TESMAR_FILE_H
#define TESMAR_FILE_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include "fileIO.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef enum {
   FILE_TYPE_REGULAR = 0,
   FILE_TYPE_DIRECTORY = 1,
   FILE_TYPE_BLOCKDEVICE = 2,
   FILE_TYPE_CHARDEVICE = 3,
   FILE_TYPE_SYMLINK = 4,
   /* 5 and 6 belong to other users of the enumeration. */
   FILE_TYPE_UNCERTAIN = 7,
} FileType;

typedef struct FileData {
   int64_t fileAccessTime;
   int64_t fileCreationTime; /* status-change time */
   int64_t fileModificationTime;
   uint64_t fileSize;
   FileType fileType;
   uint32_t fileMode;
   uint32_t fileOwner;
   uint32_t fileGroup;
} FileData;

typedef struct WalkDirContextImpl *WalkDirContext;

#define FILE_SEARCHPATHTOKEN ";"
#define DIRSEPS "/"
#define DIRSEPC '/'

/* File_Stat: 0 or an error number (errno is set too). Links are followed. */
int File_Stat(const char *path, FileData *fileData);

bool File_Exists(const char *path);
bool File_IsDirectory(const char *path);
bool File_IsFile(const char *path);
bool File_IsSymLink(const char *path);
bool File_IsEmptyDirectory(const char *path);
bool File_IsFullPath(const char *path);
bool File_ContainsSymLink(const char *path);
bool File_IsWithin(const char *outer, const char *inner);
bool File_GetFilePermissions(const char *path, int *mode);
bool File_SetFilePermissions(const char *path, int mode);
bool File_IsRemote(const char *path);
bool File_MakeCfgFileExecutable(const char *path);
bool File_IsWritableDir(const char *path);

bool File_CreateDirectory(const char *path);
bool File_CreateDirectoryEx(const char *path, int mode);
bool File_EnsureDirectory(const char *path);
bool File_EnsureDirectoryEx(const char *path, int mode);
bool File_CreateDirectoryHierarchy(const char *path, char **topmostCreated);
bool File_CreateDirectoryHierarchyEx(const char *path, int mode, char **topmostCreated);
bool File_DeleteEmptyDirectory(const char *path);
bool File_DeleteDirectoryTree(const char *path);
bool File_DeleteDirectoryContent(const char *path);

/* 0 or the error number, which is also left in errno. */
int File_Unlink(const char *path);
int File_UnlinkNoFollow(const char *path);
int File_UnlinkIfExists(const char *path);

int64_t File_GetSize(const char *path);
int64_t File_GetSizeEx(const char *path);

char *File_Cwd(const char *drive);
char *File_FullPath(const char *path);
void File_GetPathName(const char *fullPath, char **pathName, char **baseName);
char *File_PathJoin(const char *dirName, const char *baseName);
char *File_StripSlashes(const char *path);
void File_SplitName(const char *pathName, char **volume, char **directory, char **base);
char *File_PrependToPath(const char *searchPath, const char *elem);
char *File_ReplaceExtension(const char *pathName, const char *newExtension, uint32_t numExtensions,
                            ...);
char *File_RemoveExtension(const char *pathName);
bool File_GetParent(char **canPath);

/* Times in 100-nanosecond units since 1601-01-01; -1 means unknown or "leave unchanged". */
bool File_GetTimes(const char *path, int64_t *createTime, int64_t *accessTime, int64_t *writeTime,
                   int64_t *attrChangeTime);
bool File_SetTimes(const char *path, int64_t createTime, int64_t accessTime, int64_t writeTime,
                   int64_t attrChangeTime);

/* Copies of files and trees. */
bool File_CopyFromFdToFd(FileIODescriptor src, FileIODescriptor dst);
bool File_CopyFromFdToName(const char *dstName, FileIODescriptor src, bool overwriteExisting);
bool File_Copy(const char *srcName, const char *dstName, bool overwriteExisting);
bool File_CopyTree(const char *srcName, const char *dstName, bool overwriteExisting,
                   bool followSymlinks);
/*
 * File_CopyTree without following links, every file and directory given its source's
 * metadata as File_CopyFdAll does (the top directory included).
 */
bool File_CopyTreeAll(const char *srcName, const char *dstName, bool overwriteExisting);
/*
 * Copies the data and every piece of metadata of one open file onto another: the bytes (holes
 * kept), every extended attribute (access-control lists included), owner, group, mode and the
 * access and modification times. Only the two descriptors are used, so no link is followed.
 */
bool File_CopyFdAll(int src, int dst);

bool File_Move(const char *oldFile, const char *newFile, bool *asRename);
bool File_MoveTree(const char *srcName, const char *dstName, bool overwriteExisting, bool *asMove);
bool File_Replace(const char *oldFile, const char *newFile);
void File_Rotate(const char *fileName, int n, bool noRename, char **newFileName);

int File_ListDirectory(const char *path, char ***ids);
WalkDirContext File_WalkDirectoryStart(const char *path);
bool File_WalkDirectoryNext(WalkDirContext context, char **path);
void File_WalkDirectoryEnd(WalkDirContext context);

bool File_FindFileInSearchPath(const char *file, const char *searchPath, const char *cwd,
                               char **result);

bool File_GetMaxFileSize(const char *path, uint64_t *maxFileSize);
bool File_SupportsFileSize(const char *path, uint64_t fileSize);
bool File_SupportsLargeFiles(const char *path);
uint64_t File_GetCapacity(const char *path);
uint64_t File_GetFreeSpace(const char *path, bool doNotAscend);
bool File_IsOnVirtualDevice(int fd);

/* Temporary and safe directories. */
typedef char *File_MakeTempCreateNameFunc(uint32_t num, void *data);
int File_MakeTempEx2(const char *dir, bool createTempFile, bool makeSafeDir,
                     File_MakeTempCreateNameFunc *createNameFunc, void *createNameFuncData,
                     char **presult);
int File_MakeTempEx(const char *dir, const char *fileName, char **presult);
int File_MakeTemp(const char *tag, char **presult);
char *File_MakeSafeTempDir(const char *prefix);
/*
 * Copies srcDir/name for each of the count names into a fresh safe directory (returned in
 * *safeDir, newly allocated) and checks that every copy carries the maker's code signature.
 * False with *safeDir NULL on the first failure; the directory is then left for the caller's
 * cleanup rules. Lives in libtesmar_filesign, which needs the code-signature library.
 */
bool FileMacOSValidateDesReq(const char *srcDir, const char *const *names, size_t count,
                             char **safeDir);
char *File_GetSafeTmpDir(bool useConf);
char *File_GetSafeRandomTmpDir(bool useConf);

#ifdef __cplusplus
}
#endif

#endif
