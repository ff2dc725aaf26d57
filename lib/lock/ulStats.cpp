/*
 * Lock statistics: acquisition and hold times, a logarithmic histogram in fixed point, the
 * contention verdict and the periodic per-lock report. Nothing here runs in statistics mode 0.
 */
#include <float.h>
#include <math.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <new>

#include "lock/ulInt.h"
#include "log.h"
#include "str.h"
#include "util.h"

namespace {

std::atomic<int> gStatsMode{0};

MXUserStatsFunc *gStatsFunc = nullptr;
void *gStatsContext = nullptr;
char *gStatsLine = nullptr;
uint32_t gStatsMaxLineLength = 0;

double gContentionRatioFloor = 0.0;
uint64_t gContentionCountFloor = 0;
uint64_t gContentionDurationFloor = 0;

uint64_t gHighestSerialAnnounced = 0;

/* Histograms forced onto a hot lock: 1 microsecond up to 10 seconds, 100 bins per decade. */
constexpr uint64_t kHotHistoMin = 1000;
constexpr uint32_t kHotHistoDecades = 7;

/* 65536 * log2(1 + i / 256), the fractional part of a base-2 logarithm in 16.16 form. */
constexpr uint32_t kLog2FractionTable[256] = {
    0,     369,   736,   1102,  1466,  1829,  2190,  2551,  2909,  3267,  3623,  3978,  4331,
    4683,  5034,  5384,  5732,  6079,  6425,  6769,  7112,  7454,  7795,  8134,  8473,  8810,
    9146,  9480,  9814,  10146, 10477, 10807, 11136, 11464, 11791, 12116, 12440, 12764, 13086,
    13407, 13727, 14046, 14363, 14680, 14996, 15310, 15624, 15937, 16248, 16559, 16868, 17177,
    17484, 17791, 18096, 18401, 18704, 19007, 19308, 19609, 19909, 20207, 20505, 20802, 21098,
    21393, 21687, 21980, 22272, 22564, 22854, 23144, 23433, 23720, 24007, 24293, 24579, 24863,
    25146, 25429, 25711, 25992, 26272, 26551, 26830, 27108, 27384, 27660, 27936, 28210, 28484,
    28757, 29029, 29300, 29571, 29840, 30109, 30378, 30645, 30912, 31178, 31443, 31707, 31971,
    32234, 32496, 32758, 33019, 33279, 33538, 33797, 34055, 34312, 34569, 34825, 35080, 35334,
    35588, 35841, 36094, 36346, 36597, 36847, 37097, 37346, 37595, 37842, 38090, 38336, 38582,
    38827, 39072, 39316, 39559, 39802, 40044, 40286, 40527, 40767, 41006, 41246, 41484, 41722,
    41959, 42196, 42432, 42667, 42902, 43137, 43370, 43603, 43836, 44068, 44300, 44530, 44761,
    44990, 45220, 45448, 45676, 45904, 46131, 46357, 46583, 46809, 47034, 47258, 47482, 47705,
    47928, 48150, 48372, 48593, 48813, 49034, 49253, 49472, 49691, 49909, 50127, 50344, 50560,
    50776, 50992, 51207, 51422, 51636, 51850, 52063, 52276, 52488, 52700, 52911, 53122, 53332,
    53542, 53751, 53960, 54169, 54377, 54584, 54791, 54998, 55204, 55410, 55615, 55820, 56025,
    56229, 56432, 56635, 56838, 57040, 57242, 57443, 57644, 57845, 58045, 58245, 58444, 58643,
    58841, 59039, 59237, 59434, 59631, 59827, 60023, 60219, 60414, 60609, 60803, 60997, 61190,
    61384, 61576, 61769, 61961, 62152, 62343, 62534, 62725, 62915, 63104, 63294, 63483, 63671,
    63859, 64047, 64234, 64421, 64608, 64794, 64980, 65166, 65351,
};

/* 65536 * log2(10), truncated: divides a 16.16 base-2 logarithm into a base-10 one. */
constexpr uint64_t kLog2Of10Fixed = 217705;

void BasicStatsInit(MXUserBasicStats *stats, const char *typeName)
{
   stats->typeName = typeName;
   stats->numSamples = 0;
   stats->minTime = UINT64_MAX;
   stats->maxTime = 0;
   stats->timeSum = 0;
   stats->timeSquaredSum = 0.0;
}

template <typename... Args>
void StatsOut(const char *fmt, Args... args)
{
   if (gStatsFunc != nullptr) {
      gStatsFunc(gStatsContext, fmt, args...);
   }
}

}  // namespace

