/*
 * Tree walks under attack: while a deletion or a copy runs, another thread keeps replacing
 * directories of the tree with links to a directory outside it. Nothing outside may be
 * deleted, and nothing from outside may be copied as data.
 */
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "file.h"
#include "fileTestUtil.h"
#include "msg.h"
#include "testSupport.h"

using filetest::Exists;
using filetest::ReadFile;
using filetest::WriteFile;
using testsupport::ScratchDir;

namespace {

constexpr int kDirs = 40;
constexpr int kRounds = 15;

void BuildTree(const std::string &root)
{
   mkdir(root.c_str(), 0755);
   for (int i = 0; i < kDirs; i++) {
      std::string d = root + "/d" + std::to_string(i);
      mkdir(d.c_str(), 0755);
      mkdir((d + "/inner").c_str(), 0755);
      for (int j = 0; j < 5; j++) {
         WriteFile(d + "/f" + std::to_string(j), "tree");
         WriteFile(d + "/inner/g" + std::to_string(j), "tree");
      }
   }
}

/* Swaps tree directories for links to outside and back until stopped. */
void Swapper(const std::string &root, const std::string &outside, std::atomic<bool> &stop)
{
   unsigned i = 0;
   while (!stop.load()) {
      std::string d = root + "/d" + std::to_string(i % kDirs);
      std::string aside = d + ".aside";
      if (rename(d.c_str(), aside.c_str()) == 0) {
         if (symlink(outside.c_str(), d.c_str()) == 0) {
            std::this_thread::yield();
            unlink(d.c_str());
         }
         rename(aside.c_str(), d.c_str());
      }
      // Also plant a link inside a directory that is being walked.
      std::string inner = d + "/inner";
      std::string innerAside = inner + ".aside";
      if (rename(inner.c_str(), innerAside.c_str()) == 0) {
         symlink(outside.c_str(), inner.c_str());
         std::this_thread::yield();
         unlink(inner.c_str());
         rename(innerAside.c_str(), inner.c_str());
      }
      i++;
   }
}

void ExpectOutsideIntact(const std::string &outside)
{
   for (int j = 0; j < 5; j++) {
      EXPECT_EQ(ReadFile(outside + "/secret" + std::to_string(j)), "SECRET");
      EXPECT_TRUE(Exists(outside + "/sub/keep" + std::to_string(j)));
   }
}

/* True when any regular file below dir holds the outside data. */
bool HoldsSecret(const std::string &dir)
{
   char **names = nullptr;
   int n = File_ListDirectory(dir.c_str(), &names);
   bool found = false;
   for (int i = 0; i < n; i++) {
      std::string p = dir + "/" + names[i];
      struct stat st;
      if (lstat(p.c_str(), &st) == 0) {
         if (S_ISDIR(st.st_mode)) {
            found = found || HoldsSecret(p);
         } else if (S_ISREG(st.st_mode)) {
            found = found || ReadFile(p) == "SECRET";
         }
      }
      free(names[i]);
   }
   free(names);
   return found;
}

class TreeRace : public ::testing::Test {
  protected:
   void SetUp() override
   {
      outside_ = scratch_ / "outside";
      mkdir(outside_.c_str(), 0755);
      mkdir((outside_ + "/sub").c_str(), 0755);
      for (int j = 0; j < 5; j++) {
         WriteFile(outside_ + "/secret" + std::to_string(j), "SECRET");
         WriteFile(outside_ + "/sub/keep" + std::to_string(j), "x");
      }
   }

   ScratchDir scratch_;
   std::string outside_;
};

TEST_F(TreeRace, DeletionStaysInsideTheTree)
{
   for (int round = 0; round < kRounds; round++) {
      std::string root = scratch_ / ("tree" + std::to_string(round));
      BuildTree(root);
      std::atomic<bool> stop{false};
      std::thread swapper(Swapper, root, outside_, std::ref(stop));
      File_DeleteDirectoryTree(root.c_str());
      stop = true;
      swapper.join();
      ExpectOutsideIntact(outside_);
      // Whatever the race left, a second pass clears it.
      EXPECT_TRUE(File_DeleteDirectoryTree(root.c_str()));
      EXPECT_FALSE(Exists(root));
   }
}

TEST_F(TreeRace, CopyNeverReadsThroughPlantedLinks)
{
   for (int round = 0; round < kRounds; round++) {
      std::string root = scratch_ / ("src" + std::to_string(round));
      std::string dst = scratch_ / ("dst" + std::to_string(round));
      BuildTree(root);
      mkdir(dst.c_str(), 0755);
      std::atomic<bool> stop{false};
      std::thread swapper(Swapper, root, outside_, std::ref(stop));
      File_CopyTree(root.c_str(), dst.c_str(), true, false);
      stop = true;
      swapper.join();
      Msg_Reset(false);
      EXPECT_FALSE(HoldsSecret(dst)) << round;
      ExpectOutsideIntact(outside_);
   }
}

}  // namespace
