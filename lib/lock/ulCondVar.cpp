/*
 * Condition variables tied to the native mutex of one recursive or exclusive lock.
 */
#include <errno.h>
#include <stdlib.h>
#include <sys/time.h>

#include <new>

#include "lock/ulInt.h"
#include "log.h"
#include "util.h"

MXUserCondVar *MXUserCreateCondVar(MXUserHeader *header, MXRecLock *lock)
{
   void *mem = Util_SafeCalloc(1, sizeof(MXUserCondVar));
   MXUserCondVar *condVar = new (mem) MXUserCondVar();
   if (pthread_cond_init(&condVar->condObject, nullptr) != 0) {
      Panic("%s: native lock initialization routine failed\n", "MXUserCreateCondVar");
   }
   condVar->signature = MXUserGetSignature(MXUSER_TYPE_CONDVAR);
   condVar->header = header;
   condVar->ownerLock = &lock->nativeLock;
   return condVar;
}

namespace {

void MXUserWaitInternal(MXRecLock *lock, MXUserCondVar *condVar, uint32_t msecWait)
{
   condVar->referenceCount.fetch_add(1);

   /* The native wait needs the mutex locked exactly once; park the nesting meanwhile. */
   int32_t savedCount = lock->count.load(std::memory_order_relaxed);
   lock->count.store(0, std::memory_order_relaxed);
   lock->owner.store(MXUSER_NO_OWNER, std::memory_order_relaxed);

   int err;
   if (msecWait == MXUSER_WAIT_INFINITE) {
      err = pthread_cond_wait(&condVar->condObject, &lock->nativeLock);
   } else {
      struct timeval now;
      gettimeofday(&now, nullptr);
      uint64_t deadline = static_cast<uint64_t>(msecWait) * 1000000ULL +
                          static_cast<uint64_t>(now.tv_sec) * 1000000000ULL +
                          static_cast<uint64_t>(now.tv_usec) * 1000ULL;
      struct timespec until;
      until.tv_sec = static_cast<time_t>(deadline / 1000000000ULL);
      until.tv_nsec = static_cast<long>(deadline % 1000000000ULL);
      err = pthread_cond_timedwait(&condVar->condObject, &lock->nativeLock, &until);
   }

   int32_t presentCount = lock->count.load(std::memory_order_relaxed);
   lock->count.store(savedCount + presentCount, std::memory_order_relaxed);
   if (presentCount == 0) {
      lock->owner.store(MXUserThreadID(), std::memory_order_relaxed);
   }

   if (err != 0 && err != ETIMEDOUT) {
      Panic("%s: failure %d on condVar (0x%p; %s)\n", "MXUserWaitInternal", err,
            static_cast<void *>(condVar), condVar->header->name);
   }
   condVar->referenceCount.fetch_sub(1);
}

}  // namespace

void MXUserWaitCondVar(MXUserHeader *header, MXRecLock *lock, MXUserCondVar *condVar,
                       uint32_t msecWait)
{
   if (condVar->ownerLock != &lock->nativeLock) {
      Panic("%s: invalid use of lock %s with condVar (0x%p; %s)\n", "MXUserWaitCondVar",
            header->name, static_cast<void *>(condVar), condVar->header->name);
   }
   MXUserWaitInternal(lock, condVar, msecWait);
}

extern "C" {

void MXUser_SignalCondVar(MXUserCondVar *condVar)
{
   int err = pthread_cond_signal(&condVar->condObject);
   if (err != 0) {
      Panic("%s: failure %d on condVar (0x%p; %s) \n", "MXUser_SignalCondVar", err,
            static_cast<void *>(condVar), condVar->header->name);
   }
}

void MXUser_BroadcastCondVar(MXUserCondVar *condVar)
{
   int err = pthread_cond_broadcast(&condVar->condObject);
   if (err != 0) {
      Panic("%s: failure %d on condVar (0x%p; %s) \n", "MXUser_BroadcastCondVar", err,
            static_cast<void *>(condVar), condVar->header->name);
   }
}

void MXUser_DestroyCondVar(MXUserCondVar *condVar)
{
   if (condVar == nullptr) {
      return;
   }
   if (condVar->referenceCount.load() != 0) {
      Panic("%s: Attempted destroy on active condVar (0x%p; %s)\n", "MXUser_DestroyCondVar",
            static_cast<void *>(condVar), condVar->header->name);
   }
   condVar->signature = 0;
   pthread_cond_destroy(&condVar->condObject);
   condVar->~MXUserCondVar();
   free(condVar);
}

}  // extern "C"
