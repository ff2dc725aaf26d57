/*
 * Who is locking: this machine's identity, this process's execution id (pid and start time),
 * whether a recorded execution id still names a live process, and machine id matching.
 */
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "base64.h"
#include "fileLockInt.h"
#include "hostinfo.h"
#include "log.h"
#include "str.h"
#include "util.h"
#include "uuid.h"

namespace {

std::atomic<char *> gMachineID{nullptr};
std::atomic<char *> gOldMachineID{nullptr};

struct ExecutionIDCache {
   pid_t pid;
   char text[48];
};
std::atomic<ExecutionIDCache *> gExecutionID{nullptr};

enum class ProcessStatus { kAlive, kGone, kUnknown };

ProcessStatus GetProcessStatus(pid_t pid)
{
   if (kill(pid, 0) == 0) {
      return ProcessStatus::kAlive;
   }
   switch (errno) {
      case ESRCH:
         return ProcessStatus::kGone;
      case EPERM:
      case 0:
         return ProcessStatus::kAlive;
      default:
         return ProcessStatus::kUnknown;
   }
}

/* Installs value in slot unless another thread was first; returns the winner. */
const char *Publish(std::atomic<char *> &slot, char *value)
{
   char *expected = nullptr;
   if (!slot.compare_exchange_strong(expected, value, std::memory_order_acq_rel)) {
      free(value);
      return expected;
   }
   return value;
}

/* The 12-byte machine id pair, Base64, with "/" turned into "-". */
char *MakeOldMachineID(void)
{
   uint32_t hostId = 0;
   uint64_t hardwareId = 0;
   Hostinfo_MachineID(&hostId, &hardwareId);
   uint8_t raw[12];
   memcpy(raw, &hostId, sizeof hostId);
   memcpy(raw + sizeof hostId, &hardwareId, sizeof hardwareId);
   char *encoded = nullptr;
   VERIFY(Base64_EasyEncode(raw, sizeof raw, &encoded));
   for (char *p = encoded; *p != '\0'; p++) {
      if (*p == '/') {
         *p = '-';
      }
   }
   return encoded;
}

/* Decodes an older-form id into its 64-bit hardware part. */
bool DecodeOldMachineID(const char *id, uint64_t *hardwareId)
{
   char *copy = Util_SafeStrdup(id);
   for (char *p = copy; *p != '\0'; p++) {
      if (*p == '-') {
         *p = '/';
      }
   }
   uint8_t raw[16];
   size_t length = 0;
   bool ok = Base64_Decode(copy, raw, sizeof raw, &length) && length == 12;
   free(copy);
   if (ok) {
      memcpy(hardwareId, raw + 4, sizeof *hardwareId);
   }
   return ok;
}

bool OldMachineIDMatch(const char *first, const char *second)
{
   uint64_t mine = 0;
   uint64_t theirs = 0;
   if (!DecodeOldMachineID(first, &mine)) {
      Warning("%s: unexpected decode problem #1 (%s)\n", "OldMachineIDMatch", first);
      return false;
   }
   if (!DecodeOldMachineID(second, &theirs)) {
      Warning("%s: unexpected decode problem #2 (%s)\n", "OldMachineIDMatch", second);
      return false;
   }
   return mine == theirs;
}

}  // namespace

extern "C" {

const char *FileLockGetOldMachineID(void)
{
   char *known = gOldMachineID.load(std::memory_order_acquire);
   return known != nullptr ? known : Publish(gOldMachineID, MakeOldMachineID());
}

const char *FileLockGetMachineID(void)
{
   char *known = gMachineID.load(std::memory_order_acquire);
   if (known != nullptr) {
      return known;
   }
   char *id;
   char *uuid = UUID_GetHostUUID();
   if (uuid != nullptr) {
      for (char *p = uuid; *p != '\0'; p++) {
         if (isspace(static_cast<unsigned char>(*p))) {
            *p = '-';
         }
      }
      id = Str_SafeAsprintf(nullptr, "uuid=%s", uuid);
      free(uuid);
   } else {
      id = Util_SafeStrdup(FileLockGetOldMachineID());
   }
   return Publish(gMachineID, id);
}

char *FileLockGetExecutionID(void)
{
   // A process's start time never changes: it is read once per process id (a forked child
   // has its own), which spares two /proc reads on every scan.
   pid_t pid = getpid();
   ExecutionIDCache *known = gExecutionID.load(std::memory_order_acquire);
   if (known != nullptr && known->pid == pid) {
      return Util_SafeStrdup(known->text);
   }
   if (GetProcessStatus(pid) == ProcessStatus::kGone) {
      return nullptr;
   }
   uint64_t startTime;
   if (!Hostinfo_GetProcessStartTime(pid, &startTime)) {
      return nullptr;
   }
   ExecutionIDCache *mine = static_cast<ExecutionIDCache *>(Util_SafeMalloc(sizeof *mine));
   mine->pid = pid;
   Str_Sprintf(mine->text, sizeof mine->text, "%d-%llu", static_cast<int>(pid),
               static_cast<unsigned long long>(startTime));
   // A losing thread frees its copy; a cache inherited through fork is left as it is.
   if (!gExecutionID.compare_exchange_strong(known, mine, std::memory_order_acq_rel)) {
      char *text = Util_SafeStrdup(mine->text);
      free(mine);
      return text;
   }
   return Util_SafeStrdup(mine->text);
}

bool FileLockValidExecutionID(const char *executionID)
{
   unsigned int upid;
   unsigned long long recorded = 0;
   int pid;
   if (sscanf(executionID, "%u-%llu", &upid, &recorded) == 2) {
      pid = static_cast<int>(upid);
   } else if (sscanf(executionID, "%d", &pid) == 1) {
      recorded = 0;
   } else {
      pid = -1;
   }
   if (pid < 0) {
      Warning("FILE: %s parse error on '%s'. Assuming valid.\n", "FileLockValidExecutionID",
              executionID);
      return true;
   }
   if (GetProcessStatus(pid) == ProcessStatus::kGone) {
      return false;
   }
   uint64_t present;
   if (!Hostinfo_GetProcessStartTime(pid, &present)) {
      return false;
   }
   return recorded == present || recorded == 0 || present == 0;
}

bool FileLockMachineIDMatch(const char *hostMachineID, const char *otherMachineID)
{
   static const char kUuid[] = "uuid=";
   bool hostUuid = strncmp(hostMachineID, kUuid, sizeof kUuid - 1) == 0;
   bool otherUuid = strncmp(otherMachineID, kUuid, sizeof kUuid - 1) == 0;
   if (hostUuid && otherUuid) {
      return strcmp(hostMachineID + sizeof kUuid - 1, otherMachineID + sizeof kUuid - 1) == 0;
   }
   if (!hostUuid && !otherUuid) {
      return strcmp(hostMachineID, otherMachineID) == 0;
   }
   if (otherUuid) {
      return false;
   }
   return OldMachineIDMatch(FileLockGetOldMachineID(), otherMachineID);
}

bool FileLockNativeSupported(void)
{
   return false;
}

}  // extern "C"
