#include <stdlib.h>

#include <cstdint>
#include <string>

#include "strutil.h"
#include "testSupport.h"

TEST(StrUtil, FormatByteCount)
{
   auto format = [](uint64_t count) {
      char *text = StrUtil_FormatByteCount(count);
      std::string result = text != nullptr ? text : "(null)";
      free(text);
      return result;
   };
   EXPECT_EQ(format(0), "0 bytes");
   EXPECT_EQ(format(1), "1 byte");
   EXPECT_EQ(format(1023), "1023 bytes");
   EXPECT_EQ(format(1024), "1 KB");
   EXPECT_EQ(format(1536), "1.5 KB");
   EXPECT_EQ(format(1048064), "1023.5 KB");
   EXPECT_EQ(format(UINT64_C(5) << 29), "2.5 GB");
   EXPECT_EQ(format(UINT64_C(1) << 40), "1 TB");
   EXPECT_EQ(format(UINT64_MAX), "16777216 TB");
   // Within 0.01 of a whole number prints it whole: 1023.999 KB, 1.0098 KB, 2.997 KB ...
   EXPECT_EQ(format(1048575), "1024 KB");
   EXPECT_EQ(format(1034), "1 KB");
   EXPECT_EQ(format(3069), "3 KB");
   // ... but 1.0107 KB and 2.988 KB keep their decimal.
   EXPECT_EQ(format(1035), "1.0 KB");
   EXPECT_EQ(format(3060), "3.0 KB");
}
