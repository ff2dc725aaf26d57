/*
 * The client check of the privileged helper: whether a client's executable satisfies one
 * requirement text. The one place where the listener meets the code-signature checks.
 */
#include "codeSign.h"
#include "privilegedHelperInt.h"

namespace {

// The status of a requirement text that does not parse (the code signatures' own are >= 0).
constexpr int kRequirementInvalid = -1;

}  // namespace

/*
 * The executable is checked through the descriptor the listener opened from the client's
 * process, never by path, so a file swapped in at the path afterwards changes nothing.
 */
bool PrivilegedHelperClientSatisfies(int exeFd, const char *requirementText, int *status)
{
   CodeSignRequirement *requirement = CodeSign_ParseRequirement(requirementText);
   if (requirement == nullptr) {
      *status = kRequirementInvalid;
      return false;
   }
   CodeSignCode *code = CodeSign_OpenCodeFd(exeFd);
   if (code == nullptr) {
      CodeSign_FreeRequirement(requirement);
      *status = CODESIGN_IO;
      return false;
   }
   *status = CodeSign_CheckValidity(code, requirement, false, nullptr, nullptr);
   CodeSign_CloseCode(code);
   CodeSign_FreeRequirement(requirement);
   return *status == CODESIGN_OK;
}
