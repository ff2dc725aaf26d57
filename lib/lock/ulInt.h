/*
 * Inside of the instrumented locks: the common header, the recursive lock word every lock
 * kind is built on, the lock objects, the statistics records and the library globals.
 */
#ifndef TESMAR_LOCK_ULINT_H
#define TESMAR_LOCK_ULINT_H

#include <stdint.h>
#include <sys/single_threaded.h>

#include <atomic>

#include "internal/publishOnce.h"
#include "log.h"
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
 * The lock every lock kind is built on: one word that is zero when the lock is free and
 * otherwise holds the owning thread's number, with kMXRecLockWaiters set once a thread may be
 * sleeping on it (a futex). Taking a free lock is one compare-and-exchange that also records
 * the owner; the owner alone changes the nesting count, so others may read it without the lock.
 */
struct MXRecLock {
   std::atomic<uint32_t> owner{0};
   std::atomic<int32_t> count{0};
};

constexpr uint32_t kMXRecLockWaiters = 0x80000000u;

/* Hands out the calling thread's number the first time it asks (ul.cpp). */
uint32_t MXUserNewThreadID(void);

/*
 * The calling thread's number: small, non-zero and never reused within the process, so that a
 * lock word can hold it and a child process keeps a number that nobody else has.
 */
inline uint32_t MXUserThreadID(void)
{
   static thread_local uint32_t id = 0;
   uint32_t value = id;
   if (__builtin_expect(value == 0, 0)) {
      value = id = MXUserNewThreadID();
   }
   return value;
}

/* Contended halves of taking and giving the lock word (ul.cpp). */
void MXRecLockWait(MXRecLock *lock, uint32_t self);
void MXRecLockWake(MXRecLock *lock);

inline bool MXRecLockInit(MXRecLock *lock)
{
   lock->owner.store(0, std::memory_order_relaxed);
   lock->count.store(0, std::memory_order_relaxed);
   return true;
}

inline void MXRecLockDestroy(MXRecLock *lock) {}

inline int32_t MXRecLockCount(const MXRecLock *lock)
{
   return lock->count.load(std::memory_order_relaxed);
}

inline bool MXRecLockIsOwner(const MXRecLock *lock)
{
   return (lock->owner.load(std::memory_order_relaxed) & ~kMXRecLockWaiters) == MXUserThreadID();
}

/*
 * Takes the lock word without waiting: true when it was free, else false with the word as found
 * in *found. While the process has a single thread nobody can race for the word, so plain loads
 * and stores stand in for the locked instructions, as the C library does for its own mutexes.
 */
inline bool MXRecLockTake(MXRecLock *lock, uint32_t self, uint32_t *found)
{
   if (__libc_single_threaded) {
      *found = lock->owner.load(std::memory_order_relaxed);
      if (*found != 0) {
         return false;
      }
      lock->owner.store(self, std::memory_order_relaxed);
      return true;
   }
   *found = 0;
   return lock->owner.compare_exchange_strong(*found, self, std::memory_order_acquire,
                                              std::memory_order_relaxed);
}

inline bool MXRecLockTake(MXRecLock *lock, uint32_t self)
{
   uint32_t found;
   return MXRecLockTake(lock, self, &found);
}

/* Frees the lock word and wakes one sleeper if any may be waiting. */
inline void MXRecLockGive(MXRecLock *lock)
{
   if (__libc_single_threaded) {
      lock->owner.store(0, std::memory_order_relaxed);
      return;
   }
   if (lock->owner.exchange(0, std::memory_order_release) & kMXRecLockWaiters) {
      MXRecLockWake(lock);
   }
}

/* Called by the owner: one more level. */
inline void MXRecLockNest(MXRecLock *lock)
{
   lock->count.store(MXRecLockCount(lock) + 1, std::memory_order_relaxed);
}

inline void MXRecLockAcquire(MXRecLock *lock)
{
   uint32_t self = MXUserThreadID();
   uint32_t found;
   if (__builtin_expect(MXRecLockTake(lock, self, &found), 1)) {
      lock->count.store(1, std::memory_order_relaxed);
   } else if ((found & ~kMXRecLockWaiters) == self) {
      MXRecLockNest(lock);
   } else {
      MXRecLockWait(lock, self);
      lock->count.store(1, std::memory_order_relaxed);
   }
}

