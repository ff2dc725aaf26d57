#include <stdlib.h>

#include "random.h"
#include "testSupport.h"

TEST(RandomFast, KnownSequences)
{
   // Outputs 1, 2, 3, 25, 26 and 1000: the state wraps around its 25 words many times.
   const std::pair<uint32_t, std::vector<uint32_t>> known[] = {
       {0, {0x33c2a07e, 0x6977b9d2, 0x2457c108, 0xbf38a639, 0x556f81ab, 0x6597a579}},
       {0xdeadbeef, {0x7656545a, 0xf8a0cf32, 0xc6029a81, 0x3ebc181d, 0xcd0f5e26, 0x8f6b136a}}};
   for (const auto &[seed, expected] : known) {
      FastRandomState *state = Random_FastSeed(seed);
      std::vector<uint32_t> outputs;
      for (int n = 1; n <= 1000; n++) {
         uint32_t value = Random_FastNext(state);
         outputs.insert(outputs.end(), n <= 3 || n == 25 || n == 26 || n == 1000, value);
      }
      EXPECT_EQ(outputs, expected) << seed;
      free(state);
   }
}

TEST(RandomBytes, FillsTheWholeBufferOrLogsTheFailure)
{
   testsupport::LogCapture log;
   EXPECT_TRUE(Random_Bytes(0, nullptr));
   // Two 4 KiB draws neither leave a zero tail nor repeat each other.
   std::vector<uint8_t> one(4096, 0), two(4096, 0);
   ASSERT_TRUE(Random_Bytes(one.size(), one.data()) && Random_Bytes(two.size(), two.data()));
   EXPECT_NE(one, two);
   EXPECT_NE(std::vector<uint8_t>(one.end() - 64, one.end()), std::vector<uint8_t>(64, 0));
   EXPECT_EQ(log.Text(), "");
   // An unwritable buffer makes the read itself fail.
   EXPECT_FALSE(Random_Bytes(16, reinterpret_cast<void *>(8)));
   EXPECT_EQ(log.Text(),
             "RandomBytesPosix: 16 byte read failed while reading from /dev/urandom: "
             "Bad address\n");
}
