/*
 * Tree walks under attack: while a deletion or a copy runs, another thread keeps replacing
 * directories of the tree with links to a directory outside it. Nothing outside may be
 * deleted, and nothing from outside may be copied as data.
 */
#include <sys/stat.h>

#include <atomic>
#include <functional>
#include <string>
#include <thread>

#include "file.h"
#include "msg.h"
#include "testSupport.h"

using namespace testsupport;

namespace {

constexpr int kDirs = 40;
constexpr int kRounds = 15;

/* Renames path aside, puts a link to outside in its place for a moment, and puts it back. */
void SwapOnce(const std::string &path, const std::string &outside)
{
   std::string aside = path + ".aside";
   if (rename(path.c_str(), aside.c_str()) == 0) {
      if (symlink(outside.c_str(), path.c_str()) == 0) {
         std::this_thread::yield();
         unlink(path.c_str());
      }
      rename(aside.c_str(), path.c_str());
   }
}

/* Makes dir/sub and five files in each of them. */
void Fill(const std::string &dir, const std::string &sub, const char *text)
{
   mkdir(dir.c_str(), 0755);
   mkdir((dir + "/" + sub).c_str(), 0755);
   for (int j = 0; j < 5; j++) {
      WriteFile(dir + "/f" + std::to_string(j), text);
      WriteFile(dir + "/" + sub + "/f" + std::to_string(j), text);
   }
}

/*
 * Builds a tree at root and runs walk on it while its directories (and the directories inside
 * them, being walked) are swapped for links to outside; outside stays intact.
 */
void Race(const std::string &root, const std::string &outside, const std::function<void()> &walk)
{
   mkdir(root.c_str(), 0755);
   for (int i = 0; i < kDirs; i++) {
      Fill(root + "/d" + std::to_string(i), "inner", "tree");
   }
   std::atomic<bool> stop{false};
   std::thread swapper([&] {
      for (unsigned i = 0; !stop.load(); i++) {
         std::string d = root + "/d" + std::to_string(i % kDirs);
         SwapOnce(d, outside);
         SwapOnce(d + "/inner", outside);
      }
   });
   walk();
   stop = true;
   swapper.join();
   Msg_Reset(false);
   for (int j = 0; j < 5; j++) {
      EXPECT_EQ(ReadFile(outside + "/f" + std::to_string(j)), "SECRET");
      EXPECT_EQ(ReadFile(outside + "/sub/f" + std::to_string(j)), "SECRET");
   }
}

TEST(TreeRace, DeletionAndCopyStayInsideTheTree)
{
   ScratchDir scratch;
   Fill(scratch / "outside", "sub", "SECRET");
   for (int round = 0; round < kRounds; round++) {
      std::string root = scratch / ("tree" + std::to_string(round));
      Race(root, scratch / "outside", [&] { File_DeleteDirectoryTree(root.c_str()); });
      // Whatever the race left, a second pass clears it.
      EXPECT_TRUE(File_DeleteDirectoryTree(root.c_str()));
      EXPECT_FALSE(Exists(root));

      std::string dst = scratch / ("dst" + std::to_string(round));
      mkdir(dst.c_str(), 0755);
      Race(root, scratch / "outside",
           [&] { File_CopyTree(root.c_str(), dst.c_str(), true, false); });
      // grep -r reads regular files only and follows no link.
      EXPECT_NE(system(("grep -rqs SECRET '" + dst + "'").c_str()), 0) << round;
   }
}

}  // namespace
