/*
 * Path-level file operations: tests, path arithmetic, creation and deletion of files and
 * directories, copies by name and by descriptor, moves, rotation, listing and the search path.
 */
#include "file.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "err.h"
#include "escape.h"
#include "fileInt.h"
#include "hashTable.h"
#include "internal/retry.h"
#include "log.h"
#include "msg.h"
#include "str.h"
#include "unicodeBase.h"
#include "util.h"

namespace {

constexpr size_t kCopyBufferSize = 8192;
constexpr uint32_t kWalkBuckets = 2048;
const char kReplacementName[] = "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD";

/* Keeps errno across frees and other clean-up. */
class ErrnoKeeper {
  public:
   ErrnoKeeper() : saved_(errno) {}
   ~ErrnoKeeper() { errno = saved_; }
   ErrnoKeeper(const ErrnoKeeper &) = delete;
   ErrnoKeeper &operator=(const ErrnoKeeper &) = delete;

  private:
   int saved_;
};

char *Dup(std::string_view s)
{
   return Util_SafeStrndup(s.data(), s.size());
}

/* The position of the extension's "." (after the last "/"), or npos. */
size_t ExtensionStart(std::string_view path)
{
   size_t slash = path.rfind('/');
   size_t dot = path.rfind('.');
   if (dot == std::string_view::npos || (slash != std::string_view::npos && dot < slash)) {
      return std::string_view::npos;
   }
   return dot;
}

bool ExistsForSearch(const char *path)
{
   if (FileIO_Access(path, FILEIO_ACCESS_EXISTS) == FILEIO_SUCCESS) {
      return true;
   }
   struct stat st;
   return errno == ENOSYS && stat(path, &st) == 0;
}

/*
 * Copies the bytes with copy_file_range from the current offsets to the end. False when the
 * kernel cannot do it (across some file systems, pipes) or fails part-way: the plain loop then
 * goes on from where this stopped and reports any failure itself.
 */
bool KernelCopy(int src, int dst)
{
   for (;;) {
      ssize_t n = tesmar::RetryEintr(
          [&] { return copy_file_range(src, nullptr, dst, nullptr, 1u << 30, 0); });
      if (n == 0) {
         return true;
      }
      if (n < 0) {
         return false;
      }
   }
}

}  // namespace

