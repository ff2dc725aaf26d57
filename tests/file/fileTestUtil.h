/*
 * Helpers shared by the file-library tests: small file fixtures, the pending user messages,
 * shell commands, and a private mount namespace for read-only and full file systems.
 */
#pragma once

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "msg.h"
#include "msgList.h"

namespace filetest {

inline void WriteFile(const std::string &path, const std::string &data)
{
   std::ofstream out(path, std::ios::binary | std::ios::trunc);
   out << data;
}

inline std::string ReadFile(const std::string &path)
{
   std::ifstream in(path, std::ios::binary);
   std::stringstream s;
   s << in.rdbuf();
   return s.str();
}

inline bool Exists(const std::string &path)
{
   struct stat st;
   return lstat(path.c_str(), &st) == 0;
}

inline int Shell(const std::string &cmd)
{
   return system(cmd.c_str());
}

/* The identifiers of the pending user messages, oldest first; the list is emptied. */
inline std::vector<std::string> TakeMessageIds(std::string *text = nullptr)
{
   std::vector<std::string> ids;
   MsgList *list = Msg_TakeList();
   for (MsgList *m = list; m != nullptr; m = m->next) {
      ids.insert(ids.begin(), m->id != nullptr ? m->id : "");
   }
   if (text != nullptr) {
      char *s = MsgList_ToString(list);
      *text = s != nullptr ? s : "";
      free(s);
   }
   MsgList_Free(list);
   return ids;
}

inline bool IsRoot()
{
   return geteuid() == 0;
}

/*
 * Moves the test process into its own mount namespace once, so that it can mount small
 * file systems and read-only binds that nobody else sees. False when that is not allowed.
 */
inline bool PrivateMounts()
{
   static int state = -1;
   if (state == -1) {
      state = IsRoot() && unshare(CLONE_NEWNS) == 0 &&
                      mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0
                  ? 1
                  : 0;
   }
   return state == 1;
}

/* A tmpfs of the given size mounted on dir. */
inline bool MountTmpfs(const std::string &dir, const std::string &size)
{
   std::string opts = "size=" + size;
   return mount("tmpfs", dir.c_str(), "tmpfs", 0, opts.c_str()) == 0;
}

/* A read-only view of dir, bound onto itself. */
inline bool MakeReadOnly(const std::string &dir)
{
   return mount(dir.c_str(), dir.c_str(), nullptr, MS_BIND, nullptr) == 0 &&
          mount(nullptr, dir.c_str(), nullptr, MS_BIND | MS_REMOUNT | MS_RDONLY, nullptr) == 0;
}

}  // namespace filetest
