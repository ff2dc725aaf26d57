#include <stdio.h>
#include <unistd.h>

#include <filesystem>

#include "testSupport.h"

namespace fs = std::filesystem;

// Runs the probe at exe (copied there first if need be); its output without log stamps.
static std::string RunProbe(const std::string &exe, const std::string &args)
{
   if (!fs::exists(exe)) {
      fs::create_directories(fs::path(exe).parent_path());
      fs::copy_file(LOCATION_PROBE, exe);
   }
   FILE *pipe = popen(("'" + exe + "' " + args).c_str(), "r");
   std::string text(4096, '\0');
   text.resize(pipe != nullptr ? fread(text.data(), 1, text.size(), pipe) : 0);
   EXPECT_EQ(pipe != nullptr ? pclose(pipe) : -1, 0);
   return testsupport::StripStamps(text);
}

TEST(Location, RootIsFoundAboveTheExecutableOrNotAtAll)
{
   testsupport::ScratchDir scratch;
   std::string bundle = fs::canonical(scratch.Path()).string() + "/X/P.app";
   std::string exe = bundle + "/Contents/Library/services/Open BRIX Services";
   const std::string root = "rootDir=" + bundle;
   // Keys match exactly; those other modules ask for but the table lacks yield null silently.
   EXPECT_EQ(RunProbe(exe, "brix-opener rootDir idFile rootdir"),
             root + "\nidFile=" + bundle + "/Contents/Library/tesmar-id\nrootdir=(null)\n");
   // A link to the executable resolves to the real bundle.
   ASSERT_EQ(symlink(exe.c_str(), (scratch / "link").c_str()), 0);
   EXPECT_EQ(RunProbe(scratch / "link", "brix-opener rootDir"), root + "\n");
   // A second initialisation warns yet takes effect: "viewer" strips three components.
   EXPECT_EQ(RunProbe(exe, "brix-opener,viewer rootDir"),
             "Warning: Location_Init: Invalid initialization: sUpCount 4, processTag viewer.\n" +
                 root + "/Contents\n");
   // An unknown tag strips nothing, except in a set-user-ID process, which must not trust it.
   const std::string unknownTag =
       "Warning: Location_Init: Invalid initialization: sUpCount 0, processTag nosuchTag.\n";
   EXPECT_EQ(RunProbe(exe, "nosuchTag rootDir"), unknownTag + "rootDir=" + exe + "\n");
   std::string shallow = fs::canonical(scratch.Path()).string() + "/probe";
   if (std::count(shallow.begin(), shallow.end(), '/') < 4) {
      EXPECT_EQ(RunProbe(shallow, "brix-daemon rootDir"),
                "Warning: LocationGetRoot: sUpCount (4) is too large for \nrootDir=(null)\n");
   }
   if (geteuid() != 0) {
      GTEST_SKIP() << "the set-user-ID case needs root";
   }
   EXPECT_EQ(RunProbe(exe, "-u nosuchTag rootDir"),
             unknownTag +
                 "Warning: LocationGetRoot: Cannot get location root of a setuid "
                 "process.\nrootDir=(null)\n");
}
