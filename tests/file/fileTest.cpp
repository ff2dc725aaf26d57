/*
 * The file library: FileIO's results, open actions, full file systems, privileged opens,
 * vectored transfers, aligned pool and atomic update; path arithmetic, directories and tree
 * deletion, copies and their faults, a tree copy compared with `cp -a`, rotation, listing of
 * odd names, attributes; and the temporary and safe directories.
 */
#include <ftw.h>
#include <gmock/gmock.h>
#include <pwd.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <functional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "err.h"
#include "file.h"
#include "fileIO.h"
#include "fileInt.h"
#include "id.h"
#include "msg.h"
#include "msgList.h"
#include "testSupport.h"

namespace {

using namespace testsupport;
using ::testing::HasSubstr;
using Ids = std::vector<std::string>;

/* The identifiers of the pending user messages, oldest first; the list is emptied. */
inline Ids TakeMessageIds()
{
   Ids ids;
   MsgList *list = Msg_TakeList();
   for (MsgList *m = list; m != nullptr; m = m->next) {
      ids.insert(ids.begin(), m->id != nullptr ? m->id : "");
   }
   MsgList_Free(list);
   return ids;
}

/*
 * Moves the test process into its own mount namespace once, so that it can mount small
 * file systems and read-only binds that nobody else sees. False when that is not allowed.
 */
inline bool PrivateMounts()
{
   static bool ok = geteuid() == 0 && unshare(CLONE_NEWNS) == 0 &&
                    mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
   return ok;
}

/* Every test but the pool's works in its own scratch directory (base: its resolved path). */
struct FileTest : ::testing::Test {
   ScratchDir dir;
   std::string base = Take(realpath(dir.Path().c_str(), nullptr));
};

FileIOResult Open(FileIODescriptor *fd, const std::string &path, uint32_t access,
                  FileIOOpenAction action = FILEIO_OPEN)
{
   return FileIO_Open(fd, path.c_str(), access, action);
}

TEST(FileIOResults, TextsAndErrnoMapping)
{
   const std::tuple<FileIOResult, std::string, std::string> kTexts[] = {
       {FILEIO_SUCCESS, "Success", "success"},
       {FILEIO_CANCELLED, "The operation was cancelled by the user", "cancel"},
       {FILEIO_ERROR, "Error", "generic"},
       {FILEIO_OPEN_ERROR_EXIST, "The file already exists", "exists"},
       {FILEIO_LOCK_FAILED, "Failed to lock the file", "lock"},
       {FILEIO_READ_ERROR_EOF, "Tried to read beyond the end of the file", "eof"},
       {FILEIO_FILE_NOT_FOUND, "Could not find the file", "notfound"},
       {FILEIO_NO_PERMISSION, "Insufficient permission to access the file", "noPerm"},
       {FILEIO_FILE_NAME_TOO_LONG, "The file name is too long", "namelong"},
       {FILEIO_WRITE_ERROR_FBIG, "The file is too large", "fBig"},
       {FILEIO_WRITE_ERROR_NOSPC, "There is no space left on the device", "noSpc"},
       {FILEIO_WRITE_ERROR_DQUOT, "There is no space left on the device", "dQuot"},
   };
   for (const auto &[code, english, id] : kTexts) {
      EXPECT_EQ(FileIO_ErrorEnglish(code), english);
      EXPECT_EQ(FileIO_MsgError(code), "@&!*@*@(msg.fileio." + id + ")" + english);
   }
   LogCapture log;
   EXPECT_STREQ(FileIO_ErrorEnglish(static_cast<FileIOResult>(13)), "Unknown error");
   EXPECT_EQ(log.Text(), "Warning: FileIO_MsgError: bad code 13\n");

   // The rest of the mapping shows in the opens and writes below.
   EXPECT_EQ(FileIO_ErrnoToResult(ENAMETOOLONG), FILEIO_FILE_NAME_TOO_LONG);
   EXPECT_EQ(FileIO_ErrnoToResult(ENOSPC), FILEIO_WRITE_ERROR_NOSPC);
   EXPECT_EQ(FileIO_ErrnoToResult(EDQUOT), FILEIO_WRITE_ERROR_DQUOT);

   errno = EDOM;
   const char *text = Err_Errno2String(ENOENT);
   EXPECT_EQ(errno, EDOM);
   EXPECT_STREQ(text, strerror(ENOENT));
   EXPECT_EQ(Err_String2Errno(text), ENOENT);
   EXPECT_EQ(Err_String2Errno("no such text"), -1);
   EXPECT_STREQ(Err_Errno2String(123456), "Unknown error 123456");
}

TEST_F(FileTest, IOOpenActionsReadsAndWrites)
{
   std::string path = dir / "f";
   FileIODescriptor fd;
   const std::tuple<FileIOOpenAction, FileIOResult> kActions[] = {
       {FILEIO_OPEN, FILEIO_FILE_NOT_FOUND},
       {FILEIO_OPEN_CREATE_SAFE, FILEIO_SUCCESS},
       {FILEIO_OPEN_CREATE_SAFE, FILEIO_OPEN_ERROR_EXIST},
       {FILEIO_OPEN_CREATE_EMPTY, FILEIO_SUCCESS}};
   for (const auto &[action, result] : kActions) {
      EXPECT_EQ(Open(&fd, path, FILEIO_OPEN_ACCESS_WRITE, action), result) << action;
      if (result == FILEIO_SUCCESS) {
         EXPECT_EQ(FileIO_Write(&fd, "hello", 5, nullptr), FILEIO_SUCCESS);
         EXPECT_FALSE(FileIO_Close(&fd));
      } else {
         EXPECT_TRUE(!FileIO_IsValid(&fd) && fd.fileName == nullptr);
      }
   }

   // A read past the end gives the bytes there were; the file goes as soon as it is open.
   char buf[16];
   size_t got = 99;
   ASSERT_EQ(Open(&fd, path, FILEIO_OPEN_ACCESS_READ | FILEIO_OPEN_DELETE_ASAP), FILEIO_SUCCESS);
   EXPECT_FALSE(Exists(path));
   EXPECT_EQ(FileIO_Read(&fd, buf, sizeof buf, &got), FILEIO_READ_ERROR_EOF);
   EXPECT_EQ(got, 5u);
   EXPECT_EQ(FileIO_Read(&fd, buf, sizeof buf, &got), FILEIO_READ_ERROR_EOF);
   EXPECT_EQ(got, 0u);
   FileIO_Close(&fd);

   // A refused privileged create, the locks, and no name at all.
   EXPECT_EQ(Open(&fd, path, FILEIO_OPEN_ACCESS_WRITE | FILEIO_OPEN_PRIVILEGED, FILEIO_OPEN_CREATE),
             FILEIO_NO_PERMISSION);
   EXPECT_EQ(errno, EACCES);
   EXPECT_EQ(
       Open(&fd, path, FILEIO_OPEN_ACCESS_WRITE | FILEIO_OPEN_EXCLUSIVE_LOCK, FILEIO_OPEN_CREATE),
       FILEIO_LOCK_FAILED);
   EXPECT_FALSE(Exists(path));
   EXPECT_EQ(FileIO_Open(&fd, nullptr, FILEIO_OPEN_ACCESS_READ, FILEIO_OPEN), FILEIO_ERROR);
   EXPECT_EQ(errno, EFAULT);

   // A size limit of the process: the write stops with "file too large" after what fitted.
   std::vector<char> block(1024 * 1024, 'x');
   EXPECT_TRUE(InChild([&] {
      signal(SIGXFSZ, SIG_IGN);
      struct rlimit limit = {100000, 100000};
      setrlimit(RLIMIT_FSIZE, &limit);
      Open(&fd, path, FILEIO_OPEN_ACCESS_WRITE, FILEIO_OPEN_CREATE_EMPTY);
      return FileIO_Write(&fd, block.data(), block.size(), &got) == FILEIO_WRITE_ERROR_FBIG &&
             got == 100000;
   }));

   ASSERT_EQ(Open(&fd, path, FILEIO_OPEN_ACCESS_READ | FILEIO_OPEN_ACCESS_WRITE,
                  FILEIO_OPEN_CREATE_EMPTY),
             FILEIO_SUCCESS);
   // Gathered (64 small entries), plain (3 entries) and more than 1024 entries in one call.
   for (int count : {64, 3, 1500}) {
      SCOPED_TRACE(count);
      std::vector<std::string> parts, back;
      std::vector<struct iovec> v, rv;
      std::string expected;
      for (int i = 0; i < count; i++) {
         parts.emplace_back(static_cast<size_t>(1 + i % 7), static_cast<char>('a' + i % 26));
         back.emplace_back(parts.back().size(), '?');
         expected += parts.back();
      }
      for (int i = 0; i < count; i++) {
         v.push_back({parts[i].data(), parts[i].size()});
         rv.push_back({back[i].data(), back[i].size()});
      }
      const size_t size = expected.size();
      size_t done = 0;
      ASSERT_EQ(FileIO_Truncate(&fd, 0), FILEIO_SUCCESS);
      FileIO_Seek(&fd, 0, SEEK_SET);
      EXPECT_EQ(FileIO_Writev(&fd, v.data(), count, size, &done), FILEIO_SUCCESS);
      EXPECT_EQ(FileIO_Pwritev(&fd, v.data(), count, size, size, &done), FILEIO_SUCCESS);
      EXPECT_EQ(ReadFile(path), expected + expected);
      FileIO_Seek(&fd, size, SEEK_SET);
      EXPECT_EQ(FileIO_Readv(&fd, rv.data(), count, size, &done), FILEIO_SUCCESS);
      EXPECT_EQ(back, parts);
      for (auto &b : back) {
         b.assign(b.size(), '?');
      }
      EXPECT_EQ(FileIO_Preadv(&fd, rv.data(), count, 0, size, &done), FILEIO_SUCCESS);
      EXPECT_EQ(back, parts);
      // Past the end: the end-of-file result with the byte there was.
      EXPECT_EQ(FileIO_Preadv(&fd, rv.data(), count, size * 2 - 1, size, &done),
                FILEIO_READ_ERROR_EOF);
      EXPECT_EQ(done, 1u);
   }
   // More bytes asked for than the entries hold.
   char one = 'z';
   struct iovec single = {&one, 1};
   EXPECT_EQ(FileIO_Writev(&fd, &single, 1, 2, &got), FILEIO_ERROR);
   EXPECT_EQ(got, 1u);
   FileIO_Close(&fd);
}

int gHookCalls = 0;

TEST_F(FileTest, IOPrivilegedOpenRaisesOnlyAroundTheOpen)
{
   if (geteuid() != 0) {
      GTEST_SKIP() << "needs root to lower and raise a thread's identity";
   }
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
      FileIO_SetPrivilegedOpener([](const char *path, int flags) {
         gHookCalls++;
         return open(path, flags);
      });
      EXPECT_EQ(Open(&fd, secret, FILEIO_OPEN_ACCESS_READ | FILEIO_OPEN_PRIVILEGED),
                FILEIO_NO_PERMISSION);  // the hook opens as this thread's own user
      EXPECT_EQ(gHookCalls, 1);
      FileIO_SetPrivilegedOpener(nullptr);
      Id_SetRESUid(static_cast<uid_t>(-1), 0, static_cast<uid_t>(-1));
   });
   worker.join();
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
          void *a = FileIOAligned_PoolMalloc(0x100000);
          void *b = FileIOAligned_PoolMalloc(1);
          ok = ok && FileIOAligned_PoolMalloc(0x100001) == nullptr && a != nullptr &&
               reinterpret_cast<uintptr_t>(a) % 4096 == 0 && !FileIOAligned_PoolFree(&ok) &&
               FileIOAligned_PoolFree(a) && !FileIOAligned_PoolFree(a) &&
               FileIOAligned_PoolMalloc(1) == a && b != nullptr;
          FileIOAligned_PoolExit();
          _exit(ok ? 0 : 1);
       },
       ::testing::ExitedWithCode(0),
       "FileIOAligned_PoolMalloc called without FileIOAligned_Pool lock\n.*"
       "FileIOAligned_PoolExit: 2 busy buffers!  Proceeding with trepidation.\n");
}

