#include <stdio.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include "testSupport.h"

namespace fs = std::filesystem;
using testsupport::ScratchDir;

static const char kOpenerRel[] = "/Contents/Library/services/Open BRIX Services";

// Runs a copy of the probe at exe with args; returns its output without log stamps.
static std::string RunProbe(const std::string &exe, const std::string &args)
{
   FILE *pipe = popen(("'" + exe + "' " + args).c_str(), "r");
   std::string text;
   char buf[512];
   for (size_t n; pipe != nullptr && (n = fread(buf, 1, sizeof buf, pipe)) > 0;) {
      text.append(buf, n);
   }
   EXPECT_EQ(pipe != nullptr ? pclose(pipe) : -1, 0);
   return testsupport::StripStamps(text);
}

static std::string InstallProbe(const std::string &exe)
{
   fs::create_directories(fs::path(exe).parent_path());
   fs::copy_file(LOCATION_PROBE, exe);
   return exe;
}

TEST(Location, RootIsFoundAboveTheExecutable)
{
   ScratchDir scratch;
   std::string bundle = fs::canonical(scratch.Path()).string() + "/X/P.app";
   std::string exe = InstallProbe(bundle + kOpenerRel);

   // Keys match exactly; those other modules ask for but the table lacks yield null silently.
   EXPECT_EQ(RunProbe(exe, "brix-opener rootDir idFile rootdir icuDir prefDir"),
             "rootDir=" + bundle + "\nidFile=" + bundle + "/Contents/Library/tesmar-id\n" +
                 "rootdir=(null)\nicuDir=(null)\nprefDir=(null)\n");

   // A link to the executable resolves to the real bundle.
   std::string link = scratch / "link";
   ASSERT_EQ(symlink(exe.c_str(), link.c_str()), 0);
   EXPECT_EQ(RunProbe(link, "brix-opener rootDir"), "rootDir=" + bundle + "\n");

   // A second initialisation warns yet takes effect: "viewer" strips three components.
   EXPECT_EQ(RunProbe(exe, "brix-opener,viewer rootDir"),
             "Warning: Location_Init: Invalid initialization: sUpCount 4, processTag viewer.\n"
             "rootDir=" +
                 bundle + "/Contents\n");

   // Without an initialisation nothing is stripped.
   EXPECT_EQ(RunProbe(exe, "- msgDir"), "msgDir=" + exe + "/Contents/Library/messages\n");
}

TEST(Location, FailuresWarnAndYieldNull)
{
   ScratchDir scratch;
   std::string shallow = InstallProbe(fs::canonical(scratch.Path()).string() + "/probe");
   if (std::count(shallow.begin(), shallow.end(), '/') >= 4) {
      GTEST_SKIP() << "temporary directory too deep for this case: " << shallow;
   }
   EXPECT_EQ(RunProbe(shallow, "brix-daemon rootDir"),
             "Warning: LocationGetRoot: sUpCount (4) is too large for \n"
             "rootDir=(null)\n");

   const std::string unknownTag =
       "Warning: Location_Init: Invalid initialization: sUpCount 0, processTag nosuchTag.\n";
   EXPECT_EQ(RunProbe(shallow, "nosuchTag rootDir"), unknownTag + "rootDir=" + shallow + "\n");

   if (geteuid() != 0) {
      GTEST_SKIP() << "the set-user-ID case needs root";
   }
   // A set-user-ID process that failed to initialise must not trust its own location.
   EXPECT_EQ(RunProbe(shallow, "-u nosuchTag rootDir"),
             unknownTag +
                 "Warning: LocationGetRoot: Cannot get location root of a setuid process.\n"
                 "rootDir=(null)\n");
}
