#include "e2eSupport.h"

#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <sstream>
#include <thread>

namespace e2e {

namespace {

std::vector<char *> CStrings(std::vector<std::string> &strings)
{
   std::vector<char *> pointers;
   for (std::string &s : strings) {
      pointers.push_back(s.data());
   }
   pointers.push_back(nullptr);
   return pointers;
}

std::string Readlink(const std::string &path)
{
   char buf[4096];
   ssize_t n = readlink(path.c_str(), buf, sizeof buf - 1);
   return n > 0 ? std::string(buf, (size_t)n) : std::string();
}

}  // namespace

Spawned SpawnAsNobody(const std::string &program, const std::vector<std::string> &args,
                      const std::vector<std::string> &env, int passFd, int passAs, int extraFd,
                      int extraAs)
{
   std::vector<std::string> argvStrings = {program};
   argvStrings.insert(argvStrings.end(), args.begin(), args.end());
   std::vector<std::string> envStrings = env;
   std::vector<char *> argv = CStrings(argvStrings);
   std::vector<char *> envp = CStrings(envStrings);

   int out[2];
   if (pipe2(out, O_CLOEXEC) != 0) {
      return {};
   }
   // Orphaned daemons come back to this process, so every one can be reaped.
   prctl(PR_SET_CHILD_SUBREAPER, 1);
   pid_t pid = fork();
   if (pid == 0) {
      dup2(out[1], 1);
      dup2(out[1], 2);
      if (passFd != -1) {
         dup2(passFd, passAs);
      }
      if (extraFd != -1) {
         dup2(extraFd, extraAs);
      }
      umask(077);  // the opener must set its own mask
      int devNull = open("/dev/null", O_RDONLY);
      dup2(devNull, 0);
      if (setgroups(0, nullptr) != 0 || setresgid(kNobody, kNobody, kNobody) != 0 ||
          setresuid(kNobody, kNobody, kNobody) != 0) {
         _exit(126);
      }
      execve(program.c_str(), argv.data(), envp.data());
      _exit(127);
   }
   close(out[1]);
   return {pid, out[0]};
}

int WaitFor(pid_t pid, int timeoutMs)
{
   auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
   for (;;) {
      int status;
      pid_t done = waitpid(pid, &status, WNOHANG);
      if (done == pid) {
         return status;
      }
      if (done == -1 || std::chrono::steady_clock::now() > deadline) {
         kill(pid, SIGKILL);
         waitpid(pid, &status, 0);
         return -1;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
   }
}

std::string DrainOutput(Spawned &spawned)
{
   std::string text;
   char buf[1024];
   ssize_t n;
   while ((n = read(spawned.output, buf, sizeof buf)) > 0) {
      text.append(buf, (size_t)n);
   }
   close(spawned.output);
   spawned.output = -1;
   return text;
}

std::vector<pid_t> ProcessesRunning(const std::string &path)
{
   std::vector<pid_t> pids;
   DIR *proc = opendir("/proc");
   if (proc == nullptr) {
      return pids;
   }
   struct dirent *entry;
   while ((entry = readdir(proc)) != nullptr) {
      pid_t pid = atoi(entry->d_name);
      if (pid <= 0) {
         continue;
      }
      std::string base = std::string("/proc/") + entry->d_name;
      std::string exe = Readlink(base + "/exe");
      if (exe.rfind(path, 0) != 0) {
         continue;
      }
      std::string stat = ReadFile(base + "/stat");
      size_t paren = stat.rfind(')');
      if (paren != std::string::npos && paren + 2 < stat.size() && stat[paren + 2] != 'Z') {
         pids.push_back(pid);
      }
   }
   closedir(proc);
   return pids;
}

void StopAll(const std::string &path)
{
   for (int round = 0; round < 2; round++) {
      std::vector<pid_t> pids = ProcessesRunning(path);
      for (pid_t pid : pids) {
         kill(pid, round == 0 ? SIGTERM : SIGKILL);
      }
      for (int i = 0; i < 200 && !ProcessesRunning(path).empty(); i++) {
         std::this_thread::sleep_for(std::chrono::milliseconds(10));
      }
      for (pid_t pid : pids) {
         waitpid(pid, nullptr, WNOHANG);
      }
   }
   while (waitpid(-1, nullptr, WNOHANG) > 0) {
   }
}

std::map<int, std::string> Descriptors(pid_t pid)
{
   std::map<int, std::string> fds;
   std::string dirPath = "/proc/" + std::to_string(pid) + "/fd";
   DIR *dir = opendir(dirPath.c_str());
   if (dir == nullptr) {
      return fds;
   }
   struct dirent *entry;
   while ((entry = readdir(dir)) != nullptr) {
      if (entry->d_name[0] != '.') {
         fds[atoi(entry->d_name)] = Readlink(dirPath + "/" + entry->d_name);
      }
   }
   closedir(dir);
   return fds;
}

std::vector<std::string> ProcStrings(pid_t pid, const char *name)
{
   std::string text = ReadFile("/proc/" + std::to_string(pid) + "/" + name);
   std::vector<std::string> strings;
   std::string current;
   std::istringstream in(text);
   while (std::getline(in, current, '\0')) {
      strings.push_back(current);
   }
   return strings;
}

std::string ReadFile(const std::string &path)
{
   std::ifstream in(path);
   std::stringstream text;
   text << in.rdbuf();
   return text.str();
}

bool WaitForText(const std::string &path, const std::string &text, int timeoutMs)
{
   for (int waited = 0; waited <= timeoutMs; waited += 10) {
      if (ReadFile(path).find(text) != std::string::npos) {
         return true;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
   }
   return false;
}

}  // namespace e2e