extern "C" {

/* Path tests. */

bool File_Exists(const char *path)
{
   return FileIO_Access(path, FILEIO_ACCESS_EXISTS) == FILEIO_SUCCESS;
}

bool File_IsDirectory(const char *path)
{
   FileData data;
   return File_Stat(path, &data) == 0 && data.fileType == FILE_TYPE_DIRECTORY;
}

bool File_IsFile(const char *path)
{
   FileData data;
   return File_Stat(path, &data) == 0 && data.fileType == FILE_TYPE_REGULAR;
}

bool File_IsSymLink(const char *path)
{
   struct stat st;
   return path != nullptr && lstat(path, &st) == 0 && S_ISLNK(st.st_mode);
}

bool File_IsEmptyDirectory(const char *path)
{
   return File_IsDirectory(path) && File_ListDirectory(path, nullptr) == 0;
}

bool File_IsFullPath(const char *path)
{
   return path != nullptr && path[0] == '/';
}

bool File_ContainsSymLink(const char *path)
{
   if (File_IsSymLink(path)) {
      return true;
   }
   char *dir = nullptr;
   char *base = nullptr;
   File_GetPathName(path, &dir, &base);
   bool result = false;
   if (dir != nullptr && base != nullptr && *dir != '\0' && *base != '\0') {
      result = File_ContainsSymLink(dir);
   }
   ErrnoKeeper keep;
   free(dir);
   free(base);
   return result;
}

bool File_IsWithin(const char *outer, const char *inner)
{
   char *fullOuter = File_FullPath(outer);
   char *fullInner = File_FullPath(inner);
   bool result = fullOuter != nullptr && fullInner != nullptr &&
                 strncmp(fullInner, fullOuter, strlen(fullOuter)) == 0;
   ErrnoKeeper keep;
   free(fullOuter);
   free(fullInner);
   return result;
}

/* Path arithmetic. */

void File_GetPathName(const char *fullPath, char **pathName, char **baseName)
{
   std::string_view path = fullPath != nullptr ? fullPath : "";
   size_t slash = path.rfind('/');
   std::string_view dir = slash == std::string_view::npos ? "" : path.substr(0, slash);
   std::string_view base = slash == std::string_view::npos ? path : path.substr(slash + 1);
   if (pathName != nullptr) {
      *pathName = Dup(dir);
   }
   if (baseName != nullptr) {
      *baseName = Dup(base);
   }
}

char *File_StripSlashes(const char *path)
{
   std::string_view p = path;
   if (!p.empty() && p.back() == '/') {
      while (!p.empty() && p.back() == '/') {
         p.remove_suffix(1);
      }
   }
   return Dup(p);
}

char *File_PathJoin(const char *dirName, const char *baseName)
{
   while (*baseName == '/') {
      baseName++;
   }
   char *dir = File_StripSlashes(dirName);
   char *joined = Str_SafeAsprintf(nullptr, "%s/%s", dir, baseName);
   free(dir);
   return joined;
}

void File_SplitName(const char *pathName, char **volume, char **directory, char **base)
{
   std::string_view path = pathName;
   size_t slash = path.rfind('/');
   size_t cut = slash == std::string_view::npos ? 0 : slash + 1;
   if (volume != nullptr) {
      *volume = Dup("");
   }
   if (directory != nullptr) {
      *directory = Dup(path.substr(0, cut));
   }
   if (base != nullptr) {
      *base = Dup(path.substr(cut));
   }
}

char *File_PrependToPath(const char *searchPath, const char *elem)
{
   std::string rest = searchPath;
   std::string_view e = elem;
   size_t start = 0;
   while (start <= rest.size()) {
      size_t end = rest.find(';', start);
      size_t len = (end == std::string::npos ? rest.size() : end) - start;
      if (std::string_view(rest).substr(start, len) == e) {
         size_t eraseLen = end == std::string::npos ? len : len + 1;
         size_t eraseAt = start;
         if (end == std::string::npos && start > 0) {
            eraseAt--;  // the last element takes its leading separator with it
            eraseLen++;
         }
         rest.erase(eraseAt, eraseLen);
         break;
      }
      if (end == std::string::npos) {
         break;
      }
      start = end + 1;
   }
   return Str_SafeAsprintf(nullptr, "%s%s%s", elem, FILE_SEARCHPATHTOKEN, rest.c_str());
}

char *File_ReplaceExtension(const char *pathName, const char *newExtension, uint32_t numExtensions,
                            ...)
{
   std::string_view path = pathName;
   size_t dot = ExtensionStart(path);
   bool replace = dot != std::string_view::npos;
   if (replace && numExtensions > 0) {
      std::string_view ext = path.substr(dot);
      replace = false;
      va_list args;
      va_start(args, numExtensions);
      for (uint32_t i = 0; i < numExtensions; i++) {
         const char *listed = va_arg(args, const char *);
         if (!replace && listed != nullptr && ext == listed) {
            replace = true;
         }
      }
      va_end(args);
   }
   std::string result(replace ? path.substr(0, dot) : path);
   result += newExtension;
   return Dup(result);
}

char *File_RemoveExtension(const char *pathName)
{
   std::string_view path = pathName;
   size_t dot = ExtensionStart(path);
   return Dup(dot == std::string_view::npos ? path : path.substr(0, dot));
}

bool File_GetParent(char **canPath)
{
   if (strcmp(*canPath, "/") == 0) {
      return true;
   }
   char *dir = nullptr;
   File_GetPathName(*canPath, &dir, nullptr);
   if (*dir == '\0') {
      free(dir);
      dir = Util_SafeStrdup("/");
   }
   free(*canPath);
   *canPath = dir;
   return false;
}

/* Deletion and directories. */

int FileDeletion(const char *path, bool handleLink)
{
   if (path == nullptr) {
      errno = EFAULT;
      return EFAULT;
   }
   if (handleLink) {
      char target[PATH_MAX + 1];
      ssize_t len = readlink(path, target, PATH_MAX);
      if (len >= 0) {
         target[len] = '\0';
         // A relative target names a file beside the link, not one in the working directory.
         std::string full = target;
         if (target[0] != '/') {
            const char *slash = strrchr(path, '/');
            if (slash != nullptr) {
               full = std::string(path, static_cast<size_t>(slash - path + 1)) + target;
            }
         }
         if (unlink(full.c_str()) == -1 && errno != ENOENT) {
            return errno;
         }
      } else if (errno != EINVAL) {
         return errno;
      }
   }
   if (unlink(path) == -1) {
      return errno;
   }
   return 0;
}

int File_Unlink(const char *path)
{
   int err = FileDeletion(path, true);
   errno = err;
   return err;
}

int File_UnlinkNoFollow(const char *path)
{
   int err = FileDeletion(path, false);
   errno = err;
   return err;
}

int File_UnlinkIfExists(const char *path)
{
   int err = FileDeletion(path, true);
   if (err == ENOENT) {
      err = 0;
   }
   errno = err;
   return err;
}

bool File_CreateDirectory(const char *path)
{
   return File_CreateDirectoryEx(path, 0777);
}

bool File_CreateDirectoryEx(const char *path, int mode)
{
   if (path == nullptr) {
      errno = EFAULT;
      return false;
   }
   return mkdir(path, static_cast<mode_t>(mode)) == 0;
}

bool File_EnsureDirectory(const char *path)
{
   return File_EnsureDirectoryEx(path, 0777);
}

bool File_EnsureDirectoryEx(const char *path, int mode)
{
   if (File_CreateDirectoryEx(path, mode)) {
      return true;
   }
   if (errno != EEXIST) {
      return false;
   }
   if (File_IsDirectory(path)) {
      return true;
   }
   errno = ENOTDIR;
   return false;
}

bool File_DeleteEmptyDirectory(const char *path)
{
   if (path == nullptr) {
      errno = EFAULT;
      return false;
   }
   return rmdir(path) == 0;
}

bool File_CreateDirectoryHierarchy(const char *path, char **topmostCreated)
{
   return File_CreateDirectoryHierarchyEx(path, 0777, topmostCreated);
}

bool File_CreateDirectoryHierarchyEx(const char *path, int mode, char **topmostCreated)
{
   if (topmostCreated != nullptr) {
      *topmostCreated = nullptr;
   }
   if (path == nullptr || *path == '\0') {
      return true;
   }
   std::string_view whole = path;
   size_t volumeLength = 0;
   if (whole.size() <= volumeLength) {
      return File_IsDirectory(path);
   }
   size_t at = volumeLength + 1;
   for (;;) {
      size_t slash = whole.find('/', at);
      std::string prefix(whole.substr(0, slash));
      if (mkdir(prefix.c_str(), static_cast<mode_t>(mode)) == 0) {
         if (topmostCreated != nullptr && *topmostCreated == nullptr) {
            *topmostCreated = Dup(prefix);
         }
      } else {
         int err = errno;
         if (err == EEXIST) {
            if (!File_IsDirectory(prefix.c_str())) {
               err = ENOTDIR;
            } else {
               err = 0;
            }
         }
         if (err != 0) {
            Log("FILE: %s: Failure on '%s'. Error = %d\n", __func__, prefix.c_str(), err);
            errno = err;
            return false;
         }
      }
      if (slash == std::string_view::npos) {
         return true;
      }
      at = slash + 1;
      if (at >= whole.size()) {
         return true;
      }
   }
}

bool File_DeleteDirectoryTree(const char *path)
{
   return FileDeleteDirectoryTree(path, false);
}

bool File_DeleteDirectoryContent(const char *path)
{
   return FileDeleteDirectoryTree(path, true);
}

/* Sizes. */

int64_t File_GetSize(const char *path)
{
   if (path == nullptr) {
      return -1;
   }
   FileIODescriptor fd;
   // Not blocking: a FIFO in a measured tree must not wait for a writer.
   if (FileIO_Open(&fd, path, FILEIO_OPEN_ACCESS_READ | FILEIO_OPEN_NONBLOCK, FILEIO_OPEN) !=
       FILEIO_SUCCESS) {
      return -1;
   }
   int64_t size = FileIO_GetSize(&fd);
   ErrnoKeeper keep;
   FileIO_Close(&fd);
   return size;
}

int64_t File_GetSizeEx(const char *path)
{
   if (path == nullptr) {
      return -1;
   }
   if (!File_IsDirectory(path)) {
      return File_GetSize(path);
   }
   char **names = nullptr;
   int count = File_ListDirectory(path, &names);
   if (count < 0) {
      return -1;
   }
   int64_t total = 0;
   for (int i = 0; i < count; i++) {
      char *child = File_PathJoin(path, names[i]);
      // A link inside the tree is measured as itself, never walked: no cycles, no escape.
      int64_t size = File_IsSymLink(child) ? File_GetSize(child) : File_GetSizeEx(child);
      if (size != -1) {
         total += size;
      }
      free(child);
      free(names[i]);
   }
   free(names);
   return total;
}

/* Copies. */

bool File_CopyFromFdToFd(FileIODescriptor src, FileIODescriptor dst)
{
   if (KernelCopy(src.posix, dst.posix)) {
      return true;
   }
   char buf[kCopyBufferSize];
   for (;;) {
      size_t got = 0;
      FileIOResult ret = FileIO_Read(&src, buf, sizeof buf, &got);
      if (ret != FILEIO_SUCCESS && ret != FILEIO_READ_ERROR_EOF) {
         ErrnoKeeper keep;
         Msg_Append(MSG_MAGIC "(msg.File.CopyFromFdToFd.read.failure)Read error: %s.\n\n",
                    FileIO_MsgError(ret));
         return false;
      }
      FileIOResult wret = FileIO_Write(&dst, buf, got, nullptr);
      if (wret != FILEIO_SUCCESS) {
         ErrnoKeeper keep;
         Msg_Append(MSG_MAGIC "(msg.File.CopyFromFdToFd.write.failure)Write error: %s.\n\n",
                    FileIO_MsgError(wret));
         return false;
      }
      if (ret == FILEIO_READ_ERROR_EOF) {
         return true;
      }
   }
}

bool File_CopyFromFdToName(const char *dstName, FileIODescriptor src, bool overwriteExisting)
{
   FileIODescriptor dst;
   FileIOResult ret =
       FileIO_Open(&dst, dstName, FILEIO_OPEN_ACCESS_WRITE,
                   overwriteExisting ? FILEIO_OPEN_CREATE_EMPTY : FILEIO_OPEN_CREATE_SAFE);
   if (ret != FILEIO_SUCCESS) {
      ErrnoKeeper keep;
      Msg_Append(MSG_MAGIC
                 "(msg.File.CopyFromFdToName.create.failure)"
                 "Unable to create a new '%s' file: %s.\n\n",
                 dstName, FileIO_MsgError(ret));
      return false;
   }
   bool ok = File_CopyFromFdToFd(src, dst);
   int firstErrno = errno;
   if (FileIO_Close(&dst)) {
      int closeErrno = errno;
      Msg_Append(MSG_MAGIC
                 "(msg.File.CopyFromFdToName.close.failure)"
                 "Unable to close the '%s' file: %s.\n\n",
                 dstName, Err_Errno2String(closeErrno));
      if (ok) {
         firstErrno = closeErrno;
      }
      ok = false;
   }
   if (!ok) {
      FileDeletion(dstName, true);
      errno = firstErrno;
   }
   return ok;
}

bool File_Copy(const char *srcName, const char *dstName, bool overwriteExisting)
{
   FileIODescriptor src;
   FileIOResult ret = FileIO_Open(&src, srcName, FILEIO_OPEN_ACCESS_READ, FILEIO_OPEN);
   if (ret != FILEIO_SUCCESS) {
      ErrnoKeeper keep;
      Msg_Append(MSG_MAGIC
                 "(msg.File.Copy.open.failure)"
                 "Unable to open the '%s' file for read access: %s.\n\n",
                 srcName, FileIO_MsgError(ret));
      return false;
   }
   bool ok = File_CopyFromFdToName(dstName, src, overwriteExisting);
   int savedErrno = errno;
   if (FileIO_Close(&src)) {
      ErrnoKeeper keep;
      Msg_Append(MSG_MAGIC "(msg.File.Copy.close.failure)Unable to close the '%s' file: %s.\n\n",
                 srcName, Err_ErrString());
      return false;
   }
   errno = savedErrno;
   return ok;
}

/* Moves. */

bool File_Move(const char *oldFile, const char *newFile, bool *asRename)
{
   bool renamed = rename(oldFile, newFile) == 0;
   if (!renamed) {
      if (!File_Copy(oldFile, newFile, true)) {
         if (asRename != nullptr) {
            *asRename = false;
         }
         return false;
      }
      FileDeletion(oldFile, true);
   }
   errno = 0;
   if (asRename != nullptr) {
      *asRename = renamed;
   }
   return true;
}

bool File_MoveTree(const char *srcName, const char *dstName, bool overwriteExisting, bool *asMove)
{
   if (asMove != nullptr) {
      *asMove = false;
   }
   if (!File_IsDirectory(srcName)) {
      Msg_Append(MSG_MAGIC
                 "(msg.File.MoveTree.source.notDirectory)"
                 "Source path '%s' is not a directory.",
                 srcName);
      return false;
   }
   if (rename(srcName, dstName) == 0) {
      if (asMove != nullptr) {
         *asMove = true;
      }
      return true;
   }
   bool createdHere = false;
   struct stat st;
   if (stat(dstName, &st) == -1) {
      if (errno != ENOENT) {
         int err = errno;
         Msg_Append(MSG_MAGIC
                    "(msg.File.MoveTree.statFailed)"
                    "%d:Failed to stat destination '%s'.\n\n",
                    err, dstName);
         errno = err;
         return false;
      }
      if (!File_CreateDirectoryHierarchyEx(dstName, 0777, nullptr)) {
         ErrnoKeeper keep;
         Msg_Append(MSG_MAGIC "(msg.File.MoveTree.dst.couldntCreate)Could not create '%s'.\n\n",
                    dstName);
         return false;
      }
      createdHere = true;
      int64_t srcSize = File_GetSizeEx(srcName);
      uint64_t freeSpace = File_GetFreeSpace(dstName, true);
      if (srcSize > 0 && freeSpace < static_cast<uint64_t>(srcSize)) {
         char *size = Msg_FormatSizeInBytes(static_cast<uint64_t>(srcSize));
         Msg_Append(MSG_MAGIC
                    "(msg.File.MoveTree.dst.insufficientSpace)"
                    "There is not enough space in the file system to move the "
                    "directory tree. Free %s and try again.",
                    size);
         free(size);
         errno = ENOSPC;
         return false;
      }
   } else if (!S_ISDIR(st.st_mode)) {
      Msg_Append(MSG_MAGIC
                 "(msg.File.MoveTree.dest.notDirectory)"
                 "The destination path '%s' is not a directory.\n\n",
                 dstName);
      errno = ENOTDIR;
      return false;
   }
   if (!File_CopyTree(srcName, dstName, overwriteExisting, false)) {
      ErrnoKeeper keep;
      Msg_Append(MSG_MAGIC
                 "(msg.File.MoveTree.copyFailed)"
                 "Could not rename and failed to copy source directory '%s'.\n\n",
                 srcName);
      if (createdHere) {
         File_DeleteDirectoryTree(dstName);
      }
      return false;
   }
   if (!File_DeleteDirectoryTree(srcName)) {
      Msg_Append(MSG_MAGIC
                 "(msg.File.MoveTree.cleanupFailed)"
                 "Forced to copy '%s' into '%s' but unable to remove source "
                 "directory.\n\n",
                 srcName, dstName);
   }
   return true;
}

/* Listing and walking. */

struct WalkDirContextImpl {
   char *dirName;
   DIR *dir;
   HashTable *names;
};

WalkDirContext File_WalkDirectoryStart(const char *path)
{
   if (path == nullptr) {
      errno = EFAULT;
      return nullptr;
   }
   DIR *dir = opendir(path);
   if (dir == nullptr) {
      return nullptr;
   }
   auto *context = static_cast<WalkDirContextImpl *>(Util_SafeMalloc(sizeof(WalkDirContextImpl)));
   context->dirName = Util_SafeStrdup(path);
   context->dir = dir;
   context->names = HashTable_Alloc(kWalkBuckets, HASH_STRING_KEY | HASH_FLAG_COPYKEY, nullptr);
   return context;
}

bool File_WalkDirectoryNext(WalkDirContext context, char **path)
{
   for (;;) {
      errno = 0;
      struct dirent *entry = readdir(context->dir);
      if (entry == nullptr) {
         return false;
      }
      const char *name = entry->d_name;
      if (strcmp(name, ".") == 0 || strcmp(name, "..") == 0) {
         continue;
      }
      if (!Unicode_IsBufferValid(name, -1, STRING_ENCODING_UTF8)) {
         int escapes[256] = {};
         for (int c = 0x80; c < 256; c++) {
            escapes[c] = 1;
         }
         char *escaped = static_cast<char *>(Escape_Do('\\', escapes, name, strlen(name), nullptr));
         Warning("%s: file '%s' in directory '%s' cannot be converted to UTF8\n", __func__,
                 context->dirName, escaped != nullptr ? escaped : "");
         free(escaped);
         name = kReplacementName;
      }
      if (HashTable_Lookup(context->names, name, nullptr)) {
         continue;
      }
      HashTable_Insert(context->names, name, nullptr);
      if (path != nullptr) {
         *path = Util_SafeStrdup(name);
      }
      errno = 0;
      return true;
   }
}

void File_WalkDirectoryEnd(WalkDirContext context)
{
   if (context == nullptr) {
      return;
   }
   ErrnoKeeper keep;
   closedir(context->dir);
   HashTable_Free(context->names);
   free(context->dirName);
   free(context);
}

int File_ListDirectory(const char *path, char ***ids)
{
   WalkDirContext context = File_WalkDirectoryStart(path);
   if (context == nullptr) {
      return -1;
   }
   std::vector<char *> names;
   char *name;
   while (File_WalkDirectoryNext(context, &name)) {
      names.push_back(name);
   }
   int err = errno;
   File_WalkDirectoryEnd(context);
   if (err != 0) {
      for (char *n : names) {
         free(n);
      }
      errno = err;
      return -1;
   }
   if (ids != nullptr) {
      *ids =
          static_cast<char **>(Util_SafeMalloc(sizeof(char *) * std::max<size_t>(names.size(), 1)));
      std::copy(names.begin(), names.end(), *ids);
   } else {
      for (char *n : names) {
         free(n);
      }
   }
   return static_cast<int>(names.size());
}

/* Search path. */

bool File_FindFileInSearchPath(const char *file, const char *searchPath, const char *cwd,
                               char **result)
{
   char *cur = File_IsFullPath(file) ? Util_SafeStrdup(file)
                                     : Str_SafeAsprintf(nullptr, "%s%s%s", cwd, DIRSEPS, file);
   bool found = ExistsForSearch(cur);
   if (!found && !File_IsFullPath(file)) {
      char *dir = nullptr;
      char *base = nullptr;
      File_GetPathName(file, &dir, &base);
      if (*dir == '\0' && searchPath != nullptr) {
         char *list = Util_SafeStrdup(searchPath);
         char *save = nullptr;
         for (char *tok = strtok_r(list, FILE_SEARCHPATHTOKEN, &save); tok != nullptr;
              tok = strtok_r(nullptr, FILE_SEARCHPATHTOKEN, &save)) {
            free(cur);
            if (File_IsFullPath(tok)) {
               cur = Str_SafeAsprintf(nullptr, "%s%s%s", tok, DIRSEPS, base);
            } else if (strcmp(tok, ".") == 0) {
               cur = Str_SafeAsprintf(nullptr, "%s%s%s", cwd, DIRSEPS, base);
            } else {
               cur = Str_SafeAsprintf(nullptr, "%s%s%s%s%s", cwd, DIRSEPS, tok, DIRSEPS, base);
            }
            if (ExistsForSearch(cur)) {
               found = true;
               break;
            }
         }
         free(list);
      }
      free(dir);
      free(base);
   }
   if (found && result != nullptr) {
      *result = File_FullPath(cur);
      found = *result != nullptr;
   }
   ErrnoKeeper keep;
   free(cur);
   return found;
}

}  // extern "C"