TEST_F(FileTest, IOAtomicUpdateKeepsModeOwnerGroupAndContents)
{
   std::string path = dir / "config";
   WriteFile(path, "old contents");
   chmod(path.c_str(), 0640);
   // Root hands the file to somebody else first.
   uid_t owner = geteuid() == 0 ? 65534 : geteuid();
   gid_t group = geteuid() == 0 ? 65534 : getegid();
   ASSERT_EQ(chown(path.c_str(), owner, group), 0);
   FileIODescriptor current, temp;
   ASSERT_EQ(Open(&current, path, FILEIO_OPEN_ACCESS_READ), FILEIO_SUCCESS);
   std::string tempPath = Take(FileIO_AtomicTempPath(path.c_str()));
   WriteFile(tempPath, "stale temporary");
   ASSERT_EQ(FileIO_AtomicTempFile(&current, &temp), FILEIO_SUCCESS);
   EXPECT_EQ(FileIO_Write(&temp, "new", 3, nullptr), FILEIO_SUCCESS);
   ASSERT_TRUE(FileIO_AtomicUpdateEx(&temp, &current));
   EXPECT_FALSE(FileIO_IsValid(&temp));
   EXPECT_FALSE(Exists(tempPath));
   EXPECT_EQ(ReadFile(path), "new");
   struct stat st;
   ASSERT_EQ(stat(path.c_str(), &st), 0);
   EXPECT_EQ(std::tuple(st.st_mode & 07777, st.st_uid, st.st_gid), std::tuple(0640u, owner, group));
   EXPECT_EQ(FileIO_GetSize(&current), 3);  // the current record is the new file now
   FileIO_Close(&current);

   // A failed rename leaves both files and says so.
   LogCapture log;
   FileIODescriptor a, b;
   FileIO_Invalidate(&a);
   FileIO_Invalidate(&b);
   a.posix = open(path.c_str(), O_RDONLY);
   a.fileName = strdup((dir / "missing").c_str());
   b.fileName = strdup((dir / "nodir/x").c_str());
   EXPECT_FALSE(FileIO_AtomicUpdateEx(&a, &b));
   EXPECT_THAT(log.Text(), HasSubstr("FileIO_AtomicUpdateEx: rename of '" + dir / "missing" +
                                     "' to '" + dir / "nodir/x" + "' failed 2.\n"));
   FileIO_Close(&a);
   free(b.fileName);
}