uint64_t MXUserReadTimerNS(void)
{
   struct timespec now;
   clock_gettime(CLOCK_MONOTONIC, &now);
   return static_cast<uint64_t>(now.tv_sec) * 1000000000ULL + static_cast<uint64_t>(now.tv_nsec);
}

uint32_t MXUserLog2Fixed(uint64_t value)
{
   VERIFY(value != 0);
   uint32_t msb = 63 - static_cast<uint32_t>(__builtin_clzll(value));
   uint32_t index;
   uint64_t further = 0;
   uint32_t furtherBits = 0;
   if (msb >= 8) {
      index = static_cast<uint32_t>(value >> (msb - 8)) & 0xFF;
      furtherBits = msb - 8 < 16 ? msb - 8 : 16;
      further = (value >> (msb - 8 - furtherBits)) & ((1ULL << furtherBits) - 1);
   } else {
      index = static_cast<uint32_t>(value << (8 - msb)) & 0xFF;
   }
   uint32_t base = kLog2FractionTable[index];
   uint32_t next = index == 255 ? 65536 : kLog2FractionTable[index + 1];
   uint32_t fraction = base + static_cast<uint32_t>(((next - base) * further) >> furtherBits);
   return (msb << 16) + fraction;
}

MXUserHisto *MXUserHistoSetUp(const char *typeName, uint64_t minValue, uint32_t decades)
{
   VERIFY(minValue != 0 && decades != 0);
   auto *histo = static_cast<MXUserHisto *>(Util_SafeCalloc(1, sizeof(MXUserHisto)));
   histo->typeName = typeName;
   histo->numBins = decades * 100;
   histo->binData = static_cast<uint64_t *>(Util_SafeCalloc(histo->numBins, sizeof(uint64_t)));
   histo->minValue = minValue;
   uint64_t maxValue = minValue;
   for (uint32_t i = 0; i < decades; i++) {
      maxValue *= 10;
   }
   histo->maxValue = maxValue;
   return histo;
}

void MXUserHistoTearDown(MXUserHisto *histo)
{
   if (histo != nullptr) {
      free(histo->binData);
      free(histo);
   }
}

void MXUserHistoSample(MXUserHisto *histo, uint64_t value)
{
   histo->totalSamples++;
   uint32_t bin = 0;
   if (value >= histo->minValue) {
      uint64_t log10Times100 =
          (100 * static_cast<uint64_t>(MXUserLog2Fixed(value / histo->minValue))) / kLog2Of10Fixed;
      bin = log10Times100 >= histo->numBins ? histo->numBins - 1
                                            : static_cast<uint32_t>(log10Times100);
   }
   histo->binData[bin]++;
}

void MXUserForceHisto(std::atomic<MXUserHisto *> &slot, const char *typeName, uint64_t minValue,
                      uint32_t decades)
{
   if (slot.load(std::memory_order_acquire) == nullptr) {
      tesmar::PublishOnce(slot, MXUserHistoSetUp(typeName, minValue, decades), MXUserHistoTearDown);
   }
}

void MXUserBasicStatsSample(MXUserBasicStats *stats, uint64_t value)
{
   stats->numSamples++;
   if (value < stats->minTime) {
      stats->minTime = value;
   }
   if (value > stats->maxTime) {
      stats->maxTime = value;
   }
   stats->timeSum += value;
   stats->timeSquaredSum += static_cast<double>(value) * static_cast<double>(value);
}

uint64_t MXUserStdDev(const MXUserBasicStats *stats)
{
   if (stats->numSamples < 2) {
      return 0;
   }
   double count = static_cast<double>(stats->numSamples);
   double mean = static_cast<double>(stats->timeSum) / count;
   double variance = (stats->timeSquaredSum - mean * count * mean) / (count - 1.0);
   if (!(variance > 0.0)) {
      return 0;
   }
   /* Newton's iteration from above decreases monotonically; stop when it stops moving. */
   double x = variance;
   for (;;) {
      double next = (variance / x + x) / 2.0;
      if (fabs(next - x) <= 1e-10 || next >= x) {
         x = next;
         break;
      }
      x = next;
   }
   return static_cast<uint64_t>(x + 0.5);
}

