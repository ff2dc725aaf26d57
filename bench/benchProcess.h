/*
 * Whole programs for the process benchmarks: run one to its end, and stop every process that
 * runs a given executable.
 */
#pragma once

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

extern char **environ;

namespace benchprocess {

/* Runs program with args, its output to /dev/null; its exit status, -1 if abnormal. */
inline int Run(const std::string &program, std::vector<std::string> args)
{
   args.insert(args.begin(), program);
   std::vector<char *> argv;
   for (std::string &arg : args) {
      argv.push_back(arg.data());
   }
   argv.push_back(nullptr);
   posix_spawn_file_actions_t actions;
   posix_spawn_file_actions_init(&actions);
   posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
   pid_t pid;
   int rc = posix_spawn(&pid, program.c_str(), &actions, nullptr, argv.data(), environ);
   posix_spawn_file_actions_destroy(&actions);
   int status;
   if (rc != 0 || waitpid(pid, &status, 0) != pid) {
      return -1;
   }
   return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

/*
 * Kills every process running the executable at path. Daemons are re-parented to the
 * benchmark (a child subreaper), so stopping one also reaps it.
 */
inline void StopProcessesRunning(const std::string &path)
{
   DIR *proc = opendir("/proc");
   while (struct dirent *entry = proc != nullptr ? readdir(proc) : nullptr) {
      char target[4096];
      std::string link = std::string("/proc/") + entry->d_name + "/exe";
      ssize_t n = readlink(link.c_str(), target, sizeof target - 1);
      if (n > 0 && std::string(target, (size_t)n) == path) {
         pid_t pid = atoi(entry->d_name);
         kill(pid, SIGKILL);
         waitpid(pid, nullptr, 0);
      }
   }
   if (proc != nullptr) {
      closedir(proc);
   }
}

}  // namespace benchprocess
