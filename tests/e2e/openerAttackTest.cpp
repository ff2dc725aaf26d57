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
   for (auto [resource, soft] :
        {std::pair{RLIMIT_NOFILE, 12}, {RLIMIT_FSIZE, 1024}, {RLIMIT_CPU, 2}, {RLIMIT_CORE, 0}}) {
      struct rlimit limit;
      getrlimit(resource, &limit);
      limit.rlim_cur = soft;
      setrlimit(resource, &limit);
   }
   setpriority(PRIO_PROCESS, 0, 5);
   testsupport::WriteFile("/proc/self/oom_score_adj", "500");
}

// One hand-over straight to the daemon's socket: the verdict byte, or 0 when anything failed.
char DirectHandOver(int fd)
{
   int sock = UnixSocket(kSocketPath, true);
   char verdict = 0;
   bool ok = ServiceImplReadOne(sock, &gServiceImplMessageByte) == SERVICE_READ_BYTE &&
             ServiceImplSendFd(sock, fd) && ServiceImplReadOne(sock, &verdict) == SERVICE_READ_BYTE;
   close(sock);
   return ok ? verdict : 0;
}

TEST_F(OpenerE2e, DescriptorFloodLeavesOtherUsersServedAndTheLogBounded)
{
   ASSERT_EQ(HandOver(), 0);
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
         _exit(1);  // the parent sees no byte
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
      _exit(read(link[1], &byte, 1));  // once the parent closes its end
   }
   close(link[1]);
   char byte;
   ASSERT_EQ(read(link[0], &byte, 1), 1);
   // Another user is still served while the flooder lives, and so is root.
   EXPECT_EQ(HandOver({.uid = kVictim}), 0);
   EXPECT_EQ(DirectHandOver(out_), '1');
   close(link[0]);
   waitpid(flooder, nullptr, 0);
   EXPECT_EQ(ProcessesRunning(kDaemonPath).size(), 1u);
   // Its log was rotated at the cap (neither file holds more than the cap and the line that
   // passed it), similar lines suppressed.
   std::string log = ReadFile(kLogPath), rotated = ReadFile(kLogPath + ".1");
   EXPECT_TRUE(log.size() <= E2E_LOG_CAP + 512u && rotated.size() <= E2E_LOG_CAP + 512u);
   EXPECT_THAT(rotated + log, HasSubstr("similar lines suppressed"));
   EXPECT_FALSE(rotated.empty());
}

TEST_F(OpenerE2e, DaemonIsRootFromItsFirstInstantWithSaneLimits)
{
   // A stand-in records the state the daemon is executed with, then becomes the daemon.
   std::string report = bundle_ + "/report";
   fs::rename(kDaemonPath, kDaemonPath + ".real");
   testsupport::WriteFile(kDaemonPath,
                          "#!/bin/sh\n{ cat /proc/self/status /proc/self/limits; "
                          "echo oom $(cat /proc/self/oom_score_adj); "
                          "echo nice $(cut -d' ' -f19 /proc/self/stat); } > '" +
                              report + "'\nexec '" + kDaemonPath + ".real' \"$@\"\n");
   chmod(kDaemonPath.c_str(), 0755);
   EXPECT_EQ(HandOver({.setup = HostileSetup}), 0);
   for (const char *line : {"\nUid:\t0\t0\t0\t0\n", "\noom 0\n", "\nnice 0\n",
                            "Max cpu time              unlimited            unlimited",
                            "Max file size             unlimited            unlimited",
                            "Max open files            1024"}) {
      EXPECT_THAT(ReadFile(report), HasSubstr(line));
   }
   std::vector<pid_t> daemons = ProcessesRunning(kDaemonPath + ".real");
   ASSERT_EQ(daemons.size(), 1u);
   EXPECT_EQ(RunAs(kNobody, [&] { return kill(daemons[0], SIGSTOP) == -1 && errno == EPERM; }), 1);
}

