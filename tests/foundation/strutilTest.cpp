#include <stdlib.h>

#include <cstdint>
#include <string>

#include "strutil.h"
#include "testSupport.h"

TEST(StrUtil, FormatByteCount)
{
   // Within 0.01 of a whole number prints it whole (1023.999 KB, 1.0098 KB, 2.997 KB), but
   // 1.0107 KB and 2.988 KB keep their decimal.
   const std::pair<uint64_t, const char *> cases[] = {
       {0, "0 bytes"},         {1, "1 byte"},           {1023, "1023 bytes"},
       {1024, "1 KB"},         {1536, "1.5 KB"},        {1048064, "1023.5 KB"},
       {2684354560, "2.5 GB"}, {1099511627776, "1 TB"}, {UINT64_MAX, "16777216 TB"},
       {1048575, "1024 KB"},   {1034, "1 KB"},          {3069, "3 KB"},
       {1035, "1.0 KB"},       {3060, "3.0 KB"}};
   for (const auto &[count, expected] : cases) {
      char *text = StrUtil_FormatByteCount(count);
      EXPECT_STREQ(text, expected);
      free(text);
   }
}
