/*
 * Usage: daemonProbe REPORT [SECONDS]
 * Writes its process state to REPORT (through a rename, so it appears whole), then sleeps
 * SECONDS. Lines: "pid N", "cwd PATH", "fd N TARGET" per open descriptor in ascending order,
 * and last "sid N".
 */
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>

int main(int argc, char **argv)
{
   if (argc < 2) {
      return 2;
   }
   char buf[4096];
   std::string report = "pid " + std::to_string(getpid()) + "\ncwd " +
                        (getcwd(buf, sizeof buf) != nullptr ? buf : "?") + "\n";
   for (int fd = 0; fd < 1024; fd++) {
      ssize_t n = readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), buf, sizeof buf);
      if (n > 0) {
         report += "fd " + std::to_string(fd) + " " + std::string(buf, (size_t)n) + "\n";
      }
   }
   report += "sid " + std::to_string(getsid(0)) + "\n";
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
