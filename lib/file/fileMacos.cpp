/*
 * A safe copy of signed files: each named file is copied into a fresh directory that only this
 * user can change, and the copy (not the original, which others might change after the check)
 * must carry the maker's signature.
 */
#include <errno.h>
#include <stdlib.h>
#include <unistd.h>

#include "codeSign.h"
#include "file.h"
#include "log.h"
#include "str.h"
#include "util.h"

namespace {

constexpr const char kFunc[] = "FileMacOSValidateDesReq";
constexpr const char kDesReq[] = CODESIGNATURE_MAKER_REQUIREMENT;

/* Checks the copy at path; every failure is logged with the step that failed. */
bool ValidateCopy(const char *path)
{
   /* A copy's path is the safe directory's (UTF-8, short) joined to a name that was found. */
   VERIFY(CodeSign_CheckPathForm(path) == 0);
   bool ok = false;
   CodeSignCode *code = CodeSign_OpenCode(path);
   CodeSignRequirement *requirement = nullptr;
   if (code == nullptr) {
      Log("%s: SecStaticCodeCreateWithPath for \"%s\" failed: %d\n", kFunc, path, errno);
   } else if ((requirement = CodeSign_ParseRequirement(kDesReq)) == nullptr) {
      Log("%s: SecRequirementCreateWithString for \"%s\" failed: %d\n", kFunc, kDesReq, EINVAL);
   } else {
      CodeSignStatus status = CodeSign_CheckValidity(code, requirement, false, nullptr, nullptr);
      ok = status == CODESIGN_OK;
      if (!ok) {
         Log("%s: SecStaticCodeCheckValidity for file \"%s\" and desReq \"%s\" failed: %d\n", kFunc,
             path, kDesReq, (int)status);
      }
   }
   CodeSign_FreeRequirement(requirement);
   CodeSign_CloseCode(code);
   if (!ok) {
      Warning("FILE: Failed to validate designated requirements \"%s\" for file \"%s\"\n", kDesReq,
              path);
      return false;
   }
   Log("FILE: Validated designated requirements \"%s\" for file \"%s\"\n", kDesReq, path);
   return true;
}

bool CopyAndValidate(const char *srcDir, const char *safeDir, const char *name)
{
   char *src = File_PathJoin(srcDir, name);
   char *dst = File_PathJoin(safeDir, name);
   bool ok = File_Copy(src, dst, true);
   if (!ok) {
      Warning("FILE: File_Copy failed, from \"%s\" to \"%s\"\n", src, dst);
   } else {
      ok = ValidateCopy(dst);
   }
   free(src);
   free(dst);
   return ok;
}

}  // namespace

extern "C" {

bool FileMacOSValidateDesReq(const char *srcDir, const char *const *names, size_t count,
                             char **safeDir)
{
   char *prefix = Str_SafeAsprintf(nullptr, "%s%d", "safeDir", (int)getpid());
   *safeDir = File_MakeSafeTempDir(prefix);
   free(prefix);
   if (*safeDir == nullptr) {
      return false;
   }
   for (size_t i = 0; i < count; i++) {
      if (!CopyAndValidate(srcDir, *safeDir, names[i])) {
         free(*safeDir);
         *safeDir = nullptr;
         return false;
      }
   }
   return true;
}

}  // extern "C"
