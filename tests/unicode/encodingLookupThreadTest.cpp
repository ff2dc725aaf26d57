/*
 * The encoding-name cache is created and filled by racing threads.
 */
#include <atomic>

#include "testSupport.h"
#include "unicodeTypes.h"

TEST(EncodingLookupThread, RacingLookupsAgreeAndRacingInitsSettle)
{
   const std::pair<const char *, StringEncoding> lookups[] = {
       {"UTF-8", 0},     {"utf8", 0},           {"latin1", 8},          {"windows-1252", 35},
       {"ASCII", 7},     {"UTF-16LE", 1},       {"Windows-57009", 312}, {"ISO_8859-1:1987", 8},
       {"ibm-5348", 35}, {"UTF16_BigEndian", 2}};
   for (int round = 0; round < 20; round++) {
      Unicode_Shutdown();
      std::atomic<int> wrong{0};
      testsupport::RunThreads(8, [&](int t) {
         for (int i = 0; i < 50; i++) {
            auto [name, expected] = lookups[(t + i) % 10];
            wrong += UnicodeIANALookup(name) != expected;
         }
      });
      ASSERT_EQ(wrong.load(), 0);
   }
   Unicode_Shutdown();
   testsupport::RunThreads(4, [](int) { Unicode_Init(nullptr); });
   EXPECT_EQ(Unicode_ResolveEncoding(-1), 0);
}
