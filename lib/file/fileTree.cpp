/*
 * Tree operations: deleting and copying directory trees, and copying one file with all its
 * metadata.
 *
 * The walks run relative to open directory descriptors and never follow a link below the
 * top: entries are examined with AT_SYMLINK_NOFOLLOW and directories entered with O_NOFOLLOW,
 * so a link planted in the tree while it is walked is removed or copied as a link, never
 * walked through. A root-run deletion of a tree that a user can write thus stays inside it.
 */
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "err.h"
#include "file.h"
#include "fileInt.h"
#include "internal/retry.h"
#include "internal/uniqueFd.h"
#include "log.h"
#include "msg.h"
#include "msgList.h"
#include "str.h"
#include "util.h"

using tesmar::UniqueFd;

namespace {

constexpr int kDirFlags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;

struct DirEntry {
   std::string name;
   unsigned char type;  // DT_* from the directory, DT_UNKNOWN when it does not say
};

/* The entries of an open directory, "." and ".." left out; false with errno on failure. */
bool ReadEntries(int dirFd, std::vector<DirEntry> &entries)
{
   int fd = openat(dirFd, ".", kDirFlags);
   if (fd == -1) {
      return false;
   }
   DIR *dir = fdopendir(fd);
   if (dir == nullptr) {
      int err = errno;
      close(fd);
      errno = err;
      return false;
   }
   for (;;) {
      errno = 0;
      struct dirent *entry = readdir(dir);
      if (entry == nullptr) {
         break;
      }
      if (strcmp(entry->d_name, ".") != 0 && strcmp(entry->d_name, "..") != 0) {
         entries.push_back({entry->d_name, entry->d_type});
      }
   }
   int err = errno;
   closedir(dir);
   errno = err;
   return err == 0;
}

bool ReadNames(int dirFd, std::vector<std::string> &names)
{
   std::vector<DirEntry> entries;
   if (!ReadEntries(dirFd, entries)) {
      return false;
   }
   for (DirEntry &e : entries) {
      names.push_back(std::move(e.name));
   }
   return true;
}

std::string Join(const std::string &dir, const std::string &name)
{
   return dir.empty() || dir.back() == '/' ? dir + name : dir + "/" + name;
}

/*
 * Removes everything inside dirFd; returns the last error met (0 when none). The type the
 * directory reports only picks the first attempt: unlinkat never follows a link, a directory
 * is entered only through O_NOFOLLOW, and an entry that changed type in between is retried
 * the other way.
 */
int DeleteContents(int dirFd, const std::string &path)
{
   std::vector<DirEntry> entries;
   if (!ReadEntries(dirFd, entries)) {
      return errno;
   }
   int lastError = 0;
   for (const DirEntry &entry : entries) {
      const char *n = entry.name.c_str();
      bool isDir = entry.type == DT_DIR;
      if (entry.type == DT_UNKNOWN) {
         struct stat st;
         if (fstatat(dirFd, n, &st, AT_SYMLINK_NOFOLLOW) == -1) {
            if (errno != ENOENT) {
               lastError = errno;
               Log("FILE: %s: Lstat of '%s' failed, errno = %d\n", "FileDeleteDirectoryTree",
                   Join(path, entry.name).c_str(), errno);
            }
            continue;
         }
         isDir = S_ISDIR(st.st_mode);
      }
      if (!isDir) {
         if (unlinkat(dirFd, n, 0) == 0 || errno == ENOENT) {
            continue;
         }
         if (errno != EISDIR && errno != EPERM) {
            lastError = errno;
            continue;
         }
         // It is a directory after all (EPERM is how some systems refuse to unlink one).
      }
      UniqueFd child(openat(dirFd, n, kDirFlags | O_NOFOLLOW));
      if (!child) {
         if (errno == ENOENT) {
            continue;
         }
         if (errno != ELOOP && errno != ENOTDIR) {
            lastError = errno;
            continue;
         }
         // Swapped for a link or a file since it was listed: it is removed as one.
         if (unlinkat(dirFd, n, 0) == -1 && errno != ENOENT) {
            lastError = errno;
         }
         continue;
      }
      int err = DeleteContents(child.get(), Join(path, entry.name));
      child.reset();
      if (err == 0 && unlinkat(dirFd, n, AT_REMOVEDIR) == -1 && errno != ENOENT) {
         err = errno;
      }
      if (err != 0) {
         lastError = err;
      }
   }
   return lastError;
}

void AppendCopyFailure(const std::string &src, const std::string &dst, int err)
{
   Msg_Append(MSG_MAGIC "(msg.File.CopyTree.copy.failure)Unable to copy '%s' to '%s': %s\n\n",
              src.c_str(), dst.c_str(), Err_Errno2String(err));
}

/*
 * Copies one file of a tree by descriptors, with the messages of a copy by name: the source
 * opened without following a final link (unless asked to) and without blocking on a FIFO,
 * the destination created beside its parent descriptor, never through a link.
 */
bool CopyEntry(int srcDir, int dstDir, const char *name, const std::string &srcPath,
               const std::string &dstPath, bool overwrite, bool follow, bool all)
{
   int srcFlags = O_RDONLY | O_CLOEXEC | O_NONBLOCK | (follow ? 0 : O_NOFOLLOW);
   FileIODescriptor src;
   FileIO_Invalidate(&src);
   src.posix = openat(srcDir, name, srcFlags);
   if (src.posix == -1) {
      int err = errno;
      Msg_Append(MSG_MAGIC
                 "(msg.File.Copy.open.failure)"
                 "Unable to open the '%s' file for read access: %s.\n\n",
                 srcPath.c_str(), FileIO_MsgError(FileIO_ErrnoToResult(err)));
      AppendCopyFailure(srcPath, dstPath, err);
      errno = err;
      return false;
   }
   int flags = fcntl(src.posix, F_GETFL);
   if (flags != -1) {
      fcntl(src.posix, F_SETFL, flags & ~O_NONBLOCK);
   }
   int dstFlags = O_WRONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW | (overwrite ? O_TRUNC : O_EXCL);
   FileIODescriptor dst;
   FileIO_Invalidate(&dst);
   dst.posix = openat(dstDir, name, dstFlags, FILEIO_DEFAULT_MODE);
   bool ok = true;
   int err = 0;
   if (dst.posix == -1) {
      err = errno;
      Msg_Append(MSG_MAGIC
                 "(msg.File.CopyFromFdToName.create.failure)"
                 "Unable to create a new '%s' file: %s.\n\n",
                 dstPath.c_str(), FileIO_MsgError(FileIO_ErrnoToResult(err)));
      ok = false;
   } else {
      ok = all ? File_CopyFdAll(src.posix, dst.posix) : File_CopyFromFdToFd(src, dst);
      err = errno;
      if (close(dst.posix) == -1) {
         int closeErr = errno;
         Msg_Append(MSG_MAGIC
                    "(msg.File.CopyFromFdToName.close.failure)"
                    "Unable to close the '%s' file: %s.\n\n",
                    dstPath.c_str(), Err_Errno2String(closeErr));
         if (ok) {
            err = closeErr;
         }
         ok = false;
      }
      if (!ok) {
         unlinkat(dstDir, name, 0);
      }
   }
   close(src.posix);
   if (!ok) {
      AppendCopyFailure(srcPath, dstPath, err);
      errno = err;
   }
   return ok;
}

/* With all, every file and directory also gets its source's metadata (File_CopyFdAll). */
bool FileCopyTreeInner(int srcFd, int dstParent, const char *dstName, const std::string &srcPath,
                       const std::string &dstPath, bool overwrite, bool follow, bool top, bool all)
{
   std::vector<std::string> names;
   if (!ReadNames(srcFd, names)) {
      int err = errno;
      Msg_Append(MSG_MAGIC
                 "(msg.File.CopyTree.walk.failure)"
                 "Unable to access '%s' when copying files.\n\n",
                 srcPath.c_str());
      errno = err;
      return false;
   }
   if (mkdirat(dstParent, dstName, 0777) == -1 && errno == EEXIST) {
      struct stat st;
      if (fstatat(dstParent, dstName, &st, 0) == 0 && !S_ISDIR(st.st_mode)) {
         errno = ENOTDIR;  // the entries below then fail to copy
      }
   }
   if (names.empty() && !all) {
      return true;
   }
   // Below the caller's own destination a link in a directory's place is never entered.
   UniqueFd dstFd(openat(dstParent, dstName, kDirFlags | (top ? 0 : O_NOFOLLOW)));
   if (!dstFd) {
      int err = errno;
      AppendCopyFailure(Join(srcPath, names[0]), Join(dstPath, names[0]), err);
      errno = err;
      return false;
   }
   for (const std::string &name : names) {
      const char *n = name.c_str();
      std::string srcEntry = Join(srcPath, name);
      std::string dstEntry = Join(dstPath, name);
      struct stat st;
      if (fstatat(srcFd, n, &st, follow ? 0 : AT_SYMLINK_NOFOLLOW) == -1) {
         int err = errno;
         Msg_Append(MSG_MAGIC
                    "(msg.File.CopyTree.stat.failure)"
                    "Unable to get information on '%s' when copying files.\n\n",
                    srcEntry.c_str());
         errno = err;
         return false;
      }
      if (S_ISLNK(st.st_mode)) {
         std::vector<char> target(static_cast<size_t>(st.st_size) + 2);
         ssize_t len = readlinkat(srcFd, n, target.data(), target.size() - 1);
         int err = errno;
         if (len >= 0) {
            target[static_cast<size_t>(len)] = '\0';
            if (symlinkat(target.data(), dstFd.get(), n) == 0) {
               continue;
            }
            err = errno;
         }
         Msg_Append(MSG_MAGIC
                    "(msg.File.CopyTree.symlink.failure)"
                    "Unable to symlink '%s' to '%s': %s\n\n",
                    len >= 0 ? target.data() : srcEntry.c_str(), dstEntry.c_str(),
                    Err_Errno2String(err));
         errno = err;
         return false;
      }
      if (S_ISDIR(st.st_mode)) {
         UniqueFd child(openat(srcFd, n, kDirFlags | (follow ? 0 : O_NOFOLLOW)));
         if (!child) {
            int err = errno;
            Msg_Append(MSG_MAGIC
                       "(msg.File.CopyTree.walk.failure)"
                       "Unable to access '%s' when copying files.\n\n",
                       srcEntry.c_str());
            errno = err;
            return false;
         }
         if (!FileCopyTreeInner(child.get(), dstFd.get(), n, srcEntry, dstEntry, overwrite, follow,
                                false, all)) {
            return false;
         }
         continue;
      }
      if (!CopyEntry(srcFd, dstFd.get(), n, srcEntry, dstEntry, overwrite, follow, all)) {
         return false;
      }
   }
   if (all && !File_CopyFdAll(srcFd, dstFd.get())) {
      int err = errno;
      AppendCopyFailure(srcPath, dstPath, err);
      errno = err;
      return false;
   }
   return true;
}

/* Copies the bytes of a regular file, keeping its holes. */
bool CopyData(int src, int dst, off_t size)
{
   off_t offset = 0;
   while (offset < size) {
      off_t data = lseek(src, offset, SEEK_DATA);
      if (data == -1) {
         if (errno == ENXIO) {
            break;  // only a hole remains
         }
         data = offset;  // no hole support: all of it is data
      }
      off_t hole = lseek(src, data, SEEK_HOLE);
      if (hole == -1) {
         hole = size;
      }
      off_t in = data;
      off_t out = data;
      while (in < hole) {
         ssize_t n = tesmar::RetryEintr([&] {
            return copy_file_range(src, &in, dst, &out, static_cast<size_t>(hole - in), 0);
         });
         if (n == 0) {
            break;
         }
         if (n > 0) {
            continue;
         }
         if (errno != EXDEV && errno != EINVAL && errno != ENOSYS && errno != EOPNOTSUPP) {
            return false;
         }
         char buf[65536];
         while (in < hole) {
            size_t want = static_cast<size_t>(std::min<off_t>(hole - in, sizeof buf));
            ssize_t got = tesmar::RetryEintr([&] { return pread(src, buf, want, in); });
            if (got <= 0) {
               if (got == 0) {
                  break;
               }
               return false;
            }
            ssize_t done = 0;
            while (done < got) {
               ssize_t w = tesmar::RetryEintr([&] {
                  return pwrite(dst, buf + done, static_cast<size_t>(got - done), out + done);
               });
               if (w <= 0) {
                  if (w == 0) {
                     errno = ENOSPC;
                  }
                  return false;
               }
               done += w;
            }
            in += got;
            out += got;
         }
      }
      offset = hole;
   }
   return ftruncate(dst, size) == 0;
}

bool CopyXattrs(int src, int dst)
{
   ssize_t listSize = flistxattr(src, nullptr, 0);
   if (listSize <= 0) {
      return listSize == 0 || errno == ENOTSUP;
   }
   std::vector<char> list(static_cast<size_t>(listSize));
   listSize = flistxattr(src, list.data(), list.size());
   if (listSize < 0) {
      return false;
   }
   std::vector<char> value;
   for (ssize_t at = 0; at < listSize; at += static_cast<ssize_t>(strlen(&list[at])) + 1) {
      const char *name = &list[at];
      ssize_t size = fgetxattr(src, name, nullptr, 0);
      if (size < 0) {
         if (errno == ENODATA) {
            continue;
         }
         return false;
      }
      value.resize(static_cast<size_t>(size) + 1);
      size = fgetxattr(src, name, value.data(), value.size());
      if (size < 0) {
         return false;
      }
      if (fsetxattr(dst, name, value.data(), static_cast<size_t>(size), 0) == -1 &&
          errno != ENOTSUP) {
         return false;
      }
   }
   return true;
}

}  // namespace

