#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>

#include <optional>
#include <random>
#include <string>
#include <vector>

#include "base64.h"

namespace {

using Bytes = std::vector<uint8_t>;

std::string Encode(const Bytes &data)
{
   std::string out(Base64_EncodedLength(data.data(), data.size()), '?');
   size_t length = 99;
   EXPECT_TRUE(Base64_Encode(data.data(), data.size(), out.data(), out.size(), &length));
   out.resize(strlen(out.c_str()));
   EXPECT_EQ(out.size(), length);
   return out;
}

std::optional<Bytes> Decode(const std::string &text, size_t room)
{
   Bytes out(room + 1);
   size_t length = 99;
   if (!Base64_Decode(text.c_str(), out.data(), room, &length)) {
      return std::nullopt;
   }
   out.resize(length);
   return out;
}

/* One character at a time, straight from the rules: the fast paths must agree with this. */
std::optional<Bytes> ReferenceDecode(const std::string &text, size_t room)
{
   static const std::string alphabet =
       "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
   Bytes out;
   unsigned bits = 0, count = 0;
   for (size_t k = 0; k < text.size() && text[k] != '=' && text[k] != '\0'; k++) {
      size_t value = alphabet.find(text[k]);
      if (value == std::string::npos) {
         if (strchr(" \t\n\v\f\r", text[k]) == nullptr) {
            return std::nullopt;
         }
         continue;
      }
      bits = (bits << 6) | static_cast<unsigned>(value);
      if ((count += 6) >= 8) {
         count -= 8;
         if (out.size() == room) {
            return std::nullopt;
         }
         out.push_back(static_cast<uint8_t>(bits >> count));
      }
   }
   return out;
}

Bytes RandomBytes(std::mt19937 &rng, size_t n)
{
   Bytes data(n);
   for (auto &b : data) {
      b = static_cast<uint8_t>(rng());
   }
   return data;
}

Bytes B(const char *s)
{
   return Bytes(s, s + strlen(s));
}

}  // namespace

TEST(Base64, KnownTexts)
{
   EXPECT_EQ(Encode({}), "");
   EXPECT_EQ(Encode(B("a")), "YQ==");
   EXPECT_EQ(Encode(B("ab")), "YWI=");
   EXPECT_EQ(Encode({0xFB, 0xFF, 0xBF}), "+/+/");
   EXPECT_EQ(Encode(B("The quick brown fox jumps over the lazy dog")),
             "VGhlIHF1aWNrIGJyb3duIGZveCBqdW1wcyBvdmVyIHRoZSBsYXp5IGRvZw==");

   EXPECT_EQ(Decode("YW I=", 2), B("ab"));
   EXPECT_EQ(Decode(" Y\tW\nJ\rj\v\f", 3), B("abc"));
   EXPECT_EQ(Decode("YQ==*garbage", 1), B("a"));  // "=" and NUL end the text
   EXPECT_EQ(Decode(std::string("YWJj\0*", 6), 3), B("abc"));
   EXPECT_EQ(Decode("YWI", 2), B("ab"));  // bits short of a byte are dropped
   EXPECT_EQ(Decode("YWJjYWJj*", 8), std::nullopt);
   EXPECT_EQ(Decode("YW\x80j", 3), std::nullopt);

   uint8_t out[8];
   size_t length = 0;
   EXPECT_TRUE(Base64_ChunkDecode("YWJjZGVm", 6, out, sizeof out, &length));
   EXPECT_EQ(Bytes(out, out + length), B("abcd"));
   EXPECT_TRUE(Base64_ChunkDecode("YWJj*", 4, out, sizeof out, &length));

   EXPECT_TRUE(Base64_ValidEncoding("AZaz09+/==", 10));
   EXPECT_TRUE(Base64_ValidEncoding("YW*I", 2));
   EXPECT_FALSE(Base64_ValidEncoding("YW I=", 5));
   EXPECT_FALSE(Base64_ValidEncoding("YW\0I", 4));
}

