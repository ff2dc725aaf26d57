#include <stdlib.h>

#include <string>
#include <thread>

#include "lock/ulInt.h"
#include "testSupport.h"
#include "userlock.h"

using testsupport::LogCapture;

namespace {

std::string Hex(const void *p)
{
   char buf[32];
   snprintf(buf, sizeof buf, "%p", p);
   return buf;
}

__attribute__((noinline)) MXUserRecLock *CreateUnnamedAtSiteA()
{
   MXUserRecLock *lock = MXUser_CreateRecLock(nullptr, 0);
   asm volatile("" ::: "memory"); /* no tail call: the call site stays here */
   return lock;
}

__attribute__((noinline)) MXUserRecLock *CreateUnnamedAtSiteB()
{
   MXUserRecLock *lock = MXUser_CreateRecLock(nullptr, 1);
   asm volatile("" ::: "memory"); /* no tail call: the call site stays here */
   return lock;
}

}  // namespace

TEST(MXUser, UnnamedLocksAreNamedAfterTheCreatingCode)
{
   MXUserRecLock *a1 = CreateUnnamedAtSiteA();
   MXUserRecLock *a2 = CreateUnnamedAtSiteA();
   MXUserRecLock *b = CreateUnnamedAtSiteB();
   MXUserExclLock *x = MXUser_CreateExclLock(nullptr, 0);

   std::string nameA = a1->header.name;
   EXPECT_EQ(nameA.rfind("R-0x", 0), 0u) << nameA;
   EXPECT_EQ(nameA, a2->header.name);
   EXPECT_NE(nameA, b->header.name);
   EXPECT_EQ(std::string(x->header.name).rfind("X-0x", 0), 0u) << x->header.name;

   /* The address lies inside the code that made the call. */
   uintptr_t site = strtoull(nameA.c_str() + 2, nullptr, 16);
   uintptr_t fn = reinterpret_cast<uintptr_t>(&CreateUnnamedAtSiteA);
   EXPECT_GT(site, fn);
   EXPECT_LT(site, fn + 256);

   MXUser_DestroyRecLock(a1);
   MXUser_DestroyRecLock(a2);
   MXUser_DestroyRecLock(b);
   MXUser_DestroyExclLock(x);
}

TEST(MXUser, SignaturesCarryTypeAndSharedSaltAndSerialsIncrease)
{
   MXUserRecLock *r = MXUser_CreateRecLock("r", 1);
   MXUserExclLock *x = MXUser_CreateExclLock("x", 2);
   MXUserCondVar *cv = MXUser_CreateCondVarExclLock(x);

   EXPECT_EQ(r->header.signature >> 28, 2u);
   EXPECT_EQ(x->header.signature >> 28, 4u);
   EXPECT_EQ(cv->signature >> 28, 6u);
   EXPECT_EQ(r->header.signature & 0x0FFFFFFF, x->header.signature & 0x0FFFFFFF);
   EXPECT_EQ(r->header.signature & 0x0FFFFFFF, cv->signature & 0x0FFFFFFF);
   EXPECT_NE(r->header.signature & 0x0FFFFFFF, 0u);
   EXPECT_GT(x->header.serialNumber, r->header.serialNumber);

   MXUser_DestroyCondVar(cv);
   MXUser_DestroyCondVar(nullptr);
   MXUser_DestroyExclLock(x);
   MXUser_DestroyExclLock(nullptr);
   MXUser_DestroyRecLock(r);
   MXUser_DestroyRecLock(nullptr);
}

TEST(MXUser, FirstLockOfAProcessHasSerialNumberOne)
{
   GTEST_FLAG_SET(death_test_style, "threadsafe");
   /* The threadsafe style re-runs the program, so the child starts with fresh globals. */
   EXPECT_EXIT(
       {
          MXUserExclLock *first = MXUser_CreateExclLock("first", 0);
          MXUserRecLock *second = MXUser_CreateRecLock("second", 0);
          exit(static_cast<int>(first->header.serialNumber * 10 + second->header.serialNumber));
       },
       ::testing::ExitedWithCode(12), "");
}

TEST(MXUser, RecursiveLockNestsCountsAndDumps)
{
   MXUserRecLock *lock = MXUser_CreateRecLock("nested", 0x2A);
   EXPECT_EQ(MXUser_GetRecLockRank(lock), 0x2Au);
   EXPECT_EQ(MXUser_GetRecLockVmm(lock), nullptr);
   EXPECT_FALSE(MXUser_IsCurThreadHoldingRecLock(lock));

   MXUser_AcquireRecLock(lock);
   EXPECT_TRUE(MXUser_TryAcquireRecLock(lock));
   MXUser_IncRefRecLock(lock);
   EXPECT_TRUE(MXUser_IsCurThreadHoldingRecLock(lock));

   {
      LogCapture log;
      MXUser_DumpRecLock(lock);
      char expected[512];
      snprintf(expected, sizeof expected,
               "Warning: MXUserDumpRecLock: Recursive lock @ %s\n"
               "Warning: \tsignature 0x%X\n"
               "Warning: \tname nested\n"
               "Warning: \trank 0x2A\n"
               "Warning: \tserial number %llu\n"
               "Warning: \treference count 2\n"
               "Warning: \tlock count 2\n"
               "Warning: \taddress of owner data %s\n",
               Hex(lock).c_str(), lock->header.signature,
               static_cast<unsigned long long>(lock->header.serialNumber),
               Hex(&lock->recursiveLock.owner).c_str());
      EXPECT_EQ(log.Text(), expected);
   }

   MXUser_ReleaseRecLock(lock);
   EXPECT_TRUE(MXUser_IsCurThreadHoldingRecLock(lock));
   MXUser_ReleaseRecLock(lock);
   EXPECT_FALSE(MXUser_IsCurThreadHoldingRecLock(lock));

   /* Two references: the first destroy leaves a working lock. */
   MXUser_DestroyRecLock(lock);
   MXUser_AcquireRecLock(lock);
   MXUser_ReleaseRecLock(lock);
   MXUser_DecRefRecLock(lock);
}

