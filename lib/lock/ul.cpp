/*
 * Services common to every lock kind: signatures, serial numbers, the list of live locks, the
 * host hooks, the panic state and the dump-then-panic fault path.
 */
#include <limits.h>
#include <linux/futex.h>
#include <stdarg.h>
#include <stdlib.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include "lock/ulInt.h"
#include "log.h"
#include "str.h"
#include "util.h"

MXUserHostHooks gMXUserHostHooks;
std::atomic<uint64_t> gMXUserSerialCounter{1};

namespace {

std::atomic<uint64_t> gSignatureSalt{0};
std::atomic<uint32_t> gLastThreadID{0};
/* The list lock needs no set-up: a zero lock word is a free lock. */
MXRecLock gListLock;
MXUserHeader *gLockListHead = nullptr;
std::atomic<bool> gInPanic{false};
std::atomic<uint32_t> gDumpAndPanicCount{0};

/* Spins before sleeping: most holds are short and a sleep costs two system calls. */
constexpr int kSpinsBeforeSleep = 100;

long Futex(std::atomic<uint32_t> *word, int op, uint32_t value)
{
   return syscall(SYS_futex, reinterpret_cast<uint32_t *>(word), op | FUTEX_PRIVATE_FLAG, value,
                  nullptr, nullptr, 0);
}

}  // namespace

uint32_t MXUserNewThreadID(void)
{
   uint32_t id = gLastThreadID.fetch_add(1, std::memory_order_relaxed) + 1;
   if (id >= kMXRecLockWaiters) {
      Panic("%s: too many threads!\n", "MXUserNewThreadID");
   }
   return id;
}

void MXRecLockWait(MXRecLock *lock, uint32_t self)
{
   for (int spin = 0; spin < kSpinsBeforeSleep; spin++) {
      if (lock->owner.load(std::memory_order_relaxed) == 0 && MXRecLockTake(lock, self)) {
         return;
      }
      __builtin_ia32_pause();
   }
   /* From here on the word says there may be sleepers, so that the holder's release wakes one. */
   uint32_t current = lock->owner.load(std::memory_order_relaxed);
   for (;;) {
      if (current == 0) {
         if (lock->owner.compare_exchange_weak(current, self | kMXRecLockWaiters,
                                               std::memory_order_acquire,
                                               std::memory_order_relaxed)) {
            return;
         }
         continue;
      }
      if ((current & kMXRecLockWaiters) == 0 &&
          !lock->owner.compare_exchange_weak(current, current | kMXRecLockWaiters,
                                             std::memory_order_relaxed)) {
         continue;
      }
      Futex(&lock->owner, FUTEX_WAIT, current | kMXRecLockWaiters);
      current = lock->owner.load(std::memory_order_relaxed);
   }
}

void MXRecLockWake(MXRecLock *lock)
{
   Futex(&lock->owner, FUTEX_WAKE, 1);
}

uint32_t MXUserGetSignature(MXUserObjectType objectType)
{
   uint64_t salt = gSignatureSalt.load(std::memory_order_acquire);
   if (salt == 0) {
      struct timeval now;
      gettimeofday(&now, nullptr);
      uint64_t fresh = now.tv_sec == 0 ? 1 : static_cast<uint64_t>(now.tv_sec);
      uint64_t expected = 0;
      salt = gSignatureSalt.compare_exchange_strong(expected, fresh) ? fresh : expected;
   }
   return (static_cast<uint32_t>(objectType) << 28) | static_cast<uint32_t>(salt & 0x0FFFFFFF);
}

uint64_t MXUserAllocSerialNumber(void)
{
   uint64_t value = gMXUserSerialCounter.fetch_add(1);
   if (value == 0) {
      Panic("%s: too many locks!\n", "MXUserAllocSerialNumber");
   }
   return value;
}

void MXUserInitHeader(MXUserHeader *header, const char *name, const char *unnamedFormat,
                      const void *caller, MXUserObjectType type, MX_Rank rank,
                      void (*dumpFunc)(MXUserHeader *header))
{
   header->name =
       name != nullptr ? Util_SafeStrdup(name) : Str_SafeAsprintf(nullptr, unnamedFormat, caller);
   header->signature = MXUserGetSignature(type);
   header->rank = rank;
   header->serialNumber = MXUserAllocSerialNumber();
   header->dumpFunc = dumpFunc;
}

