/*
 * The opener with the services installation, run as nobody: a signed, root-owned bundle is
 * copied into the services directory and the daemon starts from the copy; every bad bundle is
 * refused before anything of it runs as root.
 */
#include <stdio.h>
#include <string.h>


#include "codesignTestSupport.h"
#include "e2eSupport.h"

namespace e2e {
namespace {

using cstest::Signer;

const std::string kServicesDir = kRoot + "/Library/Application Support/Tesmar/Larkview/Services";

struct BundleFile {
   const char *relative;
   const char *identifier;
};

// The nine files of the install table, below the bundle root.
const BundleFile kFiles[] = {
    {"/Contents/Library/tesmar-id", "tesmar-id"},
    {"/Contents/Library/tesmar-usbgate", "tesmar-usbgate"},
    {"/Contents/Library/productInfo", "productInfo"},
    {"/Contents/Library/kexts/quillmod.kext", "com.tesmar.quillmod"},
    {"/Contents/Library/services/BRIX Services", "BRIX Services"},
    {"/Contents/Library/services/services.sh", "services"},
    {"/Contents/Library/services/Open Tesmar USB Gate Service", "Open Tesmar USB Gate Service"},
    {"/Contents/Library/services/Tesmar USB Gate Service", "Tesmar USB Gate Service"},
    {"/Contents/Library/services/usbGateService.sh", "usbGateService"},
};

class InstallE2e : public OpenerE2e {
  public:
   void SetUp() override
   {
      OpenerE2e::SetUp();
      if (IsSkipped()) {
         return;
      }
      app_ = bundle_ + "/Larkview.app";
      MakeBundle();
   }

   std::string Src(const char *relative) const { return app_ + relative; }
   std::string BundleDaemon() const { return Src("/Contents/Library/services/BRIX Services"); }
   std::string Kext(const char *relative) const
   {
      return Src("/Contents/Library/kexts/quillmod.kext") + relative;
   }

   void MakeBundle()
   {
      for (const BundleFile &file : kFiles) {
         std::string path = Src(file.relative);
         fs::remove_all(path);
         if (strstr(file.relative, ".kext") != nullptr) {
            cstest::MakeBundle(path, file.identifier);
         } else if (strstr(file.relative, "BRIX Services") != nullptr) {
            fs::copy_file(E2E_SERVICES, path);
         } else {
            cstest::WriteFile(path, std::string("#!/bin/sh\n# ") + file.identifier + "\n", 0700);
         }
         ASSERT_TRUE(cstest::Sign(path, file.identifier)) << path;
      }
   }

   // One descriptor-mode hand-over by nobody; its status, its output in *output.
   int Run(std::string *output, const RunOptions &options = {})
   {
      int out = OpenOutput();
      int status = HandOver(out, options, output);
      close(out);
      return status;
   }

