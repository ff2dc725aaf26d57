/*
 * brix-lock: takes the lock-file lock on a path, runs a command while holding it and releases
 * it afterwards; or shows who holds the lock.
 */
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "err.h"
#include "file.h"
#include "file/fileLockInt.h"
#include "fileLock.h"
#include "log.h"
#include "msgList.h"

namespace {

constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;
constexpr int kExitTempFail = 75; /* EX_TEMPFAIL: the lock was not had in time */

const char kUsage[] =
    "Usage: brix-lock [--shared] [--wait MS|--no-wait] PATH -- COMMAND [ARG...]\n"
    "       brix-lock --status PATH\n"
    "       brix-lock --help\n"
    "\n"
    "Runs COMMAND while holding the lock on PATH (the lock directory PATH.lck) and releases\n"
    "the lock afterwards. The lock is exclusive unless --shared is given. Without --wait the\n"
    "command waits for the lock as long as it takes; --no-wait is --wait 0.\n"
    "\n"
    "  --shared      take a shared lock: shared holders run together, exclusive ones alone\n"
    "  --wait MS     give up after MS milliseconds\n"
    "  --no-wait     give up at once when somebody else holds the lock\n"
    "  --status      print each holder or waiter: member, machine, execution id, kind, number;\n"
    "                exit 0 when the lock is taken, 1 when it is free\n"
    "\n"
    "Exit status: the command's own (128 + N when signal N ended it), 75 when the lock could\n"
    "not be had in time, 1 for other failures, 2 for bad usage, 126 or 127 when the command\n"
    "cannot be run.\n";

int Usage(const char *problem)
{
   fprintf(stderr, "brix-lock: %s\n", problem);
   fputs("Try 'brix-lock --help' for more information.\n", stderr);
   return kExitUsage;
}

bool ParseWait(const char *text, uint32_t *ms)
{
   char *end = nullptr;
   errno = 0;
   unsigned long long value = strtoull(text, &end, 10);
   if (errno != 0 || end == text || *end != '\0' || text[0] == '-' || value >= 0xFFFFFFFFull) {
      return false;
   }
   *ms = static_cast<uint32_t>(value);
   return true;
}

int Status(const char *path)
{
   char *full = File_FullPath(path);
   if (full == nullptr) {
      fprintf(stderr, "brix-lock: cannot resolve '%s': %s\n", path, Err_ErrString());
      return kExitFailure;
   }
   std::string lockDir = std::string(full) + FILELOCK_SUFFIX;
   free(full);
   char **names = nullptr;
   int count = File_ListDirectory(lockDir.c_str(), &names);
   if (count < 0) {
      if (errno == ENOENT) {
         return kExitFailure;
      }
      fprintf(stderr, "brix-lock: cannot read '%s': %s\n", lockDir.c_str(), Err_ErrString());
      return kExitFailure;
   }
   bool any = false;
   for (int i = 0; i < count; i++) {
      FileLockMemberValues member;
      if (names[i][0] == 'M' && FileLockValidName(names[i]) &&
          FileLockMemberValuesRead(lockDir.c_str(), names[i], &member) == 0) {
         printf("%s machine=%s execution=%s kind=%s number=%u\n", names[i],
                member.machineID.c_str(), member.executionID.c_str(),
                member.lockType == "X" ? "exclusive" : "shared", member.lamportNumber);
         any = true;
      }
      free(names[i]);
   }
   free(names);
   return any ? 0 : kExitFailure;
}

int Run(const char *path, bool shared, uint32_t waitMs, char **command)
{
   int err = 0;
   MsgList *msgs = nullptr;
   FileLockToken *token = FileLock_Lock(path, shared, waitMs, &err, &msgs);
   if (token == nullptr) {
      char *text = MsgList_ToString(msgs);
      fprintf(stderr, "brix-lock: %s: %s", path, text != nullptr ? text : "\n");
      free(text);
      MsgList_Free(msgs);
      return err == EAGAIN ? kExitTempFail : kExitFailure;
   }
   fflush(nullptr);
   pid_t child = fork();
   if (child == 0) {
      execvp(command[0], command);
      int status = errno == ENOENT ? 127 : 126;
      fprintf(stderr, "brix-lock: cannot run '%s': %s\n", command[0], strerror(errno));
      _exit(status);
   }
   int result = kExitFailure;
   if (child == -1) {
      fprintf(stderr, "brix-lock: fork failed: %s\n", strerror(errno));
   } else {
      // The command owns the terminal's signals; we stay to release the lock.
      signal(SIGINT, SIG_IGN);
      signal(SIGQUIT, SIG_IGN);
      int status = 0;
      while (waitpid(child, &status, 0) == -1 && errno == EINTR) {
      }
      result = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
   }
   if (!FileLock_Unlock(token, &err, nullptr)) {
      fprintf(stderr, "brix-lock: releasing the lock on '%s' failed: %s\n", path,
              Err_Errno2String(err));
      if (result == 0) {
         result = kExitFailure;
      }
   }
   return result;
}

}  // namespace

int main(int argc, char **argv)
{
   // The library's diagnostics are not for the user of a script; errors go to stderr here.
   Log_SetOutputFd(-1);
   bool shared = false;
   bool status = false;
   uint32_t waitMs = FILELOCK_INFINITE_WAIT;
   int i = 1;
   for (; i < argc && argv[i][0] == '-' && strcmp(argv[i], "--") != 0; i++) {
      const char *arg = argv[i];
      if (strcmp(arg, "--help") == 0 || strcmp(arg, "-h") == 0) {
         fputs(kUsage, stdout);
         return 0;
      } else if (strcmp(arg, "--shared") == 0 || strcmp(arg, "-s") == 0) {
         shared = true;
      } else if (strcmp(arg, "--no-wait") == 0 || strcmp(arg, "-n") == 0) {
         waitMs = FILELOCK_TRY_LOCK;
      } else if (strcmp(arg, "--wait") == 0 || strcmp(arg, "-w") == 0) {
         if (i + 1 >= argc || !ParseWait(argv[i + 1], &waitMs)) {
            return Usage("--wait takes a number of milliseconds");
         }
         i++;
      } else if (strcmp(arg, "--status") == 0) {
         status = true;
      } else {
         return Usage((std::string("unknown option '") + arg + "'").c_str());
      }
   }
   if (i >= argc) {
      return Usage("missing PATH");
   }
   const char *path = argv[i++];
   if (status) {
      return i == argc ? Status(path) : Usage("--status takes only PATH");
   }
   if (i >= argc || strcmp(argv[i], "--") != 0 || i + 1 >= argc) {
      return Usage("missing '--' and COMMAND");
   }
   return Run(path, shared, waitMs, argv + i + 1);
}
