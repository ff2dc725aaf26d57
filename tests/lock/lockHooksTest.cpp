#include <string>

#include "testSupport.h"
#include "userlock.h"

using testsupport::LogCapture;

namespace {

struct HostMutex {
   int locks = 0;
   int unlocks = 0;
   int tries = 0;
   bool held = false;
   const char *name = nullptr;
};

HostMutex *Host(const MX_MutexRec *m)
{
   return reinterpret_cast<HostMutex *>(const_cast<MX_MutexRec *>(m));
}

MX_MutexRec *Rec(HostMutex *h)
{
   return reinterpret_cast<MX_MutexRec *>(h);
}

void HostLock(MX_MutexRec *m)
{
   Host(m)->locks++;
   Host(m)->held = true;
}

void HostUnlock(MX_MutexRec *m)
{
   Host(m)->unlocks++;
   Host(m)->held = false;
}

bool HostTry(MX_MutexRec *m)
{
   Host(m)->tries++;
   return false;
}

bool HostIsLocked(const MX_MutexRec *m)
{
   return Host(m)->held;
}

const char *HostName(const MX_MutexRec *m)
{
   return Host(m)->name;
}

int setInPanicCalls = 0;
bool hostInPanic = false;

void HostSetInPanic()
{
   setInPanicCalls++;
}

bool HostInPanic()
{
   return hostInPanic;
}

void OtherLock(MX_MutexRec *) {}

}  // namespace

/* The hooks are process-wide and install once, so this program checks them in one sequence. */
TEST(MXUserHooks, BindingNeedsHooksAndForwardsEveryOperation)
{
   HostMutex host;
   host.name = "hostlock";
   EXPECT_EQ(MXUser_BindMXMutexRec(Rec(&host), 1), nullptr);
   EXPECT_FALSE(MXUser_InPanic());

   MXUserInstallMxHooks(nullptr, nullptr, HostLock, HostUnlock, HostTry, HostIsLocked, HostName,
                        HostSetInPanic, HostInPanic);
   /* A second installation is ignored. */
   MXUserInstallMxHooks(nullptr, nullptr, OtherLock, OtherLock, nullptr, nullptr, nullptr, nullptr,
                        nullptr);

   MXUserRecLock *bound = MXUser_BindMXMutexRec(Rec(&host), 7);
   ASSERT_NE(bound, nullptr);
   EXPECT_EQ(MXUser_GetRecLockVmm(bound), Rec(&host));
   EXPECT_EQ(MXUser_GetRecLockRank(bound), 7u);

   MXUser_AcquireRecLock(bound);
   EXPECT_TRUE(MXUser_IsCurThreadHoldingRecLock(bound));
   MXUser_ReleaseRecLock(bound);
   EXPECT_FALSE(MXUser_IsCurThreadHoldingRecLock(bound));
   EXPECT_FALSE(MXUser_TryAcquireRecLock(bound));
   EXPECT_EQ(host.locks, 1);
   EXPECT_EQ(host.unlocks, 1);
   EXPECT_EQ(host.tries, 1);

   {
      LogCapture log;
      MXUser_DumpRecLock(bound);
      std::string text = log.Text();
      EXPECT_NE(text.find("Warning: \tname hostlock *\n"), std::string::npos) << text;
      char vmm[64];
      snprintf(vmm, sizeof vmm, "Warning: \tvmmLock %p\n", static_cast<void *>(&host));
      EXPECT_NE(text.find(vmm), std::string::npos) << text;
      EXPECT_EQ(text.find("lock count"), std::string::npos) << text;
   }
   MXUser_DestroyRecLock(bound);

   HostMutex anonymous;
   MXUserRecLock *unnamed = MXUser_BindMXMutexRec(Rec(&anonymous), 0);
   {
      LogCapture log;
      MXUser_DumpRecLock(unnamed);
      char name[64];
      snprintf(name, sizeof name, "Warning: \tname MX_%p\n", static_cast<void *>(&anonymous));
      EXPECT_NE(log.Text().find(name), std::string::npos) << log.Text();
   }
   MXUser_DestroyRecLock(unnamed);

   /* The panic query asks the host until the library's own flag is set. */
   hostInPanic = true;
   EXPECT_TRUE(MXUser_InPanic());
   hostInPanic = false;
   EXPECT_FALSE(MXUser_InPanic());
   MXUser_SetInPanic();
   EXPECT_EQ(setInPanicCalls, 1);
   EXPECT_TRUE(MXUser_InPanic());
}
