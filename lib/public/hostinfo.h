/*
 * Host information: questions about the running machine and process.
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

/* Machine identity and host queries. */

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

/* End of machine identity and host queries. */

#ifdef __cplusplus
}
#endif

#endif
