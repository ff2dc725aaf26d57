/*
 * Signature checks for the files that will run as root.
 *
 * The steps keep their historical codes: the path's conversion to a string (1) and to a
 * file-system URL (2), as CodeSign_CheckPathForm decides them; the code object (3), a regular
 * file or a bundle folder opened without following a final link; the requirement formatted
 * (5) and parsed (6); every failure of validity is 7.
 */
#include "codeSignature.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "codeSign.h"
#include "log.h"
#include "str.h"
#include "uniqueFd.h"

namespace {

void LogFailure(const char *path, int code)
{
   Log("PrivilegedHelper: Failed to verify the code signature of %s due to %d", path, code);
}

}  // namespace

bool PrivilegedHelperCheckFd(int fd, const char *path, const char *identifier, bool requireRoot)
{
   CodeSignCode *code = CodeSign_OpenCodeFd(fd);
   if (code == nullptr) {
      LogFailure(path, 3);
      return false;
   }
   char *text = Str_Asprintf(nullptr, CODESIGNATURE_REQUIREMENT_FMT, identifier);
   if (text == nullptr) {
      CodeSign_CloseCode(code);
      LogFailure(path, 5);
      return false;
   }
   CodeSignRequirement *requirement = CodeSign_ParseRequirement(text);
   free(text);
   if (requirement == nullptr) {
      CodeSign_CloseCode(code);
      LogFailure(path, 6);
      return false;
   }
   CodeSignStatus status = CodeSign_CheckValidity(code, requirement, requireRoot, nullptr, nullptr);
   CodeSign_FreeRequirement(requirement);
   CodeSign_CloseCode(code);
   if (status != CODESIGN_OK) {
      LogFailure(path, 7);
      return false;
   }
   return true;
}

bool PrivilegedHelper_CheckCodeSignature(const char *path, const char *identifier)
{
   int step = CodeSign_CheckPathForm(path);
   if (step != 0) {
      LogFailure(path != nullptr ? path : "(null)", step);
      return false;
   }
   tesmar::UniqueFd fd(open(path, O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK));
   if (!fd) {
      LogFailure(path, 3);
      return false;
   }
   return PrivilegedHelperCheckFd(fd.get(), path, identifier, false);
}

char *CoreFoundationUtils_GetBundleIdentifier(const char *path)
{
   int code = CodeSign_CheckPathForm(path);
   char *identifier = nullptr;
   if (code == 0) {
      tesmar::UniqueFd fd(open(path, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
      CodeSignCode *bundle = fd ? CodeSign_OpenCodeFd(fd.get()) : nullptr;
      if (bundle == nullptr || !CodeSign_IsBundle(bundle)) {
         code = 3;
      } else {
         identifier = CodeSign_BundleIdentifier(fd.get());
         code = identifier == nullptr ? 4 : 0;
      }
      CodeSign_CloseCode(bundle);
   }
   if (code != 0) {
      Log("CoreFoundationUtils: Failed to get bundle identifier for %s due to (%d).\n",
          path != nullptr ? path : "(null)", code);
   }
   return identifier;
}
