/*
 * Product location internals for the programs built into it.
 */
#ifndef TESMAR_LOCATION_INT_H
#define TESMAR_LOCATION_INT_H

/*
 * Sets the prefix of the machine-wide directories (the build's root prefix by default). A
 * program built for a private root calls it first, before any location is asked for; prefix is
 * a constant that is never freed.
 */
void LocationSetRootPrefix(const char *prefix);

#endif
