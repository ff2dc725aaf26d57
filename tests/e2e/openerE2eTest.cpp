/*
 * The set-user-ID opener run by an unprivileged user against a private root: starting and
 * finding the daemon, concurrent openers, stale sockets, misbehaving daemons, shell mode.
 */
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <regex>
#include <thread>

#include "e2eSupport.h"
#include "serviceImpl.h"
#include "testSupport.h"

namespace fs = std::filesystem;
using namespace e2e;

namespace {

const std::string kRoot = E2E_ROOT;
const std::string kRunDir = kRoot + "/var/run";
const std::string kSocketPath = kRunDir + "/BRIX Services.sock";
const std::string kLockPath = kRunDir + "/BRIX Services.lock";
const std::string kLogPath = kRoot + "/var/log/BRIX Services.log";
const std::string kDaemonPath =
    kRoot +
    "/Library/Application Support/Tesmar/Larkview/Services/Contents/Library/services/BRIX Services";

constexpr int kPassAs = 5;

#ifdef E2E_SANITIZER_ENV
const std::vector<std::string> kExtraEnv = {E2E_SANITIZER_ENV};
#else
const std::vector<std::string> kExtraEnv;
#endif
constexpr int kTimeoutMs = 20000;

int HighFd(int fd)
{
   int high = fcntl(fd, F_DUPFD_CLOEXEC, 100);
   close(fd);
   return high;
}

class OpenerE2e : public ::testing::Test {
  protected:
   void SetUp() override
   {
      if (geteuid() != 0) {
         GTEST_SKIP() << "needs root: the opener is installed set-user-ID root";
      }
      StopAll(kDaemonPath);
      fs::remove_all(kRoot);
      fs::create_directories(kRunDir);
      fs::create_directories(kRoot + "/var/log");
      fs::create_directories(fs::path(kDaemonPath).parent_path());
      fs::copy_file(E2E_SERVICES, kDaemonPath);

      // The bundle must be reachable by nobody, so it lives outside the build tree.
      char pattern[] = "/tmp/brix-e2e-XXXXXX";
      ASSERT_NE(mkdtemp(pattern), nullptr);
      bundle_ = pattern;
      ASSERT_EQ(chmod(bundle_.c_str(), 0755), 0);
      opener_ = bundle_ + "/Larkview.app/Contents/Library/services/Open BRIX Services";
      fs::create_directories(fs::path(opener_).parent_path());
      for (fs::path p = fs::path(opener_).parent_path(); p != bundle_; p = p.parent_path()) {
         chmod(p.c_str(), 0755);
      }
      fs::copy_file(E2E_OPENER, opener_);
      ASSERT_EQ(chown(opener_.c_str(), 0, 0), 0);
      ASSERT_EQ(chmod(opener_.c_str(), 04755), 0);
   }

   void TearDown() override
   {
      StopAll(kDaemonPath);
      StopAll(opener_);
      if (!bundle_.empty()) {
         fs::remove_all(bundle_);
      }
      fs::remove_all(kRoot);
   }

   // A file to hand over, opened for appending at a high descriptor number.
   int OpenOutput(const std::string &name)
   {
      return HighFd(open((bundle_ + "/" + name).c_str(), O_WRONLY | O_APPEND | O_CREAT, 0644));
   }

   Spawned Opener(const std::vector<std::string> &args, int passFd = -1,
                  const std::vector<std::string> &env = {"PATH=/usr/bin:/bin"}, int extraFd = -1)
   {
      std::vector<std::string> fullEnv = env;
      fullEnv.insert(fullEnv.end(), kExtraEnv.begin(), kExtraEnv.end());
      return SpawnAsNobody(opener_, args, fullEnv, passFd, kPassAs, extraFd, kPassAs + 2);
   }

   // Runs the opener in descriptor mode to its end; returns its exit status (-1: abnormal).
   int HandOver(int fd, std::string *output = nullptr)
   {
      Spawned child = Opener({std::to_string(kPassAs)}, fd);
      std::string text = DrainOutput(child);
      int status = WaitFor(child.pid, kTimeoutMs);
      if (output != nullptr) {
         *output = testsupport::StripStamps(text);
      }
      return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
   }

