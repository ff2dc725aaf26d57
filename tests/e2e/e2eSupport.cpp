#include "e2eSupport.h"

namespace e2e {

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

void StopAll(const std::string &path)
{
   for (int sig : {SIGTERM, SIGKILL}) {
      for (pid_t pid : ProcessesRunning(path)) {
         kill(pid, sig);
         kill(pid, SIGCONT);
      }
      WaitFor([&] { return ProcessesRunning(path).empty(); }, 2000);
   }
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
   return pid > 0 && waitpid(pid, &status, 0) == pid && WIFEXITED(status) ? WEXITSTATUS(status)
                                                                          : -1;
}

int BindSocket(const std::string &path)
{
   struct sockaddr_un addr = UnixAddress(path);
   int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
   EXPECT_EQ(bind(fd, (struct sockaddr *)&addr, sizeof addr), 0);
   return fd;
}

char DirectHandOver(int fd)
{
   struct sockaddr_un addr = UnixAddress(kSocketPath);
   int sock = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
   struct timeval bound = {2, 0};
   setsockopt(sock, SOL_SOCKET, SO_RCVTIMEO, &bound, sizeof bound);
   setsockopt(sock, SOL_SOCKET, SO_SNDTIMEO, &bound, sizeof bound);
   char verdict = 0;
   if (connect(sock, (struct sockaddr *)&addr, sizeof addr) != 0 ||
       ServiceImplReadOne(sock, &gServiceImplMessageByte) != SERVICE_READ_BYTE ||
       !ServiceImplSendFd(sock, fd) || ServiceImplReadOne(sock, &verdict) != SERVICE_READ_BYTE) {
      verdict = 0;
   }
   close(sock);
   return verdict;
}

void OpenerE2e::SetUp()
{
   if (geteuid() != 0) {
      GTEST_SKIP() << "needs root: the opener is installed set-user-ID root";
   }
   // A desktop user's descriptor limit; the opener's children inherit it.
   struct rlimit files;
   getrlimit(RLIMIT_NOFILE, &files);
   files.rlim_cur = std::min<rlim_t>(1024, files.rlim_max);
   setrlimit(RLIMIT_NOFILE, &files);
   prctl(PR_SET_CHILD_SUBREAPER, 1);  // orphaned daemons come back here to be reaped
   umask(022);
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
   ASSERT_EQ(chmod(pattern, 0755), 0);
   opener_ = bundle_ + "/Larkview.app/Contents/Library/services/Open BRIX Services";
   fs::create_directories(fs::path(opener_).parent_path());
   fs::copy_file(E2E_OPENER, opener_);
   ASSERT_EQ(chmod(opener_.c_str(), 04755), 0);
}

void OpenerE2e::TearDown()
{
   for (const std::string &path : {kDaemonPath, kDaemonPath + ".real", opener_}) {
      StopAll(path);
   }
   if (!bundle_.empty()) {
      fs::remove_all(bundle_);
   }
   fs::remove_all(kRoot);
}

int OpenerE2e::OpenOutput()
{
   int fd = open((bundle_ + "/out").c_str(), O_WRONLY | O_APPEND | O_CREAT, 0644);
   int high = fcntl(fd, F_DUPFD_CLOEXEC, 100);
   close(fd);
   return high;
}

Child OpenerE2e::Opener(std::vector<std::string> args, int passFd, const RunOptions &options)
{
   args.insert(args.begin(), opener_);
   std::vector<std::string> env = options.env;
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
          (passFd != -1 && dup2(passFd, kPassAs) != kPassAs)) {
         _exit(126);
      }
      if (options.setup) {
         options.setup();
      }
      if (!Become(options.uid)) {
         _exit(126);
      }
      umask(077);
      execve(opener_.c_str(), argv.data(), envp.data());
      _exit(127);
   }
   close(out[1]);
   return {pid, out[0]};
}

int OpenerE2e::Finish(Child child, std::string *output, int timeoutMs)
{
   std::string text;
   char buf[1024];
   ssize_t n = 0;
   struct pollfd ready = {child.output, POLLIN, 0};
   int polled;
   while ((polled = poll(&ready, 1, timeoutMs)) == 1 &&
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

int OpenerE2e::HandOverToStandIn(const std::string &script, int fd, int *served,
                                 std::string *output)
{
   unlink(kSocketPath.c_str());
   int listener = BindSocket(kSocketPath);
   EXPECT_EQ(listen(listener, 4), 0);
   *served = 0;
   std::vector<int> held;
   std::thread daemon([&] {
      for (char step : script) {
         struct pollfd ready = {listener, POLLIN, 0};
         if (poll(&ready, 1, kTimeoutMs) != 1) {
            return;
         }
         int conn = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
         ++*served;
         if (step != 'c' && step != 'n') {
            ServiceImplWriteOne(conn, 'g');
         }
         int passed = -1;
         if (step == '0' || step == '1' || step == 'v') {
            EXPECT_TRUE(ServiceImplRecvFd(conn, &passed));
            EXPECT_EQ(gServiceImplMessageByte, 'g');  // the greeting comes back with it
            close(passed);
         }
         if (step == '0' || step == '1') {
            ServiceImplWriteOne(conn, step);
         }
         if (step == 'n' || step == 'v') {
            held.push_back(conn);  // kept open and silent until the opener is done
         } else {
            close(conn);
         }
      }
   });
   int status = HandOver(fd, {}, output);
   daemon.join();
   for (int conn : held) {
      close(conn);
   }
   close(listener);
   return status;
}

}  // namespace e2e