   std::string app_;
};

TEST_F(InstallE2e, InstallsAVerifiedRootOwnedCopyAndStartsTheDaemonFromIt)
{
   cstest::WriteFile(kServicesDir + "/stale", "left from an older version");
   std::string output;
   ASSERT_EQ(Run(&output), 0) << output;
   std::vector<pid_t> daemons = ProcessesRunning(kDaemonPath);
   ASSERT_EQ(daemons.size(), 1u);
   EXPECT_TRUE(ProcessesRunning(BundleDaemon()).empty());
   EXPECT_FALSE(fs::exists(kServicesDir + "/stale"));

   for (const BundleFile &file : kFiles) {
      std::string dst = kServicesDir + file.relative;
      struct stat st;
      ASSERT_EQ(lstat(dst.c_str(), &st), 0) << dst;
      EXPECT_EQ(st.st_uid, 0u) << dst;
      EXPECT_EQ(st.st_gid, 0u) << dst;
      mode_t want = strstr(file.relative, "productInfo") ? 0644 : 0755;
      EXPECT_EQ(st.st_mode & 07777, want) << dst;
      EXPECT_EQ(cstest::Check(dst, nullptr, true), CODESIGN_OK) << dst;
   }
   EXPECT_EQ(cstest::ReadFile(kDaemonPath), cstest::ReadFile(BundleDaemon()));
   EXPECT_EQ(Readlink(kServicesDir + "/Contents/Library/kexts/quillmod.kext/Contents/current"),
             "MacOS/quillmod");
   for (const char *dir : {"", "/Contents", "/Contents/Library", "/Contents/Library/kexts",
                           "/Contents/Library/services"}) {
      struct stat st;
      ASSERT_EQ(stat((kServicesDir + dir).c_str(), &st), 0);
      EXPECT_EQ(st.st_mode & 07777, 0755u) << dir;
      EXPECT_EQ(st.st_uid, 0u) << dir;
   }
   // A running daemon is found again; the bundle is not read.
   cstest::WriteFile(BundleDaemon(), "tampered after the start");
   EXPECT_EQ(Run(&output), 0) << output;
}

// Each case spoils a freshly signed bundle; the opener exits 1 and no daemon runs.
TEST_F(InstallE2e, RefusesEveryBadBundle)
{
   using Bytes = std::string &;
   auto flipByte = [](const std::string &path, size_t fromEnd) {
      cstest::Edit(path, [&](Bytes b) { b[b.size() - fromEnd] ^= 1; });
   };
   const struct {
      const char *name;
      std::function<void(InstallE2e &)> spoil;
      bool logsCodeSeven;  // of the bundle's daemon
   } cases[] = {
       {"unsigned daemon",
        [](InstallE2e &t) {
           fs::remove(t.BundleDaemon());
           fs::copy_file(E2E_SERVICES, t.BundleDaemon());
        },
        true},
       {"one byte changed after signing",
        [](InstallE2e &t) { cstest::Edit(t.BundleDaemon(), [](Bytes b) { b[64] ^= 1; }); }, true},
       {"wrong identifier", [](InstallE2e &t) { cstest::Sign(t.BundleDaemon(), "tesmar-id"); },
        true},
       {"untrusted CA",
        [](InstallE2e &t) { cstest::Sign(t.BundleDaemon(), "BRIX Services", Signer::kUntrusted); },
        true},
       {"leaf without the maker's name",
        [](InstallE2e &t) { cstest::Sign(t.BundleDaemon(), "BRIX Services", Signer::kForeign); },
        true},
       {"truncated blob",
        [](InstallE2e &t) {
           cstest::Edit(t.BundleDaemon(), [](Bytes b) {
              b.erase(b.size() - CODESIGN_INFO_LEN - CODESIGN_MARKER_LEN - 1, 1);
           });
        },
        true},
       {"oversized blob length",
        [&](InstallE2e &t) { flipByte(t.BundleDaemon(), CODESIGN_MARKER_LEN + 4); }, true},
       {"length pointing outside the file",
        [&](InstallE2e &t) { flipByte(t.BundleDaemon(), CODESIGN_MARKER_LEN + 3); }, true},
       {"daemon owned by a user",
        [](InstallE2e &t) { ASSERT_EQ(chown(t.BundleDaemon().c_str(), kNobody, 0), 0); }, false},
       {"daemon group not root",
        [](InstallE2e &t) { ASSERT_EQ(chown(t.BundleDaemon().c_str(), 0, kNobody), 0); }, false},
       {"symbolic link to a signed daemon",
        [](InstallE2e &t) {
           fs::rename(t.BundleDaemon(), t.app_ + "/real");
           fs::create_symlink(t.app_ + "/real", t.BundleDaemon());
        },
        false},
       {"kext file omitted", [](InstallE2e &t) { fs::remove(t.Kext("/Contents/MacOS/quillmod")); },
        false},
       {"kext file added",
        [](InstallE2e &t) { cstest::WriteFile(t.Kext("/Contents/MacOS/extra"), "x"); }, false},
       {"kext file altered",
        [](InstallE2e &t) { cstest::WriteFile(t.Kext("/Contents/MacOS/quillmod"), "x", 0755); },
        false},
       {"kext entry owned by a user",
        [](InstallE2e &t) {
           ASSERT_EQ(lchown(t.Kext("/Contents/current").c_str(), kNobody, 0), 0);
        },
        false},
       {"kext without identifier",
        [](InstallE2e &t) {
           cstest::WriteFile(t.Kext("/Contents/Info.plist"),
                             "<plist version=\"1.0\"><dict/></plist>");
        },
        false},
       {"companion file unsigned",
        [](InstallE2e &t) {
           cstest::WriteFile(t.Src("/Contents/Library/tesmar-id"), "#!/bin/sh\n", 0755);
        },
        false},
   };
   for (const auto &c : cases) {
      SCOPED_TRACE(c.name);
      StopAll(kDaemonPath);
      fs::remove_all(app_ + "/real");
      MakeBundle();
      c.spoil(*this);
      std::string output;
      EXPECT_EQ(Run(&output), 1) << output;
      EXPECT_TRUE(ProcessesRunning(kDaemonPath).empty());
      EXPECT_TRUE(ProcessesRunning(BundleDaemon()).empty());
      EXPECT_TRUE(ProcessesRunning(app_ + "/real").empty());
      if (c.logsCodeSeven) {
         EXPECT_NE(output.find("PrivilegedHelper: Failed to verify the code signature of " +
                               BundleDaemon() + " due to 7"),
                   std::string::npos)
             << output;
      }
   }
}

// Set-user-ID, the opener runs in the loader's secure-execution mode: a caller's LD_PRELOAD and
// LD_LIBRARY_PATH load nothing into it, and the daemon inherits neither.
TEST_F(InstallE2e, CallersLoaderVariablesHaveNoEffect)
{
#ifdef E2E_SANITIZER_ENV
   GTEST_SKIP() << "a sanitizer runtime refuses any preloaded library; checked in the plain build";
#endif
   std::string probeDir = bundle_ + "/probe";
   fs::create_directories(probeDir);
   fs::copy_file(PRELOAD_PROBE, probeDir + "/probe.so");
   fs::copy_file(PRELOAD_PROBE, probeDir + "/libc.so.6");
   fs::remove(PRELOAD_MARKER);
   // The probe works: an ordinary program loads it.
   std::string control = "LD_PRELOAD='" + probeDir + "/probe.so' /bin/true";
   ASSERT_EQ(system(control.c_str()), 0);
   ASSERT_TRUE(fs::exists(PRELOAD_MARKER));
   fs::remove(PRELOAD_MARKER);

   // The opener is static: there is no loader to read the variables.
   FILE *elf = popen(("readelf -d '" + opener_ + "'").c_str(), "r");
   ASSERT_NE(elf, nullptr);
   char line[512];
   std::string dynamic;
   while (fgets(line, sizeof line, elf) != nullptr) {
      dynamic += line;
   }
   pclose(elf);
   EXPECT_NE(dynamic.find("no dynamic section"), std::string::npos) << dynamic;

   RunOptions options;
   options.env.push_back("LD_PRELOAD=" + probeDir + "/probe.so");
   options.env.push_back("LD_LIBRARY_PATH=" + probeDir);
   std::string output;
   EXPECT_EQ(Run(&output, options), 0) << output;
   EXPECT_FALSE(fs::exists(PRELOAD_MARKER));
   std::vector<pid_t> daemons = ProcessesRunning(kDaemonPath);
   ASSERT_EQ(daemons.size(), 1u);
   std::string environ = ReadFile("/proc/" + std::to_string(daemons[0]) + "/environ");
   EXPECT_EQ(environ.find("LD_PRELOAD"), std::string::npos);
   EXPECT_EQ(environ.find("LD_LIBRARY_PATH"), std::string::npos);
}

}  // namespace
}  // namespace e2e