void MXUserAcquisitionSample(MXUserAcquisitionStats *stats, bool wasAcquired, bool wasContended,
                             uint64_t elapsedTime)
{
   stats->numAttempts.fetch_add(1, std::memory_order_relaxed);
   if (!wasAcquired) {
      stats->totalContentionTime.fetch_add(elapsedTime, std::memory_order_relaxed);
      return;
   }
   stats->numSuccesses++;
   if (wasContended) {
      stats->numSuccessesContended++;
      stats->successContentionTime += elapsedTime;
      stats->totalContentionTime.fetch_add(elapsedTime, std::memory_order_relaxed);
   }
   MXUserBasicStatsSample(&stats->basicStats, elapsedTime);
   MXUserHisto *histo = stats->histo.load(std::memory_order_acquire);
   if (histo != nullptr) {
      MXUserHistoSample(histo, elapsedTime);
   }
}

static void HeldSample(MXUserHeldStats *held, uint64_t elapsedTime)
{
   MXUserBasicStatsSample(&held->basicStats, elapsedTime);
   MXUserHisto *histo = held->histo.load(std::memory_order_acquire);
   if (histo != nullptr) {
      MXUserHistoSample(histo, elapsedTime);
   }
}

void MXUserAcquisitionStatsFree(MXUserAcquisitionStats *stats)
{
   if (stats != nullptr) {
      MXUserHistoTearDown(stats->histo.load());
      stats->~MXUserAcquisitionStats();
      free(stats);
   }
}

void MXUserHeldStatsFree(MXUserHeldStats *stats)
{
   if (stats != nullptr) {
      MXUserHistoTearDown(stats->histo.load());
      stats->~MXUserHeldStats();
      free(stats);
   }
}

void MXUserAcquisitionStatsSetUp(std::atomic<MXUserAcquisitionStats *> &slot)
{
   if (slot.load(std::memory_order_acquire) != nullptr) {
      return;
   }
   void *mem = Util_SafeCalloc(1, sizeof(MXUserAcquisitionStats));
   auto *stats = new (mem) MXUserAcquisitionStats();
   stats->contentionRatioFloor = gContentionRatioFloor;
   stats->contentionCountFloor = gContentionCountFloor;
   stats->contentionDurationFloor = gContentionDurationFloor;
   BasicStatsInit(&stats->basicStats, "a");
   tesmar::PublishOnce(slot, stats, MXUserAcquisitionStatsFree);
}

void MXUserHeldStatsSetUp(std::atomic<MXUserHeldStats *> &slot)
{
   if (slot.load(std::memory_order_acquire) != nullptr) {
      return;
   }
   void *mem = Util_SafeCalloc(1, sizeof(MXUserHeldStats));
   auto *stats = new (mem) MXUserHeldStats();
   BasicStatsInit(&stats->basicStats, "h");
   tesmar::PublishOnce(slot, stats, MXUserHeldStatsFree);
}

void MXUserEnableStats(const char *caller, MXUserHeader *header,
                       std::atomic<MXUserAcquisitionStats *> &acquire,
                       std::atomic<MXUserHeldStats *> &held,
                       void (*statsAction)(MXUserHeader *header))
{
   int mode = gStatsMode.load(std::memory_order_relaxed);
   switch (mode) {
      case 0:
         MXUserAcquisitionStatsFree(acquire.exchange(nullptr));
         MXUserHeldStatsFree(held.exchange(nullptr));
         header->statsFunc = nullptr;
         break;
      case 1:
         MXUserAcquisitionStatsSetUp(acquire);
         MXUserHeldStatsFree(held.exchange(nullptr));
         header->statsFunc = statsAction;
         break;
      case 2:
         MXUserAcquisitionStatsSetUp(acquire);
         MXUserHeldStatsSetUp(held);
         header->statsFunc = statsAction;
         break;
      default:
         Panic("%s: unknown stats mode: %d!\n", caller, mode);
   }
}

void MXUserAcquireWithStats(MXRecLock *lock, MXUserAcquisitionStats *acquire, MXUserHeldStats *held)
{
   if (MXRecLockIsOwner(lock)) {
      MXRecLockNest(lock);
      return;
   }
   uint32_t self = MXUserThreadID();
   uint64_t begin = MXUserReadTimerNS();
   bool contended = !MXRecLockTake(lock, self);
   if (contended) {
      MXRecLockWait(lock, self);
   }
   lock->count.store(1, std::memory_order_relaxed);
   uint64_t end = MXUserReadTimerNS();
   MXUserAcquisitionSample(acquire, true, contended, end - begin);
   if (held != nullptr) {
      held->holdStart = end;
   }
}

