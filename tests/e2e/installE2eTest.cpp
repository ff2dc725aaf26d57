/*
 * The opener with the services installation, run as nobody: a signed, root-owned bundle is
 * copied into the services directory and the daemon starts from the copy; every bad bundle is
 * refused before anything of it runs as root.
 */
#include <stdio.h>
#include <string.h>

#include <set>

#include "codesignTestSupport.h"
#include "e2eSupport.h"

namespace e2e {
namespace {

using cstest::Signer;

const std::string kServicesDir = kRoot + "/Library/Application Support/Tesmar/Larkview/Services";
const std::string kDaemon = "/Contents/Library/services/BRIX Services";
const std::string kKext = "/Contents/Library/kexts/quillmod.kext";

// The nine files of the install table below the bundle's Contents/Library; each is signed with
// its name (without ".sh"), the kext with its bundle identifier.
const char *kFiles[] = {"tesmar-id",
                        "tesmar-usbgate",
                        "productInfo",
                        "kexts/quillmod.kext",
                        "services/BRIX Services",
                        "services/services.sh",
                        "services/Open Tesmar USB Gate Service",
                        "services/Tesmar USB Gate Service",
                        "services/usbGateService.sh"};

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

   // Every file of the bundle, freshly made and signed.
   void MakeBundle()
   {
      for (std::string relative : kFiles) {
         relative = "/Contents/Library/" + relative;
         std::string path = app_ + relative;
         std::string identifier =
             relative == kKext ? "com.tesmar.quillmod" : fs::path(relative).stem().string();
         fs::remove_all(path);
         if (relative == kKext) {
            cstest::MakeBundle(path, identifier);
         } else if (relative == kDaemon) {
            fs::copy_file(E2E_SERVICES, path);
         } else {
            cstest::WriteFile(path, std::string("#!/bin/sh\n# ") + identifier + "\n", 0700);
         }
         ASSERT_TRUE(cstest::Sign(path, identifier)) << path;
      }
   }

   // One descriptor-mode hand-over by nobody; its status, its output in *output.
   int Run(std::string *output, const RunOptions &options = {})
   {
      return HandOver(options, output);
   }

