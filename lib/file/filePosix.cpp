/*
 * File operations that depend on the system's file model: stat, the working directory and
 * full paths, times and permissions, the writable-directory test, replacement, rotation,
 * size limits, capacity and free space, and the virtual-device test.
 */
#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/sysmacros.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "err.h"
#include "file.h"
#include "fileInt.h"
#include "log.h"
#include "msg.h"
#include "msgList.h"
#include "str.h"
#include "unicodeBase.h"
#include "util.h"

namespace {

constexpr int64_t kWinEpochOffset = 116444736000000000LL;
constexpr uint64_t kMaxSupportedFileSize = 0x400000000000ULL;

class ErrnoKeeper {
  public:
   ErrnoKeeper() : saved_(errno) {}
   ~ErrnoKeeper() { errno = saved_; }
   ErrnoKeeper(const ErrnoKeeper &) = delete;
   ErrnoKeeper &operator=(const ErrnoKeeper &) = delete;

  private:
   int saved_;
};

FileType TypeOf(mode_t mode)
{
   static const FileType kTypes[] = {FILE_TYPE_CHARDEVICE, FILE_TYPE_DIRECTORY,
                                     FILE_TYPE_BLOCKDEVICE, FILE_TYPE_REGULAR, FILE_TYPE_SYMLINK};
   unsigned fmt = mode & 0xF000;
   if (fmt < 0x2000 || (fmt - 0x2000) % 0x2000 != 0) {
      return FILE_TYPE_UNCERTAIN;
   }
   unsigned index = (fmt - 0x2000) >> 13;
   return index < 5 ? kTypes[index] : FILE_TYPE_UNCERTAIN;
}

int64_t ToNtTime(const struct timespec &ts)
{
   return static_cast<int64_t>(ts.tv_sec) * 10000000 + ts.tv_nsec / 100 + kWinEpochOffset;
}

/* Seconds and nanoseconds of a 1601-based time; -1 when it lies before 1970. */
int FromNtTime(int64_t value, struct timespec *ts)
{
   if (value < kWinEpochOffset) {
      ts->tv_sec = 0;
      ts->tv_nsec = 0;
      return -1;
   }
   value -= kWinEpochOffset;
   ts->tv_sec = static_cast<time_t>(value / 10000000);
   ts->tv_nsec = static_cast<long>(value % 10000000) * 100;
   return 0;
}

std::string CollapseSlashes(const std::string &path)
{
   std::string out;
   for (char c : path) {
      if (c == '/' && !out.empty() && out.back() == '/') {
         continue;
      }
      out += c;
   }
   return out;
}

bool IsNetworkFileSystem(uint64_t type)
{
   static const uint64_t kRemote[] = {
       0x6969,     /* NFS */
       0x517B,     /* SMB */
       0xFE534D42, /* SMB2 */
       0xFF534D42, /* CIFS */
       0x5346414F, /* AFS */
       0x6B414653, /* kAFS */
       0x00C36400, /* Ceph */
       0x01021997, /* 9P */
       0x73757245, /* Coda */
       0x564C,     /* NCP */
       0x0BD00BD0, /* Lustre */
       0x01161970, /* GFS2 */
   };
   for (uint64_t t : kRemote) {
      if (t == type) {
         return true;
      }
   }
   return false;
}

bool IsGroupsMember(gid_t gid)
{
   if (getegid() == gid) {
      return true;
   }
   std::vector<gid_t> groups(16);
   for (;;) {
      int n = getgroups(static_cast<int>(groups.size()), groups.data());
      if (n >= 0) {
         groups.resize(static_cast<size_t>(n));
         break;
      }
      if (errno != EINVAL) {
         Log("FILE: %s: Couldn't getgroups\n", "FileIsGroupsMember");
         return false;
      }
      int needed = getgroups(0, nullptr);
      if (needed < 0) {
         Log("FILE: %s: Couldn't getgroups\n", "FileIsGroupsMember");
         return false;
      }
      groups.resize(static_cast<size_t>(needed) + 1);
   }
   for (gid_t g : groups) {
      if (g == gid) {
         return true;
      }
   }
   return false;
}

/* statfs of the path, ascending to parents while it is missing unless doNotAscend is set. */
bool FileGetSpaceInternal(const char *fullPath, bool doNotAscend, struct statfs *sfs,
                          char **answered)
{
   char *path = Util_SafeStrdup(fullPath);
   for (;;) {
      if (statfs(path, sfs) == 0) {
         if (answered != nullptr) {
            *answered = path;
         } else {
            free(path);
         }
         return true;
      }
      if (errno != ENOENT || doNotAscend || File_GetParent(&path)) {
         ErrnoKeeper keep;
         free(path);
         return false;
      }
   }
}

bool FileGetMaxOrSupportsFileSize(const char *dir, uint64_t *size, bool getMaxFileSize)
{
   char *fullPath = File_FullPath(dir);
   if (fullPath == nullptr) {
      Log("FILE: %s: Error acquiring full path for path: %s.\n", __func__, dir);
      return false;
   }
   char *temp = nullptr;
   int posix = File_MakeTempEx(fullPath, ".qzBigFileTest", &temp);
   if (posix < 0) {
      Log("FILE: %s: Failed to create temporary file in dir: %s\n", __func__, fullPath);
      free(fullPath);
      return false;
   }
   FileIODescriptor fd;
   FileIO_Invalidate(&fd);
   fd.posix = posix;
   bool result;
   if (getMaxFileSize) {
      *size = FileIO_SupportsFileSize(&fd, kMaxSupportedFileSize) ? kMaxSupportedFileSize
                                                                  : 0xFFFFFFFFull;
      result = true;
   } else {
      result = FileIO_SupportsFileSize(&fd, *size);
   }
   close(posix);
   unlink(temp);
   free(temp);
   free(fullPath);
   return result;
}

}  // namespace

