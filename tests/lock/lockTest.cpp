#include <stdlib.h>

#include "lock/ulInt.h"
#include "testSupport.h"
#include "userlock.h"

/* The dump of an unbound lock as it reaches standard error, each line behind its log stamp. */
static std::string DumpLines(const char *head, const void *lock, const MXUserHeader &header,
                             const char *referenceLine, int count, const void *owner)
{
   char text[512];
   snprintf(text, sizeof text,
            "Warning: %s lock @ %p\n.*Warning: \tsignature 0x%X\n.*Warning: \tname %s\n"
            ".*Warning: \trank 0x%X\n.*Warning: \tserial number %llu\n%s"
            ".*Warning: \tlock count %d\n.*Warning: \taddress of owner data %p\n",
            head, lock, header.signature, header.name, header.rank,
            static_cast<unsigned long long>(header.serialNumber), referenceLine, count, owner);
   return text;
}

static __attribute__((noinline)) MXUserRecLock *CreateUnnamedHere()
{
   MXUserRecLock *lock = MXUser_CreateRecLock(nullptr, 0);
   asm volatile("" ::: "memory");  // no tail call: the call site stays here
   return lock;
}

TEST(MXUser, LocksAreNamedAfterTheCreatingCodeAndShared)
{
   MXUserRecLock *a1 = CreateUnnamedHere(), *a2 = CreateUnnamedHere();
   MXUserRecLock *b = MXUser_CreateRecLock(nullptr, 0);
   MXUserExclLock *x = MXUser_CreateExclLock(nullptr, 0);
   std::string nameA = a1->header.name;
   EXPECT_TRUE(nameA.starts_with("R-0x") && nameA == a2->header.name && nameA != b->header.name);
   EXPECT_TRUE(std::string(x->header.name).starts_with("X-0x")) << x->header.name;
   // The address lies inside the code that made the call.
   uintptr_t site = strtoull(nameA.c_str() + 2, nullptr, 16) - (uintptr_t)&CreateUnnamedHere;
   EXPECT_LT(site - 1, 255u);
   EXPECT_GT(x->header.serialNumber, a1->header.serialNumber);

   // Two references: the first destroy leaves a working lock, which nests for its owner.
   MXUser_IncRefRecLock(a1);
   MXUser_DestroyRecLock(a1);
   MXUser_AcquireRecLock(a1);
   EXPECT_TRUE(MXUser_TryAcquireRecLock(a1));
   MXUser_ReleaseRecLock(a1);
   EXPECT_TRUE(MXUser_IsCurThreadHoldingRecLock(a1));
   MXUser_ReleaseRecLock(a1);
   MXUser_DecRefRecLock(a1);
   MXUser_DestroyRecLock(a2);
   MXUser_DestroyRecLock(b);
   MXUser_DestroyExclLock(x);
}

TEST(MXUser, EveryFaultDumpsTheLockAndPanics)
{
   MXUserExclLock *held = MXUser_CreateExclLock("held", 0x10);
   MXUserExclLock *other = MXUser_CreateExclLock("other", 0);
   MXUserRecLock *shared = MXUser_CreateRecLock("shared", 3);
   MXUserCondVar *cv = MXUser_CreateCondVarExclLock(held);
   std::string cvText(64, '\0');
   cvText.resize(snprintf(cvText.data(), 64, "(0x%p; held)\n", static_cast<void *>(cv)));
   auto fault = [](const std::function<void()> &cause, const std::string &pattern) {
      EXPECT_EXIT(
          {
             Log_SetOutputFd(2);
             cause();
          },
          ::testing::ExitedWithCode(1), pattern);
   };
   fault(
       [&] {
          MXUser_AcquireExclLock(held);
          MXUser_AcquireExclLock(held);
          MXUser_DestroyExclLock(held);
       },
       DumpLines("MXUserDumpExclLock: Exclusive", held, held->header, "", 2,
                 &held->recursiveLock.owner) +
           ".*Panic: MXUser_DestroyExclLock: Destroy of an acquired exclusive lock\n");
   // The first destroy drops a reference only, so the check comes with the second.
   fault(
       [&] {
          MXUser_IncRefRecLock(shared);
          MXUser_AcquireRecLock(shared);
          MXUser_DestroyRecLock(shared);
          MXUser_DestroyRecLock(shared);
       },
       DumpLines("MXUserDumpRecLock: Recursive", shared, shared->header,
                 ".*Warning: \treference count 0\n", 1, &shared->recursiveLock.owner) +
           ".*Panic: MXUserCondDestroyRecLock: Destroy of an acquired recursive lock\n");
   EXPECT_PANIC(
       {
          MXUser_AcquireExclLock(other);
          MXUser_WaitCondVarExclLock(other, cv);
       },
       "MXUserWaitCondVar: invalid use of lock other with condVar " + cvText);
   EXPECT_PANIC(
       {
          std::thread([&] {
             MXUser_AcquireExclLock(held);
             MXUser_WaitCondVarExclLock(held, cv);
          }).detach();
          while (cv->referenceCount.load() == 0) {
             std::this_thread::yield();
          }
          MXUser_DestroyCondVar(cv);
       },
       "MXUser_DestroyCondVar: Attempted destroy on active condVar " + cvText);
   EXPECT_PANIC(
       {
          MXUser_SetStatsMode(3);
          MXUser_CreateExclLock("x", 0);
       },
       "MXUser_CreateExclLock: unknown stats mode: 3!\n");
   EXPECT_PANIC(
       {
          gMXUserSerialCounter.store(0);
          MXUser_CreateExclLock("x", 0);
       },
       "MXUserAllocSerialNumber: too many locks!\n");
   MXUser_DestroyCondVar(cv);
   MXUser_DestroyRecLock(shared);
   MXUser_DestroyExclLock(other);
   MXUser_DestroyExclLock(held);
}
