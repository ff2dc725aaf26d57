/*
 * The ICU side of the codeset module. CodeSet_Init installs the backend when it finds ICU's
 * data file; until then, and in programs that never call it, the conversions use the built-in
 * converters and nothing of ICU is linked.
 */
#ifndef TESMAR_CODESET_ICU_H
#define TESMAR_CODESET_ICU_H

#include <stddef.h>

#include "codeset.h"
#include "dynbuf.h"

/*
 * kUnusable is a programming error the caller panics on: a policy that does not exist
 * (conversion) or an encoding ICU does not know (validation).
 */
enum class CodeSetIcuResult { kFailed, kDone, kUnusable };

struct CodeSetIcuBackend {
   /* Appends the conversion of bufIn from codeIn to codeOut to db; failure leaves db as it was. */
   CodeSetIcuResult (*convertToDynBuf)(const char *codeIn, const char *bufIn, size_t sizeIn,
                                       const char *codeOut, int policy, DynBuf *db);
   bool (*isSupported)(const char *name);
   /* kDone when buf is well-formed in code. */
   CodeSetIcuResult (*validate)(const char *buf, size_t size, const char *code);
};

/* Makes every conversion go through backend (nullptr: the built-in converters). */
void CodeSetUseIcu(const CodeSetIcuBackend *backend);

/* Heap conversion results end in this many zero bytes, enough for any encoding. */
constexpr size_t kCodeSetTerminator = 4;

inline bool CodeSetIsKnownPolicy(int policy)
{
   return policy >= CODESET_POLICY_NORMAL && policy <= CODESET_POLICY_SKIP;
}

#endif
