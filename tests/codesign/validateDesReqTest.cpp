#include <gtest/gtest.h>

#include <stdlib.h>
#include <string.h>
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
   SafeCopy(const std::string &srcDir, std::vector<const char *> names)
   {
      testsupport::LogCapture capture;
      ok = FileMacOSValidateDesReq(srcDir.c_str(), names.data(), names.size(), &dir);
      log = capture.Text();
   }
   ~SafeCopy() { free(dir); }
   bool ok;
   char *dir = nullptr;
   std::string log;
};

// Source files named by what they are: "one" and "two" signed by the maker, the others spoiled.
void MakeSources(const testsupport::ScratchDir &src)
{
   for (auto [name, signer] : {std::pair{"one", Signer::kMaker},
                               {"two", Signer::kMaker},
                               {"foreign", Signer::kForeign},
                               {"untrusted", Signer::kUntrusted}}) {
      WriteFile(src / name, std::string("tool ") + name, 0755);
      ASSERT_TRUE(Sign(src / name, name, signer));
   }
   WriteFile(src / "unsigned", "plain", 0755);
}

TEST(ValidateDesReq, CopiesAndValidatesEveryFileIntoAFreshOwnerOnlyDirectory)
{
   testsupport::ScratchDir src;
   MakeSources(src);
   SafeCopy copy(src.Path(), {"one", "two"});
   ASSERT_TRUE(copy.ok && copy.dir != nullptr) << copy.log;
   struct stat st;
   EXPECT_TRUE(stat(copy.dir, &st) == 0 && (st.st_mode & 0777) == 0700);
   EXPECT_NE(std::string(copy.dir).find("safeDir" + std::to_string(getpid())), std::string::npos);
   for (const char *name : {"one", "two"}) {
      std::string dst = std::string(copy.dir) + "/" + name;
      EXPECT_EQ(ReadFile(dst), ReadFile(src / name));
      EXPECT_NE(copy.log.find("FILE: Validated designated requirements \"" + kDesReq +
                              "\" for file \"" + dst + "\""),
                std::string::npos);
   }
   SafeCopy none(src.Path(), {});
   EXPECT_TRUE(none.ok && none.dir != nullptr && strcmp(none.dir, copy.dir) != 0);
   std::filesystem::remove_all(copy.dir);
   std::filesystem::remove_all(none.dir);
}

TEST(ValidateDesReq, FirstFailureEndsWithNoDirectoryAndSaysWhy)
{
   testsupport::ScratchDir src;
   MakeSources(src);
   for (const char *bad : {"missing", "unsigned", "foreign", "untrusted"}) {
      SafeCopy copy(src.Path(), {"one", bad, "two"});
      EXPECT_TRUE(!copy.ok && copy.dir == nullptr) << bad;
      std::string says = *bad == 'm' ? "FILE: File_Copy failed, from \"" + src / "missing" + "\""
                                     : "SecStaticCodeCheckValidity for file";
      EXPECT_NE(copy.log.find(says), std::string::npos) << bad << ": " << copy.log;
      if (*bad != 'm') {
         EXPECT_NE(copy.log.find("FILE: Failed to validate designated requirements \"" + kDesReq),
                   std::string::npos)
             << copy.log;
      }
   }
}

}  // namespace