TEST_F(OpenerE2e, StoppedLockHolderOrSilentDaemonDoesNotHangOtherUsers)
{
   // A listener whose queue is full makes the holder's connect wait inside the lock.
   // (The queued sockets stay open until the test ends.)
   ASSERT_EQ(listen(UnixSocket(kSocketPath), 0), 0);
   while (UnixSocket(kSocketPath, true, SOCK_NONBLOCK) != -1) {
   }
   Child holder = Opener();
   std::string proc = "/proc/" + std::to_string(holder.pid);
   std::string field = " " + std::to_string(holder.pid) + " ";  // in /proc/locks
   ASSERT_TRUE(WaitFor([&] { return ReadFile("/proc/locks").find(field) != std::string::npos; }));
   // Its caller cannot stop it while it holds the lock, nor from its terminal (those stop
   // signals need no permission) ...
   EXPECT_EQ(RunAs(kNobody, [&] { return kill(holder.pid, SIGSTOP) == -1 && errno == EPERM; }), 1);
   kill(holder.pid, SIGTSTP);
   std::this_thread::sleep_for(std::chrono::milliseconds(50));
   EXPECT_THAT(ReadFile(proc + "/status"), testing::Not(HasSubstr("State:\tT")));
   // ... and when it is stopped all the same, the others give up after the bound; so they do
   // with a daemon that never greets or never answers.
   kill(holder.pid, SIGSTOP);
   std::string output;
   const std::string bound = " ms waiting for the ";
   auto start = Clock::now();
   EXPECT_EQ(HandOver({.uid = kVictim}, &output, 8000), 1);
   EXPECT_LT(MsSince(start), kBoundMs + 3000);
   EXPECT_THAT(output,
               HasSubstr("Timed out after " + std::to_string(kBoundMs) + bound + "lock.\n"));
   kill(holder.pid, SIGCONT);
   EXPECT_EQ(Finish(holder, &output, 8000), 1);
   EXPECT_THAT(output, HasSubstr(bound + "daemon to accept.\n"));
   for (auto [script, what] : {std::pair{"n", "greeting.\n"}, {"v", "verdict.\n"}}) {
      start = Clock::now();
      EXPECT_EQ(HandOverToStandIn(script, &output), 1);
      EXPECT_LT(MsSince(start), kBoundMs + 3000);
      EXPECT_THAT(output, HasSubstr(bound + what));
   }
}

TEST_F(OpenerE2e, RunDirectoryWritableByOthersIsRefused)
{
   ASSERT_EQ(chmod(kRunDir.c_str(), 0777), 0);
   std::string target = bundle_ + "/target";
   testsupport::WriteFile(target, "root's file\n");  // 0644 under the fixture's mask

   // A FIFO planted at the lock path must not hang root in open.
   ASSERT_EQ(RunAs(kNobody, [] { return mkfifo(kLockPath.c_str(), 0666); }), 0);
   std::string output;
   EXPECT_EQ(HandOver({}, &output, 8000), 1);
   EXPECT_THAT(output, HasSubstr("The run directory " + kRunDir +
                                 " is not owned by root or is writable by others; refusing to use "
                                 "it.\n"));
   unlink(kLockPath.c_str());

   // A link planted at the socket path must not lead root to the user's own listener.
   std::string evil = bundle_ + "/evil.sock";
   int listener = UnixSocket(evil);
   ASSERT_EQ(chown(evil.c_str(), kNobody, kNobody) | listen(listener, 4), 0);
   ASSERT_EQ(symlink(evil.c_str(), kSocketPath.c_str()), 0);
   EXPECT_EQ(HandOver({}, nullptr, 8000), 1);
   struct pollfd knock = {listener, POLLIN, 0};
   EXPECT_EQ(poll(&knock, 1, 0), 0) << "root connected to the planted socket";
   close(listener);
   unlink(kSocketPath.c_str());

   // Swapping a link to root's file in after the bind must not change that file's mode.
   std::atomic<bool> stop = false;
   std::thread openers([&] {
      while (!stop) {
         HandOver({}, nullptr, 8000);
      }
   });
   RunAs(kNobody, [&] {
      for (auto start = Clock::now(); MsSince(start) < 1500;) {
         (void)!symlink(target.c_str(), (kRunDir + "/link").c_str());
         (void)!rename((kRunDir + "/link").c_str(), kSocketPath.c_str());
      }
      return 0;
   });
   stop = true;
   openers.join();
   EXPECT_TRUE(OwnedByRootWithMode(target, 0644));
   EXPECT_TRUE(ProcessesRunning(kDaemonPath).empty());
}

// Local failures (an argument or path that is no text, no descriptor left for the error pipe)
// leave errno EINVAL; only the daemon's own error word replaces it.
TEST(Daemonize, LocalFailuresLeaveEinval)
{
   const char *argv[] = {"true", nullptr}, *badArgv[] = {"true", "\xC3\x28", nullptr};
   struct rlimit saved, tight;
   getrlimit(RLIMIT_NOFILE, &saved);
   tight = {(rlim_t)dup(0), saved.rlim_max};
   close((int)tight.rlim_cur);
   for (auto [path, args, limit] : {std::tuple{"/bin/tru\xFF", argv, &saved},
                                    {"/bin/true", badArgv, &saved},
                                    {"/bin/true", argv, &tight}}) {
      setrlimit(RLIMIT_NOFILE, limit);
      errno = 0;
      bool started = Hostinfo_Daemonize(path, (char *const *)args, 0, nullptr, nullptr, 0);
      int err = errno;
      setrlimit(RLIMIT_NOFILE, &saved);
      EXPECT_TRUE(!started && err == EINVAL) << path << " " << err;
   }
}

}  // namespace
}  // namespace e2e
