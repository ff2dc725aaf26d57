/*
 * 128-bit identifiers: a file's location on this host, the host itself, and random ones tagged
 * with a kind. Identifiers travel as text, in the spaced form
 * "xx xx xx xx xx xx xx xx-xx xx xx xx xx xx xx xx" (47 characters) or in the canonical
 * RFC 4122 grouping (36 characters). Returned strings are the caller's to free.
 */
#ifndef TESMAR_UUID_H
#define TESMAR_UUID_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define UUID_SIZE 16
#define UUID_SPACED_LENGTH 47
#define UUID_CANONICAL_LENGTH 36

/* Kinds of random identifier and their leading bytes. */
enum {
   UUID_RANDOM_PLAIN = 0, /* "KD" */
   UUID_RANDOM_HOST = 1,  /* "R", then a random byte */
   UUID_RANDOM_B = 2,     /* "B", then the tag byte */
   UUID_RANDOM_P = 3,     /* "P", then the tag byte */
};

/*
 * The identifier of path on this host, derived from the host identifier and the path's
 * canonical form. Scheme control values 0 to 2 are alike; any other returns NULL.
 */
char *UUID_CreateLocation(const char *path, int schemeControl);

/* This host's identifier, derived from its machine identity. */
char *UUID_GetHostUUID(void);

/* A random identifier of the given kind; NULL when no random bytes can be had. */
char *UUID_CreateRandom(unsigned int kind, uint8_t tag);

/*
 * Converts a spaced identifier into the canonical form in buf (at least 37 bytes) and returns
 * buf, or NULL when the text is not exactly a spaced identifier.
 */
char *UUID_ConvertToText(const char *text, char *buf, size_t size);

/* The spaced form of 16 bytes. */
char *UUID_PackText(const uint8_t bytes[UUID_SIZE]);

/* Reads a spaced identifier back into 16 bytes; false unless text is exactly that form. */
bool UUID_ParseText(const char *text, uint8_t bytes[UUID_SIZE]);

#ifdef __cplusplus
}
#endif

#endif