TEST(MXUser, HeldLocksPanicOnDestroyAfterDumpingThemselves)
{
   MXUserExclLock *excl = MXUser_CreateExclLock("held", 0x10);
   std::string exclDump =
       "Warning: MXUserDumpExclLock: Exclusive lock @ 0x[0-9a-f]+\n"
       ".*Warning: \tsignature 0x4[0-9A-F]{7}\n"
       ".*Warning: \tname held\n"
       ".*Warning: \trank 0x10\n"
       ".*Warning: \tserial number [0-9]+\n"
       ".*Warning: \tlock count 2\n"
       ".*Warning: \taddress of owner data 0x[0-9a-f]+\n"
       ".*Panic: MXUser_DestroyExclLock: Destroy of an acquired exclusive lock\n";
   EXPECT_EXIT(
       {
          Log_SetOutputFd(2);
          MXUser_AcquireExclLock(excl);
          MXUser_AcquireExclLock(excl);
          MXUser_DestroyExclLock(excl);
       },
       ::testing::ExitedWithCode(1), exclDump);
   MXUser_DestroyExclLock(excl);

   MXUserRecLock *rec = MXUser_CreateRecLock("shared", 3);
   std::string recDump =
       "Warning: MXUserDumpRecLock: Recursive lock @ 0x[0-9a-f]+\n"
       ".*Warning: \tsignature 0x2[0-9A-F]{7}\n"
       ".*Warning: \tname shared\n"
       ".*Warning: \trank 0x3\n"
       ".*Warning: \tserial number [0-9]+\n"
       ".*Warning: \treference count 0\n"
       ".*Warning: \tlock count 1\n"
       ".*Warning: \taddress of owner data 0x[0-9a-f]+\n"
       ".*Panic: MXUserCondDestroyRecLock: Destroy of an acquired recursive lock\n";
   EXPECT_EXIT(
       {
          Log_SetOutputFd(2);
          MXUser_IncRefRecLock(rec);
          MXUser_AcquireRecLock(rec);
          MXUser_DestroyRecLock(rec); /* not the last reference: no check yet */
          MXUser_DestroyRecLock(rec);
       },
       ::testing::ExitedWithCode(1), recDump);
   MXUser_DestroyRecLock(rec);
}

TEST(MXUser, UnknownStatisticsModeIsFatal)
{
   EXPECT_PANIC(
       {
          MXUser_SetStatsMode(3);
          MXUser_CreateExclLock("x", 0);
       },
       "MXUser_CreateExclLock: unknown stats mode: 3!\n");
   EXPECT_PANIC(
       {
          MXUser_SetStatsMode(-1);
          MXUser_CreateRecLock("r", 0);
       },
       "MXUser_CreateRecLock: unknown stats mode: -1!\n");
}

TEST(MXUser, SerialNumberWrapIsFatal)
{
   EXPECT_PANIC(
       {
          mxUserSerialCounter.store(0);
          MXUser_CreateExclLock("x", 0);
       },
       "MXUserAllocSerialNumber: too many locks!\n");
}

TEST(MXUser, ZeroTimeoutWaitReturnsWithTheNestingRestored)
{
   MXUserRecLock *lock = MXUser_CreateRecLock("cv", 0);
   MXUserCondVar *cv = MXUser_CreateCondVarRecLock(lock);
   MXUser_AcquireRecLock(lock);
   MXUser_AcquireRecLock(lock);
   MXUser_TimedWaitCondVarRecLock(lock, cv, 0);
   EXPECT_TRUE(MXUser_IsCurThreadHoldingRecLock(lock));
   EXPECT_EQ(MXRecLockCount(&lock->recursiveLock), 2);
   EXPECT_EQ(cv->referenceCount.load(), 0u);
   MXUser_SignalCondVar(cv);
   MXUser_BroadcastCondVar(cv);
   MXUser_ReleaseRecLock(lock);
   MXUser_ReleaseRecLock(lock);
   EXPECT_FALSE(MXUser_IsCurThreadHoldingRecLock(lock));
   MXUser_DestroyCondVar(cv);
   MXUser_DestroyRecLock(lock);
}

TEST(MXUser, ConditionVariableMisuseIsFatal)
{
   MXUserExclLock *owner = MXUser_CreateExclLock("owner", 0);
   MXUserExclLock *other = MXUser_CreateExclLock("other", 0);
   MXUserCondVar *cv = MXUser_CreateCondVarExclLock(owner);

   EXPECT_PANIC(
       {
          MXUser_AcquireExclLock(other);
          MXUser_WaitCondVarExclLock(other, cv);
       },
       "MXUserWaitCondVar: invalid use of lock other with condVar (0x" + Hex(cv) + "; owner)\n");

   EXPECT_PANIC(
       {
          std::thread waiter([&] {
             MXUser_AcquireExclLock(owner);
             MXUser_WaitCondVarExclLock(owner, cv);
          });
          while (cv->referenceCount.load() == 0) {
             std::this_thread::yield();
          }
          MXUser_DestroyCondVar(cv);
       },
       "MXUser_DestroyCondVar: Attempted destroy on active condVar (0x" + Hex(cv) + "; owner)\n");

   MXUser_DestroyCondVar(cv);
   MXUser_DestroyExclLock(other);
   MXUser_DestroyExclLock(owner);
}