inline bool MXRecLockTryAcquire(MXRecLock *lock)
{
   uint32_t self = MXUserThreadID();
   uint32_t found;
   if (MXRecLockTake(lock, self, &found)) {
      lock->count.store(1, std::memory_order_relaxed);
      return true;
   }
   if ((found & ~kMXRecLockWaiters) == self) {
      MXRecLockNest(lock);
      return true;
   }
   return false;
}

inline void MXRecLockRelease(MXRecLock *lock)
{
   int32_t count = MXRecLockCount(lock) - 1;
   lock->count.store(count, std::memory_order_relaxed);
   if (count == 0) {
      MXRecLockGive(lock);
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
   MXRecLock *ownerLock;
   /* Bumped by every signal and broadcast; waiters sleep on it (a futex). */
   std::atomic<uint32_t> sequence;
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
extern MXUserHostHooks gMXUserHostHooks;

/* The serial-number counter (the next number to hand out). */
extern std::atomic<uint64_t> gMXUserSerialCounter;

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

/*
 * Acquire, try and release for both lock kinds (Lock is MXUserExclLock or MXUserRecLock): the
 * plain lock word unless the lock keeps statistics.
 */
template <typename Lock>
inline void MXUserAcquireLock(Lock *lock)
{
   MXUserAcquisitionStats *stats = lock->acquireStatsMem.load(std::memory_order_relaxed);
   if (__builtin_expect(stats == nullptr, 1)) {
      MXRecLockAcquire(&lock->recursiveLock);
   } else {
      MXUserAcquireWithStats(&lock->recursiveLock, stats,
                             lock->heldStatsMem.load(std::memory_order_relaxed));
   }
}

template <typename Lock>
inline bool MXUserTryAcquireLock(Lock *lock)
{
   MXUserAcquisitionStats *stats = lock->acquireStatsMem.load(std::memory_order_relaxed);
   if (stats == nullptr) {
      return MXRecLockTryAcquire(&lock->recursiveLock);
   }
   return MXUserTryAcquireWithStats(&lock->recursiveLock, stats,
                                    lock->heldStatsMem.load(std::memory_order_relaxed));
}

template <typename Lock>
inline void MXUserReleaseLock(Lock *lock)
{
   MXUserHeldStats *held = lock->heldStatsMem.load(std::memory_order_relaxed);
   if (__builtin_expect(held == nullptr, 1)) {
      MXRecLockRelease(&lock->recursiveLock);
   } else {
      MXUserReleaseWithStats(&lock->recursiveLock, held);
   }
}

/* The statistics action of a lock kind, for MXUserEnableStats. */
template <typename Lock>
void MXUserStatsActionOf(MXUserHeader *header)
{
   Lock *lock = reinterpret_cast<Lock *>(header);
   MXUserLockStatsAction(header, lock->acquireStatsMem, lock->heldStatsMem);
}

/*
 * Sets up a new lock of either kind: header, statistics as the mode says and a place in the
 * list of live locks. creator names the public routine for its panics.
 */
template <typename Lock>
void MXUserSetUpLock(Lock *lock, const char *creator, const char *name, const char *unnamedFormat,
                     const void *caller, MXUserObjectType type, MX_Rank rank,
                     void (*dumpFunc)(MXUserHeader *header))
{
   if (!MXRecLockInit(&lock->recursiveLock)) {
      Panic("%s: native lock initialization routine failed\n", creator);
   }
   MXUserInitHeader(&lock->header, name, unnamedFormat, caller, type, rank, dumpFunc);
   MXUserEnableStats(creator, &lock->header, lock->acquireStatsMem, lock->heldStatsMem,
                     MXUserStatsActionOf<Lock>);
   MXUserAddToList(&lock->header);
}

/* Takes a lock of either kind off the list and frees its statistics. */
template <typename Lock>
void MXUserTearDownLock(Lock *lock)
{
   MXRecLockDestroy(&lock->recursiveLock);
   MXUserRemoveFromList(&lock->header);
   MXUserAcquisitionStatsFree(lock->acquireStatsMem.load());
   MXUserHeldStatsFree(lock->heldStatsMem.load());
}

/* Warns the lock count and the address of the owner word, lines of every lock dump. */
void MXUserDumpRecLockFields(const MXRecLock *lock);

/* Condition variables (ulCondVar.cpp). */
MXUserCondVar *MXUserCreateCondVar(MXUserHeader *header, MXRecLock *lock);
void MXUserWaitCondVar(MXUserHeader *header, MXRecLock *lock, MXUserCondVar *condVar,
                       uint32_t msecWait);

#endif
