/*
 * Every Base64 decoder on arbitrary text: no decoder may write past its room or report more
 * bytes than the decoded-size bound, and they must agree with each other. The input bytes
 * themselves must survive an encode and decode round trip.
 */
#include <string.h>

#include <vector>

#include "base64.h"
#include "fuzzSupport.h"

using fuzz::Check;

static bool SameBytes(const void *a, const void *b, size_t n)
{
   return n == 0 || memcmp(a, b, n) == 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
   std::string text(reinterpret_cast<const char *>(data), size);
   size_t bound = Base64_DecodedLength(text.c_str(), strlen(text.c_str()));

   // Exactly bound bytes of room, so the sanitizer sees any write past it.
   std::vector<uint8_t> room(bound);
   size_t decodedLength = 0;
   bool decoded = Base64_Decode(text.c_str(), room.data(), room.size(), &decodedLength);
   Check(!decoded || decodedLength <= bound);

   // The length-bounded form on the raw bytes (NULs included) stops where the text stops.
   std::vector<uint8_t> chunkRoom(bound);
   size_t chunkLength = 0;
   Check(Base64_ChunkDecode(text.data(), size, chunkRoom.data(), bound, &chunkLength) == decoded &&
         chunkLength == decodedLength && SameBytes(chunkRoom.data(), room.data(), chunkLength));

   uint8_t *allocated = nullptr;
   size_t allocatedLength = 0;
   bool easy = Base64_EasyDecode(text.c_str(), &allocated, &allocatedLength);
   Check(easy == decoded && (easy ? allocatedLength == decodedLength &&
                                        SameBytes(allocated, room.data(), allocatedLength)
                                  : allocated == nullptr));
   free(allocated);

   std::vector<char> fixed(decodedLength);
   Check(!decoded || Base64_DecodeFixed(text.c_str(), fixed.data(), fixed.size()));
   Check(decodedLength == 0 || !Base64_DecodeFixed(text.c_str(), fixed.data(), decodedLength - 1));

   (void)Base64_ValidEncoding(text.data(), size);

   char *encoded = nullptr;
   Check(Base64_EasyEncode(data, size, &encoded));
   size_t encodedLength = strlen(encoded);
   Check(encodedLength == (size + 2) / 3 * 4 && Base64_ValidEncoding(encoded, encodedLength) &&
         Base64_DecodedLength(encoded, encodedLength) == size);
   std::vector<uint8_t> back(size);
   size_t backLength = 0;
   Check(Base64_Decode(encoded, back.data(), back.size(), &backLength) && backLength == size &&
         SameBytes(back.data(), data, size));
   free(encoded);
   return 0;
}