   std::string bundle_;
   std::string opener_;
};

TEST_F(OpenerE2e, FirstOpenerStartsTheDaemonAndTheNextFindsIt)
{
   int out = OpenOutput("out");
   int marker = HighFd(open((bundle_ + "/marker").c_str(), O_RDONLY | O_CREAT, 0644));
   std::vector<std::string> env = {"PATH=/usr/bin:/bin", "BASH_ENV=/tmp/x", "FN=() { :; }",
                                   "FN2=() { echo; }",   "KEEP=() x",       "ENV=/tmp/y",
                                   "SHELLOPTS=xtrace",   "NOEQUALS"};
   Spawned first = Opener({std::to_string(kPassAs)}, out, env, marker);
   std::string output = testsupport::StripStamps(DrainOutput(first));
   int status = WaitFor(first.pid, kTimeoutMs);
   ASSERT_TRUE(WIFEXITED(status)) << status;
   EXPECT_EQ(WEXITSTATUS(status), 0) << output;
   EXPECT_EQ(output, "ServiceImpl_Opener: PID " + std::to_string(first.pid) + "\n");

   std::vector<pid_t> daemons = ProcessesRunning(kDaemonPath);
   ASSERT_EQ(daemons.size(), 1u);
   pid_t daemon = daemons[0];
   std::string proc = "/proc/" + std::to_string(daemon);

   // Arguments: its path, the listening socket, the keep-alive pipe's read end.
   std::vector<std::string> args = ProcStrings(daemon, "cmdline");
   ASSERT_EQ(args.size(), 3u);
   EXPECT_EQ(args[0], kDaemonPath);
   int listenFd = std::stoi(args[1]);
   int keepAliveFd = std::stoi(args[2]);
   EXPECT_GT(listenFd, 2);
   EXPECT_GT(keepAliveFd, 2);

   std::string statusText = ReadFile(proc + "/status");
   EXPECT_NE(statusText.find("\nUid:\t0\t0\t0\t0\n"), std::string::npos) << statusText;
   EXPECT_NE(statusText.find("\nUmask:\t0022\n"), std::string::npos) << statusText;
   char cwd[64] = {};
   ASSERT_GT(readlink((proc + "/cwd").c_str(), cwd, sizeof cwd - 1), 0);
   EXPECT_STREQ(cwd, "/");

   // Standard streams on /dev/null; of the opener's descriptors only the listener (and the
   // keep-alive pipe until the opener finished) reached the daemon.
   ASSERT_TRUE(WaitForText(kLogPath, "The starting opener has finished.", kTimeoutMs));
   std::map<int, std::string> fds = Descriptors(daemon);
   EXPECT_EQ(fds[0], "/dev/null");
   EXPECT_EQ(fds[1], "/dev/null");
   EXPECT_EQ(fds[2], "/dev/null");
   EXPECT_EQ(fds[listenFd].rfind("socket:", 0), 0u) << fds[listenFd];
   EXPECT_EQ(fds.count(keepAliveFd), 0u);
   for (auto &[fd, target] : fds) {
      if (fd > 2 && fd != listenFd) {
         EXPECT_TRUE(target == kLogPath || target == "anon_inode:[signalfd]")
             << fd << " -> " << target;
      }
   }

   std::vector<std::string> environ = ProcStrings(daemon, "environ");
   std::vector<std::string> kept = {"KEEP=() x", "NOEQUALS", "PATH=/usr/bin:/bin"};
   kept.insert(kept.end(), kExtraEnv.begin(), kExtraEnv.end());
   std::sort(environ.begin(), environ.end());
   std::sort(kept.begin(), kept.end());
   EXPECT_EQ(environ, kept);

   struct stat st;
   ASSERT_EQ(lstat(kSocketPath.c_str(), &st), 0);
   EXPECT_TRUE(S_ISSOCK(st.st_mode));
   EXPECT_EQ(st.st_mode & 07777, 0600u);
   EXPECT_EQ(st.st_uid, 0u);
   ASSERT_EQ(stat(kLockPath.c_str(), &st), 0);
   EXPECT_EQ(st.st_mode & 07777, 0600u);
   EXPECT_EQ(st.st_uid, 0u);

   // The second opener is a plain client of the same daemon.
   Spawned second = Opener({std::to_string(kPassAs)}, out);
   DrainOutput(second);
   status = WaitFor(second.pid, kTimeoutMs);
   EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
   EXPECT_EQ(ProcessesRunning(kDaemonPath), daemons);

   std::string prefix = "BRIX Services (PID " + std::to_string(daemon) + ") received this file ";
   EXPECT_EQ(ReadFile(bundle_ + "/out"), prefix + "from opener PID " + std::to_string(first.pid) +
                                             ".\n" + prefix + "from opener PID " +
                                             std::to_string(second.pid) + ".\n");
   close(out);
   close(marker);
}

TEST_F(OpenerE2e, ConcurrentOpenersStartExactlyOneDaemon)
{
   constexpr int kOpeners = 64;
   int out = OpenOutput("out");
   std::vector<Spawned> openers;
   for (int i = 0; i < kOpeners; i++) {
      openers.push_back(Opener({std::to_string(kPassAs)}, out));
   }
   int succeeded = 0;
   for (Spawned &opener : openers) {
      DrainOutput(opener);
      int status = WaitFor(opener.pid, kTimeoutMs);
      succeeded += WIFEXITED(status) && WEXITSTATUS(status) == 0;
   }
   EXPECT_EQ(succeeded, kOpeners);
   EXPECT_EQ(ProcessesRunning(kDaemonPath).size(), 1u);
   std::string lines = ReadFile(bundle_ + "/out");
   EXPECT_EQ(std::count(lines.begin(), lines.end(), '\n'), kOpeners);
   close(out);
}

TEST_F(OpenerE2e, StaleSocketIsReplaced)
{
   int stale = socket(AF_UNIX, SOCK_STREAM, 0);
   struct sockaddr_un addr = {};
   addr.sun_family = AF_UNIX;
   strcpy(addr.sun_path, kSocketPath.c_str());
   ASSERT_EQ(bind(stale, (struct sockaddr *)&addr, sizeof addr), 0);
   close(stale);  // the file stays behind with nobody listening

   int out = OpenOutput("out");
   std::string output;
   EXPECT_EQ(HandOver(out, &output), 0) << output;
   EXPECT_EQ(ProcessesRunning(kDaemonPath).size(), 1u);
   struct stat st;
   ASSERT_EQ(lstat(kSocketPath.c_str(), &st), 0);
   EXPECT_EQ(st.st_mode & 07777, 0600u);
   EXPECT_NE(ReadFile(bundle_ + "/out"), "");
   close(out);
}

// A stand-in daemon listening on the socket path; serves each connection with the next script.
enum class Script { CloseAtOnce, GreetThenClose, Verdict0, Verdict1 };

class FakeDaemon {
  public:
   explicit FakeDaemon(std::vector<Script> scripts) : scripts_(std::move(scripts))
   {
      listen_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
      struct sockaddr_un addr = {};
      addr.sun_family = AF_UNIX;
      strcpy(addr.sun_path, kSocketPath.c_str());
      EXPECT_EQ(bind(listen_, (struct sockaddr *)&addr, sizeof addr), 0);
      EXPECT_EQ(listen(listen_, 4), 0);
      thread_ = std::thread([this] { Serve(); });
   }
   ~FakeDaemon()
   {
      thread_.join();
      close(listen_);
   }
   int Served() const { return served_; }

