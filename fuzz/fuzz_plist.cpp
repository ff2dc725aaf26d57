/*
 * The property-list reader over arbitrary bytes. What it accepts it writes as XML and reads back
 * to the same tree (an XML input, which has no references or fractional dates, exactly), and
 * libplist reads that XML to the same tree too.
 */
#include <plist/plist.h>

#include "fuzzSupport.h"
#include "propertyList.h"

using codesign::PlistParse;
using codesign::PlistToXml;
using codesign::PlistValue;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
   PlistValue value, again, viaLibplist;
   if (!PlistParse(data, size, value)) {
      return 0;
   }
   std::string xml = PlistToXml(value);
   fuzz::Check(PlistParse((const uint8_t *)xml.data(), xml.size(), again));
   fuzz::Check(PlistToXml(again) == xml);
   fuzz::Check(memcmp(data, "bplist00", size < 8 ? size : 8) == 0 || again == value);

   plist_t theirs = nullptr;
   plist_from_memory(xml.data(), (uint32_t)xml.size(), &theirs);
   fuzz::Check(theirs != nullptr);
   char *bin = nullptr;
   uint32_t length = 0;
   plist_to_bin(theirs, &bin, &length);
   fuzz::Check(PlistParse((const uint8_t *)bin, length, viaLibplist) && viaLibplist == again);
   plist_to_bin_free(bin);
   plist_free(theirs);
   return 0;
}
