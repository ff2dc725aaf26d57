#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include "codesignTestSupport.h"
#include "file.h"
#include "testSupport.h"

namespace {

using namespace cstest;
namespace fs = std::filesystem;

const char kMakerReq[] =
    "identifier \"BRIX Services\" and anchor apple generic and anchor trusted and "
    "cert leaf[subject.CN] = *\"Tesmar, Inc.\"*";
const std::string kBody = std::string(
                              "\x7f"
                              "ELF",
                              4) +
                          std::string(5000, 'x') + "end";

TEST(CodeSignFile, SignsWithoutChangingTheBytesAndReSignsInPlace)
{
   testsupport::ScratchDir dir;
   std::string path = dir / "daemon";
   WriteFile(path, kBody, 0751);
   ASSERT_TRUE(Sign(path, "first") && Sign(path, "BRIX Services"));
   std::string signedBytes = ReadFile(path);
   EXPECT_EQ(signedBytes.substr(0, kBody.size()), kBody);
   struct stat st;
   EXPECT_TRUE(stat(path.c_str(), &st) == 0 && (st.st_mode & 07777) == 0751);

   CodeSignInfo info;
   EXPECT_EQ(Check(path, kMakerReq, false, &info), CODESIGN_OK);
   EXPECT_STREQ(info.identifier, "BRIX Services");
   EXPECT_TRUE(info.trusted && info.payloadSize == kBody.size());
   EXPECT_NE(std::string(info.chain).find("Tesmar Test Code Signing Root"), std::string::npos);
   EXPECT_NEAR((double)info.signingTime, (double)time(nullptr), 600);
   // Only one signature: stripping it gives back the original.
   WriteFile(path, signedBytes.substr(0, info.payloadSize));
   EXPECT_EQ(Check(path), CODESIGN_UNSIGNED);
}

// Damaged trailers and blobs, each in a correctly signed file; the refusals of an unsigned,
// altered, foreign or untrusted program are checked through the helper's admission codes.
TEST(CodeSignFile, RefusesMalformedSignatures)
{
   using Bytes = std::string &;
   const size_t kLengthAt = CODESIGN_MARKER_LEN + 4;  // from the end
   const std::function<void(Bytes)> spoilers[] = {
       [](Bytes b) { b.erase(b.size() - CODESIGN_INFO_LEN - CODESIGN_MARKER_LEN - 10, 10); },
       [&](Bytes b) { b[b.size() - kLengthAt] = '\x7f'; },
       [](Bytes b) { b = CODESIGN_MARKER; },
       [](Bytes b) { b[kBody.size() + 20] ^= 0x55; },
   };
   testsupport::ScratchDir dir;
   for (size_t i = 0; i < std::size(spoilers); i++) {
      WriteFile(dir / "f", kBody);
      ASSERT_TRUE(Sign(dir / "f", "BRIX Services"));
      Edit(dir / "f", spoilers[i]);
      // A blob damaged inside may fail to parse or fail its signature.
      CodeSignStatus status = Check(dir / "f", kMakerReq);
      EXPECT_TRUE(status == CODESIGN_MALFORMED || status == CODESIGN_BAD_SIGNATURE)
          << i << ": " << CodeSign_StatusText(status);
   }
}

TEST(CodeSignFile, OpensOnlyRegularFilesAndBundlesWithoutFollowingLinks)
{
   testsupport::ScratchDir dir;
   WriteFile(dir / "f", kBody);
   fs::create_symlink(dir / "f", dir / "link");
   fs::create_directories(dir / "plain");
   ASSERT_EQ(mkfifo((dir / "fifo").c_str(), 0600), 0);
   for (auto [name, err] :
        {std::pair{"link", ELOOP}, {"plain", ENOTSUP}, {"fifo", ENOTSUP}, {"missing", ENOENT}}) {
      errno = 0;
      EXPECT_EQ(CodeSign_OpenCode((dir / name).c_str()), nullptr) << name;
      EXPECT_EQ(errno, err) << name;
   }
}

const char kKextId[] = "com.tesmar.quillmod";

// A freshly made bundle at path, signed (or not).
bool FreshKext(const std::string &path, bool sign = true)
{
   fs::remove_all(path);
   MakeBundle(path, kKextId);
   return !sign || Sign(path, kKextId);
}

// Files omitted, added or altered are refused through the opener's installation.
TEST(CodeSignBundle, CoversLinksModesAndTheResourceList)
{
   testsupport::ScratchDir dir;
   std::string kext = dir / "quillmod.kext";
   ASSERT_TRUE(FreshKext(kext));
   const char *req = "identifier \"com.tesmar.quillmod\" and anchor trusted";
   CodeSignInfo info;
   ASSERT_EQ(Check(kext, req, false, &info), CODESIGN_OK);
   EXPECT_STREQ(info.identifier, kKextId);
   int fd = open(kext.c_str(), O_RDONLY | O_DIRECTORY);
   EXPECT_EQ(testsupport::Take(CodeSign_BundleIdentifier(fd)), kKextId);
   close(fd);

   const std::function<void(const std::string &)> spoilers[] = {
       [](const std::string &k) {
          fs::remove(k + "/Contents/current");
          fs::create_symlink("Info.plist", k + "/Contents/current");
       },
       [](const std::string &k) {
          fs::remove(k + "/Contents/current");
          fs::copy_file(k + "/Contents/MacOS/quillmod", k + "/Contents/current");
       },
       [](const std::string &k) { chmod((k + "/Contents/MacOS/quillmod").c_str(), 0700); },
       [](const std::string &k) {
          Edit(k + "/" CODESIGN_RESOURCES,
               [](std::string &b) { b.replace(b.find("MacOS"), 5, "MacOZ"); });
       },
   };
   for (size_t i = 0; i < std::size(spoilers); i++) {
      ASSERT_TRUE(FreshKext(kext));
      spoilers[i](kext);
      EXPECT_EQ(Check(kext, req), CODESIGN_ALTERED) << i;
   }
   FreshKext(kext, false);
   EXPECT_EQ(Check(kext, req), CODESIGN_UNSIGNED);

   // The library's plain tree copy creates files with default modes; the metadata copy does not.
   ASSERT_TRUE(FreshKext(kext));
   for (const char *name : {"plain.kext", "all.kext"}) {
      ASSERT_TRUE(File_CreateDirectory((dir / name).c_str()));
   }
   ASSERT_TRUE(File_CopyTree(kext.c_str(), (dir / "plain.kext").c_str(), true, false));
   EXPECT_EQ(Check(dir / "plain.kext"), CODESIGN_ALTERED);
   ASSERT_TRUE(File_CopyTreeAll(kext.c_str(), (dir / "all.kext").c_str(), true));
   EXPECT_EQ(Check(dir / "all.kext"), CODESIGN_OK);
}

TEST(CodeSignBundle, RootRequirementCoversEveryEntry)
{
   if (geteuid() != 0) {
      GTEST_SKIP() << "needs root to give entries away";
   }
   testsupport::ScratchDir dir;
   std::string kext = dir / "quillmod.kext";
   ASSERT_TRUE(FreshKext(kext));
   ASSERT_EQ(chown(dir.Path().c_str(), 0, 0), 0);
   EXPECT_EQ(Check(kext, nullptr, true), CODESIGN_OK);
   for (const char *entry : {"/Contents/MacOS/quillmod", "/Contents/MacOS", "/Contents/current",
                             "/" CODESIGN_RESOURCES}) {
      std::string path = kext + entry;
      ASSERT_EQ(lchown(path.c_str(), 65534, 0), 0);
      EXPECT_EQ(Check(kext, nullptr, true), CODESIGN_NOT_ROOT) << entry;
      EXPECT_EQ(Check(kext, nullptr, false), CODESIGN_OK) << entry;
      ASSERT_EQ(lchown(path.c_str(), 0, 0), 0);
   }
}

}  // namespace
