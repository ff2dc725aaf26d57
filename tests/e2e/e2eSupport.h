/*
 * The set-user-ID opener run against a private root: the fixture that installs it into a
 * bundle, runs it as an unprivileged user and cleans up every process it started.
 */
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <thread>

#include <gmock/gmock.h>

#include "serviceImplIO.h"
#include "testSupport.h"

namespace e2e {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using ::testing::HasSubstr;
using testsupport::ReadFile;

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
inline const std::vector<std::string> kEnv = {"PATH=/usr/bin:/bin",
#ifdef E2E_SANITIZER_ENV
                                              E2E_SANITIZER_ENV
#endif
};
inline std::error_code gIgnored;  // for file-system calls whose failure the caller sees anyway

// Polls done every 5 ms until it holds or timeoutMs have passed; whether it held.
bool WaitFor(const std::function<bool()> &done, int timeoutMs = kTimeoutMs);
long long MsSince(Clock::time_point start);
// Live processes running the executable at path; an empty path matches nothing.
std::vector<pid_t> ProcessesRunning(const std::string &path);
// Stops every process running path (TERM, then KILL) and reaps what it can.
void StopAll(const std::string &path);
// Runs body in a child with every uid and gid set to uid; returns its exit status (-1 if none).
int RunAs(uid_t uid, const std::function<int()> &body);
// A stream socket bound to path (not yet listening) or connected to it, -1 when that fails;
// every wait on it is bounded by two seconds.
int UnixSocket(const std::string &path, bool connectTo = false, int flags = 0);
// One hand-over straight to the daemon's socket: the verdict byte, or 0 when anything failed.
char DirectHandOver(int fd);

struct Child {
   pid_t pid;
   std::string output;  // the file holding its standard output and error
};

// Options are given as designated initializers that name only what differs from the default.
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"
struct RunOptions {
   uid_t uid = kNobody;
   std::vector<std::string> env = kEnv;
   std::function<void()> setup = [] {};  // runs in the child, as root, before the identity change
};

class OpenerE2e : public ::testing::Test {
  protected:
   void SetUp() override;
   void TearDown() override;
   // Starts the opener under a mask it must replace; passFd becomes kPassAs.
   Child Opener(std::vector<std::string> args, int passFd = -1, const RunOptions &options = {});
   // Reaps the child, killing it after timeoutMs, and reads its output. Returns its exit status,
   // or -1 when it did not exit normally.
   int Finish(Child child, std::string *output = nullptr, int timeoutMs = kTimeoutMs);
   // The opener in descriptor mode, handed out_.
   Child Start(const RunOptions &options = {})
   {
      return Opener({std::to_string(kPassAs)}, out_, options);
   }
   int HandOver(const RunOptions &options = {}, std::string *output = nullptr,
                int timeoutMs = kTimeoutMs)
   {
      return Finish(Start(options), output, timeoutMs);
   }
   /*
    * Runs a descriptor-mode opener against a stand-in daemon that serves one connection per
    * character of script: 'c' closes at once, 'g' greets and closes, '0' and '1' greet, take the
    * descriptor and answer with that verdict, 'n' never greets, 'v' never gives a verdict.
    * Returns the opener's status; counts connections; the output goes to *output.
    */
   int HandOverToStandIn(const std::string &script, int *served, std::string *output = nullptr);

   std::string bundle_;
   std::string opener_;
   int out_ = -1;  // the file handed over, bundle_/out opened for appending at a high number
   int started_ = 0;
};

}  // namespace e2e
