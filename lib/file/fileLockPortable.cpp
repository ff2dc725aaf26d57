/*
 * The lock-file protocol: Lamport's bakery over a lock directory. A locker raises its choosing
 * flag (an entry directory D), writes its member file under a temporary name (E), takes a
 * number one higher than every member it sees, publishes the member file (M), lowers the flag
 * and waits until no member with a smaller number holds a conflicting lock.
 */
#include <dirent.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "err.h"
#include "file.h"
#include "fileInt.h"
#include "fileLockInt.h"
#include "log.h"
#include "str.h"
#include "util.h"

struct FileLockToken {
   char signature[4]; /* "FLCK" while valid */
   bool portable;
   char *pathName;
   char *lockFilePath; /* the member file, or kImplicitReadToken */
};

namespace {

constexpr uint32_t kProgressLimitMs = 8001;
constexpr uint32_t kStaleAgeMs = 8001;
constexpr uint32_t kScanSleepMs = 200;
constexpr char kSignature[4] = {'F', 'L', 'C', 'K'};
char kImplicitReadToken[] = "implicitReadToken";

using Visitor = int (*)(const char *lockDir, const char *fileName,
                        const FileLockMemberValues *member, LockValues *my);

uint64_t NowMs(void)
{
   struct timespec ts;
   clock_gettime(CLOCK_MONOTONIC, &ts);
   return static_cast<uint64_t>(ts.tv_sec) * 1000 + static_cast<uint64_t>(ts.tv_nsec) / 1000000;
}

/* Serialises this module's umask changes, so that threads never restore each other's 0. */
std::mutex gUmaskLock;

/* mkdir with mode 0777 under a umask of 0, so that every user can take part. */
int MakeDirectoryOpen(const char *path)
{
   std::lock_guard<std::mutex> guard(gUmaskLock);
   mode_t old = umask(0);
   int rc = mkdir(path, 0777);
   int err = rc == -1 ? errno : 0;
   umask(old);
   return err;
}

void RemoveQuietly(const char *path)
{
   int saved = errno;
   unlink(path);
   errno = saved;
}

void RemoveDirQuietly(const char *path)
{
   int saved = errno;
   rmdir(path);
   errno = saved;
}

/* Raises the choosing flag: an entry directory with a number no member uses. */
int FileLockCreateEntryDirectory(const char *lockDir, char **entryDirectory, char **entryFilePath,
                                 char **memberFilePath, char **memberName)
{
   static const char kFunc[] = "FileLockCreateEntryDirectory";
   uint64_t start = NowMs();
   while (true) {
      struct stat st;
      if (stat(lockDir, &st) == -1) {
         int err = errno;
         if (err != ENOENT) {
            Warning("FILE: %s stat failure on '%s': %s\n", kFunc, lockDir, Err_Errno2String(err));
            return err;
         }
         err = MakeDirectoryOpen(lockDir);
         if (err != 0 && err != EEXIST) {
            Warning("FILE: %s creation failure on '%s': %s\n", kFunc, lockDir,
                    Err_Errno2String(err));
            return err;
         }
      } else if (!S_ISDIR(st.st_mode)) {
         if (unlink(lockDir) == -1) {
            int err = errno;
            Warning("FILE: %s: an attempt to remove '%s' failed: %s\n", kFunc, lockDir,
                    Err_Errno2String(err));
            return err;
         }
         Warning("FILE: %s: '%s' is not a directory. Removed.\n", kFunc, lockDir);
         continue;
      }

      uint32_t number = (FileSimpleRandom() >> 8) & 0xFFFF;
      char *dirName = Str_SafeAsprintf(nullptr, "D%05u%s", number, FILELOCK_SUFFIX);
      char *name = Str_SafeAsprintf(nullptr, "M%05u%s", number, FILELOCK_SUFFIX);
      char *entryDir = Str_SafeAsprintf(nullptr, "%s/%s", lockDir, dirName);
      char *entryFile = Str_SafeAsprintf(nullptr, "%s/E%05u%s", lockDir, number, FILELOCK_SUFFIX);
      char *memberFile = Str_SafeAsprintf(nullptr, "%s/%s", lockDir, name);
      free(dirName);

      int err = MakeDirectoryOpen(entryDir);
      if (err == 0) {
         struct stat member;
         if (lstat(memberFile, &member) == -1 && errno == ENOENT) {
            *entryDirectory = entryDir;
            *entryFilePath = entryFile;
            *memberFilePath = memberFile;
            *memberName = name;
            return 0;
         }
         if (rmdir(entryDir) == -1) {
            err = errno;
            Warning("FILE: %s unable to remove '%s': %s\n", kFunc, entryDir, Err_Errno2String(err));
         }
      } else if (err != EEXIST && err != ENOENT) {
         Warning("FILE: %s creation failure on '%s': %s\n", kFunc, entryDir, Err_Errno2String(err));
      } else {
         err = 0;
      }
      free(entryDir);
      free(entryFile);
      free(memberFile);
      free(name);
      if (err != 0) {
         return err;
      }
      if (NowMs() - start >= kProgressLimitMs) {
         Warning("FILE: %s lack of progress on '%s'\n", kFunc, lockDir);
         return EBUSY;
      }
   }
}

/* Writes the member text into the entry file and publishes it as the member file. */
int FileLockCreateMemberFile(FileIODescriptor *desc, const LockValues *my,
                             const char *entryFilePath, const char *memberFilePath)
{
   static const char kFunc[] = "FileLockCreateMemberFile";
   int pid;
   unsigned long long startTime = 0;
   sscanf(my->executionID, "%d-%llu", &pid, &startTime);
   char buffer[kFileLockMemberSize];
   if (!FileLockFormatMemberText(my->machineID, my->executionID, my->lamportNumber, my->lockType,
                                 startTime, my->locationChecksum, buffer)) {
      FileIO_Close(desc);
      return ENAMETOOLONG;
   }
   size_t written = 0;
   FileIOResult result = FileIO_Write(desc, buffer, sizeof buffer, &written);
   if (result != FILEIO_SUCCESS) {
      int err = errno != 0 ? errno : EIO;
      Warning("FILE: %s write of '%s' failed: %s\n", kFunc, entryFilePath, Err_Errno2String(err));
      FileIO_Close(desc);
      return err;
   }
   if (FileIO_Close(desc)) {
      int err = errno;
      Warning("FILE: %s close of '%s' failed: %s\n", kFunc, entryFilePath, Err_Errno2String(err));
      return err;
   }
   if (written != sizeof buffer) {
      Warning("FILE: %s write length issue on '%s': %zd and %zd\n", kFunc, entryFilePath,
              static_cast<ssize_t>(written), static_cast<ssize_t>(sizeof buffer));
      return EIO;
   }
   if (rename(entryFilePath, memberFilePath) == -1) {
      int err = errno;
      Warning("FILE: %s FileRename of '%s' to '%s' failed: %s\n", kFunc, entryFilePath,
              memberFilePath, Err_Errno2String(err));
      return err;
   }
   return 0;
}

/* Reads the names in dir; false with errno on failure. */
bool ListNames(const char *dir, std::vector<std::string> *names)
{
   DIR *d = opendir(dir);
   if (d == nullptr) {
      return false;
   }
   names->clear();
   errno = 0;
   while (struct dirent *e = readdir(d)) {
      if (strcmp(e->d_name, ".") != 0 && strcmp(e->d_name, "..") != 0) {
         names->push_back(e->d_name);
      }
      errno = 0;
   }
   int err = errno;
   closedir(d);
   errno = err;
   return err == 0;
}

int FileLockScanDirectory(const char *lockDir, Visitor visitor, LockValues *my, bool cleanUp)
{
   static const char kFunc[] = "FileLockScanDirectory";
   std::vector<std::string> names;
   if (!ListNames(lockDir, &names)) {
      Log("FILE: %s: Could not read the directory '%s': %d\n", kFunc, lockDir, errno);
      return EDOM;
   }
   std::vector<bool> skip(names.size(), false);
   for (size_t i = 0; i < names.size(); i++) {
      const char *name = names[i].c_str();
      if (!FileLockValidName(name)) {
         Log("FILE: %s discarding %s from %s'; invalid file name.\n", kFunc, name, lockDir);
         int err = FileLockRemoveLockingFile(lockDir, name);
         if (err != 0) {
            return err;
         }
         skip[i] = true;
         continue;
      }
      if (name[0] != 'D') {
         continue;
      }
      skip[i] = true;
      if (cleanUp) {
         // Watched by name and by identity: a new chooser that drew the same number starts
         // its own age.
         FileLockFileId id;
         struct stat st;
         std::string dirPath = std::string(lockDir) + "/" + names[i];
         if (lstat(dirPath.c_str(), &st) == -1) {
            continue;  // it went away
         }
         id = FileLockFileIdOf(st);
         bool found = false;
         for (FileLockActiveLock &active : my->lockList) {
            if (active.dirName == names[i]) {
               if (!FileLockSameFile(active.id, id)) {
                  active.age = 0;
                  active.id = id;
               }
               active.marked = true;
               found = true;
               break;
            }
         }
         if (!found) {
            my->lockList.push_back({names[i], 0, true, id});
         }
      }
   }
   if (!my->lockList.empty()) {
      return 0;  // somebody is choosing a number: decide nothing now
   }

   char *myExecutionID = FileLockGetExecutionID();
   int err = 0;
   for (size_t i = 0; i < names.size() && err == 0; i++) {
      const char *name = names[i].c_str();
      if (skip[i] || name[0] == 'E') {
         continue;
      }
      FileLockMemberValues member;
      if (my->memberName != nullptr && strcmp(name, my->memberName) == 0) {
         member.machineID = my->machineID;
         member.executionID = my->executionID;
         member.lockType = my->lockType;
         member.hasLocationChecksum = true;
         member.locationChecksum = my->locationChecksum;
         member.memberName = my->memberName;
         member.lamportNumber = my->lamportNumber;
      } else {
         int readErr = FileLockMemberValuesRead(lockDir, name, &member);
         if (readErr == ENOENT) {
            continue;
         }
         if (readErr != 0) {
            err = readErr;
            break;
         }
         if (FileLockMachineIDMatch(my->machineID, member.machineID.c_str())) {
            std::string reason;
            if (!FileLockValidExecutionID(member.executionID.c_str())) {
               reason = "invalid executionID " + member.executionID + ".";
            } else if (myExecutionID != nullptr && member.executionID == myExecutionID &&
                       member.hasLocationChecksum &&
                       member.locationChecksum != my->locationChecksum) {
               reason = "lock file has been moved.";
            }
            if (!reason.empty()) {
               Log("FILE: %s discarding %s from %s': %s\n", kFunc, name, lockDir, reason.c_str());
               err = FileLockRemoveIfSame(lockDir, name, member.id);
               continue;
            }
         }
      }
      err = visitor(lockDir, name, &member, my);
   }
   free(myExecutionID);
   return err;
}

/* Scans until a pass finds nobody choosing; entry directories left for ~8 s are removed. */
int FileLockScanner(const char *lockDir, Visitor visitor, LockValues *my, bool cleanUp)
{
   while (true) {
      int err = FileLockScanDirectory(lockDir, visitor, my, cleanUp);
      if (err != 0) {
         return err;
      }
      if (my->lockList.empty()) {
         return 0;
      }
      std::vector<FileLockActiveLock> kept;
      for (FileLockActiveLock &active : my->lockList) {
         if (!active.marked) {
            continue;
         }
         if (active.age < kStaleAgeMs) {
            active.marked = false;
            active.age += kScanSleepMs;
            kept.push_back(active);
            continue;
         }
         std::string dir = std::string(lockDir) + "/" + active.dirName;
         struct stat st;
         if (lstat(dir.c_str(), &st) == -1 || !FileLockSameFile(active.id, FileLockFileIdOf(st))) {
            continue;  // gone, or a new chooser's since this pass
         }
         Log("FILE: %s discarding %s data from '%s'.\n", "FileLockScanner", active.dirName.c_str(),
             lockDir);
         std::string name = active.dirName;
         name[0] = 'M';
         // A chooser killed right after its mkdir may have drawn the number of a live holder
         // on this machine; that member stays.
         FileLockMemberValues member;
         if (FileLockMemberValuesRead(lockDir, name.c_str(), &member) != 0 ||
             !FileLockMachineIDMatch(my->machineID, member.machineID.c_str()) ||
             !FileLockValidExecutionID(member.executionID.c_str())) {
            FileLockRemoveLockingFile(lockDir, name.c_str());
         }
         name[0] = 'E';
         FileLockRemoveLockingFile(lockDir, name.c_str());
         RemoveDirQuietly(dir.c_str());
      }
      my->lockList.swap(kept);
      FileSleeper(kScanSleepMs, kScanSleepMs);
   }
}

int FileLockNumberScan(const char *, const char *, const FileLockMemberValues *member,
                       LockValues *my)
{
   if (member->lamportNumber > my->lamportNumber) {
      my->lamportNumber = member->lamportNumber;
   }
   return 0;
}

}  // namespace

