/*
 * Every Base64 decoder on arbitrary text: no decoder may write past its room or report more
 * bytes than the decoded-size bound, and they must agree with each other. The input bytes
 * themselves must survive an encode and decode round trip.
 */
#include <stdlib.h>
#include <string.h>

#include <cstdint>
#include <string>
#include <vector>

#include "base64.h"

namespace {

bool SameBytes(const void *a, const void *b, size_t n)
{
   return n == 0 || memcmp(a, b, n) == 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
   std::string text(reinterpret_cast<const char *>(data), size);
   size_t textLength = strlen(text.c_str());
   size_t bound = Base64_DecodedLength(text.c_str(), textLength);

   // Exactly bound bytes of room, so the sanitizer sees any write past it.
   std::vector<uint8_t> room(bound);
   size_t decodedLength = 0;
   bool decoded = Base64_Decode(text.c_str(), room.data(), room.size(), &decodedLength);
   if (decoded && decodedLength > bound) {
      abort();
   }

   // The length-bounded form on the raw bytes (NULs included) stops where the text stops.
   std::vector<uint8_t> chunkRoom(bound);
   size_t chunkLength = 0;
   bool chunked = Base64_ChunkDecode(reinterpret_cast<const char *>(data), size, chunkRoom.data(),
                                     chunkRoom.size(), &chunkLength);
   if (chunked != decoded || chunkLength != decodedLength ||
       !SameBytes(chunkRoom.data(), room.data(), chunkLength)) {
      abort();
   }

   uint8_t *allocated = nullptr;
   size_t allocatedLength = 0;
   bool easy = Base64_EasyDecode(text.c_str(), &allocated, &allocatedLength);
   if (easy != decoded || (easy && (allocatedLength != decodedLength ||
                                    !SameBytes(allocated, room.data(), allocatedLength)))) {
      abort();
   }
   if (!easy && allocated != nullptr) {
      abort();
   }
   free(allocated);

   std::vector<char> fixed(decodedLength);
   if (decoded && !Base64_DecodeFixed(text.c_str(), fixed.data(), fixed.size())) {
      abort();
   }
   if (decodedLength > 0 && Base64_DecodeFixed(text.c_str(), fixed.data(), decodedLength - 1)) {
      abort();
   }

   (void)Base64_ValidEncoding(reinterpret_cast<const char *>(data), size);

   char *encoded = nullptr;
   if (!Base64_EasyEncode(data, size, &encoded)) {
      abort();
   }
   size_t encodedLength = strlen(encoded);
   if (encodedLength != (size + 2) / 3 * 4 || !Base64_ValidEncoding(encoded, encodedLength) ||
       Base64_DecodedLength(encoded, encodedLength) != size) {
      abort();
   }
   std::vector<uint8_t> back(size);
   size_t backLength = 0;
   if (!Base64_Decode(encoded, back.data(), back.size(), &backLength) || backLength != size ||
       !SameBytes(back.data(), data, size)) {
      abort();
   }
   free(encoded);
   return 0;
}
