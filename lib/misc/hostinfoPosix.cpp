/*
 * Host information on POSIX systems: the running executable's path and detaching a daemon.
 */
#include "hostinfo.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>

#include "codesetBuiltin.h"
#include "log.h"
#include "str.h"
#include "util.h"

namespace {

constexpr size_t kModulePathSize = 1024;

/*
 * The default (locale) encoding is UTF-8 on this platform, so conversion is a copy that refuses
 * text which is not valid UTF-8, as a real conversion would. The validator is the built-in
 * converters' own, which keeps ICU out of programs that only start daemons.
 */
char *HostinfoUtf8ToDefaultEncoding(const char *text)
{
   if (!CodeSetIsValidUtf8(text, strlen(text))) {
      errno = EILSEQ;
      return nullptr;
   }
   return strdup(text);
}

void HostinfoFreeArgv(char **argv)
{
   if (argv != nullptr) {
      for (char **arg = argv; *arg != nullptr; arg++) {
         free(*arg);
      }
      free(argv);
   }
}

char **HostinfoArgvToDefaultEncoding(char *const *argv)
{
   size_t count = 0;
   while (argv[count] != nullptr) {
      count++;
   }
   char **converted = (char **)calloc(count + 1, sizeof *converted);
   if (converted == nullptr) {
      return nullptr;
   }
   for (size_t i = 0; i < count; i++) {
      converted[i] = HostinfoUtf8ToDefaultEncoding(argv[i]);
      if (converted[i] == nullptr) {
         int savedErrno = errno;
         HostinfoFreeArgv(converted);
         errno = savedErrno;
         return nullptr;
      }
   }
   return converted;
}

int HostinfoCloseRange(unsigned int first, unsigned int last)
{
   return (int)syscall(SYS_close_range, first, last, 0);
}

/*
 * Closes every descriptor from 3 up that is not in keep (sorted ascending), one close_range
 * per gap, so the cost does not grow with the descriptor limit. Falls back to closing one by
 * one up to the limit on kernels without close_range.
 */
void HostinfoCloseAllBut(const int *keep, size_t numKeep)
{
   unsigned int next = 3;
   bool ok = true;
   for (size_t i = 0; i < numKeep && ok; i++) {
      if (keep[i] < (int)next) {
         if (keep[i] >= 0 && (unsigned int)keep[i] + 1 > next) {
            next = (unsigned int)keep[i] + 1;
         }
         continue;
      }
      if ((unsigned int)keep[i] > next) {
         ok = HostinfoCloseRange(next, (unsigned int)keep[i] - 1) == 0;
      }
      next = (unsigned int)keep[i] + 1;
   }
   if (ok && HostinfoCloseRange(next, ~0U) == 0) {
      return;
   }
   long maxFd = sysconf(_SC_OPEN_MAX);
   for (long fd = maxFd - 1; fd >= 3; fd--) {
      if (!std::binary_search(keep, keep + numKeep, (int)fd)) {
         close((int)fd);
      }
   }
}

// The daemon-to-be starts from a clean slate: no timers, default signal actions, no stray
// descriptors, the full address-space limit.
void HostinfoResetProcessState(const int *keep, size_t numKeep)
{
   struct itimerval disarmed = {};
   setitimer(ITIMER_REAL, &disarmed, nullptr);
   setitimer(ITIMER_VIRTUAL, &disarmed, nullptr);
   setitimer(ITIMER_PROF, &disarmed, nullptr);

   struct sigaction action = {};
   action.sa_handler = SIG_DFL;
   sigfillset(&action.sa_mask);
   action.sa_flags = SA_RESTART;
   for (int sig = 1; sig < NSIG; sig++) {
      sigaction(sig, &action, nullptr);  // fails harmlessly for SIGKILL, SIGSTOP, reserved ones
   }

   HostinfoCloseAllBut(keep, numKeep);

   struct rlimit limit;
   if (getrlimit(RLIMIT_AS, &limit) == 0) {
      limit.rlim_cur = limit.rlim_max;
      setrlimit(RLIMIT_AS, &limit);
   }
}

// Sends the error word to the waiting caller and ends the daemon-to-be.
[[noreturn]] void HostinfoChildFail(int pipeFd, int err)
{
   int32_t word = err;
   if (write(pipeFd, &word, sizeof word) == -1) {
      Warning("%s: Couldn't write to parent pipe: %u, original error: %u.\n", "Hostinfo_Daemonize",
              (unsigned)errno, (unsigned)err);
   }
   _exit(1);
}

void HostinfoDevNullOnto(int targetFd, int openFlags)
{
   int fd = open("/dev/null", openFlags);
   if (fd != -1 && fd != targetFd) {
      dup2(fd, targetFd);
      close(fd);
   }
}

// The daemon side after the second fork; never returns.
[[noreturn]] void HostinfoRunDaemon(const char *path, char **argv, unsigned int flags,
                                    const char *pidPath, int pidFd, int pipeFd)
{
   static const char kFn[] = "Hostinfo_Daemonize";

   if (!(flags & HOSTINFO_DAEMONIZE_NOCHDIR) && chdir("/") == -1) {
      int err = errno;
      Warning("%s: Couldn't chdir to /, error %u.\n", kFn, (unsigned)err);
      HostinfoChildFail(pipeFd, err);
   }
   if (!(flags & HOSTINFO_DAEMONIZE_NOCLOSE)) {
      HostinfoDevNullOnto(STDIN_FILENO, O_RDONLY);
      HostinfoDevNullOnto(STDOUT_FILENO, O_WRONLY);
      HostinfoDevNullOnto(STDERR_FILENO, O_WRONLY);
   }
   if (pidFd != -1) {
      char text[32];
      int length = Str_Snprintf(text, sizeof text, "%lld\n", (long long)getpid());
      if (length <= 0) {
         HostinfoChildFail(pipeFd, EINVAL);
      }
      if (ftruncate(pidFd, 0) == -1) {
         int err = errno;
         Warning("%s: Couldn't truncate path [%s], error %d.\n", kFn, pidPath, err);
         HostinfoChildFail(pipeFd, err);
      }
      ssize_t written = write(pidFd, text, (size_t)length);
      if (written != length) {
         int err = written == -1 ? errno : EIO;
         Warning("%s: Couldn't write PID to path [%s], error %d.\n", kFn, pidPath, err);
         HostinfoChildFail(pipeFd, err);
      }
      if (fsync(pidFd) == -1) {
         int err = errno;
         Warning("%s: Couldn't flush PID to path [%s], error %d.\n", kFn, pidPath, err);
         HostinfoChildFail(pipeFd, err);
      }
      if (!(flags & HOSTINFO_DAEMONIZE_LOCKPID)) {
         close(pidFd);
      }
   }

   if (execv(path, argv) == -1) {
      int err = errno;
      Warning("%s: Couldn't exec %s, error %d.\n", kFn, path, err);
      HostinfoChildFail(pipeFd, err);
   }
   NOT_REACHED();
}

}  // namespace

