/*
 * Identity and privilege on Linux.
 *
 * Linux keeps credentials per thread. glibc's setresuid() and friends broadcast the change to
 * every thread of the process, so the thread-local forms here call the system calls directly.
 * The super-user bracket leaves the saved user id alone (root in a set-user-ID program or a
 * root process), which is what lets a thread lower its effective identity and raise it again.
 */
#include <errno.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>

#include "internal/publishOnce.h"
#include "id.h"
#include "idInt.h"
#include "log.h"

namespace {

constexpr uid_t kNoUid = static_cast<uid_t>(-1);
constexpr gid_t kNoGid = static_cast<gid_t>(-1);

int ThreadSetResUid(uid_t ruid, uid_t euid, uid_t suid)
{
   return static_cast<int>(syscall(SYS_setresuid, ruid, euid, suid));
}

int ThreadSetResGid(gid_t rgid, gid_t egid, gid_t sgid)
{
   return static_cast<int>(syscall(SYS_setresgid, rgid, egid, sgid));
}

std::atomic<IdAuthRef *> gCachedAuthRef{nullptr};

}  // namespace

extern "C" {

uid_t Id_BeginSuperUser(void)
{
   uid_t euid = geteuid();
   VERIFY(euid != kNoUid);
   if (euid == 0) {
      return kNoUid;
   }

   /*
    * Back to the process's own credentials: root from the saved user id, and the group the
    * process started with, which the saved group id still holds. The user comes first, since
    * changing the group needs the privilege. A thread without a root saved id simply stays
    * what it is; its privileged work then fails with EPERM.
    */
   gid_t rgid, egid, sgid;
   if (ThreadSetResUid(kNoUid, 0, kNoUid) == 0 && getresgid(&rgid, &egid, &sgid) == 0) {
      ThreadSetResGid(kNoGid, sgid, kNoGid);
   }
   return euid;
}

void Id_EndSuperUser(uid_t uid)
{
   if (uid == kNoUid || uid == geteuid()) {
      return;
   }
   /* The group first, while the thread still has the privilege to change it. */
   if (ThreadSetResGid(kNoGid, getgid(), kNoGid) != 0 ||
       ThreadSetResUid(kNoUid, uid, kNoUid) != 0) {
      Log("Failed to release super user privileges.\n");
   }
}

int Id_ProcessExists(pid_t pid)
{
   if (kill(pid, 0) == 0) {
      return ID_PROCESS_EXISTS;
   }
   switch (errno) {
      case EPERM:
         return ID_PROCESS_EXISTS; /* alive, but not ours to signal */
      case ESRCH:
         return ID_PROCESS_GONE;
      default:
         return ID_PROCESS_UNKNOWN;
   }
}

int Id_SetGid(gid_t gid)
{
   return static_cast<int>(syscall(SYS_setgid, gid));
}

int Id_SetREUid(uid_t ruid, uid_t euid)
{
   return static_cast<int>(syscall(SYS_setreuid, ruid, euid));
}

int Id_SetRESUid(uid_t ruid, uid_t euid, uid_t suid)
{
   return ThreadSetResUid(ruid, euid, suid);
}

}  // extern "C"

IdAuthRef *IdAuthCacheGet()
{
   return gCachedAuthRef.load(std::memory_order_acquire);
}

IdAuthRef *IdAuthCachePublish(IdAuthRef *ref)
{
   return tesmar::PublishOnce(gCachedAuthRef, ref, [](IdAuthRef *loser) { free(loser); });
}

void IdAuthCacheInstall(IdAuthRef *ref)
{
   if (!tesmar::TryPublish(gCachedAuthRef, ref)) {
      NOT_IMPLEMENTED();
   }
}

void IdAuthCacheDiscard()
{
   free(gCachedAuthRef.exchange(nullptr, std::memory_order_acq_rel));
}