extern "C" {

int File_Stat(const char *path, FileData *fileData)
{
   struct stat st;
   if (path == nullptr) {
      errno = EFAULT;
      return EFAULT;
   }
   if (stat(path, &st) == -1) {
      return errno;
   }
   if (fileData != nullptr) {
      fileData->fileAccessTime = st.st_atime;
      fileData->fileCreationTime = st.st_ctime;
      fileData->fileModificationTime = st.st_mtime;
      fileData->fileSize = static_cast<uint64_t>(st.st_size);
      fileData->fileType = TypeOf(st.st_mode);
      fileData->fileMode = st.st_mode;
      fileData->fileOwner = st.st_uid;
      fileData->fileGroup = st.st_gid;
   }
   return 0;
}

bool File_GetFilePermissions(const char *path, int *mode)
{
   FileData data;
   if (File_Stat(path, &data) != 0) {
      return false;
   }
   *mode = static_cast<int>(data.fileMode);
   return true;
}

bool File_SetFilePermissions(const char *path, int mode)
{
   if (chmod(path, static_cast<mode_t>(mode)) == -1) {
      ErrnoKeeper keep;
      Log("FILE: %s: failed to change permissions on file \"%s\": %s\n", __func__, path,
          Err_ErrString());
      return false;
   }
   return true;
}

char *File_Cwd(const char *drive)
{
   if (drive != nullptr && *drive != '\0') {
      Warning("FILE: %s: Drive letter %s on Linux?\n", __func__, drive);
   }
   size_t size = 1024;
   std::vector<char> buf(size);
   while (getcwd(buf.data(), size) == nullptr) {
      if (errno != ERANGE) {
         ErrnoKeeper keep;
         Msg_Append(MSG_MAGIC
                    "(msg.filePosix.getcwd)Unable to retrieve the current working "
                    "directory: %s. Check if the directory has been deleted or "
                    "unmounted.\n",
                    Err_ErrString());
         Warning("FILE: %s: getcwd() failed: %s\n", __func__, Err_ErrString());
         return nullptr;
      }
      size += 1024;
      buf.resize(size);
   }
   return Unicode_Alloc(buf.data(), STRING_ENCODING_DEFAULT);
}

char *File_FullPath(const char *pathName)
{
   std::string path;
   if (pathName == nullptr || pathName[0] != '/') {
      char *cwd = File_Cwd(nullptr);
      if (cwd == nullptr) {
         return nullptr;
      }
      if (pathName == nullptr || *pathName == '\0') {
         return cwd;
      }
      path = std::string(cwd) + "/" + pathName;
      free(cwd);
   } else {
      path = pathName;
   }
   char resolved[PATH_MAX];
   if (realpath(path.c_str(), resolved) != nullptr) {
      return Util_SafeStrdup(resolved);
   }
   size_t slash = path.rfind('/');
   std::string prefix = slash == std::string::npos ? std::string() : path.substr(0, slash);
   struct stat st;
   while (!prefix.empty() && stat(prefix.c_str(), &st) == -1) {
      size_t cut = prefix.rfind('/');
      prefix.resize(cut == std::string::npos ? 0 : cut);
   }
   std::string rest = path.substr(prefix.size());
   if (prefix.empty()) {
      prefix = path[0] == '/' ? "/" : ".";
   }
   std::string result;
   if (realpath(prefix.c_str(), resolved) != nullptr) {
      result = CollapseSlashes(std::string(resolved) + "/" + rest);
      if (result.size() > 1 && result.back() == '/' && (rest.empty() || rest.back() != '/')) {
         result.pop_back();
      }
   } else {
      result = CollapseSlashes(path);
   }
   errno = 0;
   return Unicode_Alloc(result.c_str(), STRING_ENCODING_DEFAULT);
}

bool File_GetTimes(const char *path, int64_t *createTime, int64_t *accessTime, int64_t *writeTime,
                   int64_t *attrChangeTime)
{
   *createTime = -1;
   *accessTime = -1;
   *writeTime = -1;
   *attrChangeTime = -1;
   struct stat st;
   if (lstat(path, &st) == -1) {
      ErrnoKeeper keep;
      Log("FILE: %s: error stating file \"%s\": %s\n", __func__, path, Err_ErrString());
      return false;
   }
   *accessTime = ToNtTime(st.st_atim);
   *writeTime = ToNtTime(st.st_mtim);
   *attrChangeTime = ToNtTime(st.st_ctim);
   return true;
}

bool File_SetTimes(const char *path, int64_t createTime, int64_t accessTime, int64_t writeTime,
                   int64_t attrChangeTime)
{
   (void)createTime;
   (void)attrChangeTime;
   char *local = static_cast<char *>(Unicode_GetAllocBytes(path, STRING_ENCODING_DEFAULT));
   if (local == nullptr) {
      Log("FILE: %s: failed to convert \"%s\" to current encoding\n", __func__, path);
      return false;
   }
   struct stat st;
   if (lstat(local, &st) == -1) {
      if (errno != 0) {
         ErrnoKeeper keep;
         Log("FILE: %s: error stating file \"%s\": %s\n", __func__, path, Err_ErrString());
      }
      free(local);
      return false;
   }
   struct timeval times[2];
   times[0].tv_sec = st.st_atim.tv_sec;
   times[0].tv_usec = st.st_atim.tv_nsec / 1000;
   times[1].tv_sec = st.st_mtim.tv_sec;
   times[1].tv_usec = st.st_mtim.tv_nsec / 1000;
   struct timespec ts;
   if (accessTime > 0) {
      FromNtTime(accessTime, &ts);
      times[0].tv_sec = ts.tv_sec;
      times[0].tv_usec = ts.tv_nsec / 1000;
   }
   if (writeTime > 0) {
      FromNtTime(writeTime, &ts);
      times[1].tv_sec = ts.tv_sec;
      times[1].tv_usec = ts.tv_nsec / 1000;
   }
   bool ok = utimes(local, times) == 0;
   if (!ok) {
      ErrnoKeeper keep;
      Log("FILE: %s: utimes error on file \"%s\": %s\n", __func__, path, Err_ErrString());
   }
   ErrnoKeeper keep;
   free(local);
   return ok;
}

bool File_IsRemote(const char *path)
{
   struct statfs sfs;
   if (statfs(path, &sfs) == -1) {
      ErrnoKeeper keep;
      Log("FILE: %s: statfs(%s) failed: %s\n", __func__, path, Err_ErrString());
      return true;
   }
   return IsNetworkFileSystem(static_cast<uint64_t>(sfs.f_type));
}

bool File_MakeCfgFileExecutable(const char *path)
{
   struct stat st;
   if (stat(path, &st) == -1) {
      return false;
   }
   mode_t mode = st.st_mode & 07777;
   mode_t newMode = mode | 0700 | ((mode >> 2) & 0011);
   if (newMode == mode) {
      return true;
   }
   // The answer is inverted on purpose: callers treat "changed" as false.
   return chmod(path, newMode) != 0;
}

bool File_IsWritableDir(const char *path)
{
   struct stat st;
   if (path == nullptr || stat(path, &st) == -1 || !S_ISDIR(st.st_mode)) {
      return false;
   }
   uid_t euid = geteuid();
   if (euid == 0) {
      return true;
   }
   mode_t need;
   if (st.st_uid == euid) {
      need = S_IWUSR | S_IXUSR;
   } else if (IsGroupsMember(st.st_gid)) {
      need = S_IWGRP | S_IXGRP;
   } else {
      need = S_IWOTH | S_IXOTH;
   }
   return (st.st_mode & need) == need;
}

bool File_Replace(const char *oldFile, const char *newFile)
{
   if (oldFile == nullptr || newFile == nullptr) {
      errno = EFAULT;
      return false;
   }
   char *oldLocal = static_cast<char *>(Unicode_GetAllocBytes(oldFile, STRING_ENCODING_DEFAULT));
   char *newLocal = static_cast<char *>(Unicode_GetAllocBytes(newFile, STRING_ENCODING_DEFAULT));
   int err = 0;
   if (oldLocal == nullptr || newLocal == nullptr) {
      Msg_Append(MSG_MAGIC
                 "(msg.filePosix.replaceConversionFailed)"
                 "Failed to convert file path \"%s\" to current encoding\n",
                 oldLocal == nullptr ? oldFile : newFile);
      err = ERANGE;
   } else {
      struct stat st;
      if (stat(oldLocal, &st) == 0 && chmod(newLocal, st.st_mode & 07777) == -1) {
         err = errno;
         Msg_Append(MSG_MAGIC
                    "(msg.filePosix.replaceChmodFailed)"
                    "Failed to duplicate file permissions from \"%s\" to \"%s\": %s\n",
                    oldFile, newFile, Err_Errno2String(err));
      } else if (rename(newLocal, oldLocal) == -1) {
         err = errno;
         Msg_Append(MSG_MAGIC
                    "(msg.filePosix.replaceRenameFailed)"
                    "Failed to rename \"%s\" to \"%s\": %s\n",
                    newFile, oldFile, Err_Errno2String(err));
      }
   }
   free(oldLocal);
   free(newLocal);
   errno = err;
   return err == 0;
}

bool File_GetMaxFileSize(const char *path, uint64_t *maxFileSize)
{
   if (maxFileSize == nullptr) {
      Log("FILE: %s: maxFileSize passed as NULL.\n", __func__);
      return false;
   }
   uint64_t size = 0;
   if (!FileGetMaxOrSupportsFileSize(path, &size, true)) {
      return false;
   }
   *maxFileSize = size > kMaxSupportedFileSize ? kMaxSupportedFileSize : size;
   return true;
}

bool File_SupportsFileSize(const char *path, uint64_t fileSize)
{
   if (fileSize < 0x80000000ULL) {
      return true;
   }
   if (fileSize > kMaxSupportedFileSize) {
      return false;
   }
   return FileGetMaxOrSupportsFileSize(path, &fileSize, false);
}

bool File_SupportsLargeFiles(const char *path)
{
   return File_SupportsFileSize(path, 0x100000000ULL);
}

uint64_t File_GetCapacity(const char *path)
{
   char *fullPath = File_FullPath(path);
   if (fullPath == nullptr) {
      return ~0ULL;
   }
   struct statfs sfs;
   uint64_t result = ~0ULL;
   if (FileGetSpaceInternal(fullPath, false, &sfs, nullptr)) {
      result = static_cast<uint64_t>(sfs.f_frsize) * static_cast<uint64_t>(sfs.f_blocks);
   } else {
      ErrnoKeeper keep;
      Warning("FILE: %s: Couldn't statfs\n", __func__);
   }
   free(fullPath);
   return result;
}

uint64_t File_GetFreeSpace(const char *path, bool doNotAscend)
{
   char *fullPath = File_FullPath(path);
   if (fullPath == nullptr) {
      return ~0ULL;
   }
   struct statfs sfs;
   uint64_t result = ~0ULL;
   // No volume figure for "important usage" exists here: the statfs figure stands.
   if (FileGetSpaceInternal(fullPath, doNotAscend, &sfs, nullptr)) {
      result = static_cast<uint64_t>(sfs.f_frsize) * static_cast<uint64_t>(sfs.f_bavail);
   } else {
      ErrnoKeeper keep;
      Warning("%s: Couldn't statfs %s\n", __func__, fullPath);
   }
   free(fullPath);
   return result;
}

bool File_IsOnVirtualDevice(int fd)
{
   struct stat st;
   if (fstat(fd, &st) == -1) {
      return false;
   }
   char link[64];
   Str_Sprintf(link, sizeof link, "/sys/dev/block/%u:%u", major(st.st_dev), minor(st.st_dev));
   char resolved[PATH_MAX];
   if (realpath(link, resolved) == nullptr) {
      return false;
   }
   return strncmp(resolved, "/sys/devices/virtual/", 21) == 0;
}

/* Rotation. */

bool FileRotateParseCopy(const char *name, const char *baseName, const char *ext, uint32_t *number)
{
   size_t nameLen = strlen(name);
   size_t baseLen = strlen(baseName);
   size_t extLen = strlen(ext);
   if (nameLen < baseLen + extLen + 2 || strncmp(name, baseName, baseLen) != 0 ||
       name[baseLen] != '-' || strcmp(name + nameLen - extLen, ext) != 0) {
      return false;
   }
   const char *digits = name + baseLen + 1;
   if (*digits < '1' || *digits > '9') {
      return false;
   }
   char *end = nullptr;
   errno = 0;
   unsigned long value = strtoul(digits, &end, 10);
   if (errno == ERANGE || value > 0xFFFFFFFFul || end != name + nameLen - extLen) {
      errno = 0;
      return false;
   }
   *number = static_cast<uint32_t>(value);
   return true;
}

}  // extern "C"