TEST_F(FileTest, PathsArithmeticFullPathCwdAndSearch)
{
   // Splitting, stripping and joining are pinned down by the path fuzz target's invariants.
   char *volume = nullptr, *directory = nullptr, *name = nullptr;
   File_SplitName("/x/y.z", &volume, &directory, &name);
   EXPECT_EQ(Take(volume) + "|" + Take(directory) + "|" + Take(name), "|/x/|y.z");
   EXPECT_EQ(Take(File_ReplaceExtension("/d.x/f.log", ".txt", 0)), "/d.x/f.txt");
   EXPECT_EQ(Take(File_ReplaceExtension("/d.x/f", ".txt", 0)), "/d.x/f.txt");
   EXPECT_EQ(Take(File_ReplaceExtension("f.log", ".txt", 2, ".cfg", ".log")), "f.txt");
   EXPECT_EQ(Take(File_ReplaceExtension("f.dat", ".txt", 2, ".cfg", ".log")), "f.dat.txt");
   EXPECT_EQ(Take(File_RemoveExtension("/d.x/f")), "/d.x/f");
   // True only when the path is the root already.
   for (auto [in, out] : {std::pair{"/a/b", "/a"}, {"/a", "/"}, {"a", "/"}, {"/", "/"}}) {
      char *p = strdup(in);
      EXPECT_EQ(File_GetParent(&p), std::string(in) == "/");
      EXPECT_EQ(Take(p), out);
   }
   EXPECT_EQ(Take(File_PrependToPath("a;b;c", "c")), "c;a;b");
   // A plain text prefix: a sibling whose name extends the outer one counts as within.
   EXPECT_TRUE(File_IsWithin("/tmp/ab", "/tmp/abc/d"));
   EXPECT_FALSE(File_IsWithin("/tmp/ab", "/tmp/a"));

   mkdir((dir / "sub").c_str(), 0755);
   WriteFile(dir / "sub/tool", "x");
   EXPECT_EQ(Take(File_FullPath((dir / "sub/../sub//tool").c_str())), base + "/sub/tool");
   EXPECT_EQ(Take(File_FullPath((dir / "sub//missing/x").c_str())), base + "/sub/missing/x");
   char *cwd = getcwd(nullptr, 0);
   ASSERT_EQ(chdir(dir.Path().c_str()), 0);
   EXPECT_EQ(Take(File_FullPath("sub/tool")), base + "/sub/tool");
   EXPECT_EQ(Take(File_FullPath("")), base);

   char *found = nullptr;
   EXPECT_TRUE(File_FindFileInSearchPath("tool", "/nonexistent;sub", base.c_str(), &found));
   EXPECT_EQ(Take(found), base + "/sub/tool");
   EXPECT_FALSE(File_FindFileInSearchPath("sub/none", "sub", base.c_str(), nullptr));

   // A deleted working directory: null and the user message.
   EXPECT_TRUE(testsupport::InChild([&] {
      mkdir((dir / "gone").c_str(), 0755);
      return chdir((dir / "gone").c_str()) == 0 && rmdir((dir / "gone").c_str()) == 0 &&
             File_Cwd(nullptr) == nullptr && TakeMessageIds() == Ids{"msg.filePosix.getcwd"};
   }));
   ASSERT_EQ(chdir(cwd), 0);
   free(cwd);
}

