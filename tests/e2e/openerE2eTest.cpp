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

// Openers started at once, shell code in their environment, start exactly one daemon: root, with
// nothing of its callers but the harmless environment entries, serving them all.
TEST_F(OpenerE2e, ConcurrentOpenersStartOneRootDaemonWithNothingOfTheCallers)
{
   RunOptions options;
   options.env.insert(options.env.end(),
                      {"BASH_ENV=/tmp/x", "FN=() { :; }", "FN2=() { echo; }", "KEEP=() x",
                       "ENV=/tmp/y", "SHELLOPTS=xtrace", "NOEQUALS"});
   std::vector<Child> openers;
   for (int i = 0; i < 64; i++) {
      openers.push_back(Opener(options));
   }
   for (Child &opener : openers) {
      std::string output;
      EXPECT_EQ(Finish(opener, &output), 0);
      EXPECT_EQ(output, "ServiceImpl_Opener: PID " + std::to_string(opener.pid) + "\n");
   }
   std::vector<pid_t> daemons = ProcessesRunning(kDaemonPath);
   ASSERT_EQ(daemons.size(), 1u);
   pid_t daemon = daemons[0];
   std::string proc = "/proc/" + std::to_string(daemon);
   std::vector<std::string> kept = kEnv;
   kept.insert(kept.end(), {"KEEP=() x", "NOEQUALS"});
   EXPECT_THAT(ProcStrings(daemon, "environ"), testing::UnorderedElementsAreArray(kept));

   // Arguments: its path, the listening socket, the keep-alive pipe's read end.
   std::vector<std::string> args = ProcStrings(daemon, "cmdline");
   ASSERT_EQ(args.size(), 3u);
   EXPECT_EQ(args[0], kDaemonPath);
   EXPECT_THAT(ReadFile(proc + "/status"), HasSubstr("\nUmask:\t0022\n"));
   EXPECT_EQ(fs::read_symlink(proc + "/cwd", gIgnored), "/");

   // Standard streams on /dev/null; of the opener's descriptors only the listener (and the
   // keep-alive pipe until the opener finished) reached the daemon, not the handed-over one.
   // Besides: its log, its signal descriptor and a spare held for running out.
   ASSERT_TRUE(WaitFor([&] {  // in the log or, rotated, in the previous one
      return (ReadFile(kLogPath + ".1") + ReadFile(kLogPath))
                 .find("starting opener has finished") != std::string::npos;
   }));
   std::map<int, std::string> fds;
   for (const fs::directory_entry &entry : fs::directory_iterator(proc + "/fd")) {
      fds[atoi(entry.path().filename().c_str())] = fs::read_symlink(entry.path(), gIgnored);
   }
   EXPECT_EQ(fds[0] + fds[1] + fds[2], "/dev/null/dev/null/dev/null");
   EXPECT_THAT(fds[std::stoi(args[1])], testing::StartsWith("socket:"));
   for (auto &[fd, target] : fds) {
      EXPECT_THAT(target, testing::AnyOf(testing::StartsWith("socket:"), kLogPath,
                                         "anon_inode:[signalfd]", "/dev/null"))
          << fd;
   }
   for (const std::string &path : {kSocketPath, kLockPath}) {
      struct stat st;
      EXPECT_TRUE(lstat(path.c_str(), &st) == 0 && (st.st_mode & 07777) == 0600 && st.st_uid == 0)
          << path;
   }
   std::string lines = ReadFile(bundle_ + "/out");
   EXPECT_EQ(std::count(lines.begin(), lines.end(), '\n'), 64);
   for (Child &opener : openers) {
      EXPECT_THAT(lines, HasSubstr("BRIX Services (PID " + std::to_string(daemon) +
                                   ") received this file from opener PID " +
                                   std::to_string(opener.pid) + ".\n"));
   }
}

// A stale socket file is replaced; a caller that ignores SIGCHLD must not hide the daemon's start
// from the opener. A daemon dropping the connection before its greeting is tried again; one that
// closes after it or refuses the descriptor fails the hand-over.
TEST_F(OpenerE2e, StaleSocketsAndMisbehavingDaemons)
{
   EXPECT_EQ(HandOverToStandIn("cc1"), 0);
   EXPECT_EQ(HandOverToStandIn("g"), 1);
   EXPECT_EQ(HandOverToStandIn("0"), 1);
   EXPECT_TRUE(ProcessesRunning(kDaemonPath).empty());

   // The stand-in's socket file stays behind with nobody listening.
   EXPECT_EQ(HandOver({.setup = [] { signal(SIGCHLD, SIG_IGN); }}), 0);
   EXPECT_EQ(ProcessesRunning(kDaemonPath).size(), 1u);
}

// Without arguments the opener starts in shell mode and is watched until it dies; with two it
// is refused.
TEST_F(OpenerE2e, ArgumentCountSelectsTheMode)
{
   Child opener = Opener({}, {"1", "2"});
   std::string output;
   EXPECT_EQ(Finish(opener, &output), 1);
   EXPECT_EQ(output, "ServiceImpl_Opener: PID " + std::to_string(opener.pid) +
                         "\nWarning: Invalid number of arguments.\n");
   EXPECT_TRUE(ProcessesRunning(kDaemonPath).empty());

   Child shell = Opener({}, {});
   std::string pid = std::to_string(shell.pid);
   auto logged = [&](const std::string &text) {
      return WaitFor([&] { return ReadFile(kLogPath).find(text) != std::string::npos; });
   };
   ASSERT_TRUE(logged("Watching the keep-alive pipe of opener PID " + pid + "."));
   std::this_thread::sleep_for(std::chrono::milliseconds(100));
   EXPECT_EQ(waitpid(shell.pid, nullptr, WNOHANG), 0) << "the shell-mode opener must stay";
   // While it sleeps it keeps no root in reserve.
   EXPECT_THAT(ReadFile("/proc/" + pid + "/status"),
               HasSubstr("\nUid:\t65534\t65534\t65534\t65534\n"));
   EXPECT_THAT(ReadFile(kLogPath), testing::Not(HasSubstr("Opener PID " + pid + " has gone")));
   kill(shell.pid, SIGKILL);
   EXPECT_EQ(Finish(shell), -1);
   EXPECT_TRUE(logged("Opener PID " + pid + " has gone; its keep-alive pipe is closed."));
}

}  // namespace
}  // namespace e2e
