#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <memory>

#include "hostinfo.h"
#include "id.h"
#include "misc/idInt.h"
#include "testSupport.h"

using testsupport::LogCapture;
using testsupport::ScratchDir;

/* Runs argv[0] with output to a file; the interpreter's search paths are not inherited. */
static pid_t Spawn(const std::vector<std::string> &argv, const std::string &output = "/dev/null")
{
   pid_t pid = fork();
   if (pid == 0) {
      int fd = open(output.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
      dup2(fd, 1);
      dup2(fd, 2);
      unsetenv("PYTHONPATH");
      unsetenv("PYTHONHOME");
      testsupport::ExecOrExit(argv);
   }
   return pid;
}

static int RunToExit(const std::vector<std::string> &argv)
{
   int status = 0;
   pid_t pid = Spawn(argv);
   return waitpid(pid, &status, 0) == pid && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

/* Each test starts and ends without a cached reference. */
class IdAuth : public ::testing::Test {
  protected:
   void SetUp() override { IdAuthCacheDiscard(); }
   void TearDown() override { IdAuthCacheDiscard(); }
};

/* A private bus, named as this process's system bus, with dbusmock's polkit stand-in on it. */
class PolkitAuth : public IdAuth {
  protected:
   void SetUp() override
   {
      IdAuth::SetUp();
      if (access("/usr/bin/dbus-daemon", X_OK) != 0 || access("/usr/bin/dbus-send", X_OK) != 0 ||
          RunToExit({"/usr/bin/python3", "-c", "import dbusmock"}) != 0) {
         GTEST_SKIP() << "needs dbus-daemon, dbus-send and python3-dbusmock";
      }
      address_ = "unix:path=" + scratch_ / "bus";
      daemon_ = Spawn({"/usr/bin/dbus-daemon", "--session", "--nofork", "--address=" + address_});
      setenv("DBUS_SYSTEM_BUS_ADDRESS", address_.c_str(), 1);
      mock_ = Spawn(
          {"/usr/bin/python3", "-m", "dbusmock", "--template", "polkitd", "-l", scratch_ / "calls"},
          scratch_ / "mock.out");
      for (int tries = 0; !Allow(""); tries++) {
         ASSERT_LT(tries, 150) << "the polkit stand-in did not come up";
         usleep(100 * 1000);
      }
   }

   void TearDown() override
   {
      for (pid_t pid : {mock_, daemon_}) {
         if (pid > 0 && kill(pid, SIGTERM) == 0) {
            waitpid(pid, nullptr, 0);
         }
      }
      unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
      IdAuth::TearDown();
   }

   bool Allow(const std::string &right)
   {
      return RunToExit({"/usr/bin/dbus-send", "--bus=" + address_, "--print-reply",
                        "--dest=org.freedesktop.PolicyKit1",
                        "/org/freedesktop/PolicyKit1/Authority",
                        "org.freedesktop.DBus.Mock.SetAllowed", "array:string:" + right}) == 0;
   }

   /* The CheckAuthorization calls the stand-in received, as it logged them. */
   std::vector<std::string> Checks() const
   {
      std::ifstream log(scratch_ / "calls");
      std::vector<std::string> checks;
      for (std::string line; std::getline(log, line);) {
         if (line.find(" CheckAuthorization ") != std::string::npos) {
            checks.push_back(line);
         }
      }
      return checks;
   }

   ScratchDir scratch_;
   std::string address_;
   pid_t daemon_ = -1, mock_ = -1;
};

/* Another process that hands over its reference's form and lives until released. */
class FormDonor {
  public:
   FormDonor() : form(ID_AUTH_EXTERNAL_SIZE)
   {
      int ends[2];
      EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
      pid = fork();
      if (pid == 0) {
         close(ends[0]);
         size_t size = 0;
         void *own = Id_AuthGetExternal(&size);
         if (own != nullptr && write(ends[1], own, size) == (ssize_t)size) {
            (void)!read(ends[1], &size, 1); /* returns when the parent closes its end */
         }
         _exit(0);
      }
      close(ends[1]);
      end_ = ends[0];
      EXPECT_EQ(read(end_, form.data(), form.size()), ID_AUTH_EXTERNAL_SIZE);
   }
   ~FormDonor() { Release(); }
   void Release()
   {
      if (end_ >= 0) {
         close(end_);
         end_ = -1;
         waitpid(pid, nullptr, 0);
      }
   }
   std::vector<unsigned char> form;
   pid_t pid;

  private:
   int end_ = -1;
};

static std::string Pattern(const char *key, const char *type, uint64_t value)
{
   return std::string("'") + key + "'): dbus." + type + "(" + std::to_string(value) + ",";
}

TEST_F(IdAuth, SetAcceptsOneValidFormOnce)
{
   FormDonor donor;
   std::vector<unsigned char> &form = donor.form;
   LogCapture log;
   for (auto [data, size] :
        {std::pair<void *, size_t>{form.data(), 31}, {form.data(), 33}, {nullptr, 32}}) {
      log.Clear();
      EXPECT_FALSE(Id_AuthSet(data, size)) << size;
      EXPECT_EQ(log.Text(), "Warning: Id_AuthSet: Invalid argument.\n");
   }

   const std::string refused = "Warning: AuthorizationCreateFromExternalForm failed.\n";
   for (size_t byte : {0u, 4u, 16u, 31u}) { /* magic, version, start time, reserved */
      log.Clear();
      std::vector<unsigned char> altered = form;
      altered[byte] ^= 1;
      EXPECT_FALSE(Id_AuthSet(altered.data(), altered.size())) << "byte " << byte;
      EXPECT_EQ(log.Text(), refused);
   }

   log.Clear();
   ASSERT_TRUE(Id_AuthSet(form.data(), form.size()));
   size_t size = 0;
   std::unique_ptr<void, decltype(&free)> current(Id_AuthGetExternal(&size), free);
   EXPECT_TRUE(size == 32 && memcmp(current.get(), form.data(), size) == 0);
   EXPECT_EQ(log.Text(), "");
   EXPECT_PANIC(Id_AuthSet(form.data(), form.size()), "NOT_IMPLEMENTED lib/misc/idLinux:");

   /* A form outlives its process only as a refusal. */
   donor.Release();
   EXPECT_FALSE(Id_AuthSet(form.data(), form.size()));
   EXPECT_EQ(log.Text(), refused);
}

TEST_F(IdAuth, CheckWithoutAuthorityMeansNo)
{
   ScratchDir scratch;
   setenv("DBUS_SYSTEM_BUS_ADDRESS", ("unix:path=" + scratch / "nobody").c_str(), 1);
   LogCapture log;
   EXPECT_FALSE(Id_AuthCheck("org.example.tesmar.anything", "Prompt", false));
   EXPECT_EQ(log.Text().rfind("Id_AuthCheck: system bus unavailable: ", 0), 0u) << log.Text();
   unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
}

TEST_F(PolkitAuth, AllowedAndDeniedRights)
{
   ASSERT_TRUE(Allow("org.example.tesmar.allowed"));
   EXPECT_TRUE(Id_AuthCheck("org.example.tesmar.allowed", "Install the services", true));
   EXPECT_FALSE(Id_AuthCheck("org.example.tesmar.denied", nullptr, false));
   /* Never sent: libdbus would abort on strings that are not UTF-8. */
   EXPECT_FALSE(Id_AuthCheck("org.example.\xff", nullptr, false));
   EXPECT_FALSE(Id_AuthCheck("org.example.tesmar.allowed", "bad \xc3", false));
   EXPECT_FALSE(Id_AuthCheck(nullptr, nullptr, false));

   /* The subject is this process; the prompt travels as the message detail. */
   uint64_t ticks;
   ASSERT_TRUE(Hostinfo_GetProcessStartTicks(getpid(), &ticks));
   std::vector<std::string> checks = Checks();
   ASSERT_EQ(checks.size(), 2u);
   for (const std::string &check : checks) {
      EXPECT_NE(check.find("(dbus.String('unix-process')"), std::string::npos) << check;
      EXPECT_NE(check.find(Pattern("pid", "UInt32", getpid())), std::string::npos) << check;
      EXPECT_NE(check.find(Pattern("start-time", "UInt64", ticks)), std::string::npos) << check;
      EXPECT_NE(check.find(Pattern("uid", "Int32", getuid())), std::string::npos) << check;
   }
   EXPECT_TRUE(checks[0].ends_with(
       "\"org.example.tesmar.allowed\" {\"polkit.message\": \"Install the services\"} 1 \"\""))
       << checks[0];
   EXPECT_TRUE(checks[1].ends_with("\"org.example.tesmar.denied\" {} 0 \"\"")) << checks[1];

   /* A borrowed reference speaks for the process that lent it. */
   IdAuthCacheDiscard();
   FormDonor donor;
   ASSERT_TRUE(Id_AuthSet(donor.form.data(), donor.form.size()));
   EXPECT_TRUE(Id_AuthCheck("org.example.tesmar.allowed", nullptr, false));
   checks = Checks();
   ASSERT_EQ(checks.size(), 3u);
   EXPECT_NE(checks[2].find(Pattern("pid", "UInt32", donor.pid)), std::string::npos) << checks[2];
}
