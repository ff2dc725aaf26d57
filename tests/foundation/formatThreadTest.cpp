/*
 * Floating-point conversions from many threads at once: ecvt/fcvt share one static buffer, so
 * the engine serialises them; every thread must still see its own digits.
 */
#include <stdio.h>

#include "str.h"
#include "testSupport.h"

TEST(FormatThread, FloatConversionsDoNotMixDigits)
{
   testsupport::RunThreads(6, [](int t) {
      double value = 1000.0 * (t + 1) + 0.25;
      char expected[64], buf[64];
      snprintf(expected, sizeof expected, "%.2f %e %g", value, value, value);
      int failures = 0;
      for (int i = 0; i < 2000; i++) {
         Str_Snprintf(buf, sizeof buf, "%.2f %e %g", value, value, value);
         failures += std::string(buf) != expected;
      }
      EXPECT_EQ(failures, 0) << "thread " << t;
   });
}
