/*
 * Condition variables tied to the lock word of one recursive or exclusive lock. A waiter notes
 * the sequence number while it holds the lock, gives the lock up and sleeps until a signal or
 * broadcast moves the sequence on; a signal that falls between the two is not lost, because
 * the sleep only starts while the sequence still holds the noted number.
 */
#include <errno.h>
#include <limits.h>
#include <linux/futex.h>
#include <stdlib.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <new>

#include "internal/retry.h"
#include "lock/ulInt.h"
#include "log.h"
#include "util.h"

MXUserCondVar *MXUserCreateCondVar(MXUserHeader *header, MXRecLock *lock)
{
   void *mem = Util_SafeCalloc(1, sizeof(MXUserCondVar));
   MXUserCondVar *condVar = new (mem) MXUserCondVar();
   condVar->signature = MXUserGetSignature(MXUSER_TYPE_CONDVAR);
   condVar->header = header;
   condVar->ownerLock = lock;
   return condVar;
}

namespace {

/* One futex call on a condition variable's sequence: the system call's result, errno set. */
long SequenceFutex(MXUserCondVar *condVar, int op, uint32_t value, const struct timespec *timeout)
{
   return syscall(SYS_futex, reinterpret_cast<uint32_t *>(&condVar->sequence),
                  op | FUTEX_PRIVATE_FLAG, value, timeout, nullptr, FUTEX_BITSET_MATCH_ANY);
}

/* Sleeps while the sequence holds noted: 0 when woken or moved on, else ETIMEDOUT or a fault. */
int SleepOnSequence(MXUserCondVar *condVar, uint32_t noted, uint32_t msecWait)
{
   /* An absolute deadline, so that a wait interrupted by a signal resumes with what is left. */
   struct timespec deadline;
   const struct timespec *until = nullptr;
   if (msecWait != MXUSER_WAIT_INFINITE) {
      clock_gettime(CLOCK_MONOTONIC, &deadline);
      uint64_t nsec = static_cast<uint64_t>(deadline.tv_nsec) + (msecWait % 1000) * 1000000ULL;
      deadline.tv_sec += static_cast<time_t>(msecWait / 1000 + nsec / 1000000000ULL);
      deadline.tv_nsec = static_cast<long>(nsec % 1000000000ULL);
      until = &deadline;
   }
   long rc =
       tesmar::RetryEintr([&] { return SequenceFutex(condVar, FUTEX_WAIT_BITSET, noted, until); });
   return rc == 0 || errno == EAGAIN ? 0 : errno;
}

void MXUserWaitInternal(MXRecLock *lock, MXUserCondVar *condVar, uint32_t msecWait)
{
   condVar->referenceCount.fetch_add(1);

   /* The lock is given up whole for the wait, whatever its nesting, and taken back as it was. */
   uint32_t noted = condVar->sequence.load(std::memory_order_relaxed);
   int32_t savedCount = MXRecLockCount(lock);
   lock->count.store(0, std::memory_order_relaxed);
   MXRecLockGive(lock);

   int err = SleepOnSequence(condVar, noted, msecWait);

   /* Others woken with this thread may queue behind it, so retake as a contender. */
   MXRecLockWait(lock, MXUserThreadID());
   lock->count.store(savedCount, std::memory_order_relaxed);

   if (err != 0 && err != ETIMEDOUT) {
      Panic("%s: failure %d on condVar (0x%p; %s)\n", "MXUserWaitInternal", err,
            static_cast<void *>(condVar), condVar->header->name);
   }
   condVar->referenceCount.fetch_sub(1);
}

/* Moves the sequence on and wakes up to count sleepers. */
int WakeSequence(MXUserCondVar *condVar, int count)
{
   condVar->sequence.fetch_add(1, std::memory_order_release);
   return SequenceFutex(condVar, FUTEX_WAKE, static_cast<uint32_t>(count), nullptr) < 0 ? errno : 0;
}

}  // namespace

void MXUserWaitCondVar(MXUserHeader *header, MXRecLock *lock, MXUserCondVar *condVar,
                       uint32_t msecWait)
{
   if (condVar->ownerLock != lock) {
      Panic("%s: invalid use of lock %s with condVar (0x%p; %s)\n", "MXUserWaitCondVar",
            header->name, static_cast<void *>(condVar), condVar->header->name);
   }
   MXUserWaitInternal(lock, condVar, msecWait);
}

extern "C" {

void MXUser_SignalCondVar(MXUserCondVar *condVar)
{
   int err = WakeSequence(condVar, 1);
   if (err != 0) {
      Panic("%s: failure %d on condVar (0x%p; %s) \n", "MXUser_SignalCondVar", err,
            static_cast<void *>(condVar), condVar->header->name);
   }
}

void MXUser_BroadcastCondVar(MXUserCondVar *condVar)
{
   int err = WakeSequence(condVar, INT_MAX);
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
   condVar->~MXUserCondVar();
   free(condVar);
}

}  // extern "C"
