/*
 * Member files of the lock-file protocol: their 512-byte text and its older form, entry
 * names, the location checksum and the removal of files inside a lock directory.
 */
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "err.h"
#include "fileLockInt.h"
#include "internal/retry.h"
#include "internal/uniqueFd.h"
#include "log.h"
#include "str.h"

namespace {

/* Splits text at spaces; false when it has more than kFileLockMaxFields fields. */
bool SplitFields(const std::string &text, std::vector<std::string> *fields)
{
   fields->clear();
   size_t pos = 0;
   while (pos < text.size()) {
      if (text[pos] == ' ') {
         pos++;
         continue;
      }
      size_t end = text.find(' ', pos);
      if (end == std::string::npos) {
         end = text.size();
      }
      if (fields->size() == kFileLockMaxFields) {
         return false;
      }
      fields->push_back(text.substr(pos, end - pos));
      pos = end;
   }
   return true;
}

/* key=value with a non-empty key and value. */
bool IsKeyValue(const std::string &field, std::string *key, std::string *value)
{
   size_t eq = field.find('=');
   if (eq == std::string::npos || eq == 0 || eq + 1 == field.size()) {
      return false;
   }
   *key = field.substr(0, eq);
   *value = field.substr(eq + 1);
   return true;
}

bool ParseFields(const std::string &text, FileLockMemberValues *values,
                 std::vector<std::string> *argv, bool allowOldForm)
{
   if (!SplitFields(text, argv) || argv->size() < 5) {
      return false;
   }
   std::string key;
   std::string value;
   for (size_t i = 5; i < argv->size(); i++) {
      if (!IsKeyValue((*argv)[i], &key, &value)) {
         return false;
      }
   }
   const std::vector<std::string> &f = *argv;
   if (allowOldForm && f[1].find_first_of("-()") == std::string::npos && f.size() == 6) {
      // The older form lacks the start time in the execution id.
      std::string converted =
          f[0] + " " + f[1] + "-" + f[4] + " " + f[2] + " " + f[3] + " " + f[4] + " " + f[5];
      return ParseFields(converted, values, argv, false);
   }
   unsigned int number;
   if (sscanf(f[2].c_str(), "%u", &number) != 1) {
      return false;
   }
   if (f[3] != "S" && f[3] != "X") {
      return false;
   }
   values->machineID = f[0];
   values->executionID = f[1];
   values->lamportNumber = number;
   values->lockType = f[3];
   values->hasLocationChecksum = false;
   values->locationChecksum.clear();
   for (size_t i = 5; i < f.size(); i++) {
      IsKeyValue(f[i], &key, &value);
      if (key == "lc") {
         values->hasLocationChecksum = true;
         values->locationChecksum = value;
      }
   }
   return true;
}

}  // namespace

bool FileLockParseMemberText(const char *buffer, size_t size, FileLockMemberValues *values,
                             std::vector<std::string> *argv)
{
   if (size > kFileLockMemberSize) {
      size = kFileLockMemberSize;
   }
   std::string text(buffer, strnlen(buffer, size));
   return ParseFields(text, values, argv, true);
}

bool FileLockFormatMemberText(const char *machineID, const char *executionID,
                              uint32_t lamportNumber, const char *lockType, uint64_t startTime,
                              const char *locationChecksum, char out[kFileLockMemberSize])
{
   char text[kFileLockMemberSize + 1];
   int len;
   if (locationChecksum != nullptr) {
      len = Str_Snprintf(text, sizeof text, "%s %s %u %s %llu lc=%s", machineID, executionID,
                         lamportNumber, lockType, static_cast<unsigned long long>(startTime),
                         locationChecksum);
   } else {
      len = Str_Snprintf(text, sizeof text, "%s %s %u %s %llu", machineID, executionID,
                         lamportNumber, lockType, static_cast<unsigned long long>(startTime));
   }
   if (len < 0 || static_cast<size_t>(len) > kFileLockMemberSize) {
      return false;
   }
   memset(out, 0, kFileLockMemberSize);
   memcpy(out, text, static_cast<size_t>(len));
   return true;
}

int FileLockRemoveLockingFile(const char *lockDir, const char *fileName)
{
   char *path = Str_SafeAsprintf(nullptr, "%s/%s", lockDir, fileName);
   int err = unlink(path) == -1 ? errno : 0;
   if (err == ENOENT) {
      err = 0;
   }
   if (err != 0) {
      Warning("FILE: %s of '%s' failed: %s\n", "FileLockRemoveLockingFile", path,
              Err_Errno2String(err));
   }
   free(path);
   return err;
}

