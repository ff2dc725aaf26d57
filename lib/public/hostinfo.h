/*
 * Host information and detaching daemons.
 */
#ifndef TESMAR_HOSTINFO_H
#define TESMAR_HOSTINFO_H

#include <stdbool.h>
#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/* --- Running executable and daemons ---------------------------------------------------- */

/* Flags of Hostinfo_Daemonize. */
#define HOSTINFO_DAEMONIZE_DEFAULT 0u
#define HOSTINFO_DAEMONIZE_NOCHDIR (1u << 0) /* keep the working directory */
#define HOSTINFO_DAEMONIZE_NOCLOSE (1u << 1) /* keep the session and the standard streams */
#define HOSTINFO_DAEMONIZE_EXIT (1u << 2)    /* the caller _exit(0)s once the daemon runs */
#define HOSTINFO_DAEMONIZE_LOCKPID (1u << 3) /* flock the PID file; the daemon keeps it open */

/*
 * Starts path (UTF-8) with argv (NULL-terminated) as a detached daemon: double fork, new
 * session, default signal dispositions, standard streams on /dev/null, working directory "/",
 * only keepFds (and the locked PID file) inherited. Returns true once the daemon's execv has
 * happened; false with errno set to the reason otherwise. pidPath may be NULL.
 */
bool Hostinfo_Daemonize(const char *path, char *const *argv, unsigned int flags,
                        const char *pidPath, const int *keepFds, size_t numKeepFds);

/*
 * The running executable's path as the system reports it (links not resolved), newly
 * allocated; NULL on failure. privilege must be 0 or 1 (both behave the same here).
 */
char *Hostinfo_GetModulePath(unsigned int privilege);

/* --- end of running executable and daemons --------------------------------------------- */

#ifdef __cplusplus
}
#endif

#endif
