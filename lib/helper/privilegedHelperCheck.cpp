/*
 * The client check of the privileged helper: whether a client's executable satisfies one
 * requirement text. The one place where the listener meets the code-signature checks.
 */
#include "log.h"
#include "privilegedHelperInt.h"

// No code-signature checker is built in yet: every client is refused, and the log says why.
bool PrivilegedHelperClientSatisfies(int exeFd, const char *requirementText, int *status)
{
   Log("PrivilegedHelper: no code-signature checker is available; refusing the client.\n");
   *status = -1;
   return false;
}
