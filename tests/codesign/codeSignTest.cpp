#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <functional>

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
   ASSERT_TRUE(Sign(path, "first"));
   ASSERT_TRUE(Sign(path, "BRIX Services"));
   std::string signedBytes = ReadFile(path);
   EXPECT_EQ(signedBytes.substr(0, kBody.size()), kBody);
   struct stat st;
   ASSERT_EQ(stat(path.c_str(), &st), 0);
   EXPECT_EQ(st.st_mode & 07777, 0751u);

   CodeSignInfo info;
   EXPECT_EQ(Check(path, kMakerReq, false, &info), CODESIGN_OK);
   EXPECT_STREQ(info.identifier, "BRIX Services");
   EXPECT_EQ(info.payloadSize, kBody.size());
   EXPECT_TRUE(info.trusted);
   EXPECT_NE(std::string(info.chain).find("Tesmar Test Code Signing Root"), std::string::npos);
   EXPECT_NEAR((double)info.signingTime, (double)time(nullptr), 600);
   // Only one signature: stripping it gives back the original.
   WriteFile(path, signedBytes.substr(0, info.payloadSize));
   EXPECT_EQ(Check(path), CODESIGN_UNSIGNED);
}

// Each case takes a correctly signed file and breaks it one way.
TEST(CodeSignFile, RefusesEveryBrokenSignature)
{
   using Bytes = std::string &;
   const struct {
      const char *name;
      std::function<void(const std::string &)> spoil;
      CodeSignStatus want;
   } cases[] = {
       {"unsigned", [](const std::string &p) { WriteFile(p, kBody); }, CODESIGN_UNSIGNED},
       {"one byte changed", [](const std::string &p) { Edit(p, [](Bytes b) { b[100] ^= 1; }); },
        CODESIGN_ALTERED},
       {"signed with another identifier", [](const std::string &p) { Sign(p, "tesmar-id"); },
        CODESIGN_IDENTIFIER},
       {"untrusted CA", [](const std::string &p) { Sign(p, "BRIX Services", Signer::kUntrusted); },
        CODESIGN_UNTRUSTED},
       {"foreign leaf name",
        [](const std::string &p) { Sign(p, "BRIX Services", Signer::kForeign); },
        CODESIGN_LEAF_NAME},
       // The length now reaches into the payload.
       {"truncated blob",
        [](const std::string &p) {
           Edit(p, [](Bytes b) {
              b.erase(b.size() - CODESIGN_INFO_LEN - CODESIGN_MARKER_LEN - 10, 10);
           });
        },
        CODESIGN_MALFORMED},
       {"oversized length",
        [](const std::string &p) {
           Edit(p, [](Bytes b) { b[b.size() - CODESIGN_MARKER_LEN - 4] = '\x7f'; });
        },
        CODESIGN_MALFORMED},
       {"length pointing outside the file",
        [](const std::string &p) {
           Edit(p, [](Bytes b) {
              b.replace(b.size() - CODESIGN_MARKER_LEN - 4, 4, std::string("\x00\x0f\x00\x00", 4));
           });
        },
        CODESIGN_MALFORMED},
       {"only the marker", [](const std::string &p) { WriteFile(p, CODESIGN_MARKER); },
        CODESIGN_MALFORMED},
       {"garbage blob",
        [](const std::string &p) { Edit(p, [](Bytes b) { b[kBody.size() + 20] ^= 0x55; }); },
        CODESIGN_MALFORMED},
   };
   testsupport::ScratchDir dir;
   for (const auto &c : cases) {
      std::string path = dir / "f";
      WriteFile(path, kBody);
      ASSERT_TRUE(Sign(path, "BRIX Services"));
      c.spoil(path);
      CodeSignStatus status = Check(path, kMakerReq);
      if (c.want == CODESIGN_MALFORMED) {
         // A blob damaged inside may fail to parse or fail its signature.
         EXPECT_TRUE(status == CODESIGN_MALFORMED || status == CODESIGN_BAD_SIGNATURE)
             << c.name << ": " << CodeSign_StatusText(status);
      } else {
         EXPECT_EQ(status, c.want) << c.name << ": " << CodeSign_StatusText(status);
      }
   }
}

