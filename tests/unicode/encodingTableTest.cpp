#include <string.h>

#include "testSupport.h"
#include "unicode/unicodeInt.h"
#include "unicodeTypes.h"

TEST(EncodingTable, EveryPreferredNameLeadsBackToItsRow)
{
   size_t count = 0;
   const UnicodeEncodingRow *rows = UnicodeEncodingTable(&count);
   for (size_t i = 0; i < count; i++) {
      // The first row, where two share a preferred name.
      const char *preferred = rows[i].names[rows[i].preferredName];
      size_t first = 0;
      while (strcmp(rows[first].names[rows[first].preferredName], preferred) != 0) {
         first++;
      }
      ASSERT_EQ(UnicodeFindEncodingRow(preferred), &rows[first]) << preferred;
   }
   EXPECT_STREQ(Unicode_EncodingEnumToName(7), "ASCII");
   EXPECT_STREQ(Unicode_EncodingEnumToName(13), "ISO-8859-6");  // the first of its rows
   EXPECT_EXIT(
       {
          Log_SetOutputFd(2);
          Unicode_EncodingEnumToName(324);
       },
       ::testing::ExitedWithCode(1),
       "Unicode_EncodingEnumToName: Unknown encoding 324\\.\n.*Panic: NOT_REACHED "
       "lib/unicode/unicodeSimpleTypes:");
   EXPECT_TRUE(Unicode_IsEncodingValid(323) && !Unicode_IsEncodingValid(324));
   EXPECT_EQ(Unicode_ResolveEncoding(-1), 0);
}

TEST(EncodingTable, Lookup)
{
   testsupport::LogCapture log;
   // By code page (the first row that has it), IANA name and alias, ICU name, reduced names;
   // the second ISO-2022-JP row is reached by code page only; BS_4730 is not supported.
   const std::pair<const char *, StringEncoding> cases[] = {
       {"windows-1252", 35}, {"Windows-708", 13}, {"ISO_8859-1:1987", 8}, {"csISOLatin1", 8},
       {"ibm-5348", 35},     {"LATIN-1", 8},      {"UTF_8", 0},           {"Windows-50222", -2},
       {"BS_4730", -2},      {"Windows-", -2}};
   for (auto [name, expected] : cases) {
      EXPECT_EQ(UnicodeIANALookup(name), expected) << name;
   }
   EXPECT_EQ(UnicodeIANALookup("windows-99999999999999999999"), -2);
   EXPECT_EQ(Unicode_EncodingNameToEnum("ISO-8859-15"), 20);

   log.Clear();
   // The cache ignores case.
   EXPECT_TRUE(UnicodeIANALookup("iso-8859-2") == 9 && UnicodeIANALookup("ISO-8859-2") == 9);
   // A failed lookup is not cached: it is reported every time.
   EXPECT_TRUE(UnicodeIANALookup("bar") == -2 && UnicodeIANALookup("bar") == -2);
   EXPECT_EQ(log.Text(),
             "UnicodeIANALookup: Did not find an IANA match for encoding \"bar\"\n"
             "UnicodeIANALookup: Did not find an IANA match for encoding \"bar\"\n");
   Unicode_Shutdown();
   EXPECT_EQ(UnicodeIANALookup("ISO-8859-2"), 9);  // a new cache after shutdown
}
