/*
 * Exclusive locks. They share the recursive lock word, so a second acquire by the owner nests;
 * callers rely on that leniency.
 */
#include <stdlib.h>

#include <new>

#include "lock/ulInt.h"
#include "log.h"
#include "str.h"
#include "util.h"

namespace {

void MXUserDumpExclLock(MXUserHeader *header)
{
   MXUserExclLock *lock = reinterpret_cast<MXUserExclLock *>(header);
   Warning("%s: Exclusive lock @ %p\n", "MXUserDumpExclLock", static_cast<void *>(lock));
   MXUserDumpHeaderFields(header);
   MXUserDumpRecLockFields(&lock->recursiveLock);
}

MXUserExclLock *CreateExclLock(const char *name, MX_Rank rank, const void *caller)
{
   void *mem = Util_SafeCalloc(1, sizeof(MXUserExclLock));
   MXUserExclLock *lock = new (mem) MXUserExclLock();
   MXUserSetUpLock(lock, "MXUser_CreateExclLock", name, "X-%p", caller, MXUSER_TYPE_EXCL, rank,
                   MXUserDumpExclLock);
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
   return tesmar::GetOrPublish(
       lockStorage, [&] { return CreateExclLock(name, rank, caller); }, MXUser_DestroyExclLock);
}

void MXUser_AcquireExclLock(MXUserExclLock *lock)
{
   MXUserAcquireLock(lock);
}

void MXUser_ReleaseExclLock(MXUserExclLock *lock)
{
   MXUserReleaseLock(lock);
}

bool MXUser_TryAcquireExclLock(MXUserExclLock *lock)
{
   return MXUserTryAcquireLock(lock);
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
   MXUserTearDownLock(lock);
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
