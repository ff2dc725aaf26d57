/*
 * Signature checks for the files that will run as root.
 *
 * The steps keep their historical codes. On this platform a path is "converted to a string"
 * when it is valid UTF-8 (code 1) and "to a file-system URL" when it fits in PATH_MAX (code 2);
 * the code object (3) is a regular file or a bundle folder opened without following a final
 * link; the requirement is formatted (5) and parsed (6); every failure of validity is 7.
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

bool IsUtf8(const char *text)
{
   const unsigned char *p = (const unsigned char *)text;
   while (*p != 0) {
      unsigned c = *p;
      int more = c < 0x80             ? 0
                 : (c & 0xE0) == 0xC0 ? 1
                 : (c & 0xF0) == 0xE0 ? 2
                 : (c & 0xF8) == 0xF0 ? 3
                                      : -1;
      if (more < 0 || (more == 1 && c < 0xC2) || (more == 3 && c > 0xF4)) {
         return false;
      }
      uint32_t code = c & (0x3F >> more);
      for (int i = 1; i <= more; i++) {
         if ((p[i] & 0xC0) != 0x80) {
            return false;
         }
         code = code << 6 | (p[i] & 0x3F);
      }
      if ((more == 2 && (code < 0x800 || (code >= 0xD800 && code <= 0xDFFF))) ||
          (more == 3 && (code < 0x10000 || code > 0x10FFFF))) {
         return false;
      }
      p += more + 1;
   }
   return true;
}

/* Codes 1 and 2: the path in the platform's path form. */
int PathStep(const char *path)
{
   if (path == nullptr || !IsUtf8(path)) {
      return 1;
   }
   return strlen(path) < PATH_MAX ? 0 : 2;
}

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
   int step = PathStep(path);
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
   int code = PathStep(path);
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
