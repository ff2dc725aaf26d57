/*
 * The preference store and the Config getters: early access, the six layers' precedence with
 * real files under a private root, disabled user files, the set-user-ID rule, the dump.
 */
#include <unistd.h>

#include <string>
#include <vector>

#include "config.h"
#include "msg.h"
#include "preference.h"
#include "testSupport.h"
#include "util.h"

namespace {

using testsupport::LogCapture;
using testsupport::ScratchDir;
using testsupport::Take;

const std::string kHostDir = BRIX_ROOT_PREFIX "/Library/Preferences/Larkview";
const std::string kHostFile = kHostDir + "/config";

void WriteFile(const std::string &path, const std::string &text)
{
   ASSERT_EQ(system(("mkdir -p '" + path.substr(0, path.rfind('/')) + "'").c_str()), 0);
   testsupport::WriteFile(path, text);
}

std::string Messages()
{
   MsgList *msgs = Msg_TakeList();
   std::string text;
   for (MsgList *m = msgs; m != nullptr; m = m->next) {
      text.insert(0, m->id + std::string("\n"));
   }
   MsgList_Free(msgs);
   return text;
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
                               "k5 = \"host\"\nnum = \"0x20\"\nbig = \"-3\"\nratio = \"2.5\"\n"
                               "tri = \"auto\"\nflag = \"on\"\n");
      WriteFile(lib_ / "config",
                "k1 = \"site\"\nk2 = \"site\"\nk3 = \"site\"\nk4 = \"site\"\n"
                "k5 = \"site\"\nk6 = \"site\"\n");
   }
   ScratchDir home_;
   ScratchDir lib_;
};

TEST_F(PreferenceTest, EarlyAccessAnswersWithDefaults)
{
   LogCapture log;
   EXPECT_EQ(Config_GetLong(5, "early.%d", 1), 5);
   EXPECT_TRUE(Config_GetBool(true, "early.bool"));
   EXPECT_TRUE(Config_GetTriStateAsBool(true, "early.tri"));
   EXPECT_EQ(Config_GetInt64(-9, "early.int64"), -9);
   EXPECT_EQ(Config_GetDouble(0.5, "early.double"), 0.5);
   EXPECT_EQ(Take(Config_GetString("dflt", "early.string")), "dflt");
   EXPECT_EQ(Config_GetString(nullptr, "early.none"), nullptr);
   EXPECT_TRUE(Config_NotSet("early.unset"));
   EXPECT_FALSE(Preference_SetFromString("a=b", true));
   EXPECT_EQ(log.Text(),
             "PREF early PreferenceGet(early.1), using default\n"
             "PREF early PreferenceGet(early.bool), using default\n"
             "PREF early PreferenceGet(early.tri), using default\n"
             "PREF early PreferenceGet(early.int64), using default\n"
             "PREF early PreferenceGet(early.double), using default\n"
             "PREF early PreferenceGet(early.string), using default\n"
             "PREF early PreferenceGet(early.none), using default\n");
}

TEST_F(PreferenceTest, SixLayersInTheirOrder)
{
   WriteLayers();
   ASSERT_TRUE(Preference_Init());
   ASSERT_TRUE(Preference_SetFromString("k2=nonpersistent", false));
   ASSERT_TRUE(Preference_SetFromString("k1=nonpersistent", false));
   struct Case {
      const char *name;
      const char *value;
      PreferenceLayer layer;
   } cases[] = {
       {"k1", "global", PREF_GLOBAL_SETTINGS},
       {"k2", "nonpersistent", PREF_NON_PERSISTENT},
       {"k3", "userprefs", PREF_USER_PREFERENCES},
       {"k4", "userdefs", PREF_USER_DEFAULTS},
       {"K5", "host", PREF_HOST_DEFAULTS},
       {"k6", "site", PREF_SITE_DEFAULTS},
       {"k7", "none", PREF_NO_LAYER},
   };
   for (const auto &c : cases) {
      SCOPED_TRACE(c.name);
      EXPECT_EQ(Take(Config_GetString("none", "%s", c.name)), c.value);
      EXPECT_EQ(Preference_Find(c.name), c.layer);
      EXPECT_EQ(Config_NotSet("%s", c.name), c.layer == PREF_NO_LAYER);
   }
   EXPECT_EQ(Config_GetLong(0, "num"), 32);
   EXPECT_EQ(Config_GetInt64(0, "big"), -3);
   EXPECT_EQ(Config_GetDouble(0, "ratio"), 2.5);
   EXPECT_EQ(Config_GetTriState(1, "tri"), -1);
   EXPECT_FALSE(Config_GetTriStateAsBool(false, "tri"));
   EXPECT_TRUE(Config_GetBool(false, "flag"));
   EXPECT_EQ(Config_GetLong(4, "missing"), 4);
   EXPECT_EQ(Take(Config_GetPathName(nullptr, "path")), home_ / "sub");
   EXPECT_EQ(Messages(), "");

   // A malformed value gives the default and tells the user; a kept entry tells too.
   EXPECT_EQ(Config_GetLong(12, "badlong"), 12);
   EXPECT_FALSE(Preference_SetFromString("k2=again", false));
   EXPECT_EQ(Messages(), "msg.dictionary.notInteger\nmsg.dictionary.alreadyDefined.string\n");
   EXPECT_TRUE(Preference_SetFromString("k2=again", true));
   EXPECT_TRUE(Preference_SetFromString("noValue", true));
   EXPECT_EQ(Take(Config_GetString(nullptr, "k2")), "again");
   EXPECT_EQ(Take(Config_GetString(nullptr, "noValue")), "");

   EXPECT_EQ(Take(Preference_LayerPath(PREF_SITE_DEFAULTS)), lib_ / "config");

   LogCapture log;
   Preference_Log();
   std::string dump = log.Text();
   EXPECT_NE(dump.find("DICT --- GLOBAL SETTINGS " + lib_ / "settings" +
                       "\n"
                       "DICT                        k1 = \"global\"\n"
                       "DICT --- NON PERSISTENT \n"),
             std::string::npos)
       << dump;
   EXPECT_NE(dump.find("DICT --- USER PREFERENCES " +
                       home_ / "Library/Preferences/Larkview/preferences\n"),
             std::string::npos);
   EXPECT_NE(dump.find("DICT --- HOST DEFAULTS " + kHostFile + "\n"), std::string::npos);
}

