#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <dbus/dbus.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "hostinfo.h"
#include "id.h"
#include "misc/idInt.h"
#include "testSupport.h"

using testsupport::LogCapture;
using testsupport::ScratchDir;

namespace {

const char *const kDaemon = "/usr/bin/dbus-daemon";
const char *const kPython = "/usr/bin/python3"; /* the interpreter the system's dbusmock is for */

pid_t Spawn(const std::vector<const char *> &argv, const char *outputPath)
{
   pid_t pid = fork();
   if (pid == 0) {
      int out = open(outputPath, O_WRONLY | O_CREAT | O_APPEND, 0600);
      if (out >= 0) {
         dup2(out, 1);
         dup2(out, 2);
      }
      unsetenv("PYTHONPATH");
      unsetenv("PYTHONHOME");
      std::vector<char *> args;
      for (const char *arg : argv) {
         args.push_back(const_cast<char *>(arg));
      }
      args.push_back(nullptr);
      execv(args[0], args.data());
      _exit(127);
   }
   return pid;
}

int RunQuietly(const std::vector<const char *> &argv)
{
   pid_t pid = Spawn(argv, "/dev/null");
   int status = 0;
   if (pid < 0 || waitpid(pid, &status, 0) != pid) {
      return -1;
   }
   return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

void Stop(pid_t pid)
{
   if (pid > 0) {
      kill(pid, SIGTERM);
      int status;
      waitpid(pid, &status, 0);
   }
}

std::string ReadAll(const std::string &path)
{
   std::ifstream in(path);
   std::stringstream text;
   text << in.rdbuf();
   return text.str();
}

/* Calls a method of the stand-in's control interface; false until the stand-in is up. */
bool CallMock(const std::string &address, const char *method,
              const std::vector<std::string> &strings)
{
   DBusError error;
   dbus_error_init(&error);
   DBusConnection *bus = dbus_connection_open_private(address.c_str(), &error);
   if (bus == nullptr || !dbus_bus_register(bus, &error)) {
      dbus_error_free(&error);
      if (bus != nullptr) {
         dbus_connection_close(bus);
         dbus_connection_unref(bus);
      }
      return false;
   }
   DBusMessage *call = dbus_message_new_method_call("org.freedesktop.PolicyKit1",
                                                    "/org/freedesktop/PolicyKit1/Authority",
                                                    "org.freedesktop.DBus.Mock", method);
   DBusMessageIter args, array;
   dbus_message_iter_init_append(call, &args);
   dbus_message_iter_open_container(&args, DBUS_TYPE_ARRAY, "s", &array);
   for (const std::string &s : strings) {
      const char *value = s.c_str();
      dbus_message_iter_append_basic(&array, DBUS_TYPE_STRING, &value);
   }
   dbus_message_iter_close_container(&args, &array);
   DBusMessage *reply = dbus_connection_send_with_reply_and_block(bus, call, 5000, &error);
   dbus_message_unref(call);
   if (reply != nullptr) {
      dbus_message_unref(reply);
   }
   dbus_error_free(&error);
   dbus_connection_close(bus);
   dbus_connection_unref(bus);
   return reply != nullptr;
}

/* Each test starts and ends without a cached reference. */
class IdAuth : public ::testing::Test {
  protected:
   void SetUp() override { IdAuthCacheDiscard(); }
   void TearDown() override { IdAuthCacheDiscard(); }
};

/*
 * A private bus with the python3-dbusmock polkit stand-in on it, named as the system bus for
 * this process.
 */
class PolkitAuth : public IdAuth {
  protected:
   void SetUp() override
   {
      IdAuth::SetUp();
      if (access(kDaemon, X_OK) != 0) {
         GTEST_SKIP() << "dbus-daemon is not installed";
      }
      if (RunQuietly({kPython, "-c", "import dbusmock"}) != 0) {
         GTEST_SKIP() << "python3-dbusmock is not installed for " << kPython;
      }
      std::string config = scratch_ / "bus.conf";
      std::ofstream(config)
          << "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\"\n"
             " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
             "<busconfig>\n"
             "  <listen>unix:path="
          << scratch_ / "bus"
          << "</listen>\n"
             "  <auth>EXTERNAL</auth>\n"
             "  <policy context=\"default\">\n"
             "    <allow send_destination=\"*\"/><allow receive_sender=\"*\"/><allow own=\"*\"/>\n"
             "  </policy>\n"
             "</busconfig>\n";
      address_ = "unix:path=" + scratch_ / "bus";
      std::string configArg = "--config-file=" + config;
      daemon_ = Spawn({kDaemon, "--nofork", configArg.c_str()}, (scratch_ / "daemon.out").c_str());
      ASSERT_GT(daemon_, 0);
      setenv("DBUS_SYSTEM_BUS_ADDRESS", address_.c_str(), 1);
      calls_ = scratch_ / "calls.log";
      mock_ = Spawn({kPython, "-m", "dbusmock", "--template", "polkitd", "-l", calls_.c_str()},
                    (scratch_ / "mock.out").c_str());
      ASSERT_GT(mock_, 0);
      for (int tries = 0; !CallMock(address_, "SetAllowed", {}); tries++) {
         ASSERT_LT(tries, 300) << "the polkit stand-in did not come up: "
                               << ReadAll(scratch_ / "mock.out");
         struct timespec pause = {0, 50 * 1000 * 1000};
         nanosleep(&pause, nullptr);
      }
   }

   void TearDown() override
   {
      Stop(mock_);
      Stop(daemon_);
      unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
      IdAuth::TearDown();
   }

   /* The CheckAuthorization calls the stand-in received, one per line. */
   std::vector<std::string> Checks() const
   {
      std::vector<std::string> checks;
      std::istringstream log(ReadAll(calls_));
      for (std::string line; std::getline(log, line);) {
         if (line.find("CheckAuthorization") != std::string::npos) {
            checks.push_back(line);
         }
      }
      return checks;
   }

   ScratchDir scratch_;
   std::string address_;
   std::string calls_;
   pid_t daemon_ = -1;
   pid_t mock_ = -1;
};

/* Another process whose authorization reference this test borrows; it lives until Release. */
class FormDonor {
  public:
   FormDonor()
   {
      int toParent[2], toChild[2];
      EXPECT_EQ(pipe(toParent), 0);
      EXPECT_EQ(pipe(toChild), 0);
      pid_ = fork();
      if (pid_ == 0) {
         close(toParent[0]);
         close(toChild[1]);
         size_t size = 0;
         void *form = Id_AuthGetExternal(&size);
         if (form != nullptr && write(toParent[1], form, size) == static_cast<ssize_t>(size)) {
            char byte;
            (void)!read(toChild[0], &byte, 1);
         }
         _exit(0);
      }
      close(toParent[1]);
      close(toChild[0]);
      release_ = toChild[1];
      form_.resize(ID_AUTH_EXTERNAL_SIZE);
      EXPECT_EQ(read(toParent[0], form_.data(), form_.size()), ID_AUTH_EXTERNAL_SIZE);
      close(toParent[0]);
   }
   ~FormDonor() { Release(); }
   void Release()
   {
      if (release_ >= 0) {
         close(release_);
         release_ = -1;
         int status;
         waitpid(pid_, &status, 0);
      }
   }
   pid_t Pid() const { return pid_; }
   const std::vector<unsigned char> &Form() const { return form_; }

  private:
   pid_t pid_;
   int release_ = -1;
   std::vector<unsigned char> form_;
};

}  // namespace

TEST_F(IdAuth, SetAcceptsOneValidFormOnce)
{
   FormDonor donor;
   std::vector<unsigned char> form = donor.Form();
   LogCapture log;
   EXPECT_FALSE(Id_AuthSet(form.data(), 31));
   EXPECT_FALSE(Id_AuthSet(form.data(), 33));
   EXPECT_FALSE(Id_AuthSet(nullptr, 32));
   EXPECT_EQ(log.Text(),
             "Warning: Id_AuthSet: Invalid argument.\n"
             "Warning: Id_AuthSet: Invalid argument.\n"
             "Warning: Id_AuthSet: Invalid argument.\n");

   const std::string refused = "Warning: AuthorizationCreateFromExternalForm failed.\n";
   for (size_t byte : {0u, 4u, 16u, 31u}) { /* magic, version, start time, reserved */
      log.Clear();
      std::vector<unsigned char> altered = form;
      altered[byte] ^= 1;
      EXPECT_FALSE(Id_AuthSet(altered.data(), altered.size())) << "byte " << byte;
      EXPECT_EQ(log.Text(), refused);
   }

   log.Clear();
   EXPECT_TRUE(Id_AuthSet(form.data(), form.size()));
   EXPECT_EQ(log.Text(), "");
   size_t size = 0;
   void *current = Id_AuthGetExternal(&size);
   ASSERT_NE(current, nullptr);
   EXPECT_EQ(size, 32u);
   EXPECT_EQ(memcmp(current, form.data(), size), 0);
   free(current);

   EXPECT_PANIC(Id_AuthSet(form.data(), form.size()), "NOT_IMPLEMENTED lib/misc/idLinux:");
}

TEST_F(IdAuth, SetRefusesFormOfAnExitedProcess)
{
   FormDonor donor;
   donor.Release();
   LogCapture log;
   EXPECT_FALSE(Id_AuthSet(donor.Form().data(), donor.Form().size()));
   EXPECT_EQ(log.Text(), "Warning: AuthorizationCreateFromExternalForm failed.\n");
}

TEST_F(IdAuth, CheckWithoutAuthorityMeansNo)
{
   ScratchDir scratch;
   std::string address = "unix:path=" + scratch / "nobody-listens";
   setenv("DBUS_SYSTEM_BUS_ADDRESS", address.c_str(), 1);
   LogCapture log;
   EXPECT_FALSE(Id_AuthCheck("org.example.tesmar.anything", "Prompt", false));
   EXPECT_EQ(log.Text().rfind("Id_AuthCheck: system bus unavailable: ", 0), 0u) << log.Text();
   unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
}

TEST_F(PolkitAuth, AllowedAndDeniedRights)
{
   ASSERT_TRUE(CallMock(address_, "SetAllowed", {"org.example.tesmar.allowed"}));
   EXPECT_TRUE(Id_AuthCheck("org.example.tesmar.allowed", "Install the services", true));
   EXPECT_FALSE(Id_AuthCheck("org.example.tesmar.denied", nullptr, false));

   LogCapture log;
   EXPECT_FALSE(Id_AuthCheck("org.example.\xff", nullptr, false)); /* not UTF-8: refused here */
   EXPECT_FALSE(Id_AuthCheck("org.example.tesmar.allowed", "bad \xc3", false));
   EXPECT_FALSE(Id_AuthCheck(nullptr, nullptr, false));

   /* The subject is this process; the prompt travels as the message detail. */
   uint64_t ticks;
   ASSERT_TRUE(Hostinfo_GetProcessStartTicks(getpid(), &ticks));
   std::vector<std::string> checks = Checks();
   ASSERT_EQ(checks.size(), 2u);
   for (const std::string &check : checks) {
      EXPECT_NE(check.find("dbus.String('unix-process')"), std::string::npos) << check;
      EXPECT_NE(check.find("'pid'): dbus.UInt32(" + std::to_string(getpid()) + ","),
                std::string::npos)
          << check;
      EXPECT_NE(check.find("'start-time'): dbus.UInt64(" + std::to_string(ticks) + ","),
                std::string::npos)
          << check;
      EXPECT_NE(check.find("'uid'): dbus.Int32(" + std::to_string(getuid()) + ","),
                std::string::npos)
          << check;
   }
   EXPECT_TRUE(checks[0].ends_with(
       "\"org.example.tesmar.allowed\" {\"polkit.message\": \"Install the services\"} 1 \"\""))
       << checks[0];
   EXPECT_TRUE(checks[1].ends_with("\"org.example.tesmar.denied\" {} 0 \"\"")) << checks[1];
}

TEST_F(PolkitAuth, BorrowedReferenceSpeaksForItsProcess)
{
   FormDonor donor;
   ASSERT_TRUE(Id_AuthSet(donor.Form().data(), donor.Form().size()));
   ASSERT_TRUE(CallMock(address_, "SetAllowed", {"org.example.tesmar.allowed"}));
   EXPECT_TRUE(Id_AuthCheck("org.example.tesmar.allowed", nullptr, false));
   std::vector<std::string> checks = Checks();
   ASSERT_EQ(checks.size(), 1u);
   EXPECT_NE(checks[0].find("'pid'): dbus.UInt32(" + std::to_string(donor.Pid()) + ","),
             std::string::npos)
       << checks[0];
}