TEST_F(FileTest, DirsHierarchyDeletionAndUnlinking)
{
   // Odd names are listed replaced and deduplicated, and deleted byte for byte.
   for (const char *n : {"plain", "caf\xc3\xa9", "bad\xff", "worse\xfe\x80", "line\nfeed"}) {
      WriteFile(dir / n, "x");
   }
   LogCapture log;
   char **names = nullptr;
   int count = File_ListDirectory(dir.Path().c_str(), &names);
   std::set<std::string> got;
   for (int i = 0; i < count; i++) {
      got.insert(Take(names[i]));
   }
   free(names);
   EXPECT_EQ(got, (std::set<std::string>{"plain", "caf\xc3\xa9",
                                         "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD", "line\nfeed"}));
   EXPECT_THAT(log.Text(),
               ::testing::HasSubstr("Warning: File_WalkDirectoryNext: file '" + dir.Path() +
                                    "' in directory 'bad\\FF' cannot be "
                                    "converted to UTF8\n"));
   EXPECT_TRUE(File_DeleteDirectoryContent(dir.Path().c_str()));
   EXPECT_EQ(File_ListDirectory(dir.Path().c_str(), nullptr), 0);

   WriteFile(dir / "file", "x");
   EXPECT_TRUE(File_EnsureDirectoryEx(dir.Path().c_str(), 0755));
   EXPECT_FALSE(File_EnsureDirectoryEx((dir / "file").c_str(), 0755));
   EXPECT_EQ(errno, ENOTDIR);
   char *top = nullptr;
   EXPECT_TRUE(File_CreateDirectoryHierarchyEx((dir / "a/b/c").c_str(), 0700, &top));
   EXPECT_EQ(Take(top), dir / "a");
   EXPECT_TRUE(File_CreateDirectoryHierarchyEx((dir / "a/b/c/").c_str(), 0700, &top));
   EXPECT_EQ(top, nullptr);
   log.Clear();
   EXPECT_FALSE(File_CreateDirectoryHierarchy((dir / "file/x").c_str(), nullptr));
   EXPECT_EQ(errno, ENOTDIR);
   EXPECT_EQ(log.Text(), "FILE: File_CreateDirectoryHierarchyEx: Failure on '" + dir / "file" +
                             "'. Error = 20\n");

   // Missing and under-a-file paths count as deleted; a link inside the tree goes, its target
   // stays; a link as the top is not followed.
   mkdir((dir / "outside").c_str(), 0755);
   WriteFile(dir / "outside/keep", "x");
   ASSERT_EQ(symlink((dir / "outside").c_str(), (dir / "a/b/link").c_str()), 0);
   ASSERT_EQ(symlink((dir / "outside").c_str(), (dir / "toplink").c_str()), 0);
   WriteFile(dir / "a/b/c/f", "x");
   EXPECT_TRUE(File_DeleteDirectoryTree((dir / "missing").c_str()));
   EXPECT_TRUE(File_DeleteDirectoryTree((dir / "file/x").c_str()));
   EXPECT_TRUE(File_DeleteDirectoryTree((dir / "a").c_str()));
   EXPECT_FALSE(Exists(dir / "a"));
   EXPECT_FALSE(File_DeleteDirectoryTree((dir / "toplink").c_str()));
   EXPECT_TRUE(Exists(dir / "outside/keep"));

   // A path of 4095 bytes.
   std::string deep = dir.Path();
   while (deep.size() < 4095 - 100) {
      deep += "/d";
   }
   deep += "/" + std::string(4095 - deep.size() - 1, 'e');
   EXPECT_TRUE(File_CreateDirectoryHierarchy(deep.c_str(), nullptr));
   EXPECT_TRUE(File_IsDirectory(deep.c_str()));
   EXPECT_TRUE(File_DeleteDirectoryTree((dir / "d").c_str()));
   EXPECT_FALSE(Exists(dir / "d"));

   WriteFile(dir / "target", "x");
   ASSERT_EQ(symlink("target", (dir / "link").c_str()), 0);
   EXPECT_EQ(File_UnlinkNoFollow((dir / "link").c_str()), 0);
   EXPECT_TRUE(Exists(dir / "target"));
   ASSERT_EQ(symlink("target", (dir / "link").c_str()), 0);
   EXPECT_EQ(File_Unlink((dir / "link").c_str()), 0);  // the target goes too
   EXPECT_FALSE(Exists(dir / "target"));
   EXPECT_EQ(File_Unlink((dir / "link").c_str()), ENOENT);
   EXPECT_EQ(File_UnlinkIfExists((dir / "link").c_str()), 0);
}