TEST(CodeSignFile, OpensOnlyRegularFilesAndBundlesWithoutFollowingLinks)
{
   testsupport::ScratchDir dir;
   WriteFile(dir / "f", kBody);
   fs::create_symlink(dir / "f", dir / "link");
   fs::create_directories(dir / "plain");
   ASSERT_EQ(mkfifo((dir / "fifo").c_str(), 0600), 0);
   const struct {
      std::string path;
      int err;
   } cases[] = {{dir / "link", ELOOP},
                {dir / "plain", ENOTSUP},
                {dir / "fifo", ENOTSUP},
                {dir / "missing", ENOENT}};
   for (const auto &c : cases) {
      errno = 0;
      EXPECT_EQ(CodeSign_OpenCode(c.path.c_str()), nullptr) << c.path;
      EXPECT_EQ(errno, c.err) << c.path;
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

TEST(CodeSignBundle, CoversEveryFileModeAndLink)
{
   testsupport::ScratchDir dir;
   std::string kext = dir / "quillmod.kext";
   ASSERT_TRUE(FreshKext(kext));
   const char *req = "identifier \"com.tesmar.quillmod\" and anchor trusted";
   CodeSignInfo info;
   ASSERT_EQ(Check(kext, req, false, &info), CODESIGN_OK);
   EXPECT_STREQ(info.identifier, kKextId);
   int fd = open(kext.c_str(), O_RDONLY | O_DIRECTORY);
   char *id = CodeSign_BundleIdentifier(fd);
   close(fd);
   ASSERT_NE(id, nullptr);
   EXPECT_STREQ(id, kKextId);
   free(id);

   const struct {
      const char *name;
      std::function<void(const std::string &)> spoil;
   } cases[] = {
       {"file omitted", [](const std::string &k) { fs::remove(k + "/Contents/MacOS/quillmod"); }},
       {"file added", [](const std::string &k) { WriteFile(k + "/Contents/extra", "x"); }},
       {"file altered", [](const std::string &k) { WriteFile(k + "/Contents/Info.plist", "x"); }},
       {"link retargeted",
        [](const std::string &k) {
           fs::remove(k + "/Contents/current");
           fs::create_symlink("Info.plist", k + "/Contents/current");
        }},
       {"link replaced by its target's copy",
        [](const std::string &k) {
           fs::remove(k + "/Contents/current");
           fs::copy_file(k + "/Contents/MacOS/quillmod", k + "/Contents/current");
        }},
       {"mode lost",
        [](const std::string &k) { chmod((k + "/Contents/MacOS/quillmod").c_str(), 0700); }},
       {"resources edited",
        [](const std::string &k) {
           Edit(k + "/" CODESIGN_RESOURCES,
                [](std::string &b) { b.replace(b.find("MacOS"), 5, "MacOZ"); });
        }},
   };
   for (const auto &c : cases) {
      ASSERT_TRUE(FreshKext(kext));
      c.spoil(kext);
      EXPECT_EQ(Check(kext, req), CODESIGN_ALTERED) << c.name;
   }
   FreshKext(kext, false);
   EXPECT_EQ(Check(kext, req), CODESIGN_UNSIGNED);
}

// A copy that keeps every piece of metadata keeps the signature; one that loses modes breaks it.
TEST(CodeSignBundle, CopyLosingMetadataBreaksTheCopysSignature)
{
   testsupport::ScratchDir dir;
   std::string kext = dir / "src.kext";
   ASSERT_TRUE(FreshKext(kext));
   // The library's plain tree copy creates files with default modes; the metadata copy does not.
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
