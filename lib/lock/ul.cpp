/*
 * Services common to every lock kind: signatures, serial numbers, the list of live locks, the
 * host hooks, the panic state and the dump-then-panic fault path.
 */
#include <stdarg.h>
#include <stdlib.h>
#include <sys/time.h>

#include <new>

#include "lock/ulInt.h"
#include "log.h"
#include "str.h"
#include "util.h"

MXUserHostHooks mxUserHostHooks;
std::atomic<uint64_t> mxUserSerialCounter{1};

namespace {

std::atomic<uint64_t> signatureSalt{0};
std::atomic<MXRecLock *> listLockMem{nullptr};
MXUserHeader *lockListHead = nullptr;
std::atomic<bool> inPanic{false};
std::atomic<uint32_t> dumpAndPanicCount{0};

}  // namespace

uint32_t MXUserGetSignature(MXUserObjectType objectType)
{
   uint64_t salt = signatureSalt.load(std::memory_order_acquire);
   if (salt == 0) {
      struct timeval now;
      gettimeofday(&now, nullptr);
      uint64_t fresh = now.tv_sec == 0 ? 1 : static_cast<uint64_t>(now.tv_sec);
      uint64_t expected = 0;
      salt = signatureSalt.compare_exchange_strong(expected, fresh) ? fresh : expected;
   }
   return (static_cast<uint32_t>(objectType) << 28) | static_cast<uint32_t>(salt & 0x0FFFFFFF);
}

uint64_t MXUserAllocSerialNumber(void)
{
   uint64_t value = mxUserSerialCounter.fetch_add(1);
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
   MXRecLock *lock = listLockMem.load(std::memory_order_acquire);
   if (lock != nullptr) {
      return lock;
   }
   auto *fresh = static_cast<MXRecLock *>(Util_SafeMalloc(sizeof(MXRecLock)));
   new (fresh) MXRecLock;
   if (!MXRecLockInit(fresh)) {
      free(fresh);
      return nullptr;
   }
   return MXUserPublish<MXRecLock>(listLockMem, fresh, [](MXRecLock *loser) {
      MXRecLockDestroy(loser);
      free(loser);
   });
}

MXRecLock *MXUserListLockIfAny(void)
{
   return listLockMem.load(std::memory_order_acquire);
}

void MXUserAddToList(MXUserHeader *header)
{
   MXRecLock *listLock = MXUserInternalListLock();
   if (listLock == nullptr) {
      return;
   }
   MXRecLockAcquire(listLock);
   if (lockListHead == nullptr) {
      header->next = header;
      header->prev = header;
      lockListHead = header;
   } else {
      MXUserHeader *tail = lockListHead->prev;
      header->next = lockListHead;
      header->prev = tail;
      tail->next = header;
      lockListHead->prev = header;
   }
   MXRecLockRelease(listLock);
}

void MXUserRemoveFromList(MXUserHeader *header)
{
   MXRecLock *listLock = MXUserInternalListLock();
   if (listLock == nullptr) {
      return;
   }
   MXRecLockAcquire(listLock);
   if (header->next == header) {
      if (lockListHead == header) {
         lockListHead = nullptr;
      }
   } else {
      header->prev->next = header->next;
      header->next->prev = header->prev;
      if (lockListHead == header) {
         lockListHead = header->next;
      }
   }
   header->next = header->prev = nullptr;
   MXRecLockRelease(listLock);
}

/* Walks the live-lock list with the list lock held (the statistics report). */
void MXUserForEachLock(void (*visit)(MXUserHeader *header, void *data), void *data)
{
   MXUserHeader *header = lockListHead;
   if (header == nullptr) {
      return;
   }
   do {
      MXUserHeader *next = header->next;
      visit(header, data);
      header = next;
   } while (header != lockListHead);
}

void MXUserDumpAndPanic(MXUserHeader *header, const char *fmt, ...)
{
   if (dumpAndPanicCount.fetch_add(1) + 1 >= 6) {
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
   inPanic.store(true);
   if (mxUserHostHooks.setInPanicFunc != nullptr) {
      mxUserHostHooks.setInPanicFunc();
   }
}

bool MXUser_InPanic(void)
{
   if (inPanic.load()) {
      return true;
   }
   if (mxUserHostHooks.inPanicFunc != nullptr) {
      return mxUserHostHooks.inPanicFunc();
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
   MXUserHostHooks &h = mxUserHostHooks;
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
