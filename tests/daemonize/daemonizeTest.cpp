#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <thread>

#include "hostinfo.h"
#include "testSupport.h"

using testsupport::LogCapture;
using testsupport::ScratchDir;

namespace {

struct Report {
   std::map<std::string, std::string> values;  // pid, sid, cwd
   std::map<int, std::string> fds;
};

std::string ReadFile(const std::string &path)
{
   std::ifstream in(path);
   std::stringstream text;
   text << in.rdbuf();
   return text.str();
}

// Waits up to five seconds for the probe's report.
bool WaitForReport(const std::string &path, Report *report)
{
   for (int i = 0; i < 500 && access(path.c_str(), F_OK) != 0; i++) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
   }
   std::istringstream lines(ReadFile(path));
   std::string line;
   bool any = false;
   while (std::getline(lines, line)) {
      any = true;
      size_t space = line.find(' ');
      std::string key = line.substr(0, space);
      std::string rest = line.substr(space + 1);
      if (key == "fd") {
         size_t second = rest.find(' ');
         report->fds[std::stoi(rest.substr(0, second))] = rest.substr(second + 1);
      } else {
         report->values[key] = rest;
      }
   }
   return any;
}

bool Start(const std::string &reportPath, const char *seconds, unsigned flags, const char *pidPath,
           const int *keep, size_t numKeep)
{
   const char *argv[] = {"daemonProbe", reportPath.c_str(), seconds, nullptr};
   return Hostinfo_Daemonize(DAEMON_PROBE, (char *const *)argv, flags, pidPath, keep, numKeep);
}

}  // namespace

TEST(Daemonize, DetachedDaemonKeepsOnlyChosenDescriptors)
{
   ScratchDir scratch;
   std::string reportPath = scratch / "report";
   std::string pidPath = scratch / "daemon.pid";
   int kept = open((scratch / "kept").c_str(), O_WRONLY | O_CREAT, 0600);
   int stray = open((scratch / "stray").c_str(), O_WRONLY | O_CREAT, 0600);
   int high = fcntl(kept, F_DUPFD, 200);  // kept descriptors need not be contiguous
   ASSERT_GE(kept, 3);
   ASSERT_GE(stray, 3);
   ASSERT_EQ(high, 200);
   int keep[] = {high, kept};

   LogCapture log;
   ASSERT_TRUE(Start(reportPath, nullptr, HOSTINFO_DAEMONIZE_DEFAULT, pidPath.c_str(), keep, 2));
   EXPECT_EQ(log.Text(), "");
   Report report;
   ASSERT_TRUE(WaitForReport(reportPath, &report));

   EXPECT_EQ(report.values["cwd"], "/");
   EXPECT_NE(report.values["sid"], std::to_string(getsid(0)));
   EXPECT_EQ(ReadFile(pidPath), report.values["pid"] + "\n");
   std::map<int, std::string> expected = {
       {0, "/dev/null"},         {1, "/dev/null"},        {2, "/dev/null"},
       {kept, scratch / "kept"}, {200, scratch / "kept"},
   };
   EXPECT_EQ(report.fds, expected);
   close(kept);
   close(stray);
   close(high);
}

TEST(Daemonize, KeepFlagsLeaveDirectorySessionAndStreams)
{
   ScratchDir scratch;
   std::string reportPath = scratch / "report";
   char cwd[4096];
   ASSERT_NE(getcwd(cwd, sizeof cwd), nullptr);
   char stdoutTarget[4096] = {};
   ASSERT_GT(readlink("/proc/self/fd/1", stdoutTarget, sizeof stdoutTarget - 1), 0);

   ASSERT_TRUE(Start(reportPath, nullptr, HOSTINFO_DAEMONIZE_NOCHDIR | HOSTINFO_DAEMONIZE_NOCLOSE,
                     nullptr, nullptr, 0));
   Report report;
   ASSERT_TRUE(WaitForReport(reportPath, &report));
   EXPECT_EQ(report.values["cwd"], cwd);
   EXPECT_EQ(report.values["sid"], std::to_string(getsid(0)));
   EXPECT_EQ(report.fds[1], stdoutTarget);
}

TEST(Daemonize, LockedPidFileRefusesASecondDaemon)
{
   ScratchDir scratch;
   std::string pidPath = scratch / "daemon.pid";
   ASSERT_TRUE(
       Start(scratch / "first", "30", HOSTINFO_DAEMONIZE_LOCKPID, pidPath.c_str(), nullptr, 0));
   Report report;
   ASSERT_TRUE(WaitForReport(scratch / "first", &report));
   pid_t daemon = std::stoi(report.values["pid"]);
   // The daemon holds the PID file open, so the lock lives as long as it does.
   bool holdsPidFile = false;
   for (auto &[fd, target] : report.fds) {
      holdsPidFile |= fd > 2 && target == pidPath;
   }
   EXPECT_TRUE(holdsPidFile);

   {
      LogCapture log;
      errno = 0;
      EXPECT_FALSE(Start(scratch / "second", nullptr, HOSTINFO_DAEMONIZE_LOCKPID, pidPath.c_str(),
                         nullptr, 0));
      EXPECT_EQ(errno, EWOULDBLOCK);
      EXPECT_EQ(log.Text(), "Warning: Hostinfo_Daemonize: Lock held on PID path [" + pidPath +
                                "], error " + std::to_string(EWOULDBLOCK) + ", not daemonizing.\n");
   }
   EXPECT_EQ(ReadFile(pidPath), std::to_string(daemon) + "\n");
   EXPECT_NE(access((scratch / "second").c_str(), F_OK), 0);
   kill(daemon, SIGKILL);
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
             "Warning: Hostinfo_Daemonize: Couldn't convert arguments to default "
             "encoding.\n");
}

TEST(Daemonize, ExitFlagEndsTheCaller)
{
   ScratchDir scratch;
   std::string reportPath = scratch / "report";
   EXPECT_EXIT(Start(reportPath, nullptr, HOSTINFO_DAEMONIZE_EXIT, nullptr, nullptr, 0),
               ::testing::ExitedWithCode(0), "");
   Report report;
   EXPECT_TRUE(WaitForReport(reportPath, &report));
}

TEST(Daemonize, ModulePath)
{
   char *path = Hostinfo_GetModulePath(1);
   ASSERT_NE(path, nullptr);
   char real[4096] = {};
   ASSERT_GT(readlink("/proc/self/exe", real, sizeof real - 1), 0);
   EXPECT_STREQ(path, real);
   free(path);

   LogCapture log;
   EXPECT_EQ(Hostinfo_GetModulePath(2), nullptr);
   EXPECT_EQ(log.Text(), "Warning: Hostinfo_GetModulePath: invalid privilege parameter\n");
}
