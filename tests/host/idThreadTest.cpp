#include <errno.h>
#include <signal.h>
#include <unistd.h>

#include <future>

#include "id.h"
#include "testSupport.h"

using testsupport::LogCapture;

/*
 * Credential changes are made on threads of their own, which take them along when they end;
 * the main thread stays root throughout.
 */
static constexpr uid_t kNobody = 65534;
static constexpr uid_t kNoUid = static_cast<uid_t>(-1);

class IdThread : public ::testing::Test {
  protected:
   void SetUp() override
   {
      if (geteuid() != 0) {
         GTEST_SKIP() << "needs root: per-thread credentials are changed";
      }
   }
};

TEST_F(IdThread, SuperUserBracketActsOnTheCallingThreadOnly)
{
   LogCapture log;
   EXPECT_EQ(Id_BeginSuperUser(), kNoUid); /* root has nothing to undo */
   Id_EndSuperUser(kNoUid);
   Id_EndSuperUser(0);
   EXPECT_EQ(log.Text(), "");

   std::promise<void> dropped, checked;
   std::thread worker([&] {
      Id_EndSuperUser(kNobody);
      EXPECT_EQ(geteuid(), kNobody);
      EXPECT_EQ(getegid(), getgid());
      dropped.set_value();
      checked.get_future().wait();
      uid_t previous = Id_BeginSuperUser();
      EXPECT_EQ(previous, kNobody);
      EXPECT_EQ(geteuid(), 0u);
      Id_EndSuperUser(previous);
      EXPECT_EQ(geteuid(), kNobody);
   });
   dropped.get_future().wait();
   EXPECT_EQ(geteuid(), 0u); /* while the worker runs as nobody */
   checked.set_value();
   worker.join();

   std::thread([] {
      /* Without a root saved id the thread cannot move to another user. */
      ASSERT_EQ(Id_SetRESUid(kNoUid, 1, 1), 0);
      LogCapture log;
      Id_EndSuperUser(kNobody);
      EXPECT_EQ(log.Text(), "Failed to release super user privileges.\n");
      EXPECT_EQ(geteuid(), 1u);
   }).join();
}

TEST_F(IdThread, SettersChangeTheCallingThreadOnly)
{
   std::thread([] {
      EXPECT_EQ(Id_SetRESUid(kNoUid, kNobody, kNoUid), 0);
      EXPECT_EQ(geteuid(), kNobody);
      EXPECT_EQ(Id_SetRESUid(kNoUid, 0, kNoUid), 0); /* the saved id is still root */
      EXPECT_EQ(Id_SetGid(kNobody), 0);
      gid_t rg, eg, sg;
      ASSERT_EQ(getresgid(&rg, &eg, &sg), 0);
      EXPECT_EQ(rg + eg + sg, 3 * kNobody);
      EXPECT_EQ(Id_SetREUid(kNobody, kNobody), 0); /* the saved id follows */
      uid_t ru, eu, su;
      ASSERT_EQ(getresuid(&ru, &eu, &su), 0);
      EXPECT_EQ(ru + eu + su, 3 * kNobody);
      errno = 0;
      EXPECT_EQ(Id_SetREUid(kNoUid, 0), -1);
      EXPECT_EQ(errno, EPERM);
      EXPECT_EQ(Id_SetGid(0), -1);
      /* Running as another user, this thread may not signal root's init: EPERM, still 1. */
      EXPECT_EQ(Id_ProcessExists(1), ID_PROCESS_EXISTS);
      EXPECT_EQ(kill(1, 0), -1);
   }).join();
   uid_t r, e, s;
   ASSERT_EQ(getresuid(&r, &e, &s), 0);
   EXPECT_EQ(r + e + s, 0u);
   EXPECT_EQ(getgid(), 0u);
}
