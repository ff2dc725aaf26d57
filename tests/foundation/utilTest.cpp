#include <pwd.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <optional>

#include "testSupport.h"
#include "util.h"

using testsupport::LogCapture;

static std::optional<std::string> Expand(const std::string &name)
{
   char *result = Util_ExpandString(name.c_str());
   std::optional<std::string> text = result != nullptr ? std::optional(result) : std::nullopt;
   free(result);
   return text;
}

TEST(ExpandString, VariablesAndHomeDirectories)
{
   setenv("HOME", "/Users/a", 1);
   setenv("EMPTY_ONE", "", 1);
   for (const char *name : {"UNSET_NAME", "PID", "USER"}) {
      unsetenv(name);
   }
   LogCapture log;
   EXPECT_EQ(Expand("$HOME$HOME-$EMPTY_ONE/a~b"), "/Users/a/Users/a-/a~b");
   EXPECT_EQ(Expand("$/$$-$"), "$/$$-$");
   EXPECT_EQ(Expand("x.$PiD.log"), "x." + std::to_string(getpid()) + ".log");
   EXPECT_EQ(Expand("/tmp/$user"), std::string("/tmp/") + getpwuid(getuid())->pw_name);
   EXPECT_EQ(log.Text(), "");

   EXPECT_EQ(Expand("a$UNSET_NAME/b"), "a/b");
   EXPECT_EQ(log.Text(), "Environment variable 'UNSET_NAME' not defined in 'a$UNSET_NAME/b'.\n");
   log.Clear();

   // 50 times a variable and a text chunk make 100 chunks; a 101st is refused.
   std::string hundred;
   for (int k = 0; k < 50; k++) {
      hundred += "$HOME/";
   }
   EXPECT_EQ(Expand(hundred)->size(), 50 * strlen("/Users/a/"));
   EXPECT_EQ(Expand(hundred + "$"), std::nullopt);
   EXPECT_EQ(log.Text(), "Util_ExpandString: Filename \"" + hundred + "$\" has too many chunks.\n");
   unsetenv("CFFIXED_USER_HOME");
   setenv("HOME", "/not/used", 1);
   log.Clear();
   std::string home = getpwuid(getuid())->pw_dir;
   EXPECT_EQ(Expand("~"), home);
   EXPECT_EQ(*Expand("~root/x$HOME") + *Expand("/a/~"), "/root/x/not/used/a/~");
   EXPECT_EQ(log.Text(), "");
   EXPECT_EQ(Expand("~no_such_user_here/x"), "~no_such_user_here/x");
   EXPECT_EQ(log.Text(), "Could not get passwd for user 'no_such_user_here'.\n");

   setenv("CFFIXED_USER_HOME", "/fixed", 1);
   EXPECT_EQ(*Expand("~/Library") + *Expand("~root"), "/fixed/Library/root");
   unsetenv("CFFIXED_USER_HOME");

   EXPECT_STREQ(Util_OverrideHomeDirectory("/over/ride"), "/over/ride");
   EXPECT_EQ(Expand("~/x"), "/over/ride/x");
   EXPECT_EQ(Expand("~no_such_user_here/x"), "/over/ride/x");
   EXPECT_EQ(Util_OverrideHomeDirectory(nullptr), nullptr);
}

TEST(ExpandString, UserWithoutPasswdEntryFallsBackToHome)
{
   if (geteuid() != 0) {
      GTEST_SKIP() << "needs root to become a user without a password entry";
   }
   // The child becomes a user unknown to the password database.
   EXPECT_TRUE(testsupport::InChild([] {
      LogCapture log;
      unsetenv("CFFIXED_USER_HOME");
      unsetenv("USER");
      setenv("HOME", "/h", 1);
      bool ok = setgid(54321) == 0 && setuid(54321) == 0 && Expand("~/x") == "/h/x" &&
                Expand("$USER") == "unknown";
      unsetenv("HOME");
      return ok && Expand("~/y") == "~/y" &&
             log.Text() ==
                 "Could not get passwd for current user.\n"
                 "Could not get passwd for current user.\n"
                 "Could not expand environment variable HOME.\n";
   }));
}