TEST_F(FileTest, CopyFaultsAndMessages)
{
   WriteFile(dir / "src", std::string(300000, 's'));
   WriteFile(dir / "existing", "keep me");
   const std::pair<std::function<bool()>, std::string> kCases[] = {
       {[&] { return File_Copy((dir / "nope").c_str(), (dir / "out").c_str(), true); },
        "msg.File.Copy.open.failure"},
       {[&] { return File_Copy((dir / "src").c_str(), (dir / "existing").c_str(), false); },
        "msg.File.CopyFromFdToName.create.failure"},
       {[&] { return File_CopyTree((dir / "src").c_str(), dir.Path().c_str(), true, false); },
        "msg.File.CopyTree.source.notDirectory"},
       {[&] { return File_CopyTree(dir.Path().c_str(), (dir / "no").c_str(), true, false); },
        "msg.File.CopyTree.dest.notDirectory"},
       {[&] { return File_MoveTree((dir / "src").c_str(), (dir / "x").c_str(), true, nullptr); },
        "msg.File.MoveTree.source.notDirectory"},
   };
   for (size_t i = 0; i < std::size(kCases); i++) {
      SCOPED_TRACE(i);
      EXPECT_FALSE(kCases[i].first());
      EXPECT_EQ(TakeMessageIds(), Ids{kCases[i].second});
   }
   EXPECT_EQ(ReadFile(dir / "existing"), "keep me");
   EXPECT_FALSE(Exists(dir / "out"));

   if (!PrivateMounts()) {
      GTEST_SKIP() << "needs root for the full and read-only file systems";
   }
   std::string full = dir / "full";
   std::string ro = dir / "ro";
   mkdir(full.c_str(), 0755);
   mkdir(ro.c_str(), 0755);
   mkdir((ro + "/sub").c_str(), 0755);
   WriteFile(ro + "/sub/f", "x");
   ASSERT_EQ(mount("tmpfs", full.c_str(), "tmpfs", 0, "size=64k"), 0);
   ASSERT_TRUE(mount(ro.c_str(), ro.c_str(), nullptr, MS_BIND, nullptr) == 0 &&
               mount(nullptr, ro.c_str(), nullptr, MS_BIND | MS_REMOUNT | MS_RDONLY, nullptr) == 0);
   // Disk full: false, the write message, and no partial destination.
   EXPECT_FALSE(File_Copy((dir / "src").c_str(), (full + "/out").c_str(), true));
   EXPECT_EQ(TakeMessageIds(), Ids{"msg.File.CopyFromFdToFd.write.failure"});
   EXPECT_FALSE(Exists(full + "/out"));
   // Deleting on a read-only file system fails with its error and keeps everything.
   EXPECT_FALSE(File_DeleteDirectoryTree((ro + "/sub").c_str()));
   EXPECT_EQ(errno, EROFS);
   EXPECT_TRUE(Exists(ro + "/sub/f"));
   // A move across file systems copies, then removes the source tree.
   mkdir((dir / "tree").c_str(), 0755);
   WriteFile(dir / "tree/a", "a");
   bool renamed = true;
   EXPECT_TRUE(File_MoveTree((dir / "tree").c_str(), (full + "/tree").c_str(), true, &renamed));
   EXPECT_FALSE(renamed);
   EXPECT_EQ(ReadFile(full + "/tree/a"), "a");
   EXPECT_FALSE(Exists(dir / "tree"));
   umount2(ro.c_str(), MNT_DETACH);
   umount2(full.c_str(), MNT_DETACH);
}

