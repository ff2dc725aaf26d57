#include <stdlib.h>

#include <cstdint>
#include <string>

#include "strutil.h"
#include "testSupport.h"

namespace {

std::string Format(uint64_t count)
{
   char *text = StrUtil_FormatByteCount(count);
   EXPECT_NE(text, nullptr);
   std::string result = text != nullptr ? text : "";
   free(text);
   return result;
}

}  // namespace

TEST(StrUtil, ByteCountUnitsAndDecimals)
{
   EXPECT_EQ(Format(0), "0 bytes");
   EXPECT_EQ(Format(1), "1 byte");
   EXPECT_EQ(Format(2), "2 bytes");
   EXPECT_EQ(Format(1023), "1023 bytes");
   EXPECT_EQ(Format(1024), "1 KB");
   EXPECT_EQ(Format(1536), "1.5 KB");
   EXPECT_EQ(Format(1048064), "1023.5 KB");
   EXPECT_EQ(Format(UINT64_C(1) << 20), "1 MB");
   EXPECT_EQ(Format(UINT64_C(5) << 29), "2.5 GB");
   EXPECT_EQ(Format(UINT64_C(1) << 40), "1 TB");
   EXPECT_EQ(Format(UINT64_MAX), "16777216 TB");
}

TEST(StrUtil, ByteCountNearlyWholeValuesDropTheDecimal)
{
   // 1048575 bytes are 1023.999 KB: within 0.01 of 1024, so shown whole (not "1024.0").
   EXPECT_EQ(Format(1048575), "1024 KB");
   // 1034 bytes are 1.0098 KB, 1035 bytes 1.0107 KB.
   EXPECT_EQ(Format(1034), "1 KB");
   EXPECT_EQ(Format(1035), "1.0 KB");
   // 2.988 KB is more than 0.01 away from 3, and one decimal rounds it to 3.0.
   EXPECT_EQ(Format(3060), "3.0 KB");
   EXPECT_EQ(Format(3069), "3 KB");
}
