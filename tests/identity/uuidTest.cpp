#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <openssl/evp.h>

#include "hostinfo.h"
#include "testSupport.h"
#include "uuid.h"

using testsupport::Take;

static std::string Sha1Spaced(const std::string &data, const char *firstBytes)
{
   unsigned char digest[EVP_MAX_MD_SIZE];
   EVP_Digest(data.data(), data.size(), digest, nullptr, EVP_sha1(), nullptr);
   memcpy(digest, firstBytes, strlen(firstBytes));
   return Take(UUID_PackText(digest));
}

TEST(UUID, TextFormsAndParser)
{
   const uint8_t bytes[16] = {0x0a, 0x1b, 0x2c, 0x3d, 0x4e, 0x5f, 0x70, 0x81,
                              0x92, 0xa3, 0xb4, 0xc5, 0xd6, 0xe7, 0xf8, 0x09};
   std::string spaced = Take(UUID_PackText(bytes));
   EXPECT_EQ(spaced, "0a 1b 2c 3d 4e 5f 70 81-92 a3 b4 c5 d6 e7 f8 09");

   char canonical[37];
   EXPECT_EQ(UUID_ConvertToText(spaced.c_str(), canonical, sizeof canonical), canonical);
   EXPECT_STREQ(canonical, "0a1b2c3d-4e5f-7081-92a3-b4c5d6e7f809");

   uint8_t back[16];
   EXPECT_TRUE(UUID_ParseText("0A 1B 2C 3D 4E 5F 70 81-92 A3 B4 C5 D6 E7 F8 09", back) &&
               memcmp(back, bytes, 16) == 0);
   // Anything but the spaced form is refused.
   for (const char *bad : {"0a1b2c3d-4e5f-7081-92a3-b4c5d6e7f809", "0a 1b 2c 3d 4e 5f 70"}) {
      EXPECT_EQ(UUID_ConvertToText(bad, canonical, sizeof canonical), nullptr) << bad;
   }
   EXPECT_FALSE(UUID_ParseText(nullptr, back));
   EXPECT_PANIC_MATCHING(UUID_ConvertToText(spaced.c_str(), canonical, 36),
                         "lib/string/str:[0-9]+ Buffer too small\n");
}

TEST(UUID, HostAndLocationIdentifiersHashMachineIdentityAndCanonicalPath)
{
   uint32_t hostId = 0;
   uint64_t hardwareId = 0;
   Hostinfo_MachineID(&hostId, &hardwareId);
   std::string identity = hardwareId != 0 ? std::string(reinterpret_cast<char *>(&hardwareId), 8)
                                          : std::string(reinterpret_cast<char *>(&hostId), 4);
   std::string host = Take(UUID_GetHostUUID());
   EXPECT_EQ(host, Sha1Spaced(identity, "R"));

   testsupport::ScratchDir dir;
   std::string file = dir / "f";
   ASSERT_EQ(symlink(file.c_str(), (dir / "link").c_str()), 0);
   ASSERT_EQ(mkdir(file.c_str(), 0700), 0);
   std::string canonical = Take(realpath(file.c_str(), nullptr));
   std::string id = Take(UUID_CreateLocation(file.c_str(), 0));
   EXPECT_EQ(id, Sha1Spaced(host + canonical, "KD"));
   EXPECT_EQ(Take(UUID_CreateLocation((dir / "link").c_str(), 2)), id);

   testsupport::LogCapture log;
   std::string missing = dir / "missing";
   EXPECT_EQ(Take(UUID_CreateLocation(missing.c_str(), 0)), Sha1Spaced(host + missing, "KD"));
   EXPECT_EQ(log.Text(), "UUID: couldn't get canonical path\n");

   log.Clear();
   EXPECT_EQ(UUID_CreateLocation(file.c_str(), 3), nullptr);
   EXPECT_EQ(UUID_CreateLocation(nullptr, 0), nullptr);
   EXPECT_EQ(log.Text(), "Warning: UUID_CreateLocation: Unknown scheme control value 3\n");
}

TEST(UUID, RandomIdentifiersCarryTheirKind)
{
   std::string plain = Take(UUID_CreateRandom(UUID_RANDOM_PLAIN, 0x99));
   EXPECT_EQ(plain.substr(0, 6), "4b 44 ");
   EXPECT_EQ(Take(UUID_CreateRandom(UUID_RANDOM_HOST, 0x99)).substr(0, 3), "52 ");
   EXPECT_EQ(Take(UUID_CreateRandom(UUID_RANDOM_B, 0x07)).substr(0, 6), "42 07 ");
   EXPECT_EQ(Take(UUID_CreateRandom(UUID_RANDOM_P, 0xfe)).substr(0, 6), "50 fe ");
   EXPECT_NE(Take(UUID_CreateRandom(UUID_RANDOM_PLAIN, 0)), plain);
   EXPECT_PANIC(UUID_CreateRandom(4, 0), "NOT_REACHED lib/uuid/uuid:");
}
