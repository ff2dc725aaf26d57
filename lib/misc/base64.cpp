/*
 * Base64 with the standard alphabet and "=" padding.
 *
 * Encoding turns each 12-bit half of a 3-byte group into two characters with one lookup in a
 * 4096-entry table. Decoding takes whole 4-character groups of alphabet characters through four
 * pre-shifted tables at once and falls back to one character at a time for blanks, the end
 * marks, invalid bytes and the last few bytes of room; both paths share the same bit
 * accumulator, so the result is that of the plain character-by-character decode.
 */
#include <stdlib.h>
#include <string.h>

#include <array>
#include <cstdint>

#include "base64.h"

namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

/* Two output characters for every 12-bit value, in output order. */
constexpr std::array<std::array<char, 2>, 4096> kPairs = [] {
   std::array<std::array<char, 2>, 4096> pairs{};
   for (unsigned v = 0; v < 4096; v++) {
      pairs[v] = {kAlphabet[v >> 6], kAlphabet[v & 0x3F]};
   }
   return pairs;
}();

/* Character classes: 0..63 are alphabet values, the rest say what to do with the byte. */
constexpr uint8_t kSkip = 0x40;     // blank, tab, line feed, vertical tab, form feed, return
constexpr uint8_t kEnd = 0x41;      // "=" and NUL
constexpr uint8_t kInvalid = 0x80;  // everything else

constexpr std::array<uint8_t, 256> kClass = [] {
   std::array<uint8_t, 256> cls{};
   cls.fill(kInvalid);
   for (unsigned v = 0; v < 64; v++) {
      cls[static_cast<unsigned char>(kAlphabet[v])] = static_cast<uint8_t>(v);
   }
   for (unsigned char c : {' ', '\t', '\n', '\v', '\f', '\r'}) {
      cls[c] = kSkip;
   }
   cls['='] = kEnd;
   cls[0] = kEnd;
   return cls;
}();

/*
 * Group tables: the value of an alphabet character at position p of a group, already shifted
 * into place in the 24-bit group value; any other byte sets kNotInGroup.
 */
constexpr uint32_t kNotInGroup = 0x80000000u;

constexpr std::array<uint32_t, 256> GroupTable(unsigned shift)
{
   std::array<uint32_t, 256> table{};
   for (unsigned c = 0; c < 256; c++) {
      table[c] = kClass[c] < 64 ? static_cast<uint32_t>(kClass[c]) << shift : kNotInGroup;
   }
   return table;
}

constexpr std::array<uint32_t, 256> kGroup0 = GroupTable(18);
constexpr std::array<uint32_t, 256> kGroup1 = GroupTable(12);
constexpr std::array<uint32_t, 256> kGroup2 = GroupTable(6);
constexpr std::array<uint32_t, 256> kGroup3 = GroupTable(0);

inline uint32_t GroupValue(const unsigned char *in)
{
   return kGroup0[in[0]] | kGroup1[in[1]] | kGroup2[in[2]] | kGroup3[in[3]];
}

/* Stores the three bytes of a group value and one byte of scratch after them. */
inline void StoreGroup4(uint8_t *out, uint32_t value)
{
   uint32_t bigEndian = __builtin_bswap32(value << 8);
   memcpy(out, &bigEndian, 4);
}

inline uint64_t LoadBigEndian64(const uint8_t *in)
{
   uint64_t value;
   memcpy(&value, in, 8);
   return __builtin_bswap64(value);
}

/* Writes the four characters of the 24-bit group value. */
inline void EncodeGroup(char *out, uint32_t group)
{
   memcpy(out, kPairs[group >> 12].data(), 2);
   memcpy(out + 2, kPairs[group & 0xFFF].data(), 2);
}

/*
 * Decodes the first length characters of src (which hold no NUL). On success *dataLength is
 * the number of bytes written; false when a byte is invalid or the output would exceed
 * targetSize.
 */
bool DecodeSpan(const unsigned char *src, size_t length, uint8_t *target, size_t targetSize,
                size_t *dataLength)
{
   size_t in = 0;
   size_t out = 0;
   uint32_t bits = 0;     // pending bits, right-aligned
   unsigned pending = 0;  // number of pending bits: 0, 2, 4 or 6

   for (;;) {
      if (pending == 0) {
         // Two groups per round while 8 characters and 8 bytes of room remain.
         while (length - in >= 8 && targetSize - out >= 8) {
            uint32_t first = GroupValue(src + in);
            uint32_t second = GroupValue(src + in + 4);
            if ((first | second) & kNotInGroup) {
               break;
            }
            StoreGroup4(target + out, first);
            StoreGroup4(target + out + 3, second);
            in += 8;
            out += 6;
         }
         while (length - in >= 4 && targetSize - out >= 4) {
            uint32_t group = GroupValue(src + in);
            if (group & kNotInGroup) {
               break;
            }
            StoreGroup4(target + out, group);
            in += 4;
            out += 3;
         }
      }
      if (in == length) {
         break;
      }

      uint8_t cls = kClass[src[in++]];
      if (cls < 64) {
         bits = (bits << 6) | cls;
         pending += 6;
         if (pending >= 8) {
            pending -= 8;
            if (out == targetSize) {
               return false;
            }
            target[out++] = static_cast<uint8_t>(bits >> pending);
            bits &= (1u << pending) - 1;
         }
      } else if (cls == kEnd) {
         break;
      } else if (cls != kSkip) {
         return false;
      }
   }
   *dataLength = out;
   return true;
}

}  // namespace

