/*
 * Temporary and safe directories: a writable temporary directory, the private per-user (and
 * per-process) safe directory below it, and uniquely named temporary files and directories.
 * An existing directory is reused only when it is a real directory of the effective user with
 * owner-only access.
 */
#include <dirent.h>
#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

#include "config.h"
#include "file.h"
#include "fileInt.h"
#include "log.h"
#include "str.h"
#include "userlock.h"
#include "util.h"

namespace {

constexpr MX_Rank kSafeTmpDirLockRank = 0xF0007086u;
constexpr int kMaxSafeDirAttempts = 251;
constexpr uint32_t kMaxTempAttempts = 0x3FFFFFFF;
const char kProductTag[] = "tesmar";

struct SafeTmpDirCache {
   uid_t uid = static_cast<uid_t>(-1);
   char *shared = nullptr;
   char *perProcess = nullptr;
};

MXUserExclLock *gSafeTmpDirLock = nullptr;
SafeTmpDirCache gSafeTmpDir;

/* A directory of the effective user, not a link, with owner-only access (set-group-id aside). */
bool FileAcceptableSafeTmpDir(const char *path, uid_t uid)
{
   struct stat st;
   return lstat(path, &st) == 0 && S_ISDIR(st.st_mode) && st.st_uid == uid &&
          (st.st_mode & 0xBFF) == 0700;
}

/* mkdir with owner-only access, or an existing directory that passes the check. */
bool FileMakeOrAccept(const char *path, uid_t uid)
{
   if (mkdir(path, 0700) == 0) {
      return true;
   }
   return errno == EEXIST && FileAcceptableSafeTmpDir(path, uid);
}

char *FileGetUserName(uid_t uid)
{
   char buf[128];
   struct passwd pw;
   struct passwd *result = nullptr;
   if (getpwuid_r(uid, &pw, buf, sizeof buf, &result) != 0 || result == nullptr) {
      Warning("%s: Unable to retrieve the user name associated with UID %u.\n", __func__, uid);
      return nullptr;
   }
   return Util_SafeStrdup(result->pw_name);
}

char *FileGetUserIdentifier(uid_t uid, bool addPid)
{
   char *name = FileGetUserName(uid);
   if (name == nullptr) {
      Warning("%s: Failed to get user name, using UID.\n", __func__);
      name = Str_SafeAsprintf(nullptr, "uid_%u", uid);
   }
   if (addPid) {
      char *withPid = Str_SafeAsprintf(nullptr, "%s_%u", name, static_cast<unsigned>(getpid()));
      free(name);
      name = withPid;
   }
   return name;
}

/* Accepts candidate (tilde expanded) when it is a directory the effective user can write. */
char *FileTryTmpDir(const char *candidate)
{
   if (candidate == nullptr) {
      return nullptr;
   }
   char *expanded = Util_ExpandString(candidate);
   if (expanded != nullptr && File_IsWritableDir(expanded)) {
      return expanded;
   }
   free(expanded);
   return nullptr;
}

/* Makes dir (owner-only) and dir/name below it; the new path or NULL. */
char *FileCreateSafeSubdir(const char *dir, const char *name)
{
   uid_t uid = geteuid();
   struct stat st;
   if (stat(dir, &st) == -1) {
      return nullptr;
   }
   if (mkdir(dir, 0700) == -1 && !(errno == EEXIST && FileAcceptableSafeTmpDir(dir, uid))) {
      if (errno == EEXIST) {
         errno = EACCES;
      }
      return nullptr;
   }
   char *path = File_PathJoin(dir, name);
   if (mkdir(path, 0700) == 0) {
      return path;
   }
   int err = errno;
   if (err == EEXIST && FileAcceptableSafeTmpDir(path, uid)) {
      return path;
   }
   free(path);
   errno = err;
   return nullptr;
}

char *FileMakeTempExCreateNameFunc(uint32_t num, void *data)
{
   return Str_SafeAsprintf(nullptr, "%s%u", static_cast<const char *>(data), num);
}

}  // namespace

