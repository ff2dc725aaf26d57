#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "location.h"
#include "testSupport.h"

namespace fs = std::filesystem;
using testsupport::LogCapture;
using testsupport::ScratchDir;

namespace {

const char kOpenerRel[] = "/Contents/Library/services/Open BRIX Services";

// Runs the probe (with real user id realUid and effective root when given); returns its output.
std::string RunProbe(const std::string &exe, std::vector<std::string> args, int realUid = -1)
{
   args.insert(args.begin(), exe);
   std::vector<char *> argv;
   for (std::string &arg : args) {
      argv.push_back(arg.data());
   }
   argv.push_back(nullptr);
   int out[2];
   EXPECT_EQ(pipe(out), 0);
   pid_t pid = fork();
   if (pid == 0) {
      dup2(out[1], 1);
      close(out[0]);
      if (realUid != -1 && setresuid(realUid, 0, 0) != 0) {
         _exit(3);
      }
      execv(exe.c_str(), argv.data());
      _exit(4);
   }
   close(out[1]);
   std::string text;
   char buf[512];
   ssize_t n;
   while ((n = read(out[0], buf, sizeof buf)) > 0) {
      text.append(buf, (size_t)n);
   }
   close(out[0]);
   int status = 0;
   waitpid(pid, &status, 0);
   EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
   return testsupport::StripStamps(text);
}

std::string InstallProbe(const std::string &exe)
{
   fs::create_directories(fs::path(exe).parent_path());
   fs::copy_file(LOCATION_PROBE, exe);
   return exe;
}

}  // namespace

TEST(Location, TablesAndConstants)
{
   EXPECT_STREQ(Location_GetRelative("rootDir"), "");
   EXPECT_STREQ(Location_GetRelative("serviceDaemonFile"),
                "/Contents/Library/services/BRIX Services");
   EXPECT_STREQ(Location_GetRelative("serviceOpenerFile"), kOpenerRel);
   EXPECT_STREQ(Location_GetRelative("productInfo"), "/Contents/Library/productInfo");
   EXPECT_STREQ(Location_GetRelative("usbGateKext"), "/Contents/Library/kexts/quillmod.kext");
   // Keys other modules ask for but the table lacks; matching is exact.
   EXPECT_EQ(Location_GetRelative("icuDir"), nullptr);
   EXPECT_EQ(Location_GetRelative("prefDir"), nullptr);
   EXPECT_EQ(Location_GetRelative("rootdir"), nullptr);

   std::string appSupport = Location_GetAppSupportDir();
   std::string suffix = "/Library/Application Support/Tesmar/Larkview";
   ASSERT_GE(appSupport.size(), suffix.size());
   EXPECT_EQ(appSupport.substr(appSupport.size() - suffix.size()), suffix);

   EXPECT_EQ(Location_GetResolver(), &Location_Get);
   EXPECT_EQ(Location_GetInstallHook(), nullptr);
   LocationInstallHook hook = [] { return true; };
   Location_SetInstallHook(hook);
   EXPECT_EQ(Location_GetInstallHook(), hook);
   Location_SetInstallHook(nullptr);
}

TEST(Location, RootIsFoundAboveTheExecutable)
{
   ScratchDir scratch;
   std::string bundle = fs::canonical(scratch.Path()).string() + "/X/P.app";
   std::string exe = InstallProbe(bundle + kOpenerRel);

   EXPECT_EQ(RunProbe(exe, {"brix-opener", "rootDir", "idFile", "nosuchKey"}),
             "rootDir=" + bundle + "\nidFile=" + bundle + "/Contents/Library/tesmar-id\n" +
                 "nosuchKey=(null)\n");

   // A link to the executable resolves to the real bundle.
   std::string link = scratch / "link";
   ASSERT_EQ(symlink(exe.c_str(), link.c_str()), 0);
   EXPECT_EQ(RunProbe(link, {"brix-opener", "rootDir"}), "rootDir=" + bundle + "\n");

   // A second initialisation warns yet takes effect: "viewer" strips three components.
   EXPECT_EQ(RunProbe(exe, {"brix-opener,viewer", "rootDir"}),
             "Warning: Location_Init: Invalid initialization: sUpCount 4, processTag viewer.\n"
             "rootDir=" +
                 bundle + "/Contents\n");

   // Without an initialisation nothing is stripped.
   EXPECT_EQ(RunProbe(exe, {"-", "msgDir"}), "msgDir=" + exe + "/Contents/Library/messages\n");
}

TEST(Location, FailuresWarnAndYieldNull)
{
   ScratchDir scratch;
   std::string shallow = InstallProbe(fs::canonical(scratch.Path()).string() + "/probe");
   std::string realPath = shallow;
   int slashes = 0;
   for (char c : realPath) {
      slashes += c == '/';
   }
   if (slashes >= 4) {
      GTEST_SKIP() << "temporary directory too deep for this case: " << realPath;
   }
   EXPECT_EQ(RunProbe(shallow, {"brix-daemon", "rootDir"}),
             "Warning: LocationGetRoot: sUpCount (4) is too large for \n"
             "rootDir=(null)\n");

   EXPECT_EQ(RunProbe(shallow, {"nosuchTag", "rootDir"}),
             "Warning: Location_Init: Invalid initialization: sUpCount 0, processTag nosuchTag.\n"
             "rootDir=" +
                 realPath + "\n");

   if (geteuid() != 0) {
      GTEST_SKIP() << "the set-user-ID case needs root";
   }
   // A set-user-ID process that failed to initialise must not trust its own location.
   EXPECT_EQ(RunProbe(shallow, {"nosuchTag", "rootDir"}, 65534),
             "Warning: Location_Init: Invalid initialization: sUpCount 0, processTag nosuchTag.\n"
             "Warning: LocationGetRoot: Cannot get location root of a setuid process.\n"
             "rootDir=(null)\n");
}
