/*
 * Rounding to a whole number, half-way cases away from zero (as round() does), without the
 * math library: the programs that run as root load nothing beyond the C library.
 */
#ifndef TESMAR_INTERNAL_ROUNDING_H
#define TESMAR_INTERNAL_ROUNDING_H

#include <stdint.h>

namespace tesmar {

inline double RoundHalfAway(double x)
{
   /* NaN, infinities and every value of magnitude 2^52 or more are already whole. */
   if (!(__builtin_fabs(x) < 4503599627370496.0)) {
      return x;
   }
   double whole = static_cast<double>(static_cast<int64_t>(x));
   double rest = x - whole; /* exact: both have the same sign and exponent range */
   if (rest >= 0.5) {
      whole += 1.0;
   } else if (rest <= -0.5) {
      whole -= 1.0;
   }
   return __builtin_copysign(whole, x); /* -0.4 rounds to -0.0 */
}

}  // namespace tesmar

#endif
