/*
 * The set-user-ID opener run against a private root: the fixture that installs it into a
 * bundle, runs it as an unprivileged user and cleans up every process it started.
 */
#pragma once

#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <signal.h>
#include <string.h>
#include <sys/prctl.h>
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

inline long long MsSince(Clock::time_point start)
{
   return (Clock::now() - start) / std::chrono::milliseconds(1);
}

// Polls done every 5 ms until it holds or timeoutMs have passed; whether it held.
inline bool WaitFor(const std::function<bool()> &done, int timeoutMs = kTimeoutMs)
{
   for (auto start = Clock::now(); !done();
        std::this_thread::sleep_for(std::chrono::milliseconds(5))) {
      if (MsSince(start) > timeoutMs) {
         return false;
      }
   }
   return true;
}

// Live processes running the executable at path; an empty path matches nothing.
inline std::vector<pid_t> ProcessesRunning(const std::string &path)
{
   std::vector<pid_t> pids;
   for (const fs::directory_entry &entry : fs::directory_iterator("/proc")) {
      std::string exe = fs::read_symlink(entry.path() / "exe", gIgnored);
      if (!path.empty() && (exe == path || exe == path + " (deleted)")) {
         pids.push_back(atoi(entry.path().filename().c_str()));
      }
   }
   return pids;
}

// Kills every process running path and reaps what it can.
inline void StopAll(const std::string &path)
{
   for (pid_t pid : ProcessesRunning(path)) {
      kill(pid, SIGKILL);
   }
   WaitFor([&] { return ProcessesRunning(path).empty(); }, 2000);
   while (waitpid(-1, nullptr, WNOHANG) > 0) {
   }
}

// In a child: no supplementary groups, every uid and gid set to uid.
inline bool Become(uid_t uid)
{
   return setgroups(0, nullptr) == 0 && setresgid(uid, uid, uid) == 0 &&
          setresuid(uid, uid, uid) == 0;
}

// Runs body in a child with every uid and gid set to uid; returns its exit status (-1 if none).
inline int RunAs(uid_t uid, const std::function<int()> &body)
{
   pid_t pid = fork();
   if (pid == 0) {
      _exit(Become(uid) ? body() : 126);
   }
   int status = 0;
   return waitpid(pid, &status, 0) == pid && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// A stream socket bound to path (not yet listening) or connected to it, -1 when that fails;
// every wait on it is bounded by two seconds.
inline int UnixSocket(const std::string &path, bool connectTo = false, int flags = 0)
{
   struct sockaddr_un addr = {AF_UNIX, {}};
   strcpy(addr.sun_path, path.c_str());
   int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | flags, 0);
   struct timeval bound = {2, 0};
   setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &bound, sizeof bound);
   setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &bound, sizeof bound);
   auto *address = (struct sockaddr *)&addr;
   return (connectTo ? connect(fd, address, sizeof addr) : bind(fd, address, sizeof addr)) == 0
              ? fd
              : (close(fd), -1);
}

