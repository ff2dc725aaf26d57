/*
 * brix-opener: makes sure the services daemon runs and hands it a descriptor.
 *
 *    brix-opener FD   hands descriptor FD over; exit status 0 when the daemon accepted it
 *    brix-opener      hands over a keep-alive pipe and stays alive (shell mode)
 *
 * Installed set-user-ID root: it runs with the caller's identity and raises privilege only
 * around the steps that need it.
 */
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "location.h"
#include "location/locationInt.h"
#include "log.h"
#include "serviceImpl.h"
#include "servicesInstall.h"
#include "str.h"

#ifndef BRIX_ROOT_PREFIX
#define BRIX_ROOT_PREFIX ""
#endif

extern char **environ;

namespace {

const char kRunDir[] = BRIX_ROOT_PREFIX "/var/run";

bool IsDangerousEntry(const char *entry, const char *equals)
{
   return strncmp(equals + 1, "() {", 4) == 0 || strncmp(entry, "BASH_ENV=", 9) == 0 ||
          strncmp(entry, "ENV=", 4) == 0 || strncmp(entry, "SHELLOPTS=", 10) == 0;
}

/*
 * Removes shell function definitions and shell start-up variables, so that no child (the
 * daemon) inherits them. The walk restarts after each removal because unsetenv shifts the
 * array.
 */
bool CleanEnvironment(void)
{
   bool removed;
   do {
      removed = false;
      for (char **entry = environ; entry != nullptr && *entry != nullptr; entry++) {
         const char *equals = strchr(*entry, '=');
         if (equals == nullptr || !IsDangerousEntry(*entry, equals)) {
            continue;
         }
         char *name = strndup(*entry, (size_t)(equals - *entry));
         if (name == nullptr) {
            return false;
         }
         int rc = unsetenv(name);
         free(name);
         if (rc != 0) {
            return false;
         }
         removed = true;
         break;
      }
   } while (removed);
   return true;
}

/*
 * A caller may start this program with standard descriptors closed; the lock file or socket
 * would then take their numbers and receive log output. Fill them with /dev/null.
 */
bool OpenStandardDescriptors(void)
{
   for (int fd = 0; fd <= 2; fd++) {
      if (fcntl(fd, F_GETFD) == -1 && errno == EBADF) {
         int opened = open("/dev/null", O_RDWR);
         if (opened != fd) {
            return false;
         }
      }
   }
   return true;
}

}  // namespace

int main(int argc, char **argv)
{
   if (!CleanEnvironment() || !OpenStandardDescriptors()) {
      return 1;
   }
   ServiceImpl_PrivLower();
   umask(022);
   LocationSetRootPrefix(BRIX_ROOT_PREFIX);
   Location_Init("brix-opener");

   char *daemonPath = Str_Asprintf(nullptr, "%s/%s%s", Location_GetAppSupportDir(), "Services",
                                   Location_GetRelative("serviceDaemonFile"));
   if (daemonPath == nullptr) {
      Warning("%s: No daemon path.\n", "main");
      return 1;
   }
#ifndef BRIX_OPENER_NO_INSTALL
   Location_SetInstallHook(ServicesInstall_Run);
#endif
   char *lockPath = Str_SafeAsprintf(nullptr, "%s/%s", kRunDir, "BRIX Services.lock");
   char *socketPath = Str_SafeAsprintf(nullptr, "%s/%s", kRunDir, "BRIX Services.sock");

   int status = ServiceImpl_Opener(argc, argv, 2, lockPath, socketPath, daemonPath);

   free(lockPath);
   free(socketPath);
   free(daemonPath);
   return status;
}
