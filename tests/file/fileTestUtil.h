/*
 * Helpers shared by the file-library tests: the pending user messages, real paths, and a
 * private mount namespace for read-only and full file systems.
 */
#pragma once

#include <sched.h>
#include <stdlib.h>
#include <sys/mount.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "msg.h"
#include "msgList.h"
#include "testSupport.h"

namespace filetest {

using testsupport::Exists;
using testsupport::ReadFile;
using testsupport::ScratchDir;
using testsupport::Take;
using testsupport::WriteFile;

/* The identifiers of the pending user messages, oldest first; the list is emptied. */
inline std::vector<std::string> TakeMessageIds()
{
   std::vector<std::string> ids;
   MsgList *list = Msg_TakeList();
   for (MsgList *m = list; m != nullptr; m = m->next) {
      ids.insert(ids.begin(), m->id != nullptr ? m->id : "");
   }
   MsgList_Free(list);
   return ids;
}

inline std::string RealPath(const std::string &path)
{
   return Take(realpath(path.c_str(), nullptr));
}

/*
 * Moves the test process into its own mount namespace once, so that it can mount small
 * file systems and read-only binds that nobody else sees. False when that is not allowed.
 */
inline bool PrivateMounts()
{
   static int state = -1;
   if (state == -1) {
      state = geteuid() == 0 && unshare(CLONE_NEWNS) == 0 &&
                      mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0
                  ? 1
                  : 0;
   }
   return state == 1;
}

/* A tmpfs of the given size mounted on dir. */
inline bool MountTmpfs(const std::string &dir, const std::string &size)
{
   return mount("tmpfs", dir.c_str(), "tmpfs", 0, ("size=" + size).c_str()) == 0;
}

/* A read-only view of dir, bound onto itself. */
inline bool MakeReadOnly(const std::string &dir)
{
   return mount(dir.c_str(), dir.c_str(), nullptr, MS_BIND, nullptr) == 0 &&
          mount(nullptr, dir.c_str(), nullptr, MS_BIND | MS_REMOUNT | MS_RDONLY, nullptr) == 0;
}

}  // namespace filetest