extern "C" {

char *Hostinfo_GetModulePath(unsigned int privilege)
{
   if (privilege != 0 && privilege != 1) {
      Warning("%s: invalid privilege parameter\n", "Hostinfo_GetModulePath");
      return nullptr;
   }
   char *path = (char *)Util_SafeMalloc(kModulePathSize);
   ssize_t length = readlink("/proc/self/exe", path, kModulePathSize);
   if (length <= 0 || (size_t)length >= kModulePathSize) {
      Warning("HOSTINFO: %s: _NSGetExecutablePath failed.\n", __func__);
      free(path);
      return nullptr;
   }
   path[length] = '\0';
   return path;
}

bool Hostinfo_Daemonize(const char *path, char *const *argv, unsigned int flags,
                        const char *pidPath, const int *keepFds, size_t numKeepFds)
{
   static const char kFn[] = "Hostinfo_Daemonize";
   int err = EINVAL;
   int pidFd = -1;
   int pipeFds[2] = {-1, -1};
   int *inherited = nullptr;
   size_t numInherited = 0;
   char *pathConverted = nullptr;
   char **argvConverted = nullptr;

   if (pidPath != nullptr) {
      pidFd = open(pidPath, O_WRONLY | O_CREAT, 0644);
      if (pidFd == -1) {
         err = errno;
         Warning("%s: Couldn't open PID path [%s], error %u.\n", kFn, pidPath, (unsigned)err);
         errno = err;
         return false;
      }
      if ((flags & HOSTINFO_DAEMONIZE_LOCKPID) && flock(pidFd, LOCK_EX | LOCK_NB) == -1) {
         err = errno;
         Warning("%s: Lock held on PID path [%s], error %u, not daemonizing.\n", kFn, pidPath,
                 (unsigned)err);
         close(pidFd);
         errno = err;
         return false;
      }
   }

   if (pipe(pipeFds) == -1) {
      err = errno;
      Warning("%s: Couldn't create pipe, error %u.\n", kFn, (unsigned)err);
      pipeFds[0] = pipeFds[1] = -1;
      goto cleanup;
   }

   inherited = (int *)malloc((numKeepFds + 2) * sizeof *inherited);
   if (inherited == nullptr) {
      err = errno;
      Warning("%s: Couldn't allocate memory, error %u.\n", kFn, (unsigned)err);
      goto cleanup;
   }
   if (numKeepFds > 0) {
      memcpy(inherited, keepFds, numKeepFds * sizeof *inherited);
   }
   numInherited = numKeepFds;
   inherited[numInherited++] = pipeFds[1];
   if (pidFd != -1) {
      inherited[numInherited++] = pidFd;
   }
   std::sort(inherited, inherited + numInherited);

   if (fcntl(pipeFds[1], F_SETFD, FD_CLOEXEC) == -1) {
      err = errno;
      Warning("%s: Couldn't set close-on-exec for fd %d, error %u.\n", kFn, pipeFds[1],
              (unsigned)err);
      goto cleanup;
   }

   pathConverted = HostinfoUtf8ToDefaultEncoding(path);
   if (pathConverted == nullptr) {
      err = errno;
      Warning("%s: Couldn't convert path [%s] to default encoding.\n", kFn, path);
      goto cleanup;
   }
   argvConverted = HostinfoArgvToDefaultEncoding(argv);
   if (argvConverted == nullptr) {
      err = errno;
      Warning("%s: Couldn't convert arguments to default encoding.\n", kFn);
      goto cleanup;
   }

   {
      pid_t child = fork();
      if (child == -1) {
         err = errno;
         Warning("%s: Couldn't fork first child, error %u.\n", kFn, (unsigned)err);
         goto cleanup;
      }

      if (child == 0) {
         HostinfoResetProcessState(inherited, numInherited);
         sigset_t all;
         sigfillset(&all);
         sigprocmask(SIG_UNBLOCK, &all, nullptr);
         if (!(flags & HOSTINFO_DAEMONIZE_NOCLOSE) && setsid() == -1) {
            Warning("%s: Couldn't create new session, error %d.\n", kFn, errno);
            _exit(1);
         }
         pid_t grandchild = fork();
         if (grandchild == -1) {
            Warning("%s: Couldn't fork second child, error %d.\n", kFn, errno);
            _exit(1);
         }
         if (grandchild != 0) {
            _exit(0);
         }
         HostinfoRunDaemon(pathConverted, argvConverted, flags, pidPath, pidFd, pipeFds[1]);
      }

      close(pipeFds[1]);
      pipeFds[1] = -1;

      int status;
      pid_t waited;
      do {
         waited = waitpid(child, &status, 0);
      } while (waited == -1 && errno == EINTR);
      if (waited == -1) {
         err = errno;
         goto cleanup;
      }
      if (WIFSIGNALED(status)) {
         Warning("%s: Child %d exited with signal %d.\n", kFn, (int)child, WTERMSIG(status));
         goto cleanup;
      }
      if (WIFEXITED(status) && WEXITSTATUS(status) != 0) {
         Warning("%s: Child %d exited with error %d.\n", kFn, (int)child, WEXITSTATUS(status));
         goto cleanup;
      }

      int32_t word = 0;
      ssize_t got;
      do {
         got = read(pipeFds[0], &word, sizeof word);
      } while (got == -1 && errno == EINTR);
      if (got > 0) {
         Warning("%s: Child could not exec %s, read %d, error %u.\n", kFn, path, (int)got,
                 (unsigned)word);
         err = word;
      } else {
         // End of file: execv closed the write end. A read error is taken as success too.
         err = 0;
      }
   }

cleanup : {
   int savedErrno = errno;
   free(inherited);
   if (pipeFds[0] != -1) {
      close(pipeFds[0]);
   }
   if (pipeFds[1] != -1) {
      close(pipeFds[1]);
   }
   HostinfoFreeArgv(argvConverted);
   free(pathConverted);
   errno = savedErrno;
}

   if (err != 0) {
      if (pidPath != nullptr && unlink(pidPath) == -1) {
         Warning("%s: Unable to unlink %s: %u\n", kFn, pidPath, (unsigned)errno);
      }
      errno = err;
   } else if (flags & HOSTINFO_DAEMONIZE_EXIT) {
      _exit(0);
   }
   if (pidFd != -1) {
      close(pidFd);
   }
   errno = err;
   return err == 0;
}

}  // extern "C"
