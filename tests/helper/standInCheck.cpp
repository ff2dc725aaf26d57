/*
 * Test stand-in for the client check, linked into a test copy of the example helper in place of
 * the library's: a requirement 'identifier "X" ...' is met by an executable whose extended
 * attribute user.brix.test.identifier is X (status 7 otherwise, -1 for any other text).
 */
#include <string.h>
#include <sys/xattr.h>

#include <string>

#include "privilegedHelperInt.h"

bool PrivilegedHelperClientSatisfies(int exeFd, const char *requirementText, int *status)
{
   static const char kPrefix[] = "identifier \"";
   if (strncmp(requirementText, kPrefix, sizeof kPrefix - 1) != 0) {
      *status = -1;
      return false;
   }
   std::string wanted(requirementText + sizeof kPrefix - 1);
   wanted.resize(wanted.find('"') == std::string::npos ? 0 : wanted.find('"'));
   char value[256];
   ssize_t length = fgetxattr(exeFd, "user.brix.test.identifier", value, sizeof value);
   bool ok = length > 0 && !wanted.empty() && std::string(value, (size_t)length) == wanted;
   *status = ok ? 0 : 7;
   return ok;
}
