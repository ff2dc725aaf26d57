/*
 * Floating-point conversions from many threads at once: ecvt/fcvt share one static buffer, so
 * the engine serialises them; every thread must still see its own digits.
 */
#include <stdio.h>

#include <string>
#include <thread>
#include <vector>

#include "str.h"
#include "testSupport.h"

TEST(FormatThread, FloatConversionsDoNotMixDigits)
{
   constexpr int kThreads = 6;
   std::vector<std::thread> threads;
   std::vector<int> failures(kThreads, 0);
   for (int t = 0; t < kThreads; t++) {
      threads.emplace_back([t, &failures] {
         double value = 1000.0 * (t + 1) + 0.25;
         char expected[64];
         snprintf(expected, sizeof expected, "%.2f %e %g", value, value, value);
         for (int i = 0; i < 2000; i++) {
            char buf[64];
            Str_Snprintf(buf, sizeof buf, "%.2f %e %g", value, value, value);
            if (std::string(buf) != expected) {
               failures[t]++;
            }
         }
      });
   }
   for (std::thread &thread : threads) {
      thread.join();
   }
   for (int t = 0; t < kThreads; t++) {
      EXPECT_EQ(failures[t], 0) << "thread " << t;
   }
}