TEST(Base64, SizesAndBounds)
{
   const uint8_t data[6] = {1, 2, 3, 4, 5, 6};
   char out[16];
   size_t length = 7;
   EXPECT_FALSE(Base64_Encode(data, 6, out, 0, &length));
   EXPECT_EQ(length, 0u);
   EXPECT_FALSE(Base64_Encode(data, 6, out, 8, &length));
   EXPECT_TRUE(Base64_Encode(data, 6, out, 9, &length));
   EXPECT_FALSE(Base64_Encode(data, SIZE_MAX - 1, out, sizeof out, &length));
   char *text = out;
   EXPECT_FALSE(Base64_EasyEncode(data, SIZE_MAX - 1, &text));  // the size formula wraps
   EXPECT_EQ(text, nullptr);

   EXPECT_EQ(Base64_DecodedLength("==", 2), 0u);
   EXPECT_EQ(Base64_DecodedLength("YQ==", 4), 1u);
   EXPECT_EQ(Base64_DecodedLength("YW I=", 5), 2u);
   EXPECT_EQ(Base64_DecodedLength("YWJjZA", 6), 3u);
   uint8_t *decoded = nullptr;
   EXPECT_FALSE(Base64_EasyDecode("AAA", &decoded, &length));  // two bytes, bound 0
   EXPECT_FALSE(Base64_DecodeFixed("YWJjZA==", out, 3));

   // One byte of room less than needed fails, at every stage of a group.
   for (size_t n = 1; n <= 40; n++) {
      std::string encoded = Encode(Bytes(n, 0x5A));
      EXPECT_TRUE(Decode(encoded, n).has_value());
      EXPECT_EQ(Decode(encoded, n - 1), std::nullopt) << n;
   }
}

TEST(Base64, RandomDataRoundTripsThroughEveryDecoder)
{
   std::mt19937 rng(7);
   for (size_t n = 0; n <= 300; n++) {
      Bytes data = RandomBytes(rng, n);
      char *text = nullptr;
      ASSERT_TRUE(Base64_EasyEncode(data.data(), n, &text));
      size_t textLength = strlen(text);
      ASSERT_EQ(textLength, (n + 2) / 3 * 4);
      ASSERT_TRUE(Base64_ValidEncoding(text, textLength));
      ASSERT_EQ(Base64_DecodedLength(text, textLength), n);

      ASSERT_EQ(Decode(text, n), data) << n;
      Bytes out(n + 1);
      size_t length = 0;
      ASSERT_TRUE(Base64_ChunkDecode(text, textLength, out.data(), n, &length));
      ASSERT_EQ(Bytes(out.begin(), out.begin() + length), data);
      uint8_t *allocated = nullptr;
      ASSERT_TRUE(Base64_EasyDecode(text, &allocated, &length));
      ASSERT_EQ(Bytes(allocated, allocated + length), data);
      free(allocated);
      std::vector<char> fixed(n + 1);
      ASSERT_TRUE(Base64_DecodeFixed(text, fixed.data(), n));
      ASSERT_EQ(Bytes(fixed.begin(), fixed.begin() + n), data);
      free(text);
   }
}

TEST(Base64, DecodeAgreesWithCharacterByCharacterRules)
{
   // Valid text with blanks, stray bytes and end marks dropped in, and varying room.
   std::mt19937 rng(11);
   const std::string noise = " \n\r\t=*-\x80";
   for (int round = 0; round < 3000; round++) {
      std::string text = Encode(RandomBytes(rng, rng() % 64));
      for (unsigned k = rng() % 3; k > 0 && !text.empty(); k--) {
         text.insert(rng() % text.size(), 1, noise[rng() % noise.size()]);
      }
      size_t room = rng() % 56;
      ASSERT_EQ(Decode(text, room), ReferenceDecode(text, room)) << text << " room " << room;
   }
}
