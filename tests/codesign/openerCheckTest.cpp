#include <gtest/gtest.h>

#include <limits.h>
#include <stdlib.h>

#include "codeSignature.h"
#include "codesignTestSupport.h"
#include "testSupport.h"

namespace {

using namespace cstest;

std::string Failure(const std::string &path, int code)
{
   return "PrivilegedHelper: Failed to verify the code signature of " + path + " due to " +
          std::to_string(code);
}

TEST(OpenerCheck, LogsTheCodeOfTheFailingStep)
{
   testsupport::ScratchDir dir;
   std::string good = dir / "BRIX Services";
   WriteFile(good, "daemon", 0755);
   ASSERT_TRUE(Sign(good, "BRIX Services"));
   std::string longPath = dir.Path() + "/" + std::string(PATH_MAX, 'a');
   // The code (0: passes without a message); the opener's refusals with code 7 are checked
   // through its installation.
   const struct {
      std::string path;
      const char *identifier;
      int code;
   } cases[] = {
       {good, "BRIX Services", 0},
       {"/tmp/\xff\xfe", "BRIX Services", 1},
       {"/tmp/\xed\xa0\x80", "BRIX Services", 1},  // an encoded surrogate
       {longPath, "BRIX Services", 2},
       {dir / "missing", "BRIX Services", 3},
       {dir.Path(), "BRIX Services", 3},  // a directory that is no bundle
       {good, "bad \" quote", 6},
   };
   for (const auto &c : cases) {
      testsupport::LogCapture log;
      EXPECT_EQ(PrivilegedHelper_CheckCodeSignature(c.path.c_str(), c.identifier), c.code == 0)
          << c.path.substr(0, 80);
      if (c.code != 2) {  // the log line for a path beyond PATH_MAX exceeds the log's own line
         EXPECT_EQ(log.Text(), c.code == 0 ? "" : Failure(c.path, c.code)) << c.path;
      }
   }
}

TEST(OpenerCheck, BundleIdentifierReportsWhyItIsMissing)
{
   testsupport::ScratchDir dir;
   MakeBundle(dir / "k.kext", "com.tesmar.quillmod");
   WriteFile(
       dir / "none.kext/Contents/Info.plist",
       "<plist version=\"1.0\"><dict><key>CFBundleName</key><string>q</string></dict></plist>");
   WriteFile(dir / "file", "x");
   const struct {
      std::string path;
      int code;
   } cases[] = {{dir / "k.kext", 0},
                {std::string("\xc0\xaf"), 1},
                {dir / "file", 3},
                {dir / "missing", 3},
                {dir / "none.kext", 4}};
   for (const auto &c : cases) {
      testsupport::LogCapture log;
      char *id = CoreFoundationUtils_GetBundleIdentifier(c.path.c_str());
      EXPECT_EQ(testsupport::Take(id), c.code == 0 ? "com.tesmar.quillmod" : "(null)") << c.path;
      EXPECT_EQ(log.Text(), c.code == 0
                                ? ""
                                : "CoreFoundationUtils: Failed to get bundle identifier for " +
                                      c.path + " due to (" + std::to_string(c.code) + ").\n");
   }
}

}  // namespace
