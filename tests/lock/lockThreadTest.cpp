#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "testSupport.h"
#include "userlock.h"

namespace {

/* Starts every thread's body at once, to widen the race windows. */
class StartLine {
  public:
   explicit StartLine(int n) : waiting_(n) {}
   void Arrive()
   {
      waiting_.fetch_sub(1);
      while (waiting_.load() > 0) {
         std::this_thread::yield();
      }
   }

  private:
   std::atomic<int> waiting_;
};

template <typename Body>
void RunThreads(int n, Body body)
{
   StartLine start(n);
   std::vector<std::thread> threads;
   for (int i = 0; i < n; i++) {
      threads.emplace_back([&, i] {
         start.Arrive();
         body(i);
      });
   }
   for (auto &t : threads) {
      t.join();
   }
}

}  // namespace

TEST(MXUserThreads, LazyCreationRacesEndWithOneLock)
{
   constexpr int kThreads = 8;
   for (int round = 0; round < 20; round++) {
      MXUserRecLock *recSlot = nullptr;
      MXUserExclLock *exclSlot = nullptr;
      MXUserRecLock *recSeen[kThreads];
      MXUserExclLock *exclSeen[kThreads];
      RunThreads(kThreads, [&](int i) {
         recSeen[i] = MXUser_CreateSingletonRecLock(&recSlot, "lazyRec", 0);
         exclSeen[i] = MXUser_CreateSingletonExclLock(&exclSlot, "lazyExcl", 0);
      });
      for (int i = 0; i < kThreads; i++) {
         EXPECT_EQ(recSeen[i], recSlot);
         EXPECT_EQ(exclSeen[i], exclSlot);
      }
      EXPECT_EQ(MXUser_CreateSingletonRecLock(&recSlot, "again", 0), recSlot);
      MXUser_DestroyRecLock(recSlot);
      MXUser_DestroyExclLock(exclSlot);
   }
}

TEST(MXUserThreads, LocksExcludeOtherThreadsAndNestForTheOwner)
{
   MXUserRecLock *rec = MXUser_CreateRecLock("counter", 0);
   MXUserExclLock *excl = MXUser_CreateExclLock("counter2", 0);
   long recCount = 0;
   long exclCount = 0;
   RunThreads(4, [&](int) {
      for (int n = 0; n < 20000; n++) {
         MXUser_AcquireRecLock(rec);
         MXUser_AcquireRecLock(rec);
         recCount++;
         MXUser_ReleaseRecLock(rec);
         MXUser_ReleaseRecLock(rec);
         MXUser_AcquireExclLock(excl);
         exclCount++;
         MXUser_ReleaseExclLock(excl);
      }
   });
   EXPECT_EQ(recCount, 80000);
   EXPECT_EQ(exclCount, 80000);
   MXUser_DestroyRecLock(rec);
   MXUser_DestroyExclLock(excl);
}

TEST(MXUserThreads, ExclusiveLockTakenTwiceIsFreeOnlyAfterTwoReleases)
{
   MXUserExclLock *lock = MXUser_CreateExclLock("twice", 0);
   auto otherCanTake = [&] {
      bool took = false;
      bool holding = true;
      std::thread([&] {
         holding = MXUser_IsCurThreadHoldingExclLock(lock);
         took = MXUser_TryAcquireExclLock(lock);
         if (took) {
            MXUser_ReleaseExclLock(lock);
         }
      }).join();
      EXPECT_FALSE(holding);
      return took;
   };
   MXUser_AcquireExclLock(lock);
   MXUser_AcquireExclLock(lock);
   EXPECT_TRUE(MXUser_IsCurThreadHoldingExclLock(lock));
   EXPECT_FALSE(otherCanTake());
   MXUser_ReleaseExclLock(lock);
   EXPECT_TRUE(MXUser_IsCurThreadHoldingExclLock(lock));
   EXPECT_FALSE(otherCanTake());
   MXUser_ReleaseExclLock(lock);
   EXPECT_FALSE(MXUser_IsCurThreadHoldingExclLock(lock));
   EXPECT_TRUE(otherCanTake());
   MXUser_DestroyExclLock(lock);
}

TEST(MXUserThreads, WaitersWakeOnSignalAndBroadcastWithTheirNesting)
{
   MXUserRecLock *lock = MXUser_CreateRecLock("queue", 0);
   MXUserCondVar *cv = MXUser_CreateCondVarRecLock(lock);
   int ready = 0;
   int woken = 0;
   std::vector<std::thread> waiters;
   for (int i = 0; i < 3; i++) {
      waiters.emplace_back([&] {
         MXUser_AcquireRecLock(lock);
         MXUser_AcquireRecLock(lock);
         ready++;
         while (woken == 0) {
            MXUser_WaitCondVarRecLock(lock, cv);
         }
         EXPECT_TRUE(MXUser_IsCurThreadHoldingRecLock(lock));
         woken++;
         MXUser_ReleaseRecLock(lock);
         EXPECT_TRUE(MXUser_IsCurThreadHoldingRecLock(lock));
         MXUser_ReleaseRecLock(lock);
      });
   }
   for (;;) {
      MXUser_AcquireRecLock(lock);
      bool all = ready == 3;
      if (all) {
         woken = 1;
         MXUser_SignalCondVar(cv);
         MXUser_BroadcastCondVar(cv);
      }
      MXUser_ReleaseRecLock(lock);
      if (all) {
         break;
      }
      std::this_thread::yield();
   }
   for (auto &t : waiters) {
      t.join();
   }
   EXPECT_EQ(woken, 4);
   MXUser_DestroyCondVar(cv);
   MXUser_DestroyRecLock(lock);
}

TEST(MXUserThreads, TimedWaitTimesOutOrWakesEarly)
{
   MXUserExclLock *lock = MXUser_CreateExclLock("timed", 0);
   MXUserCondVar *cv = MXUser_CreateCondVarExclLock(lock);

   MXUser_AcquireExclLock(lock);
   auto begin = std::chrono::steady_clock::now();
   MXUser_TimedWaitCondVarExclLock(lock, cv, 60);
   auto waited = std::chrono::steady_clock::now() - begin;
   EXPECT_GE(waited, std::chrono::milliseconds(55));
   EXPECT_TRUE(MXUser_IsCurThreadHoldingExclLock(lock));

   bool flag = false;
   std::thread signaller([&] {
      MXUser_AcquireExclLock(lock);
      flag = true;
      MXUser_SignalCondVar(cv);
      MXUser_ReleaseExclLock(lock);
   });
   begin = std::chrono::steady_clock::now();
   while (!flag) {
      MXUser_TimedWaitCondVarExclLock(lock, cv, 10000);
   }
   EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5));
   MXUser_ReleaseExclLock(lock);
   signaller.join();
   MXUser_DestroyCondVar(cv);
   MXUser_DestroyExclLock(lock);
}

TEST(MXUserThreads, StatisticsUnderContention)
{
   MXUser_SetStatsMode(2);
   MXUserExclLock *lock = MXUser_CreateExclLock("busy", 0);
   MXUser_SetStatsMode(0);
   long count = 0;
   RunThreads(4, [&](int) {
      for (int n = 0; n < 5000; n++) {
         if (n % 7 == 0 && MXUser_TryAcquireExclLock(lock)) {
            count++;
            MXUser_ReleaseExclLock(lock);
            continue;
         }
         MXUser_AcquireExclLock(lock);
         count++;
         MXUser_ReleaseExclLock(lock);
      }
   });
   EXPECT_EQ(count, 20000);
   MXUser_DestroyExclLock(lock);
}