void MXUserDumpHeaderFields(const MXUserHeader *header)
{
   Warning("\tsignature 0x%X\n", header->signature);
   Warning("\tname %s\n", header->name);
   Warning("\trank 0x%X\n", header->rank);
   Warning("\tserial number %llu\n", static_cast<unsigned long long>(header->serialNumber));
}

MXRecLock *MXUserInternalListLock(void)
{
   return &gListLock;
}

void MXUserDumpRecLockFields(const MXRecLock *lock)
{
   Warning("\tlock count %d\n", MXRecLockCount(lock));
   Warning("\taddress of owner data %p\n", static_cast<const void *>(&lock->owner));
}

void MXUserAddToList(MXUserHeader *header)
{
   MXRecLock *listLock = MXUserInternalListLock();
   MXRecLockAcquire(listLock);
   if (gLockListHead == nullptr) {
      header->next = header;
      header->prev = header;
      gLockListHead = header;
   } else {
      MXUserHeader *tail = gLockListHead->prev;
      header->next = gLockListHead;
      header->prev = tail;
      tail->next = header;
      gLockListHead->prev = header;
   }
   MXRecLockRelease(listLock);
}

void MXUserRemoveFromList(MXUserHeader *header)
{
   MXRecLock *listLock = MXUserInternalListLock();
   MXRecLockAcquire(listLock);
   if (header->next == header) {
      if (gLockListHead == header) {
         gLockListHead = nullptr;
      }
   } else {
      header->prev->next = header->next;
      header->next->prev = header->prev;
      if (gLockListHead == header) {
         gLockListHead = header->next;
      }
   }
   header->next = header->prev = nullptr;
   MXRecLockRelease(listLock);
}

/* Walks the live-lock list with the list lock held (the statistics report). */
void MXUserForEachLock(void (*visit)(MXUserHeader *header, void *data), void *data)
{
   MXUserHeader *header = gLockListHead;
   if (header == nullptr) {
      return;
   }
   do {
      MXUserHeader *next = header->next;
      visit(header, data);
      header = next;
   } while (header != gLockListHead);
}

void MXUserDumpAndPanic(MXUserHeader *header, const char *fmt, ...)
{
   if (gDumpAndPanicCount.fetch_add(1) + 1 >= 6) {
      MXUser_SetInPanic();
   }
   if (header->dumpFunc != nullptr) {
      header->dumpFunc(header);
   }
   va_list args;
   va_start(args, fmt);
   char *message = Str_SafeVasprintf(nullptr, fmt, args);
   va_end(args);
   Panic("%s", message);
}

extern "C" {

void MXUser_SetInPanic(void)
{
   gInPanic.store(true);
   if (gMXUserHostHooks.setInPanicFunc != nullptr) {
      gMXUserHostHooks.setInPanicFunc();
   }
}

bool MXUser_InPanic(void)
{
   if (gInPanic.load()) {
      return true;
   }
   if (gMXUserHostHooks.inPanicFunc != nullptr) {
      return gMXUserHostHooks.inPanicFunc();
   }
   return false;
}

void MXUserInstallMxHooks(void (*theLockListFunc)(void), MX_Rank (*theRankFunc)(void),
                          void (*theLockFunc)(MX_MutexRec *lock),
                          void (*theUnlockFunc)(MX_MutexRec *lock),
                          bool (*theTryLockFunc)(MX_MutexRec *lock),
                          bool (*theIsLockedFunc)(const MX_MutexRec *lock),
                          const char *(*theNameFunc)(const MX_MutexRec *lock),
                          void (*theSetInPanicFunc)(void), bool (*theInPanicFunc)(void))
{
   MXUserHostHooks &h = gMXUserHostHooks;
   if (h.lockListFunc == nullptr && h.rankFunc == nullptr && h.lockFunc == nullptr &&
       h.unlockFunc == nullptr && h.tryLockFunc == nullptr && h.isLockedFunc == nullptr &&
       h.nameFunc == nullptr && h.setInPanicFunc == nullptr && h.inPanicFunc == nullptr) {
      h.lockListFunc = theLockListFunc;
      h.rankFunc = theRankFunc;
      h.lockFunc = theLockFunc;
      h.unlockFunc = theUnlockFunc;
      h.tryLockFunc = theTryLockFunc;
      h.isLockedFunc = theIsLockedFunc;
      h.nameFunc = theNameFunc;
      h.setInPanicFunc = theSetInPanicFunc;
      h.inPanicFunc = theInPanicFunc;
   }
}

}  // extern "C"
