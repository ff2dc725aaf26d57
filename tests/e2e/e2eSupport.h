/*
 * The set-user-ID opener run against a private root: the fixture that installs it into a
 * bundle, runs it as an unprivileged user and cleans up every process it started.
 */
#pragma once

#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <thread>

#include "serviceImplIO.h"
#include "testSupport.h"

namespace e2e {

namespace fs = std::filesystem;

inline const std::string kRoot = E2E_ROOT;
inline const std::string kRunDir = kRoot + "/var/run";
inline const std::string kSocketPath = kRunDir + "/BRIX Services.sock";
inline const std::string kLockPath = kRunDir + "/BRIX Services.lock";
inline const std::string kLogPath = kRoot + "/var/log/BRIX Services.log";
inline const std::string kDaemonPath =
    kRoot +
    "/Library/Application Support/Tesmar/Larkview/Services/Contents/Library/services/BRIX Services";
constexpr uid_t kNobody = 65534;
constexpr uid_t kVictim = 4242;  // a second unprivileged user; it needs no passwd entry
constexpr int kPassAs = 5;       // the descriptor number handed to the opener in descriptor mode
constexpr int kTimeoutMs = 20000;
#ifdef E2E_SANITIZER_ENV
inline const std::vector<std::string> kEnv = {"PATH=/usr/bin:/bin", E2E_SANITIZER_ENV};
#else
inline const std::vector<std::string> kEnv = {"PATH=/usr/bin:/bin"};
#endif

using testsupport::ReadFile;

inline std::string Readlink(const std::string &path)
{
   std::error_code error;
   return fs::read_symlink(path, error).string();
}

inline struct sockaddr_un UnixAddress(const std::string &path)
{
   struct sockaddr_un addr = {};
   addr.sun_family = AF_UNIX;
   strcpy(addr.sun_path, path.c_str());
   return addr;
}

inline bool WaitFor(const std::function<bool()> &done, int timeoutMs = kTimeoutMs)
{
   for (int waited = 0; waited <= timeoutMs; waited += 5) {
      if (done()) {
         return true;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
   }
   return false;
}

inline bool WaitForText(const std::string &path, const std::string &text)
{
   return WaitFor([&] { return ReadFile(path).find(text) != std::string::npos; });
}

// The Uid line of /proc/<pid>/status: real, effective, saved and file-system uid.
inline std::string UidLine(pid_t pid)
{
   std::string status = ReadFile("/proc/" + std::to_string(pid) + "/status");
   size_t at = status.find("\nUid:");
   return at == std::string::npos ? "" : status.substr(at + 1, status.find('\n', at + 1) - at - 1);
}

inline long long MsSince(std::chrono::steady_clock::time_point start)
{
   return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() -
                                                                start)
       .count();
}

// Live processes running the executable at path; an empty path matches nothing.
std::vector<pid_t> ProcessesRunning(const std::string &path);

// Stops every process running path (TERM, then KILL) and reaps what it can.
void StopAll(const std::string &path);

// Runs body in a child with every uid and gid set to uid; returns its exit status (-1 if none).
int RunAs(uid_t uid, const std::function<int()> &body);

// A socket bound to path, not yet listening.
int BindSocket(const std::string &path);

/*
 * One hand-over straight to the daemon's socket, every wait bounded by two seconds: the
 * verdict byte, or 0 when anything failed.
 */
char DirectHandOver(int fd);

struct Child {
   pid_t pid;
   int output;  // read end of its standard output and error
};

// Options are given as designated initializers that name only what differs from the default.
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"
struct RunOptions {
   uid_t uid = kNobody;
   std::vector<std::string> env = kEnv;
   std::function<void()> setup;  // runs in the child, as root, just before the identity change
};

class OpenerE2e : public ::testing::Test {
  protected:
   void SetUp() override;
   void TearDown() override;

   // A file to hand over, opened for appending at a high descriptor number.
   int OpenOutput();

   // Starts the opener under a mask it must replace; passFd becomes kPassAs.
   Child Opener(std::vector<std::string> args, int passFd = -1, const RunOptions &options = {});

   // Reads the child's output to its end and reaps it, killing it after timeoutMs. Returns its
   // exit status, or -1 when it did not exit normally.
   int Finish(Child child, std::string *output = nullptr, int timeoutMs = kTimeoutMs);

   // The opener in descriptor mode, handed fd.
   Child Start(int fd, const RunOptions &options = {})
   {
      return Opener({std::to_string(kPassAs)}, fd, options);
   }

   int HandOver(int fd, const RunOptions &options = {}, std::string *output = nullptr,
                int timeoutMs = kTimeoutMs)
   {
      return Finish(Start(fd, options), output, timeoutMs);
   }

   /*
    * Runs a descriptor-mode opener against a stand-in daemon that serves one connection per
    * character of script: 'c' closes at once, 'g' greets and closes, '0' and '1' greet, take the
    * descriptor and answer with that verdict, 'n' never greets, 'v' never gives a verdict.
    * Returns the opener's status; counts connections; the output goes to *output.
    */
   int HandOverToStandIn(const std::string &script, int fd, int *served,
                         std::string *output = nullptr);

   std::string bundle_;
   std::string opener_;
};

}  // namespace e2e
