#include <pwd.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <optional>
#include <string>

#include "testSupport.h"
#include "util.h"

using testsupport::LogCapture;

namespace {

/* Sets or removes one environment variable for the lifetime of the object. */
class ScopedEnv {
 public:
   ScopedEnv(const char *name, const char *value) : name_(name)
   {
      const char *old = getenv(name);
      if (old != nullptr) {
         old_ = old;
      }
      if (value != nullptr) {
         setenv(name, value, 1);
      } else {
         unsetenv(name);
      }
   }
   ~ScopedEnv()
   {
      if (old_) {
         setenv(name_.c_str(), old_->c_str(), 1);
      } else {
         unsetenv(name_.c_str());
      }
   }

 private:
   std::string name_;
   std::optional<std::string> old_;
};

std::optional<std::string> Expand(const std::string &name)
{
   char *result = Util_ExpandString(name.c_str());
   if (result == nullptr) {
      return std::nullopt;
   }
   std::string text = result;
   free(result);
   return text;
}

std::string RealUserHome()
{
   struct passwd *pw = getpwuid(getuid());
   return pw != nullptr && pw->pw_dir != nullptr ? pw->pw_dir : "";
}

}  // namespace

TEST(ExpandString, VariablesAndTheirFallbacks)
{
   ScopedEnv home("HOME", "/Users/a");
   ScopedEnv unset("UNSET_NAME", nullptr);
   ScopedEnv pid("PID", nullptr);
   ScopedEnv user("USER", nullptr);
   ScopedEnv empty("EMPTY_ONE", "");
   LogCapture log;

   EXPECT_EQ(Expand("plain/name"), "plain/name");
   EXPECT_EQ(Expand("a~b"), "a~b");
   EXPECT_EQ(Expand("$HOME/x"), "/Users/a/x");
   EXPECT_EQ(Expand("$HOME$HOME-$EMPTY_ONE."), "/Users/a/Users/a-.");
   EXPECT_EQ(Expand("cost$"), "cost$");
   EXPECT_EQ(Expand("$/$$-$"), "$/$$-$");
   EXPECT_EQ(log.Text(), "");

   EXPECT_EQ(Expand("a$UNSET_NAME/b"), "a/b");
   EXPECT_EQ(log.Text(), "Environment variable 'UNSET_NAME' not defined in 'a$UNSET_NAME/b'.\n");
   log.Clear();

   EXPECT_EQ(Expand("$pid"), std::to_string(getpid()));
   EXPECT_EQ(Expand("x.$PiD.log"), "x." + std::to_string(getpid()) + ".log");
   struct passwd *pw = getpwuid(getuid());
   ASSERT_NE(pw, nullptr);
   EXPECT_EQ(Expand("/tmp/$user"), std::string("/tmp/") + pw->pw_name);
   EXPECT_EQ(log.Text(), "");
}

TEST(ExpandString, ChunkLimit)
{
   LogCapture log;
   std::string hundred;
   for (int k = 0; k < 50; k++) {
      hundred += "$_/";  // a variable chunk and a text chunk each
   }
   ScopedEnv var("_", "v");
   EXPECT_EQ(Expand(hundred)->size(), 100u);
   EXPECT_EQ(log.Text(), "");

   std::string tooMany = hundred + "$";
   EXPECT_EQ(Expand(tooMany), std::nullopt);
   EXPECT_EQ(log.Text(), "Util_ExpandString: Filename \"" + tooMany + "\" has too many chunks.\n");
}

TEST(ExpandString, HomeDirectories)
{
   ScopedEnv fixed("CFFIXED_USER_HOME", nullptr);
   ScopedEnv home("HOME", "/not/used/while/passwd/answers");
   LogCapture log;

   EXPECT_EQ(Expand("~"), RealUserHome());
   EXPECT_EQ(Expand("~/Library"), RealUserHome() + "/Library");
   EXPECT_EQ(Expand("~root/x$HOME"), "/root/x/not/used/while/passwd/answers");
   // Only a leading "~" counts, and only up to the first "/".
   EXPECT_EQ(Expand("/a/~"), "/a/~");
   EXPECT_EQ(log.Text(), "");

   EXPECT_EQ(Expand("~no_such_user_here/x"), "~no_such_user_here/x");
   EXPECT_EQ(log.Text(), "Could not get passwd for user 'no_such_user_here'.\n");
   log.Clear();

   {
      ScopedEnv fixedHome("CFFIXED_USER_HOME", "/fixed");
      EXPECT_EQ(Expand("~/Library"), "/fixed/Library");
      EXPECT_EQ(Expand("~root"), "/root");
   }
}

TEST(ExpandString, OverrideReplacesEveryTilde)
{
   const char *stored = Util_OverrideHomeDirectory("/over/ride");
   EXPECT_STREQ(stored, "/over/ride");
   EXPECT_EQ(Expand("~/x"), "/over/ride/x");
   EXPECT_EQ(Expand("~root/x"), "/over/ride/x");
   EXPECT_EQ(Expand("~no_such_user_here"), "/over/ride");
   EXPECT_EQ(Util_OverrideHomeDirectory(nullptr), nullptr);
   EXPECT_EQ(Expand("~root"), "/root");
}

TEST(ExpandStringDeath, UserWithoutPasswdEntryFallsBackToHome)
{
   if (geteuid() != 0) {
      GTEST_SKIP() << "needs root to become a user without a password entry";
   }
   // The child becomes a user unknown to the password database and reports on standard error.
   EXPECT_EXIT(
      {
         Log_SetOutputFd(2);
         unsetenv("CFFIXED_USER_HOME");
         unsetenv("USER");
         setenv("HOME", "/h", 1);
         if (setgid(54321) != 0 || setuid(54321) != 0) {
            _exit(2);
         }
         char *viaHome = Util_ExpandString("~/x");
         unsetenv("HOME");
         char *kept = Util_ExpandString("~/y");
         char *user = Util_ExpandString("$USER");
         bool ok = strcmp(viaHome, "/h/x") == 0 && strcmp(kept, "~/y") == 0 &&
                   strcmp(user, "unknown") == 0;
         _exit(ok ? 0 : 3);
      },
      ::testing::ExitedWithCode(0),
      "Could not get passwd for current user\\.\n.*"
      "Could not get passwd for current user\\.\n.*"
      "Could not expand environment variable HOME\\.\n");
}
