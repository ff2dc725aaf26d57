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
   EXPECT_EQ(strlen(out.c_str()), length);
   return out.c_str();
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
   EXPECT_TRUE(Base64_ChunkDecode("YWJjZGVm", 6, out, sizeof out, &length));  // stops at 6
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
}

TEST(Base64, RandomDataRoundTripsThroughEveryDecoderWithExactRoom)
{
   std::mt19937 rng(7);
   for (size_t n = 0; n <= 300; n++) {
      SCOPED_TRACE(n);
      Bytes data(n);
      for (auto &b : data) {
         b = static_cast<uint8_t>(rng());
      }
      char *text = nullptr;
      ASSERT_TRUE(Base64_EasyEncode(data.data(), n, &text));
      size_t textLength = strlen(text);
      ASSERT_EQ(textLength, (n + 2) / 3 * 4);
      EXPECT_TRUE(Base64_ValidEncoding(text, textLength));
      EXPECT_EQ(Base64_DecodedLength(text, textLength), n);
      EXPECT_EQ(Decode(text, n), data);
      // One byte of room less than needed fails, at every stage of a group.
      EXPECT_TRUE(n == 0 || !Decode(text, n - 1));
      Bytes out(n + 1);
      size_t length = 0;
      EXPECT_TRUE(Base64_ChunkDecode(text, textLength, out.data(), n, &length));
      EXPECT_EQ(Bytes(out.begin(), out.begin() + length), data);
      uint8_t *allocated = nullptr;
      EXPECT_TRUE(Base64_EasyDecode(text, &allocated, &length));
      EXPECT_EQ(Bytes(allocated, allocated + length), data);
      free(allocated);
      EXPECT_TRUE(Base64_DecodeFixed(text, reinterpret_cast<char *>(out.data()), n));
      EXPECT_EQ(Bytes(out.begin(), out.begin() + n), data);
      free(text);
   }
}
