/*
 * FileIO: result mapping and catalogue texts, the open actions, read and write loops at the
 * end of a file and on full file systems, gathering of vectored transfers, the aligned pool,
 * the atomic update, and the cached error texts.
 */
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>

#include <csignal>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "err.h"
#include "file.h"
#include "fileIO.h"
#include "fileInt.h"
#include "fileTestUtil.h"
#include "id.h"

using namespace filetest;
using testsupport::LogCapture;

namespace {

FileIOResult Open(FileIODescriptor *fd, const std::string &path, uint32_t access,
                  FileIOOpenAction action = FILEIO_OPEN)
{
   return FileIO_Open(fd, path.c_str(), access, action);
}

TEST(FileIOResults, TextsAndErrnoMapping)
{
   struct {
      FileIOResult code;
      const char *english;
      const char *id;
   } const kTexts[] = {
       {FILEIO_SUCCESS, "Success", "msg.fileio.success"},
       {FILEIO_CANCELLED, "The operation was cancelled by the user", "msg.fileio.cancel"},
       {FILEIO_ERROR, "Error", "msg.fileio.generic"},
       {FILEIO_OPEN_ERROR_EXIST, "The file already exists", "msg.fileio.exists"},
       {FILEIO_LOCK_FAILED, "Failed to lock the file", "msg.fileio.lock"},
       {FILEIO_READ_ERROR_EOF, "Tried to read beyond the end of the file", "msg.fileio.eof"},
       {FILEIO_FILE_NOT_FOUND, "Could not find the file", "msg.fileio.notfound"},
       {FILEIO_NO_PERMISSION, "Insufficient permission to access the file", "msg.fileio.noPerm"},
       {FILEIO_FILE_NAME_TOO_LONG, "The file name is too long", "msg.fileio.namelong"},
       {FILEIO_WRITE_ERROR_FBIG, "The file is too large", "msg.fileio.fBig"},
       {FILEIO_WRITE_ERROR_NOSPC, "There is no space left on the device", "msg.fileio.noSpc"},
       {FILEIO_WRITE_ERROR_DQUOT, "There is no space left on the device", "msg.fileio.dQuot"},
   };
   for (const auto &t : kTexts) {
      EXPECT_STREQ(FileIO_ErrorEnglish(t.code), t.english);
      EXPECT_EQ(std::string(FileIO_MsgError(t.code)),
                std::string("@&!*@*@(") + t.id + ")" + t.english);
   }
   LogCapture log;
   EXPECT_STREQ(FileIO_ErrorEnglish(static_cast<FileIOResult>(13)), "Unknown error");
   EXPECT_EQ(log.Text(), "Warning: FileIO_MsgError: bad code 13\n");
   EXPECT_PANIC(FileIO_MsgError(FILEIO_ERROR_LAST), "NOT_IMPLEMENTED lib/file/fileIO:");

   const std::pair<int, FileIOResult> kMap[] = {{ENOENT, FILEIO_FILE_NOT_FOUND},
                                                {EACCES, FILEIO_NO_PERMISSION},
                                                {EEXIST, FILEIO_OPEN_ERROR_EXIST},
                                                {EFBIG, FILEIO_WRITE_ERROR_FBIG},
                                                {ENOSPC, FILEIO_WRITE_ERROR_NOSPC},
                                                {ENAMETOOLONG, FILEIO_FILE_NAME_TOO_LONG},
                                                {EDQUOT, FILEIO_WRITE_ERROR_DQUOT},
                                                {EIO, FILEIO_ERROR},
                                                {EPERM, FILEIO_ERROR}};
   for (const auto &[err, result] : kMap) {
      EXPECT_EQ(FileIO_ErrnoToResult(err), result) << err;
   }
}

TEST(FileIOOpen, ActionsReadsAndWrites)
{
   ScratchDir dir;
   std::string path = dir / "f";
   FileIODescriptor fd;
   struct {
      FileIOOpenAction action;
      bool exists;
      FileIOResult result;
   } const kActions[] = {{FILEIO_OPEN, false, FILEIO_FILE_NOT_FOUND},
                         {FILEIO_OPEN_CREATE_SAFE, false, FILEIO_SUCCESS},
                         {FILEIO_OPEN_CREATE_SAFE, true, FILEIO_OPEN_ERROR_EXIST},
                         {FILEIO_OPEN_CREATE, true, FILEIO_SUCCESS},
                         {FILEIO_OPEN_EMPTY, true, FILEIO_SUCCESS},
                         {FILEIO_OPEN_CREATE_EMPTY, true, FILEIO_SUCCESS}};
   for (const auto &a : kActions) {
      if (!a.exists) {
         unlink(path.c_str());
      }
      EXPECT_EQ(Open(&fd, path, FILEIO_OPEN_ACCESS_WRITE, a.action), a.result) << a.action;
      if (a.result == FILEIO_SUCCESS) {
         EXPECT_EQ(FileIO_Write(&fd, "hello", 5, nullptr), FILEIO_SUCCESS);
         EXPECT_FALSE(FileIO_Close(&fd));
      } else {
         EXPECT_FALSE(FileIO_IsValid(&fd));
         EXPECT_EQ(fd.fileName, nullptr);
      }
   }

   // A read past the end: result 5 with the bytes there were.
   char buf[16];
   size_t got = 99;
   ASSERT_EQ(Open(&fd, path, FILEIO_OPEN_ACCESS_READ), FILEIO_SUCCESS);
   EXPECT_EQ(FileIO_GetSize(&fd), 5);
   EXPECT_EQ(FileIO_Read(&fd, buf, sizeof buf, &got), FILEIO_READ_ERROR_EOF);
   EXPECT_EQ(got, 5u);
   EXPECT_EQ(FileIO_Read(&fd, buf, sizeof buf, &got), FILEIO_READ_ERROR_EOF);
   EXPECT_EQ(got, 0u);
   FileIO_Close(&fd);

   // Delete right after opening, a refused privileged create, and the lock seam.
   ASSERT_EQ(Open(&fd, path, FILEIO_OPEN_ACCESS_READ | FILEIO_OPEN_DELETE_ASAP), FILEIO_SUCCESS);
   EXPECT_FALSE(Exists(path));
   FileIO_Close(&fd);
   errno = 0;
   EXPECT_EQ(Open(&fd, path, FILEIO_OPEN_ACCESS_WRITE | FILEIO_OPEN_PRIVILEGED, FILEIO_OPEN_CREATE),
             FILEIO_NO_PERMISSION);
   EXPECT_EQ(errno, EACCES);
   LogCapture log;
   EXPECT_EQ(
       Open(&fd, path, FILEIO_OPEN_ACCESS_WRITE | FILEIO_OPEN_EXCLUSIVE_LOCK, FILEIO_OPEN_CREATE),
       FILEIO_LOCK_FAILED);
   // An advisory lock that cannot be taken (no directory for it) fails the open.
   std::string lost = dir / "missing/f";
   EXPECT_EQ(Open(&fd, lost, FILEIO_OPEN_ACCESS_WRITE | FILEIO_OPEN_LOCKED, FILEIO_OPEN_CREATE),
             FILEIO_FILE_NOT_FOUND);
   EXPECT_FALSE(FileIO_IsValid(&fd));
   EXPECT_FALSE(Exists(path));
   EXPECT_NE(log.Text().find("Warning: FILE: FileIO_Lock on '" + lost + "' failed: "),
             std::string::npos);
   EXPECT_EQ(FileIO_Open(&fd, nullptr, FILEIO_OPEN_ACCESS_READ, FILEIO_OPEN), FILEIO_ERROR);
   EXPECT_EQ(errno, EFAULT);
}

TEST(FileIOOpen, FullFileSystemsAndSizeLimits)
{
   ScratchDir dir;
   std::string path = dir / "big";
   std::vector<char> block(1024 * 1024, 'x');
   FileIODescriptor fd;
   // A size limit of the process: the write stops with "file too large".
   EXPECT_TRUE(testsupport::InChild([&] {
      signal(SIGXFSZ, SIG_IGN);
      struct rlimit limit = {100000, 100000};
      setrlimit(RLIMIT_FSIZE, &limit);
      Open(&fd, path, FILEIO_OPEN_ACCESS_WRITE, FILEIO_OPEN_CREATE_EMPTY);
      size_t written = 0;
      FileIOResult r = FileIO_Write(&fd, block.data(), block.size(), &written);
      return r == FILEIO_WRITE_ERROR_FBIG && written == 100000;
   }));

   if (!PrivateMounts()) {
      GTEST_SKIP() << "needs root to mount a small file system";
   }
   std::string small = dir / "small";
   mkdir(small.c_str(), 0755);
   ASSERT_TRUE(MountTmpfs(small, "256k"));
   path = small + "/f";
   ASSERT_EQ(Open(&fd, path, FILEIO_OPEN_ACCESS_WRITE, FILEIO_OPEN_CREATE_EMPTY), FILEIO_SUCCESS);
   size_t written = 0;
   EXPECT_EQ(FileIO_Write(&fd, block.data(), block.size(), &written), FILEIO_WRITE_ERROR_NOSPC);
   EXPECT_LT(written, block.size());
   EXPECT_TRUE(FileIO_SupportsFileSize(&fd, 1ull << 40));
   FileIO_Close(&fd);
   umount2(small.c_str(), MNT_DETACH);
}

int gHookCalls = 0;

int CountingOpener(const char *path, int flags)
{
   gHookCalls++;
   return open(path, flags);
}

TEST(FileIOOpen, PrivilegedOpenRaisesOnlyAroundTheOpen)
{
   if (geteuid() != 0) {
      GTEST_SKIP() << "needs root to lower and raise a thread's identity";
   }
   ScratchDir dir;
   std::string secret = dir / "secret";
   WriteFile(secret, "root only");
   chmod(secret.c_str(), 0600);
   chmod(dir.Path().c_str(), 0755);
   std::thread worker([&] {
      // This thread alone becomes an ordinary user; the saved root id allows raising.
      ASSERT_EQ(Id_SetRESUid(static_cast<uid_t>(-1), 65534, static_cast<uid_t>(-1)), 0);
      FileIODescriptor fd;
      EXPECT_EQ(Open(&fd, secret, FILEIO_OPEN_ACCESS_READ), FILEIO_NO_PERMISSION);
      ASSERT_EQ(Open(&fd, secret, FILEIO_OPEN_ACCESS_READ | FILEIO_OPEN_PRIVILEGED),
                FILEIO_SUCCESS);
      EXPECT_EQ(static_cast<uid_t>(syscall(SYS_geteuid)), 65534u);
      FileIO_Close(&fd);
      FileIO_SetPrivilegedOpener(CountingOpener);
      EXPECT_EQ(Open(&fd, secret, FILEIO_OPEN_ACCESS_READ | FILEIO_OPEN_PRIVILEGED),
                FILEIO_NO_PERMISSION);  // the hook opens as this thread's own user
      EXPECT_EQ(gHookCalls, 1);
      FileIO_SetPrivilegedOpener(nullptr);
      Id_SetRESUid(static_cast<uid_t>(-1), 0, static_cast<uid_t>(-1));
   });
   worker.join();
}

TEST(FileIOVectored, TransfersRoundTrip)
{
   ScratchDir dir;
   std::string path = dir / "v";
   FileIODescriptor fd;
   ASSERT_EQ(Open(&fd, path, FILEIO_OPEN_ACCESS_READ | FILEIO_OPEN_ACCESS_WRITE,
                  FILEIO_OPEN_CREATE_EMPTY),
             FILEIO_SUCCESS);
   // Gathered (64 small entries), plain (3 entries) and more than 1024 entries in one call.
   for (int count : {64, 3, 1500}) {
      SCOPED_TRACE(count);
      std::vector<std::string> parts;
      std::vector<std::string> back;
      std::vector<struct iovec> v;
      std::vector<struct iovec> rv;
      std::string expected;
      for (int i = 0; i < count; i++) {
         parts.emplace_back(static_cast<size_t>(1 + i % 7), static_cast<char>('a' + i % 26));
         expected += parts.back();
      }
      back = parts;
      for (size_t i = 0; i < parts.size(); i++) {
         v.push_back({parts[i].data(), parts[i].size()});
         rv.push_back({back[i].data(), back[i].size()});
      }
      const size_t size = expected.size();
      size_t done = 0;
      ASSERT_EQ(FileIO_Truncate(&fd, 0), FILEIO_SUCCESS);
      FileIO_Seek(&fd, 0, SEEK_SET);
      EXPECT_EQ(FileIO_Writev(&fd, v.data(), count, size, &done), FILEIO_SUCCESS);
      EXPECT_EQ(done, size);
      EXPECT_EQ(ReadFile(path), expected);
      EXPECT_EQ(FileIO_Pwritev(&fd, v.data(), count, size, size, &done), FILEIO_SUCCESS);
      EXPECT_EQ(ReadFile(path), expected + expected);
      for (int preadv = 0; preadv < 2; preadv++) {
         for (auto &b : back) {
            b.assign(b.size(), '?');
         }
         FileIO_Seek(&fd, size, SEEK_SET);
         EXPECT_EQ(preadv ? FileIO_Preadv(&fd, rv.data(), count, 0, size, &done)
                          : FileIO_Readv(&fd, rv.data(), count, size, &done),
                   FILEIO_SUCCESS);
         EXPECT_EQ(back, parts);
      }
      // Past the end: result 5.
      EXPECT_EQ(FileIO_Preadv(&fd, rv.data(), count, size * 2 - 1, size, &done),
                FILEIO_READ_ERROR_EOF);
      EXPECT_EQ(done, 1u);
   }
   // More bytes asked for than the entries hold.
   char one = 'z';
   struct iovec single = {&one, 1};
   size_t done = 0;
   EXPECT_EQ(FileIO_Writev(&fd, &single, 1, 2, &done), FILEIO_ERROR);
   EXPECT_EQ(done, 1u);
   FileIO_Close(&fd);
}

TEST(FileIOPool, LimitsAndRelease)
{
   // A fresh process: the pool must not have been set up by an earlier test.
   GTEST_FLAG_SET(death_test_style, "threadsafe");
   EXPECT_EXIT(
       {
          Log_SetOutputFd(2);
          bool ok = FileIOAligned_PoolMalloc(4096) == nullptr;  // never set up
          FileIOPosixInit();
          ok = ok && FileIOAligned_PoolMalloc(0x100001) == nullptr;
          std::vector<void *> held;
          for (int i = 0; i < 30; i++) {
             void *b = FileIOAligned_PoolMalloc(0x100000);
             ok = ok && b != nullptr && reinterpret_cast<uintptr_t>(b) % 4096 == 0;
             held.push_back(b);
          }
          ok = ok && FileIOAligned_PoolMalloc(1) == nullptr;
          int unknown = 0;
          ok = ok && !FileIOAligned_PoolFree(&unknown);
          ok = ok && FileIOAligned_PoolFree(held[3]);
          ok = ok && !FileIOAligned_PoolFree(held[3]);
          ok = ok && FileIOAligned_PoolMalloc(1) == held[3];
          FileIOAligned_PoolExit();
          _exit(ok ? 0 : 1);
       },
       ::testing::ExitedWithCode(0),
       "FileIOAligned_PoolMalloc called without FileIOAligned_Pool lock\n.*"
       "FileIOAligned_PoolExit: 30 busy buffers!  Proceeding with trepidation.\n");
}

TEST(FileIOAtomic, UpdateKeepsModeOwnerGroupAndContents)
{
   ScratchDir dir;
   std::string path = dir / "config";
   WriteFile(path, "old contents");
   chmod(path.c_str(), 0640);
   // Root hands the file to somebody else first.
   uid_t owner = geteuid() == 0 ? 65534 : geteuid();
   gid_t group = geteuid() == 0 ? 65534 : getegid();
   ASSERT_EQ(chown(path.c_str(), owner, group), 0);
   FileIODescriptor current;
   FileIODescriptor temp;
   ASSERT_EQ(Open(&current, path, FILEIO_OPEN_ACCESS_READ), FILEIO_SUCCESS);
   std::string tempPath = Take(FileIO_AtomicTempPath(path.c_str()));
   EXPECT_EQ(tempPath, path + "~");
   WriteFile(tempPath, "stale temporary");
   ASSERT_EQ(FileIO_AtomicTempFile(&current, &temp), FILEIO_SUCCESS);
   EXPECT_EQ(FileIO_Write(&temp, "new", 3, nullptr), FILEIO_SUCCESS);
   ASSERT_TRUE(FileIO_AtomicUpdateEx(&temp, &current));
   EXPECT_FALSE(FileIO_IsValid(&temp));
   EXPECT_FALSE(Exists(tempPath));
   EXPECT_EQ(ReadFile(path), "new");
   struct stat st;
   ASSERT_EQ(stat(path.c_str(), &st), 0);
   EXPECT_EQ(st.st_mode & 07777, 0640u);
   EXPECT_EQ(st.st_uid, owner);
   EXPECT_EQ(st.st_gid, group);
   // The current record now reads the new contents.
   char buf[8];
   size_t got = 0;
   FileIO_Seek(&current, 0, SEEK_SET);
   EXPECT_EQ(FileIO_Read(&current, buf, sizeof buf, &got), FILEIO_READ_ERROR_EOF);
   EXPECT_EQ(std::string(buf, got), "new");
   FileIO_Close(&current);

   // A failed rename leaves both files and says so.
   LogCapture log;
   FileIODescriptor a;
   FileIODescriptor b;
   FileIO_Invalidate(&a);
   FileIO_Invalidate(&b);
   a.posix = open(path.c_str(), O_RDONLY);
   a.fileName = strdup((dir / "missing").c_str());
   b.fileName = strdup((dir / "nodir/x").c_str());
   EXPECT_FALSE(FileIO_AtomicUpdateEx(&a, &b));
   EXPECT_NE(log.Text().find("FileIO_AtomicUpdateEx: rename of '" + dir / "missing" + "' to '" +
                             dir / "nodir/x" + "' failed 2.\n"),
             std::string::npos);
   FileIO_Close(&a);
   free(b.fileName);
}

TEST(ErrTexts, CachedStableAndReversible)
{
   errno = EDOM;
   const char *text = Err_Errno2String(ENOENT);
   EXPECT_EQ(errno, EDOM);
   EXPECT_STREQ(text, strerror(ENOENT));
   EXPECT_EQ(Err_Errno2String(ENOENT), text);  // the same pointer: cached
   EXPECT_EQ(Err_String2Errno(text), ENOENT);
   EXPECT_EQ(Err_String2Errno("no such text"), -1);
   EXPECT_STREQ(Err_Errno2String(123456), "Unknown error 123456");
   errno = EACCES;
   EXPECT_STREQ(Err_ErrString(), strerror(EACCES));
}

}  // namespace
