/*
 * The encoding-name cache is created and filled by racing threads.
 */
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "testSupport.h"
#include "unicodeTypes.h"

namespace {

TEST(EncodingLookupThread, RacingLookupsAgree)
{
   const char *const names[] = {"UTF-8",    "utf8",           "latin1",        "windows-1252",
                                "ASCII",    "UTF-16LE",       "Windows-57009", "ISO_8859-1:1987",
                                "ibm-5348", "UTF16_BigEndian"};
   const StringEncoding expected[] = {0, 0, 8, 35, 7, 1, 312, 8, 35, 2};
   for (int round = 0; round < 20; round++) {
      Unicode_Shutdown();
      std::atomic<bool> go{false};
      std::atomic<int> wrong{0};
      std::vector<std::thread> threads;
      for (int t = 0; t < 8; t++) {
         threads.emplace_back([&, t] {
            while (!go.load()) {
            }
            for (int i = 0; i < 50; i++) {
               size_t k = (size_t)(t + i) % 10;
               if (UnicodeIANALookup(names[k]) != expected[k]) {
                  wrong++;
               }
            }
         });
      }
      go = true;
      for (std::thread &t : threads) {
         t.join();
      }
      ASSERT_EQ(wrong.load(), 0);
   }
   Unicode_Shutdown();
}

TEST(EncodingLookupThread, InitRunsOnce)
{
   std::vector<std::thread> threads;
   for (int t = 0; t < 4; t++) {
      threads.emplace_back([] { Unicode_Init(nullptr); });
   }
   for (std::thread &t : threads) {
      t.join();
   }
   EXPECT_EQ(Unicode_ResolveEncoding(-1), 0);
}

}  // namespace
