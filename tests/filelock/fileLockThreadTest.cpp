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
   std::vector<std::thread> threads;
   for (size_t i = 0; i < seen.size(); i++) {
      threads.emplace_back([&seen, i] { seen[i] = FileLockGetMachineID(); });
   }
   for (std::thread &t : threads) {
      t.join();
   }
   for (const char *id : seen) {
      EXPECT_EQ(id, seen[0]);
   }
}

TEST(FileLockThread, ExclusiveHoldersNeverOverlap)
{
   testsupport::ScratchDir dir;
   std::string path = dir / "data";
   std::atomic<int> holders{0};
   std::atomic<int> sharedHolders{0};
   std::atomic<int> maxShared{0};
   std::atomic<int> overlaps{0};
   std::atomic<int> acquisitions{0};
   std::vector<std::thread> threads;
   for (int t = 0; t < 4; t++) {
      threads.emplace_back([&, t] {
         for (int i = 0; i < 8; i++) {
            bool shared = (t + i) % 2 == 0;
            int err = 0;
            FileLockToken *token =
                FileLock_Lock(path.c_str(), shared, FILELOCK_INFINITE_WAIT, &err, nullptr);
            if (token == nullptr) {
               overlaps++;
               return;
            }
            if (shared) {
               int now = ++sharedHolders;
               int seen = maxShared.load();
               while (now > seen && !maxShared.compare_exchange_weak(seen, now)) {
               }
               if (holders.load() != 0) {
                  overlaps++;
               }
               std::this_thread::sleep_for(std::chrono::milliseconds(30));
               --sharedHolders;
            } else {
               if (holders.exchange(1) != 0 || sharedHolders.load() != 0) {
                  overlaps++;
               }
               std::this_thread::sleep_for(std::chrono::milliseconds(2));
               holders.store(0);
            }
            acquisitions++;
            FileLock_Unlock(token, &err, nullptr);
         }
      });
   }
   for (std::thread &t : threads) {
      t.join();
   }
   EXPECT_EQ(overlaps.load(), 0);
   EXPECT_EQ(acquisitions.load(), 32);
}