  private:
   void Serve()
   {
      for (Script script : scripts_) {
         struct pollfd ready = {listen_, POLLIN, 0};
         if (poll(&ready, 1, kTimeoutMs) != 1) {
            return;
         }
         int conn = accept4(listen_, nullptr, nullptr, SOCK_CLOEXEC);
         served_++;
         if (script != Script::CloseAtOnce) {
            ServiceImplWriteOne(conn, 'g');
         }
         if (script == Script::Verdict0 || script == Script::Verdict1) {
            int fd = -1;
            EXPECT_TRUE(ServiceImplRecvFd(conn, &fd));
            EXPECT_EQ(gServiceImplMessageByte, 'g');  // the greeting comes back with the fd
            close(fd);
            ServiceImplWriteOne(conn, script == Script::Verdict1 ? '1' : '0');
         }
         close(conn);
      }
   }

   std::vector<Script> scripts_;
   int listen_;
   std::atomic<int> served_{0};
   std::thread thread_;
};

TEST_F(OpenerE2e, MisbehavingDaemons)
{
   int out = OpenOutput("out");
   {
      // Dropped before the greeting: the opener starts over and succeeds on the next try.
      FakeDaemon daemon({Script::CloseAtOnce, Script::CloseAtOnce, Script::Verdict1});
      EXPECT_EQ(HandOver(out), 0);
      EXPECT_EQ(daemon.Served(), 3);
   }
   unlink(kSocketPath.c_str());
   {
      FakeDaemon daemon({Script::GreetThenClose});
      EXPECT_EQ(HandOver(out), 1);
   }
   unlink(kSocketPath.c_str());
   {
      FakeDaemon daemon({Script::Verdict0});
      EXPECT_EQ(HandOver(out), 1);
   }
   EXPECT_TRUE(ProcessesRunning(kDaemonPath).empty());
   close(out);
}

TEST_F(OpenerE2e, ShellModeOpenerIsWatchedUntilItDies)
{
   Spawned shell = Opener({});
   std::string pid = std::to_string(shell.pid);
   ASSERT_TRUE(WaitForText(kLogPath, "Watching the keep-alive pipe of opener PID " + pid + ".",
                           kTimeoutMs));
   std::this_thread::sleep_for(std::chrono::milliseconds(100));
   int status;
   EXPECT_EQ(waitpid(shell.pid, &status, WNOHANG), 0) << "the shell-mode opener must stay";
   EXPECT_EQ(ReadFile(kLogPath).find("Opener PID " + pid + " has gone"), std::string::npos);

   kill(shell.pid, SIGKILL);
   WaitFor(shell.pid, kTimeoutMs);
   DrainOutput(shell);
   EXPECT_TRUE(WaitForText(kLogPath,
                           "Opener PID " + pid +
                               " has gone; its keep-alive pipe is "
                               "closed.",
                           kTimeoutMs));
}

TEST_F(OpenerE2e, WrongArgumentCount)
{
   Spawned opener = Opener({"1", "2"});
   std::string output = testsupport::StripStamps(DrainOutput(opener));
   int status = WaitFor(opener.pid, kTimeoutMs);
   EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1) << status;
   EXPECT_EQ(output, "ServiceImpl_Opener: PID " + std::to_string(opener.pid) +
                         "\nWarning: Invalid number of arguments.\n");
   EXPECT_TRUE(ProcessesRunning(kDaemonPath).empty());
}

}  // namespace
