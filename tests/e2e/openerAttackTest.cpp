/*
 * A hostile local user against the opener and the daemon: floods, signals, resource limits,
 * a stopped lock holder, a writable run directory, a log driven to grow.
 * The opener runs as nobody (the attacker) and as kVictim.
 */
#include <sys/fsuid.h>

#include <atomic>

#include "e2eSupport.h"
#include "hostinfo.h"

namespace e2e {
namespace {

constexpr int kBoundMs = E2E_BOUND_MS;  // the e2e opener's bound on each wait of a hand-over

// The caller's soft limits, niceness and OOM adjustment, all of which the daemon must shed.
void HostileSetup()
{
   const std::pair<int, rlim_t> limits[] = {
       {RLIMIT_NOFILE, 12}, {RLIMIT_FSIZE, 1024}, {RLIMIT_CPU, 2}, {RLIMIT_CORE, 0}};
   for (auto [resource, soft] : limits) {
      struct rlimit limit;
      getrlimit(resource, &limit);
      limit.rlim_cur = soft;
      setrlimit(resource, &limit);
   }
   setpriority(PRIO_PROCESS, 0, 5);
   int fd = open("/proc/self/oom_score_adj", O_WRONLY);
   (void)!write(fd, "500", 3);
   close(fd);
}

TEST_F(OpenerE2e, DescriptorFloodLeavesOtherUsersServed)
{
   int out = OpenOutput();
   ASSERT_EQ(HandOver(out), 0);

   // The flooder connects as root would through the opener (file-system uid 0), with nobody as
   // its effective uid, and keeps the write ends of its anonymous pipes open until released.
   int link[2];
   ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, link), 0);
   std::string fifo = bundle_ + "/fifo";
   pid_t flooder = fork();
   if (flooder == 0) {
      close(link[0]);
      struct rlimit files = {4096, 4096};
      setrlimit(RLIMIT_NOFILE, &files);
      if (setresuid(0, kNobody, 0) != 0 || setfsuid(0) == -1) {
         _exit(1);
      }
      for (int i = 0, ok = 1; i < 1100 && ok; i++) {
         mkfifo(fifo.c_str(), 0600);
         int fd = open(fifo.c_str(), O_RDONLY | O_NONBLOCK);
         unlink(fifo.c_str());
         ok = DirectHandOver(fd) != 0;
         close(fd);
      }
      int p[2];
      for (int i = 0; i < 300 && pipe(p) == 0 && DirectHandOver(p[0]) != 0; i++) {
         close(p[0]);  // p[1] stays open: the daemon would watch it for ever
      }
      char byte = 0;
      (void)!write(link[1], &byte, 1);
      (void)!read(link[1], &byte, 1);
      _exit(0);
   }
   close(link[1]);
   char byte;
   ASSERT_EQ(read(link[0], &byte, 1), 1);

   // Another user is still served while the flooder lives, and so is root.
   EXPECT_EQ(HandOver(out, {.uid = kVictim}), 0);
   EXPECT_EQ(DirectHandOver(out), '1');
   close(link[0]);
   waitpid(flooder, nullptr, 0);
   EXPECT_EQ(ProcessesRunning(kDaemonPath).size(), 1u);
   close(out);
}

TEST_F(OpenerE2e, DaemonIsRootFromItsFirstInstantWithSaneLimits)
{
   // A stand-in records the state the daemon is executed with, then becomes the daemon.
   std::string report = bundle_ + "/report";
   fs::rename(kDaemonPath, kDaemonPath + ".real");
   std::ofstream(kDaemonPath) << "#!/bin/sh\n{ cat /proc/self/status /proc/self/limits; "
                                 "echo oom $(cat /proc/self/oom_score_adj); "
                                 "echo nice $(cut -d' ' -f19 /proc/self/stat); } > '"
                              << report << "'\nexec '" << kDaemonPath << ".real' \"$@\"\n";
   chmod(kDaemonPath.c_str(), 0755);

   int out = OpenOutput();
   EXPECT_EQ(HandOver(out, {.setup = HostileSetup}), 0);
   std::string state = ReadFile(report);
   EXPECT_NE(state.find("\nUid:\t0\t0\t0\t0\n"), std::string::npos) << state;
   for (const char *line : {"Max cpu time              unlimited            unlimited",
                            "Max file size             unlimited            unlimited",
                            "Max open files            1024", "\noom 0\n", "\nnice 0\n"}) {
      EXPECT_NE(state.find(line), std::string::npos) << line << "\n" << state;
   }

   std::vector<pid_t> daemons = ProcessesRunning(kDaemonPath + ".real");
   ASSERT_EQ(daemons.size(), 1u);
   pid_t daemon = daemons[0];
   EXPECT_EQ(UidLine(daemon), "Uid:\t0\t0\t0\t0");
   EXPECT_EQ(RunAs(kNobody, [&] { return kill(daemon, SIGSTOP) == -1 && errno == EPERM; }), 1);
   EXPECT_EQ(HandOver(out, {.uid = kVictim}), 0);
   close(out);
}