extern "C" {

size_t Base64_EncodedLength(const uint8_t *src, size_t srcLength)
{
   return (srcLength + 2) / 3 * 4 + 1;
}

size_t Base64_DecodedLength(const char *src, size_t srcLength)
{
   size_t length = srcLength / 4 * 3;
   if (length >= 3) {
      if (src[srcLength - 1] == '=') {
         length--;
      }
      if (src[srcLength - 2] == '=') {
         length--;
      }
   }
   return length;
}

bool Base64_Encode(const uint8_t *src, size_t srcLength, char *target, size_t targetSize,
                   size_t *dataLength)
{
   *dataLength = 0;
   if (srcLength >= SIZE_MAX - 1 || targetSize == 0 || (srcLength + 2) / 3 > (targetSize - 1) / 4) {
      return false;
   }

   size_t in = 0;
   char *out = target;
   // Two 8-byte loads cover 12 input bytes (the top 48 bits of each) per round.
   while (srcLength - in >= 14) {
      uint64_t first = LoadBigEndian64(src + in);
      uint64_t second = LoadBigEndian64(src + in + 6);
      EncodeGroup(out, static_cast<uint32_t>(first >> 40));
      EncodeGroup(out + 4, static_cast<uint32_t>(first >> 16) & 0xFFFFFF);
      EncodeGroup(out + 8, static_cast<uint32_t>(second >> 40));
      EncodeGroup(out + 12, static_cast<uint32_t>(second >> 16) & 0xFFFFFF);
      in += 12;
      out += 16;
   }
   while (srcLength - in >= 3) {
      EncodeGroup(out, (uint32_t{src[in]} << 16) | (uint32_t{src[in + 1]} << 8) | src[in + 2]);
      in += 3;
      out += 4;
   }
   size_t rest = srcLength - in;
   if (rest != 0) {
      uint32_t group = uint32_t{src[in]} << 16;
      if (rest == 2) {
         group |= uint32_t{src[in + 1]} << 8;
      }
      EncodeGroup(out, group);
      out[3] = '=';
      if (rest == 1) {
         out[2] = '=';
      }
      out += 4;
   }
   *out = '\0';
   *dataLength = static_cast<size_t>(out - target);
   return true;
}

bool Base64_EasyEncode(const uint8_t *src, size_t srcLength, char **target)
{
   *target = nullptr;
   size_t size = Base64_EncodedLength(src, srcLength);
   char *buffer = static_cast<char *>(malloc(size));
   size_t length;
   if (buffer == nullptr || !Base64_Encode(src, srcLength, buffer, size, &length)) {
      free(buffer);
      return false;
   }
   *target = buffer;
   return true;
}

bool Base64_ChunkDecode(const char *src, size_t inSize, uint8_t *target, size_t targetSize,
                        size_t *dataLength)
{
   *dataLength = 0;
   // A NUL ends the text, so nothing past it is ever read.
   size_t length = strnlen(src, inSize);
   size_t decoded;
   if (!DecodeSpan(reinterpret_cast<const unsigned char *>(src), length, target, targetSize,
                   &decoded)) {
      return false;
   }
   *dataLength = decoded;
   return true;
}

bool Base64_Decode(const char *src, uint8_t *target, size_t targetSize, size_t *dataLength)
{
   return Base64_ChunkDecode(src, SIZE_MAX, target, targetSize, dataLength);
}

bool Base64_EasyDecode(const char *src, uint8_t **target, size_t *targetSize)
{
   *target = nullptr;
   *targetSize = 0;
   size_t length = strlen(src);
   size_t bound = Base64_DecodedLength(src, length);
   uint8_t *buffer = static_cast<uint8_t *>(malloc(bound != 0 ? bound : 1));
   size_t decoded;
   if (buffer == nullptr || !Base64_ChunkDecode(src, length, buffer, bound, &decoded)) {
      free(buffer);
      return false;
   }
   *target = buffer;
   *targetSize = decoded;
   return true;
}

bool Base64_DecodeFixed(const char *src, char *outBuf, size_t outBufSize)
{
   uint8_t *decoded;
   size_t length;
   if (!Base64_EasyDecode(src, &decoded, &length)) {
      return false;
   }
   bool fits = length <= outBufSize;
   if (fits && length != 0) {
      memcpy(outBuf, decoded, length);
   }
   free(decoded);
   return fits;
}

bool Base64_ValidEncoding(const char *src, size_t srcLength)
{
   for (size_t i = 0; i < srcLength; i++) {
      unsigned char c = static_cast<unsigned char>(src[i]);
      if (kClass[c] >= 64 && c != '=') {
         return false;
      }
   }
   return true;
}

}  // extern "C"
