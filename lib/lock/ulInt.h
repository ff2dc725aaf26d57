/*
 * Inside of the instrumented locks: the common header, the native recursive lock every lock
 * kind is built on, the lock objects, the statistics records and the library globals.
 */
#ifndef TESMAR_LOCK_ULINT_H
#define TESMAR_LOCK_ULINT_H

#include <pthread.h>
#include <stdint.h>

#include <atomic>

#include "userlock.h"

/* Type tags in the top four bits of a signature. */
enum MXUserObjectType : uint32_t {
   MXUSER_TYPE_REC = 2,
   MXUSER_TYPE_EXCL = 4,
   MXUSER_TYPE_CONDVAR = 6,
};

struct MXUserHeader {
   char *name;
   uint32_t signature;
   MX_Rank rank;
   void (*dumpFunc)(MXUserHeader *header);
   void (*statsFunc)(MXUserHeader *header);
   MXUserHeader *next;
   MXUserHeader *prev;
   uint64_t serialNumber;
};

/*
 * A native mutex with a count and an owner. Only the thread holding the mutex changes count
 * and owner; others read them without the mutex, which is safe because a thread can only find
 * itself recorded as owner if it is the owner. Relaxed atomics make that reading well defined
 * at the cost of plain moves.
 */
struct MXRecLock {
   pthread_mutex_t nativeLock;
   std::atomic<int32_t> count;
   std::atomic<uintptr_t> owner;
};

constexpr uintptr_t MXUSER_NO_OWNER = ~static_cast<uintptr_t>(0);

/*
 * The calling thread's identity: the address of a thread-local anchor, unique among live
 * threads and cheaper to reach than a library call on every acquire.
 */
inline uintptr_t MXUserThreadID(void)
{
   static thread_local char anchor;
   return reinterpret_cast<uintptr_t>(&anchor);
}

inline bool MXRecLockInit(MXRecLock *lock)
{
   if (pthread_mutex_init(&lock->nativeLock, nullptr) != 0) {
      return false;
   }
   lock->count.store(0, std::memory_order_relaxed);
   lock->owner.store(MXUSER_NO_OWNER, std::memory_order_relaxed);
   return true;
}

inline void MXRecLockDestroy(MXRecLock *lock)
{
   pthread_mutex_destroy(&lock->nativeLock);
}

inline int32_t MXRecLockCount(const MXRecLock *lock)
{
   return lock->count.load(std::memory_order_relaxed);
}

inline bool MXRecLockIsOwner(const MXRecLock *lock)
{
   return MXRecLockCount(lock) > 0 &&
          lock->owner.load(std::memory_order_relaxed) == MXUserThreadID();
}

/* Called with the native mutex held: one more level. */
inline void MXRecLockIncCount(MXRecLock *lock)
{
   int32_t count = lock->count.load(std::memory_order_relaxed);
   if (count == 0) {
      lock->owner.store(MXUserThreadID(), std::memory_order_relaxed);
   }
   lock->count.store(count + 1, std::memory_order_relaxed);
}

/* Called right after taking the native mutex: nobody else can hold a count now. */
inline void MXRecLockSetOwner(MXRecLock *lock)
{
   lock->owner.store(MXUserThreadID(), std::memory_order_relaxed);
   lock->count.store(1, std::memory_order_relaxed);
}

inline void MXRecLockAcquire(MXRecLock *lock)
{
   if (MXRecLockIsOwner(lock)) {
      lock->count.store(MXRecLockCount(lock) + 1, std::memory_order_relaxed);
      return;
   }
   pthread_mutex_lock(&lock->nativeLock);
   MXRecLockSetOwner(lock);
}

inline bool MXRecLockTryAcquire(MXRecLock *lock)
{
   if (MXRecLockIsOwner(lock)) {
      lock->count.store(MXRecLockCount(lock) + 1, std::memory_order_relaxed);
      return true;
   }
   if (pthread_mutex_trylock(&lock->nativeLock) != 0) {
      return false;
   }
   MXRecLockSetOwner(lock);
   return true;
}