bool MXUserTryAcquireWithStats(MXRecLock *lock, MXUserAcquisitionStats *acquire,
                               MXUserHeldStats *held)
{
   if (MXRecLockIsOwner(lock)) {
      MXRecLockNest(lock);
      return true;
   }
   uint64_t begin = MXUserReadTimerNS();
   bool acquired = MXRecLockTake(lock, MXUserThreadID());
   uint64_t end = MXUserReadTimerNS();
   if (acquired) {
      lock->count.store(1, std::memory_order_relaxed);
      if (held != nullptr) {
         held->holdStart = end;
      }
   }
   MXUserAcquisitionSample(acquire, acquired, false, end - begin);
   return acquired;
}

void MXUserReleaseWithStats(MXRecLock *lock, MXUserHeldStats *held)
{
   if (MXRecLockCount(lock) == 1) {
      HeldSample(held, MXUserReadTimerNS() - held->holdStart);
   }
   MXRecLockRelease(lock);
}

void MXUserDumpBasicStats(const MXUserBasicStats *stats, const MXUserHeader *header)
{
   if (stats->numSamples == 0) {
      return;
   }
   StatsOut("MXUser: e l=%llu t=%s c=%llu min=%llu max=%llu mean=%llu sd=%llu\n",
            static_cast<unsigned long long>(header->serialNumber), stats->typeName,
            static_cast<unsigned long long>(stats->numSamples),
            static_cast<unsigned long long>(stats->minTime),
            static_cast<unsigned long long>(stats->maxTime),
            static_cast<unsigned long long>(stats->timeSum / stats->numSamples),
            static_cast<unsigned long long>(MXUserStdDev(stats)));
}

void MXUserDumpAcquisitionStats(const MXUserAcquisitionStats *stats, const MXUserHeader *header)
{
   uint64_t attempts = stats->numAttempts.load(std::memory_order_relaxed);
   if (attempts == 0) {
      return;
   }
   if (stats->numSuccesses != 0) {
      MXUserDumpBasicStats(&stats->basicStats, header);
   }
   StatsOut(
       "MXUser: ce l=%llu a=%llu s=%llu sc=%llu sct=%llu t=%llu\n",
       static_cast<unsigned long long>(header->serialNumber),
       static_cast<unsigned long long>(attempts),
       static_cast<unsigned long long>(stats->numSuccesses),
       static_cast<unsigned long long>(stats->numSuccessesContended),
       static_cast<unsigned long long>(stats->successContentionTime),
       static_cast<unsigned long long>(stats->totalContentionTime.load(std::memory_order_relaxed)));
}

void MXUserDumpHisto(const MXUserHisto *histo, const MXUserHeader *header)
{
   if (histo == nullptr || histo->totalSamples == 0 || gStatsFunc == nullptr ||
       gStatsLine == nullptr || gStatsMaxLineLength == 0) {
      return;
   }
   int len =
       Str_Snprintf(gStatsLine, gStatsMaxLineLength, "MXUser: h l=%llu t=%s min=%llu max=%llu\n",
                    static_cast<unsigned long long>(header->serialNumber), histo->typeName,
                    static_cast<unsigned long long>(histo->minValue),
                    static_cast<unsigned long long>(histo->maxValue));
   if (len > 0) {
      /* Each bin goes over the preceding line end, while it fits. */
      size_t end = static_cast<size_t>(len) - 1;
      for (uint32_t i = 0; i < histo->numBins; i++) {
         if (histo->binData[i] == 0) {
            continue;
         }
         size_t spaceLeft = gStatsMaxLineLength - end;
         if (spaceLeft <= 2) {
            break;
         }
         char piece[64];
         int pieceLen = Str_Snprintf(piece, sizeof piece, " %u-%llu\n", i,
                                     static_cast<unsigned long long>(histo->binData[i]));
         if (pieceLen < 0 || static_cast<size_t>(pieceLen) > spaceLeft - 2) {
            break;
         }
         memcpy(gStatsLine + end, piece, static_cast<size_t>(pieceLen) + 1);
         end += static_cast<size_t>(pieceLen) - 1;
      }
   }
   gStatsFunc(gStatsContext, "%s", gStatsLine);
}

