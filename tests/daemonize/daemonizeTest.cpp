#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <filesystem>

#include "hostinfo.h"
#include "testSupport.h"

using namespace testsupport;

// The probe's report at path, waiting up to five seconds for it.
static std::string Report(const std::string &path)
{
   for (int i = 0; i < 500 && !Exists(path); i++) {
      usleep(10000);
   }
   return ReadFile(path);
}

// Starts the probe detached, reporting to path and then sleeping for seconds; its report, or
// "failed" when it could not start.
static std::string Start(const std::string &path, unsigned flags, const char *pidPath = nullptr,
                         const int *keep = nullptr, size_t numKeep = 0, const char *seconds = 0)
{
   const char *argv[] = {"daemonProbe", path.c_str(), seconds, nullptr};
   bool started =
       Hostinfo_Daemonize(DAEMON_PROBE, (char *const *)argv, flags, pidPath, keep, numKeep);
   return started ? Report(path) : "failed";
}

TEST(Daemonize, DetachedDaemonKeepsOnlyWhatItIsTold)
{
   ScratchDir dir;
   std::string pidPath = dir / "daemon.pid";
   int kept = open((dir / "kept").c_str(), O_WRONLY | O_CREAT, 0600);
   int stray = open((dir / "stray").c_str(), O_WRONLY | O_CREAT, 0600);
   int keep[] = {fcntl(kept, F_DUPFD, 200), kept};  // kept descriptors need not be contiguous
   ASSERT_TRUE(stray >= 3 && keep[0] == 200);
   LogCapture log;
   std::string report = Start(dir / "report", HOSTINFO_DAEMONIZE_DEFAULT, pidPath.c_str(), keep, 2);
   EXPECT_EQ(log.Text(), "");
   size_t sid = report.rfind("sid ");
   EXPECT_EQ(report.substr(0, sid), "pid " + ReadFile(pidPath) + "cwd /\nfd 0 /dev/null\nfd 1 " +
                                        "/dev/null\nfd 2 /dev/null\nfd " + std::to_string(kept) +
                                        " " + dir / "kept" + "\nfd 200 " + dir / "kept" + "\n");
   EXPECT_NE(report.substr(sid), "sid " + std::to_string(getsid(0)) + "\n");  // its own session
   // With the keep flags, the directory, session and streams stay.
   report = Start(dir / "report2", HOSTINFO_DAEMONIZE_NOCHDIR | HOSTINFO_DAEMONIZE_NOCLOSE);
   for (std::string line :
        {"cwd " + std::filesystem::current_path().string(), "sid " + std::to_string(getsid(0)),
         "fd 1 " + std::filesystem::read_symlink("/proc/self/fd/1").string()}) {
      EXPECT_NE(report.find("\n" + line + "\n"), std::string::npos) << report;
   }
   for (int fd : {kept, stray, 200}) {
      close(fd);
   }
}

TEST(Daemonize, LockedPidFileRefusesASecondDaemon)
{
   ScratchDir dir;
   std::string pidPath = dir / "daemon.pid";
   std::string report =
       Start(dir / "first", HOSTINFO_DAEMONIZE_LOCKPID, pidPath.c_str(), 0, 0, "30");
   std::string pid = ReadFile(pidPath);
   pid_t daemon = atoi(pid.c_str());
   ASSERT_GT(daemon, 0);  // kill(0) would hit this whole process group
   // The daemon holds the PID file open, so the lock lives as long as it does.
   EXPECT_NE(report.find(" " + pidPath + "\n"), std::string::npos) << report;
   LogCapture log;
   errno = 0;
   EXPECT_EQ(Start(dir / "second", HOSTINFO_DAEMONIZE_LOCKPID, pidPath.c_str()), "failed");
   EXPECT_EQ(errno, EWOULDBLOCK);
   EXPECT_EQ(log.Text(), "Warning: Hostinfo_Daemonize: Lock held on PID path [" + pidPath +
                             "], error " + std::to_string(EWOULDBLOCK) + ", not daemonizing.\n");
   EXPECT_EQ(ReadFile(pidPath), pid);
   kill(daemon, SIGKILL);
}

TEST(Daemonize, FailuresAreReportedToTheCallerAndExitEndsIt)
{
   ScratchDir dir;
   std::string pid = dir / "daemon.pid";
   const char *argv[] = {"missing", nullptr}, *badArgv[] = {"probe", "\xC3\x28", nullptr};
   LogCapture log;
   errno = 0;
   EXPECT_FALSE(
       Hostinfo_Daemonize("/nonexistent/missing", (char *const *)argv, 0, pid.c_str(), nullptr, 0));
   EXPECT_EQ(errno, ENOENT);
   EXPECT_FALSE(Exists(pid));  // a failed start removes the PID file
   EXPECT_FALSE(Hostinfo_Daemonize(DAEMON_PROBE, (char *const *)badArgv, 0, nullptr, nullptr, 0));
   EXPECT_EQ(log.Text(),
             "Warning: Hostinfo_Daemonize: Child could not exec /nonexistent/missing, read 4, "
             "error 2.\nWarning: Hostinfo_Daemonize: Couldn't convert arguments to default "
             "encoding.\n");
   log.Clear();
   EXPECT_EQ(Take(Hostinfo_GetModulePath(1)),
             std::filesystem::read_symlink("/proc/self/exe").string());
   EXPECT_EQ(Hostinfo_GetModulePath(2), nullptr);
   EXPECT_EQ(log.Text(), "Warning: Hostinfo_GetModulePath: invalid privilege parameter\n");
   EXPECT_EXIT(Start(dir / "report", HOSTINFO_DAEMONIZE_EXIT), ::testing::ExitedWithCode(0), "");
   EXPECT_NE(Report(dir / "report"), "");
}
