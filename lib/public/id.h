/*
 * Identity and privilege: per-thread super-user brackets, identity setters that act on the
 * calling thread only, a process-existence test, and authorization references.
 *
 * The kernel keeps credentials per thread; the setters here use the raw system calls, so only
 * the calling thread changes identity (the libc wrappers would change every thread).
 */
#ifndef TESMAR_ID_H
#define TESMAR_ID_H

#include <stdbool.h>
#include <stddef.h>
#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Gives the calling thread the process's root credentials. Returns the previous effective user
 * id for Id_EndSuperUser, or (uid_t)-1 when the thread already ran as root.
 */
uid_t Id_BeginSuperUser(void);

/* Returns the calling thread to uid (with the real group id); (uid_t)-1 does nothing. */
void Id_EndSuperUser(uid_t uid);

/* Answers of Id_ProcessExists. */
#define ID_PROCESS_GONE 0
#define ID_PROCESS_EXISTS 1
#define ID_PROCESS_UNKNOWN 2

/* Whether pid names a live process, by kill(pid, 0): one of the ID_PROCESS_* answers. */
int Id_ProcessExists(pid_t pid);

/* The calling thread's identity setters, with setgid/setreuid/setresuid semantics. 0 or -1. */
int Id_SetGid(gid_t gid);
int Id_SetREUid(uid_t ruid, uid_t euid);
int Id_SetRESUid(uid_t ruid, uid_t euid, uid_t suid);

/*
 * Authorization (library tesmar_auth). A reference names this process (id, start time, user
 * id) to the system's authorization authority; one is cached per process.
 */

/* Size of an authorization reference's transferable form. */
#define ID_AUTH_EXTERNAL_SIZE 32

/* The cached reference's transferable form, newly allocated (the caller frees it), or NULL. */
void *Id_AuthGetExternal(size_t *size);

/* Installs the reference a transferable form describes as this process's cached reference. */
bool Id_AuthSet(const void *externalForm, size_t size);

/*
 * Whether the cached reference holds right; prompt (or NULL) is shown to the user when the
 * authority asks for authentication, which it may only do when interactionAllowed.
 */
bool Id_AuthCheck(const char *right, const char *prompt, bool interactionAllowed);

#ifdef __cplusplus
}
#endif

#endif