TEST_F(OpenerE2e, StoppedLockHolderDoesNotHangOtherUsers)
{
   // A listener whose queue is full makes the holder's connect wait inside the lock.
   int listener = BindSocket(kSocketPath);
   ASSERT_EQ(listen(listener, 0), 0);
   std::vector<int> queued;
   struct sockaddr_un addr = UnixAddress(kSocketPath);
   for (;;) {
      int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
      queued.push_back(fd);
      if (connect(fd, (struct sockaddr *)&addr, sizeof addr) != 0) {
         break;
      }
   }

   int out = OpenOutput();
   Child holder = Start(out);
   std::string pid = " " + std::to_string(holder.pid) + " ";  // a whole field of /proc/locks
   ASSERT_TRUE(WaitFor([&] { return ReadFile("/proc/locks").find(pid) != std::string::npos; }));
   // Its caller cannot stop it while it holds the lock ...
   std::string uids = UidLine(holder.pid);
   EXPECT_EQ(uids.substr(0, 6), "Uid:\t0") << uids;
   EXPECT_EQ(RunAs(kNobody, [&] { return kill(holder.pid, SIGSTOP) == -1 && errno == EPERM; }), 1);
   // nor from its terminal (those stop signals need no permission) ...
   kill(holder.pid, SIGTSTP);
   std::this_thread::sleep_for(std::chrono::milliseconds(50));
   EXPECT_EQ(ReadFile("/proc/" + std::to_string(holder.pid) + "/status").find("State:\tT"),
             std::string::npos);
   // ... and when it is stopped all the same, the others give up after the bound.
   kill(holder.pid, SIGSTOP);
   auto start = std::chrono::steady_clock::now();
   std::string output;
   EXPECT_EQ(HandOver(out, {.uid = kVictim}, &output, 8000), 1);
   EXPECT_LT(MsSince(start), kBoundMs + 3000);
   EXPECT_NE(
       output.find("Timed out after " + std::to_string(kBoundMs) + " ms waiting for the lock.\n"),
       std::string::npos)
       << output;
   kill(holder.pid, SIGCONT);
   EXPECT_EQ(Finish(holder, &output, 8000), 1);
   EXPECT_NE(output.find("waiting for the daemon to accept.\n"), std::string::npos) << output;
   for (int fd : queued) {
      close(fd);
   }
   close(listener);

   // A daemon that never greets or never answers is given up on the same way.
   for (auto [script, what] : {std::pair{"n", "greeting"}, std::pair{"v", "verdict"}}) {
      int served;
      start = std::chrono::steady_clock::now();
      EXPECT_EQ(HandOverToStandIn(script, out, &served, &output), 1);
      EXPECT_LT(MsSince(start), kBoundMs + 3000);
      EXPECT_NE(output.find(std::string("ms waiting for the ") + what + ".\n"), std::string::npos)
          << output;
   }
   close(out);
}