extern "C" {

bool FileDeleteDirectoryTree(const char *path, bool contentOnly)
{
   if (path == nullptr) {
      errno = EFAULT;
      return false;
   }
   struct stat st;
   if (access(path, F_OK) == -1) {
      int err = errno;
      if (err == ENOSYS && stat(path, &st) == -1) {
         err = errno;
      }
      if (err == ENOENT || err == ENOTDIR) {
         errno = 0;
         return true;
      }
   }
   // The top is the caller's path; a link there is not followed either.
   UniqueFd top(open(path, kDirFlags | O_NOFOLLOW));
   if (!top) {
      return false;
   }
   int err = DeleteContents(top.get(), path);
   top.reset();
   if (!contentOnly && err == 0 && rmdir(path) == -1) {
      err = errno;
   }
   errno = err;
   return err == 0;
}

namespace {

bool CopyTreeTop(const char *srcName, const char *dstName, bool overwriteExisting,
                 bool followSymlinks, bool all)
{
   if (!File_IsDirectory(srcName)) {
      int err = errno;
      Msg_Append(MSG_MAGIC
                 "(msg.File.CopyTree.source.notDirectory)"
                 "Source path '%s' is not a directory.",
                 srcName);
      errno = err;
      return false;
   }
   if (!File_IsDirectory(dstName)) {
      int err = errno;
      Msg_Append(MSG_MAGIC
                 "(msg.File.CopyTree.dest.notDirectory)"
                 "Destination path '%s' is not a directory.",
                 dstName);
      errno = err;
      return false;
   }
   UniqueFd srcFd(open(srcName, kDirFlags));
   if (!srcFd) {
      int err = errno;
      Msg_Append(MSG_MAGIC
                 "(msg.File.CopyTree.walk.failure)"
                 "Unable to access '%s' when copying files.\n\n",
                 srcName);
      errno = err;
      return false;
   }
   return FileCopyTreeInner(srcFd.get(), AT_FDCWD, dstName, srcName, dstName, overwriteExisting,
                            followSymlinks, true, all);
}

}  // namespace

bool File_CopyTree(const char *srcName, const char *dstName, bool overwriteExisting,
                   bool followSymlinks)
{
   return CopyTreeTop(srcName, dstName, overwriteExisting, followSymlinks, false);
}

bool File_CopyTreeAll(const char *srcName, const char *dstName, bool overwriteExisting)
{
   return CopyTreeTop(srcName, dstName, overwriteExisting, false, true);
}

bool File_CopyFdAll(int src, int dst)
{
   struct stat st;
   if (fstat(src, &st) == -1) {
      return false;
   }
   if (S_ISREG(st.st_mode)) {
      // An empty destination is not truncated: truncating to zero makes some file systems
      // (ext4) start writing the file out when it is closed, which costs the copy its speed.
      struct stat dstSt;
      if (fstat(dst, &dstSt) == -1 || (dstSt.st_size != 0 && ftruncate(dst, 0) == -1) ||
          !CopyData(src, dst, st.st_size)) {
         return false;
      }
   }
   if (!CopyXattrs(src, dst)) {
      return false;
   }
   // Owner first: a change of owner clears the set-id bits that the mode then restores.
   if (fchown(dst, st.st_uid, st.st_gid) == -1) {
      if (errno != EPERM || geteuid() == 0) {
         return false;
      }
      (void)fchown(dst, static_cast<uid_t>(-1), st.st_gid);
   }
   if (fchmod(dst, st.st_mode & 07777) == -1) {
      return false;
   }
   struct timespec times[2] = {st.st_atim, st.st_mtim};
   return futimens(dst, times) == 0;
}

}  // extern "C"
