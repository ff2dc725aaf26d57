#include <math.h>
#include <stdarg.h>
#include <stdio.h>

#include <regex>
#include <string>
#include <vector>

#include "lock/ulInt.h"
#include "testSupport.h"
#include "userlock.h"

using testsupport::LogCapture;

namespace {

std::vector<std::string> lines;

void CollectLine(void *context, const char *fmt, ...)
{
   EXPECT_EQ(context, &lines);
   char buf[4096];
   va_list args;
   va_start(args, fmt);
   vsnprintf(buf, sizeof buf, fmt, args);
   va_end(args);
   lines.emplace_back(buf);
}

std::vector<std::string> Matching(const std::string &pattern)
{
   std::regex re(pattern);
   std::vector<std::string> found;
   for (const auto &line : lines) {
      if (std::regex_search(line, re)) {
         found.push_back(line);
      }
   }
   return found;
}

class MXUserStats : public ::testing::Test {
  protected:
   void SetUp() override
   {
      lines.clear();
      MXUser_SetStatsFunc(&lines, 256, CollectLine);
      MXUser_SetContentionRatio(0.0, 0, 0);
   }
   void TearDown() override { MXUser_SetStatsMode(0); }
};

}  // namespace

TEST(MXUserStatsMath, FixedPointLogarithmFollowsTheRealOne)
{
   EXPECT_EQ(MXUserLog2Fixed(1), 0u);
   EXPECT_EQ(MXUserLog2Fixed(2), 1u << 16);
   EXPECT_EQ(MXUserLog2Fixed(1ULL << 40), 40u << 16);
   EXPECT_EQ(MXUserLog2Fixed(UINT64_MAX) >> 16, 63u);
   for (uint64_t v : {3ULL, 10ULL, 255ULL, 257ULL, 1000ULL, 123456789ULL, 0xFFFFFFFFFFFULL}) {
      double exact = log2(static_cast<double>(v)) * 65536.0;
      EXPECT_NEAR(MXUserLog2Fixed(v), exact, 2.0) << v;
   }
}

TEST(MXUserStatsMath, HistogramBinsAreHundredthsOfADecade)
{
   MXUserHisto *histo = MXUserHistoSetUp("a", 1000, 7);
   EXPECT_EQ(histo->numBins, 700u);
   EXPECT_EQ(histo->maxValue, 10000000000ULL);
   MXUserHistoSample(histo, 10);         /* below the minimum */
   MXUserHistoSample(histo, 1999);       /* quotient 1 */
   MXUserHistoSample(histo, 10000);      /* one decade */
   MXUserHistoSample(histo, 100000);     /* two decades */
   MXUserHistoSample(histo, 31622);      /* half a decade, just under */
   MXUserHistoSample(histo, UINT64_MAX); /* far beyond: last bin */
   EXPECT_EQ(histo->totalSamples, 6u);
   EXPECT_EQ(histo->binData[0], 2u);
   EXPECT_EQ(histo->binData[100], 1u);
   EXPECT_EQ(histo->binData[200], 1u);
   EXPECT_EQ(histo->binData[149], 1u);
   EXPECT_EQ(histo->binData[699], 1u);
   MXUserHistoTearDown(histo);
}

TEST(MXUserStatsMath, StandardDeviationOfSamples)
{
   MXUserBasicStats stats{"h", 0, UINT64_MAX, 0, 0, 0.0};
   EXPECT_EQ(MXUserStdDev(&stats), 0u);
   MXUserBasicStatsSample(&stats, 10);
   EXPECT_EQ(MXUserStdDev(&stats), 0u);
   MXUserBasicStatsSample(&stats, 20);
   MXUserBasicStatsSample(&stats, 30);
   EXPECT_EQ(MXUserStdDev(&stats), 10u);
   EXPECT_EQ(stats.minTime, 10u);
   EXPECT_EQ(stats.maxTime, 30u);

   /* Large values: the iteration must still end, with the right answer. */
   MXUserBasicStats big{"h", 0, UINT64_MAX, 0, 0, 0.0};
   MXUserBasicStatsSample(&big, 1000000000000ULL);
   MXUserBasicStatsSample(&big, 3000000000000ULL);
   EXPECT_NEAR(static_cast<double>(MXUserStdDev(&big)), 1414213562373.1, 2.0);

   /* All equal: variance 0. */
   MXUserBasicStats flat{"h", 0, UINT64_MAX, 0, 0, 0.0};
   MXUserBasicStatsSample(&flat, 7);
   MXUserBasicStatsSample(&flat, 7);
   EXPECT_EQ(MXUserStdDev(&flat), 0u);
}

TEST(MXUserStatsMath, ContentionVerdict)
{
   MXUserAcquisitionStats stats;
   stats.numAttempts = 10;
   stats.numSuccesses = 8;
   stats.numSuccessesContended = 4;
   double ratio;
   bool hot;
   bool log;

   stats.contentionCountFloor = 0; /* the initial floors: never hot */
   stats.contentionRatioFloor = 0.0;
   EXPECT_FALSE(MXUserContentionVerdict(&stats, &ratio, &hot, &log));
   EXPECT_FALSE(log);
   EXPECT_DOUBLE_EQ(ratio, 0.5);

   stats.contentionCountFloor = 5;
   stats.contentionRatioFloor = 0.4;
   EXPECT_TRUE(MXUserContentionVerdict(&stats, &ratio, &hot, &log));
   EXPECT_TRUE(log);
   stats.contentionRatioFloor = 0.5;
   EXPECT_FALSE(MXUserContentionVerdict(&stats, &ratio, &hot, &log));

   stats.contentionCountFloor = 11; /* too few attempts: ratio stays 0 */
   stats.contentionRatioFloor = -1.0;
   EXPECT_TRUE(MXUserContentionVerdict(&stats, &ratio, &hot, &log));
   EXPECT_DOUBLE_EQ(ratio, 0.0);

   stats.contentionCountFloor = UINT64_MAX; /* always hot, never logged */
   EXPECT_TRUE(MXUserContentionVerdict(&stats, &ratio, &hot, &log));
   EXPECT_FALSE(log);
}