TEST_F(PreferenceTest, MissingFilesAreLoggedOnceAndNeverFail)
{
   LogCapture log;
   ASSERT_TRUE(Preference_Init());
   ASSERT_TRUE(Preference_Init());
   std::string text = log.Text();
   const std::string missing =
       "PREF Optional preferences file not found at " + kHostFile + ". Using default values.\n";
   ASSERT_NE(text.find(missing), std::string::npos) << text;
   EXPECT_EQ(text.find(missing, text.find(missing) + 1), std::string::npos);
   EXPECT_NE(text.find("PREF Optional preferences file not found at /dev/null/Non-existing "
                       "DEFAULT_LIBDIRECTORY/settings. Using default values.\n"),
             std::string::npos);
   EXPECT_TRUE(Config_NotSet("anything"));
}

TEST_F(PreferenceTest, UserFilesLeftOut)
{
   WriteLayers();
   ASSERT_TRUE(Preference_InitNoUserFiles());
   EXPECT_EQ(Preference_Find("k3"), PREF_HOST_DEFAULTS);
   EXPECT_EQ(Preference_Find("k1"), PREF_GLOBAL_SETTINGS);
   Preference_Exit();

   WriteLayers("disableUserPreferences = \"TRUE\"\n");
   LogCapture log;
   ASSERT_TRUE(Preference_Init());
   EXPECT_NE(log.Text().find("PREF Disabling user preferences because disableUserPreferences is "
                             "set.\n"),
             std::string::npos);
   EXPECT_EQ(log.Text().find(home_.Path()), std::string::npos);
   EXPECT_EQ(Preference_Find("k3"), PREF_HOST_DEFAULTS);
   EXPECT_EQ(Preference_LayerPath(PREF_USER_PREFERENCES), nullptr);
}

TEST_F(PreferenceTest, SetUserIdIgnoresTheUsersFiles)
{
   if (geteuid() != 0) {
      GTEST_SKIP() << "needs root to run a helper with different real and effective user ids";
   }
   WriteLayers();
   std::string logPath = home_ / "probe.log";
   std::string outPath = home_ / "probe.out";
   // The helper reads the user's files when its ids agree, and not when they differ.
   for (bool differ : {false, true}) {
      SCOPED_TRACE(differ);
      // The probe's exit status is the child's.
      ASSERT_TRUE(testsupport::InChild([&] {
         setenv("CFFIXED_USER_HOME", home_.Path().c_str(), 1);
         return freopen(outPath.c_str(), "w", stdout) != nullptr &&
                (!differ || setresuid(65534, 0, 0) == 0) &&
                execl(PREF_PROBE, PREF_PROBE, logPath.c_str(), "k3", "k1", (char *)nullptr) == 0;
      }));
      std::string log = testsupport::StripStamps(testsupport::ReadFile(logPath));
      bool ignored =
          log.find("setuid: ignoring user's config and preferences\n") != std::string::npos;
      EXPECT_EQ(ignored, differ) << log;
      EXPECT_EQ(testsupport::ReadFile(outPath),
                differ ? "k3=host@HOST DEFAULTS\nk1=global@GLOBAL SETTINGS\n"
                       : "k3=userprefs@USER PREFERENCES\n"
                         "k1=global@GLOBAL SETTINGS\n");
   }
}

TEST_F(PreferenceTest, ConcurrentCreationPublishesOneStore)
{
   WriteLayers();
   std::vector<int> seen(8);
   testsupport::RunThreads(8, [&](int i) {
      Preference_Init();
      seen[i] = Config_GetLong(0, "num");
   });
   for (int v : seen) {
      EXPECT_EQ(v, 32);
   }
}

}  // namespace
