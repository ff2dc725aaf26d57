#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gmock/gmock.h>

#include "hostinfo.h"
#include "id.h"
#include "misc/idInt.h"
#include "testSupport.h"

using ::testing::AllOf;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using testsupport::LogCapture;
using testsupport::ScratchDir;

/* Starts argv[0] with its output discarded. */
static pid_t Spawn(const std::vector<std::string> &argv)
{
   pid_t pid = fork();
   if (pid == 0) {
      int fd = open("/dev/null", O_WRONLY);
      dup2(fd, 1);
      dup2(fd, 2);
      testsupport::ExecOrExit(argv);
   }
   return pid;
}

/* Each test starts and ends without a cached reference, a system bus override or a bus. */
class IdAuth : public ::testing::Test {
  protected:
   void SetUp() override { IdAuthCacheDiscard(); }
   void TearDown() override
   {
      for (pid_t pid : {mock_, daemon_}) {
         (void)(pid > 0 && kill(pid, SIGTERM) == 0 && waitpid(pid, nullptr, 0) == pid);
      }
      unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
      IdAuthCacheDiscard();
   }
   ScratchDir scratch_;
   pid_t daemon_ = -1, mock_ = -1;
};

/* Another process that hands over its reference's form and lives until killed. */
struct FormDonor {
   FormDonor() : form(ID_AUTH_EXTERNAL_SIZE)
   {
      int ends[2];
      EXPECT_EQ(pipe(ends), 0);
      if ((pid = fork()) == 0) {
         size_t size = 0;
         void *own = Id_AuthGetExternal(&size);
         (void)!write(ends[1], own, own != nullptr ? size : 0);
         pause();
      }
      EXPECT_EQ(read(ends[0], form.data(), form.size()), ID_AUTH_EXTERNAL_SIZE);
      close(ends[0]);
      close(ends[1]);
   }
   ~FormDonor() { (void)(kill(pid, SIGKILL) == 0 && waitpid(pid, nullptr, 0) == pid); }
   std::vector<unsigned char> form;
   pid_t pid;
};

TEST_F(IdAuth, SetAcceptsOneValidFormOnce)
{
   FormDonor donor;
   const std::string invalid = "Warning: Id_AuthSet: Invalid argument.\n";
   const std::string refused = "Warning: AuthorizationCreateFromExternalForm failed.\n";
   /* Wrong sizes and no form are invalid; a changed magic, version, start time or reserved byte
    * is refused. */
   LogCapture log;
   for (auto [size, flip] :
        {std::pair{31, -1}, {33, -1}, {0, -1}, {32, 0}, {32, 4}, {32, 16}, {32, 31}}) {
      log.Clear();
      std::vector<unsigned char> form = donor.form;
      form.resize(33);
      form[std::max(flip, 0)] ^= flip >= 0;
      EXPECT_FALSE(Id_AuthSet(size != 0 ? form.data() : nullptr, size != 0 ? size : 32));
      EXPECT_EQ(log.Text(), flip < 0 ? invalid : refused) << size << " " << flip;
   }

   log.Clear();
   ASSERT_TRUE(Id_AuthSet(donor.form.data(), 32));
   size_t size = 0;
   void *current = Id_AuthGetExternal(&size);
   EXPECT_TRUE(size == 32 && memcmp(current, donor.form.data(), size) == 0);
   free(current);
   EXPECT_EQ(log.Text(), "");
   EXPECT_PANIC(Id_AuthSet(donor.form.data(), 32), "NOT_IMPLEMENTED lib/misc/idLinux:");

   /* A form outlives its process only as a refusal. */
   kill(donor.pid, SIGKILL);
   waitpid(donor.pid, nullptr, 0);
   EXPECT_FALSE(Id_AuthSet(donor.form.data(), 32));
   EXPECT_EQ(log.Text(), refused);
}

