/*
 * The set-user-ID opener run as nobody against a private root: starting and finding the daemon,
 * concurrent openers, stale sockets, misbehaving daemons, shell mode.
 */
#include <map>

#include "e2eSupport.h"

namespace e2e {
namespace {

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

TEST_F(OpenerE2e, FirstOpenerStartsTheDaemonAndTheNextFindsIt)
{
   int out = OpenOutput();
   std::vector<std::string> env = {"BASH_ENV=/tmp/x", "FN=() { :; }", "FN2=() { echo; }",
                                   "KEEP=() x",       "ENV=/tmp/y",   "SHELLOPTS=xtrace",
                                   "NOEQUALS"};
   env.insert(env.end(), kEnv.begin(), kEnv.end());
   Child first = Start(out, {.env = env});
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
   EXPECT_EQ(fds[0] + fds[1] + fds[2], "/dev/null/dev/null/dev/null");
   EXPECT_EQ(fds[listenFd].rfind("socket:", 0), 0u) << fds[listenFd];
   EXPECT_EQ(fds.count(keepAliveFd), 0u);
   for (auto &[fd, target] : fds) {
      if (fd > 2 && fd != listenFd) {
         // Besides: its log, its signal descriptor and a spare held for running out.
         EXPECT_TRUE(target == kLogPath || target == "anon_inode:[signalfd]" ||
                     target == "/dev/null")
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
   Child second = Start(out);
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
      openers.push_back(Start(out));
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

// A caller that ignores SIGCHLD must not hide the daemon's start from the opener.
TEST_F(OpenerE2e, StaleSocketIsReplacedWithSigchldIgnored)
{
   close(BindSocket(kSocketPath));  // the file stays behind with nobody listening
   int out = OpenOutput();
   std::string output;
   EXPECT_EQ(HandOver(out, {.setup = [] { signal(SIGCHLD, SIG_IGN); }}, &output), 0) << output;
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
   // While it sleeps it keeps no root in reserve.
   EXPECT_EQ(UidLine(shell.pid), "Uid:\t65534\t65534\t65534\t65534");
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
}  // namespace e2e
