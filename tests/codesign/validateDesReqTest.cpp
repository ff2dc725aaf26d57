#include <gtest/gtest.h>

#include <stdlib.h>
#include <sys/stat.h>

#include <filesystem>

#include "codesignTestSupport.h"
#include "file.h"
#include "testSupport.h"

namespace {

using namespace cstest;

const std::string kDesReq =
    "anchor apple generic and anchor trusted and cert leaf[subject.CN] = *\"Tesmar, Inc.\"*";

struct SafeCopy {
   bool ok;
   char *dir = nullptr;
   std::string log;
   ~SafeCopy() { free(dir); }
};

void SafeRun(SafeCopy &out, const std::string &srcDir, std::vector<const char *> names)
{
   testsupport::LogCapture log;
   out.ok = FileMacOSValidateDesReq(srcDir.c_str(), names.data(), names.size(), &out.dir);
   out.log = log.Text();
}

TEST(ValidateDesReq, CopiesAndValidatesEveryFileIntoAFreshOwnerOnlyDirectory)
{
   testsupport::ScratchDir src;
   for (const char *name : {"one", "two"}) {
      WriteFile(src / name, std::string("tool ") + name, 0755);
      ASSERT_TRUE(Sign(src / name, name));
   }
   SafeCopy copy;
   SafeRun(copy, src.Path(), {"one", "two"});
   ASSERT_TRUE(copy.ok) << copy.log;
   ASSERT_NE(copy.dir, nullptr);
   struct stat st;
   ASSERT_EQ(stat(copy.dir, &st), 0);
   EXPECT_EQ(st.st_mode & 0777, 0700u);
   EXPECT_NE(std::string(copy.dir).find("safeDir" + std::to_string(getpid())), std::string::npos);
   for (const char *name : {"one", "two"}) {
      std::string dst = std::string(copy.dir) + "/" + name;
      EXPECT_EQ(ReadFile(dst), ReadFile(src / name));
      EXPECT_NE(copy.log.find("FILE: Validated designated requirements \"" + kDesReq +
                              "\" for file \"" + dst + "\""),
                std::string::npos);
   }

   SafeCopy none;
   SafeRun(none, src.Path(), {});
   EXPECT_TRUE(none.ok);
   EXPECT_NE(none.dir, nullptr);
   EXPECT_STRNE(none.dir, copy.dir);
   std::filesystem::remove_all(copy.dir);
   std::filesystem::remove_all(none.dir);
}

TEST(ValidateDesReq, FirstFailureEndsWithNoDirectoryAndSaysWhy)
{
   testsupport::ScratchDir src;
   WriteFile(src / "good", "good", 0755);
   ASSERT_TRUE(Sign(src / "good", "good"));
   WriteFile(src / "unsigned", "plain", 0755);
   WriteFile(src / "foreign", "foreign", 0755);
   ASSERT_TRUE(Sign(src / "foreign", "foreign", Signer::kForeign));
   WriteFile(src / "untrusted", "untrusted", 0755);
   ASSERT_TRUE(Sign(src / "untrusted", "untrusted", Signer::kUntrusted));
   const struct {
      const char *bad;
      std::string says;
   } cases[] = {
       {"missing", "FILE: File_Copy failed, from \"" + src / "missing" + "\""},
       {"unsigned", "SecStaticCodeCheckValidity for file"},
       {"foreign", "SecStaticCodeCheckValidity for file"},
       {"untrusted", "SecStaticCodeCheckValidity for file"},
   };
   for (const auto &c : cases) {
      SafeCopy copy;
      SafeRun(copy, src.Path(), {"good", c.bad, "good"});
      EXPECT_FALSE(copy.ok) << c.bad;
      EXPECT_EQ(copy.dir, nullptr) << c.bad;
      EXPECT_NE(copy.log.find(c.says), std::string::npos) << c.bad << ": " << copy.log;
      if (std::string(c.bad) != "missing") {
         EXPECT_NE(copy.log.find("FILE: Failed to validate designated requirements \"" + kDesReq),
                   std::string::npos)
             << copy.log;
      }
   }
}

}  // namespace