/* Against a private bus, named as this process's system bus, with a polkit stand-in on it. */
TEST_F(IdAuth, PolkitAllowsAndDeniesRightsForTheSubject)
{
   /* Without an authority the answer is no. */
   std::string bus = "unix:path=" + scratch_ / "bus";
   setenv("DBUS_SYSTEM_BUS_ADDRESS", bus.c_str(), 1);
   LogCapture log;
   EXPECT_FALSE(Id_AuthCheck("org.example.tesmar.allowed", "Prompt", false));
   EXPECT_EQ(log.Text().rfind("Id_AuthCheck: system bus unavailable: ", 0), 0u) << log.Text();

   if (system("test -x /usr/bin/dbus-daemon -a -x /usr/bin/dbus-send && env -u PYTHONPATH -u "
              "PYTHONHOME /usr/bin/python3 -c 'import dbusmock' 2>/dev/null") != 0) {
      GTEST_SKIP() << "needs dbus-daemon, dbus-send and python3-dbusmock";
   }
   daemon_ = Spawn({"/usr/bin/dbus-daemon", "--session", "--nofork", "--address=" + bus});
   mock_ = Spawn({"env", "-u", "PYTHONPATH", "-u", "PYTHONHOME", "/usr/bin/python3", "-m",
                  "dbusmock", "--template", "polkitd", "-l", scratch_ / "calls"});
   std::string allow = "/usr/bin/dbus-send --bus=" + bus +
                       " --print-reply --dest=org.freedesktop.PolicyKit1 "
                       "/org/freedesktop/PolicyKit1/Authority org.freedesktop.DBus.Mock.SetAllowed "
                       "array:string:org.example.tesmar.allowed >/dev/null 2>&1";
   for (int tries = 0; system(allow.c_str()) != 0; tries++) {
      ASSERT_LT(tries, 150) << "the polkit stand-in did not come up";
      usleep(100 * 1000);
   }
   EXPECT_TRUE(Id_AuthCheck("org.example.tesmar.allowed", "Install the services", true));
   EXPECT_FALSE(Id_AuthCheck("org.example.tesmar.denied", nullptr, false));
   /* Never sent: libdbus would abort on strings that are not UTF-8. */
   EXPECT_FALSE(Id_AuthCheck("org.example.\xff", nullptr, false));
   EXPECT_FALSE(Id_AuthCheck("org.example.tesmar.allowed", "bad \xc3", false));
   EXPECT_FALSE(Id_AuthCheck(nullptr, nullptr, false));
   /* A borrowed reference speaks for the process that lent it. */
   IdAuthCacheDiscard();
   FormDonor donor;
   ASSERT_TRUE(Id_AuthSet(donor.form.data(), donor.form.size()));
   EXPECT_TRUE(Id_AuthCheck("org.example.tesmar.allowed", nullptr, false));

   /* The calls as the stand-in logged them: the subject, the right, the prompt as the detail. */
   std::string calls = testsupport::ReadFile(scratch_ / "calls");
   std::vector<std::string> checks;
   for (size_t at = 0; (at = calls.find(" CheckAuthorization ", at)) != std::string::npos; at++) {
      checks.push_back(calls.substr(at, calls.find('\n', at) - at));
   }
   ASSERT_EQ(checks.size(), 3u);
   uint64_t ticks[2];
   ASSERT_TRUE(Hostinfo_GetProcessStartTicks(getpid(), &ticks[0]) &&
               Hostinfo_GetProcessStartTicks(donor.pid, &ticks[1]));
   auto field = [](const char *key, const char *type, uint64_t value) {
      return HasSubstr(std::string("'") + key + "'): dbus." + type + "(" + std::to_string(value) +
                       ",");
   };
   for (int i = 0; i < 3; i++) {
      EXPECT_THAT(checks[i], AllOf(HasSubstr("(dbus.String('unix-process')"),
                                   field("start-time", "UInt64", ticks[i / 2]),
                                   field("pid", "UInt32", i < 2 ? getpid() : donor.pid),
                                   field("uid", "Int32", getuid())));
   }
   EXPECT_THAT(checks[0], EndsWith("\"org.example.tesmar.allowed\" {\"polkit.message\": "
                                   "\"Install the services\"} 1 \"\""));
   EXPECT_THAT(checks[1], EndsWith("\"org.example.tesmar.denied\" {} 0 \"\""));
}
