/*
 * Code signatures: the opener's per-file check of a signed 8 MiB file against OpenSSL alone
 * (SHA-256 of the file and one CMS signature verification, the floor); a cold start with the
 * installation of a 20 MiB bundle against a cold start without it; and a warm hand-over of the
 * installing opener against the minimal static client. Needs root.
 */
#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <openssl/cms.h>
#include <openssl/evp.h>

#include "benchProcess.h"
#include "codeSign.h"
#include "codeSignature.h"

namespace fs = std::filesystem;

namespace {

const std::string kPki = PKI_DIR;
const std::string kDaemonRel =
    "/Library/Application Support/Tesmar/Larkview/Services/Contents/Library/services/BRIX Services";

bool Sign(const std::string &path, const std::string &identifier)
{
   char error[256];
   return CodeSign_Sign(path.c_str(), identifier.c_str(), (kPki + "/leaf.pem").c_str(),
                        (kPki + "/leaf.key").c_str(), nullptr, error, sizeof error);
}

void WriteFile(const std::string &path, size_t size, mode_t mode)
{
   fs::create_directories(fs::path(path).parent_path());
   std::string bytes(size, '\0');
   for (size_t i = 0; i < size; i++) {
      bytes[i] = (char)(i * 2654435761u >> 13);
   }
   std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
   chmod(path.c_str(), mode);
}

const std::string &SignedFile()
{
   static std::string path = [] {
      std::string p = "/tmp/brix-bench-signed-" + std::to_string(getpid());
      WriteFile(p, 8u << 20, 0755);
      Sign(p, "BRIX Services");
      return p;
   }();
   return path;
}

void BM_CheckSignedFile8MiB(benchmark::State &state)
{
   for (auto _ : state) {
      if (!PrivilegedHelper_CheckCodeSignature(SignedFile().c_str(), "BRIX Services")) {
         state.SkipWithError("check failed");
         break;
      }
   }
}
BENCHMARK(BM_CheckSignedFile8MiB)->Unit(benchmark::kMillisecond);

// The floor: read and hash the payload, parse and verify the one CMS signature.
void BM_OpenSslFloor8MiB(benchmark::State &state)
{
   for (auto _ : state) {
      int fd = open(SignedFile().c_str(), O_RDONLY | O_CLOEXEC);
      off_t size = lseek(fd, 0, SEEK_END);
      uint8_t tail[CODESIGN_INFO_LEN + CODESIGN_MARKER_LEN];
      pread(fd, tail, sizeof tail, size - (off_t)sizeof tail);
      uint32_t sigSize = (uint32_t)tail[4] << 24 | tail[5] << 16 | tail[6] << 8 | tail[7];
      off_t payload = size - (off_t)sizeof tail - sigSize;
      std::vector<uint8_t> blob(sigSize), buf(1u << 20);
      pread(fd, blob.data(), sigSize, payload);
      EVP_MD_CTX *ctx = EVP_MD_CTX_new();
      EVP_DigestInit_ex(ctx, EVP_sha256(), nullptr);
      for (off_t at = 0; at < payload;) {
         ssize_t n = pread(fd, buf.data(), std::min<off_t>(payload - at, (off_t)buf.size()), at);
         EVP_DigestUpdate(ctx, buf.data(), (size_t)n);
         at += n;
      }
      uint8_t digest[32];
      EVP_DigestFinal_ex(ctx, digest, nullptr);
      EVP_MD_CTX_free(ctx);
      const unsigned char *p = blob.data();
      CMS_ContentInfo *cms = d2i_CMS_ContentInfo(nullptr, &p, sigSize);
      BIO *out = BIO_new(BIO_s_mem());
      int ok =
          CMS_verify(cms, nullptr, nullptr, nullptr, out, CMS_NO_SIGNER_CERT_VERIFY | CMS_BINARY);
      BIO_free(out);
      CMS_ContentInfo_free(cms);
      close(fd);
      benchmark::DoNotOptimize(digest);
      if (ok != 1) {
         state.SkipWithError("verify failed");
         break;
      }
   }
}
BENCHMARK(BM_OpenSslFloor8MiB)->Unit(benchmark::kMillisecond);

struct Setup {
   std::string opener;  // the program to run
   std::string root;
};

// The installing opener in a signed, root-owned bundle of nine files, 20 MiB in all.
Setup InstallSetup()
{
   static Setup setup = [] {
      std::string app = "/tmp/brix-bench-bundle-" + std::to_string(getpid()) + "/Larkview.app";
      std::string lib = app + "/Contents/Library";
      fs::remove_all(fs::path(app).parent_path());
      std::string opener = lib + "/services/Open BRIX Services";
      fs::create_directories(lib + "/services");
      fs::copy_file(INSTALL_OPENER, opener);
      const struct {
         const char *rel, *id;
         size_t size;
      } files[] = {
          {"/tesmar-id", "tesmar-id", 1u << 20},
          {"/tesmar-usbgate", "tesmar-usbgate", 3u << 20},
          {"/productInfo", "productInfo", 4096},
          {"/services/services.sh", "services", 4096},
          {"/services/Open Tesmar USB Gate Service", "Open Tesmar USB Gate Service", 2u << 20},
          {"/services/Tesmar USB Gate Service", "Tesmar USB Gate Service", 5u << 20},
          {"/services/usbGateService.sh", "usbGateService", 4096}};
      for (const auto &f : files) {
         WriteFile(lib + f.rel, f.size, 0755);
         Sign(lib + f.rel, f.id);
      }
      std::string kext = lib + "/kexts/quillmod.kext/Contents";
      fs::create_directories(kext + "/MacOS");
      std::ofstream(kext + "/Info.plist")
          << "<plist version=\"1.0\"><dict><key>CFBundleIdentifier</key><string>"
             "com.tesmar.quillmod</string></dict></plist>\n";
      for (int i = 0; i < 8; i++) {
         WriteFile(kext + "/MacOS/part" + std::to_string(i), 1u << 20, 0755);
      }
      Sign(lib + "/kexts/quillmod.kext", "com.tesmar.quillmod");
      fs::copy_file(INSTALL_SERVICES, lib + "/services/BRIX Services");
      Sign(lib + "/services/BRIX Services", "BRIX Services");
      return Setup{opener, INSTALL_ROOT};
   }();
   return setup;
}

bool PrepareRoot(benchmark::State &state, const Setup &setup, const char *services)
{
   if (geteuid() != 0) {
      state.SkipWithError("needs root: the daemon runs from a root-owned private tree");
      return false;
   }
   prctl(PR_SET_CHILD_SUBREAPER, 1);
   benchprocess::StopProcessesRunning(setup.root + kDaemonRel);
   fs::remove_all(setup.root);
   fs::create_directories(setup.root + "/var/run");
   fs::create_directories(setup.root + "/var/log");
   fs::create_directories(setup.root + "/Library/Application Support/Tesmar/Larkview");
   if (services != nullptr) {
      fs::create_directories(fs::path(setup.root + kDaemonRel).parent_path());
      fs::copy_file(services, setup.root + kDaemonRel);
   }
   return true;
}

void ColdStart(benchmark::State &state, const Setup &setup, const char *services)
{
   if (!PrepareRoot(state, setup, services)) {
      return;
   }
   for (auto _ : state) {
      benchprocess::StopProcessesRunning(setup.root + kDaemonRel);
      unlink((setup.root + "/var/run/BRIX Services.sock").c_str());
      auto start = std::chrono::steady_clock::now();
      int status = benchprocess::Run(setup.opener, {"1"});
      auto elapsed = std::chrono::steady_clock::now() - start;
      if (status != 0) {
         state.SkipWithError("cold start failed");
         break;
      }
      state.SetIterationTime(std::chrono::duration<double>(elapsed).count());
   }
   benchprocess::StopProcessesRunning(setup.root + kDaemonRel);
}

void BM_ColdStartWithInstallation(benchmark::State &state)
{
   ColdStart(state, InstallSetup(), nullptr);
}
BENCHMARK(BM_ColdStartWithInstallation)->UseManualTime()->Unit(benchmark::kMillisecond);

void BM_ColdStartWithoutInstallation(benchmark::State &state)
{
   ColdStart(state, Setup{PLAIN_OPENER, PLAIN_ROOT}, PLAIN_SERVICES);
}
BENCHMARK(BM_ColdStartWithoutInstallation)->UseManualTime()->Unit(benchmark::kMillisecond);

double Median(std::vector<double> values)
{
   std::nth_element(values.begin(), values.begin() + values.size() / 2, values.end());
   return values[values.size() / 2];
}

double Seconds(const std::string &program, const std::vector<std::string> &args, bool &ok)
{
   auto start = std::chrono::steady_clock::now();
   ok = ok && benchprocess::Run(program, args) == 0;
   return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

/*
 * The installing opener and the static C client each hand over a descriptor to the running
 * daemon, in turn within every iteration, so that both meet the same machine load. The counters
 * are the medians of each and their ratio.
 */
void BM_WarmHandOver(benchmark::State &state)
{
   Setup setup = InstallSetup();
   if (!PrepareRoot(state, setup, nullptr) || benchprocess::Run(setup.opener, {"1"}) != 0) {
      state.SkipWithError("the opener failed to start the daemon");
      return;
   }
   std::vector<std::string> peerArgs{setup.root + "/var/run/BRIX Services.sock", "1"};
   std::vector<double> opener, peer;
   bool ok = true;
   for (auto _ : state) {
      opener.push_back(Seconds(setup.opener, {"1"}, ok));
      peer.push_back(Seconds(PEER_CLIENT, peerArgs, ok));
      if (!ok) {
         state.SkipWithError("hand-over failed");
         break;
      }
   }
   benchprocess::StopProcessesRunning(setup.root + kDaemonRel);
   if (ok && !opener.empty()) {
      state.counters["opener_us"] = Median(opener) * 1e6;
      state.counters["peer_us"] = Median(peer) * 1e6;
      state.counters["ratio"] = Median(opener) / Median(peer);
   }
}
BENCHMARK(BM_WarmHandOver)->Unit(benchmark::kMicrosecond);

}  // namespace

int main(int argc, char **argv)
{
   benchmark::Initialize(&argc, argv);
   benchmark::RunSpecifiedBenchmarks();
   benchmark::Shutdown();
   fs::remove(SignedFile());
   fs::remove_all(fs::path(InstallSetup().opener)
                      .parent_path()
                      .parent_path()
                      .parent_path()
                      .parent_path()
                      .parent_path());
   return 0;
}
