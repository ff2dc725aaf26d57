/*
 * The set-user-ID opener run as nobody against a private root: starting and finding the daemon,
 * concurrent openers, stale sockets, misbehaving daemons, shell mode.
 */
#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <thread>

#include "serviceImpl.h"
#include "testSupport.h"

namespace fs = std::filesystem;

namespace {

const std::string kRoot = E2E_ROOT;
const std::string kSocketPath = kRoot + "/var/run/BRIX Services.sock";
const std::string kLockPath = kRoot + "/var/run/BRIX Services.lock";
const std::string kLogPath = kRoot + "/var/log/BRIX Services.log";
const std::string kDaemonPath =
    kRoot +
    "/Library/Application Support/Tesmar/Larkview/Services/Contents/Library/services/BRIX Services";
constexpr uid_t kNobody = 65534;
constexpr int kPassAs = 5;  // the descriptor number handed to the opener in descriptor mode
constexpr int kTimeoutMs = 20000;
#ifdef E2E_SANITIZER_ENV
const std::vector<std::string> kEnv = {"PATH=/usr/bin:/bin", E2E_SANITIZER_ENV};
#else
const std::vector<std::string> kEnv = {"PATH=/usr/bin:/bin"};
#endif

std::string ReadFile(const std::string &path)
{
   std::ifstream in(path);
   std::stringstream text;
   text << in.rdbuf();
   return text.str();
}

std::string Readlink(const std::string &path)
{
   char buf[4096];
   ssize_t n = readlink(path.c_str(), buf, sizeof buf);
   return n > 0 ? std::string(buf, (size_t)n) : std::string();
}

bool WaitForText(const std::string &path, const std::string &text)
{
   for (int waited = 0; waited <= kTimeoutMs; waited += 10) {
      if (ReadFile(path).find(text) != std::string::npos) {
         return true;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
   }
   return false;
}

// Live processes running the executable at path (a zombie has no executable link). An empty
// path matches nothing: a case that never got as far as naming its program must not signal
// every process on the machine.
std::vector<pid_t> ProcessesRunning(const std::string &path)
{
   std::vector<pid_t> pids;
   if (path.empty()) {
      return pids;
   }
   for (const fs::directory_entry &entry : fs::directory_iterator("/proc")) {
      pid_t pid = atoi(entry.path().filename().c_str());
      std::string exe = pid > 0 ? Readlink(entry.path() / "exe") : "";
      if (exe == path || exe == path + " (deleted)") {
         pids.push_back(pid);
      }
   }
   return pids;
}

// Stops every process running path, even those a failed case left behind, and reaps them.
void StopAll(const std::string &path)
{
   for (int sig : {SIGTERM, SIGKILL}) {
      for (pid_t pid : ProcessesRunning(path)) {
         kill(pid, sig);
      }
      for (int i = 0; i < 200 && !ProcessesRunning(path).empty(); i++) {
         std::this_thread::sleep_for(std::chrono::milliseconds(10));
      }
   }
   while (waitpid(-1, nullptr, WNOHANG) > 0) {
   }
}

// A NUL-separated /proc file of pid (cmdline, environ) as strings.
std::vector<std::string> ProcStrings(pid_t pid, const char *name)
{
   std::istringstream in(ReadFile("/proc/" + std::to_string(pid) + "/" + name));
   std::vector<std::string> strings;
   for (std::string s; std::getline(in, s, '\0');) {
      strings.push_back(s);
   }
   return strings;
}

// A socket bound to the socket path, not yet listening.
int BindSocketFile()
{
   struct sockaddr_un addr = {};
   addr.sun_family = AF_UNIX;
   strcpy(addr.sun_path, kSocketPath.c_str());
   int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
   EXPECT_EQ(bind(fd, (struct sockaddr *)&addr, sizeof addr), 0);
   return fd;
}

struct Child {
   pid_t pid;
   int output;  // read end of its standard output and error
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
      fs::create_directories(kRoot + "/var/run");
      fs::create_directories(kRoot + "/var/log");
      fs::create_directories(fs::path(kDaemonPath).parent_path());
      fs::copy_file(E2E_SERVICES, kDaemonPath);

      // The bundle must be reachable by nobody, so it lives outside the build tree.
      char pattern[] = "/tmp/brix-e2e-XXXXXX";
      ASSERT_NE(mkdtemp(pattern), nullptr);
      bundle_ = pattern;
      ASSERT_EQ(chmod(pattern, 0755), 0);
      opener_ = bundle_ + "/Larkview.app/Contents/Library/services/Open BRIX Services";
      fs::create_directories(fs::path(opener_).parent_path());
      fs::copy_file(E2E_OPENER, opener_);
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
   int OpenOutput()
   {
      int fd = open((bundle_ + "/out").c_str(), O_WRONLY | O_APPEND | O_CREAT, 0644);
      int high = fcntl(fd, F_DUPFD_CLOEXEC, 100);
      close(fd);
      return high;
   }

   // Starts the opener as nobody, under a mask it must replace; passFd becomes kPassAs.
   Child Opener(std::vector<std::string> args, int passFd = -1, std::vector<std::string> env = kEnv)
   {
      args.insert(args.begin(), opener_);
      auto cStrings = [](std::vector<std::string> &strings) {
         std::vector<char *> pointers(strings.size() + 1, nullptr);
         std::transform(strings.begin(), strings.end(), pointers.begin(),
                        [](std::string &s) { return s.data(); });
         return pointers;
      };
      std::vector<char *> argv = cStrings(args);
      std::vector<char *> envp = cStrings(env);
      int out[2];
      EXPECT_EQ(pipe2(out, O_CLOEXEC), 0);
      pid_t pid = fork();
      if (pid == 0) {
         int devNull = open("/dev/null", O_RDONLY | O_CLOEXEC);
         if (dup2(devNull, 0) != 0 || dup2(out[1], 1) != 1 || dup2(out[1], 2) != 2 ||
             (passFd != -1 && dup2(passFd, kPassAs) != kPassAs) || setgroups(0, nullptr) != 0 ||
             setresgid(kNobody, kNobody, kNobody) != 0 ||
             setresuid(kNobody, kNobody, kNobody) != 0) {
            _exit(126);
         }
         umask(077);
         execve(opener_.c_str(), argv.data(), envp.data());
         _exit(127);
      }
      close(out[1]);
      return {pid, out[0]};
   }

   // Reads the child's output to its end and reaps it, killing it after kTimeoutMs.
   // Returns its exit status, or -1 when it did not exit normally.
   int Finish(Child child, std::string *output = nullptr)
   {
      std::string text;
      char buf[1024];
      ssize_t n = 0;
      struct pollfd ready = {child.output, POLLIN, 0};
      int polled;
      while ((polled = poll(&ready, 1, kTimeoutMs)) == 1 &&
             (n = read(child.output, buf, sizeof buf)) > 0) {
         text.append(buf, (size_t)n);
      }
      if (polled != 1) {
         kill(child.pid, SIGKILL);
      }
      close(child.output);
      int status = 0;
      waitpid(child.pid, &status, 0);
      if (output != nullptr) {
         *output = testsupport::StripStamps(text);
      }
      return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
   }

   int HandOver(int fd) { return Finish(Opener({std::to_string(kPassAs)}, fd)); }

   /*
    * Runs a descriptor-mode opener against a stand-in daemon that serves one connection per
    * character of script: 'c' closes at once, 'g' greets and closes, '0' and '1' greet, take the
    * descriptor and answer with that verdict. Returns the opener's status; counts connections.
    */
   int HandOverToStandIn(const std::string &script, int fd, int *served)
   {
      unlink(kSocketPath.c_str());
      int listener = BindSocketFile();
      EXPECT_EQ(listen(listener, 4), 0);
      *served = 0;
      std::thread daemon([&] {
         for (char step : script) {
            struct pollfd ready = {listener, POLLIN, 0};
            if (poll(&ready, 1, kTimeoutMs) != 1) {
               return;
            }
            int conn = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
            ++*served;
            if (step != 'c') {
               ServiceImplWriteOne(conn, 'g');
            }
            int passed = -1;
            if (step == '0' || step == '1') {
               EXPECT_TRUE(ServiceImplRecvFd(conn, &passed));
               EXPECT_EQ(gServiceImplMessageByte, 'g');  // the greeting comes back with it
               close(passed);
               ServiceImplWriteOne(conn, step);
            }
            close(conn);
         }
      });
      int status = HandOver(fd);
      daemon.join();
      close(listener);
      return status;
   }

   std::string bundle_;
   std::string opener_;
};

TEST_F(OpenerE2e, FirstOpenerStartsTheDaemonAndTheNextFindsIt)
{
   int out = OpenOutput();
   std::vector<std::string> env = {"BASH_ENV=/tmp/x", "FN=() { :; }", "FN2=() { echo; }",
                                   "KEEP=() x",       "ENV=/tmp/y",   "SHELLOPTS=xtrace",
                                   "NOEQUALS"};
   env.insert(env.end(), kEnv.begin(), kEnv.end());
   Child first = Opener({std::to_string(kPassAs)}, out, env);
   std::string output;
   EXPECT_EQ(Finish(first, &output), 0) << output;
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

   std::string statusText = ReadFile(proc + "/status");
   EXPECT_NE(statusText.find("\nUid:\t0\t0\t0\t0\n"), std::string::npos) << statusText;
   EXPECT_NE(statusText.find("\nUmask:\t0022\n"), std::string::npos) << statusText;
   EXPECT_EQ(Readlink(proc + "/cwd"), "/");

   // Standard streams on /dev/null; of the opener's descriptors only the listener (and the
   // keep-alive pipe until the opener finished) reached the daemon, not the handed-over one.
   ASSERT_TRUE(WaitForText(kLogPath, "The starting opener has finished."));
   std::map<int, std::string> fds;
   for (const fs::directory_entry &entry : fs::directory_iterator(proc + "/fd")) {
      fds[atoi(entry.path().filename().c_str())] = Readlink(entry.path());
   }
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
   std::vector<std::string> kept = {"KEEP=() x", "NOEQUALS"};
   kept.insert(kept.end(), kEnv.begin(), kEnv.end());
   std::sort(environ.begin(), environ.end());
   std::sort(kept.begin(), kept.end());
   EXPECT_EQ(environ, kept);

   for (const std::string &path : {kSocketPath, kLockPath}) {
      struct stat st;
      ASSERT_EQ(lstat(path.c_str(), &st), 0) << path;
      EXPECT_EQ(st.st_mode & 07777, 0600u) << path;
      EXPECT_EQ(st.st_uid, 0u) << path;
   }

   // The second opener is a plain client of the same daemon.
   Child second = Opener({std::to_string(kPassAs)}, out);
   EXPECT_EQ(Finish(second), 0);
   EXPECT_EQ(ProcessesRunning(kDaemonPath), daemons);

   std::string prefix = "BRIX Services (PID " + std::to_string(daemon) + ") received this file ";
   EXPECT_EQ(ReadFile(bundle_ + "/out"), prefix + "from opener PID " + std::to_string(first.pid) +
                                             ".\n" + prefix + "from opener PID " +
                                             std::to_string(second.pid) + ".\n");
   close(out);
}

TEST_F(OpenerE2e, ConcurrentOpenersStartExactlyOneDaemon)
{
   constexpr int kOpeners = 64;
   int out = OpenOutput();
   std::vector<Child> openers;
   for (int i = 0; i < kOpeners; i++) {
      openers.push_back(Opener({std::to_string(kPassAs)}, out));
   }
   int succeeded = 0;
   for (Child &opener : openers) {
      succeeded += Finish(opener) == 0;
   }
   EXPECT_EQ(succeeded, kOpeners);
   EXPECT_EQ(ProcessesRunning(kDaemonPath).size(), 1u);
   std::string lines = ReadFile(bundle_ + "/out");
   EXPECT_EQ(std::count(lines.begin(), lines.end(), '\n'), kOpeners);
   close(out);
}

TEST_F(OpenerE2e, StaleSocketIsReplaced)
{
   close(BindSocketFile());  // the file stays behind with nobody listening

   int out = OpenOutput();
   EXPECT_EQ(HandOver(out), 0);
   EXPECT_EQ(ProcessesRunning(kDaemonPath).size(), 1u);
   close(out);
}

TEST_F(OpenerE2e, MisbehavingDaemons)
{
   int out = OpenOutput();
   int served;
   // Dropped before the greeting: the opener starts over and succeeds on the next try.
   EXPECT_EQ(HandOverToStandIn("cc1", out, &served), 0);
   EXPECT_EQ(served, 3);
   EXPECT_EQ(HandOverToStandIn("g", out, &served), 1);
   EXPECT_EQ(HandOverToStandIn("0", out, &served), 1);
   EXPECT_EQ(served, 1);
   EXPECT_TRUE(ProcessesRunning(kDaemonPath).empty());
   close(out);
}

TEST_F(OpenerE2e, ShellModeOpenerIsWatchedUntilItDies)
{
   Child shell = Opener({});
   std::string pid = std::to_string(shell.pid);
   ASSERT_TRUE(WaitForText(kLogPath, "Watching the keep-alive pipe of opener PID " + pid + "."));
   std::this_thread::sleep_for(std::chrono::milliseconds(100));
   int status;
   EXPECT_EQ(waitpid(shell.pid, &status, WNOHANG), 0) << "the shell-mode opener must stay";
   EXPECT_EQ(ReadFile(kLogPath).find("Opener PID " + pid + " has gone"), std::string::npos);

   kill(shell.pid, SIGKILL);
   EXPECT_EQ(Finish(shell), -1);
   EXPECT_TRUE(
       WaitForText(kLogPath, "Opener PID " + pid + " has gone; its keep-alive pipe is closed."));
}

TEST_F(OpenerE2e, WrongArgumentCount)
{
   Child opener = Opener({"1", "2"});
   std::string output;
   EXPECT_EQ(Finish(opener, &output), 1);
   EXPECT_EQ(output, "ServiceImpl_Opener: PID " + std::to_string(opener.pid) +
                         "\nWarning: Invalid number of arguments.\n");
   EXPECT_TRUE(ProcessesRunning(kDaemonPath).empty());
}

}  // namespace
