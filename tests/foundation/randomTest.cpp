#include <stdlib.h>

#include <cstdint>
#include <vector>

#include "random.h"
#include "testSupport.h"

namespace {

/* The generator as written out: published words ^ seed; positions 24 and 6 move first. */
struct ReferenceTT800 {
   uint32_t x[25] = {0x95f24dab, 0x0b685215, 0xe76ccae7, 0xaf3ec239, 0x715fad23,
                     0x24a590ad, 0x69e4b5ef, 0xbf456141, 0x96bc1b7b, 0xa7bdf825,
                     0xc1de75b7, 0x8858a9c9, 0x2da87693, 0xb657f9dd, 0xffdc8a9f,
                     0x8121da71, 0x8b823ecb, 0x885d05f5, 0x4e20cd47, 0x5a9ad5d9,
                     0x512c0c03, 0xea857ccd, 0x4cc1d30f, 0x8891a8a1, 0xa6b7aadb};
   int first = 24, second = 6;

   explicit ReferenceTT800(uint32_t seed)
   {
      for (uint32_t &word : x) {
         word ^= seed;
      }
   }

   uint32_t Next()
   {
      first = (first + 1) % 25;
      second = (second + 1) % 25;
      uint32_t a = x[first];
      uint32_t y = (a >> 1) ^ x[second] ^ (a % 2 == 1 ? 0x8ebfd028u : 0u);
      x[(first + 1) % 25] = y;
      y ^= (y << 7) & 0x2b5b2500;
      y ^= (y << 15) & 0xdb8b0000;
      return y ^ (y >> 16);
   }
};

}  // namespace

TEST(RandomFast, FollowsTheGeneratorAndEveryBitOfTheSeedMatters)
{
   for (uint32_t seed : {0u, 1u, 0xdeadbeefu}) {
      FastRandomState *state = Random_FastSeed(seed);
      ReferenceTT800 reference(seed);
      for (int n = 0; n < 1000; n++) {
         ASSERT_EQ(Random_FastNext(state), reference.Next()) << "seed " << seed << " step " << n;
      }
      free(state);
   }

   FastRandomState *base = Random_FastSeed(0x5555aaaa);
   uint32_t first = Random_FastNext(base);
   free(base);
   for (int bit = 0; bit < 32; bit++) {
      FastRandomState *flipped = Random_FastSeed(0x5555aaaau ^ (1u << bit));
      EXPECT_NE(Random_FastNext(flipped), first) << bit;
      free(flipped);
   }
}

TEST(RandomBytes, FillsTheWholeBuffer)
{
   testsupport::LogCapture log;
   EXPECT_TRUE(Random_Bytes(0, nullptr));
   // Two 4 KiB draws neither leave a zero tail nor repeat each other.
   std::vector<uint8_t> one(4096, 0), two(4096, 0);
   ASSERT_TRUE(Random_Bytes(one.size(), one.data()));
   ASSERT_TRUE(Random_Bytes(two.size(), two.data()));
   EXPECT_NE(one, two);
   EXPECT_NE(std::vector<uint8_t>(one.end() - 64, one.end()), std::vector<uint8_t>(64, 0));
   EXPECT_EQ(log.Text(), "");

   // An unwritable buffer makes the read itself fail.
   EXPECT_FALSE(Random_Bytes(16, reinterpret_cast<void *>(8)));
   EXPECT_EQ(log.Text(),
             "RandomBytesPosix: 16 byte read failed while reading from /dev/urandom: "
             "Bad address\n");
}
