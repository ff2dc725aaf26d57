/*
 * Internals shared between the signed-file and the bundle modules.
 */
#ifndef BRIX_CODESIGN_FILE_H
#define BRIX_CODESIGN_FILE_H

#include <string>
#include <vector>

#include <openssl/x509.h>

#include "codeSignInt.h"

namespace codesign {

/*
 * Starts OpenSSL without its configuration file: the signatures use fixed algorithms, and a
 * program running as root has no reason to read the machine's settings for them. Called
 * before any other OpenSSL use.
 */
void InitCrypto();

constexpr uint64_t kMaxResources = 16u << 20;  // the largest CodeResources read into memory

/* The SHA-256 of the first size bytes of fd. */
bool DigestFd(int fd, uint64_t size, uint8_t digest[32]);
/* The compiled-in anchors, or a store built from anchorsPem (returned in owned too). */
X509_STORE *AnchorStore(const char *anchorsPem, X509_STORE **owned);
/*
 * Checks the signed file fd: trailer, CMS signature, digest, chain (a fact in info). With
 * wantPayload the covered bytes are returned in payload (bounded by kMaxResources).
 */
CodeSignStatus CheckFile(int fd, X509_STORE *anchors, CodeSignInfo *info, bool wantPayload,
                         std::vector<uint8_t> *payload);
/* The DER CMS blob signing identifier and digest. */
bool MakeBlob(const std::string &identifier, const uint8_t digest[32], const char *certPem,
              const char *keyPem, const char *chainPem, std::vector<uint8_t> &out,
              std::string &error);
/* Appends blob, the info block and the marker to file. */
void AppendTrailer(std::vector<uint8_t> &file, const std::vector<uint8_t> &blob);
/* The requirement's verdict over what a valid signature established. */
CodeSignStatus Evaluate(const CodeSignRequirement *requirement, const CodeSignInfo &info);

}  // namespace codesign

#endif
