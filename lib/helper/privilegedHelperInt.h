/*
 * Privileged helper internals shared by the listener, the client side, the tests and the fuzz
 * target: the datagram codec and the client check.
 */
#ifndef TESMAR_PRIVILEGED_HELPER_INT_H
#define TESMAR_PRIVILEGED_HELPER_INT_H

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include "privilegedHelper.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef enum PrivilegedHelperDecodeStatus {
   PRIVILEGED_HELPER_DECODED = 0,
   PRIVILEGED_HELPER_NOT_DICTIONARY, /* a valid property list of another type */
   PRIVILEGED_HELPER_MALFORMED,      /* not a binary property list */
   PRIVILEGED_HELPER_TOO_LARGE,      /* over PRIVILEGED_HELPER_MAX_MESSAGE */
} PrivilegedHelperDecodeStatus;

/* Decodes one datagram; *dict is set (caller frees) only for PRIVILEGED_HELPER_DECODED. */
PrivilegedHelperDecodeStatus PrivilegedHelperDecode(const uint8_t *data, size_t size,
                                                    plist_t *dict);

/*
 * Sends one encoded message with descriptors, waiting at most timeoutMs for room (-1: for
 * ever). false with errno (EMSGSIZE when the encoding is over the limit).
 */
bool PrivilegedHelperSendMessage(int sock, plist_t message, const int *fds, size_t fdCount,
                                 int timeoutMs);

/*
 * Whether the executable open at exeFd satisfies requirementText. *status is 0 when it does,
 * otherwise the reason code logged with the failed validation.
 */
bool PrivilegedHelperClientSatisfies(int exeFd, const char *requirementText, int *status);

/*
 * Opens the executable of process pid, which pidfd must name; -1 with errno when it cannot be
 * opened or when pidfd no longer names a live process with that id (ESRCH).
 */
int PrivilegedHelperOpenClientExe(int pidfd, pid_t pid);

/* Whether pidfd still names the live process pid. */
bool PrivilegedHelperPidfdNames(int pidfd, pid_t pid);

#ifdef __cplusplus
}
#endif

#endif
