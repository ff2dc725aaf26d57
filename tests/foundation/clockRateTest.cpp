#include "clockRate.h"
#include "testSupport.h"

TEST(ClockRate, RatioLimitsRoundingAndOffset)
{
   uint32_t mult = 0, shift = 0;
   // 0.512 * 2^32, rounded, and 32 - (-9).
   EXPECT_TRUE(ClockRate_ComputeRatio(1000000, 1000, &mult, &shift) && mult == 2199023256u &&
               shift == 41);

   // The widest ratios that still fit have exponents 32 and -31.
   EXPECT_TRUE(ClockRate_ComputeRatio(1, UINT64_C(1) << 31, &mult, &shift) && shift == 0);
   EXPECT_TRUE(ClockRate_ComputeRatio(UINT64_C(1) << 32, 1, &mult, &shift) && shift == 63);
   EXPECT_FALSE(ClockRate_ComputeRatio(1, UINT64_C(1) << 32, &mult, &shift) ||
                ClockRate_ComputeRatio(UINT64_C(1) << 33, 1, &mult, &shift) ||
                ClockRate_ComputeRatio(0, 1000, &mult, &shift));

   // A mantissa that rounds up to 2^32 moves to the next exponent instead of wrapping to 0.
   EXPECT_TRUE(ClockRate_ComputeRatio(0xFFFFFFFFFFFF, 0xFFFFFFFFFFFE, &mult, &shift) &&
               mult == 1u << 31 && shift == 31);

   // The offset maps the source value onto the target value.
   ClockRateParams params;
   ASSERT_TRUE(ClockRate_ComputeParams(1000000, 5000000, 1000, 77, &params));
   EXPECT_TRUE(params.add == 77 - 5000 && ClockRate_Apply(&params, 5000000) == 77 &&
               ClockRate_Apply(&params, 6000000) == 1077);

   // 3 * 2^31 >> 32 is 1.5: the bit shifted out rounds it to 2.
   EXPECT_TRUE(ClockRate_ComputeParams(2, 3, 1, 100, &params) && params.add == 98);

   testsupport::LogCapture log;
   ClockRate_LogParams("TSC:", 1000000, 5000000, 1000, 77, &params);
   ClockRate_LogRatio("ratio", 1000000, 1000, 2199023256u, 41);
   EXPECT_EQ(log.Text(),
             "TSC: 5000000 @ 1000000Hz -> 77 @ 1000Hz\n"
             "TSC: ((x * 2147483648) >> 32) + 98\n"
             "ratio 1000000Hz -> 1000Hz\n"
             "ratio ((x * 2199023256) >> 41)\n");
}
