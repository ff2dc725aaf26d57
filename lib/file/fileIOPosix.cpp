/*
 * FileIO on POSIX descriptors: open through the action table, read and write loops, vectored
 * and positioned transfers with optional gathering into one buffer, the aligned buffer pool,
 * the size capability test and the atomic update.
 */
#include <fcntl.h>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "config.h"
#include "err.h"
#include "fileIO.h"
#include "fileInt.h"
#include "id.h"
#include "internal/retry.h"
#include "log.h"
#include "str.h"
#include "userlock.h"
#include "util.h"

namespace {

constexpr size_t kMaxTransfer = 0x7FFFFFFF;
constexpr int kMaxIovPerCall = 1024;
constexpr int kPoolMaxBuffers = 30;
constexpr size_t kPoolBufferSize = 0x100000;
constexpr uint64_t kPoolIdleNs = 1000000000ull;
constexpr MX_Rank kPoolLockRank = 0xFF000000u;
constexpr uint64_t kUfsMagic = 0x00011954;

const int kOpenActions[] = {0, O_TRUNC, O_CREAT, O_CREAT | O_EXCL, O_CREAT | O_TRUNC};

struct CoalesceSettings {
   bool enable = true;
   bool aligned = false;
   int32_t count = 5;
   int32_t size = 16384;
   int32_t aioNumThreads = 0;
};

CoalesceSettings gCoalesce;
std::once_flag gInitOnce;
std::atomic<FileIOPrivilegedOpener *> gPrivilegedOpener{nullptr};

struct AlignedPool {
   MXUserExclLock *lock = nullptr;
   void *list[kPoolMaxBuffers] = {};
   uint64_t timestamp[kPoolMaxBuffers] = {};
   int numAlloc = 0;
   int numBusy = 0;
};

AlignedPool gPool;
std::atomic<bool> gPoolLoggedMalloc{false};
std::atomic<bool> gPoolLoggedFree{false};
std::atomic<bool> gPoolLoggedExit{false};
std::atomic<bool> gPoolLoggedBusy{false};
std::atomic<bool> gPwritevLogged{false};

uint64_t NowNs()
{
   struct timespec ts;
   clock_gettime(CLOCK_MONOTONIC, &ts);
   return static_cast<uint64_t>(ts.tv_sec) * 1000000000ull + static_cast<uint64_t>(ts.tv_nsec);
}

bool PoolReady(const char *caller, std::atomic<bool> &logged)
{
   if (gPool.lock != nullptr) {
      return true;
   }
   if (!logged.exchange(true)) {
      Log("%s called without FileIOAligned_Pool lock\n", caller);
   }
   return false;
}

bool IsUnbuffered(const FileIODescriptor *fd)
{
   return (fd->flags & (FILEIO_OPEN_UNBUFFERED | FILEIO_OPEN_UNBUFFERED_DIRECT)) != 0;
}

/* One gathered buffer standing in for a list of entries. */
struct Coalesced {
   struct iovec single = {};
   bool fromPool = false;
   bool active = false;
};

void *PageAlignedAlloc(size_t size)
{
   size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
   size_t rounded = (std::max<size_t>(size, 1) + page - 1) / page * page;
   return aligned_alloc(page, rounded);
}

Coalesced CoalesceBegin(const FileIODescriptor *fd, const struct iovec *v, int count,
                        size_t totalSize, bool isWrite, bool force)
{
   Coalesced c;
   if (!FileIOWouldCoalesce(count, totalSize, force)) {
      return c;
   }
   void *buf;
   if (IsUnbuffered(fd) || gCoalesce.aligned) {
      buf = FileIOAligned_PoolMalloc(totalSize);
      c.fromPool = buf != nullptr;
      if (buf == nullptr) {
         buf = PageAlignedAlloc(totalSize);
         if (buf == nullptr) {
            Panic_MemAlloc(__FILE__, __LINE__);
         }
      }
   } else {
      buf = malloc(std::max<size_t>(totalSize, 1));
      if (buf == nullptr) {
         return c;
      }
   }
   if (isWrite) {
      size_t at = 0;
      for (int i = 0; i < count && at < totalSize; i++) {
         size_t n = std::min(v[i].iov_len, totalSize - at);
         memcpy(static_cast<char *>(buf) + at, v[i].iov_base, n);
         at += n;
      }
   }
   c.single.iov_base = buf;
   c.single.iov_len = totalSize;
   c.active = true;
   return c;
}

void CoalesceEnd(Coalesced &c, const struct iovec *v, int count, size_t actual, bool isRead)
{
   if (!c.active) {
      return;
   }
   if (isRead) {
      size_t at = 0;
      for (int i = 0; i < count && at < actual; i++) {
         size_t n = std::min(v[i].iov_len, actual - at);
         memcpy(v[i].iov_base, static_cast<char *>(c.single.iov_base) + at, n);
         at += n;
      }
   }
   if (!c.fromPool || !FileIOAligned_PoolFree(c.single.iov_base)) {
      free(c.single.iov_base);
   }
   c.active = false;
}

int OpenAsRoot(const char *path, int flags, int mode)
{
   if (geteuid() == 0) {
      return open(path, flags, mode);
   }
   FileIOPrivilegedOpener *opener = gPrivilegedOpener.load();
   if (opener != nullptr) {
      return opener(path, flags);
   }
   uid_t uid = Id_BeginSuperUser();
   int fd = open(path, flags, mode);
   int savedErrno = errno;
   Id_EndSuperUser(uid);
   errno = savedErrno;
   return fd;
}

/* Turns the page cache off where the file system accepts direct transfers. */
int NoCache(int fd)
{
   int flags = fcntl(fd, F_GETFL);
   if (flags == -1) {
      return -1;
   }
   if (fcntl(fd, F_SETFL, flags | O_DIRECT) == -1 && errno != EINVAL) {
      return -1;
   }
   return 0;
}

FileIOResult OpenFailed(FileIODescriptor *fd, FileIOResult result)
{
   int savedErrno = errno;
   FileIO_Unlock(fd);
   free(fd->fileName);
   FileIO_Invalidate(fd);
   errno = savedErrno;
   return result;
}

/* Loops a positioned transfer of one buffer; 0 bytes is eofResult. */
template <typename Call>
FileIOResult PositionedLoop(Call call, char *buf, size_t length, uint64_t offset,
                            FileIOResult eofResult, size_t *done, bool logPartial)
{
   size_t left = length;
   while (left > 0) {
      ssize_t n = tesmar::RetryEintr([&] { return call(buf, left, offset); });
      if (n == -1) {
         return FileIO_ErrnoToResult(errno);
      }
      if (n == 0) {
         return eofResult;
      }
      if (logPartial && static_cast<size_t>(n) < left && !gPwritevLogged.exchange(true)) {
         Log("FILE: %s wrote %zu out of %zu bytes.\n", "FileIOPwritevCoalesced",
             static_cast<size_t>(n), left);
      }
      buf += n;
      left -= static_cast<size_t>(n);
      offset += static_cast<uint64_t>(n);
      *done += static_cast<size_t>(n);
   }
   return FILEIO_SUCCESS;
}

}  // namespace