TEST_F(OpenerE2e, RunDirectoryWritableByOthersIsRefused)
{
   ASSERT_EQ(chmod(kRunDir.c_str(), 0777), 0);
   std::string target = bundle_ + "/target";
   std::ofstream(target) << "root's file\n";
   chmod(target.c_str(), 0644);
   std::string refusal = "The run directory " + kRunDir +
                         " is not owned by root or is writable by others; refusing to use it.\n";
   int out = OpenOutput();

   // A FIFO planted at the lock path must not hang root in open.
   ASSERT_EQ(RunAs(kNobody, [] { return mkfifo(kLockPath.c_str(), 0666); }), 0);
   std::string output;
   EXPECT_EQ(HandOver(out, {}, &output, 8000), 1);
   EXPECT_NE(output.find(refusal), std::string::npos) << output;
   unlink(kLockPath.c_str());

   // A link planted at the socket path must not lead root to the user's own listener.
   std::string evil = bundle_ + "/evil.sock";
   int listener = BindSocket(evil);
   ASSERT_EQ(chown(evil.c_str(), kNobody, kNobody), 0);
   ASSERT_EQ(listen(listener, 4), 0);
   ASSERT_EQ(symlink(evil.c_str(), kSocketPath.c_str()), 0);
   EXPECT_EQ(HandOver(out, {}, nullptr, 8000), 1);
   struct pollfd knock = {listener, POLLIN, 0};
   EXPECT_EQ(poll(&knock, 1, 0), 0) << "root connected to the planted socket";
   close(listener);
   unlink(kSocketPath.c_str());

   // Swapping a link to root's file in after the bind must not change that file's mode.
   std::atomic<bool> stop = false;
   std::thread swapper([&] {
      RunAs(kNobody, [&] {
         std::string link = kRunDir + "/link";
         for (auto start = std::chrono::steady_clock::now(); MsSince(start) < 1500;) {
            (void)!symlink(target.c_str(), link.c_str());
            (void)!rename(link.c_str(), kSocketPath.c_str());
         }
         return 0;
      });
      stop = true;
   });
   while (!stop) {
      HandOver(out, {}, nullptr, 8000);
   }
   swapper.join();
   struct stat st;
   ASSERT_EQ(stat(target.c_str(), &st), 0);
   EXPECT_EQ(st.st_mode & 07777, 0644u);
   EXPECT_TRUE(ProcessesRunning(kDaemonPath).empty());
   close(out);
}

TEST_F(OpenerE2e, DaemonLogStaysBounded)
{
   int out = open("/dev/null", O_WRONLY | O_CLOEXEC);
   ASSERT_EQ(HandOver(out), 0);
   for (int i = 0; i < 3000; i++) {
      ASSERT_EQ(DirectHandOver(out), '1') << i;
   }
   std::string log = ReadFile(kLogPath);
   std::string rotated = ReadFile(kLogPath + ".1");
   // Rotated at the cap: neither file holds more than the cap and the line that passed it.
   EXPECT_LE(log.size(), E2E_LOG_CAP + 512u);
   EXPECT_LE(rotated.size(), E2E_LOG_CAP + 512u);
   EXPECT_FALSE(rotated.empty());
   EXPECT_NE((rotated + log).find("similar lines suppressed"), std::string::npos) << log;
   close(out);
}

// Local failures leave errno EINVAL; only the daemon's own error word replaces it.
TEST(Daemonize, LocalFailuresLeaveEinval)
{
   const char *argv[] = {"true", nullptr};
   const char *badArgv[] = {"true", "\xC3\x28", nullptr};
   for (auto [path, args] : {std::pair{"/bin/tru\xFF", argv}, std::pair{"/bin/true", badArgv}}) {
      errno = 0;
      EXPECT_FALSE(Hostinfo_Daemonize(path, (char *const *)args, 0, nullptr, nullptr, 0)) << path;
      EXPECT_EQ(errno, EINVAL) << path;
   }

   // No descriptor left for the error pipe.
   struct rlimit saved;
   getrlimit(RLIMIT_NOFILE, &saved);
   int lowest = dup(0);
   close(lowest);
   struct rlimit tight = {(rlim_t)lowest, saved.rlim_max};
   ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &tight), 0);
   errno = 0;
   bool started = Hostinfo_Daemonize("/bin/true", (char *const *)argv, 0, nullptr, nullptr, 0);
   int err = errno;
   setrlimit(RLIMIT_NOFILE, &saved);
   EXPECT_FALSE(started);
   EXPECT_EQ(err, EINVAL);
}

}  // namespace
}  // namespace e2e
