/*
 * The configuration modules' file access, on the file library: reading a whole file, and
 * replacing one through FileIO's atomic update (temporary sibling, synced, renamed over).
 */
#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "dict/dictInt.h"
#include "fileIO.h"
#include "util.h"

namespace tesmar::dict {

namespace {

constexpr size_t kReadChunk = 64 * 1024;

/* Closes a FileIO descriptor on every path out of a function, keeping errno. */
struct FileIOHolder {
   FileIODescriptor fd;
   FileIOHolder() { FileIO_Invalidate(&fd); }
   ~FileIOHolder()
   {
      if (FileIO_IsValid(&fd)) {
         int savedErrno = errno;
         FileIO_Close(&fd);
         errno = savedErrno;
      }
   }
   FileIOHolder(const FileIOHolder &) = delete;
   FileIOHolder &operator=(const FileIOHolder &) = delete;
};

int ReadAll(FileIODescriptor *fd, SecureString *out, size_t sizeHint)
{
   out->Wipe();
   if (sizeHint > 0) {
      out->reserve(sizeHint + 1);
   }
   size_t used = 0;
   for (;;) {
      if (out->size() - used < kReadChunk) {
         out->resize(used + kReadChunk);
      }
      size_t got = 0;
      FileIOResult r = FileIO_Read(fd, out->data() + used, out->size() - used, &got);
      used += got;
      if (r == FILEIO_READ_ERROR_EOF) {
         break;
      }
      if (r != FILEIO_SUCCESS) {
         int error = errno != 0 ? errno : EIO;
         out->Wipe();
         return error;
      }
   }
   explicit_bzero(out->data() + used, out->size() - used);
   out->resize(used);
   return 0;
}

mode_t CreationMode()
{
   mode_t mask = umask(0);
   umask(mask);
   return FILEIO_DEFAULT_MODE & ~mask;
}

}  // namespace

int ReadWholeFile(const char *path, SecureString *out, ReadStage *stage)
{
   FileIOHolder file;
   if (path[0] == '-' && path[1] == '\0') {
      // Standard input is borrowed, never closed: the record is released by hand below.
      file.fd.posix = STDIN_FILENO;
      file.fd.flags = FILEIO_OPEN_ACCESS_READ;
      *stage = ReadStage::kRead;
      int error = ReadAll(&file.fd, out, 0);
      FileIO_Invalidate(&file.fd);
      if (error == 0) {
         *stage = ReadStage::kOk;
      }
      return error;
   }
   *stage = ReadStage::kOpen;
   errno = 0;
   if (FileIO_Open(&file.fd, path, FILEIO_OPEN_ACCESS_READ, FILEIO_OPEN) != FILEIO_SUCCESS) {
      return errno != 0 ? errno : EIO;
   }
   *stage = ReadStage::kStat;
   struct stat st;
   if (fstat(file.fd.posix, &st) != 0) {
      return errno;
   }
   if (S_ISDIR(st.st_mode)) {
      *stage = ReadStage::kIsDirectory;
      return EISDIR;
   }
   *stage = ReadStage::kRead;
   int error = ReadAll(&file.fd, out, S_ISREG(st.st_mode) ? (size_t)st.st_size : 0);
   if (error == 0) {
      *stage = ReadStage::kOk;
   }
   return error;
}

int WriteFileAtomic(const char *path, std::string_view data)
{
   FileIOHolder current;
   FileIOHolder temp;
   errno = 0;
   FileIOResult r = FileIO_Open(&current.fd, path, FILEIO_OPEN_ACCESS_READ, FILEIO_OPEN);
   if (r == FILEIO_SUCCESS) {
      // The temporary sibling takes the replaced file's mode, owner and group.
      r = FileIO_AtomicTempFile(&current.fd, &temp.fd);
   } else if (r == FILEIO_FILE_NOT_FOUND) {
      // A new file is still written beside its name first, so no reader sees it half-written.
      char *tempPath = FileIO_AtomicTempPath(path);
      if (tempPath == nullptr) {
         return errno != 0 ? errno : ENOMEM;
      }
      unlink(tempPath);
      r = FileIO_Create(&temp.fd, tempPath, FILEIO_OPEN_ACCESS_READ | FILEIO_OPEN_ACCESS_WRITE,
                        FILEIO_OPEN_CREATE_SAFE, (int)CreationMode());
      free(tempPath);
   }
   if (r != FILEIO_SUCCESS) {
      return errno != 0 ? errno : EIO;
   }
   int error = 0;
   if (FileIO_Write(&temp.fd, data.data(), data.size(), nullptr) != FILEIO_SUCCESS) {
      error = errno != 0 ? errno : EIO;
   } else if (FileIO_IsValid(&current.fd)) {
      if (!FileIO_AtomicUpdateEx(&temp.fd, &current.fd)) {
         error = errno != 0 ? errno : EIO;
      }
   } else if (FileIO_Sync(&temp.fd) != FILEIO_SUCCESS ||
              rename(FileIO_Filename(&temp.fd), path) != 0) {
      error = errno != 0 ? errno : EIO;
   }
   if (error != 0 && FileIO_IsValid(&temp.fd)) {
      unlink(FileIO_Filename(&temp.fd));
   }
   return error;
}

}  // namespace tesmar::dict
