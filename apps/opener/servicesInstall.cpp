/*
 * The services installation. Before a daemon starts, the services directory is removed and
 * rebuilt from the running bundle: every source must be owned by root, is opened without
 * following links, is checked against its identifier and the maker's signer, copied with its
 * metadata, given to root with the table's mode, and checked again as the copy. The daemon
 * thus only ever runs from a root-owned copy that verified.
 */
#include "servicesInstall.h"

#include <errno.h>
#include <fcntl.h>
#include <grp.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>

#include "codeSignature.h"
#include "file.h"
#include "location.h"
#include "log.h"
#include "str.h"
#include "uniqueFd.h"

namespace {

using tesmar::UniqueFd;

struct InstallRow {
   const char *key;
   const char *identifier;
   mode_t mode;
};

const InstallRow kTable[] = {
    {"idFile", "tesmar-id", 0755},
    {"usbGateFile", "tesmar-usbgate", 0755},
    {"productInfo", "productInfo", 0644},
    {"usbGateKext", "quillmod", 0755},
    {"serviceDaemonFile", "BRIX Services", 0755},
    {"serviceScriptFile", "services", 0755},
    {"usbGateOpenerFile", "Open Tesmar USB Gate Service", 0755},
    {"usbGateDaemonFile", "Tesmar USB Gate Service", 0755},
    {"usbGateScriptFile", "usbGateService", 0755},
};

const char *const kSubdirs[] = {"", "/Contents", "/Contents/Library", "/Contents/Library/kexts",
                                "/Contents/Library/services"};

/*
 * Every id root for the installation, group included, so that the caller can neither signal
 * the opener while it works nor own anything it creates; left for the caller's ids with root
 * kept as the saved uid, as the opener holds them between its privileged steps.
 */
class RootIdentity {
  public:
   RootIdentity()
   {
      getresuid(&ruid_, &euid_, &suid_);
      getresgid(&rgid_, &egid_, &sgid_);
      ok_ = setresuid(0, 0, 0) == 0 && setresgid(0, 0, 0) == 0;
      if (!ok_) {
         Warning("%s: setresuid errno %d.\n", "ServicesInstall", errno);
      }
   }
   ~RootIdentity()
   {
      if (setresgid(rgid_, egid_, sgid_) != 0 || setresuid(ruid_, euid_, suid_) != 0) {
         Panic("%s: cannot leave the root identity, errno %d.\n", "ServicesInstall", errno);
      }
   }
   bool ok() const { return ok_; }

  private:
   uid_t ruid_, euid_, suid_;
   gid_t rgid_, egid_, sgid_;
   bool ok_;
};

struct FreeChar {
   void operator()(char *p) const { free(p); }
};
using CharPtr = std::unique_ptr<char, FreeChar>;

bool CloseChecked(UniqueFd &fd)
{
   return close(fd.release()) == 0;
}

/* Copies one file from the open source to dst: data and metadata, then root and mode. */
bool CopyFile(int srcFd, const char *dst, mode_t mode, UniqueFd &dstFd)
{
   dstFd.reset(open(dst, O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
   return dstFd && File_CopyFdAll(srcFd, dstFd.get()) && fchown(dstFd.get(), 0, 0) == 0 &&
          fchmod(dstFd.get(), mode) == 0;
}

bool InstallRowRun(const InstallRow &row, const char *servicesDir)
{
   CharPtr src(Location_Get(row.key));
   const char *relative = Location_GetRelative(row.key);
   if (!src || relative == nullptr) {
      return false;
   }
   // The source is opened once: its owner, signature and copy are those of one file.
   UniqueFd srcFd(open(src.get(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK));
   struct stat st;
   if (!srcFd || fstat(srcFd.get(), &st) != 0 || st.st_uid != 0 || st.st_gid != 0) {
      return false;
   }
   CharPtr dst(Str_Asprintf(nullptr, "%s%s", servicesDir, relative));
   if (!dst) {
      return false;
   }
   CharPtr identifier(strdup(row.identifier));
   if (identifier && strcmp(identifier.get(), "quillmod") == 0) {
      identifier.reset(CoreFoundationUtils_GetBundleIdentifier(src.get()));
   }
   if (!identifier || !PrivilegedHelperCheckFd(srcFd.get(), src.get(), identifier.get(), true)) {
      return false;
   }
   UniqueFd dstFd;
   if (S_ISDIR(st.st_mode)) {
      if (!File_CreateDirectoryEx(dst.get(), 0755) ||
          !File_CopyTreeAll(src.get(), dst.get(), true)) {
         return false;
      }
      dstFd.reset(open(dst.get(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
      if (!dstFd || fchown(dstFd.get(), 0, 0) != 0 || fchmod(dstFd.get(), row.mode) != 0) {
         return false;
      }
   } else if (S_ISREG(st.st_mode)) {
      if (!CopyFile(srcFd.get(), dst.get(), row.mode, dstFd)) {
         return false;
      }
   } else {
      return false;
   }
   return PrivilegedHelperCheckFd(dstFd.get(), dst.get(), identifier.get(), true) &&
          CloseChecked(dstFd) && CloseChecked(srcFd);
}

}  // namespace

bool ServicesInstall_Run(void)
{
   CharPtr servicesDir(Str_Asprintf(nullptr, "%s%s", Location_GetAppSupportDir(), "/Services"));
   if (!servicesDir) {
      return false;
   }
   RootIdentity root;
   if (!root.ok() || !File_DeleteDirectoryTree(servicesDir.get())) {
      return false;
   }
   for (const char *sub : kSubdirs) {
      CharPtr dir(Str_Asprintf(nullptr, "%s%s", servicesDir.get(), sub));
      if (!dir || !File_CreateDirectoryEx(dir.get(), 0755)) {
         return false;
      }
   }
   for (const InstallRow &row : kTable) {
      if (!InstallRowRun(row, servicesDir.get())) {
         return false;
      }
   }
   return true;
}
