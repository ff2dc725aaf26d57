/*
 * Identifiers: the location of a file on this host, the host, and random identifiers, all
 * 16 bytes whose first one or two bytes tell their kind.
 */
#include "uuid.h"

#include <limits.h>
#include <stdlib.h>
#include <string.h>

#include <mutex>

#include <openssl/evp.h>

#include "hostinfo.h"
#include "log.h"
#include "strutil.h"
#include "random.h"
#include "str.h"
#include "util.h"

namespace {

constexpr size_t kSha1Size = 20;

/* SHA-1 over a list of byte ranges. */
struct ByteRange {
   const void *data;
   size_t length;
};

void Sha1(std::initializer_list<ByteRange> ranges, uint8_t digest[kSha1Size])
{
   EVP_MD_CTX *ctx = EVP_MD_CTX_new();
   VERIFY(ctx != nullptr);
   VERIFY(EVP_DigestInit_ex(ctx, EVP_sha1(), nullptr) == 1);
   for (const ByteRange &range : ranges) {
      VERIFY(EVP_DigestUpdate(ctx, range.data, range.length) == 1);
   }
   unsigned int length = 0;
   VERIFY(EVP_DigestFinal_ex(ctx, digest, &length) == 1);
   VERIFY(length == kSha1Size);
   EVP_MD_CTX_free(ctx);
}

/*
 * The host identifier text, made once per process: SHA-1 of the machine identity (the 64-bit
 * hardware id when there is one, else the 32-bit host id), its first byte replaced by "R".
 */
char gHostUUID[48];
std::once_flag gHostUUIDOnce;

void MakeHostUUID(void)
{
   uint32_t hostId = 0;
   uint64_t hardwareId = 0;
   Hostinfo_MachineID(&hostId, &hardwareId);
   uint8_t digest[kSha1Size];
   if (hardwareId != 0) {
      Sha1({{&hardwareId, sizeof hardwareId}}, digest);
   } else {
      Sha1({{&hostId, sizeof hostId}}, digest);
   }
   digest[0] = 'R';
   char *text = UUID_PackText(digest);
   Str_Strcpy(gHostUUID, text, sizeof gHostUUID);
   free(text);
}

const char *HostUUIDText(void)
{
   std::call_once(gHostUUIDOnce, MakeHostUUID);
   return gHostUUID;
}

}  // namespace

extern "C" {

char *UUID_PackText(const uint8_t bytes[UUID_SIZE])
{
   return Str_SafeAsprintf(nullptr,
                           "%02x %02x %02x %02x %02x %02x %02x %02x-"
                           "%02x %02x %02x %02x %02x %02x %02x %02x",
                           bytes[0], bytes[1], bytes[2], bytes[3], bytes[4], bytes[5], bytes[6],
                           bytes[7], bytes[8], bytes[9], bytes[10], bytes[11], bytes[12], bytes[13],
                           bytes[14], bytes[15]);
}

bool UUID_ParseText(const char *text, uint8_t bytes[UUID_SIZE])
{
   if (text == nullptr) {
      return false;
   }
   for (size_t i = 0; i < UUID_SIZE; i++) {
      const char *pair = text + 3 * i;
      int high = StrUtil_HexDigitValue((unsigned char)pair[0]);
      int low = high < 0 ? -1 : StrUtil_HexDigitValue((unsigned char)pair[1]);
      if (low < 0) {
         return false;
      }
      char separator = i == UUID_SIZE - 1 ? '\0' : i == 7 ? '-' : ' ';
      if (pair[2] != separator) {
         return false;
      }
      bytes[i] = static_cast<uint8_t>(high << 4 | low);
   }
   return true;
}

char *UUID_ConvertToText(const char *text, char *buf, size_t size)
{
   uint8_t b[UUID_SIZE];
   if (!UUID_ParseText(text, b)) {
      return nullptr;
   }
   Str_Sprintf(buf, size, "%02x%02x%02x%02x-%02x%02x-%02x%02x-%02x%02x-%02x%02x%02x%02x%02x%02x",
               b[0], b[1], b[2], b[3], b[4], b[5], b[6], b[7], b[8], b[9], b[10], b[11], b[12],
               b[13], b[14], b[15]);
   return buf;
}

char *UUID_GetHostUUID(void)
{
   return Util_SafeStrdup(HostUUIDText());
}

char *UUID_CreateLocation(const char *path, int schemeControl)
{
   if (schemeControl < 0 || schemeControl >= 3) {
      Warning("%s: Unknown scheme control value %d\n", "UUID_CreateLocation", schemeControl);
      return nullptr;
   }
   if (path == nullptr) {
      return nullptr;
   }
   const char *host = HostUUIDText();
   char *canonical = realpath(path, nullptr);
   const char *hashed = canonical;
   if (canonical == nullptr) {
      Log("UUID: couldn't get canonical path\n");
      hashed = path;
   }
   uint8_t digest[kSha1Size];
   Sha1({{host, strlen(host)}, {hashed, strlen(hashed)}}, digest);
   free(canonical);
   digest[0] = 'K';
   digest[1] = 'D';
   return UUID_PackText(digest);
}

char *UUID_CreateRandom(unsigned int kind, uint8_t tag)
{
   uint8_t bytes[UUID_SIZE];
   if (!Random_Bytes(sizeof bytes, bytes)) {
      return nullptr;
   }
   switch (kind) {
      case UUID_RANDOM_PLAIN:
         bytes[0] = 'K';
         bytes[1] = 'D';
         break;
      case UUID_RANDOM_HOST:
         bytes[0] = 'R';
         break;
      case UUID_RANDOM_B:
         bytes[0] = 'B';
         bytes[1] = tag;
         break;
      case UUID_RANDOM_P:
         bytes[0] = 'P';
         bytes[1] = tag;
         break;
      default:
         /* Log readers know this check by its reported line; keep the number fixed. */
#line 304
         NOT_REACHED();
   }
   return UUID_PackText(bytes);
}

}  // extern "C"