int FileLockWaitForPossession(const char *lockDir, const char *fileName,
                              const FileLockMemberValues *member, LockValues *my)
{
   static const char kFunc[] = "FileLockWaitForPossession";
   bool before = member->lamportNumber < my->lamportNumber ||
                 (member->lamportNumber == my->lamportNumber &&
                  strcmp(member->memberName.c_str(), my->memberName) < 0);
   if (!before) {
      return 0;
   }
   if (member->lockType != "X" && strcmp(my->lockType, "X") != 0) {
      return 0;
   }
   bool thisMachine = FileLockMachineIDMatch(my->machineID, member->machineID.c_str());
   char *path = Str_SafeAsprintf(nullptr, "%s/%s", lockDir, fileName);
   int err = EAGAIN;
   while (my->msecMaxWaitTime != FILELOCK_TRY_LOCK) {
      uint64_t elapsed = NowMs() - my->waitTime;
      if (my->msecMaxWaitTime != FILELOCK_INFINITE_WAIT && elapsed >= my->msecMaxWaitTime) {
         break;
      }
      uint32_t sleep = elapsed <= 2000   ? 100
                       : elapsed < 20000 ? static_cast<uint32_t>(elapsed / 10)
                                         : 2000;
      FileSleeper(sleep / 2, sleep);
      struct stat st;
      if (lstat(path, &st) == -1) {
         err = errno == ENOENT ? 0 : errno;
         break;
      }
      if (member->id.known && !FileLockSameFile(member->id, FileLockFileIdOf(st))) {
         err = 0;  // the member left; a newcomer drew its number
         break;
      }
      if (thisMachine && !FileLockValidExecutionID(member->executionID.c_str())) {
         Warning("FILE: %s discarding file '%s'; invalid executionID.\n", kFunc, path);
         err = FileLockRemoveIfSame(lockDir, fileName, member->id);
         break;
      }
   }
   if (err == EAGAIN && my->msecMaxWaitTime != FILELOCK_TRY_LOCK) {
      if (thisMachine) {
         Log("FILE: %s timeout on '%s' due to a local process '%s'\n", kFunc, path,
             member->executionID.c_str());
      } else {
         Log("FILE: %s timeout on '%s' due to another machine '%s'\n", kFunc, path,
             member->machineID.c_str());
      }
   }
   free(path);
   return err;
}

