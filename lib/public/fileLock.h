/*
 * Advisory locks on a path shared between processes and machines, made only of ordinary
 * files and directories: a lock directory (path + ".lck") holding one member file per holder
 * or waiter, ordered by a bakery number.
 */
#ifndef TESMAR_FILELOCK_H
#define TESMAR_FILELOCK_H

#include <stdbool.h>
#include <stdint.h>

#include "msgList.h"

#ifdef __cplusplus
extern "C" {
#endif

#define FILELOCK_SUFFIX ".lck"
#define FILELOCK_TRY_LOCK 0u               /* maximum wait: do not wait */
#define FILELOCK_INFINITE_WAIT 0xFFFFFFFFu /* maximum wait: wait for ever */

typedef struct FileLockToken FileLockToken;

/*
 * Locks path, shared when readOnly, exclusive otherwise, waiting at most maxWaitMsec. Returns
 * the token, or NULL with *err set (EAGAIN on a timeout) and msg.fileLock.posix appended to
 * *msgs (msgs may be NULL).
 */
FileLockToken *FileLock_Lock(const char *path, bool readOnly, uint32_t maxWaitMsec, int *err,
                             MsgList **msgs);
/* Releases and frees the token; false with *err and a message on failure. */
bool FileLock_Unlock(FileLockToken *token, int *err, MsgList **msgs);
/* True when anybody holds or waits for the lock on path. */
bool FileLock_IsLocked(const char *path, int *err, MsgList **msgs);

#ifdef __cplusplus
}
#endif

#endif