inline void MXRecLockRelease(MXRecLock *lock)
{
   int32_t count = lock->count.load(std::memory_order_relaxed) - 1;
   lock->count.store(count, std::memory_order_relaxed);
   if (count == 0) {
      lock->owner.store(MXUSER_NO_OWNER, std::memory_order_relaxed);
      pthread_mutex_unlock(&lock->nativeLock);
   }
}

/* Statistics records (modes 1 and 2 only). */
struct MXUserHisto {
   const char *typeName;
   uint64_t *binData;
   uint64_t totalSamples;
   uint64_t minValue;
   uint64_t maxValue;
   uint32_t numBins;
};

struct MXUserBasicStats {
   const char *typeName;
   uint64_t numSamples;
   uint64_t minTime;
   uint64_t maxTime;
   uint64_t timeSum;
   double timeSquaredSum;
};

/*
 * Everything but attempts and total contention time is changed only by the thread that has
 * just acquired the lock; a failed try changes those two from outside, hence atomics.
 */
struct MXUserAcquisitionStats {
   double contentionRatioFloor;
   uint64_t contentionCountFloor;
   uint64_t contentionDurationFloor;
   std::atomic<uint64_t> numAttempts;
   uint64_t numSuccesses;
   uint64_t numSuccessesContended;
   uint64_t successContentionTime;
   std::atomic<uint64_t> totalContentionTime;
   MXUserBasicStats basicStats;
   std::atomic<MXUserHisto *> histo;
};

struct MXUserHeldStats {
   uint64_t holdStart;
   MXUserBasicStats basicStats;
   std::atomic<MXUserHisto *> histo;
};

struct MXUserRecLock {
   MXUserHeader header;
   MXRecLock recursiveLock;
   std::atomic<MXUserHeldStats *> heldStatsMem;
   std::atomic<MXUserAcquisitionStats *> acquireStatsMem;
   std::atomic<uint32_t> refCount;
   MX_MutexRec *vmmLock;
};

struct MXUserExclLock {
   MXUserHeader header;
   MXRecLock recursiveLock;
   std::atomic<MXUserHeldStats *> heldStatsMem;
   std::atomic<MXUserAcquisitionStats *> acquireStatsMem;
};

struct MXUserCondVar {
   uint32_t signature;
   MXUserHeader *header;
   pthread_mutex_t *ownerLock;
   pthread_cond_t condObject;
   std::atomic<uint32_t> referenceCount;
};

/* Common services (ul.cpp). */
uint32_t MXUserGetSignature(MXUserObjectType objectType);
uint64_t MXUserAllocSerialNumber(void);
void MXUserAddToList(MXUserHeader *header);
void MXUserRemoveFromList(MXUserHeader *header);
[[noreturn]] void MXUserDumpAndPanic(MXUserHeader *header, const char *fmt, ...)
    __attribute__((format(printf, 2, 3)));
MXRecLock *MXUserInternalListLock(void);
/* The list lock if it has been created, without creating it. */
MXRecLock *MXUserListLockIfAny(void);
/* Visits every live lock; the caller holds the list lock. */
void MXUserForEachLock(void (*visit)(MXUserHeader *header, void *data), void *data);
/*
 * Fills a new lock's header: its name (a copy, or unnamedFormat with the caller's code address
 * when name is NULL), signature, rank, serial number and dump routine.
 */
void MXUserInitHeader(MXUserHeader *header, const char *name, const char *unnamedFormat,
                      const void *caller, MXUserObjectType type, MX_Rank rank,
                      void (*dumpFunc)(MXUserHeader *header));
/* Warns the header fields that every lock dump lists after its first line. */
void MXUserDumpHeaderFields(const MXUserHeader *header);

/*
 * Lazy creation through a caller's pointer: returns the lock it holds, or creates one and
 * installs it by compare-and-exchange; a creator that loses the race destroys its own lock.
 */
template <typename T, typename Create>
T *MXUserCreateSingleton(T **storage, Create create, void (*destroy)(T *))
{
   std::atomic_ref<T *> slot(*storage);
   T *lock = slot.load(std::memory_order_acquire);
   if (lock != nullptr) {
      return lock;
   }
   T *fresh = create();
   T *expected = nullptr;
   if (slot.compare_exchange_strong(expected, fresh, std::memory_order_acq_rel)) {
      return fresh;
   }
   destroy(fresh);
   return expected;
}

