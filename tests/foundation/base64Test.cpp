#include <string.h>

#include <optional>

#include "base64.h"
#include "testSupport.h"

/* Byte strings throughout: std::string holds any bytes. */
static const uint8_t *U(const std::string &bytes)
{
   return reinterpret_cast<const uint8_t *>(bytes.data());
}

static std::string Encode(const std::string &data)
{
   std::string out(Base64_EncodedLength(U(data), data.size()), '?');
   size_t length = 99;
   EXPECT_TRUE(Base64_Encode(U(data), data.size(), out.data(), out.size(), &length));
   EXPECT_EQ(strlen(out.c_str()), length);
   return out.c_str();
}

static std::optional<std::string> Decode(const std::string &text, size_t room)
{
   std::string out(room + 1, '?');
   size_t length = 99;
   if (!Base64_Decode(text.c_str(), (uint8_t *)out.data(), room, &length)) {
      return std::nullopt;
   }
   return out.substr(0, length);
}

TEST(Base64, KnownTextsSizesAndBounds)
{
   const std::pair<std::string, std::string> encoded[] = {
       {"", ""}, {"a", "YQ=="}, {"ab", "YWI="}, {"\xFB\xFF\xBFz", "+/+/eg=="}};
   for (const auto &[data, text] : encoded) {
      EXPECT_EQ(Encode(data), text);
   }
   EXPECT_EQ(Decode(" Y\tW\nJ\rj\v\f", 3), "abc");
   EXPECT_EQ(Decode("YQ==*garbage", 1), "a");  // "=" and NUL end the text
   EXPECT_EQ(Decode("YWI", 2), "ab");          // bits short of a byte are dropped
   EXPECT_EQ(Decode("YW\x80j", 3), std::nullopt);

   uint8_t out[8];
   size_t length = 0;
   EXPECT_TRUE(Base64_ChunkDecode("YWJjZGVm", 6, out, sizeof out, &length));  // stops at 6
   EXPECT_EQ(std::string((char *)out, length), "abcd");
   EXPECT_TRUE(Base64_ValidEncoding("AZaz09+/==", 10) && Base64_ValidEncoding("YW*I", 2));
   EXPECT_FALSE(Base64_ValidEncoding("YW I=", 5) || Base64_ValidEncoding("YW\0I", 4));

   const uint8_t data[6] = {1, 2, 3, 4, 5, 6};
   char text[16];
   length = 7;
   EXPECT_TRUE(!Base64_Encode(data, 6, text, 0, &length) && length == 0);
   EXPECT_TRUE(!Base64_Encode(data, 6, text, 8, &length) &&
               Base64_Encode(data, 6, text, 9, &length));
   EXPECT_FALSE(Base64_Encode(data, SIZE_MAX - 1, text, sizeof text, &length));
   char *allocated = text;
   // The size formula wraps.
   EXPECT_TRUE(!Base64_EasyEncode(data, SIZE_MAX - 1, &allocated) && allocated == nullptr);
}