namespace {

int CompareCopyNumbers(const void *a, const void *b)
{
   // The unsigned difference read as a signed int orders numbers up to 2^31 apart.
   return static_cast<int>(*static_cast<const uint32_t *>(a) - *static_cast<const uint32_t *>(b));
}

void FileRotateByRename(const char *fileName, const char *base, const char *ext, int n,
                        char **newFileName)
{
   for (int i = n; i >= 0; i--) {
      char *src = i == 0 ? Util_SafeStrdup(fileName)
                         : Str_SafeAsprintf(nullptr, "%s-%d%s", base, i - 1, ext);
      if (i == n) {
         int err = FileDeletion(src, false);
         if (err != 0 && err != ENOENT) {
            Log("FILE: %s: failed to remove %s: %s\n", __func__, src, Err_Errno2String(err));
         }
      } else {
         char *dst = Str_SafeAsprintf(nullptr, "%s-%d%s", base, i, ext);
         if (rename(src, dst) == -1) {
            if (errno != ENOENT) {
               // The arguments stand in this order in the log line that tools read.
               Log("FILE: %s: rename of %s -> %s failed: %s\n", src, dst, __func__,
                   Err_ErrString());
            }
         } else if (i == 0 && newFileName != nullptr) {
            *newFileName = Util_SafeStrdup(dst);
         }
         free(dst);
      }
      free(src);
   }
}

void FileRotateByRenumber(const char *fileName, const char *base, const char *ext, int n,
                          char **newFileName)
{
   char *fullPath = File_FullPath(base);
   if (fullPath == nullptr) {
      Log("FILE: %s: failed to get full path for '%s'.\n", __func__, base);
      return;
   }
   char *dir = nullptr;
   char *baseName = nullptr;
   File_GetPathName(fullPath, &dir, &baseName);
   if (*dir == '\0') {
      free(dir);
      dir = Util_SafeStrdup("/");
   }
   char **names = nullptr;
   int count = -1;
   if (*baseName == '\0') {
      Log("FILE: %s: failed to get base name for path '%s'.\n", __func__, fullPath);
   } else {
      count = File_ListDirectory(dir, &names);
      if (count < 0) {
         Log("FILE: %s: failed to read the directory '%s'.\n", __func__, dir);
      }
   }
   if (count >= 0) {
      std::vector<uint32_t> numbers;
      for (int i = 0; i < count; i++) {
         uint32_t number;
         if (FileRotateParseCopy(names[i], baseName, ext, &number)) {
            numbers.push_back(number);
         }
      }
      if (!numbers.empty()) {
         qsort(numbers.data(), numbers.size(), sizeof(uint32_t), CompareCopyNumbers);
      }
      if (!numbers.empty() && numbers.back() == 0xFFFFFFFFu) {
         for (size_t k = 0; k < numbers.size(); k++) {
            char *src = Str_SafeAsprintf(nullptr, "%s/%s-%u%s", dir, baseName, numbers[k], ext);
            uint32_t renumbered = static_cast<uint32_t>(k + 1);
            char *dst = Str_SafeAsprintf(nullptr, "%s/%s-%u%s", dir, baseName, renumbered, ext);
            if (rename(src, dst) == -1) {
               Log("FILE: %s: rename of %s -> %s failed: %s\n", __func__, src, dst,
                   Err_ErrString());
            }
            numbers[k] = renumbered;
            free(src);
            free(dst);
         }
      }
      uint32_t next = numbers.empty() ? 1 : numbers.back() + 1;
      char *target = Str_SafeAsprintf(nullptr, "%s/%s-%u%s", dir, baseName, next, ext);
      if (rename(fileName, target) == -1) {
         if (errno != ENOENT) {
            Log("FILE: %s: rename of %s -> %s failed: %s\n", __func__, fileName, target,
                Err_ErrString());
         }
      } else if (newFileName != nullptr) {
         *newFileName = Util_SafeStrdup(target);
      }
      free(target);
      if (n >= 0 && numbers.size() >= static_cast<size_t>(n)) {
         size_t remove = numbers.size() - static_cast<size_t>(n) + 1;
         for (size_t k = 0; k < remove && k < numbers.size(); k++) {
            char *old = Str_SafeAsprintf(nullptr, "%s/%s-%u%s", dir, baseName, numbers[k], ext);
            int err = FileDeletion(old, false);
            if (err != 0) {
               Log("FILE: %s: failed to remove %s: %s\n", __func__, old, Err_Errno2String(err));
            }
            free(old);
         }
      }
      for (int i = 0; i < count; i++) {
         free(names[i]);
      }
      free(names);
   }
   free(dir);
   free(baseName);
   free(fullPath);
}

}  // namespace

extern "C" void File_Rotate(const char *fileName, int n, bool noRename, char **newFileName)
{
   if (newFileName != nullptr) {
      *newFileName = nullptr;
   }
   const char *dot = strrchr(fileName, '.');
   std::string ext = dot != nullptr ? dot : "";
   std::string base(fileName, strlen(fileName) - ext.size());
   if (noRename) {
      FileRotateByRenumber(fileName, base.c_str(), ext.c_str(), n, newFileName);
   } else if (n >= 0) {
      FileRotateByRename(fileName, base.c_str(), ext.c_str(), n, newFileName);
   }
}
