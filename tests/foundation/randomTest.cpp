#include <stdlib.h>

#include <array>
#include <cstdint>
#include <vector>

#include "random.h"
#include "testSupport.h"

namespace {

/*
 * The generator written out step by step: both positions move on by one, the word after the
 * first position receives (a >> 1) ^ b, twisted when a is odd, and is tempered for output.
 */
class ReferenceTT800 {
 public:
   explicit ReferenceTT800(uint32_t seed)
   {
      const uint32_t published[25] = {
         0x95f24dab, 0x0b685215, 0xe76ccae7, 0xaf3ec239, 0x715fad23, 0x24a590ad, 0x69e4b5ef,
         0xbf456141, 0x96bc1b7b, 0xa7bdf825, 0xc1de75b7, 0x8858a9c9, 0x2da87693, 0xb657f9dd,
         0xffdc8a9f, 0x8121da71, 0x8b823ecb, 0x885d05f5, 0x4e20cd47, 0x5a9ad5d9, 0x512c0c03,
         0xea857ccd, 0x4cc1d30f, 0x8891a8a1, 0xa6b7aadb};
      for (int k = 0; k < 25; k++) {
         words_[k] = published[k] ^ seed;
      }
   }

   uint32_t Next()
   {
      first_ = first_ == 24 ? 0 : first_ + 1;
      second_ = second_ == 24 ? 0 : second_ + 1;
      uint32_t a = words_[first_];
      uint32_t y = (a >> 1) ^ words_[second_];
      if (a % 2 == 1) {
         y ^= 0x8ebfd028;
      }
      words_[first_ == 24 ? 0 : first_ + 1] = y;
      y ^= (y << 7) & 0x2b5b2500;
      y ^= (y << 15) & 0xdb8b0000;
      y ^= y >> 16;
      return y;
   }

 private:
   std::array<uint32_t, 25> words_{};
   int first_ = 24;
   int second_ = 6;
};

}  // namespace

TEST(RandomFast, FollowsTheGeneratorForSeveralRounds)
{
   for (uint32_t seed : {0u, 1u, 0xdeadbeefu}) {
      FastRandomState *state = Random_FastSeed(seed);
      EXPECT_EQ(state->x[0], 0x95f24dabu ^ seed);
      EXPECT_EQ(state->x[24], 0xa6b7aadbu ^ seed);
      EXPECT_EQ(state->i, 24u);
      EXPECT_EQ(state->j, 6u);
      ReferenceTT800 reference(seed);
      for (int n = 0; n < 1000; n++) {
         ASSERT_EQ(Random_FastNext(state), reference.Next()) << "seed " << seed << " step " << n;
      }
      free(state);
   }
}

TEST(RandomFast, SameSeedSameSequenceAndEveryBitOfTheSeedMatters)
{
   FastRandomState *a = Random_FastSeed(12345);
   FastRandomState *b = Random_FastSeed(12345);
   for (int n = 0; n < 100; n++) {
      ASSERT_EQ(Random_FastNext(a), Random_FastNext(b));
   }
   free(a);
   free(b);

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
   EXPECT_TRUE(Random_Bytes(0, nullptr));
   // Two 4 KiB draws neither leave a zero tail nor repeat each other.
   std::vector<uint8_t> one(4096, 0), two(4096, 0);
   testsupport::LogCapture log;
   ASSERT_TRUE(Random_Bytes(one.size(), one.data()));
   ASSERT_TRUE(Random_Bytes(two.size(), two.data()));
   EXPECT_NE(one, two);
   EXPECT_NE(std::vector<uint8_t>(one.end() - 64, one.end()), std::vector<uint8_t>(64, 0));
   EXPECT_EQ(log.Text(), "");
}
