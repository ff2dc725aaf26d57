/*
 * The service hand-over, opener side: finding or starting the services daemon and handing it a
 * descriptor. The protocol helpers both sides share are in serviceImplIO.h.
 */
#ifndef BRIX_SERVICE_IMPL_H
#define BRIX_SERVICE_IMPL_H

#include "serviceImplIO.h"

/* The mode switch of the opener: returns the process's exit status. */
int ServiceImpl_Opener(int argc, char **argv, int verbosity, const char *lockPath,
                       const char *socketPath, const char *daemonPath);

/* Lower the effective user id to the real one (remembering it) and raise it back. */
void ServiceImpl_PrivLower(void);
void ServiceImpl_PrivRaise(void);

#endif