namespace {

FileLockToken *MakeToken(const char *pathName, char *lockFilePath)
{
   FileLockToken *token = static_cast<FileLockToken *>(Util_SafeMalloc(sizeof *token));
   memcpy(token->signature, kSignature, sizeof kSignature);
   token->portable = true;
   token->pathName = Util_SafeStrdup(pathName);
   token->lockFilePath = lockFilePath;
   return token;
}

FileLockToken *FileLockIntrinsicPortable(const char *pathName, const char *lockDir,
                                         LockValues *my, int *err)
{
   char *entryDir = nullptr;
   char *entryFile = nullptr;
   char *memberFile = nullptr;
   char *memberName = nullptr;
   FileLockToken *token = nullptr;
   *err = FileLockCreateEntryDirectory(lockDir, &entryDir, &entryFile, &memberFile, &memberName);
   if (*err == EROFS || *err == EACCES) {
      if (strcmp(my->lockType, "S") == 0) {
         Log("FILE: %s implicit %s lock succeeded on '%s'.\n", "FileLockIntrinsicPortable", "S",
             pathName);
         *err = 0;
         return MakeToken(pathName, kImplicitReadToken);
      }
      return nullptr;
   }
   if (*err != 0) {
      return nullptr;
   }
   my->memberName = memberName;

   FileIODescriptor desc;
   FileIOResult result =
       FileIO_Create(&desc, entryFile, FILEIO_OPEN_ACCESS_WRITE, FILEIO_OPEN_CREATE_SAFE, 0644);
   if (result != FILEIO_SUCCESS) {
      *err = errno != 0 ? errno : EIO;
      RemoveDirQuietly(entryDir);
      RemoveDirQuietly(lockDir);
      goto done;
   }
   my->lamportNumber = 0;
   *err = FileLockScanner(lockDir, FileLockNumberScan, my, false);
   if (*err != 0) {
      FileIO_Close(&desc);
      RemoveQuietly(entryFile);
      RemoveDirQuietly(entryDir);
      RemoveDirQuietly(lockDir);
      goto done;
   }
   my->lamportNumber++;
   *err = FileLockCreateMemberFile(&desc, my, entryFile, memberFile);
   if (*err == 0 && rmdir(entryDir) == -1) {
      *err = errno;
   }
   if (*err != 0) {
      RemoveQuietly(entryFile);
      RemoveQuietly(memberFile);
      RemoveDirQuietly(entryDir);
      RemoveDirQuietly(lockDir);
      goto done;
   }
   *err = FileLockScanner(lockDir, FileLockWaitForPossession, my, true);
   if (*err == 0) {
      token = MakeToken(pathName, memberFile);
      memberFile = nullptr;
   } else {
      // A timeout, or a failure to scan: leave nothing behind that names this process.
      RemoveQuietly(memberFile);
      RemoveDirQuietly(lockDir);
      if (*err == EAGAIN) {
         *err = 0;
      }
   }

done:
   free(entryDir);
   free(entryFile);
   free(memberFile);
   free(memberName);
   my->memberName = nullptr;
   return token;
}

/* The full path of the directory joined with the base name; NULL when that fails. */
char *NormalizePath(const char *path)
{
   char *dir = nullptr;
   char *base = nullptr;
   File_GetPathName(path, &dir, &base);
   if (dir == nullptr || base == nullptr) {
      free(dir);
      free(base);
      return nullptr;
   }
   if (*dir == '\0') {
      free(dir);
      dir = Util_SafeStrdup(path[0] == '/' ? "/" : ".");
   }
   char *full = File_FullPath(dir);
   char *result = nullptr;
   if (full != nullptr) {
      size_t len = strlen(full);
      result = Str_SafeAsprintf(nullptr, "%s%s%s", full, len > 0 && full[len - 1] == '/' ? "" : "/",
                                base);
   }
   free(full);
   free(dir);
   free(base);
   return result;
}

void AppendPosixMessage(MsgList **msgs, int err)
{
   MsgList_Append(msgs, MSG_MAGIC "(msg.fileLock.posix)A file locking error (%d) has occurred: %s.",
                  err, Err_Errno2String(err));
}

}  // namespace

