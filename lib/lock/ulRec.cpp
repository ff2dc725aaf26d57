/*
 * Recursive locks: shared by reference count, optionally bound to a host mutex.
 */
#include <stdlib.h>

#include <new>

#include "lock/ulInt.h"
#include "log.h"
#include "str.h"
#include "util.h"

namespace {

MXUserRecLock *RecLockOf(MXUserHeader *header)
{
   return reinterpret_cast<MXUserRecLock *>(header);
}

void MXUserDumpRecLock(MXUserHeader *header)
{
   MXUserRecLock *lock = RecLockOf(header);
   Warning("%s: Recursive lock @ %p\n", "MXUserDumpRecLock", static_cast<void *>(lock));
   MXUserDumpHeaderFields(header);
   Warning("\treference count %u\n", lock->refCount.load());
   if (lock->vmmLock == nullptr) {
      Warning("\tlock count %d\n", MXRecLockCount(&lock->recursiveLock));
      Warning("\taddress of owner data %p\n", static_cast<void *>(&lock->recursiveLock.owner));
   } else {
      Warning("\tvmmLock %p\n", static_cast<void *>(lock->vmmLock));
   }
}

void MXUserStatsActionRec(MXUserHeader *header)
{
   MXUserRecLock *lock = RecLockOf(header);
   MXUserLockStatsAction(header, lock->acquireStatsMem, lock->heldStatsMem);
}

MXUserRecLock *AllocRecLock(void)
{
   void *mem = Util_SafeCalloc(1, sizeof(MXUserRecLock));
   return new (mem) MXUserRecLock();
}

MXUserRecLock *CreateRecLock(const char *name, MX_Rank rank, const void *caller)
{
   MXUserRecLock *lock = AllocRecLock();
   if (!MXRecLockInit(&lock->recursiveLock)) {
      Panic("%s: native lock initialization routine failed\n", "MXUser_CreateRecLock");
   }
   lock->vmmLock = nullptr;
   lock->refCount.store(1);
   MXUserInitHeader(&lock->header, name, "R-%p", caller, MXUSER_TYPE_REC, rank, MXUserDumpRecLock);
   MXUserEnableStats("MXUser_CreateRecLock", &lock->header, lock->acquireStatsMem,
                     lock->heldStatsMem, MXUserStatsActionRec);
   MXUserAddToList(&lock->header);
   return lock;
}

void MXUserCondDestroyRecLock(MXUserRecLock *lock)
{
   if (lock->refCount.fetch_sub(1) != 1) {
      return;
   }
   if (lock->vmmLock == nullptr) {
      if (MXRecLockCount(&lock->recursiveLock) > 0) {
         MXUserDumpAndPanic(&lock->header, "%s: Destroy of an acquired recursive lock\n",
                            "MXUserCondDestroyRecLock");
      }
      MXRecLockDestroy(&lock->recursiveLock);
      MXUserRemoveFromList(&lock->header);
      MXUserAcquisitionStatsFree(lock->acquireStatsMem.load());
      MXUserHeldStatsFree(lock->heldStatsMem.load());
   }
   lock->header.signature = 0;
   free(lock->header.name);
   lock->~MXUserRecLock();
   free(lock);
}

}  // namespace

