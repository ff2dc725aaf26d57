/*
 * Every Base64 decoder on arbitrary text: no decoder may write past its room or report more
 * bytes than the decoded-size bound, and they must agree with each other. The input bytes
 * themselves must survive an encode and decode round trip.
 */
#include <string.h>

#include <algorithm>
#include <vector>

#include "base64.h"
#include "fuzzSupport.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
   std::string text(reinterpret_cast<const char *>(data), size);
   size_t bound = Base64_DecodedLength(text.c_str(), strlen(text.c_str()));
   // Exactly bound bytes of room, so the sanitizer sees any write past it.
   std::vector<uint8_t> room(bound), chunk(bound), back(size);
   size_t length = 0, chunkLength = 0, easyLength = 0;
   bool decoded = Base64_Decode(text.c_str(), room.data(), room.size(), &length);
   auto same = [&](const uint8_t *bytes, size_t n) {
      return n == length && std::equal(bytes, bytes + n, room.data());
   };
   // The length-bounded form on the raw bytes (NULs included) stops where the text stops.
   Check((!decoded || length <= bound) &&
         Base64_ChunkDecode(text.data(), size, chunk.data(), bound, &chunkLength) == decoded &&
         same(chunk.data(), chunkLength));
   uint8_t *easy = nullptr;
   Check(Base64_EasyDecode(text.c_str(), &easy, &easyLength) == decoded &&
         (decoded ? same(easy, easyLength) : easy == nullptr));
   free(easy);
   std::vector<char> fixed(length);
   Check(!decoded || Base64_DecodeFixed(text.c_str(), fixed.data(), fixed.size()));
   Check(length == 0 || !Base64_DecodeFixed(text.c_str(), fixed.data(), length - 1));
   (void)Base64_ValidEncoding(text.data(), size);

   char *encoded = nullptr;
   Check(Base64_EasyEncode(data, size, &encoded));
   size_t encodedLength = strlen(encoded);
   Check(encodedLength == (size + 2) / 3 * 4 && Base64_ValidEncoding(encoded, encodedLength) &&
         Base64_DecodedLength(encoded, encodedLength) == size &&
         Base64_Decode(encoded, back.data(), back.size(), &length) && length == size &&
         std::equal(back.begin(), back.end(), data));
   free(encoded);
   return 0;
}
