#include <atomic>
#include <chrono>

#include "lock/ulInt.h"
#include "testSupport.h"
#include "userlock.h"

using testsupport::RunThreads;

TEST(MXUserThreads, LazyCreationRacesEndWithOneLock)
{
   constexpr int kThreads = 8;
   for (int round = 0; round < 20; round++) {
      MXUserRecLock *slot = nullptr;
      std::vector<MXUserRecLock *> seen(kThreads);
      RunThreads(kThreads,
                 [&](int i) { seen[i] = MXUser_CreateSingletonRecLock(&slot, "lazy", 0); });
      EXPECT_EQ(seen, std::vector(kThreads, slot));
      MXUser_DestroyRecLock(slot);
   }
}

/* The exclusive lock keeps statistics, so their counters are raced too. */
TEST(MXUserThreads, LocksExcludeOtherThreadsNestForTheOwnerAndCountEveryAttempt)
{
   MXUserRecLock *rec = MXUser_CreateRecLock("counter", 0);
   MXUser_SetStatsMode(2);
   MXUserExclLock *excl = MXUser_CreateExclLock("counter2", 0);
   MXUser_SetStatsMode(0);
   long recCount = 0, exclCount = 0;
   std::atomic<uint64_t> failedTries{0};
   RunThreads(4, [&](int) {
      for (int n = 0; n < 10000; n++) {
         MXUser_AcquireRecLock(rec);
         MXUser_AcquireRecLock(rec);
         recCount++;
         MXUser_ReleaseRecLock(rec);
         MXUser_ReleaseRecLock(rec);
         if (n % 7 != 0 || !MXUser_TryAcquireExclLock(excl)) {
            failedTries += n % 7 == 0;
            MXUser_AcquireExclLock(excl);
         }
         exclCount++;
         MXUser_ReleaseExclLock(excl);
      }
   });
   EXPECT_TRUE(recCount == 40000 && exclCount == 40000) << recCount << " " << exclCount;
   MXUserAcquisitionStats *acquired = excl->acquireStatsMem.load();
   EXPECT_TRUE(acquired->numAttempts == 40000 + failedTries && acquired->numSuccesses == 40000 &&
               excl->heldStatsMem.load()->basicStats.numSamples == 40000);
   MXUser_DestroyRecLock(rec);
   MXUser_DestroyExclLock(excl);
}

/* One waiter uses a long time-out: it must wake as early as the others. */
TEST(MXUserThreads, WaitersWakeOnSignalAndBroadcastWithTheirNesting)
{
   auto begin = std::chrono::steady_clock::now();
   MXUserRecLock *lock = MXUser_CreateRecLock("queue", 0);
   MXUserCondVar *cv = MXUser_CreateCondVarRecLock(lock);
   int ready = 0, woken = 0;
   RunThreads(4, [&](int i) {
      for (bool all = false; i == 3 && !all; std::this_thread::yield()) {  // the signaller
         MXUser_AcquireRecLock(lock);
         if ((all = ready == 3)) {
            woken = 1;
            MXUser_SignalCondVar(cv);
            MXUser_BroadcastCondVar(cv);
         }
         MXUser_ReleaseRecLock(lock);
      }
      if (i == 3) {
         return;
      }
      MXUser_AcquireRecLock(lock);
      MXUser_AcquireRecLock(lock);
      ready++;
      while (woken == 0) {
         i == 0 ? MXUser_TimedWaitCondVarRecLock(lock, cv, 10000)
                : MXUser_WaitCondVarRecLock(lock, cv);
      }
      woken++;
      MXUser_ReleaseRecLock(lock);
      EXPECT_TRUE(MXUser_IsCurThreadHoldingRecLock(lock));
      MXUser_ReleaseRecLock(lock);
   });
   EXPECT_EQ(woken, 4);
   EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5));
   MXUser_DestroyCondVar(cv);
   MXUser_DestroyRecLock(lock);
}

/* A timed wait returns after its time-out with the owner's nesting intact. */
TEST(MXUserThreads, ExclusiveLockNestsThroughTimedWaits)
{
   MXUserExclLock *lock = MXUser_CreateExclLock("twice", 0);
   MXUserCondVar *cv = MXUser_CreateCondVarExclLock(lock);
   MXUser_AcquireExclLock(lock);
   EXPECT_TRUE(MXUser_TryAcquireExclLock(lock));
   auto begin = std::chrono::steady_clock::now();
   MXUser_TimedWaitCondVarExclLock(lock, cv, 60);
   EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(55));
   EXPECT_TRUE(MXRecLockCount(&lock->recursiveLock) == 2 && cv->referenceCount.load() == 0);
   MXUser_ReleaseExclLock(lock);
   std::thread([&] { EXPECT_FALSE(MXUser_TryAcquireExclLock(lock)); }).join();
   MXUser_ReleaseExclLock(lock);
   EXPECT_FALSE(MXUser_IsCurThreadHoldingExclLock(lock));
   MXUser_DestroyCondVar(cv);
   MXUser_DestroyExclLock(lock);
}
