#include "testSupport.h"
#include "userlock.h"

/* A host mutex that only counts what is asked of it. */
struct HostMutex {
   int locks = 0, unlocks = 0, tries = 0;
   bool held = false;
   const char *name = nullptr;
};

static HostMutex *Host(const MX_MutexRec *m)
{
   return reinterpret_cast<HostMutex *>(const_cast<MX_MutexRec *>(m));
}

static int gSetInPanicCalls = 0;
static bool gHostInPanic = false;

static std::string DumpOf(MXUserRecLock *lock)
{
   testsupport::LogCapture log;
   MXUser_DumpRecLock(lock);
   return log.Text();
}

/* The hooks are process-wide and install once, so this program checks them in one sequence. */
TEST(MXUserHooks, BindingNeedsHooksAndForwardsEveryOperation)
{
   HostMutex host{.name = "hostlock"};
   auto *rec = reinterpret_cast<MX_MutexRec *>(&host);
   EXPECT_TRUE(MXUser_BindMXMutexRec(rec, 1) == nullptr && !MXUser_InPanic());

   MXUserInstallMxHooks(
       nullptr, nullptr, [](MX_MutexRec *m) { Host(m)->locks++, Host(m)->held = true; },
       [](MX_MutexRec *m) { Host(m)->unlocks++, Host(m)->held = false; },
       [](MX_MutexRec *m) { return Host(m)->tries++, false; },
       [](const MX_MutexRec *m) { return Host(m)->held; },
       [](const MX_MutexRec *m) { return Host(m)->name; }, [] { gSetInPanicCalls++; },
       [] { return gHostInPanic; });
   // A second installation is ignored.
   auto ignore = [](MX_MutexRec *) {};
   MXUserInstallMxHooks(nullptr, nullptr, ignore, ignore, nullptr, nullptr, nullptr, nullptr,
                        nullptr);

   MXUserRecLock *bound = MXUser_BindMXMutexRec(rec, 7);
   ASSERT_NE(bound, nullptr);
   EXPECT_TRUE(MXUser_GetRecLockVmm(bound) == rec && MXUser_GetRecLockRank(bound) == 7);
   MXUser_AcquireRecLock(bound);
   EXPECT_TRUE(MXUser_IsCurThreadHoldingRecLock(bound));
   MXUser_ReleaseRecLock(bound);
   EXPECT_FALSE(MXUser_IsCurThreadHoldingRecLock(bound) || MXUser_TryAcquireRecLock(bound));
   EXPECT_TRUE(host.locks == 1 && host.unlocks == 1 && host.tries == 1);

   char lines[128];
   snprintf(lines, sizeof lines, "Warning: \treference count 1\nWarning: \tvmmLock %p\n",
            static_cast<void *>(&host));
   std::string text = DumpOf(bound);
   EXPECT_TRUE(text.find("Warning: \tname hostlock *\n") != std::string::npos &&
               text.find(lines) != std::string::npos &&
               text.find("lock count") == std::string::npos)
       << text;
   MXUser_DestroyRecLock(bound);

   HostMutex anonymous;
   MXUserRecLock *unnamed = MXUser_BindMXMutexRec(reinterpret_cast<MX_MutexRec *>(&anonymous), 0);
   snprintf(lines, sizeof lines, "Warning: \tname MX_%p\n", static_cast<void *>(&anonymous));
   EXPECT_NE(DumpOf(unnamed).find(lines), std::string::npos);
   MXUser_DestroyRecLock(unnamed);

   // The panic query asks the host until the library's own flag is set.
   gHostInPanic = true;
   EXPECT_TRUE(MXUser_InPanic());
   gHostInPanic = false;
   EXPECT_FALSE(MXUser_InPanic());
   MXUser_SetInPanic();
   EXPECT_TRUE(gSetInPanicCalls == 1 && MXUser_InPanic());
}
