#include <stdlib.h>
#include <string.h>

#include <optional>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "base64.h"

namespace {

using Bytes = std::vector<uint8_t>;

std::string Encode(const Bytes &data)
{
   std::string out(Base64_EncodedLength(data.data(), data.size()), '?');
   size_t length = 99;
   EXPECT_TRUE(Base64_Encode(data.data(), data.size(), out.data(), out.size(), &length));
   EXPECT_EQ(out[length], '\0');
   out.resize(length);
   return out;
}

std::optional<Bytes> Decode(const std::string &text, size_t room)
{
   Bytes out(room + 1, 0xEE);
   size_t length = 99;
   if (!Base64_Decode(text.c_str(), out.data(), room, &length)) {
      EXPECT_EQ(length, 0u);
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
   unsigned bits = 0;
   unsigned count = 0;
   for (char c : text) {
      if (c == '=' || c == '\0') {
         break;
      }
      if (strchr(" \t\n\v\f\r", c) != nullptr) {
         continue;
      }
      size_t value = alphabet.find(c);
      if (value == std::string::npos) {
         return std::nullopt;
      }
      bits = (bits << 6) | static_cast<unsigned>(value);
      count += 6;
      if (count >= 8) {
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

TEST(Base64, KnownTextsAndPadding)
{
   EXPECT_EQ(Encode({}), "");
   EXPECT_EQ(Encode(B("a")), "YQ==");
   EXPECT_EQ(Encode(B("ab")), "YWI=");
   EXPECT_EQ(Encode(B("abc")), "YWJj");
   EXPECT_EQ(Encode({0xFB, 0xFF, 0xBF}), "+/+/");
   EXPECT_EQ(Encode(B("The quick brown fox jumps over the lazy dog")),
             "VGhlIHF1aWNrIGJyb3duIGZveCBqdW1wcyBvdmVyIHRoZSBsYXp5IGRvZw==");

   EXPECT_EQ(Decode("YW I=", 2), B("ab"));
   EXPECT_EQ(Decode(" Y\tW\nJ\rj\v\f", 3), B("abc"));
   EXPECT_EQ(Decode("", 0), Bytes{});
   // "=" and NUL end the text; what follows is never looked at.
   EXPECT_EQ(Decode("YQ==*garbage", 1), B("a"));
   EXPECT_EQ(Decode(std::string("YWJj\0*", 6), 3), B("abc"));
   // Leftover bits that make no whole byte are dropped.
   EXPECT_EQ(Decode("YWI", 2), B("ab"));
   EXPECT_EQ(Decode("Y", 0), Bytes{});
   EXPECT_EQ(Decode("YWJj*", 8), std::nullopt);
   EXPECT_EQ(Decode("YWJjYWJj-WJj", 9), std::nullopt);
   EXPECT_EQ(Decode("YW\x80j", 3), std::nullopt);
}

TEST(Base64, EncodeRefusesWhatDoesNotFit)
{
   const uint8_t data[6] = {1, 2, 3, 4, 5, 6};
   char out[16];
   size_t length = 7;
   EXPECT_FALSE(Base64_Encode(data, 6, out, 0, &length));
   EXPECT_EQ(length, 0u);
   EXPECT_FALSE(Base64_Encode(data, 6, out, 8, &length));
   EXPECT_TRUE(Base64_Encode(data, 6, out, 9, &length));
   EXPECT_EQ(length, 8u);
   EXPECT_TRUE(Base64_Encode(data, 0, out, 1, &length));
   EXPECT_EQ(length, 0u);
   EXPECT_STREQ(out, "");
   EXPECT_FALSE(Base64_Encode(data, SIZE_MAX - 1, out, sizeof out, &length));
   EXPECT_FALSE(Base64_Encode(data, SIZE_MAX, out, SIZE_MAX, &length));

   char *text = reinterpret_cast<char *>(1);
   EXPECT_FALSE(Base64_EasyEncode(data, SIZE_MAX - 1, &text));
   EXPECT_EQ(text, nullptr);
}

TEST(Base64, DecodedLengthBoundAndFailureAtTheBound)
{
   EXPECT_EQ(Base64_DecodedLength("", 0), 0u);
   EXPECT_EQ(Base64_DecodedLength("==", 2), 0u);
   EXPECT_EQ(Base64_DecodedLength("YQ==", 4), 1u);
   EXPECT_EQ(Base64_DecodedLength("YWI=", 4), 2u);
   EXPECT_EQ(Base64_DecodedLength("YWJj", 4), 3u);
   EXPECT_EQ(Base64_DecodedLength("YW I=", 5), 2u);
   EXPECT_EQ(Base64_DecodedLength("YWJjZA", 6), 3u);

   // Every output size one short of the result fails, at every stage of a group.
   for (size_t n = 1; n <= 40; n++) {
      std::string text = Encode(Bytes(n, 0x5A));
      EXPECT_TRUE(Decode(text, n).has_value());
      EXPECT_EQ(Decode(text, n - 1), std::nullopt) << n;
   }
}

TEST(Base64, ChunkDecodeStopsAtItsLength)
{
   uint8_t out[8];
   size_t length = 0;
   EXPECT_TRUE(Base64_ChunkDecode("YWJjZGVm", 4, out, sizeof out, &length));
   EXPECT_EQ(Bytes(out, out + length), B("abc"));
   EXPECT_TRUE(Base64_ChunkDecode("YWJjZGVm", 6, out, sizeof out, &length));
   EXPECT_EQ(Bytes(out, out + length), B("abcd"));
   // A character past the length is never read, valid or not.
   EXPECT_TRUE(Base64_ChunkDecode("YWJj*", 4, out, sizeof out, &length));
   EXPECT_EQ(length, 3u);
}

TEST(Base64, AllocatingAndCopyingForms)
{
   uint8_t *data = nullptr;
   size_t size = 0;
   ASSERT_TRUE(Base64_EasyDecode("YW I=", &data, &size));
   EXPECT_EQ(Bytes(data, data + size), B("ab"));
   free(data);
   ASSERT_TRUE(Base64_EasyDecode("", &data, &size));
   EXPECT_EQ(size, 0u);
   free(data);
   data = reinterpret_cast<uint8_t *>(1);
   EXPECT_FALSE(Base64_EasyDecode("YW*I", &data, &size));
   EXPECT_EQ(data, nullptr);
   EXPECT_EQ(size, 0u);
   // Three characters give two bytes but bound to zero ("AAA" is not a whole group).
   EXPECT_FALSE(Base64_EasyDecode("AAA", &data, &size));

   char fixed[4] = {'x', 'x', 'x', 'x'};
   EXPECT_TRUE(Base64_DecodeFixed("YWJj", fixed, 3));
   EXPECT_EQ(std::string(fixed, 4), "abcx");
   EXPECT_FALSE(Base64_DecodeFixed("YWJjZA==", fixed, 3));
   EXPECT_FALSE(Base64_DecodeFixed("Y?", fixed, 3));

   char *text = nullptr;
   ASSERT_TRUE(Base64_EasyEncode(reinterpret_cast<const uint8_t *>("ab"), 2, &text));
   EXPECT_STREQ(text, "YWI=");
   free(text);
}

TEST(Base64, ValidEncoding)
{
   EXPECT_TRUE(Base64_ValidEncoding("", 0));
   EXPECT_TRUE(Base64_ValidEncoding("AZaz09+/==", 10));
   EXPECT_FALSE(Base64_ValidEncoding("YW I=", 5));
   EXPECT_FALSE(Base64_ValidEncoding("YW-I", 4));
   EXPECT_FALSE(Base64_ValidEncoding("YW\0I", 4));
   EXPECT_TRUE(Base64_ValidEncoding("YW*I", 2));
}

TEST(Base64, RandomDataRoundTripsThroughEveryDecoder)
{
   std::mt19937 rng(7);
   for (size_t n = 0; n <= 300; n++) {
      Bytes data = RandomBytes(rng, n);
      std::string text = Encode(data);
      ASSERT_EQ(text.size(), (n + 2) / 3 * 4);
      ASSERT_TRUE(Base64_ValidEncoding(text.c_str(), text.size()));
      size_t bound = Base64_DecodedLength(text.c_str(), text.size());
      ASSERT_EQ(bound, n);

      ASSERT_EQ(Decode(text, n), data) << n;

      Bytes out(n + 1);
      size_t length = 0;
      ASSERT_TRUE(Base64_ChunkDecode(text.c_str(), text.size(), out.data(), n, &length));
      ASSERT_EQ(Bytes(out.begin(), out.begin() + length), data);

      uint8_t *allocated = nullptr;
      ASSERT_TRUE(Base64_EasyDecode(text.c_str(), &allocated, &length));
      ASSERT_EQ(Bytes(allocated, allocated + length), data);
      free(allocated);

      std::vector<char> fixed(n + 1);
      ASSERT_TRUE(Base64_DecodeFixed(text.c_str(), fixed.data(), n));
      ASSERT_EQ(Bytes(fixed.begin(), fixed.begin() + n), data);

      char *easy = nullptr;
      ASSERT_TRUE(Base64_EasyEncode(data.data(), n, &easy));
      ASSERT_EQ(text, easy);
      free(easy);
   }
}

TEST(Base64, DecodeAgreesWithCharacterByCharacterRules)
{
   // Mostly valid text with blanks, stray bytes and end marks dropped in at random.
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
