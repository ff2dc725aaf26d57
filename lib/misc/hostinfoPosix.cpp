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
#include "internal/retry.h"
#include "internal/uniqueFd.h"
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

/*
 * What Hostinfo_Daemonize prepares for the fork: the error pipe, the descriptors the daemon
 * inherits and the arguments in the default encoding. Released on every path.
 */
struct HostinfoDaemonizeJob {
   HostinfoDaemonizeJob(unsigned int jobFlags, const char *jobPidPath, int jobPidFd)
       : flags(jobFlags), pidPath(jobPidPath), pidFd(jobPidFd)
   {
   }
   ~HostinfoDaemonizeJob()
   {
      free(inherited);
      HostinfoFreeArgv(argvConverted);
      free(pathConverted);
   }
   HostinfoDaemonizeJob(const HostinfoDaemonizeJob &) = delete;
   HostinfoDaemonizeJob &operator=(const HostinfoDaemonizeJob &) = delete;

   unsigned int flags;
   const char *pidPath;
   int pidFd;  // owned by the caller
   tesmar::UniqueFd pipeRead;
   tesmar::UniqueFd pipeWrite;
   int *inherited = nullptr;  // sorted
   size_t numInherited = 0;
   char *pathConverted = nullptr;
   char **argvConverted = nullptr;
};

// Opens (and with lockPidFile locks) the PID file; false with errno from the failing call.
bool HostinfoOpenPidFile(const char *pidPath, unsigned int flags, tesmar::UniqueFd *pidFd)
{
   static const char kFn[] = "Hostinfo_Daemonize";
   pidFd->reset(open(pidPath, O_WRONLY | O_CREAT, 0644));  // a locked one outlives the exec
   if (!*pidFd) {
      int err = errno;
      Warning("%s: Couldn't open PID path [%s], error %u.\n", kFn, pidPath, (unsigned)err);
      errno = err;
      return false;
   }
   if ((flags & HOSTINFO_DAEMONIZE_LOCKPID) && flock(pidFd->get(), LOCK_EX | LOCK_NB) == -1) {
      int err = errno;
      Warning("%s: Lock held on PID path [%s], error %u, not daemonizing.\n", kFn, pidPath,
              (unsigned)err);
      pidFd->reset();
      errno = err;
      return false;
   }
   return true;
}

// The error pipe, the inherited-descriptor list and the converted arguments; false after a
// warning.
bool HostinfoPrepare(HostinfoDaemonizeJob *job, const char *path, char *const *argv,
                     const int *keepFds, size_t numKeepFds)
{
   static const char kFn[] = "Hostinfo_Daemonize";
   int pipeFds[2];
   if (pipe(pipeFds) == -1) {
      Warning("%s: Couldn't create pipe, error %u.\n", kFn, (unsigned)errno);
      return false;
   }
   job->pipeRead.reset(pipeFds[0]);
   job->pipeWrite.reset(pipeFds[1]);

   job->inherited = (int *)malloc((numKeepFds + 2) * sizeof *job->inherited);
   if (job->inherited == nullptr) {
      Warning("%s: Couldn't allocate memory, error %u.\n", kFn, (unsigned)errno);
      return false;
   }
   if (numKeepFds > 0) {
      memcpy(job->inherited, keepFds, numKeepFds * sizeof *job->inherited);
   }
   job->numInherited = numKeepFds;
   job->inherited[job->numInherited++] = pipeFds[1];
   if (job->pidFd != -1) {
      job->inherited[job->numInherited++] = job->pidFd;
   }
   std::sort(job->inherited, job->inherited + job->numInherited);

   if (fcntl(pipeFds[1], F_SETFD, FD_CLOEXEC) == -1) {
      Warning("%s: Couldn't set close-on-exec for fd %d, error %u.\n", kFn, pipeFds[1],
              (unsigned)errno);
      return false;
   }
   job->pathConverted = HostinfoUtf8ToDefaultEncoding(path);
   if (job->pathConverted == nullptr) {
      Warning("%s: Couldn't convert path [%s] to default encoding.\n", kFn, path);
      return false;
   }
   job->argvConverted = HostinfoArgvToDefaultEncoding(argv);
   if (job->argvConverted == nullptr) {
      Warning("%s: Couldn't convert arguments to default encoding.\n", kFn);
      return false;
   }
   return true;
}

// The first child: a clean process state, a new session, and the daemon forked off.
[[noreturn]] void HostinfoFirstChild(const HostinfoDaemonizeJob &job)
{
   static const char kFn[] = "Hostinfo_Daemonize";
   HostinfoResetProcessState(job.inherited, job.numInherited);
   sigset_t all;
   sigfillset(&all);
   sigprocmask(SIG_UNBLOCK, &all, nullptr);
   if (!(job.flags & HOSTINFO_DAEMONIZE_NOCLOSE) && setsid() == -1) {
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
   HostinfoRunDaemon(job.pathConverted, job.argvConverted, job.flags, job.pidPath, job.pidFd,
                     job.pipeWrite.get());
}

/*
 * Forks, waits for the first child and reads the daemon's verdict from the error pipe: 0 once
 * the daemon has executed, its error word when it could not, EINVAL for any other failure.
 */
int HostinfoForkAndWait(HostinfoDaemonizeJob &job, const char *path)
{
   static const char kFn[] = "Hostinfo_Daemonize";
   pid_t child = fork();
   if (child == -1) {
      Warning("%s: Couldn't fork first child, error %u.\n", kFn, (unsigned)errno);
      return EINVAL;
   }
   if (child == 0) {
      HostinfoFirstChild(job);
   }
   job.pipeWrite.reset();

   int status;
   if (tesmar::RetryEintr([&] { return waitpid(child, &status, 0); }) == -1) {
      // For example ECHILD when the caller ignores SIGCHLD: the start cannot be confirmed.
      Warning("%s: Couldn't wait for child %d, error %u.\n", kFn, (int)child, (unsigned)errno);
      return EINVAL;
   }
   if (WIFSIGNALED(status)) {
      Warning("%s: Child %d exited with signal %d.\n", kFn, (int)child, WTERMSIG(status));
      return EINVAL;
   }
   if (WIFEXITED(status) && WEXITSTATUS(status) != 0) {
      Warning("%s: Child %d exited with error %d.\n", kFn, (int)child, WEXITSTATUS(status));
      return EINVAL;
   }

   int32_t word = 0;
   ssize_t got = tesmar::RetryEintr([&] { return read(job.pipeRead.get(), &word, sizeof word); });
   if (got > 0) {
      Warning("%s: Child could not exec %s, read %d, error %u.\n", kFn, path, (int)got,
              (unsigned)word);
      return word;
   }
   return 0;  // end of file: execv closed the write end. A read error is taken as success too.
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
   // The pending error: only the daemon's own error word replaces it.
   int err = EINVAL;
   tesmar::UniqueFd pidFd;
   if (pidPath != nullptr && !HostinfoOpenPidFile(pidPath, flags, &pidFd)) {
      return false;
   }
   {
      HostinfoDaemonizeJob job(flags, pidPath, pidFd.get());
      if (HostinfoPrepare(&job, path, argv, keepFds, numKeepFds)) {
         err = HostinfoForkAndWait(job, path);
      }
   }

   if (err != 0) {
      if (pidPath != nullptr && unlink(pidPath) == -1) {
         Warning("%s: Unable to unlink %s: %u\n", kFn, pidPath, (unsigned)errno);
      }
   } else if (flags & HOSTINFO_DAEMONIZE_EXIT) {
      _exit(0);
   }
   pidFd.reset();
   errno = err;
   return err == 0;
}

}  // extern "C"
