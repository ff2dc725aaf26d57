/*
 * Id internals shared with the authorization library: the process-wide cached reference.
 */
#ifndef TESMAR_ID_INT_H
#define TESMAR_ID_INT_H

#include <stdint.h>
#include <sys/types.h>

/* An authorization reference: the subject the authority decides about. */
struct IdAuthRef {
   pid_t pid;
   uid_t uid;
   uint64_t startTicks; /* process start, in clock ticks after boot */
};

/* The cached reference, or NULL before first use. */
IdAuthRef *IdAuthCacheGet();

/*
 * Publishes ref (heap-allocated) as the cached reference unless one is cached already, in which
 * case ref is freed. Returns the cached reference.
 */
IdAuthRef *IdAuthCachePublish(IdAuthRef *ref);

/* Installs ref as the cached reference; replacing an existing one is not supported (panic). */
void IdAuthCacheInstall(IdAuthRef *ref);

/* Forgets the cached reference (tests only: no other thread may be using it). */
void IdAuthCacheDiscard();

#endif