bool MXUserContentionVerdict(const MXUserAcquisitionStats *stats, double *ratio, bool *isHot,
                             bool *doLog)
{
   uint64_t attempts = stats->numAttempts.load(std::memory_order_relaxed);
   *ratio = 0.0;
   if (attempts >= stats->contentionCountFloor) {
      double failed = attempts == 0 ? 0.0
                                    : static_cast<double>(attempts - stats->numSuccesses) /
                                          static_cast<double>(attempts);
      double contended = stats->numSuccesses == 0
                             ? 0.0
                             : static_cast<double>(stats->numSuccessesContended) /
                                   static_cast<double>(stats->numSuccesses);
      *ratio = failed > contended ? failed : contended;
   }
   if (stats->contentionCountFloor == UINT64_MAX) {
      *isHot = true;
      *doLog = false;
   } else if (stats->contentionCountFloor == 0) {
      *isHot = false;
      *doLog = false;
   } else {
      *isHot = *doLog = *ratio > stats->contentionRatioFloor;
   }
   return *isHot;
}

void MXUserLockStatsAction(MXUserHeader *header, std::atomic<MXUserAcquisitionStats *> &acquire,
                           std::atomic<MXUserHeldStats *> &held)
{
   MXUserHeldStats *heldStats = held.load(std::memory_order_acquire);
   if (heldStats != nullptr) {
      MXUserDumpBasicStats(&heldStats->basicStats, header);
      MXUserDumpHisto(heldStats->histo.load(std::memory_order_acquire), header);
   }
   MXUserAcquisitionStats *acquireStats = acquire.load(std::memory_order_acquire);
   if (acquireStats == nullptr) {
      return;
   }
   MXUserDumpAcquisitionStats(acquireStats, header);
   MXUserDumpHisto(acquireStats->histo.load(std::memory_order_acquire), header);

   double ratio;
   bool isHot;
   bool doLog;
   if (MXUserContentionVerdict(acquireStats, &ratio, &isHot, &doLog)) {
      MXUserForceHisto(acquireStats->histo, "a", kHotHistoMin, kHotHistoDecades);
      if (heldStats != nullptr) {
         MXUserForceHisto(heldStats->histo, "h", kHotHistoMin, kHotHistoDecades);
      }
   }
   if (doLog) {
      Log("HOT LOCK (%s); contention ratio %f\n", header->name, ratio);
   }
}

namespace {

struct PerLockWalk {
   uint64_t highestSeen;
};

void PerLockVisit(MXUserHeader *header, void *data)
{
   auto *walk = static_cast<PerLockWalk *>(data);
   if (header->serialNumber > gHighestSerialAnnounced) {
      StatsOut("MXUser: n n=%s l=%llu r=0x%x\n", header->name,
               static_cast<unsigned long long>(header->serialNumber), header->rank);
   }
   if (header->statsFunc != nullptr) {
      header->statsFunc(header);
   }
   if (header->serialNumber > walk->highestSeen) {
      walk->highestSeen = header->serialNumber;
   }
}

}  // namespace

extern "C" {

void MXUser_SetStatsMode(int mode)
{
   gStatsMode.store(mode, std::memory_order_relaxed);
}

int MXUser_GetStatsMode(void)
{
   return gStatsMode.load(std::memory_order_relaxed);
}

void MXUser_SetStatsFunc(void *context, uint32_t maxLineLength, MXUserStatsFunc *func)
{
   free(gStatsLine);
   gStatsLine = static_cast<char *>(Util_SafeMalloc(maxLineLength));
   gStatsMaxLineLength = maxLineLength;
   gStatsContext = context;
   gStatsFunc = func;
}

void MXUser_SetContentionRatio(double ratio, uint64_t minCount, uint64_t minTime)
{
   gContentionRatioFloor = ratio;
   gContentionCountFloor = minCount;
   gContentionDurationFloor = minTime;
}

void MXUser_PerLockData(void)
{
   if (gStatsFunc == nullptr) {
      return;
   }
   MXRecLock *listLock = MXUserInternalListLock();
   if (!MXRecLockTryAcquire(listLock)) {
      return;
   }
   PerLockWalk walk{gHighestSerialAnnounced};
   MXUserForEachLock(PerLockVisit, &walk);
   gHighestSerialAnnounced = walk.highestSeen;
   MXRecLockRelease(listLock);
}

}  // extern "C"
