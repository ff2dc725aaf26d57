// Uncontended lock costs against the native mutex they wrap.
#include <benchmark/benchmark.h>
#include <pthread.h>

#include "userlock.h"

static void BM_MXUserExclLock(benchmark::State &state)
{
   MXUserExclLock *lock = MXUser_CreateExclLock("bench", 0);
   for (auto _ : state) {
      MXUser_AcquireExclLock(lock);
      MXUser_ReleaseExclLock(lock);
   }
   MXUser_DestroyExclLock(lock);
}
BENCHMARK(BM_MXUserExclLock);

static void BM_PthreadMutex(benchmark::State &state)
{
   pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
   for (auto _ : state) {
      pthread_mutex_lock(&mutex);
      pthread_mutex_unlock(&mutex);
   }
   pthread_mutex_destroy(&mutex);
}
BENCHMARK(BM_PthreadMutex);

static void BM_MXUserRecLockNested(benchmark::State &state)
{
   MXUserRecLock *lock = MXUser_CreateRecLock("bench", 0);
   for (auto _ : state) {
      MXUser_AcquireRecLock(lock);
      MXUser_AcquireRecLock(lock);
      MXUser_ReleaseRecLock(lock);
      MXUser_ReleaseRecLock(lock);
   }
   MXUser_DestroyRecLock(lock);
}
BENCHMARK(BM_MXUserRecLockNested);

static void BM_PthreadRecursiveMutexNested(benchmark::State &state)
{
   pthread_mutexattr_t attr;
   pthread_mutexattr_init(&attr);
   pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
   pthread_mutex_t mutex;
   pthread_mutex_init(&mutex, &attr);
   for (auto _ : state) {
      pthread_mutex_lock(&mutex);
      pthread_mutex_lock(&mutex);
      pthread_mutex_unlock(&mutex);
      pthread_mutex_unlock(&mutex);
   }
   pthread_mutex_destroy(&mutex);
   pthread_mutexattr_destroy(&attr);
}
BENCHMARK(BM_PthreadRecursiveMutexNested);

BENCHMARK_MAIN();
