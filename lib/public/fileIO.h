/*
 * FileIO: the descriptor-level file layer. An open with an action table, optional advisory
 * locking and a privileged form; read and write loops that finish partial transfers; vectored
 * and positioned I/O that may gather many small pieces into one buffer; a pool of aligned
 * buffers; the atomic replacement of a file through a temporary sibling; result codes with
 * catalogue texts.
 */
#ifndef TESMAR_FILEIO_H
#define TESMAR_FILEIO_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>
#include <sys/uio.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef enum {
   FILEIO_SUCCESS = 0,
   FILEIO_CANCELLED = 1,
   FILEIO_ERROR = 2,
   FILEIO_OPEN_ERROR_EXIST = 3,
   FILEIO_LOCK_FAILED = 4,
   FILEIO_READ_ERROR_EOF = 5,
   FILEIO_FILE_NOT_FOUND = 6,
   FILEIO_NO_PERMISSION = 7,
   FILEIO_FILE_NAME_TOO_LONG = 8,
   FILEIO_WRITE_ERROR_FBIG = 9,
   FILEIO_WRITE_ERROR_NOSPC = 10,
   FILEIO_WRITE_ERROR_DQUOT = 11,
   FILEIO_ERROR_LAST = 12, /* reserved: asking for its text is fatal */
} FileIOResult;

#define FileIO_IsSuccess(r) ((r) == FILEIO_SUCCESS)

typedef enum {
   FILEIO_OPEN = 0,              /* open an existing file */
   FILEIO_OPEN_EMPTY = 1,        /* open an existing file and empty it */
   FILEIO_OPEN_CREATE = 2,       /* open, creating it when missing */
   FILEIO_OPEN_CREATE_SAFE = 3,  /* create; fails when the file exists */
   FILEIO_OPEN_CREATE_EMPTY = 4, /* create or open, and empty it */
} FileIOOpenAction;

/* Access flags. */
#define FILEIO_OPEN_ACCESS_READ 0x0001u
#define FILEIO_OPEN_ACCESS_WRITE 0x0002u
#define FILEIO_OPEN_UNBUFFERED_DIRECT 0x0004u /* no caching; direct transfers allowed */
#define FILEIO_OPEN_DELETE_ASAP 0x0008u       /* unlink the path right after the open */
#define FILEIO_OPEN_UNBUFFERED 0x0010u        /* no caching; aligned buffers for coalescing */
#define FILEIO_OPEN_ACCESS_NOFOLLOW 0x0020u   /* a final symbolic link fails the open */
#define FILEIO_OPEN_NONBLOCK 0x0040u
#define FILEIO_OPEN_APPEND 0x0080u
#define FILEIO_OPEN_PRIVILEGED 0x0100u
#define FILEIO_OPEN_LOCK_ADVISORY 0x100000u
#define FILEIO_OPEN_LOCK_MANDATORY 0x200000u
#define FILEIO_OPEN_LOCKED 0x400000u         /* best-effort lock: advisory here */
#define FILEIO_OPEN_EXCLUSIVE_LOCK 0x800000u /* mandatory-lock request */

/* Modes of FileIO_Access. */
#define FILEIO_ACCESS_READ 1
#define FILEIO_ACCESS_WRITE 2
#define FILEIO_ACCESS_EXEC 4
#define FILEIO_ACCESS_EXISTS 8

#define FILEIO_DEFAULT_MODE 0666 /* creation mode of new files, before the umask */

struct FileLockToken;

typedef struct FileIODescriptor {
   int posix;      /* -1 when invalid */
   uint32_t flags; /* access flags of the open */
   char *fileName; /* owned copy of the path */
   struct FileLockToken *lockToken;
} FileIODescriptor;

/* Opens the path as root for the privileged open, returning the descriptor or -1 with errno. */
typedef int FileIOPrivilegedOpener(const char *path, int flags);
void FileIO_SetPrivilegedOpener(FileIOPrivilegedOpener *opener);

void FileIO_Invalidate(FileIODescriptor *fd);
bool FileIO_IsValid(const FileIODescriptor *fd);
FileIOResult FileIO_Create(FileIODescriptor *fd, const char *path, uint32_t access,
                           FileIOOpenAction action, int mode);
FileIOResult FileIO_Open(FileIODescriptor *fd, const char *path, uint32_t access,
                         FileIOOpenAction action);
/* True when the close failed (errno then tells why); the descriptor is invalid either way. */
bool FileIO_Close(FileIODescriptor *fd);
FileIOResult FileIO_Access(const char *path, int mode);
const char *FileIO_Filename(const FileIODescriptor *fd);

FileIOResult FileIO_Read(FileIODescriptor *fd, void *buf, size_t length, size_t *actual);
FileIOResult FileIO_Write(FileIODescriptor *fd, const void *buf, size_t length, size_t *actual);
FileIOResult FileIO_Readv(FileIODescriptor *fd, const struct iovec *v, int count, size_t totalSize,
                          size_t *actual);
FileIOResult FileIO_Writev(FileIODescriptor *fd, const struct iovec *v, int count, size_t totalSize,
                           size_t *actual);
FileIOResult FileIO_Preadv(FileIODescriptor *fd, const struct iovec *v, int count, uint64_t offset,
                           size_t totalSize, size_t *actual);
FileIOResult FileIO_Pwritev(FileIODescriptor *fd, const struct iovec *v, int count, uint64_t offset,
                            size_t totalSize, size_t *actual);
FileIOResult FileIO_Pread(FileIODescriptor *fd, void *buf, size_t length, uint64_t offset);
FileIOResult FileIO_Pwrite(FileIODescriptor *fd, const void *buf, size_t length, uint64_t offset);
/* Positions the file: whence is SEEK_SET, SEEK_CUR or SEEK_END; -1 on failure. */
int64_t FileIO_Seek(const FileIODescriptor *fd, int64_t distance, int whence);
FileIOResult FileIO_Truncate(FileIODescriptor *fd, uint64_t newSize);
FileIOResult FileIO_Sync(const FileIODescriptor *fd);
/* The file's size, or (int64_t)-1 (all ones) on failure. */
int64_t FileIO_GetSize(const FileIODescriptor *fd);
bool FileIO_SupportsFileSize(const FileIODescriptor *fd, uint64_t requestedSize);

/* The atomic replacement of a file through a temporary sibling named path + "~". */
char *FileIO_AtomicTempPath(const char *path);
FileIOResult FileIO_AtomicTempFile(FileIODescriptor *fileFD, FileIODescriptor *tempFD);
bool FileIO_AtomicUpdateEx(FileIODescriptor *newFD, FileIODescriptor *currFD);

/* The lock-file seam of the open: both fail with FILEIO_LOCK_FAILED until locking exists. */
FileIOResult FileIO_Lock(FileIODescriptor *fd, uint32_t access);
FileIOResult FileIO_Unlock(FileIODescriptor *fd);

/* Catalogue text (message id included) and its English text without the id. */
const char *FileIO_MsgError(FileIOResult status);
const char *FileIO_ErrorEnglish(FileIOResult status);
/* The result an error number maps to. */
FileIOResult FileIO_ErrnoToResult(int error);

/* The pool of 1 MiB page-aligned buffers used for unbuffered coalesced transfers. */
void *FileIOAligned_PoolMalloc(size_t size);
bool FileIOAligned_PoolFree(void *buffer);
void FileIOAligned_PoolExit(void);

#ifdef __cplusplus
}
#endif

#endif