TEST_F(MXUserStats, ModeZeroKeepsNothing)
{
   MXUserExclLock *lock = MXUser_CreateExclLock("plain", 1);
   EXPECT_EQ(lock->acquireStatsMem.load(), nullptr);
   EXPECT_EQ(lock->heldStatsMem.load(), nullptr);
   EXPECT_EQ(lock->header.statsFunc, nullptr);
   MXUser_DestroyExclLock(lock);

   MXUser_SetStatsMode(1);
   MXUserRecLock *rec = MXUser_CreateRecLock("acq", 1);
   EXPECT_NE(rec->acquireStatsMem.load(), nullptr);
   EXPECT_EQ(rec->heldStatsMem.load(), nullptr);
   MXUser_DestroyRecLock(rec);
}

TEST_F(MXUserStats, PerLockReportAnnouncesOnceAndWritesEveryLine)
{
   MXUser_SetStatsMode(2);
   MXUserExclLock *lock = MXUser_CreateExclLock("counted", 0x77);
   unsigned long long serial = lock->header.serialNumber;
   for (int i = 0; i < 3; i++) {
      MXUser_AcquireExclLock(lock);
      MXUser_AcquireExclLock(lock); /* nesting is no new acquisition */
      MXUser_ReleaseExclLock(lock);
      MXUser_ReleaseExclLock(lock);
   }
   EXPECT_TRUE(MXUser_TryAcquireExclLock(lock));
   MXUser_ReleaseExclLock(lock);

   MXUser_PerLockData();
   std::string l = std::to_string(serial);
   EXPECT_EQ(Matching("^MXUser: n n=counted l=" + l + " r=0x77\n$").size(), 1u);
   EXPECT_EQ(
       Matching("^MXUser: e l=" + l + " t=h c=4 min=\\d+ max=\\d+ mean=\\d+ sd=\\d+\n$").size(),
       1u);
   EXPECT_EQ(Matching("^MXUser: e l=" + l + " t=a c=4 min=").size(), 1u);
   EXPECT_EQ(Matching("^MXUser: ce l=" + l + " a=4 s=4 sc=0 sct=0 t=0\n$").size(), 1u);
   EXPECT_TRUE(Matching("^MXUser: h ").empty()); /* no histogram before the lock is hot */

   lines.clear();
   MXUser_PerLockData();
   EXPECT_TRUE(Matching("^MXUser: n ").empty());
   EXPECT_EQ(Matching("^MXUser: ce l=" + l).size(), 1u);
   MXUser_DestroyExclLock(lock);
}

TEST_F(MXUserStats, HotLockIsLoggedAndGetsHistograms)
{
   MXUser_SetStatsMode(2);
   MXUser_SetContentionRatio(0.25, 1, 0);
   MXUserRecLock *lock = MXUser_CreateRecLock("hot", 0);
   MXUser_AcquireRecLock(lock);
   std::thread([&] { EXPECT_FALSE(MXUser_TryAcquireRecLock(lock)); }).join();
   MXUser_ReleaseRecLock(lock);

   LogCapture log;
   MXUser_PerLockData();
   EXPECT_EQ(log.Text(), "HOT LOCK (hot); contention ratio 0.500000\n");
   MXUserAcquisitionStats *acq = lock->acquireStatsMem.load();
   ASSERT_NE(acq->histo.load(), nullptr);
   ASSERT_NE(lock->heldStatsMem.load()->histo.load(), nullptr);

   MXUser_AcquireRecLock(lock);
   MXUser_ReleaseRecLock(lock);
   lines.clear();
   MXUser_PerLockData();
   std::string l = std::to_string(lock->header.serialNumber);
   auto histoLines = Matching("^MXUser: h l=" + l + " t=a min=1000 max=10000000000 \\d+-1\n$");
   EXPECT_EQ(histoLines.size(), 1u);
   MXUser_DestroyRecLock(lock);
}

TEST_F(MXUserStats, HistogramLineStopsWhereTheBufferEnds)
{
   MXUserHeader header{};
   header.serialNumber = 9;
   MXUserHisto *histo = MXUserHistoSetUp("h", 1, 7);
   for (uint64_t v = 1; v <= 1000000; v *= 10) {
      MXUserHistoSample(histo, v);
   }
   MXUser_SetStatsFunc(&lines, 256, CollectLine);
   MXUserDumpHisto(histo, &header);
   ASSERT_EQ(lines.size(), 1u);
   EXPECT_EQ(lines[0],
             "MXUser: h l=9 t=h min=1 max=10000000 0-1 100-1 200-1 300-1 400-1 500-1 "
             "600-1\n");

   /* Room for the first two bins and not the third. */
   std::string head = "MXUser: h l=9 t=h min=1 max=10000000\n";
   lines.clear();
   MXUser_SetStatsFunc(&lines, static_cast<uint32_t>(head.size() + 12), CollectLine);
   MXUserDumpHisto(histo, &header);
   ASSERT_EQ(lines.size(), 1u);
   EXPECT_EQ(lines[0], "MXUser: h l=9 t=h min=1 max=10000000 0-1 100-1\n");
   MXUserHistoTearDown(histo);
}
