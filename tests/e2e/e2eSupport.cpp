#include "e2eSupport.h"

#include <grp.h>
#include <string.h>
#include <sys/prctl.h>

namespace e2e {

bool WaitFor(const std::function<bool()> &done, int timeoutMs)
{
   for (auto start = Clock::now(); !done();
        std::this_thread::sleep_for(std::chrono::milliseconds(5))) {
      if (MsSince(start) > timeoutMs) {
         return false;
      }
   }
   return true;
}

long long MsSince(Clock::time_point start)
{
   return (Clock::now() - start) / std::chrono::milliseconds(1);
}

std::vector<pid_t> ProcessesRunning(const std::string &path)
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

void StopAll(const std::string &path)
{
   for (pid_t pid : ProcessesRunning(path)) {
      kill(pid, SIGKILL);
   }
   WaitFor([&] { return ProcessesRunning(path).empty(); }, 2000);
   while (waitpid(-1, nullptr, WNOHANG) > 0) {
   }
}

// In a child: no supplementary groups, every uid and gid set to uid.
static bool Become(uid_t uid)
{
   return setgroups(0, nullptr) == 0 && setresgid(uid, uid, uid) == 0 &&
          setresuid(uid, uid, uid) == 0;
}

int RunAs(uid_t uid, const std::function<int()> &body)
{
   pid_t pid = fork();
   if (pid == 0) {
      _exit(Become(uid) ? body() : 126);
   }
   int status = 0;
   return waitpid(pid, &status, 0) == pid && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

int UnixSocket(const std::string &path, bool connectTo, int flags)
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

char DirectHandOver(int fd)
{
   int sock = UnixSocket(kSocketPath, true);
   char verdict = 0;
   bool ok = ServiceImplReadOne(sock, &gServiceImplMessageByte) == SERVICE_READ_BYTE &&
             ServiceImplSendFd(sock, fd) && ServiceImplReadOne(sock, &verdict) == SERVICE_READ_BYTE;
   close(sock);
   return ok ? verdict : 0;
}

void OpenerE2e::SetUp()
{
   if (geteuid() != 0) {
      GTEST_SKIP() << "needs root: the opener is installed set-user-ID root";
   }
   prctl(PR_SET_CHILD_SUBREAPER, 1);  // orphaned daemons come back here to be reaped
   umask(022);
   StopAll(kDaemonPath);
   fs::remove_all(kRoot);
   for (const fs::path &dir : {fs::path(kRunDir), fs::path(kLogPath).parent_path(),
                               fs::path(kDaemonPath).parent_path()}) {
      fs::create_directories(dir);
   }
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

void OpenerE2e::TearDown()
{
   for (const std::string &path : {kDaemonPath, kDaemonPath + ".real", opener_}) {
      StopAll(path);
   }
   fs::remove_all(bundle_, gIgnored);
   fs::remove_all(kRoot);
   close(out_);
}

Child OpenerE2e::Opener(std::vector<std::string> args, int passFd, const RunOptions &options)
{
   // Built before the fork: the child only execs.
   args.insert(args.begin(), opener_);
   std::vector<std::string> env = options.env;
   std::vector<char *> argv, envp;
   for (auto [strings, pointers] : {std::pair{&args, &argv}, {&env, &envp}}) {
      for (std::string &s : *strings) {
         pointers->push_back(s.data());
      }
      pointers->push_back(nullptr);
   }
   Child child = {-1, bundle_ + "/opener" + std::to_string(++started_) + ".out"};
   int out = open(child.output.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
   if ((child.pid = fork()) == 0) {
      if (dup2(open("/dev/null", O_RDONLY | O_CLOEXEC), 0) != 0 || dup2(out, 1) != 1 ||
          dup2(out, 2) != 2 || (passFd != -1 && dup2(passFd, kPassAs) != kPassAs)) {
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

int OpenerE2e::Finish(Child child, std::string *output, int timeoutMs)
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

int OpenerE2e::HandOverToStandIn(const std::string &script, int *served, std::string *output)
{
   unlink(kSocketPath.c_str());
   int listener = UnixSocket(kSocketPath);
   EXPECT_EQ(listen(listener, 4), 0);
   Child opener = Start();
   std::vector<int> held = {listener};
   struct pollfd ready = {listener, POLLIN, 0};
   for (*served = 0; *served < (int)script.size() && poll(&ready, 1, kTimeoutMs) == 1; ++*served) {
      char step = script[*served];  // its behaviours, each a set of script characters
      int conn = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC), passed = -1;
      if (strchr("g01v", step) != nullptr) {
         ServiceImplWriteOne(conn, 'g');
      }
      if (strchr("01v", step) != nullptr) {
         EXPECT_TRUE(ServiceImplRecvFd(conn, &passed));
         EXPECT_EQ(gServiceImplMessageByte, 'g');  // the greeting comes back with it
         close(passed);
      }
      if (strchr("01", step) != nullptr) {
         ServiceImplWriteOne(conn, step);
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

}  // namespace e2e