TEST_F(FileTest, RotateByRenameAndByRenumber)
{
   WriteFile(dir / "a.log", "new");
   WriteFile(dir / "a-0.log", "zero");
   WriteFile(dir / "a-1.log", "one");
   char *newName = nullptr;
   File_Rotate((dir / "a.log").c_str(), 2, false, &newName);
   EXPECT_EQ(Take(newName), dir / "a-0.log");
   EXPECT_FALSE(Exists(dir / "a.log"));
   EXPECT_EQ(ReadFile(dir / "a-0.log"), "new");
   EXPECT_EQ(ReadFile(dir / "a-1.log"), "zero");

   // Which names are copies is the parser's (fuzzed); here the oldest goes, the rest stay.
   for (const char *n : {"b.log", "b-3.log", "b-7.log", "b-01.log", "c-1.log"}) {
      WriteFile(dir / n, n);
   }
   File_Rotate((dir / "b.log").c_str(), 2, true, &newName);
   EXPECT_EQ(Take(newName), base + "/b-8.log");
   EXPECT_EQ(ReadFile(dir / "b-8.log"), "b.log");
   EXPECT_FALSE(Exists(dir / "b-3.log"));
   EXPECT_TRUE(Exists(dir / "b-7.log") && Exists(dir / "b-01.log") && Exists(dir / "c-1.log"));
   // The largest number possible: the copies are renumbered from 1 first.
   WriteFile(dir / "c.log", "current");
   WriteFile(dir / "c-4294967295.log", "max");
   unlink((dir / "c-1.log").c_str());
   File_Rotate((dir / "c.log").c_str(), 5, true, &newName);
   EXPECT_EQ(Take(newName), base + "/c-2.log");
   EXPECT_EQ(ReadFile(dir / "c-1.log"), "max");
   EXPECT_EQ(ReadFile(dir / "c-2.log"), "current");
}

TEST_F(FileTest, AttributesStatTimesPermissionsAndSpace)
{
   std::string f = dir / "f";
   WriteFile(f, "12345");
   mkfifo((dir / "fifo").c_str(), 0600);
   // Directories show through File_IsDirectory in the other tests.
   for (auto [path, type] : {std::pair{std::string("/dev/null"), FILE_TYPE_CHARDEVICE},
                             {dir / "fifo", FILE_TYPE_UNCERTAIN}}) {
      FileData data;
      EXPECT_TRUE(File_Stat(path.c_str(), &data) == 0 && data.fileType == type) << path;
   }
   // A link back to the top: the tree size is measured without walking the cycle.
   ASSERT_EQ(symlink(".", (dir / "loop").c_str()), 0);
   EXPECT_GE(File_GetSizeEx(dir.Path().c_str()), 5);

   // 2001-09-09T01:46:40Z in 100 ns units since 1601.
   const int64_t kTime = 1000000000LL * 10000000 + 116444736000000000LL;
   EXPECT_TRUE(File_SetTimes(f.c_str(), 0, kTime, kTime + 10000000, 0));
   int64_t create, access, write, change;
   EXPECT_TRUE(File_GetTimes(f.c_str(), &create, &access, &write, &change));
   EXPECT_EQ(std::tuple(create, access, write), std::tuple(-1, kTime, kTime + 10000000));
   EXPECT_FALSE(File_GetTimes((dir / "none").c_str(), &create, &access, &write, &change));
   EXPECT_EQ(access, -1);

   // The deliberately inverted answer: false after a successful change.
   auto mode = [&] {
      int m = 0;
      return File_GetFilePermissions(f.c_str(), &m) ? m & 07777 : -1;
   };
   chmod(f.c_str(), 0644);
   EXPECT_FALSE(File_MakeCfgFileExecutable(f.c_str()));
   EXPECT_EQ(mode(), 0755);
   EXPECT_TRUE(File_MakeCfgFileExecutable(f.c_str()));
   chmod(f.c_str(), 0600);
   EXPECT_FALSE(File_MakeCfgFileExecutable(f.c_str()));
   EXPECT_EQ(mode(), 0700);

   // Replace: the old file's permissions go to the new one, which takes its name.
   WriteFile(dir / "new", "replacement");
   chmod(f.c_str(), 0640);
   EXPECT_TRUE(File_Replace(f.c_str(), (dir / "new").c_str()));
   EXPECT_EQ(ReadFile(f), "replacement");
   EXPECT_EQ(mode(), 0640);
   EXPECT_FALSE(File_Replace(f.c_str(), (dir / "none").c_str()));
   EXPECT_EQ(TakeMessageIds(), Ids{"msg.filePosix.replaceChmodFailed"});
   EXPECT_EQ(errno, ENOENT);

   // Space: ascending from a missing path unless told not to.
   EXPECT_NE(File_GetFreeSpace((dir / "missing").c_str(), false), ~0ull);
   EXPECT_EQ(File_GetFreeSpace((dir / "missing").c_str(), true), ~0ull);
   EXPECT_TRUE(File_SupportsFileSize("/nonexistent", 1ull << 30));
   EXPECT_FALSE(File_SupportsFileSize(dir.Path().c_str(), 0x400000000001ull));
   EXPECT_EQ(File_ListDirectory(dir.Path().c_str(), nullptr), 3);  // the probe file is gone

   if (geteuid() == 0) {
      mkdir((dir / "g").c_str(), 0770);
      chmod((dir / "g").c_str(), 0770);
      chown((dir / "g").c_str(), 0, 65534);
      mkdir((dir / "o").c_str(), 0755);
      EXPECT_TRUE(File_IsWritableDir((dir / "o").c_str()));  // root may write anywhere
      chmod(dir.Path().c_str(), 0755);
      EXPECT_TRUE(InChild([&] {
         return setgid(65534) == 0 && setuid(65534) == 0 &&
                File_IsWritableDir((dir / "g").c_str()) &&
                !File_IsWritableDir((dir / "o").c_str()) && !File_IsWritableDir(f.c_str());
      }));
   }
}