FileLockFileId FileLockFileIdOf(const struct stat &st)
{
   FileLockFileId id;
   id.known = true;
   id.dev = st.st_dev;
   id.ino = st.st_ino;
   id.ctime = st.st_ctim;
   return id;
}

bool FileLockSameFile(const FileLockFileId &a, const FileLockFileId &b)
{
   return a.known && b.known && a.dev == b.dev && a.ino == b.ino &&
          a.ctime.tv_sec == b.ctime.tv_sec && a.ctime.tv_nsec == b.ctime.tv_nsec;
}

int FileLockRemoveIfSame(const char *lockDir, const char *fileName, const FileLockFileId &id)
{
   if (id.known) {
      std::string path = std::string(lockDir) + "/" + fileName;
      struct stat st;
      if (lstat(path.c_str(), &st) == -1) {
         return errno == ENOENT ? 0 : errno;
      }
      if (!FileLockSameFile(id, FileLockFileIdOf(st))) {
         return 0;  // somebody else's new file under the same name
      }
   }
   return FileLockRemoveLockingFile(lockDir, fileName);
}

int FileLockMemberValuesRead(const char *dirName, const char *fileName,
                             FileLockMemberValues *values)
{
   static const char kFunc[] = "FileLockMemberValues";
   char *path = Str_SafeAsprintf(nullptr, "%s/%s", dirName, fileName);
   tesmar::UniqueFd fd(
       tesmar::RetryEintr([&] { return open(path, O_RDONLY | O_CLOEXEC | O_NOFOLLOW, 0444); }));
   int err = 0;
   char buffer[kFileLockMemberSize];
   std::vector<std::string> argv;
   bool problematic = false;
   if (!fd.valid()) {
      err = errno;
      if (err != ENOENT) {
         Warning("FILE: %s open failure on '%s': %s\n", kFunc, path, Err_Errno2String(err));
      }
      free(path);
      return err;
   }
   struct stat st;
   if (fstat(fd.get(), &st) == -1) {
      err = errno;
      if (err != ENOENT) {
         Warning("FILE: %s file size failure on '%s': %s\n", kFunc, path, Err_Errno2String(err));
      }
      free(path);
      return err;
   }
   values->id = FileLockFileIdOf(st);
   if (static_cast<uint64_t>(st.st_size) != kFileLockMemberSize) {
      Warning("FILE: %s file '%s': size %llu, required size %zd\n", kFunc, path,
              static_cast<unsigned long long>(st.st_size),
              static_cast<ssize_t>(kFileLockMemberSize));
      problematic = true;
   } else {
      ssize_t got = tesmar::RetryEintr([&] { return read(fd.get(), buffer, kFileLockMemberSize); });
      if (got == -1) {
         err = errno;
         Warning("FILE: %s read failure on '%s': %s\n", kFunc, path, Err_Errno2String(err));
         free(path);
         return err;
      }
      if (static_cast<size_t>(got) != kFileLockMemberSize) {
         Warning("FILE: %s read length issue on '%s': %zd and %zd\n", kFunc, path, got,
                 static_cast<ssize_t>(kFileLockMemberSize));
         free(path);
         return EIO;
      }
      problematic = !FileLockParseMemberText(buffer, sizeof buffer, values, &argv);
   }
   if (problematic) {
      Log("FILE: %s removing problematic lock file '%s'\n", kFunc, path);
      if (!argv.empty()) {
         Log("FILE: %s '%s' contents are:\n", kFunc, fileName);
         for (size_t i = 0; i < argv.size(); i++) {
            Log("FILE: %s %s argv[%u]: '%s'\n", kFunc, fileName, static_cast<unsigned>(i),
                argv[i].c_str());
         }
      }
      err = FileLockRemoveIfSame(dirName, fileName, values->id);
      free(path);
      return err == 0 ? ENOENT : err;
   }
   values->memberName = fileName;
   free(path);
   return 0;
}

extern "C" {

char *FileLockLocationChecksum(const char *path)
{
   uint32_t hash = 5381;
   for (const char *p = path; *p != '\0'; p++) {
      hash = hash * 33 + static_cast<uint32_t>(static_cast<int32_t>(static_cast<signed char>(*p)));
   }
   return Str_SafeAsprintf(nullptr, "%u", hash);
}

bool FileLockValidName(const char *name)
{
   if (name[0] != 'M' && name[0] != 'D' && name[0] != 'E') {
      return false;
   }
   for (int i = 1; i < 6; i++) {
      if (name[i] < '0' || name[i] > '9') {
         return false;
      }
   }
   size_t len = strlen(name);
   size_t suffix = strlen(FILELOCK_SUFFIX);
   return len >= suffix && strcmp(name + len - suffix, FILELOCK_SUFFIX) == 0;
}

}  // extern "C"
