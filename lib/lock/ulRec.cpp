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

void MXUserDumpRecLock(MXUserHeader *header)
{
   MXUserRecLock *lock = reinterpret_cast<MXUserRecLock *>(header);
   Warning("%s: Recursive lock @ %p\n", "MXUserDumpRecLock", static_cast<void *>(lock));
   MXUserDumpHeaderFields(header);
   Warning("\treference count %u\n", lock->refCount.load());
   if (lock->vmmLock == nullptr) {
      MXUserDumpRecLockFields(&lock->recursiveLock);
   } else {
      Warning("\tvmmLock %p\n", static_cast<void *>(lock->vmmLock));
   }
}

MXUserRecLock *AllocRecLock(void)
{
   void *mem = Util_SafeCalloc(1, sizeof(MXUserRecLock));
   return new (mem) MXUserRecLock();
}

MXUserRecLock *CreateRecLock(const char *name, MX_Rank rank, const void *caller)
{
   MXUserRecLock *lock = AllocRecLock();
   lock->vmmLock = nullptr;
   lock->refCount.store(1);
   MXUserSetUpLock(lock, "MXUser_CreateRecLock", name, "R-%p", caller, MXUSER_TYPE_REC, rank,
                   MXUserDumpRecLock);
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
      MXUserTearDownLock(lock);
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
   return tesmar::GetOrPublish(
       lockStorage, [&] { return CreateRecLock(name, rank, caller); }, MXUser_DestroyRecLock);
}

void MXUser_AcquireRecLock(MXUserRecLock *lock)
{
   if (__builtin_expect(lock->vmmLock != nullptr, 0)) {
      gMXUserHostHooks.lockFunc(lock->vmmLock);
      return;
   }
   MXUserAcquireLock(lock);
}

void MXUser_ReleaseRecLock(MXUserRecLock *lock)
{
   if (__builtin_expect(lock->vmmLock != nullptr, 0)) {
      gMXUserHostHooks.unlockFunc(lock->vmmLock);
      return;
   }
   MXUserReleaseLock(lock);
}

bool MXUser_TryAcquireRecLock(MXUserRecLock *lock)
{
   if (lock->vmmLock != nullptr) {
      return gMXUserHostHooks.tryLockFunc(lock->vmmLock);
   }
   return MXUserTryAcquireLock(lock);
}

bool MXUser_IsCurThreadHoldingRecLock(MXUserRecLock *lock)
{
   if (lock->vmmLock != nullptr) {
      return gMXUserHostHooks.isLockedFunc(lock->vmmLock);
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
   const MXUserHostHooks &hooks = gMXUserHostHooks;
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
