/*
 * Feeds arbitrary member-file contents (up to 512 bytes) to the member text parser, older
 * form included, and checks that every text it accepts formats back to a text it accepts
 * with the same values.
 */
#include <string.h>

#include <algorithm>
#include <cstdio>
#include <vector>

#include "file/fileLockInt.h"
#include "fuzzSupport.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
   char buffer[kFileLockMemberSize] = {};
   memcpy(buffer, data, std::min(size, sizeof buffer));
   FileLockMemberValues values;
   std::vector<std::string> argv;
   if (!FileLockParseMemberText(buffer, sizeof buffer, &values, &argv)) {
      Check(argv.size() <= kFileLockMaxFields + 1);
      return 0;
   }
   if (values.executionID.find_first_of("-()") == std::string::npos && values.hasLocationChecksum) {
      return 0;  // formats into the older form's shape, which is read back converted
   }
   unsigned long long startTime = 0, pid = 0;
   sscanf(values.executionID.c_str(), "%llu-%llu", &pid, &startTime);
   char text[kFileLockMemberSize];
   if (!FileLockFormatMemberText(
           values.machineID.c_str(), values.executionID.c_str(), values.lamportNumber,
           values.lockType.c_str(), startTime,
           values.hasLocationChecksum ? values.locationChecksum.c_str() : nullptr, text)) {
      return 0;  // the older form's conversion can outgrow 512 bytes
   }
   FileLockMemberValues a;
   Check(FileLockParseMemberText(text, sizeof text, &a, &argv) && a.machineID == values.machineID &&
         a.executionID == values.executionID && a.lamportNumber == values.lamportNumber &&
         a.lockType == values.lockType && a.hasLocationChecksum == values.hasLocationChecksum &&
         a.locationChecksum == values.locationChecksum);
   return 0;
}
