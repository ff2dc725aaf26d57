/*
 * Temporary and safe directories: the choice of the temporary directory, reuse of existing
 * safe directories only when they are the user's own with owner-only access, and unique
 * temporary names.
 */
#include <pwd.h>
#include <sys/stat.h>

#include <cstring>
#include <string>

#include "file.h"
#include "fileInt.h"
#include "fileTestUtil.h"

using namespace filetest;
using testsupport::InChild;

namespace {

class SafeTmpDir : public ::testing::Test {
  protected:
   void SetUp() override
   {
      setenv("TMPDIR", tmp_.c_str(), 1);
      struct passwd *pw = getpwuid(geteuid());
      user_ = pw != nullptr ? pw->pw_name : "uid_" + std::to_string(geteuid());
      shared_ = tmp_ + "/tesmar-" + user_;
   }
   void TearDown() override { unsetenv("TMPDIR"); }

   /* True when the safe temporary directory a fresh process chooses passes check. */
   static bool Safe(const std::function<bool(const std::string &)> &check)
   {
      return InChild([&] { return check(Take(File_GetSafeTmpDir(false))); });
   }

   ScratchDir scratch_;
   std::string tmp_ = RealPath(scratch_.Path());
   std::string user_;
   std::string shared_;
};

TEST_F(SafeTmpDir, ReusesOnlyOwnerOnlyDirectories)
{
   auto isShared = [&](const std::string &dir) { return dir == shared_; };
   auto isRandom = [&](const std::string &dir) {
      return dir.rfind(shared_ + "-", 0) == 0 && dir != shared_;
   };
   // Fresh: the shared directory is made with owner-only access.
   EXPECT_TRUE(Safe(isShared));
   struct stat st;
   ASSERT_EQ(lstat(shared_.c_str(), &st), 0);
   EXPECT_EQ(st.st_mode & 07777, 0700u);
   // Set-group-id inherited from the parent still passes.
   chmod(shared_.c_str(), 02700);
   EXPECT_TRUE(Safe(isShared));
   // Opened up: a random-suffix directory instead, reused on the next call (from the cache).
   chmod(shared_.c_str(), 0755);
   EXPECT_TRUE(Safe([&](const std::string &dir) {
      return isRandom(dir) && Take(File_GetSafeTmpDir(false)) == dir;
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
   setenv("TMPDIR", (tmp_ + "/missing").c_str(), 1);
   EXPECT_EQ(Take(FileGetTmpDir(false)), "/var/tmp/");
   if (geteuid() == 0) {
      // Not writable for an unprivileged user: skipped in favour of /var/tmp/.
      setenv("TMPDIR", tmp_.c_str(), 1);
      chmod(tmp_.c_str(), 0755);
      EXPECT_TRUE(InChild([&] {
         return setgid(65534) == 0 && setuid(65534) == 0 &&
                Take(FileGetTmpDir(false)) == "/var/tmp/";
      }));
   }
}

TEST_F(SafeTmpDir, UniqueTemporaryNames)
{
   for (int i = 0; i < 20; i++) {
      char *path = nullptr;
      int fd = File_MakeTempEx(tmp_.c_str(), "pre", &path);
      ASSERT_GE(fd, 0);
      close(fd);
      std::string name = Take(path);
      ASSERT_EQ(name.rfind(tmp_ + "/pre", 0), 0u);
      EXPECT_EQ((name.back() - '0') % 2, 1) << name;  // files end in odd numbers
      struct stat st;
      ASSERT_EQ(stat(name.c_str(), &st), 0);
      EXPECT_EQ(st.st_mode & 0777, 0600u);
   }
   auto nameFunc = [](uint32_t num, void *) { return strdup(("d" + std::to_string(num)).c_str()); };
   char *path = nullptr;
   EXPECT_EQ(File_MakeTempEx2(tmp_.c_str(), false, false, nameFunc, nullptr, &path), 0);
   std::string dir = Take(path);
   EXPECT_EQ((dir.back() - '0') % 2, 0) << dir;
   EXPECT_TRUE(File_IsDirectory(dir.c_str()));
   EXPECT_EQ(File_MakeTempEx2(nullptr, true, false, nameFunc, nullptr, &path), -1);
   EXPECT_EQ(errno, EFAULT);
   EXPECT_EQ(File_MakeTempEx2((tmp_ + "/none").c_str(), true, false, nameFunc, nullptr, &path), -1);
   EXPECT_EQ(errno, ENOENT);
   EXPECT_EQ(path, nullptr);

   EXPECT_TRUE(InChild([&] {
      std::string safe = Take(File_MakeSafeTempDir(nullptr));
      struct stat st;
      char *p = nullptr;
      int fd = File_MakeTemp("tag", &p);
      return safe.rfind(shared_ + "/safeDir", 0) == 0 && lstat(safe.c_str(), &st) == 0 &&
             (st.st_mode & 07777) == 0700 && fd >= 0 && Take(p).rfind(shared_ + "/tag", 0) == 0;
   }));
}

TEST(FileSleeperTest, DrawsWithinBounds)
{
   for (int i = 0; i < 5; i++) {
      uint32_t slept = FileSleeper(1, 4);
      EXPECT_TRUE(slept >= 1 && slept < 4) << slept;
   }
   EXPECT_EQ(FileSleeper(2, 2), 2u);
}

}  // namespace
