/*
 * The preference store and the Config getters: early access, the six layers' precedence with
 * real files under a private root, disabled user files, the set-user-ID rule, the dump.
 */
#include <gmock/gmock.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "config.h"
#include "msg.h"
#include "preference.h"
#include "testSupport.h"
#include "util.h"

namespace {

using ::testing::HasSubstr;
using ::testing::Not;
using testsupport::LogCapture;
using testsupport::ScratchDir;
using testsupport::Take;

const std::string kHostFile = BRIX_ROOT_PREFIX "/Library/Preferences/Larkview/config";

void WriteFile(const std::string &path, const std::string &text)
{
   ASSERT_EQ(system(("mkdir -p '" + path.substr(0, path.rfind('/')) + "'").c_str()), 0);
   testsupport::WriteFile(path, text);
}

class PreferenceTest : public ::testing::Test {
  protected:
   void SetUp() override
   {
      Preference_Exit();
      Msg_Reset(false);
      Util_OverrideHomeDirectory(home_.Path().c_str());
   }
   void TearDown() override
   {
      Preference_Exit();
      unlink(kHostFile.c_str());
      Util_OverrideHomeDirectory(nullptr);
   }
   /* Writes the six files; the host file points the library directory at lib_. */
   void WriteLayers(const std::string &hostExtra = "")
   {
      WriteFile(lib_ / "settings", "k1 = \"global\"\n");
      WriteFile(home_ / "Library/Preferences/Larkview/preferences",
                "k1 = \"userprefs\"\nk2 = \"userprefs\"\nk3 = \"userprefs\"\n"
                "path = \"~/sub\"\nbadlong = \"twelve\"\n");
      WriteFile(home_ / "Library/Preferences/Larkview/config",
                "k1 = \"userdefs\"\nk2 = \"userdefs\"\nk3 = \"userdefs\"\nk4 = \"userdefs\"\n");
      WriteFile(kHostFile, "libdir = \"" + lib_.Path() + "\"\n" + hostExtra +
                               "k1 = \"host\"\nk2 = \"host\"\nk3 = \"host\"\nk4 = \"host\"\n"
                               "k5 = \"host\"\nnum = \"0x20\"\ntri = \"auto\"\n");
      WriteFile(lib_ / "config",
                "k1 = \"site\"\nk2 = \"site\"\nk3 = \"site\"\nk4 = \"site\"\n"
                "k5 = \"site\"\nk6 = \"site\"\n");
   }
   ScratchDir home_;
   ScratchDir lib_;
};

TEST_F(PreferenceTest, SixLayersInTheirOrder)
{
   WriteLayers();
   ASSERT_TRUE(Preference_Init());
   ASSERT_TRUE(Preference_SetFromString("k2=nonpersistent", false));
   ASSERT_TRUE(Preference_SetFromString("k1=nonpersistent", false));
   const std::tuple<const char *, std::string, PreferenceLayer> cases[] = {
       {"k1", "global", PREF_GLOBAL_SETTINGS},
       {"k2", "nonpersistent", PREF_NON_PERSISTENT},
       {"k3", "userprefs", PREF_USER_PREFERENCES},
       {"k4", "userdefs", PREF_USER_DEFAULTS},
       {"K5", "host", PREF_HOST_DEFAULTS},
       {"k6", "site", PREF_SITE_DEFAULTS},
       {"k7", "none", PREF_NO_LAYER},
   };
   for (const auto &[name, value, layer] : cases) {
      SCOPED_TRACE(name);
      EXPECT_EQ(Take(Config_GetString("none", "%s", name)), value);
      EXPECT_EQ(Preference_Find(name), layer);
      EXPECT_EQ(Config_NotSet("%s", name), layer == PREF_NO_LAYER);
   }
   EXPECT_FALSE(Config_GetTriStateAsBool(false, "tri"));
   EXPECT_EQ(Take(Config_GetPathName(nullptr, "path")), home_ / "sub");

   // A malformed value gives the default and tells the user.
   EXPECT_EQ(Config_GetLong(12, "badlong"), 12);
   MsgList *msgs = Msg_TakeList();
   EXPECT_STREQ(msgs->id, "msg.dictionary.notInteger");
   MsgList_Free(msgs);

   LogCapture log;
   Preference_Log();
   EXPECT_THAT(log.Text(), HasSubstr("DICT --- GLOBAL SETTINGS " + lib_ / "settings" +
                                     "\nDICT                        k1 = \"global\"\n"
                                     "DICT --- NON PERSISTENT \n"));
   EXPECT_THAT(log.Text(), HasSubstr("DICT --- USER PREFERENCES " +
                                     home_ / "Library/Preferences/Larkview/preferences\n"));
   EXPECT_THAT(log.Text(), HasSubstr("DICT --- HOST DEFAULTS " + kHostFile + "\n"));
}

TEST_F(PreferenceTest, EarlyAccessAndMissingFiles)
{
   LogCapture log;
   EXPECT_EQ(Config_GetLong(5, "early.%d", 1), 5);
   EXPECT_FALSE(Preference_SetFromString("a=b", true));
   ASSERT_TRUE(Preference_Init());
   ASSERT_TRUE(Preference_Init());
   std::string text = log.Text();
   EXPECT_THAT(text, HasSubstr("PREF early PreferenceGet(early.1), using default\n"));
   const std::string missing =
       "PREF Optional preferences file not found at " + kHostFile + ". Using default values.\n";
   ASSERT_NE(text.find(missing), std::string::npos) << text;
   EXPECT_EQ(text.find(missing, text.find(missing) + 1), std::string::npos);
   EXPECT_THAT(text,
               HasSubstr("PREF Optional preferences file not found at /dev/null/"
                         "Non-existing DEFAULT_LIBDIRECTORY/settings. Using default values.\n"));
}

TEST_F(PreferenceTest, UserFilesLeftOut)
{
   WriteLayers();
   ASSERT_TRUE(Preference_InitNoUserFiles());
   EXPECT_EQ(Preference_Find("k3"), PREF_HOST_DEFAULTS);
   Preference_Exit();

   WriteLayers("disableUserPreferences = \"TRUE\"\n");
   LogCapture log;
   ASSERT_TRUE(Preference_Init());
   EXPECT_THAT(log.Text(), HasSubstr("PREF Disabling user preferences because "
                                     "disableUserPreferences is set.\n"));
   EXPECT_THAT(log.Text(), Not(HasSubstr(home_.Path())));
   EXPECT_EQ(Preference_Find("k3"), PREF_HOST_DEFAULTS);
}

TEST_F(PreferenceTest, SetUserIdIgnoresTheUsersFiles)
{
   if (geteuid() != 0) {
      GTEST_SKIP() << "needs root to run with different real and effective user ids";
   }
   WriteLayers();
   // With the ids equal the same files give the user's layers (the layer order test).
   EXPECT_TRUE(testsupport::InChild([&] {
      LogCapture log;
      return setresuid(65534, 0, 0) == 0 && Preference_Init() &&
             Preference_Find("k3") == PREF_HOST_DEFAULTS &&
             Preference_Find("k1") == PREF_GLOBAL_SETTINGS &&
             log.Text().find("setuid: ignoring user's config and preferences\n") !=
                 std::string::npos;
   }));
}

TEST_F(PreferenceTest, ConcurrentCreationPublishesOneStore)
{
   WriteLayers();
   std::vector<int> seen(8);
   testsupport::RunThreads(8, [&](int i) {
      Preference_Init();
      seen[i] = Config_GetLong(0, "num");
   });
   EXPECT_EQ(seen, std::vector<int>(8, 32));
}

}  // namespace
