/*
 * The opener with the services installation, run as nobody: a signed, root-owned bundle is
 * copied into the services directory and the daemon starts from the copy; every bad bundle is
 * refused before anything of it runs as root.
 */
#include <stdlib.h>

#include "codesignTestSupport.h"
#include "e2eSupport.h"

namespace e2e {
namespace {

using cstest::Signer;

const std::string kServicesDir = kRoot + "/Library/Application Support/Tesmar/Larkview/Services";
const std::string kDaemon = "/Contents/Library/services/BRIX Services";
const std::string kKext = "/Contents/Library/kexts/quillmod.kext";
constexpr auto kOverwrite = fs::copy_options::overwrite_existing;

// The nine files of the install table below the bundle's Contents/Library; each is signed with
// its name (without ".sh"), the kext with its bundle identifier.
// clang-format off
const char *kFiles[] = {"tesmar-id", "tesmar-usbgate", "productInfo", "kexts/quillmod.kext",
   "services/BRIX Services", "services/services.sh", "services/Open Tesmar USB Gate Service",
   "services/Tesmar USB Gate Service", "services/usbGateService.sh"};
// clang-format on

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

   std::string app_;
};

TEST_F(InstallE2e, InstallsAVerifiedRootOwnedCopyAndStartsTheDaemonFromIt)
{
   cstest::WriteFile(kServicesDir + "/stale", "left from an older version");
   std::string output;
   ASSERT_EQ(HandOver({}, &output), 0) << output;
   EXPECT_EQ(ProcessesRunning(kDaemonPath).size(), 1u);
   EXPECT_TRUE(ProcessesRunning(app_ + kDaemon).empty());
   EXPECT_FALSE(fs::exists(kServicesDir + "/stale"));
   for (const char *file : kFiles) {
      std::string dst = kServicesDir + "/Contents/Library/" + file;
      EXPECT_TRUE(OwnedByRootWithMode(dst, dst.ends_with("productInfo") ? 0644 : 0755)) << dst;
      EXPECT_EQ(cstest::Check(dst, nullptr, true), CODESIGN_OK) << dst;
   }
   for (const char *dir : {"", "/Contents", "/Contents/Library", "/Contents/Library/kexts",
                           "/Contents/Library/services"}) {
      EXPECT_TRUE(OwnedByRootWithMode(kServicesDir + dir, 0755)) << dir;
   }
   EXPECT_EQ(ReadFile(kDaemonPath), ReadFile(app_ + kDaemon));
   EXPECT_EQ(fs::read_symlink(kServicesDir + kKext + "/Contents/current"), "MacOS/quillmod");
   // A running daemon is found again; the bundle is not read.
   cstest::WriteFile(app_ + kDaemon, "tampered after the start");
   EXPECT_EQ(HandOver({}, &output), 0) << output;
}

// Each case spoils a freshly signed bundle; the opener exits 1 and no daemon runs.
TEST_F(InstallE2e, RefusesEveryBadBundle)
{
   using Bytes = std::string &;
   using S = const std::string &;
   auto edit = [](std::function<void(Bytes)> change) {
      return [=](S app) { cstest::Edit(app + kDaemon, change); };
   };
   auto sign = [](const char *identifier, Signer signer) {
      return [=](S app) { cstest::Sign(app + kDaemon, identifier, signer); };
   };
   auto own = [](S relative, uid_t uid, gid_t gid) {
      return [=](S app) { ASSERT_EQ(lchown((app + relative).c_str(), uid, gid), 0); };
   };
   auto write = [](S relative, const char *text, mode_t mode = 0644) {
      return [=](S app) { cstest::WriteFile(app + relative, text, mode); };
   };
   const size_t kMarker = CODESIGN_MARKER_LEN, kTrailer = CODESIGN_INFO_LEN + kMarker;
   const std::string kMacOS = kKext + "/Contents/MacOS", kLink = kKext + "/Contents/current";
   // The first eight damage the daemon's signature, which is logged with code 7.
   // clang-format off
   const std::pair<const char *, std::function<void(S)>> cases[] = {
       {"unsigned daemon", [](S a) { fs::copy_file(E2E_SERVICES, a + kDaemon, kOverwrite); }},
       {"one byte altered", edit([](Bytes b) { b[64] ^= 1; })},
       {"wrong identifier", sign("tesmar-id", Signer::kMaker)},
       {"untrusted CA", sign("BRIX Services", Signer::kUntrusted)},
       {"leaf without the maker's name", sign("BRIX Services", Signer::kForeign)},
       {"truncated blob", edit([&](Bytes b) { b.erase(b.size() - kTrailer - 1, 1); })},
       {"oversized blob length", edit([&](Bytes b) { b[b.size() - kMarker - 4] ^= 1; })},
       {"length outside the file", edit([&](Bytes b) { b[b.size() - kMarker - 3] ^= 1; })},
       {"daemon owned by a user", own(kDaemon, kNobody, 0)},
       {"daemon group not root", own(kDaemon, 0, kNobody)},
       {"symbolic link to a signed daemon", [](S a) {
          fs::rename(a + kDaemon, a + "/real"); fs::create_symlink(a + "/real", a + kDaemon); }},
       {"kext file omitted", [&](S a) { fs::remove(a + kMacOS + "/quillmod"); }},
       {"kext file added", write(kMacOS + "/extra", "x")},
       {"kext file altered", write(kMacOS + "/quillmod", "x", 0755)},
       {"kext entry owned by a user", own(kLink, kNobody, 0)},
       {"kext without identifier", write(kKext + "/Contents/Info.plist", "<plist><dict/></plist>")},
       {"companion file unsigned", write("/Contents/Library/tesmar-id", "#!/bin/sh\n", 0755)},
   };
   // clang-format on
   for (size_t i = 0; i < std::size(cases); i++) {
      auto &[name, spoil] = cases[i];
      SCOPED_TRACE(name);
      MakeBundle();
      spoil(app_);
      std::string output;
      EXPECT_EQ(HandOver({}, &output), 1) << output;
      EXPECT_TRUE(ProcessesRunning(kDaemonPath).empty() &&
                  ProcessesRunning(app_ + kDaemon).empty() &&
                  ProcessesRunning(app_ + "/real").empty());
      if (i < 8) {
         EXPECT_THAT(output, HasSubstr("PrivilegedHelper: Failed to verify the code signature of " +
                                       app_ + kDaemon + " due to 7"));
      }
   }
}

// The opener is static, so a caller's LD_PRELOAD and LD_LIBRARY_PATH load nothing into it, and the
// daemon inherits neither.
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
   ASSERT_EQ(system(("LD_PRELOAD='" + probeDir + "/probe.so' /bin/true").c_str()), 0);
   ASSERT_TRUE(fs::exists(PRELOAD_MARKER));
   fs::remove(PRELOAD_MARKER);

   // The opener is static: there is no loader to read the variables.
   std::string elf = bundle_ + "/readelf";
   ASSERT_EQ(system(("readelf -d '" + opener_ + "' > '" + elf + "'").c_str()), 0);
   EXPECT_THAT(ReadFile(elf), HasSubstr("no dynamic section"));

   RunOptions options;
   options.env.insert(options.env.end(),
                      {"LD_PRELOAD=" + probeDir + "/probe.so", "LD_LIBRARY_PATH=" + probeDir});
   std::string output;
   EXPECT_EQ(HandOver(options, &output), 0) << output;
   EXPECT_FALSE(fs::exists(PRELOAD_MARKER));
   std::vector<pid_t> daemons = ProcessesRunning(kDaemonPath);
   ASSERT_EQ(daemons.size(), 1u);
   EXPECT_EQ(ReadFile("/proc/" + std::to_string(daemons[0]) + "/environ").find("LD_"),
             std::string::npos);
}

}  // namespace
}  // namespace e2e
