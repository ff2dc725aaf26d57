/*
 * Usage: daemonProbe REPORT [SECONDS]
 * Writes its process state to REPORT (through a rename, so it appears whole), then sleeps
 * SECONDS. Lines: "pid N", "cwd PATH", "fd N TARGET" per open descriptor in ascending order,
 * and last "sid N".
 */
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

namespace fs = std::filesystem;

int main(int argc, char **argv)
{
   std::string report = "pid " + std::to_string(getpid()) + "\ncwd " + fs::current_path().string();
   for (int fd = 0; fd < 1024; fd++) {
      std::error_code error;
      fs::path target = fs::read_symlink("/proc/self/fd/" + std::to_string(fd), error);
      report += error ? "" : "\nfd " + std::to_string(fd) + " " + target.string();
   }
   std::string tmp = std::string(argv[1]) + ".tmp";
   std::ofstream(tmp) << report << "\nsid " << getsid(0) << "\n";
   rename(tmp.c_str(), argv[1]);  // a report that never appears fails the test
   sleep(argc > 2 ? (unsigned)atoi(argv[2]) : 0);
}