/* Publishes fresh into *slot unless it is set already; returns the object that stands. */
template <typename T>
T *MXUserPublish(std::atomic<T *> &slot, T *fresh, void (*destroy)(T *))
{
   T *expected = nullptr;
   if (slot.compare_exchange_strong(expected, fresh, std::memory_order_acq_rel)) {
      return fresh;
   }
   destroy(fresh);
   return expected;
}

/* Host-mutex hooks. */
struct MXUserHostHooks {
   void (*lockListFunc)(void);
   MX_Rank (*rankFunc)(void);
   void (*lockFunc)(MX_MutexRec *lock);
   void (*unlockFunc)(MX_MutexRec *lock);
   bool (*tryLockFunc)(MX_MutexRec *lock);
   bool (*isLockedFunc)(const MX_MutexRec *lock);
   const char *(*nameFunc)(const MX_MutexRec *lock);
   void (*setInPanicFunc)(void);
   bool (*inPanicFunc)(void);
};
extern MXUserHostHooks mxUserHostHooks;

/* The serial-number counter (the next number to hand out). */
extern std::atomic<uint64_t> mxUserSerialCounter;

/* Statistics (ulStats.cpp). */
uint64_t MXUserReadTimerNS(void);
void MXUserAcquisitionStatsSetUp(std::atomic<MXUserAcquisitionStats *> &slot);
void MXUserHeldStatsSetUp(std::atomic<MXUserHeldStats *> &slot);
void MXUserAcquisitionStatsFree(MXUserAcquisitionStats *stats);
void MXUserHeldStatsFree(MXUserHeldStats *stats);
void MXUserAcquisitionSample(MXUserAcquisitionStats *stats, bool wasAcquired, bool wasContended,
                             uint64_t elapsedTime);
void MXUserBasicStatsSample(MXUserBasicStats *stats, uint64_t value);
void MXUserHistoSample(MXUserHisto *histo, uint64_t value);
MXUserHisto *MXUserHistoSetUp(const char *typeName, uint64_t minValue, uint32_t decades);
void MXUserHistoTearDown(MXUserHisto *histo);
uint32_t MXUserLog2Fixed(uint64_t value);
uint64_t MXUserStdDev(const MXUserBasicStats *stats);
void MXUserDumpBasicStats(const MXUserBasicStats *stats, const MXUserHeader *header);
void MXUserDumpAcquisitionStats(const MXUserAcquisitionStats *stats, const MXUserHeader *header);
void MXUserDumpHisto(const MXUserHisto *histo, const MXUserHeader *header);
bool MXUserContentionVerdict(const MXUserAcquisitionStats *stats, double *ratio, bool *isHot,
                             bool *doLog);
void MXUserForceHisto(std::atomic<MXUserHisto *> &slot, const char *typeName, uint64_t minValue,
                      uint32_t decades);
/* The statistics action shared by both lock kinds. */
void MXUserLockStatsAction(MXUserHeader *header, std::atomic<MXUserAcquisitionStats *> &acquire,
                           std::atomic<MXUserHeldStats *> &held);
/* Sets a new lock's statistics as the mode says; caller names itself for the panic. */
void MXUserEnableStats(const char *caller, MXUserHeader *header,
                       std::atomic<MXUserAcquisitionStats *> &acquire,
                       std::atomic<MXUserHeldStats *> &held,
                       void (*statsAction)(MXUserHeader *header));

/* Acquire / release paths with statistics (only entered when a statistics record exists). */
void MXUserAcquireWithStats(MXRecLock *lock, MXUserAcquisitionStats *acquire,
                            MXUserHeldStats *held);
bool MXUserTryAcquireWithStats(MXRecLock *lock, MXUserAcquisitionStats *acquire,
                               MXUserHeldStats *held);
void MXUserReleaseWithStats(MXRecLock *lock, MXUserHeldStats *held);

/* Condition variables (ulCondVar.cpp). */
MXUserCondVar *MXUserCreateCondVar(MXUserHeader *header, MXRecLock *lock);
void MXUserWaitCondVar(MXUserHeader *header, MXRecLock *lock, MXUserCondVar *condVar,
                       uint32_t msecWait);

#endif