extern "C" {

char *FileGetTmpDir(bool useConf)
{
   char *dir = nullptr;
   if (useConf) {
      char *configured = Config_GetString(nullptr, "tmpDirectory");
      dir = FileTryTmpDir(configured);
      free(configured);
   }
   if (dir == nullptr) {
      dir = FileTryTmpDir(getenv("TMPDIR"));
   }
   const char *const kFixed[] = {"/var/tmp/", "/tmp", "~"};
   for (size_t i = 0; dir == nullptr && i < sizeof kFixed / sizeof kFixed[0]; i++) {
      dir = FileTryTmpDir(kFixed[i]);
   }
   if (dir == nullptr) {
      char *cwd = File_Cwd(nullptr);
      dir = FileTryTmpDir(cwd);
      free(cwd);
   }
   if (dir == nullptr) {
      dir = FileTryTmpDir("/");
   }
   if (dir == nullptr) {
      Warning("%s: Couldn't get a temporary directory\n", __func__);
   }
   return dir;
}

char *FileCreateSafeTmpDir(bool useConf, bool perProcess)
{
   MXUserExclLock *lock =
       MXUser_CreateSingletonExclLock(&gSafeTmpDirLock, "getSafeTmpDirLock", kSafeTmpDirLockRank);
   MXUser_AcquireExclLock(lock);

   uid_t uid = geteuid();
   if (gSafeTmpDir.uid != uid) {
      free(gSafeTmpDir.shared);
      free(gSafeTmpDir.perProcess);
      gSafeTmpDir.shared = nullptr;
      gSafeTmpDir.perProcess = nullptr;
      gSafeTmpDir.uid = uid;
   }
   char **cached = perProcess ? &gSafeTmpDir.perProcess : &gSafeTmpDir.shared;
   char *result = nullptr;
   if (*cached != nullptr && FileMakeOrAccept(*cached, uid)) {
      result = Util_SafeStrdup(*cached);
      MXUser_ReleaseExclLock(lock);
      return result;
   }

   char *tmpDir = FileGetTmpDir(useConf);
   char *found = nullptr;
   if (tmpDir != nullptr) {
      char *user = FileGetUserIdentifier(uid, perProcess);
      if (!perProcess) {
         char *path = Str_SafeAsprintf(nullptr, "%s%s%s-%s", tmpDir, "/", kProductTag, user);
         if (FileMakeOrAccept(path, uid)) {
            found = path;
         } else {
            free(path);
         }
      }
      if (found == nullptr) {
         std::string prefix = std::string(kProductTag) + "-" + user + "-";
         DIR *dir = opendir(tmpDir);
         if (dir != nullptr) {
            struct dirent *entry;
            while (found == nullptr && (entry = readdir(dir)) != nullptr) {
               if (strncmp(entry->d_name, prefix.c_str(), prefix.size()) != 0) {
                  continue;
               }
               char *path = Str_SafeAsprintf(nullptr, "%s%s%s", tmpDir, "/", entry->d_name);
               if (File_IsDirectory(path) && FileMakeOrAccept(path, uid)) {
                  found = path;
               } else {
                  free(path);
               }
            }
            closedir(dir);
         }
      }
      for (int i = 0; found == nullptr && i < kMaxSafeDirAttempts; i++) {
         char *path = Str_SafeAsprintf(nullptr, "%s%s%s-%s-%u", tmpDir, "/", kProductTag, user,
                                       FileSimpleRandom());
         if (FileMakeOrAccept(path, uid)) {
            found = path;
         } else if (i == kMaxSafeDirAttempts - 1) {
            Warning(
                "%s: Failed to create a safe temporary directory, path \"%s\". The maximum "
                "number of attempts was exceeded.\n",
                __func__, path);
            free(path);
         } else {
            free(path);
         }
      }
      free(user);
      free(tmpDir);
   }
   if (found != nullptr) {
      free(*cached);
      *cached = found;
      result = Util_SafeStrdup(found);
   }
   MXUser_ReleaseExclLock(lock);
   return result;
}

char *File_GetSafeTmpDir(bool useConf)
{
   return FileCreateSafeTmpDir(useConf, false);
}

char *File_GetSafeRandomTmpDir(bool useConf)
{
   return FileCreateSafeTmpDir(useConf, true);
}

int File_MakeTempEx2(const char *dir, bool createTempFile, bool makeSafeDir,
                     File_MakeTempCreateNameFunc *createNameFunc, void *createNameFuncData,
                     char **presult)
{
   if (presult != nullptr) {
      *presult = nullptr;
   }
   if (dir == nullptr || createNameFunc == nullptr || presult == nullptr) {
      errno = EFAULT;
      return -1;
   }
   const char *kind = createTempFile ? "file" : "directory";
   uint32_t var = 0;
   for (uint32_t i = 0; i < kMaxTempAttempts; i++) {
      var += (FileSimpleRandom() >> 8) & 0xFF;
      var = (var & ~1u) + (createTempFile ? 1u : 0u);
      char *name = createNameFunc(var, createNameFuncData);
      if (name == nullptr) {
         errno = ENOMEM;
         return -1;
      }
      char *path = File_PathJoin(dir, name);
      int result = -1;
      if (createTempFile) {
         result = open(path, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
      } else if (makeSafeDir) {
         char *made = FileCreateSafeSubdir(dir, name);
         if (made != nullptr) {
            free(made);
            result = 0;
         }
      } else {
         result = mkdir(path, 0700);
      }
      if (result != -1) {
         free(name);
         *presult = path;
         return result;
      }
      int err = errno;
      if (err != EEXIST) {
         Log("FILE: Failed to create temporary %s; dir \"%s\", objName \"%s\", errno %d\n", kind,
             dir, name, err);
         free(name);
         free(path);
         errno = err;
         return -1;
      }
      free(name);
      free(path);
   }
   Warning("FILE: Failed to create temporary %s: The name space is full.\n", kind);
   errno = EAGAIN;
   return -1;
}

int File_MakeTempEx(const char *dir, const char *fileName, char **presult)
{
   return File_MakeTempEx2(dir, true, false, FileMakeTempExCreateNameFunc,
                           const_cast<char *>(fileName), presult);
}

int File_MakeTemp(const char *tag, char **presult)
{
   char *dir = nullptr;
   char *prefix = nullptr;
   if (tag != nullptr && File_IsFullPath(tag)) {
      File_GetPathName(tag, &dir, &prefix);
   } else {
      dir = File_GetSafeTmpDir(true);
      prefix = Util_SafeStrdup(tag != nullptr ? tag : kProductTag);
   }
   int fd = File_MakeTempEx(dir, prefix, presult);
   int err = errno;
   free(dir);
   free(prefix);
   errno = err;
   return fd;
}

char *File_MakeSafeTempDir(const char *prefix)
{
   char *dir = File_GetSafeTmpDir(true);
   if (dir == nullptr) {
      return nullptr;
   }
   char *result = nullptr;
   char *name = Util_SafeStrdup(prefix != nullptr ? prefix : "safeDir");
   File_MakeTempEx2(dir, false, true, FileMakeTempExCreateNameFunc, name, &result);
   int err = errno;
   free(name);
   free(dir);
   errno = err;
   return result;
}

}  // extern "C"