// True when path itself (not what it links to) is owned by root:root with exactly mode.
inline bool OwnedByRootWithMode(const std::string &path, mode_t mode)
{
   struct stat st;
   return lstat(path.c_str(), &st) == 0 && st.st_uid == 0 && st.st_gid == 0 &&
          (st.st_mode & 07777) == mode;
}

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
   void SetUp() override
   {
      if (geteuid() != 0) {
         GTEST_SKIP() << "needs root: the opener is installed set-user-ID root";
      }
      prctl(PR_SET_CHILD_SUBREAPER, 1);  // orphaned daemons come back here to be reaped
      umask(022);
      StopAll(kDaemonPath);
      fs::remove_all(kRoot);
      fs::create_directories(kRunDir);
      fs::create_directories(fs::path(kLogPath).parent_path());
      fs::create_directories(fs::path(kDaemonPath).parent_path());
      fs::copy_file(E2E_SERVICES, kDaemonPath);
      // The bundle must be reachable by nobody, so it lives outside the build tree.
      char pattern[] = "/tmp/brix-e2e-XXXXXX";
      ASSERT_NE(mkdtemp(pattern), nullptr);
      bundle_ = pattern;
      opener_ = bundle_ + "/Larkview.app/Contents/Library/services/Open BRIX Services";
      fs::create_directories(fs::path(opener_).parent_path());
      fs::copy_file(E2E_OPENER, opener_);
      ASSERT_EQ(chmod(pattern, 0755) | chmod(opener_.c_str(), 04755), 0);
      int fd = open((bundle_ + "/out").c_str(), O_WRONLY | O_APPEND | O_CREAT, 0644);
      out_ = fcntl(fd, F_DUPFD_CLOEXEC, 100);
      close(fd);
   }

   void TearDown() override
   {
      for (const std::string &path : {kDaemonPath, kDaemonPath + ".real", opener_}) {
         StopAll(path);
      }
      fs::remove_all(bundle_, gIgnored);
      fs::remove_all(kRoot);
      close(out_);
   }

   // Starts the opener (by default in descriptor mode) under a mask it must replace, with out_
   // as descriptor kPassAs.
   Child Opener(const RunOptions &options = {},
                const std::vector<std::string> &args = {std::to_string(kPassAs)})
   {
      // Built before the fork: the child only execs.
      std::vector<char *> argv = {const_cast<char *>(opener_.c_str())}, envp;
      for (auto [strings, pointers] : {std::pair{&args, &argv}, {&options.env, &envp}}) {
         for (const std::string &s : *strings) {
            pointers->push_back(const_cast<char *>(s.c_str()));
         }
         pointers->push_back(nullptr);
      }
      Child child = {-1, bundle_ + "/opener" + std::to_string(++started_) + ".out"};
      int out = open(child.output.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
      if ((child.pid = fork()) == 0) {
         if (dup2(open("/dev/null", O_RDONLY | O_CLOEXEC), 0) != 0 || dup2(out, 1) != 1 ||
             dup2(out, 2) != 2 || dup2(out_, kPassAs) != kPassAs) {
            _exit(126);
         }
         options.setup();
         umask(077);
         if (Become(options.uid)) {
            execve(opener_.c_str(), argv.data(), envp.data());
         }
         _exit(127);
      }
      close(out);
      return child;
   }

   // Reaps the child, killing it after timeoutMs, and reads its output. Returns its exit status,
   // or -1 when it did not exit normally.
   int Finish(Child child, std::string *output = nullptr, int timeoutMs = kTimeoutMs)
   {
      int status = 0;
      if (!WaitFor([&] { return waitpid(child.pid, &status, WNOHANG) != 0; }, timeoutMs)) {
         kill(child.pid, SIGKILL);
         waitpid(child.pid, &status, 0);
      }
      if (output != nullptr) {
         *output = testsupport::StripStamps(ReadFile(child.output));
      }
      return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
   }

   // One descriptor-mode hand-over: the opener's status, its output in *output.
   int HandOver(const RunOptions &options = {}, std::string *output = nullptr,
                int timeoutMs = kTimeoutMs)
   {
      return Finish(Opener(options), output, timeoutMs);
   }

   /*
    * Runs a descriptor-mode opener against a stand-in daemon that serves one connection per
    * character of script: 'c' closes at once, 'g' greets and closes, '0' and '1' greet, take the
    * descriptor and answer with that verdict, 'n' never greets, 'v' never gives a verdict.
    * Returns the opener's status; the output goes to *output.
    */
   int HandOverToStandIn(const std::string &script, std::string *output = nullptr)
   {
      unlink(kSocketPath.c_str());
      int listener = UnixSocket(kSocketPath);
      EXPECT_EQ(listen(listener, 4), 0);
      Child opener = Opener();
      std::vector<int> held = {listener};
      struct pollfd ready = {listener, POLLIN, 0};
      for (size_t i = 0; i < script.size() && poll(&ready, 1, kTimeoutMs) == 1; i++) {
         char step = script[i];  // its behaviours, each a set of script characters
         int conn = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC), passed = -1;
         if (strchr("g01v", step) != nullptr) {
            ServiceImplWriteOne(conn, 'g');
         }
         if (strchr("01v", step) != nullptr) {  // the greeting comes back with the descriptor
            EXPECT_TRUE(ServiceImplRecvFd(conn, &passed) && gServiceImplMessageByte == 'g');
            close(passed);
            (void)(step == 'v' || ServiceImplWriteOne(conn, step));
         }
         // 'n' and 'v' stay open and silent until the opener is done; the others close now.
         held.push_back(strchr("nv", step) != nullptr ? conn : (close(conn), -1));
      }
      int status = Finish(opener, output);
      for (int fd : held) {
         close(fd);
      }
      return status;
   }

   std::string bundle_;
   std::string opener_;
   int out_ = -1;  // the file handed over, bundle_/out opened for appending at a high number
   int started_ = 0;
};

}  // namespace e2e
