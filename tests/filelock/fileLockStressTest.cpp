/*
 * The lock between processes: contention on a counter, shared and exclusive holders mixed,
 * holders and choosers killed at random points, and two machines (Linux namespaces with their
 * own host name and hardware address) sharing one directory. Every run is bounded in count
 * and time, and only processes started here are signalled.
 */
#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "fileLock.h"
#include "fileLockInt.h"
#include "lockProbeState.h"
#include "testSupport.h"

using testsupport::ScratchDir;

namespace {

/* Rounds per process of the counter runs; BRIX_LOCK_STRESS_ROUNDS=500 gives the long run. */
long Rounds(long fallback)
{
   const char *text = getenv("BRIX_LOCK_STRESS_ROUNDS");
   return text != nullptr && atol(text) > 0 ? atol(text) : fallback;
}

class State {
  public:
   explicit State(const std::string &path) : path_(path)
   {
      int fd = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
      EXPECT_EQ(ftruncate(fd, sizeof(ProbeState)), 0);
      void *p = mmap(nullptr, sizeof(ProbeState), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
      close(fd);
      s_ = static_cast<ProbeState *>(p);
   }
   ~State() { munmap(s_, sizeof(ProbeState)); }
   ProbeState *operator->() { return s_; }
   const std::string &Path() const { return path_; }

  private:
   std::string path_;
   ProbeState *s_;
};

pid_t Spawn(const std::vector<std::string> &args, int stdoutFd = -1)
{
   pid_t pid = fork();
   if (pid == 0) {
      if (stdoutFd != -1) {
         dup2(stdoutFd, 1);
      }
      std::vector<char *> argv;
      for (const std::string &a : args) {
         argv.push_back(const_cast<char *>(a.c_str()));
      }
      argv.push_back(nullptr);
      execvp(argv[0], argv.data());
      _exit(127);
   }
   return pid;
}

int Wait(pid_t pid)
{
   int status = 0;
   while (waitpid(pid, &status, 0) == -1 && errno == EINTR) {
   }
   return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

/* Waits for pid at most ms; -1 (after killing it) when it is still running then. */
int WaitBounded(pid_t pid, int ms)
{
   for (int waited = 0; waited < ms; waited += 10) {
      int status;
      pid_t r = waitpid(pid, &status, WNOHANG);
      if (r == pid) {
         return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
      }
      usleep(10000);
   }
   kill(pid, SIGKILL);
   Wait(pid);
   return -1;
}

long ReadCounter(const std::string &path)
{
   long value = -1;
   std::ifstream(path) >> value;
   return value;
}

/* Reads one line of the child's output: "held" once the probe holds its lock. */
bool WaitForHeld(int fd)
{
   char buf[8] = {};
   ssize_t n = read(fd, buf, 5);
   return n == 5 && std::string(buf, 4) == "held";
}

/* A second machine: its own namespaces, host name and hardware address, killed with us. */
std::vector<std::string> Machine(int n, std::vector<std::string> probeArgs)
{
   std::string script = "hostname machine" + std::to_string(n) +
                        " && ip link add eth0 type veth peer name peer0 && ip link set eth0 "
                        "address 02:42:00:00:00:0" +
                        std::to_string(n) + " && exec \"$0\" \"$@\"";
   std::vector<std::string> args = {"unshare", "--mount", "--pid",        "--uts",
                                    "--net",   "--fork",  "--mount-proc", "--kill-child",
                                    "sh",      "-c",      script,         LOCK_PROBE};
   args.insert(args.end(), probeArgs.begin(), probeArgs.end());
   return args;
}

bool NamespacesWork()
{
   if (geteuid() != 0) {
      return false;
   }
   int fd = open("/dev/null", O_WRONLY);
   pid_t pid = Spawn(Machine(1, {"id"}), fd);
   close(fd);
   return WaitBounded(pid, 10000) == 0;
}

std::string Output(std::vector<std::string> args)
{
   int p[2];
   EXPECT_EQ(pipe(p), 0);
   pid_t pid = Spawn(args, p[1]);
   close(p[1]);
   std::string out;
   char buf[256];
   ssize_t n;
   while ((n = read(p[0], buf, sizeof buf)) > 0) {
      out.append(buf, static_cast<size_t>(n));
   }
   close(p[0]);
   Wait(pid);
   return out;
}

}  // namespace

TEST(FileLockStress, EightProcessesCountUnderAnExclusiveLock)
{
   ScratchDir dir;
   State state(dir / "state");
   long rounds = Rounds(40);
   pid_t pid =
       Spawn({LOCK_PROBE, "count", dir / "file", state.Path(), std::to_string(rounds), "8"});
   EXPECT_EQ(WaitBounded(pid, 170000), 0);
   EXPECT_EQ(ReadCounter(dir / "file.counter"), 8 * rounds);
   EXPECT_EQ(state->overlaps.load(), 0);
   EXPECT_NE(access((dir / "file.lck").c_str(), F_OK), 0) << "the lock directory stays";
}

TEST(FileLockStress, SharedHoldersOverlapExclusiveOnesNever)
{
   ScratchDir dir;
   State state(dir / "state");
   pid_t pid = Spawn({LOCK_PROBE, "mixed", dir / "file", state.Path(), "12", "6"});
   EXPECT_EQ(WaitBounded(pid, 120000), 0);
   EXPECT_EQ(state->acquisitions.load(), 6 * 12);
   EXPECT_EQ(state->overlaps.load(), 0);
   EXPECT_GE(state->maxReaders.load(), 2) << "shared holders never met";
}

/*
 * Holders, waiters and choosers killed with SIGKILL at random points: after every kill a
 * survivor takes the lock again (a chooser's entry directory ages out after about 8.4 s), and
 * no two holders ever overlap.
 */
TEST(FileLockStress, KilledHoldersAndChoosersNeverBreakTheLock)
{
   ScratchDir dir;
   State state(dir / "state");
   std::string lock = dir / "file";
   std::vector<pid_t> workers;
   for (int i = 0; i < 4; i++) {
      workers.push_back(Spawn({LOCK_PROBE, "crash", lock, state.Path()}));
   }
   std::mt19937 rng(12345);
   auto start = std::chrono::steady_clock::now();
   int rounds = 0;
   for (; rounds < 200 && std::chrono::steady_clock::now() - start < std::chrono::seconds(90);
        rounds++) {
      usleep(static_cast<useconds_t>(rng() % 30000));
      size_t victim = rng() % workers.size();
      kill(workers[victim], SIGKILL);
      Wait(workers[victim]);
      int64_t before = state->acquisitions.load();
      workers[victim] = Spawn({LOCK_PROBE, "crash", lock, state.Path()});
      int waited = 0;
      while (state->acquisitions.load() == before && waited < 15000) {
         usleep(5000);
         waited += 5;
      }
      ASSERT_GT(state->acquisitions.load(), before)
          << "no survivor took the lock, round " << rounds;
      ASSERT_EQ(state->overlaps.load(), 0) << "round " << rounds;
   }
   state->stop.store(true);
   for (pid_t pid : workers) {
      EXPECT_EQ(WaitBounded(pid, 20000), 0);
   }
   EXPECT_EQ(state->overlaps.load(), 0);
   EXPECT_GE(rounds, 100) << "too few rounds in the time allowed";
   RecordProperty("rounds", rounds);
}

class FileLockMachines : public ::testing::Test {
  protected:
   void SetUp() override
   {
      if (!NamespacesWork()) {
         GTEST_SKIP() << "needs root and unshare of the mount, PID, UTS and network namespaces";
      }
   }
};

TEST_F(FileLockMachines, EachMachineHasItsOwnIdentity)
{
   std::string one = Output(Machine(1, {"id"}));
   std::string two = Output(Machine(2, {"id"}));
   EXPECT_EQ(one.rfind("uuid=", 0), 0u) << one;
   EXPECT_NE(one, two);
   EXPECT_NE(one, std::string(FileLockGetMachineID()) + "\n");
}

TEST_F(FileLockMachines, TwoMachinesCountUnderOneLock)
{
   ScratchDir dir;
   State state(dir / "state");
   long rounds = Rounds(40) / 2;
   std::vector<std::string> args = {"count", dir / "file", state.Path(), std::to_string(rounds),
                                    "4"};
   pid_t one = Spawn(Machine(1, args));
   pid_t two = Spawn(Machine(2, args));
   EXPECT_EQ(WaitBounded(one, 170000), 0);
   EXPECT_EQ(WaitBounded(two, 170000), 0);
   EXPECT_EQ(ReadCounter(dir / "file.counter"), 8 * rounds);
   EXPECT_EQ(state->overlaps.load(), 0);
}

/*
 * A holder killed on another machine cannot be proven dead from here: its lock is waited for
 * until the maximum wait. One killed on this machine is cleared at once.
 */
TEST_F(FileLockMachines, DeadHoldersElsewhereAreWaitedForDeadOnesHereCleared)
{
   ScratchDir dir;
   std::string lock = dir / "remote";
   int p[2];
   ASSERT_EQ(pipe(p), 0);
   pid_t holder = Spawn(Machine(1, {"hold", lock, "X"}), p[1]);
   close(p[1]);
   ASSERT_TRUE(WaitForHeld(p[0]));
   close(p[0]);
   kill(holder, SIGKILL);
   Wait(holder);

   testsupport::LogCapture log;
   int err = 0;
   auto start = std::chrono::steady_clock::now();
   EXPECT_EQ(FileLock_Lock(lock.c_str(), false, 1500, &err, nullptr), nullptr);
   auto waited = std::chrono::steady_clock::now() - start;
   EXPECT_EQ(err, EAGAIN);
   EXPECT_GE(waited, std::chrono::milliseconds(1500));
   EXPECT_NE(log.Text().find("FileLockWaitForPossession timeout on '" + lock + ".lck/M"),
             std::string::npos);
   EXPECT_NE(log.Text().find("due to another machine 'uuid="), std::string::npos);
   EXPECT_EQ(WaitBounded(Spawn(Machine(2, {"try", lock, "X", "800"})), 20000), 75);

   // The same on this machine: the holder's death is seen and its member file removed.
   std::string local = dir / "local";
   ASSERT_EQ(pipe(p), 0);
   holder = Spawn({LOCK_PROBE, "hold", local, "X"}, p[1]);
   close(p[1]);
   ASSERT_TRUE(WaitForHeld(p[0]));
   close(p[0]);
   kill(holder, SIGKILL);
   Wait(holder);
   start = std::chrono::steady_clock::now();
   FileLockToken *token = FileLock_Lock(local.c_str(), false, 5000, &err, nullptr);
   waited = std::chrono::steady_clock::now() - start;
   ASSERT_NE(token, nullptr);
   EXPECT_LT(waited, std::chrono::milliseconds(300));
   EXPECT_TRUE(FileLock_Unlock(token, &err, nullptr));
}
