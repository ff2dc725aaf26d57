/*
 * FileIO pieces that do not touch the operating system: result codes and their catalogue
 * texts, the error mapping, the lock seam of the open, and the temporary path of the atomic
 * update.
 */
#include "fileIO.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "err.h"
#include "file.h"
#include "log.h"
#include "msgList.h"
#include "str.h"

namespace {

const char *const kMsgTexts[] = {
    MSG_MAGIC "(msg.fileio.success)Success",
    MSG_MAGIC "(msg.fileio.cancel)The operation was cancelled by the user",
    MSG_MAGIC "(msg.fileio.generic)Error",
    MSG_MAGIC "(msg.fileio.exists)The file already exists",
    MSG_MAGIC "(msg.fileio.lock)Failed to lock the file",
    MSG_MAGIC "(msg.fileio.eof)Tried to read beyond the end of the file",
    MSG_MAGIC "(msg.fileio.notfound)Could not find the file",
    MSG_MAGIC "(msg.fileio.noPerm)Insufficient permission to access the file",
    MSG_MAGIC "(msg.fileio.namelong)The file name is too long",
    MSG_MAGIC "(msg.fileio.fBig)The file is too large",
    MSG_MAGIC "(msg.fileio.noSpc)There is no space left on the device",
    MSG_MAGIC "(msg.fileio.dQuot)There is no space left on the device",
};
const char kMsgUnknown[] = MSG_MAGIC "(msg.fileio.unknown)Unknown error";

/* Waits at most this long for an advisory lock taken by an open. */
constexpr uint32_t kLockMaxWaitMs = 3500;

/*
 * Takes the lock-file lock on path. The lock-file protocol plugs in here; until it does every
 * request fails with ENOSYS, so that an open asking for a lock fails cleanly.
 */
FileLockToken *FileIOLockAcquire(const char *path, bool readOnly, uint32_t maxWaitMs, int *err)
{
   (void)path;
   (void)readOnly;
   (void)maxWaitMs;
   *err = ENOSYS;
   return nullptr;
}

int FileIOLockRelease(FileLockToken *token)
{
   (void)token;
   return ENOSYS;
}

}  // namespace

extern "C" {

FileIOResult FileIO_ErrnoToResult(int error)
{
   switch (error) {
      case ENOENT:
         return FILEIO_FILE_NOT_FOUND;
      case EACCES:
         return FILEIO_NO_PERMISSION;
      case EEXIST:
         return FILEIO_OPEN_ERROR_EXIST;
      case EFBIG:
         return FILEIO_WRITE_ERROR_FBIG;
      case ENOSPC:
         return FILEIO_WRITE_ERROR_NOSPC;
      case ENAMETOOLONG:
         return FILEIO_FILE_NAME_TOO_LONG;
      case EDQUOT:
         return FILEIO_WRITE_ERROR_DQUOT;
      default:
         return FILEIO_ERROR;
   }
}

const char *FileIO_MsgError(FileIOResult status)
{
   if (status == FILEIO_ERROR_LAST) {
      NOT_IMPLEMENTED();
   }
   if (static_cast<unsigned>(status) < FILEIO_ERROR_LAST) {
      return kMsgTexts[status];
   }
   Warning("%s: bad code %d\n", __func__, static_cast<int>(status));
   return kMsgUnknown;
}

const char *FileIO_ErrorEnglish(FileIOResult status)
{
   const char *text = FileIO_MsgError(status);
   const char *close = strchr(text + MSG_MAGIC_LEN, ')');
   return close != nullptr ? close + 1 : text;
}

FileIOResult FileIO_Lock(FileIODescriptor *fd, uint32_t access)
{
   if (access & FILEIO_OPEN_EXCLUSIVE_LOCK) {
      access |= FILEIO_OPEN_LOCK_MANDATORY;
   }
   if (access & FILEIO_OPEN_LOCKED) {
      access |= FILEIO_OPEN_LOCK_ADVISORY;
   }
   if (access & FILEIO_OPEN_LOCK_MANDATORY) {
      return FILEIO_LOCK_FAILED;
   }
   if (!(access & FILEIO_OPEN_LOCK_ADVISORY)) {
      return FILEIO_SUCCESS;
   }
   int err = 0;
   fd->lockToken =
       FileIOLockAcquire(fd->fileName, !(access & FILEIO_OPEN_ACCESS_WRITE), kLockMaxWaitMs, &err);
   if (fd->lockToken != nullptr) {
      return FILEIO_SUCCESS;
   }
   Warning("FILE: %s on '%s' failed: %s\n", __func__, fd->fileName,
           err == 0 ? "Lock timed out" : Err_Errno2String(err));
   errno = err;
   switch (err) {
      case 0:
      case EROFS:
         return FILEIO_LOCK_FAILED;
      case ENOENT:
         return FILEIO_FILE_NOT_FOUND;
      case EACCES:
         return FILEIO_NO_PERMISSION;
      case ENAMETOOLONG:
         return FILEIO_FILE_NAME_TOO_LONG;
      default:
         return FILEIO_ERROR;
   }
}

FileIOResult FileIO_Unlock(FileIODescriptor *fd)
{
   if (fd->lockToken == nullptr) {
      return FILEIO_SUCCESS;
   }
   int err = FileIOLockRelease(fd->lockToken);
   fd->lockToken = nullptr;
   if (err != 0) {
      Warning("FILE: %s on '%s' failed: %s\n", __func__, fd->fileName, Err_Errno2String(err));
      errno = err;
      return FILEIO_ERROR;
   }
   return FILEIO_SUCCESS;
}

char *FileIO_AtomicTempPath(const char *path)
{
   char *full = File_FullPath(path);
   if (full == nullptr) {
      Log("%s: File_FullPath of '%s' failed.\n", __func__, path);
      return nullptr;
   }
   char *temp = Str_SafeAsprintf(nullptr, "%s~", full);
   free(full);
   return temp;
}

}  // extern "C"
