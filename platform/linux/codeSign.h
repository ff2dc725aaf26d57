/*
 * Code signatures on Linux.
 *
 * A signed file carries its signature after its own bytes: a DER CMS SignedData whose attached
 * content is a small code directory (identifier and SHA-256 of the original bytes), an info
 * block (format version and signature length, both big-endian 32-bit) and a marker. A bundle
 * folder keeps its signature in Contents/_CodeSignature/CodeResources: a property list naming
 * the identifier and every file's digest and mode and every link's target, itself signed as a
 * file. Signers are checked against anchor certificates compiled into the program.
 */
#ifndef BRIX_CODESIGN_H
#define BRIX_CODESIGN_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <time.h>

#ifdef __cplusplus
extern "C" {
#endif

#define CODESIGN_MARKER "~BRIX code signature~\n"
#define CODESIGN_MARKER_LEN (sizeof CODESIGN_MARKER - 1)
#define CODESIGN_INFO_LEN 8
#define CODESIGN_VERSION 1
#define CODESIGN_RESOURCES "Contents/_CodeSignature/CodeResources"

/* The maker's signer: a chain to a trusted anchor and a leaf whose name holds the maker's. */
#define CODESIGNATURE_MAKER_REQUIREMENT \
   "anchor apple generic and anchor trusted and cert leaf[subject.CN] = *\"Tesmar, Inc.\"*"
/* The same for one file, whose signed identifier must be the "%s". */
#define CODESIGNATURE_REQUIREMENT_FMT "identifier \"%s\" and " CODESIGNATURE_MAKER_REQUIREMENT

typedef enum CodeSignStatus {
   CODESIGN_OK = 0,
   CODESIGN_UNSIGNED,      /* no signature trailer */
   CODESIGN_MALFORMED,     /* a trailer or CMS blob that does not parse or does not fit */
   CODESIGN_BAD_SIGNATURE, /* the CMS signature does not verify */
   CODESIGN_ALTERED,       /* the contents differ from what was signed */
   CODESIGN_IDENTIFIER,    /* the signed identifier is not the required one */
   CODESIGN_UNTRUSTED,     /* the signer's chain does not reach an anchor */
   CODESIGN_LEAF_NAME,     /* the signer's common name does not match */
   CODESIGN_REQUIREMENT,   /* another requirement clause failed */
   CODESIGN_NOT_ROOT,      /* a bundle entry not owned by root (when root is required) */
   CODESIGN_IO,            /* reading failed; errno tells */
} CodeSignStatus;

/*
 * Whether path can name code: 0 when it is valid UTF-8 (a string can be made from it) and
 * shorter than PATH_MAX (a file-system URL can be made from it); 1 or 2 for the step that fails.
 */
int CodeSign_CheckPathForm(const char *path);

/* The text for a status, for tools and logs. */
const char *CodeSign_StatusText(CodeSignStatus status);

typedef struct CodeSignCode CodeSignCode;
typedef struct CodeSignRequirement CodeSignRequirement;

/*
 * Opens path as code: a regular file, or a bundle folder (a directory holding Contents/). A
 * final symbolic link is not followed. NULL with errno on failure.
 */
CodeSignCode *CodeSign_OpenCode(const char *path);
/* The same for an open descriptor (duplicated; the caller keeps its own). */
CodeSignCode *CodeSign_OpenCodeFd(int fd);
void CodeSign_CloseCode(CodeSignCode *code);
bool CodeSign_IsBundle(const CodeSignCode *code);

/* Parses a requirement text; NULL when the text is not in the language. */
CodeSignRequirement *CodeSign_ParseRequirement(const char *text);
void CodeSign_FreeRequirement(CodeSignRequirement *requirement);
/* The requirement printed back in canonical form, newly allocated. */
char *CodeSign_RequirementText(const CodeSignRequirement *requirement);

/* What a valid signature says about the code. */
typedef struct CodeSignInfo {
   char identifier[256];
   uint8_t digest[32];   /* of the file's original bytes, or of a bundle's CodeResources */
   char leafName[256];   /* the signer's common name */
   char chain[1024];     /* the signer chain's subjects, one per line, leaf first */
   bool trusted;         /* the chain verified up to an anchor */
   time_t signingTime;   /* 0 if the signature carries none */
   uint64_t payloadSize; /* bytes covered by the digest */
} CodeSignInfo;

/*
 * Reads and checks the signature of code (signature, contents, chain) and evaluates the
 * requirement (NULL: none beyond a valid signature). With requireRoot every entry of a bundle
 * must be owned by user and group 0. anchorsPem replaces the compiled-in anchors when not
 * NULL (tools only). info may be NULL.
 */
CodeSignStatus CodeSign_CheckValidity(CodeSignCode *code, const CodeSignRequirement *requirement,
                                      bool requireRoot, const char *anchorsPem, CodeSignInfo *info);

/*
 * Signs path as identifier with the certificate and key (PEM files) and optional extra chain
 * certificates. A file keeps its original bytes and gets a new trailer in place of an old one;
 * a bundle folder gets a new CodeResources. The file is replaced atomically. Returns false with
 * a reason in error (if not NULL, errorSize bytes).
 */
bool CodeSign_Sign(const char *path, const char *identifier, const char *certPem,
                   const char *keyPem, const char *chainPem, char *error, size_t errorSize);

/* The anchors compiled into the program, as PEM text. */
extern const char gCodeSignAnchorsPem[];

/*
 * Finds the signature trailer at the end of a file of fileSize bytes whose last tailSize bytes
 * are tail (tailSize may be less than fileSize). On CODESIGN_OK, *sigOffset and *sigSize locate
 * the CMS blob within the file; CODESIGN_UNSIGNED or CODESIGN_MALFORMED otherwise.
 */
CodeSignStatus CodeSignFindTrailer(const uint8_t *tail, size_t tailSize, uint64_t fileSize,
                                   uint64_t *sigOffset, uint32_t *sigSize);
/* Decodes a CMS blob into identifier and digest without checking the signer (fuzzing). */
CodeSignStatus CodeSignDecodeBlob(const uint8_t *blob, size_t size, CodeSignInfo *info);
/* Reads the payload of a CodeResources file (fuzzing, display); false if it does not parse. */
bool CodeSignParseResources(const uint8_t *data, size_t size, char *identifier,
                            size_t identifierSize, size_t *fileCount);
/* The CFBundleIdentifier of a bundle folder's Contents/Info.plist, newly allocated, or NULL. */
char *CodeSign_BundleIdentifier(int bundleFd);

#ifdef __cplusplus
}
#endif

#endif
