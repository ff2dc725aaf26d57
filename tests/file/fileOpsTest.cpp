/*
 * Path-level file operations: path arithmetic, directories and tree deletion, copies and
 * their faults, rotation both ways, listing of odd names, full and search paths, replacement,
 * permissions, times, sizes and space.
 */
#include <sys/stat.h>
#include <sys/statvfs.h>

#include <cstring>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include "file.h"
#include "fileInt.h"
#include "fileTestUtil.h"

using namespace filetest;
using testsupport::LogCapture;

namespace {

/* Runs body in a child process as the unprivileged user 65534; true when it returned true. */
bool AsNobody(const std::function<bool()> &body)
{
   return testsupport::InChild([&] { return setgid(65534) == 0 && setuid(65534) == 0 && body(); });
}

TEST(FilePaths, Arithmetic)
{
   struct {
      const char *path, *dir, *base;
   } const kSplit[] = {
       {"/a/b/c", "/a/b", "c"}, {"c", "", "c"},    {"/c", "", "c"},
       {"a/b/", "a/b", ""},     {"//x", "/", "x"}, {"", "", ""},
   };
   for (const auto &t : kSplit) {
      char *dir = nullptr;
      char *base = nullptr;
      File_GetPathName(t.path, &dir, &base);
      EXPECT_EQ(Take(dir), t.dir) << t.path;
      EXPECT_EQ(Take(base), t.base) << t.path;
   }
   const std::pair<const char *, const char *> kStrip[] = {
       {"/", ""}, {"a/b//", "a/b"}, {"a/b", "a/b"}, {"a//b", "a//b"}};
   for (const auto &[in, out] : kStrip) {
      EXPECT_EQ(Take(File_StripSlashes(in)), out) << in;
   }
   EXPECT_EQ(Take(File_PathJoin("/a//", "//b")), "/a/b");
   EXPECT_EQ(Take(File_PathJoin("/", "b")), "/b");
   char *vol = nullptr;
   char *dir = nullptr;
   char *base = nullptr;
   File_SplitName("/x/y.z", &vol, &dir, &base);
   EXPECT_EQ(Take(vol), "");
   EXPECT_EQ(Take(dir), "/x/");
   EXPECT_EQ(Take(base), "y.z");

   EXPECT_EQ(Take(File_ReplaceExtension("/d.x/f.log", ".txt", 0)), "/d.x/f.txt");
   EXPECT_EQ(Take(File_ReplaceExtension("/d.x/f", ".txt", 0)), "/d.x/f.txt");
   EXPECT_EQ(Take(File_ReplaceExtension("f.log", ".txt", 2, ".cfg", ".log")), "f.txt");
   EXPECT_EQ(Take(File_ReplaceExtension("f.dat", ".txt", 2, ".cfg", ".log")), "f.dat.txt");
   EXPECT_EQ(Take(File_RemoveExtension("/d.x/f.tar.gz")), "/d.x/f.tar");
   EXPECT_EQ(Take(File_RemoveExtension("/d.x/f")), "/d.x/f");

   const std::pair<const char *, const char *> kParent[] = {
       {"/a/b", "/a"}, {"/a", "/"}, {"a", "/"}};
   for (const auto &[in, out] : kParent) {
      char *p = strdup(in);
      EXPECT_FALSE(File_GetParent(&p));
      EXPECT_EQ(Take(p), out);
   }
   char *root = strdup("/");
   EXPECT_TRUE(File_GetParent(&root));
   free(root);

   EXPECT_EQ(Take(File_PrependToPath("a;b;c", "b")), "b;a;c");
   EXPECT_EQ(Take(File_PrependToPath("a;b;c", "c")), "c;a;b");
   EXPECT_EQ(Take(File_PrependToPath("a;b", "x")), "x;a;b");
   EXPECT_TRUE(File_IsFullPath("/x"));
   EXPECT_FALSE(File_IsFullPath("x"));
   EXPECT_FALSE(File_IsFullPath(nullptr));
   // A plain text prefix: a sibling whose name extends the outer one counts as within.
   EXPECT_TRUE(File_IsWithin("/tmp/ab", "/tmp/abc/d"));
   EXPECT_FALSE(File_IsWithin("/tmp/ab", "/tmp/a"));
}

TEST(FilePaths, FullPathCwdAndSearch)
{
   ScratchDir dir;
   std::string base = RealPath(dir.Path());
   mkdir((dir / "sub").c_str(), 0755);
   WriteFile(dir / "sub/tool", "x");
   EXPECT_EQ(Take(File_FullPath((dir / "sub/../sub//tool").c_str())), base + "/sub/tool");
   EXPECT_EQ(Take(File_FullPath((dir / "sub//missing/x").c_str())), base + "/sub/missing/x");
   char *cwd = getcwd(nullptr, 0);
   ASSERT_EQ(chdir(dir.Path().c_str()), 0);
   EXPECT_EQ(Take(File_FullPath("sub/tool")), base + "/sub/tool");
   EXPECT_EQ(Take(File_FullPath(nullptr)), base);
   EXPECT_EQ(Take(File_FullPath("")), base);

   char *found = nullptr;
   EXPECT_TRUE(File_FindFileInSearchPath("tool", "/nonexistent;sub", base.c_str(), &found));
   EXPECT_EQ(Take(found), base + "/sub/tool");
   EXPECT_TRUE(File_FindFileInSearchPath("tool", ("/x;" + base + "/sub").c_str(), "/", &found));
   EXPECT_EQ(Take(found), base + "/sub/tool");
   EXPECT_FALSE(File_FindFileInSearchPath("sub/none", "sub", base.c_str(), nullptr));

   // A deleted working directory: null and the user message.
   EXPECT_TRUE(testsupport::InChild([&] {
      mkdir((dir / "gone").c_str(), 0755);
      return chdir((dir / "gone").c_str()) == 0 && rmdir((dir / "gone").c_str()) == 0 &&
             File_Cwd(nullptr) == nullptr &&
             TakeMessageIds() == std::vector<std::string>{"msg.filePosix.getcwd"};
   }));
   ASSERT_EQ(chdir(cwd), 0);
   free(cwd);
}

TEST(FileDirs, EnsureHierarchyAndDeletion)
{
   ScratchDir dir;
   WriteFile(dir / "file", "x");
   EXPECT_TRUE(File_EnsureDirectoryEx(dir.Path().c_str(), 0755));
   errno = 0;
   EXPECT_FALSE(File_EnsureDirectoryEx((dir / "file").c_str(), 0755));
   EXPECT_EQ(errno, ENOTDIR);

   char *top = nullptr;
   EXPECT_TRUE(File_CreateDirectoryHierarchyEx((dir / "a/b/c").c_str(), 0700, &top));
   EXPECT_EQ(Take(top), dir / "a");
   EXPECT_TRUE(File_IsDirectory((dir / "a/b/c").c_str()));
   EXPECT_TRUE(File_CreateDirectoryHierarchyEx((dir / "a/b/c/").c_str(), 0700, &top));
   EXPECT_EQ(top, nullptr);
   {
      LogCapture log;
      EXPECT_FALSE(File_CreateDirectoryHierarchy((dir / "file/x").c_str(), nullptr));
      EXPECT_EQ(errno, ENOTDIR);
      EXPECT_EQ(log.Text(), "FILE: File_CreateDirectoryHierarchyEx: Failure on '" + dir / "file" +
                                "'. Error = 20\n");
   }
   EXPECT_TRUE(File_CreateDirectoryHierarchy("", nullptr));

   // Deleting: missing and under-a-file paths count as deleted; a link to a directory inside
   // the tree goes, its target stays.
   mkdir((dir / "outside").c_str(), 0755);
   WriteFile(dir / "outside/keep", "x");
   ASSERT_EQ(symlink((dir / "outside").c_str(), (dir / "a/b/link").c_str()), 0);
   WriteFile(dir / "a/b/c/f", "x");
   EXPECT_TRUE(File_DeleteDirectoryTree((dir / "missing").c_str()));
   EXPECT_TRUE(File_DeleteDirectoryTree((dir / "file/x").c_str()));
   EXPECT_TRUE(File_DeleteDirectoryContent((dir / "a").c_str()));
   EXPECT_TRUE(File_IsEmptyDirectory((dir / "a").c_str()));
   EXPECT_TRUE(Exists(dir / "outside/keep"));
   EXPECT_TRUE(File_DeleteDirectoryTree((dir / "a").c_str()));
   EXPECT_FALSE(Exists(dir / "a"));
   // A link as the top is not followed.
   ASSERT_EQ(symlink((dir / "outside").c_str(), (dir / "toplink").c_str()), 0);
   EXPECT_FALSE(File_DeleteDirectoryTree((dir / "toplink").c_str()));
   EXPECT_TRUE(Exists(dir / "outside/keep"));
}

TEST(FileDirs, LongNamesAndDeepPaths)
{
   ScratchDir dir;
   std::string name255(255, 'n');
   std::string deep = dir.Path();
   while (deep.size() < 4095 - 100) {
      deep += "/d";
   }
   deep += "/" + std::string(4095 - deep.size() - 1, 'e');
   ASSERT_EQ(deep.size(), 4095u);
   EXPECT_TRUE(File_CreateDirectoryHierarchy(deep.c_str(), nullptr));
   EXPECT_TRUE(File_IsDirectory(deep.c_str()));
   WriteFile(dir / name255, "long");
   EXPECT_TRUE(File_Copy((dir / name255).c_str(), (dir / ("d/" + name255)).c_str(), false));
   EXPECT_EQ(ReadFile(dir / ("d/" + name255)), "long");
   std::string tooLong = dir / (name255 + "x");
   EXPECT_FALSE(File_Copy((dir / name255).c_str(), tooLong.c_str(), true));
   EXPECT_EQ(TakeMessageIds(),
             std::vector<std::string>{"msg.File.CopyFromFdToName.create.failure"});
   EXPECT_TRUE(File_DeleteDirectoryTree((dir / "d").c_str()));
   EXPECT_FALSE(Exists(dir / "d"));
}

TEST(FileCopy, FaultsAndMessages)
{
   ScratchDir dir;
   WriteFile(dir / "src", std::string(300000, 's'));
   WriteFile(dir / "existing", "keep me");
   // Missing source, no overwrite, missing destination directory; tree source not a directory,
   // tree destination missing; move of a file as a tree.
   const std::pair<std::function<bool()>, std::string> kCases[] = {
       {[&] { return File_Copy((dir / "nope").c_str(), (dir / "out").c_str(), true); },
        "msg.File.Copy.open.failure"},
       {[&] { return File_Copy((dir / "src").c_str(), (dir / "existing").c_str(), false); },
        "msg.File.CopyFromFdToName.create.failure"},
       {[&] { return File_Copy((dir / "src").c_str(), (dir / "no/out").c_str(), true); },
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
      EXPECT_EQ(TakeMessageIds(), std::vector<std::string>{kCases[i].second});
   }
   EXPECT_EQ(ReadFile(dir / "existing"), "keep me");
   EXPECT_FALSE(Exists(dir / "out"));

   if (geteuid() == 0) {
      // Permission denied for an unprivileged user.
      chmod((dir / "src").c_str(), 0600);
      EXPECT_TRUE(AsNobody([&] {
         return !File_Copy((dir / "src").c_str(), "/tmp/never", true) &&
                TakeMessageIds() == std::vector<std::string>{"msg.File.Copy.open.failure"};
      }));
   }
   if (!PrivateMounts()) {
      GTEST_SKIP() << "needs root for the full and read-only file systems";
   }
   std::string full = dir / "full";
   std::string ro = dir / "ro";
   mkdir(full.c_str(), 0755);
   mkdir(ro.c_str(), 0755);
   ASSERT_TRUE(MountTmpfs(full, "64k"));
   ASSERT_TRUE(MakeReadOnly(ro));
   // Disk full: false, the write message, and no partial destination.
   EXPECT_FALSE(File_Copy((dir / "src").c_str(), (full + "/out").c_str(), true));
   EXPECT_EQ(TakeMessageIds(), std::vector<std::string>{"msg.File.CopyFromFdToFd.write.failure"});
   EXPECT_FALSE(Exists(full + "/out"));
   // Read-only: the create message.
   EXPECT_FALSE(File_Copy((dir / "src").c_str(), (ro + "/out").c_str(), true));
   EXPECT_EQ(errno, EROFS);
   EXPECT_EQ(TakeMessageIds(),
             std::vector<std::string>{"msg.File.CopyFromFdToName.create.failure"});
   // A move across file systems copies, then removes the source tree.
   mkdir((dir / "tree").c_str(), 0755);
   WriteFile(dir / "tree/a", "a");
   bool renamed = true;
   EXPECT_TRUE(File_MoveTree((dir / "tree").c_str(), (full + "/tree").c_str(), true, &renamed));
   EXPECT_FALSE(renamed);
   EXPECT_EQ(ReadFile(full + "/tree/a"), "a");
   EXPECT_FALSE(Exists(dir / "tree"));
   // Deleting on a read-only file system fails with its error and keeps everything.
   umount2(ro.c_str(), MNT_DETACH);
   mkdir((ro + "/sub").c_str(), 0755);
   WriteFile(ro + "/sub/f", "x");
   ASSERT_TRUE(MakeReadOnly(ro));
   EXPECT_FALSE(File_DeleteDirectoryTree((ro + "/sub").c_str()));
   EXPECT_EQ(errno, EROFS);
   EXPECT_TRUE(Exists(ro + "/sub/f"));
   umount2(ro.c_str(), MNT_DETACH);
   umount2(full.c_str(), MNT_DETACH);
}

TEST(FileRotate, ByRenameAndByRenumber)
{
   ScratchDir dir;
   std::string a = dir / "a.log";
   WriteFile(a, "new");
   WriteFile(dir / "a-0.log", "zero");
   WriteFile(dir / "a-1.log", "one");
   char *newName = nullptr;
   File_Rotate(a.c_str(), 2, false, &newName);
   EXPECT_EQ(Take(newName), dir / "a-0.log");
   EXPECT_FALSE(Exists(a));
   EXPECT_EQ(ReadFile(dir / "a-0.log"), "new");
   EXPECT_EQ(ReadFile(dir / "a-1.log"), "zero");

   ScratchDir dir2;
   std::string b = dir2 / "b.log";
   // Only b-N.log with N a number in range, without leading zeros, is a copy.
   const char *others[] = {"b-0.log", "b-01.log", "b-x.log",         "b-12x.log",
                           "b-.log",  "c-1.log",  "b-4294967296.log"};
   for (const char *n : {"b.log", "b-3.log", "b-7.log"}) {
      WriteFile(dir2 / n, n);
   }
   for (const char *n : others) {
      WriteFile(dir2 / n, n);
   }
   std::string base = RealPath(dir2.Path());
   File_Rotate(b.c_str(), 2, true, &newName);
   EXPECT_EQ(Take(newName), base + "/b-8.log");
   EXPECT_EQ(ReadFile(dir2 / "b-8.log"), "b.log");
   EXPECT_FALSE(Exists(dir2 / "b-3.log"));
   EXPECT_TRUE(Exists(dir2 / "b-7.log"));
   for (const char *kept : others) {
      EXPECT_TRUE(Exists(dir2 / kept)) << kept;
   }
   // The largest number possible: the copies are renumbered from 1 first.
   ScratchDir dir3;
   WriteFile(dir3 / "c.log", "current");
   WriteFile(dir3 / "c-4294967295.log", "max");
   base = RealPath(dir3.Path());
   File_Rotate((dir3 / "c.log").c_str(), 5, true, &newName);
   EXPECT_EQ(Take(newName), base + "/c-2.log");
   EXPECT_EQ(ReadFile(dir3 / "c-1.log"), "max");
   EXPECT_EQ(ReadFile(dir3 / "c-2.log"), "current");
}

TEST(FileListing, OddNamesAreReplacedAndDeduplicated)
{
   ScratchDir dir;
   for (const char *n : {"plain", "caf\xc3\xa9", "bad\xff", "worse\xfe\x80", "line\nfeed"}) {
      WriteFile(dir / n, "x");
   }
   LogCapture log;
   char **names = nullptr;
   int count = File_ListDirectory(dir.Path().c_str(), &names);
   ASSERT_EQ(count, 4);
   std::set<std::string> got;
   for (int i = 0; i < count; i++) {
      got.insert(Take(names[i]));
   }
   free(names);
   EXPECT_EQ(got, (std::set<std::string>{"plain", "caf\xc3\xa9",
                                         "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD", "line\nfeed"}));
   EXPECT_NE(log.Text().find("Warning: File_WalkDirectoryNext: file '" + dir.Path() +
                             "' in directory 'bad\\FF' cannot be converted to UTF8\n"),
             std::string::npos);
   EXPECT_EQ(File_ListDirectory((dir / "none").c_str(), nullptr), -1);
   EXPECT_EQ(errno, ENOENT);
   // Odd names are deleted byte for byte.
   EXPECT_TRUE(File_DeleteDirectoryContent(dir.Path().c_str()));
   EXPECT_EQ(File_ListDirectory(dir.Path().c_str(), nullptr), 0);
}

TEST(FileAttributes, StatTimesPermissionsAndSpace)
{
   ScratchDir dir;
   std::string f = dir / "f";
   WriteFile(f, "12345");
   mkfifo((dir / "fifo").c_str(), 0600);
   const std::pair<std::string, FileType> kTypes[] = {{f, FILE_TYPE_REGULAR},
                                                      {dir.Path(), FILE_TYPE_DIRECTORY},
                                                      {"/dev/null", FILE_TYPE_CHARDEVICE},
                                                      {dir / "fifo", FILE_TYPE_UNCERTAIN}};
   for (const auto &[path, type] : kTypes) {
      FileData data;
      ASSERT_EQ(File_Stat(path.c_str(), &data), 0);
      EXPECT_EQ(data.fileType, type) << path;
   }
   EXPECT_EQ(File_GetSize(f.c_str()), 5);
   EXPECT_EQ(File_GetSizeEx(dir.Path().c_str()), 5);

   // 2001-09-09T01:46:40Z in 100 ns units since 1601.
   const int64_t kTime = 1000000000LL * 10000000 + 116444736000000000LL;
   EXPECT_TRUE(File_SetTimes(f.c_str(), 0, kTime, kTime + 10000000, 0));
   int64_t create, access, write, change;
   EXPECT_TRUE(File_GetTimes(f.c_str(), &create, &access, &write, &change));
   EXPECT_EQ(create, -1);
   EXPECT_EQ(access, kTime);
   EXPECT_EQ(write, kTime + 10000000);
   EXPECT_FALSE(File_GetTimes((dir / "none").c_str(), &create, &access, &write, &change));
   EXPECT_EQ(access, -1);

   // The deliberately inverted answer: false after a successful change.
   chmod(f.c_str(), 0644);
   EXPECT_FALSE(File_MakeCfgFileExecutable(f.c_str()));
   int mode = 0;
   EXPECT_TRUE(File_GetFilePermissions(f.c_str(), &mode));
   EXPECT_EQ(mode & 07777, 0755);
   EXPECT_TRUE(File_MakeCfgFileExecutable(f.c_str()));
   chmod(f.c_str(), 0600);
   EXPECT_FALSE(File_MakeCfgFileExecutable(f.c_str()));
   EXPECT_TRUE(File_GetFilePermissions(f.c_str(), &mode));
   EXPECT_EQ(mode & 07777, 0700);

   // Replace: the old file's permissions go to the new one, which takes its name.
   WriteFile(dir / "new", "replacement");
   chmod(f.c_str(), 0640);
   EXPECT_TRUE(File_Replace(f.c_str(), (dir / "new").c_str()));
   EXPECT_EQ(ReadFile(f), "replacement");
   EXPECT_TRUE(File_GetFilePermissions(f.c_str(), &mode));
   EXPECT_EQ(mode & 07777, 0640);
   EXPECT_FALSE(File_Replace(f.c_str(), (dir / "none").c_str()));
   EXPECT_EQ(TakeMessageIds(), std::vector<std::string>{"msg.filePosix.replaceChmodFailed"});
   EXPECT_EQ(errno, ENOENT);

   // Space: the statfs figures, ascending from a missing path unless told not to.
   struct statvfs vfs;
   ASSERT_EQ(statvfs(dir.Path().c_str(), &vfs), 0);
   EXPECT_EQ(File_GetCapacity((dir / "missing/deeper").c_str()),
             static_cast<uint64_t>(vfs.f_frsize) * vfs.f_blocks);
   EXPECT_NE(File_GetFreeSpace((dir / "missing").c_str(), false), ~0ull);
   EXPECT_EQ(File_GetFreeSpace((dir / "missing").c_str(), true), ~0ull);
   EXPECT_TRUE(File_SupportsFileSize("/nonexistent", 1ull << 30));
   EXPECT_FALSE(File_SupportsFileSize(dir.Path().c_str(), 0x400000000001ull));
   EXPECT_TRUE(File_SupportsLargeFiles(dir.Path().c_str()));
   uint64_t max = 0;
   EXPECT_TRUE(File_GetMaxFileSize(dir.Path().c_str(), &max));
   EXPECT_EQ(max, 0x400000000000ull);
   EXPECT_EQ(File_ListDirectory(dir.Path().c_str(), nullptr), 2);  // the probe file is gone
   EXPECT_FALSE(File_IsRemote(dir.Path().c_str()));
   int fd = open(f.c_str(), O_RDONLY);
   EXPECT_FALSE(File_IsOnVirtualDevice(fd));
   close(fd);

   if (geteuid() == 0) {
      mkdir((dir / "g").c_str(), 0700);
      chmod((dir / "g").c_str(), 0770);
      chown((dir / "g").c_str(), 0, 65534);
      mkdir((dir / "o").c_str(), 0755);
      EXPECT_TRUE(File_IsWritableDir((dir / "o").c_str()));  // root may write anywhere
      chmod(dir.Path().c_str(), 0755);
      EXPECT_TRUE(AsNobody([&] {
         return File_IsWritableDir((dir / "g").c_str()) &&
                !File_IsWritableDir((dir / "o").c_str()) && !File_IsWritableDir(f.c_str());
      }));
   }
}

TEST(FileUnlink, LinksAndMissingFiles)
{
   ScratchDir dir;
   WriteFile(dir / "target", "x");
   ASSERT_EQ(symlink("target", (dir / "link").c_str()), 0);
   EXPECT_EQ(File_UnlinkNoFollow((dir / "link").c_str()), 0);
   EXPECT_TRUE(Exists(dir / "target"));
   ASSERT_EQ(symlink("target", (dir / "link").c_str()), 0);
   EXPECT_EQ(File_Unlink((dir / "link").c_str()), 0);  // the target goes too
   EXPECT_FALSE(Exists(dir / "target"));
   EXPECT_EQ(File_Unlink((dir / "link").c_str()), ENOENT);
   EXPECT_EQ(errno, ENOENT);
   EXPECT_EQ(File_UnlinkIfExists((dir / "link").c_str()), 0);
   EXPECT_EQ(File_Unlink(nullptr), EFAULT);

   // A link back to the top: the tree size is measured without walking the cycle.
   WriteFile(dir / "data", "12345");
   ASSERT_EQ(symlink(".", (dir / "loop").c_str()), 0);
   EXPECT_GE(File_GetSizeEx(dir.Path().c_str()), 5);
}

}  // namespace