extern "C" {

__attribute__((noinline)) MXUserRecLock *MXUser_CreateRecLock(const char *name, MX_Rank rank)
{
   return CreateRecLock(name, rank, __builtin_return_address(0));
}

__attribute__((noinline)) MXUserRecLock *MXUser_CreateSingletonRecLock(MXUserRecLock **lockStorage,
                                                                       const char *name,
                                                                       MX_Rank rank)
{
   const void *caller = __builtin_return_address(0);
   return MXUserCreateSingleton(
       lockStorage, [&] { return CreateRecLock(name, rank, caller); }, MXUser_DestroyRecLock);
}

void MXUser_AcquireRecLock(MXUserRecLock *lock)
{
   if (__builtin_expect(lock->vmmLock != nullptr, 0)) {
      mxUserHostHooks.lockFunc(lock->vmmLock);
      return;
   }
   MXUserAcquisitionStats *stats = lock->acquireStatsMem.load(std::memory_order_relaxed);
   if (__builtin_expect(stats == nullptr, 1)) {
      MXRecLockAcquire(&lock->recursiveLock);
   } else {
      MXUserAcquireWithStats(&lock->recursiveLock, stats,
                             lock->heldStatsMem.load(std::memory_order_relaxed));
   }
}

void MXUser_ReleaseRecLock(MXUserRecLock *lock)
{
   if (__builtin_expect(lock->vmmLock != nullptr, 0)) {
      mxUserHostHooks.unlockFunc(lock->vmmLock);
      return;
   }
   MXUserHeldStats *held = lock->heldStatsMem.load(std::memory_order_relaxed);
   if (__builtin_expect(held == nullptr, 1)) {
      MXRecLockRelease(&lock->recursiveLock);
   } else {
      MXUserReleaseWithStats(&lock->recursiveLock, held);
   }
}

bool MXUser_TryAcquireRecLock(MXUserRecLock *lock)
{
   if (lock->vmmLock != nullptr) {
      return mxUserHostHooks.tryLockFunc(lock->vmmLock);
   }
   MXUserAcquisitionStats *stats = lock->acquireStatsMem.load(std::memory_order_relaxed);
   if (stats == nullptr) {
      return MXRecLockTryAcquire(&lock->recursiveLock);
   }
   return MXUserTryAcquireWithStats(&lock->recursiveLock, stats,
                                    lock->heldStatsMem.load(std::memory_order_relaxed));
}

bool MXUser_IsCurThreadHoldingRecLock(MXUserRecLock *lock)
{
   if (lock->vmmLock != nullptr) {
      return mxUserHostHooks.isLockedFunc(lock->vmmLock);
   }
   return MXRecLockIsOwner(&lock->recursiveLock);
}

void MXUser_DestroyRecLock(MXUserRecLock *lock)
{
   if (lock != nullptr) {
      MXUserCondDestroyRecLock(lock);
   }
}

void MXUser_DecRefRecLock(MXUserRecLock *lock)
{
   MXUserCondDestroyRecLock(lock);
}

void MXUser_IncRefRecLock(MXUserRecLock *lock)
{
   lock->refCount.fetch_add(1);
}

MX_MutexRec *MXUser_GetRecLockVmm(const MXUserRecLock *lock)
{
   return lock->vmmLock;
}

MX_Rank MXUser_GetRecLockRank(const MXUserRecLock *lock)
{
   return lock->header.rank;
}

void MXUser_DumpRecLock(MXUserRecLock *lock)
{
   MXUserDumpRecLock(&lock->header);
}

MXUserRecLock *MXUser_BindMXMutexRec(MX_MutexRec *mutex, MX_Rank rank)
{
   const MXUserHostHooks &hooks = mxUserHostHooks;
   if (hooks.lockFunc == nullptr || hooks.unlockFunc == nullptr || hooks.tryLockFunc == nullptr ||
       hooks.isLockedFunc == nullptr || hooks.nameFunc == nullptr) {
      return nullptr;
   }
   MXUserRecLock *lock = AllocRecLock();
   const char *hostName = hooks.nameFunc(mutex);
   lock->header.name = hostName != nullptr
                           ? Str_SafeAsprintf(nullptr, "%s *", hostName)
                           : Str_SafeAsprintf(nullptr, "MX_%p", static_cast<void *>(mutex));
   lock->header.signature = MXUserGetSignature(MXUSER_TYPE_REC);
   lock->header.rank = rank;
   lock->header.serialNumber = MXUserAllocSerialNumber();
   lock->header.dumpFunc = nullptr;
   lock->header.statsFunc = nullptr;
   lock->refCount.store(1);
   lock->vmmLock = mutex;
   return lock;
}

MXUserCondVar *MXUser_CreateCondVarRecLock(MXUserRecLock *lock)
{
   VERIFY(lock->vmmLock == nullptr);
   return MXUserCreateCondVar(&lock->header, &lock->recursiveLock);
}

void MXUser_WaitCondVarRecLock(MXUserRecLock *lock, MXUserCondVar *condVar)
{
   MXUserWaitCondVar(&lock->header, &lock->recursiveLock, condVar, MXUSER_WAIT_INFINITE);
}

void MXUser_TimedWaitCondVarRecLock(MXUserRecLock *lock, MXUserCondVar *condVar, uint32_t msecWait)
{
   MXUserWaitCondVar(&lock->header, &lock->recursiveLock, condVar, msecWait);
}

}  // extern "C"
