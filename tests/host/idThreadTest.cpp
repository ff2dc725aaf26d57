#include <errno.h>
#include <signal.h>
#include <unistd.h>

#include <future>

#include "id.h"
#include "testSupport.h"

static constexpr uid_t kNobody = 65534;
static constexpr uid_t kNoUid = static_cast<uid_t>(-1);

/*
 * Credential changes are made on threads of their own, which take them along when they end;
 * the main thread stays root throughout.
 */
TEST(IdThread, CredentialChangesActOnTheCallingThreadOnly)
{
   if (geteuid() != 0) {
      GTEST_SKIP() << "needs root: per-thread credentials are changed";
   }
   testsupport::LogCapture log;
   EXPECT_EQ(Id_BeginSuperUser(), kNoUid); /* root has nothing to undo */
   Id_EndSuperUser(kNoUid);
   Id_EndSuperUser(0);
   EXPECT_EQ(log.Text(), "");

   std::promise<void> dropped, checked;
   uid_t ru, eu, su;
   std::thread worker([&] {
      Id_EndSuperUser(kNobody);
      EXPECT_TRUE(geteuid() == kNobody && getegid() == getgid());
      dropped.set_value();
      checked.get_future().wait();
      uid_t previous = Id_BeginSuperUser();
      EXPECT_TRUE(previous == kNobody && geteuid() == 0);
      Id_EndSuperUser(previous);
      EXPECT_EQ(geteuid(), kNobody);
      EXPECT_EQ(Id_SetRESUid(kNoUid, 0, kNoUid), 0); /* the saved id is still root */
      EXPECT_EQ(Id_SetGid(kNobody), 0);
      gid_t rg, eg, sg;
      EXPECT_TRUE(getresgid(&rg, &eg, &sg) == 0 && rg == kNobody && eg == kNobody && sg == kNobody);
      EXPECT_EQ(Id_SetREUid(kNobody, kNobody), 0); /* the saved id follows */
      EXPECT_TRUE(getresuid(&ru, &eu, &su) == 0 && ru == kNobody && eu == kNobody && su == kNobody);
      errno = 0;
      EXPECT_TRUE(Id_SetREUid(kNoUid, 0) == -1 && errno == EPERM);
      EXPECT_EQ(Id_SetGid(0), -1);
      /* Without a root saved id the thread cannot move to another user. */
      Id_EndSuperUser(1);
      EXPECT_EQ(log.Text(), "Failed to release super user privileges.\n");
      EXPECT_EQ(geteuid(), kNobody);
      /* Running as another user, this thread may not signal root's init: EPERM, still 1. */
      EXPECT_EQ(Id_ProcessExists(1), ID_PROCESS_EXISTS);
      EXPECT_EQ(kill(1, 0), -1);
   });
   dropped.get_future().wait();
   EXPECT_EQ(geteuid(), 0u); /* while the worker runs as nobody */
   checked.set_value();
   worker.join();
   EXPECT_TRUE(getresuid(&ru, &eu, &su) == 0 && ru + eu + su == 0 && getgid() == 0);
}
