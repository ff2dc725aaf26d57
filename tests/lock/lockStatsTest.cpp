#include <stdarg.h>

#include <algorithm>
#include <regex>

#include "lock/ulInt.h"
#include "testSupport.h"
#include "userlock.h"

static std::vector<std::string> gLines;

static void CollectLine(void *context, const char *fmt, ...)
{
   EXPECT_EQ(context, &gLines);
   char buf[4096];
   va_list args;
   va_start(args, fmt);
   vsnprintf(buf, sizeof buf, fmt, args);
   va_end(args);
   gLines.emplace_back(buf);
}

static size_t CountMatching(const std::string &pattern)
{
   std::regex re(pattern);
   return std::count_if(gLines.begin(), gLines.end(),
                        [&](const std::string &line) { return std::regex_search(line, re); });
}

/* Sends the stats lines to gLines, each cut to room bytes. */
static void Collect(uint32_t room = 256)
{
   gLines.clear();
   MXUser_SetStatsFunc(&gLines, room, CollectLine);
}

TEST(MXUserStats, HistogramAndBasicStatisticsLines)
{
   MXUserHeader header{};
   header.serialNumber = 9;
   Collect();
   MXUserHisto *histo = MXUserHistoSetUp("a", 1000, 7);
   // Below the minimum, quotient 1, a decade, two, just under half a decade, far beyond.
   for (uint64_t v : {10ULL, 1999ULL, 10000ULL, 100000ULL, 31622ULL, ~0ULL}) {
      MXUserHistoSample(histo, v);
   }
   MXUserDumpHisto(histo, &header);
   // Then room for the first two bins and not the third.
   std::string head = "MXUser: h l=9 t=a min=1000 max=10000000000";
   MXUser_SetStatsFunc(&gLines, static_cast<uint32_t>(head.size() + 13), CollectLine);
   MXUserDumpHisto(histo, &header);
   MXUserHistoTearDown(histo);
   EXPECT_EQ(gLines, (std::vector<std::string>{head + " 0-2 100-1 149-1 200-1 699-1\n",
                                               head + " 0-2 100-1\n"}));

   // Large values: the square-root iteration must still end, with the right answer.
   const std::pair<std::vector<uint64_t>, const char *> cases[] = {
       {{30, 10, 20}, "c=3 min=10 max=30 mean=20 sd=10"},
       {{1000000000000, 3000000000000},
        "c=2 min=1000000000000 max=3000000000000 mean=2000000000000 sd=1414213562373"}};
   for (const auto &[samples, line] : cases) {
      MXUserBasicStats stats{"h", 0, UINT64_MAX, 0, 0, 0.0};
      for (uint64_t v : samples) {
         MXUserBasicStatsSample(&stats, v);
      }
      Collect();
      MXUserDumpBasicStats(&stats, &header);
      EXPECT_EQ(gLines, std::vector<std::string>{std::string("MXUser: e l=9 t=h ") + line + "\n"});
   }
}

TEST(MXUserStatsMath, ContentionVerdict)
{
   // 10 attempts, 8 successes, 4 of them contended; too few attempts leave the ratio at 0.
   MXUserAcquisitionStats stats{};
   stats.numAttempts = 10, stats.numSuccesses = 8, stats.numSuccessesContended = 4;
   auto verdict = [&](uint64_t countFloor, double ratioFloor) {
      stats.contentionCountFloor = countFloor, stats.contentionRatioFloor = ratioFloor;
      double ratio = -1;
      bool hot, log;
      EXPECT_EQ(MXUserContentionVerdict(&stats, &ratio, &hot, &log), hot);
      return std::string(hot ? "hot" : "cold") + (log ? " logged " : " ") + std::to_string(ratio);
   };
   EXPECT_EQ(verdict(5, 0.4), "hot logged 0.500000");
   EXPECT_EQ(verdict(5, 0.5), "cold 0.500000");
   EXPECT_EQ(verdict(11, -1.0), "hot logged 0.000000");
   EXPECT_EQ(verdict(UINT64_MAX, 1.0), "hot 0.000000");
}

TEST(MXUserStats, ModesAndThePerLockReport)
{
   Collect();
   // Mode 0 keeps nothing; mode 1 acquisitions only; mode 2 holds as well.
   MXUserExclLock *plain = MXUser_CreateExclLock("plain", 1);
   MXUser_SetStatsMode(1);
   MXUserRecLock *acquisitionsOnly = MXUser_CreateRecLock("acq", 1);
   MXUser_SetStatsMode(2);
   MXUser_SetContentionRatio(-1.0, 1, 0);
   MXUserExclLock *lock = MXUser_CreateExclLock("counted", 0x77);
   for (int i = 0; i < 3; i++) {
      MXUser_AcquireExclLock(lock);
      MXUser_AcquireExclLock(lock);  // nesting: no new acquisition
      MXUser_ReleaseExclLock(lock);
      MXUser_ReleaseExclLock(lock);
   }
   EXPECT_TRUE(MXUser_TryAcquireExclLock(lock));
   MXUser_ReleaseExclLock(lock);
   MXUser_AcquireRecLock(acquisitionsOnly);
   MXUser_ReleaseRecLock(acquisitionsOnly);
   {
      testsupport::LogCapture log;
      MXUser_PerLockData();
      EXPECT_EQ(log.Text(), "HOT LOCK (counted); contention ratio 0.000000\n");
   }
   std::string l = std::to_string(lock->header.serialNumber) + " ";
   std::string acq = std::to_string(acquisitionsOnly->header.serialNumber) + " ";
   EXPECT_EQ(CountMatching("^MXUser: n n=counted l=" + l + "r=0x77\n$"), 1u);
   EXPECT_EQ(CountMatching("^MXUser: e l=" + l + "t=[ah] c=4 min=\\d+ max=\\d+ mean=\\d+ sd="), 2u);
   EXPECT_EQ(CountMatching("^MXUser: ce l=" + l + "a=4 s=4 sc=0 sct=0 t=0\n$"), 1u);
   EXPECT_EQ(CountMatching("^MXUser: h "), 0u);  // histograms come with the verdict
   EXPECT_EQ(CountMatching("^MXUser: e l=" + acq + "t=[ah] "), 1u);
   // Only the announcement of the lock created in mode 0.
   EXPECT_EQ(CountMatching("^MXUser: .* l=" + std::to_string(plain->header.serialNumber) + " "),
             1u);
   MXUser_DestroyExclLock(plain);
   MXUser_DestroyRecLock(acquisitionsOnly);

   MXUser_AcquireExclLock(lock);
   MXUser_ReleaseExclLock(lock);
   gLines.clear();
   MXUser_PerLockData();
   EXPECT_EQ(CountMatching("^MXUser: n "), 0u);
   EXPECT_EQ(CountMatching("^MXUser: ce l=" + l + "a=5 "), 1u);
   EXPECT_EQ(CountMatching("^MXUser: h l=" + l + "t=[ah] min=1000 max=10000000000 \\d+-1\n$"), 2u);
   MXUser_DestroyExclLock(lock);
   MXUser_SetStatsMode(0);
}
