#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>

#include "hostinfo.h"
#include "testSupport.h"

using testsupport::LogCapture;
using testsupport::ReadFile;
using testsupport::ScratchDir;

// Starts the probe detached; it writes its report to reportPath, then sleeps for seconds.
static bool Start(const std::string &reportPath, const char *seconds, unsigned flags,
                  const char *pidPath = nullptr, const int *keep = nullptr, size_t numKeep = 0)
{
   const char *argv[] = {"daemonProbe", reportPath.c_str(), seconds, nullptr};
   return Hostinfo_Daemonize(DAEMON_PROBE, (char *const *)argv, flags, pidPath, keep, numKeep);
}

// The probe's report, waiting up to five seconds for it.
static std::string Report(const std::string &path)
{
   for (int i = 0; i < 500 && access(path.c_str(), F_OK) != 0; i++) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
   }
   return ReadFile(path);
}

TEST(Daemonize, DetachedDaemonKeepsOnlyChosenDescriptors)
{
   ScratchDir scratch;
   std::string pidPath = scratch / "daemon.pid";
   int kept = open((scratch / "kept").c_str(), O_WRONLY | O_CREAT, 0600);
   int stray = open((scratch / "stray").c_str(), O_WRONLY | O_CREAT, 0600);
   int high = fcntl(kept, F_DUPFD, 200);  // kept descriptors need not be contiguous
   ASSERT_GE(stray, 3);
   ASSERT_EQ(high, 200);
   int keep[] = {high, kept};

   LogCapture log;
   ASSERT_TRUE(
       Start(scratch / "report", nullptr, HOSTINFO_DAEMONIZE_DEFAULT, pidPath.c_str(), keep, 2));
   EXPECT_EQ(log.Text(), "");
   std::string report = Report(scratch / "report");
   size_t sid = report.rfind("sid ");
   ASSERT_NE(sid, std::string::npos) << report;
   EXPECT_NE(report.substr(sid), "sid " + std::to_string(getsid(0)) + "\n");
   std::string pidLine = report.substr(0, report.find('\n') + 1);
   EXPECT_EQ("pid " + ReadFile(pidPath), pidLine);
   EXPECT_EQ(report.substr(0, sid), pidLine + "cwd /\nfd 0 /dev/null\nfd 1 /dev/null\n" +
                                        "fd 2 /dev/null\nfd " + std::to_string(kept) + " " +
                                        scratch / "kept" + "\nfd 200 " + scratch / "kept" + "\n");
   close(kept);
   close(stray);
   close(high);
}

TEST(Daemonize, KeepFlagsLeaveDirectorySessionAndStreams)
{
   ScratchDir scratch;
   char cwd[4096], stdoutTarget[4096] = {};
   ASSERT_NE(getcwd(cwd, sizeof cwd), nullptr);
   ASSERT_GT(readlink("/proc/self/fd/1", stdoutTarget, sizeof stdoutTarget - 1), 0);

   ASSERT_TRUE(
       Start(scratch / "report", nullptr, HOSTINFO_DAEMONIZE_NOCHDIR | HOSTINFO_DAEMONIZE_NOCLOSE));
   std::string report = Report(scratch / "report");
   EXPECT_NE(report.find("\ncwd " + std::string(cwd) + "\n"), std::string::npos) << report;
   EXPECT_NE(report.find("\nsid " + std::to_string(getsid(0)) + "\n"), std::string::npos) << report;
   EXPECT_NE(report.find("\nfd 1 " + std::string(stdoutTarget) + "\n"), std::string::npos)
       << report;
}

TEST(Daemonize, LockedPidFileRefusesASecondDaemon)
{
   ScratchDir scratch;
   std::string pidPath = scratch / "daemon.pid";
   ASSERT_TRUE(Start(scratch / "first", "30", HOSTINFO_DAEMONIZE_LOCKPID, pidPath.c_str()));
   std::string report = Report(scratch / "first");
   std::string pid = ReadFile(pidPath);
   ASSERT_GT(atoi(pid.c_str()), 0);
   // The daemon holds the PID file open, so the lock lives as long as it does.
   EXPECT_NE(report.find(" " + pidPath + "\n"), std::string::npos) << report;

   LogCapture log;
   errno = 0;
   EXPECT_FALSE(Start(scratch / "second", nullptr, HOSTINFO_DAEMONIZE_LOCKPID, pidPath.c_str()));
   EXPECT_EQ(errno, EWOULDBLOCK);
   EXPECT_EQ(log.Text(), "Warning: Hostinfo_Daemonize: Lock held on PID path [" + pidPath +
                             "], error " + std::to_string(EWOULDBLOCK) + ", not daemonizing.\n");
   EXPECT_EQ(ReadFile(pidPath), pid);
   pid_t daemon = atoi(pid.c_str());
   if (daemon > 0) {  // kill(0) would hit this whole process group
      kill(daemon, SIGKILL);
   }
}

TEST(Daemonize, FailedExecIsReportedToTheCaller)
{
   ScratchDir scratch;
   std::string pidPath = scratch / "daemon.pid";
   const char *argv[] = {"missing", nullptr};
   LogCapture log;
   errno = 0;
   EXPECT_FALSE(Hostinfo_Daemonize("/nonexistent/missing", (char *const *)argv, 0, pidPath.c_str(),
                                   nullptr, 0));
   EXPECT_EQ(errno, ENOENT);
   EXPECT_EQ(log.Text(),
             "Warning: Hostinfo_Daemonize: Child could not exec /nonexistent/missing, "
             "read 4, error 2.\n");
   // A failed start removes the PID file.
   EXPECT_NE(access(pidPath.c_str(), F_OK), 0);

   log.Clear();
   const char *badArgv[] = {"probe", "\xC3\x28", nullptr};
   EXPECT_FALSE(Hostinfo_Daemonize(DAEMON_PROBE, (char *const *)badArgv, 0, nullptr, nullptr, 0));
   EXPECT_EQ(log.Text(),
             "Warning: Hostinfo_Daemonize: Couldn't convert arguments to default encoding.\n");
}

TEST(Daemonize, ExitFlagEndsTheCaller)
{
   ScratchDir scratch;
   EXPECT_EXIT(Start(scratch / "report", nullptr, HOSTINFO_DAEMONIZE_EXIT),
               ::testing::ExitedWithCode(0), "");
   EXPECT_NE(Report(scratch / "report"), "");
}

TEST(Daemonize, ModulePath)
{
   char real[4096] = {};
   ASSERT_GT(readlink("/proc/self/exe", real, sizeof real - 1), 0);
   EXPECT_EQ(testsupport::Take(Hostinfo_GetModulePath(1)), real);

   LogCapture log;
   EXPECT_EQ(Hostinfo_GetModulePath(2), nullptr);
   EXPECT_EQ(log.Text(), "Warning: Hostinfo_GetModulePath: invalid privilege parameter\n");
}
