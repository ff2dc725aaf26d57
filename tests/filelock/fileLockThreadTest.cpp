/*
 * Threads of one process locking the same path: the identity caches are published once, and
 * exclusive holders never overlap while shared ones may.
 */
#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "fileLock.h"
#include "fileLockInt.h"
#include "testSupport.h"

TEST(FileLockThread, IdentitiesArePublishedOnce)
{
   std::vector<const char *> seen(8);
   testsupport::RunThreads(8, [&](int i) { seen[i] = FileLockGetMachineID(); });
   EXPECT_EQ(seen, std::vector<const char *>(8, seen[0]));
}

TEST(FileLockThread, ExclusiveHoldersNeverOverlap)
{
   testsupport::ScratchDir dir;
   std::string path = dir / "data";
   std::atomic<int> holders{0}, sharedHolders{0}, overlaps{0}, acquisitions{0};
   testsupport::RunThreads(4, [&](int t) {
      for (int i = 0; i < 8; i++) {
         bool shared = (t + i) % 2 == 0;
         int err = 0;
         FileLockToken *token =
             FileLock_Lock(path.c_str(), shared, FILELOCK_INFINITE_WAIT, &err, nullptr);
         ASSERT_NE(token, nullptr);
         if (shared) {
            ++sharedHolders;
            overlaps += holders.load() != 0;
            std::this_thread::sleep_for(std::chrono::milliseconds(30));
            --sharedHolders;
         } else {
            overlaps += holders.exchange(1) != 0 || sharedHolders.load() != 0;
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
            holders.store(0);
         }
         acquisitions++;
         FileLock_Unlock(token, &err, nullptr);
      }
   });
   EXPECT_EQ(overlaps.load(), 0);
   EXPECT_EQ(acquisitions.load(), 32);
}
