/*
 * Hostinfo internals, exposed for the tests.
 */
#ifndef TESMAR_HOSTINFO_INT_H
#define TESMAR_HOSTINFO_INT_H

#include <stdint.h>

#include <string>
#include <string_view>

struct ifaddrs;

/* The host id of a host name: h = 5381, then h = h * 33 + byte, in 32-bit arithmetic. */
uint32_t HostinfoHostNameHash(const char *hostName);

/*
 * The hardware id from an interface list: the 6-byte link-level address of the first of
 * "en0".."en7", then "eth0".."eth7", in the low six bytes (address order); 0 when none.
 */
uint64_t HostinfoSelectHardwareID(const struct ifaddrs *list);

/* Reads a whole (small, /proc-style) file; false with errno set on failure. */
bool HostinfoReadFile(const char *path, std::string *contents);

/* The value of key in os-release text (quotes and escapes undone); false when absent. */
bool HostinfoOSReleaseValue(std::string_view text, std::string_view key, std::string *value);

/*
 * The start time field (clock ticks after boot) of a /proc/<pid>/stat line; false when the
 * line is malformed. The command name in it is chosen by the process itself.
 */
bool HostinfoParseStatStartTicks(std::string_view stat, uint64_t *ticks);

#endif
