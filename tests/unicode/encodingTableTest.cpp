/*
 * The encoding-name table and name lookup.
 */
#include <gtest/gtest.h>

#include <string.h>

#include <string>

#include "testSupport.h"
#include "unicode/unicodeInt.h"
#include "unicodeTypes.h"

namespace {

TEST(EncodingTable, RowsAndFixedValues)
{
   size_t count = 0;
   const UnicodeEncodingRow *rows = UnicodeEncodingTable(&count);
   ASSERT_EQ(count, 325u);
   for (size_t i = 0; i < count; i++) {
      const UnicodeEncodingRow &row = rows[i];
      /* Every preferred name leads back to its row (the first, where two share one). */
      const char *preferred = row.names[row.preferredName];
      size_t first = 0;
      while (strcmp(rows[first].names[rows[first].preferredName], preferred) != 0) {
         first++;
      }
      ASSERT_EQ(UnicodeFindEncodingRow(preferred), &rows[first]) << preferred;
   }

   const struct {
      size_t index;
      const char *preferred;
      StringEncoding encoding;
      bool supported;
      int32_t mib;
      uint32_t codePage;
   } samples[] = {
       {0, "ASCII", 7, true, 3, 20127},
       {1, "ISO-8859-1", 8, true, 4, 28591},
       {6, "ISO-8859-6", 13, true, 9, 28596},
       {7, "ASMO-708", 13, true, -1, 708},
       {9, "ibm-813_P100-1995", 315, false, -1, UNICODE_NO_CODE_PAGE},
       {109, "UTF-8", 0, true, 106, 65001},
       {136, "UTF-16BE", 2, true, 1013, 1201},
       {137, "UTF-16LE", 1, true, 1014, 1200},
       {256, "windows-1252", 35, true, 2252, 1252},
       {324, "Windows-57011", 314, true, -1, 57011},
   };
   for (const auto &e : samples) {
      const UnicodeEncodingRow &row = rows[e.index];
      EXPECT_STREQ(row.names[row.preferredName], e.preferred);
      EXPECT_EQ(row.encoding, e.encoding) << e.preferred;
      EXPECT_EQ(row.supported, e.supported) << e.preferred;
      EXPECT_EQ(row.ianaMibEnum, e.mib) << e.preferred;
      EXPECT_EQ(row.windowsCodePage, e.codePage) << e.preferred;
   }
}

TEST(EncodingTable, NamesOfEncodings)
{
   EXPECT_STREQ(Unicode_EncodingEnumToName(7), "ASCII");
   EXPECT_STREQ(Unicode_EncodingEnumToName(13), "ISO-8859-6"); /* the first of its rows */
   EXPECT_EXIT(
       {
          Log_SetOutputFd(2);
          Unicode_EncodingEnumToName(324);
       },
       ::testing::ExitedWithCode(1),
       "Unicode_EncodingEnumToName: Unknown encoding 324\\.\n.*Panic: NOT_REACHED "
       "lib/unicode/unicodeSimpleTypes:");
   EXPECT_PANIC(Unicode_EncodingEnumToName(-2), "NOT_REACHED lib/unicode/unicodeSimpleTypes:");
   EXPECT_TRUE(Unicode_IsEncodingValid(323));
   EXPECT_FALSE(Unicode_IsEncodingValid(324));
   EXPECT_EQ(Unicode_ResolveEncoding(-1), 0);
}

TEST(EncodingTable, Lookup)
{
   testsupport::LogCapture log;
   const std::pair<const char *, StringEncoding> cases[] = {
       {"windows-1252", 35},                         /* by code page: the first row that has it */
       {"Windows-708", 13},  {"ISO_8859-1:1987", 8}, /* IANA name */
       {"csISOLatin1", 8},                           /* IANA alias */
       {"ibm-5348", 35},                             /* ICU name */
       {"latin1", 8},        {"LATIN-1", 8},         {"l1", 8},
       {"UTF_8", 0},         {"Utf-8", 0},          /* reduced names */
       {"US-ASCII", 7},      {"Windows-50222", -2}, /* the second ISO-2022-JP row, reached by code
                                                       page only */
       {"BS_4730", -2},                             /* a row whose supported flag is clear */
   };
   for (auto [name, expected] : cases) {
      EXPECT_EQ(UnicodeIANALookup(name), expected) << name;
   }
   EXPECT_EQ(log.Text(), "");
   EXPECT_EQ(UnicodeIANALookup("foo"), -2);
   EXPECT_EQ(log.Text(), "UnicodeIANALookup: Did not find an IANA match for encoding \"foo\"\n");
   /* "Windows-" alone names no code page and finds nothing by name either. */
   EXPECT_EQ(UnicodeIANALookup("Windows-"), -2);
   EXPECT_EQ(UnicodeIANALookup("windows-99999999999999999999"), -2);
   EXPECT_EQ(Unicode_EncodingNameToEnum("ISO-8859-15"), 20);
}

TEST(EncodingTable, CacheKeepsNamesAsLookedUp)
{
   testsupport::LogCapture log;
   EXPECT_EQ(UnicodeIANALookup("iso-8859-2"), 9);
   EXPECT_EQ(UnicodeIANALookup("ISO-8859-2"), 9); /* the cache ignores case */
   /* A failed lookup is not cached: it is reported every time. */
   EXPECT_EQ(UnicodeIANALookup("bar"), -2);
   EXPECT_EQ(UnicodeIANALookup("bar"), -2);
   EXPECT_EQ(log.Text(),
             "UnicodeIANALookup: Did not find an IANA match for encoding \"bar\"\n"
             "UnicodeIANALookup: Did not find an IANA match for encoding \"bar\"\n");
   Unicode_Shutdown();
   EXPECT_EQ(UnicodeIANALookup("ISO-8859-2"), 9); /* a new cache after shutdown */
}

}  // namespace