/* Type, mode, owner and time of every entry (the target of a link), sorted by name. */
std::string Listing(const std::string &dir)
{
   ScratchDir tmp;
   EXPECT_EQ(system(("cd '" + dir + "' && find . \\( -type l -printf 'link %l|%P\\0' \\) -o " +
                     "-printf '%y %m %U:%G %T@|%P\\0' | sort -z >'" + tmp / "out" + "'")
                        .c_str()),
             0);
   return ReadFile(tmp / "out");
}

std::string gSrc;
std::string gDst;

/* Applies the metadata copy to one file or directory of the copied tree. */
int CopyMetadata(const char *path, const struct stat *st, int, struct FTW *)
{
   if (!S_ISLNK(st->st_mode)) {
      std::string dst = gDst + (path + gSrc.size());
      int in = open(path, O_RDONLY | O_NOFOLLOW);
      int out = open(dst.c_str(), (S_ISDIR(st->st_mode) ? O_RDONLY : O_WRONLY) | O_NOFOLLOW);
      EXPECT_TRUE(in >= 0 && out >= 0 && File_CopyFdAll(in, out)) << dst << " " << strerror(errno);
      close(in);
      close(out);
   }
   return 0;
}

TEST_F(FileTest, CopyTreeAndMetadataMatchCpArchive)
{
   std::string src = dir / "src";
   for (auto [d, mode] :
        {std::pair{"", 0755}, {"/empty", 0700}, {"/sub", 0750}, {"/sub/deeper", 0755}}) {
      mkdir((src + d).c_str(), mode);
   }
   WriteFile(src + "/sub/deeper/file", "deep");
   symlink("../sub/deeper/file", (src + "/sub/rel").c_str());
   symlink("/nonexistent/target", (src + "/dangling").c_str());
   symlink("sub", (src + "/dirlink").c_str());
   WriteFile(src + "/new\nline", "odd");
   WriteFile(src + "/bad\xff\xfe", "odd");
   // Sparse and beyond one copy buffer: data at the start and at 5 MiB of a 10 MiB file.
   int fd = open((src + "/sparse").c_str(), O_WRONLY | O_CREAT, 0751);
   ASSERT_TRUE(pwrite(fd, "head", 4, 0) == 4 && pwrite(fd, "middle", 6, 5 << 20) == 6 &&
               ftruncate(fd, 10 << 20) == 0);
   close(fd);
   bool xattrs = setxattr((src + "/sparse").c_str(), "user.origin", "test", 4, 0) == 0 &&
                 setxattr((src + "/sub").c_str(), "user.dir", "d", 1, 0) == 0;
   if (geteuid() == 0) {
      chown((src + "/sub/deeper/file").c_str(), 65534, 65534);
      chown((src + "/empty").c_str(), 65534, 0);
      chmod((src + "/sub/deeper/file").c_str(), 02755);
   }
   struct timespec old[2] = {{1000000000, 123456789}, {1100000000, 987654321}};
   for (const char *rel : {"/sparse", "/sub/deeper/file", "/empty", "/sub/deeper", "/sub", ""}) {
      utimensat(AT_FDCWD, (src + rel).c_str(), old, AT_SYMLINK_NOFOLLOW);
   }

   std::string viaCp = dir / "cp";
   ASSERT_EQ(system(("cp -a '" + src + "' '" + viaCp + "'").c_str()), 0);
   gSrc = src;
   gDst = dir / "ours";
   mkdir(gDst.c_str(), 0700);
   ASSERT_TRUE(File_CopyTree(src.c_str(), gDst.c_str(), true, false));
   nftw(src.c_str(), CopyMetadata, 16, FTW_DEPTH | FTW_PHYS);
   Msg_Reset(false);

   EXPECT_EQ(system(("diff -r --no-dereference '" + viaCp + "' '" + gDst + "'").c_str()), 0);
   EXPECT_EQ(Listing(gDst), Listing(viaCp));
   // Holes stay holes.
   struct stat st;
   EXPECT_TRUE(stat((gDst + "/sparse").c_str(), &st) == 0 && st.st_blocks < 1024);
   char value[8] = {};
   EXPECT_TRUE(!xattrs || (lgetxattr((gDst + "/sparse").c_str(), "user.origin", value, 4) == 4 &&
                           lgetxattr((gDst + "/sub").c_str(), "user.dir", value + 4, 1) == 1 &&
                           std::string(value) == "testd"));
}

