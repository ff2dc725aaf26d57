/*
 * Instrumented locks: recursive and exclusive locks and condition variables, each carrying a
 * name, a signature, a rank and a serial number so that a fault describes the lock it hit, and
 * optional per-lock statistics.
 *
 * Every fault panics. A lock records its owner and a nesting count, so an exclusive lock
 * taken twice by its owner nests instead of deadlocking.
 */
#ifndef TESMAR_USERLOCK_H
#define TESMAR_USERLOCK_H

#include <stdbool.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef uint32_t MX_Rank;

typedef struct MXUserRecLock MXUserRecLock;
typedef struct MXUserExclLock MXUserExclLock;
typedef struct MXUserCondVar MXUserCondVar;

/* A mutex owned by the host; a recursive lock can be bound to one (see the hooks below). */
typedef struct MX_MutexRec MX_MutexRec;

#define MXUSER_WAIT_INFINITE 0xFFFFFFFFu

/* Recursive locks. A NULL name gives "R-<caller address>". */
MXUserRecLock *MXUser_CreateRecLock(const char *name, MX_Rank rank);
MXUserRecLock *MXUser_CreateSingletonRecLock(MXUserRecLock **lockStorage, const char *name,
                                             MX_Rank rank);
void MXUser_AcquireRecLock(MXUserRecLock *lock);
void MXUser_ReleaseRecLock(MXUserRecLock *lock);
bool MXUser_TryAcquireRecLock(MXUserRecLock *lock);
bool MXUser_IsCurThreadHoldingRecLock(MXUserRecLock *lock);
/* Drops one reference (NULL is ignored); the last one destroys the lock. */
void MXUser_DestroyRecLock(MXUserRecLock *lock);
void MXUser_DecRefRecLock(MXUserRecLock *lock);
void MXUser_IncRefRecLock(MXUserRecLock *lock);
MX_MutexRec *MXUser_GetRecLockVmm(const MXUserRecLock *lock);
MX_Rank MXUser_GetRecLockRank(const MXUserRecLock *lock);
void MXUser_DumpRecLock(MXUserRecLock *lock);
/* A recursive lock whose operations go to the host's mutex hooks; NULL without the hooks. */
MXUserRecLock *MXUser_BindMXMutexRec(MX_MutexRec *mutex, MX_Rank rank);

/* Exclusive locks. A NULL name gives "X-<caller address>". */
MXUserExclLock *MXUser_CreateExclLock(const char *name, MX_Rank rank);
MXUserExclLock *MXUser_CreateSingletonExclLock(MXUserExclLock **lockStorage, const char *name,
                                               MX_Rank rank);
void MXUser_AcquireExclLock(MXUserExclLock *lock);
void MXUser_ReleaseExclLock(MXUserExclLock *lock);
bool MXUser_TryAcquireExclLock(MXUserExclLock *lock);
bool MXUser_IsCurThreadHoldingExclLock(MXUserExclLock *lock);
void MXUser_DestroyExclLock(MXUserExclLock *lock);

/* Condition variables tied to one lock. A timed-out wait returns normally. */
MXUserCondVar *MXUser_CreateCondVarRecLock(MXUserRecLock *lock);
MXUserCondVar *MXUser_CreateCondVarExclLock(MXUserExclLock *lock);
void MXUser_WaitCondVarRecLock(MXUserRecLock *lock, MXUserCondVar *condVar);
void MXUser_WaitCondVarExclLock(MXUserExclLock *lock, MXUserCondVar *condVar);
void MXUser_TimedWaitCondVarRecLock(MXUserRecLock *lock, MXUserCondVar *condVar, uint32_t msecWait);
void MXUser_TimedWaitCondVarExclLock(MXUserExclLock *lock, MXUserCondVar *condVar,
                                     uint32_t msecWait);
void MXUser_SignalCondVar(MXUserCondVar *condVar);
void MXUser_BroadcastCondVar(MXUserCondVar *condVar);
void MXUser_DestroyCondVar(MXUserCondVar *condVar);

/* Panic state: once set it stays set. */
void MXUser_SetInPanic(void);
bool MXUser_InPanic(void);

/*
 * Host hooks, installed together and only while every slot is still empty (a later call is
 * ignored). The first two are kept but never called. The name hook returns a name the host
 * keeps owning.
 */
void MXUserInstallMxHooks(void (*theLockListFunc)(void), MX_Rank (*theRankFunc)(void),
                          void (*theLockFunc)(MX_MutexRec *lock),
                          void (*theUnlockFunc)(MX_MutexRec *lock),
                          bool (*theTryLockFunc)(MX_MutexRec *lock),
                          bool (*theIsLockedFunc)(const MX_MutexRec *lock),
                          const char *(*theNameFunc)(const MX_MutexRec *lock),
                          void (*theSetInPanicFunc)(void), bool (*theInPanicFunc)(void));

/*
 * Statistics. Mode 0 (the default) keeps none; mode 1 keeps acquisition statistics; mode 2
 * acquisition and hold statistics. The mode applies to locks created after it is set.
 */
void MXUser_SetStatsMode(int mode);
int MXUser_GetStatsMode(void);

/* Receives every statistics line; the lines carry their own line end. */
typedef void MXUserStatsFunc(void *context, const char *fmt, ...);
void MXUser_SetStatsFunc(void *context, uint32_t maxLineLength, MXUserStatsFunc *statsFunc);
/* A lock is hot when its contention ratio exceeds ratio after at least minCount attempts. */
void MXUser_SetContentionRatio(double ratio, uint64_t minCount, uint64_t minTime);
/* Announces new locks and writes every lock's statistics; never blocks on the lock list. */
void MXUser_PerLockData(void);

#ifdef __cplusplus
}
#endif

#endif
