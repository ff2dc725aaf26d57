/*
 * Exclusive locks. They share the native recursive acquire, so a second acquire by the owner
 * nests; callers rely on that leniency.
 */
#include <stdlib.h>

#include <new>

#include "lock/ulInt.h"
#include "log.h"
#include "str.h"
#include "util.h"

namespace {

MXUserExclLock *ExclLockOf(MXUserHeader *header)
{
   return reinterpret_cast<MXUserExclLock *>(header);
}

void MXUserDumpExclLock(MXUserHeader *header)
{
   MXUserExclLock *lock = ExclLockOf(header);
   Warning("%s: Exclusive lock @ %p\n", "MXUserDumpExclLock", static_cast<void *>(lock));
   MXUserDumpHeaderFields(header);
   Warning("\tlock count %d\n", MXRecLockCount(&lock->recursiveLock));
   Warning("\taddress of owner data %p\n", static_cast<void *>(&lock->recursiveLock.owner));
}

void MXUserStatsActionExcl(MXUserHeader *header)
{
   MXUserExclLock *lock = ExclLockOf(header);
   MXUserLockStatsAction(header, lock->acquireStatsMem, lock->heldStatsMem);
}

MXUserExclLock *CreateExclLock(const char *name, MX_Rank rank, const void *caller)
{
   void *mem = Util_SafeCalloc(1, sizeof(MXUserExclLock));
   MXUserExclLock *lock = new (mem) MXUserExclLock();
   if (!MXRecLockInit(&lock->recursiveLock)) {
      Panic("%s: native lock initialization routine failed\n", "MXUser_CreateExclLock");
   }
   MXUserInitHeader(&lock->header, name, "X-%p", caller, MXUSER_TYPE_EXCL, rank,
                    MXUserDumpExclLock);
   MXUserEnableStats("MXUser_CreateExclLock", &lock->header, lock->acquireStatsMem,
                     lock->heldStatsMem, MXUserStatsActionExcl);
   MXUserAddToList(&lock->header);
   return lock;
}

}  // namespace

extern "C" {

__attribute__((noinline)) MXUserExclLock *MXUser_CreateExclLock(const char *name, MX_Rank rank)
{
   return CreateExclLock(name, rank, __builtin_return_address(0));
}

__attribute__((noinline)) MXUserExclLock *MXUser_CreateSingletonExclLock(
    MXUserExclLock **lockStorage, const char *name, MX_Rank rank)
{
   const void *caller = __builtin_return_address(0);
   return MXUserCreateSingleton(
       lockStorage, [&] { return CreateExclLock(name, rank, caller); }, MXUser_DestroyExclLock);
}

void MXUser_AcquireExclLock(MXUserExclLock *lock)
{
   MXUserAcquisitionStats *stats = lock->acquireStatsMem.load(std::memory_order_relaxed);
   if (__builtin_expect(stats == nullptr, 1)) {
      MXRecLockAcquire(&lock->recursiveLock);
   } else {
      MXUserAcquireWithStats(&lock->recursiveLock, stats,
                             lock->heldStatsMem.load(std::memory_order_relaxed));
   }
}

void MXUser_ReleaseExclLock(MXUserExclLock *lock)
{
   MXUserHeldStats *held = lock->heldStatsMem.load(std::memory_order_relaxed);
   if (__builtin_expect(held == nullptr, 1)) {
      MXRecLockRelease(&lock->recursiveLock);
   } else {
      MXUserReleaseWithStats(&lock->recursiveLock, held);
   }
}

bool MXUser_TryAcquireExclLock(MXUserExclLock *lock)
{
   MXUserAcquisitionStats *stats = lock->acquireStatsMem.load(std::memory_order_relaxed);
   if (stats == nullptr) {
      return MXRecLockTryAcquire(&lock->recursiveLock);
   }
   return MXUserTryAcquireWithStats(&lock->recursiveLock, stats,
                                    lock->heldStatsMem.load(std::memory_order_relaxed));
}

bool MXUser_IsCurThreadHoldingExclLock(MXUserExclLock *lock)
{
   return MXRecLockIsOwner(&lock->recursiveLock);
}

void MXUser_DestroyExclLock(MXUserExclLock *lock)
{
   if (lock == nullptr) {
      return;
   }
   if (MXRecLockCount(&lock->recursiveLock) >= 1) {
      MXUserDumpAndPanic(&lock->header, "%s: Destroy of an acquired exclusive lock\n",
                         "MXUser_DestroyExclLock");
   }
   MXRecLockDestroy(&lock->recursiveLock);
   MXUserRemoveFromList(&lock->header);
   MXUserAcquisitionStatsFree(lock->acquireStatsMem.load());
   MXUserHeldStatsFree(lock->heldStatsMem.load());
   lock->header.signature = 0;
   free(lock->header.name);
   lock->~MXUserExclLock();
   free(lock);
}

MXUserCondVar *MXUser_CreateCondVarExclLock(MXUserExclLock *lock)
{
   return MXUserCreateCondVar(&lock->header, &lock->recursiveLock);
}

void MXUser_WaitCondVarExclLock(MXUserExclLock *lock, MXUserCondVar *condVar)
{
   MXUserWaitCondVar(&lock->header, &lock->recursiveLock, condVar, MXUSER_WAIT_INFINITE);
}

void MXUser_TimedWaitCondVarExclLock(MXUserExclLock *lock, MXUserCondVar *condVar,
                                     uint32_t msecWait)
{
   MXUserWaitCondVar(&lock->header, &lock->recursiveLock, condVar, msecWait);
}

}  // extern "C"