class SafeTmpDir : public FileTest {
  protected:
   void SetUp() override { setenv("TMPDIR", tmp_.c_str(), 1); }
   void TearDown() override { unsetenv("TMPDIR"); }

   /* True when the safe temporary directory a fresh process chooses passes check. */
   static bool Safe(const std::function<bool(const std::string &)> &check)
   {
      return InChild([&] { return check(Take(File_GetSafeTmpDir(false))); });
   }
   static int Mode(const std::string &path)
   {
      struct stat st;
      return lstat(path.c_str(), &st) == 0 ? st.st_mode & 07777 : -1;
   }

   const std::string &tmp_ = base;
   std::string shared_ = tmp_ + "/tesmar-" + getpwuid(geteuid())->pw_name;
};

TEST_F(SafeTmpDir, ReusesOnlyOwnerOnlyDirectories)
{
   auto isShared = [&](const std::string &dir) { return dir == shared_; };
   // Fresh: the shared directory is made with owner-only access.
   EXPECT_TRUE(Safe(isShared));
   EXPECT_EQ(Mode(shared_), 0700);
   // Set-group-id inherited from the parent still passes.
   chmod(shared_.c_str(), 02700);
   EXPECT_TRUE(Safe(isShared));
   // Opened up: a random-suffix directory instead, reused on the next call (from the cache).
   chmod(shared_.c_str(), 0755);
   EXPECT_TRUE(Safe([&](const std::string &dir) {
      return dir.rfind(shared_ + "-", 0) == 0 && Take(File_GetSafeTmpDir(false)) == dir;
   }));
   // A link in the shared directory's place is never used.
   rmdir(shared_.c_str());
   mkdir((tmp_ + "/elsewhere").c_str(), 0700);
   symlink((tmp_ + "/elsewhere").c_str(), shared_.c_str());
   EXPECT_TRUE(Safe([&](const std::string &dir) {
      return dir != shared_ && dir.find("elsewhere") == std::string::npos;
   }));
   // The per-process variant carries the process id.
   EXPECT_TRUE(InChild([&] {
      std::string dir = Take(File_GetSafeRandomTmpDir(false));
      return dir.rfind(shared_ + "_" + std::to_string(getpid()) + "-", 0) == 0;
   }));
   if (geteuid() == 0) {
      // Owned by somebody else: not used.
      unlink(shared_.c_str());
      mkdir(shared_.c_str(), 0700);
      chown(shared_.c_str(), 65534, 65534);
      EXPECT_TRUE(Safe([&](const std::string &dir) { return dir != shared_; }));
   }
}

TEST_F(SafeTmpDir, TemporaryDirectoryCandidates)
{
   EXPECT_EQ(Take(FileGetTmpDir(false)), tmp_);
   // A candidate that is unusable is skipped in favour of /var/tmp/.
   setenv("TMPDIR", (tmp_ + "/missing").c_str(), 1);
   EXPECT_EQ(Take(FileGetTmpDir(false)), "/var/tmp/");
}

TEST_F(SafeTmpDir, UniqueTemporaryNames)
{
   char *path = nullptr;
   for (int i = 0; i < 20; i++) {  // file names end in odd numbers
      close(File_MakeTempEx(tmp_.c_str(), "pre", &path));
      std::string name = Take(path);
      EXPECT_TRUE(name.rfind(tmp_ + "/pre", 0) == 0 && (name.back() - '0') % 2 == 1 &&
                  Mode(name) == 0600)
          << name;
   }
   auto nameFunc = [](uint32_t num, void *) { return strdup(("d" + std::to_string(num)).c_str()); };
   EXPECT_EQ(File_MakeTempEx2(tmp_.c_str(), false, false, nameFunc, nullptr, &path), 0);
   std::string dir = Take(path);
   EXPECT_TRUE(File_IsDirectory(dir.c_str()) && (dir.back() - '0') % 2 == 0) << dir;
   EXPECT_EQ(File_MakeTempEx2(nullptr, true, false, nameFunc, nullptr, &path), -1);
   EXPECT_EQ(errno, EFAULT);
   EXPECT_EQ(File_MakeTempEx2((tmp_ + "/none").c_str(), true, false, nameFunc, nullptr, &path), -1);
   EXPECT_EQ(errno, ENOENT);
   EXPECT_EQ(path, nullptr);

   EXPECT_TRUE(InChild([&] {
      std::string safe = Take(File_MakeSafeTempDir(nullptr));
      return safe.rfind(shared_ + "/safeDir", 0) == 0 && Mode(safe) == 0700;
   }));
}

}  // namespace
