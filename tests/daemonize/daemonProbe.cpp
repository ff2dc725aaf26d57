/*
 * Usage: daemonProbe REPORT [SECONDS]
 * Writes its process state to REPORT (atomically, through a rename), then sleeps SECONDS.
 * Lines: "pid N", "sid N", "cwd PATH", "fd N TARGET" per open descriptor.
 */
#include <dirent.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>

int main(int argc, char **argv)
{
   if (argc < 2) {
      return 2;
   }
   std::string report;
   char buf[4096];
   report += "pid " + std::to_string(getpid()) + "\n";
   report += "sid " + std::to_string(getsid(0)) + "\n";
   if (getcwd(buf, sizeof buf) != nullptr) {
      report += std::string("cwd ") + buf + "\n";
   }
   DIR *dir = opendir("/proc/self/fd");
   if (dir == nullptr) {
      return 3;
   }
   struct dirent *entry;
   while ((entry = readdir(dir)) != nullptr) {
      if (entry->d_name[0] == '.' || atoi(entry->d_name) == dirfd(dir)) {
         continue;
      }
      std::string link = std::string("/proc/self/fd/") + entry->d_name;
      ssize_t n = readlink(link.c_str(), buf, sizeof buf - 1);
      buf[n > 0 ? n : 0] = '\0';
      report += std::string("fd ") + entry->d_name + " " + buf + "\n";
   }
   closedir(dir);

   std::string tmp = std::string(argv[1]) + ".tmp";
   FILE *out = fopen(tmp.c_str(), "w");
   if (out == nullptr || fputs(report.c_str(), out) == EOF || fclose(out) != 0 ||
       rename(tmp.c_str(), argv[1]) != 0) {
      return 4;
   }
   if (argc > 2) {
      sleep((unsigned)atoi(argv[2]));
   }
   return 0;
}