extern "C" {

FileLockToken *FileLock_Lock(const char *path, bool readOnly, uint32_t maxWaitMsec, int *err,
                             MsgList **msgs)
{
   int res = 0;
   FileLockToken *token = nullptr;
   char *normalized = path != nullptr ? NormalizePath(path) : nullptr;
   if (normalized == nullptr) {
      res = EINVAL;
   } else {
      char *lockDir = Str_SafeAsprintf(nullptr, "%s%s", normalized, FILELOCK_SUFFIX);
      LockValues my{};
      my.machineID = Util_SafeStrdup(FileLockGetMachineID());
      my.executionID = FileLockGetExecutionID();
      my.lockType = readOnly ? "S" : "X";
      my.locationChecksum = FileLockLocationChecksum(lockDir);
      my.memberName = nullptr;
      my.lamportNumber = 0;
      my.waitTime = NowMs();
      my.msecMaxWaitTime = maxWaitMsec;
      if (my.executionID == nullptr) {
         res = errno != 0 ? errno : ESRCH;
      } else {
         token = FileLockIntrinsicPortable(normalized, lockDir, &my, &res);
      }
      free(my.machineID);
      free(my.executionID);
      free(my.locationChecksum);
      free(lockDir);
      free(normalized);
   }
   if (token == nullptr) {
      if (res == 0) {
         res = EAGAIN;
      }
      AppendPosixMessage(msgs, res);
   }
   if (err != nullptr) {
      *err = token == nullptr ? res : 0;
   }
   return token;
}

bool FileLock_Unlock(FileLockToken *token, int *err, MsgList **msgs)
{
   VERIFY(token != nullptr && memcmp(token->signature, kSignature, sizeof kSignature) == 0);
   int res = 0;
   if (token->lockFilePath != kImplicitReadToken) {
      if (unlink(token->lockFilePath) == -1) {
         res = errno;
      }
      char *lockDir = Str_SafeAsprintf(nullptr, "%s%s", token->pathName, FILELOCK_SUFFIX);
      RemoveDirQuietly(lockDir);
      free(lockDir);
      free(token->lockFilePath);
   }
   free(token->pathName);
   memset(token->signature, 0, sizeof token->signature);
   free(token);
   if (err != nullptr) {
      *err = res;
   }
   if (res != 0) {
      AppendPosixMessage(msgs, res);
   }
   return res == 0;
}

bool FileLock_IsLocked(const char *path, int *err, MsgList **msgs)
{
   int res = 0;
   bool locked = false;
   char *normalized = path != nullptr ? NormalizePath(path) : nullptr;
   if (normalized == nullptr) {
      res = EINVAL;
   } else {
      char *lockDir = Str_SafeAsprintf(nullptr, "%s%s", normalized, FILELOCK_SUFFIX);
      std::vector<std::string> names;
      if (!ListNames(lockDir, &names)) {
         res = errno == ENOENT ? 0 : errno;
      }
      for (const std::string &name : names) {
         locked = locked || name[0] == 'M';
      }
      free(lockDir);
      free(normalized);
   }
   if (err != nullptr) {
      *err = res;
   }
   if (res != 0) {
      AppendPosixMessage(msgs, res);
   }
   return locked;
}

int FileLockReleaseToken(FileLockToken *token)
{
   int err = 0;
   FileLock_Unlock(token, &err, nullptr);
   return err;
}

}  // extern "C"