   std::string app_;
};

TEST_F(InstallE2e, InstallsAVerifiedRootOwnedCopyAndStartsTheDaemonFromIt)
{
   cstest::WriteFile(kServicesDir + "/stale", "left from an older version");
   std::string output;
   ASSERT_EQ(Run(&output), 0) << output;
   EXPECT_EQ(ProcessesRunning(kDaemonPath).size(), 1u);
   EXPECT_TRUE(ProcessesRunning(app_ + kDaemon).empty());
   EXPECT_FALSE(fs::exists(kServicesDir + "/stale"));
   for (const char *file : kFiles) {
      std::string dst = kServicesDir + "/Contents/Library/" + file;
      struct stat st;
      mode_t want = dst.ends_with("productInfo") ? 0644 : 0755;
      EXPECT_TRUE(lstat(dst.c_str(), &st) == 0 && st.st_uid == 0 && st.st_gid == 0 &&
                  (st.st_mode & 07777) == want)
          << dst;
      EXPECT_EQ(cstest::Check(dst, nullptr, true), CODESIGN_OK) << dst;
   }
   EXPECT_EQ(ReadFile(kDaemonPath), ReadFile(app_ + kDaemon));
   EXPECT_EQ(fs::read_symlink(kServicesDir + kKext + "/Contents/current"), "MacOS/quillmod");
   for (const char *dir : {"", "/Contents", "/Contents/Library", "/Contents/Library/kexts",
                           "/Contents/Library/services"}) {
      struct stat st;
      EXPECT_TRUE(stat((kServicesDir + dir).c_str(), &st) == 0 && st.st_uid == 0 &&
                  (st.st_mode & 07777) == 0755)
          << dir;
   }
   // A running daemon is found again; the bundle is not read.
   cstest::WriteFile(app_ + kDaemon, "tampered after the start");
   EXPECT_EQ(Run(&output), 0) << output;
}

// Each case spoils a freshly signed bundle; the opener exits 1 and no daemon runs. A damaged
// signature of the daemon is logged with code 7.
TEST_F(InstallE2e, RefusesEveryBadBundle)
{
   using Bytes = std::string &;
   auto edit = [](const std::string &relative, std::function<void(Bytes)> change) {
      return [=](const std::string &app) { cstest::Edit(app + relative, change); };
   };
   auto sign = [](const char *identifier, Signer signer) {
      return [=](const std::string &app) { cstest::Sign(app + kDaemon, identifier, signer); };
   };
   auto own = [](const std::string &relative, uid_t uid, gid_t gid) {
      return
          [=](const std::string &app) { ASSERT_EQ(lchown((app + relative).c_str(), uid, gid), 0); };
   };
   auto write = [](const std::string &relative, const char *text, mode_t mode = 0644) {
      return [=](const std::string &app) { cstest::WriteFile(app + relative, text, mode); };
   };
   const size_t kTrailer = CODESIGN_INFO_LEN + CODESIGN_MARKER_LEN;
   const std::string kMacOS = kKext + "/Contents/MacOS";
   const struct {
      const char *name;
      std::function<void(const std::string &)> spoil;
      bool logsCodeSeven;
   } cases[] = {
       {"unsigned daemon",
        [](const std::string &app) {
           fs::remove(app + kDaemon);
           fs::copy_file(E2E_SERVICES, app + kDaemon);
        },
        true},
       {"one byte changed after signing", edit(kDaemon, [](Bytes b) { b[64] ^= 1; }), true},
       {"wrong identifier", sign("tesmar-id", Signer::kMaker), true},
       {"untrusted CA", sign("BRIX Services", Signer::kUntrusted), true},
       {"leaf without the maker's name", sign("BRIX Services", Signer::kForeign), true},
       {"truncated blob", edit(kDaemon, [&](Bytes b) { b.erase(b.size() - kTrailer - 1, 1); }),
        true},
       {"oversized blob length",
        edit(kDaemon, [](Bytes b) { b[b.size() - CODESIGN_MARKER_LEN - 4] ^= 1; }), true},
       {"length pointing outside the file",
        edit(kDaemon, [](Bytes b) { b[b.size() - CODESIGN_MARKER_LEN - 3] ^= 1; }), true},
       {"daemon owned by a user", own(kDaemon, kNobody, 0), false},
       {"daemon group not root", own(kDaemon, 0, kNobody), false},
       {"symbolic link to a signed daemon",
        [](const std::string &app) {
           fs::rename(app + kDaemon, app + "/real");
           fs::create_symlink(app + "/real", app + kDaemon);
        },
        false},
       {"kext file omitted",
        [&](const std::string &app) { fs::remove(app + kMacOS + "/quillmod"); }, false},
       {"kext file added", write(kMacOS + "/extra", "x"), false},
       {"kext file altered", write(kMacOS + "/quillmod", "x", 0755), false},
       {"kext entry owned by a user", own(kKext + "/Contents/current", kNobody, 0), false},
       {"kext without identifier",
        write(kKext + "/Contents/Info.plist", "<plist version=\"1.0\"><dict/></plist>"), false},
       {"companion file unsigned", write("/Contents/Library/tesmar-id", "#!/bin/sh\n", 0755),
        false},
   };
   for (const auto &c : cases) {
      SCOPED_TRACE(c.name);
      StopAll(kDaemonPath);
      fs::remove_all(app_ + "/real");
      MakeBundle();
      c.spoil(app_);
      std::string output;
      EXPECT_EQ(Run(&output), 1) << output;
      for (const std::string &path : {kDaemonPath, app_ + kDaemon, app_ + "/real"}) {
         EXPECT_TRUE(ProcessesRunning(path).empty()) << path;
      }
      if (c.logsCodeSeven) {
         EXPECT_NE(output.find("PrivilegedHelper: Failed to verify the code signature of " + app_ +
                               kDaemon + " due to 7"),
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
   fs::copy_file(PRELOAD_PROBE, probeDir + "/libplist-2.0.so.3");
   fs::copy_file(PRELOAD_PROBE, probeDir + "/libc.so.6");
   fs::remove(PRELOAD_MARKER);
   // The probe works: an ordinary program loads it.
   std::string control = "LD_PRELOAD='" + probeDir + "/probe.so' /bin/true";
   ASSERT_EQ(system(control.c_str()), 0);
   ASSERT_TRUE(fs::exists(PRELOAD_MARKER));
   fs::remove(PRELOAD_MARKER);

   // The loader maps the C library and nothing else; libplist is loaded by absolute path.
   FILE *elf = popen(("readelf -d '" + opener_ + "'").c_str(), "r");
   ASSERT_NE(elf, nullptr);
   char line[512];
   std::set<std::string> needed;
   while (fgets(line, sizeof line, elf) != nullptr) {
      if (const char *open = strstr(line, "Shared library: [")) {
         needed.emplace(open + 17, strcspn(open + 17, "]"));
      }
   }
   pclose(elf);
   EXPECT_EQ(needed, (std::set<std::string>{"ld-linux-x86-64.so.2", "libc.so.6"}));

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
