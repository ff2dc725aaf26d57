/*
 * The configuration modules' file access: reading a whole file and replacing one atomically.
 * Everything here is plain POSIX so that the file library can take its place.
 */
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include "dict/dictInt.h"
#include "internal/retry.h"
#include "internal/uniqueFd.h"

namespace tesmar::dict {

namespace {

constexpr size_t kReadChunk = 64 * 1024;

int ReadAll(int fd, SecureString *out, size_t sizeHint)
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
      ssize_t n = RetryEintr([&] { return read(fd, out->data() + used, out->size() - used); });
      if (n < 0) {
         int error = errno;
         out->Wipe();
         return error;
      }
      if (n == 0) {
         break;
      }
      used += (size_t)n;
   }
   explicit_bzero(out->data() + used, out->size() - used);
   out->resize(used);
   return 0;
}

}  // namespace

int ReadWholeFile(const char *path, SecureString *out, ReadStage *stage)
{
   if (path[0] == '-' && path[1] == '\0') {
      *stage = ReadStage::kRead;
      int error = ReadAll(STDIN_FILENO, out, 0);
      if (error == 0) {
         *stage = ReadStage::kOk;
      }
      return error;
   }
   *stage = ReadStage::kOpen;
   UniqueFd fd(RetryEintr([&] { return open(path, O_RDONLY | O_CLOEXEC); }));
   if (fd.get() < 0) {
      return errno;
   }
   *stage = ReadStage::kStat;
   struct stat st;
   if (fstat(fd.get(), &st) != 0) {
      return errno;
   }
   if (S_ISDIR(st.st_mode)) {
      *stage = ReadStage::kIsDirectory;
      return EISDIR;
   }
   *stage = ReadStage::kRead;
   int error = ReadAll(fd.get(), out, S_ISREG(st.st_mode) ? (size_t)st.st_size : 0);
   if (error == 0) {
      *stage = ReadStage::kOk;
   }
   return error;
}

int WriteFileAtomic(const char *path, std::string_view data)
{
   std::string temp = std::string(path) + ".tmp-XXXXXX";
   UniqueFd fd(mkostemp(temp.data(), O_CLOEXEC));
   if (fd.get() < 0) {
      return errno;
   }
   int error = 0;
   struct stat st;
   mode_t mode = stat(path, &st) == 0 ? (st.st_mode & 07777) : (0666 & ~[] {
      mode_t mask = umask(0);
      umask(mask);
      return mask;
   }());
   size_t done = 0;
   while (error == 0 && done < data.size()) {
      ssize_t n = RetryEintr([&] { return write(fd.get(), data.data() + done, data.size() - done); });
      if (n < 0) {
         error = errno;
      } else {
         done += (size_t)n;
      }
   }
   if (error == 0 && fchmod(fd.get(), mode) != 0) {
      error = errno;
   }
   if (error == 0 && fsync(fd.get()) != 0) {
      error = errno;
   }
   if (error == 0 && close(fd.release()) != 0) {
      error = errno;
   }
   if (error == 0 && rename(temp.c_str(), path) != 0) {
      error = errno;
   }
   if (error != 0) {
      unlink(temp.c_str());
   }
   return error;
}

}  // namespace tesmar::dict
