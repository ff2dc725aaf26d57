/*
 * The services installation: a fresh, root-owned, verified copy of the services files.
 */
#ifndef BRIX_SERVICES_INSTALL_H
#define BRIX_SERVICES_INSTALL_H

#include <stdbool.h>

/* The install hook of the opener: true when every file was copied and verified. */
bool ServicesInstall_Run(void);

#endif
