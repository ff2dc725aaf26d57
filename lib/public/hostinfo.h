/*
 * Host information, machine identity and detaching daemons.
 */
#ifndef TESMAR_HOSTINFO_H
#define TESMAR_HOSTINFO_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

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

/* --- Machine identity and host queries ------------------------------------------------ */

/* The host's name, newly allocated (the caller frees it), or NULL with errno set. */
char *Hostinfo_HostName(void);

/*
 * The machine's identity: a hash of the host name and the hardware address of its first
 * Ethernet interface (0 when it has none). Computed once per process.
 */
void Hostinfo_MachineID(uint32_t *hostId, uint64_t *hardwareId);

/*
 * A process's start time, in microseconds since the epoch, or in clock ticks after boot (the
 * kernel's own figure, which is exact). False with errno set when the process cannot be read.
 */
bool Hostinfo_GetProcessStartTime(pid_t pid, uint64_t *startTimeUs);
bool Hostinfo_GetProcessStartTicks(pid_t pid, uint64_t *startTicks);

/*
 * The processor's identification leaves as a signature, "LEAF:EAXEBXECXEDX-" per leaf in
 * hexadecimal, newly allocated; NULL without identification data. Per-processor fields (APIC
 * ids) are left out so that every processor of the machine gives the same signature.
 */
char *Hostinfo_GetCpuidSignature(void);

/* The kernel release ("6.1.0-18-amd64") and its numeric components (0 for those missing). */
const char *Hostinfo_OSVersionString(void);
int Hostinfo_OSVersion(unsigned int component);

/*
 * The operating system's description, "NAME VERSION (CODENAME) KERNEL RELEASE" from
 * /etc/os-release and uname, newly allocated; NULL when uname fails.
 */
char *Hostinfo_GetOSName(void);

/* The operating system's word size, 64 or 32; -1 when uname fails. */
int Hostinfo_GetOSWordSize(void);

/* The 1, 5 and 15 minute load averages; false with errno set on failure. */
bool Hostinfo_GetLoadAverage(float *avg1, float *avg5, float *avg15);
void Hostinfo_LogLoadAverage(void);

/* Logs the process's memory use in pages (size, resident, shared, text, library, data). */
void Hostinfo_LogMemUsage(void);

/* The object size of the named kernel slab cache in bytes; 0 when unknown. */
size_t Hostinfo_GetKernelZoneElemSize(const char *name);

/* Physical memory and the memory available without swapping, in pages. */
bool Hostinfo_GetMemoryInfoInPages(uint64_t *totalPages, uint64_t *availablePages);

/* --- end of machine identity and host queries ----------------------------------------- */

#ifdef __cplusplus
}
#endif

#endif
