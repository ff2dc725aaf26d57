/*
 * Temporary and safe directories: the choice of the temporary directory, reuse of existing
 * safe directories only when they are the user's own with owner-only access, and unique
 * temporary names.
 */
#include <pwd.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <functional>
#include <string>

#include "file.h"
#include "fileInt.h"
#include "fileTestUtil.h"
#include "testSupport.h"

using testsupport::ScratchDir;

namespace {

/* Runs body in a child (fresh caches); true when it returned true. */
bool InChild(const std::function<bool()> &body)
{
   pid_t child = fork();
   if (child == 0) {
      _exit(body() ? 0 : 1);
   }
   int status = 0;
   waitpid(child, &status, 0);
   return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

std::string Take(char *s)
{
   std::string copy = s != nullptr ? s : "(null)";
   free(s);
   return copy;
}

std::string UserName()
{
   struct passwd *pw = getpwuid(geteuid());
   return pw != nullptr ? pw->pw_name : "uid_" + std::to_string(geteuid());
}

class SafeTmpDir : public ::testing::Test {
  protected:
   void SetUp() override
   {
      char *real = realpath(scratch_.Path().c_str(), nullptr);
      tmp_ = real;
      free(real);
      setenv("TMPDIR", tmp_.c_str(), 1);
      shared_ = tmp_ + "/tesmar-" + UserName();
   }
   void TearDown() override { unsetenv("TMPDIR"); }

   ScratchDir scratch_;
   std::string tmp_;
   std::string shared_;
};

TEST_F(SafeTmpDir, ReusesOnlyOwnerOnlyDirectories)
{
   // Fresh: the shared directory is made with owner-only access.
   EXPECT_TRUE(InChild([&] { return Take(File_GetSafeTmpDir(false)) == shared_; }));
   struct stat st;
   ASSERT_EQ(lstat(shared_.c_str(), &st), 0);
   EXPECT_EQ(st.st_mode & 07777, 0700u);
   // Set-group-id inherited from the parent still passes.
   chmod(shared_.c_str(), 02700);
   EXPECT_TRUE(InChild([&] { return Take(File_GetSafeTmpDir(false)) == shared_; }));
   // Opened up: a random-suffix directory instead, reused on the next run.
   chmod(shared_.c_str(), 0755);
   std::string first;
   EXPECT_TRUE(InChild([&] {
      std::string dir = Take(File_GetSafeTmpDir(false));
      return dir.rfind(shared_ + "-", 0) == 0 && dir != shared_;
   }));
   EXPECT_TRUE(InChild([&] {
      std::string a = Take(File_GetSafeTmpDir(false));
      std::string b = Take(File_GetSafeTmpDir(false));  // from the cache
      return a == b && a.rfind(shared_ + "-", 0) == 0;
   }));
   // A link in the shared directory's place is never used.
   rmdir(shared_.c_str());
   mkdir((tmp_ + "/elsewhere").c_str(), 0700);
   symlink((tmp_ + "/elsewhere").c_str(), shared_.c_str());
   EXPECT_TRUE(InChild([&] {
      std::string dir = Take(File_GetSafeTmpDir(false));
      return dir != shared_ && dir.find("elsewhere") == std::string::npos;
   }));
   // The per-process variant carries the process id.
   EXPECT_TRUE(InChild([&] {
      std::string dir = Take(File_GetSafeRandomTmpDir(false));
      std::string expect = tmp_ + "/tesmar-" + UserName() + "_" + std::to_string(getpid()) + "-";
      return dir.rfind(expect, 0) == 0;
   }));
   if (filetest::IsRoot()) {
      // Owned by somebody else: not used.
      unlink(shared_.c_str());
      mkdir(shared_.c_str(), 0700);
      chown(shared_.c_str(), 65534, 65534);
      EXPECT_TRUE(InChild([&] { return Take(File_GetSafeTmpDir(false)) != shared_; }));
   }
}

TEST_F(SafeTmpDir, TemporaryDirectoryCandidates)
{
   EXPECT_EQ(Take(FileGetTmpDir(false)), tmp_);
   setenv("TMPDIR", (tmp_ + "/missing").c_str(), 1);
   EXPECT_EQ(Take(FileGetTmpDir(false)), "/var/tmp/");
   if (filetest::IsRoot()) {
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
      return safe.rfind(shared_ + "/safeDir", 0) == 0 && lstat(safe.c_str(), &st) == 0 &&
             (st.st_mode & 07777) == 0700;
   }));
   EXPECT_TRUE(InChild([&] {
      char *p = nullptr;
      int fd = File_MakeTemp("tag", &p);
      std::string made = Take(p);
      return fd >= 0 && made.rfind(shared_ + "/tag", 0) == 0;
   }));
}

TEST(FileSleeperTest, DrawsWithinBounds)
{
   for (int i = 0; i < 5; i++) {
      uint32_t slept = FileSleeper(1, 4);
      EXPECT_GE(slept, 1u);
      EXPECT_LT(slept, 4u);
   }
   EXPECT_EQ(FileSleeper(2, 2), 2u);
}

}  // namespace