namespace {

/*
 * Repeats a read or write until length bytes moved; a transfer of nothing ends it with
 * zeroResult (end of file for reads, a full device for writes).
 */
template <typename Call>
FileIOResult SequentialLoop(Call call, size_t length, FileIOResult zeroResult, size_t *actual)
{
   VERIFY(length <= kMaxTransfer);
   size_t done = 0;
   FileIOResult ret = FILEIO_SUCCESS;
   while (done < length) {
      ssize_t n = tesmar::RetryEintr([&] { return call(done); });
      if (n == -1) {
         ret = FileIO_ErrnoToResult(errno);
         break;
      }
      if (n == 0) {
         ret = zeroResult;
         break;
      }
      done += static_cast<size_t>(n);
   }
   if (actual != nullptr) {
      *actual = done;
   }
   return ret;
}

}  // namespace

extern "C" {

void FileIOPosixInit(void)
{
   std::call_once(gInitOnce, [] {
      gCoalesce.enable = Config_GetBool(true, "filePosix.coalesce.enable");
      gCoalesce.aligned = Config_GetBool(false, "filePosix.coalesce.aligned");
      gCoalesce.count = Config_GetLong(5, "filePosix.coalesce.count");
      gCoalesce.size = Config_GetLong(16384, "filePosix.coalesce.size");
      gCoalesce.aioNumThreads = Config_GetLong(0, "aiomgr.numThreads");
      gPool.lock = MXUser_CreateExclLock("alignedPoolLock", kPoolLockRank);
   });
}

bool FileIOWouldCoalesce(int count, size_t totalSize, bool forceCoalesce)
{
   FileIOPosixInit();
   if (count <= 1) {
      return false;
   }
   if (forceCoalesce) {
      return true;
   }
   return gCoalesce.enable && count > gCoalesce.count &&
          totalSize / static_cast<size_t>(count) < static_cast<size_t>(gCoalesce.size);
}

void FileIO_SetPrivilegedOpener(FileIOPrivilegedOpener *opener)
{
   gPrivilegedOpener.store(opener);
}

void FileIO_Invalidate(FileIODescriptor *fd)
{
   fd->posix = -1;
   fd->flags = 0;
   fd->fileName = nullptr;
   fd->lockToken = nullptr;
}

bool FileIO_IsValid(const FileIODescriptor *fd)
{
   return fd->posix != -1;
}

const char *FileIO_Filename(const FileIODescriptor *fd)
{
   return fd->fileName;
}

FileIOResult FileIO_Create(FileIODescriptor *fd, const char *path, uint32_t access,
                           FileIOOpenAction action, int mode)
{
   FileIO_Invalidate(fd);
   if (path == nullptr || static_cast<unsigned>(action) > FILEIO_OPEN_CREATE_EMPTY) {
      errno = EFAULT;
      return FILEIO_ERROR;
   }
   fd->fileName = Util_SafeStrdup(path);
   fd->flags = access;

   FileIOResult ret = FileIO_Lock(fd, access);
   if (ret != FILEIO_SUCCESS) {
      return OpenFailed(fd, ret);
   }

   int flags = O_CLOEXEC;
   if ((access & FILEIO_OPEN_ACCESS_READ) && (access & FILEIO_OPEN_ACCESS_WRITE)) {
      flags |= O_RDWR;
   } else if (access & FILEIO_OPEN_ACCESS_WRITE) {
      flags |= O_WRONLY;
   } else {
      flags |= O_RDONLY;
   }
   flags |= kOpenActions[action];
   if (access & FILEIO_OPEN_ACCESS_NOFOLLOW) {
      flags |= O_NOFOLLOW;
   }
   if (access & FILEIO_OPEN_NONBLOCK) {
      flags |= O_NONBLOCK;
   }
   if (access & FILEIO_OPEN_APPEND) {
      flags |= O_APPEND;
   }

   int posix;
   if (access & FILEIO_OPEN_PRIVILEGED) {
      if (flags & (O_CREAT | O_TRUNC)) {
         errno = EACCES;
         return OpenFailed(fd, FILEIO_NO_PERMISSION);
      }
      posix = OpenAsRoot(path, flags, mode);
   } else {
      posix = open(path, flags, mode);
   }
   if (posix == -1) {
      ret = FileIO_ErrnoToResult(errno);
      if (ret == FILEIO_ERROR) {
         Log("FILE:open error on %s: %s\n", path, Err_ErrString());
      }
      return OpenFailed(fd, ret);
   }
   fd->posix = posix;

   if (access & (FILEIO_OPEN_UNBUFFERED | FILEIO_OPEN_UNBUFFERED_DIRECT)) {
      if (NoCache(posix) == -1) {
         ret = FileIO_ErrnoToResult(errno);
         if (ret == FILEIO_ERROR) {
            Log("FILE:fcntl error on %s: %s\n", path, Err_ErrString());
         }
         close(posix);
         return OpenFailed(fd, ret);
      }
   }
   if (access & FILEIO_OPEN_DELETE_ASAP) {
      if (unlink(path) == -1) {
         ret = FileIO_ErrnoToResult(errno);
         if (ret == FILEIO_ERROR) {
            Log("FILE:unlink error on %s: %s\n", path, Err_ErrString());
         }
         close(posix);
         return OpenFailed(fd, ret);
      }
   }
   return FILEIO_SUCCESS;
}

FileIOResult FileIO_Open(FileIODescriptor *fd, const char *path, uint32_t access,
                         FileIOOpenAction action)
{
   return FileIO_Create(fd, path, access, action, FILEIO_DEFAULT_MODE);
}

bool FileIO_Close(FileIODescriptor *fd)
{
   int err = close(fd->posix) == -1 ? errno : 0;
   FileIO_Unlock(fd);
   free(fd->fileName);
   FileIO_Invalidate(fd);
   errno = err;
   return err != 0;
}

FileIOResult FileIO_Access(const char *path, int mode)
{
   if (path == nullptr) {
      errno = EFAULT;
      return FILEIO_ERROR;
   }
   int how = 0;
   if (mode & FILEIO_ACCESS_READ) {
      how |= R_OK;
   }
   if (mode & FILEIO_ACCESS_WRITE) {
      how |= W_OK;
   }
   if (mode & FILEIO_ACCESS_EXEC) {
      how |= X_OK;
   }
   if (how == 0) {
      how = F_OK;
   }
   return access(path, how) == 0 ? FILEIO_SUCCESS : FILEIO_ERROR;
}

FileIOResult FileIO_Read(FileIODescriptor *fd, void *buf, size_t length, size_t *actual)
{
   char *at = static_cast<char *>(buf);
   return SequentialLoop([&](size_t done) { return read(fd->posix, at + done, length - done); },
                         length, FILEIO_READ_ERROR_EOF, actual);
}

FileIOResult FileIO_Write(FileIODescriptor *fd, const void *buf, size_t length, size_t *actual)
{
   const char *at = static_cast<const char *>(buf);
   return SequentialLoop([&](size_t done) { return write(fd->posix, at + done, length - done); },
                         length, FILEIO_WRITE_ERROR_NOSPC, actual);
}

FileIOResult FileIO_Writev(FileIODescriptor *fd, const struct iovec *v, int count, size_t totalSize,
                           size_t *actual)
{
   VERIFY(totalSize < 0x80000000u);
   Coalesced c = CoalesceBegin(fd, v, count, totalSize, true, false);
   const struct iovec *vec = c.active ? &c.single : v;
   int num = c.active ? 1 : count;
   size_t done = 0;
   int index = 0;
   FileIOResult ret = FILEIO_SUCCESS;
   while (done < totalSize) {
      if (index >= num) {
         ret = FILEIO_ERROR;
         break;
      }
      int batch = std::min(num - index, kMaxIovPerCall);
      ssize_t n = tesmar::RetryEintr([&] { return writev(fd->posix, vec + index, batch); });
      if (n == -1) {
         ret = FileIO_ErrnoToResult(errno);
         break;
      }
      done += static_cast<size_t>(n);
      size_t left = static_cast<size_t>(n);
      while (index < num && left >= vec[index].iov_len && left > 0) {
         left -= vec[index].iov_len;
         index++;
      }
      while (index < num && vec[index].iov_len == 0) {
         index++;
      }
      if (left > 0 || n == 0) {
         ret = FILEIO_WRITE_ERROR_NOSPC;
         break;
      }
   }
   CoalesceEnd(c, v, count, done, false);
   if (actual != nullptr) {
      *actual = done;
   }
   return ret;
}

FileIOResult FileIO_Readv(FileIODescriptor *fd, const struct iovec *v, int count, size_t totalSize,
                          size_t *actual)
{
   VERIFY(totalSize < 0x80000000u);
   Coalesced c = CoalesceBegin(fd, v, count, totalSize, false, false);
   int num = c.active ? 1 : count;
   struct iovec *vec = static_cast<struct iovec *>(
       Util_SafeMalloc(sizeof(struct iovec) * static_cast<size_t>(std::max(num, 1))));
   if (c.active) {
      vec[0] = c.single;
   } else {
      memcpy(vec, v, sizeof(struct iovec) * static_cast<size_t>(num));
   }
   size_t done = 0;
   int index = 0;
   FileIOResult ret = FILEIO_SUCCESS;
   while (done < totalSize) {
      while (index < num && vec[index].iov_len == 0) {
         index++;
      }
      if (index >= num) {
         ret = FILEIO_ERROR;
         break;
      }
      int batch = std::min(num - index, kMaxIovPerCall);
      ssize_t n = tesmar::RetryEintr([&] { return readv(fd->posix, vec + index, batch); });
      if (n == -1) {
         ret = FileIO_ErrnoToResult(errno);
         break;
      }
      if (n == 0) {
         ret = FILEIO_READ_ERROR_EOF;
         break;
      }
      done += static_cast<size_t>(n);
      size_t left = static_cast<size_t>(n);
      while (index < num && left >= vec[index].iov_len) {
         left -= vec[index].iov_len;
         index++;
      }
      if (left > 0) {
         vec[index].iov_base = static_cast<char *>(vec[index].iov_base) + left;
         vec[index].iov_len -= left;
      }
   }
   free(vec);
   CoalesceEnd(c, v, count, done, true);
   if (actual != nullptr) {
      *actual = done;
   }
   return ret;
}

namespace {

/* Positioned vectored transfer, entry by entry (or through the coalescing buffer). */
FileIOResult PositionedVector(FileIODescriptor *fd, const struct iovec *v, int count,
                              uint64_t offset, size_t totalSize, size_t *actual, bool isWrite)
{
   VERIFY(totalSize < 0x80000000u);
   Coalesced c = CoalesceBegin(fd, v, count, totalSize, isWrite, false);
   const struct iovec *vec = c.active ? &c.single : v;
   int num = c.active ? 1 : count;
   size_t done = 0;
   FileIOResult ret = FILEIO_SUCCESS;
   auto call = [fd, isWrite](char *buf, size_t len, uint64_t off) {
      return isWrite ? pwrite(fd->posix, buf, len, static_cast<off_t>(off))
                     : pread(fd->posix, buf, len, static_cast<off_t>(off));
   };
   for (int i = 0; i < num && ret == FILEIO_SUCCESS && done < totalSize; i++) {
      size_t len = std::min(vec[i].iov_len, totalSize - done);
      ret = PositionedLoop(call, static_cast<char *>(vec[i].iov_base), len, offset + done,
                           isWrite ? FILEIO_WRITE_ERROR_NOSPC : FILEIO_READ_ERROR_EOF, &done,
                           isWrite);
   }
   CoalesceEnd(c, v, count, done, !isWrite);
   if (actual != nullptr) {
      *actual = done;
   }
   return ret;
}

}  // namespace

FileIOResult FileIO_Pwritev(FileIODescriptor *fd, const struct iovec *v, int count, uint64_t offset,
                            size_t totalSize, size_t *actual)
{
   return PositionedVector(fd, v, count, offset, totalSize, actual, true);
}

FileIOResult FileIO_Preadv(FileIODescriptor *fd, const struct iovec *v, int count, uint64_t offset,
                           size_t totalSize, size_t *actual)
{
   return PositionedVector(fd, v, count, offset, totalSize, actual, false);
}

FileIOResult FileIO_Pread(FileIODescriptor *fd, void *buf, size_t length, uint64_t offset)
{
   struct iovec v = {buf, length};
   return FileIO_Preadv(fd, &v, 1, offset, length, nullptr);
}

FileIOResult FileIO_Pwrite(FileIODescriptor *fd, const void *buf, size_t length, uint64_t offset)
{
   struct iovec v = {const_cast<void *>(buf), length};
   return FileIO_Pwritev(fd, &v, 1, offset, length, nullptr);
}

int64_t FileIO_Seek(const FileIODescriptor *fd, int64_t distance, int whence)
{
   return lseek(fd->posix, static_cast<off_t>(distance), whence);
}

FileIOResult FileIO_Truncate(FileIODescriptor *fd, uint64_t newSize)
{
   return ftruncate(fd->posix, static_cast<off_t>(newSize)) == 0 ? FILEIO_SUCCESS
                                                                 : FileIO_ErrnoToResult(errno);
}

FileIOResult FileIO_Sync(const FileIODescriptor *fd)
{
   return fsync(fd->posix) == 0 ? FILEIO_SUCCESS : FileIO_ErrnoToResult(errno);
}

int64_t FileIO_GetSize(const FileIODescriptor *fd)
{
   struct stat st;
   return fstat(fd->posix, &st) == 0 ? static_cast<int64_t>(st.st_size) : -1;
}

bool FileIO_SupportsFileSize(const FileIODescriptor *fd, uint64_t requestedSize)
{
   struct statfs sfs;
   if (fstatfs(fd->posix, &sfs) == -1) {
      Log("FILE: %s fstatfs failure: %s\n", __func__, Err_ErrString());
      return true;
   }
   uint64_t type = static_cast<uint64_t>(sfs.f_type);
   if (type == MSDOS_SUPER_MAGIC || type == kUfsMagic) {
      return requestedSize <= 0xFFFFFFFFull;
   }
   return true;
}

FileIOResult FileIO_AtomicTempFile(FileIODescriptor *fileFD, FileIODescriptor *tempFD)
{
   char *tempPath = FileIO_AtomicTempPath(FileIO_Filename(fileFD));
   if (tempPath == nullptr) {
      return FILEIO_ERROR;
   }
   FileIOResult ret;
   struct stat st;
   if (fstat(fileFD->posix, &st) == -1) {
      Log("%s: Failed to fstat '%s', errno: %d.\n", __func__, FileIO_Filename(fileFD), errno);
      free(tempPath);
      return FILEIO_ERROR;
   }
   if (unlink(tempPath) == -1 && errno != ENOENT) {
      Log("%s: Failed to unlink temporary file, errno: %d\n", __func__, errno);
      free(tempPath);
      return FILEIO_ERROR;
   }
   ret = FileIO_Create(tempFD, tempPath, FILEIO_OPEN_ACCESS_READ | FILEIO_OPEN_ACCESS_WRITE,
                       FILEIO_OPEN_CREATE_SAFE, static_cast<int>(st.st_mode & 07777));
   if (ret != FILEIO_SUCCESS) {
      Log("%s: Failed to create temporary file, %s (%d). errno: %d\n", __func__,
          FileIO_ErrorEnglish(ret), static_cast<int>(ret), errno);
      free(tempPath);
      return ret;
   }
   bool ok = false;
   if (fchmod(tempFD->posix, st.st_mode) == -1) {
      Log("%s: Failed to chmod temporary file, errno: %d\n", __func__, errno);
   } else if (fchown(tempFD->posix, st.st_uid, st.st_gid) == -1) {
      Log("%s: Failed to chown temporary file, errno: %d\n", __func__, errno);
   } else {
      ok = true;
   }
   if (!ok) {
      int savedErrno = errno;
      FileIO_Close(tempFD);
      if (unlink(tempPath) == -1) {
         Log("%s: Failed to clean up temporary file, errno: %d\n", __func__, errno);
      }
      errno = savedErrno;
      ret = FILEIO_ERROR;
   }
   free(tempPath);
   return ret;
}

bool FileIO_AtomicUpdateEx(FileIODescriptor *newFD, FileIODescriptor *currFD)
{
   const char *newPath = FileIO_Filename(newFD);
   const char *currPath = FileIO_Filename(currFD);
   // The new contents reach the disk before the name points at them, so that a crash leaves
   // either the old file or the complete new one, never an empty or partial one.
   if (fsync(newFD->posix) == -1) {
      Log("%s: fsync of '%s' failed %d.\n", __func__, newPath, errno);
      return false;
   }
   if (rename(newPath, currPath) == -1) {
      Log("%s: rename of '%s' to '%s' failed %d.\n", __func__, newPath, currPath, errno);
      return false;
   }
   // The rename itself becomes durable with the directory.
   const char *slash = strrchr(currPath, '/');
   char *dir = slash == nullptr ? Util_SafeStrdup(".")
               : slash == currPath
                   ? Util_SafeStrdup("/")
                   : Util_SafeStrndup(currPath, static_cast<size_t>(slash - currPath));
   int dirFd = open(dir, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
   if (dirFd == -1 || fsync(dirFd) == -1) {
      Log("%s: fsync of directory '%s' failed %d.\n", __func__, dir, errno);
   }
   if (dirFd != -1) {
      close(dirFd);
   }
   free(dir);

   std::swap(newFD->posix, currFD->posix);
   FileIO_Close(newFD);
   return true;
}

void *FileIOAligned_PoolMalloc(size_t size)
{
   if (!PoolReady(__func__, gPoolLoggedMalloc) || size > kPoolBufferSize) {
      return nullptr;
   }
   void *buf = nullptr;
   MXUser_AcquireExclLock(gPool.lock);
   if (gPool.numBusy < kPoolMaxBuffers) {
      if (gPool.numBusy < gPool.numAlloc) {
         buf = gPool.list[gPool.numBusy];
      } else {
         buf = PageAlignedAlloc(kPoolBufferSize);
         if (buf != nullptr) {
            gPool.list[gPool.numAlloc++] = buf;
         }
      }
      if (buf != nullptr) {
         gPool.numBusy++;
      }
   }
   MXUser_ReleaseExclLock(gPool.lock);
   return buf;
}

bool FileIOAligned_PoolFree(void *buffer)
{
   if (!PoolReady(__func__, gPoolLoggedFree)) {
      return false;
   }
   bool found = false;
   MXUser_AcquireExclLock(gPool.lock);
   for (int i = 0; i < gPool.numBusy; i++) {
      if (gPool.list[i] == buffer) {
         int last = gPool.numBusy - 1;
         std::swap(gPool.list[i], gPool.list[last]);
         std::swap(gPool.timestamp[i], gPool.timestamp[last]);
         gPool.numBusy--;
         uint64_t now = NowNs();
         gPool.timestamp[last] = now;
         while (gPool.numAlloc > gPool.numBusy &&
                now - gPool.timestamp[gPool.numAlloc - 1] > kPoolIdleNs) {
            free(gPool.list[--gPool.numAlloc]);
            gPool.list[gPool.numAlloc] = nullptr;
         }
         found = true;
         break;
      }
   }
   MXUser_ReleaseExclLock(gPool.lock);
   return found;
}

void FileIOAligned_PoolExit(void)
{
   if (!PoolReady(__func__, gPoolLoggedExit)) {
      return;
   }
   MXUser_AcquireExclLock(gPool.lock);
   if (gPool.numBusy > 0 && !gPoolLoggedBusy.exchange(true)) {
      Log("%s: %d busy buffers!  Proceeding with trepidation.\n", __func__, gPool.numBusy);
   }
   for (int i = 0; i < gPool.numAlloc; i++) {
      free(gPool.list[i]);
      gPool.list[i] = nullptr;
   }
   gPool.numAlloc = 0;
   gPool.numBusy = 0;
   MXUserExclLock *lock = gPool.lock;
   gPool.lock = nullptr;
   MXUser_ReleaseExclLock(lock);
   MXUser_DestroyExclLock(lock);
}

}  // extern "C"
