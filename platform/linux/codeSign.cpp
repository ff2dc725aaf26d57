/*
 * Signed files: the signature trailer, the CMS SignedData around the code directory, the
 * signer's chain and the requirement check. Every cryptographic and ASN.1 step is OpenSSL's.
 */
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <openssl/asn1t.h>
#include <openssl/cms.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include "codeSignFile.h"
#include "unicodeBase.h"
#include "uniqueFd.h"

/* The signed content: format version, identifier and the SHA-256 of the covered bytes. */
typedef struct BrixCodeDirectory_st {
   ASN1_INTEGER *version;
   ASN1_UTF8STRING *identifier;
   ASN1_OCTET_STRING *digest;
} BRIX_CODE_DIRECTORY;

ASN1_SEQUENCE(BRIX_CODE_DIRECTORY) = {
    ASN1_SIMPLE(BRIX_CODE_DIRECTORY, version, ASN1_INTEGER),
    ASN1_SIMPLE(BRIX_CODE_DIRECTORY, identifier, ASN1_UTF8STRING),
    ASN1_SIMPLE(BRIX_CODE_DIRECTORY, digest, ASN1_OCTET_STRING),
} ASN1_SEQUENCE_END(BRIX_CODE_DIRECTORY)

DECLARE_ASN1_FUNCTIONS(BRIX_CODE_DIRECTORY)
IMPLEMENT_ASN1_FUNCTIONS(BRIX_CODE_DIRECTORY)

namespace codesign {
namespace {

using tesmar::UniqueFd;

template <typename T, void (*F)(T *)>
struct Deleter {
   void operator()(T *p) const { F(p); }
};
using CmsPtr = std::unique_ptr<CMS_ContentInfo, Deleter<CMS_ContentInfo, CMS_ContentInfo_free>>;
using BioPtr = std::unique_ptr<BIO, Deleter<BIO, BIO_free_all>>;
using X509Ptr = std::unique_ptr<X509, Deleter<X509, X509_free>>;
using StorePtr = std::unique_ptr<X509_STORE, Deleter<X509_STORE, X509_STORE_free>>;
using StoreCtxPtr = std::unique_ptr<X509_STORE_CTX, Deleter<X509_STORE_CTX, X509_STORE_CTX_free>>;
using KeyPtr = std::unique_ptr<EVP_PKEY, Deleter<EVP_PKEY, EVP_PKEY_free>>;
using CdPtr =
    std::unique_ptr<BRIX_CODE_DIRECTORY, Deleter<BRIX_CODE_DIRECTORY, BRIX_CODE_DIRECTORY_free>>;

void FreeX509Stack(STACK_OF(X509) * stack)
{
   sk_X509_pop_free(stack, X509_free);
}
using X509StackPtr = std::unique_ptr<STACK_OF(X509), Deleter<STACK_OF(X509), FreeX509Stack>>;

constexpr uint32_t kMaxBlob = 1u << 20;   // a signature is a few KiB; more is not one of ours
/*
 * Files are hashed through a buffer on the stack: small enough to stay in the processor's
 * cache, and neither allocated, cleared nor faulted in again for each file.
 */
constexpr size_t kChunk = 64u << 10;

uint32_t BigEndian32(const uint8_t *p)
{
   return (uint32_t)p[0] << 24 | (uint32_t)p[1] << 16 | (uint32_t)p[2] << 8 | p[3];
}

void PutBigEndian32(uint8_t *p, uint32_t v)
{
   p[0] = (uint8_t)(v >> 24);
   p[1] = (uint8_t)(v >> 16);
   p[2] = (uint8_t)(v >> 8);
   p[3] = (uint8_t)v;
}

X509_STORE *StoreFromPem(const char *pem)
{
   StorePtr store(X509_STORE_new());
   BioPtr bio(BIO_new_mem_buf(pem, -1));
   if (!store || !bio) {
      return nullptr;
   }
   int count = 0;
   while (X509 *cert = PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr)) {
      X509Ptr owned(cert);
      if (X509_STORE_add_cert(store.get(), cert) != 1) {
         return nullptr;
      }
      count++;
   }
   ERR_clear_error();
   return count > 0 ? store.release() : nullptr;
}

/* The compiled-in anchors, built once per process and kept. */
X509_STORE *CompiledAnchors()
{
   static X509_STORE *gAnchors = StoreFromPem(gCodeSignAnchorsPem);
   return gAnchors;
}

std::string CommonName(X509 *cert)
{
   X509_NAME *name = X509_get_subject_name(cert);
   int index = X509_NAME_get_index_by_NID(name, NID_commonName, -1);
   if (index < 0) {
      return {};
   }
   unsigned char *utf8 = nullptr;
   int len = ASN1_STRING_to_UTF8(&utf8, X509_NAME_ENTRY_get_data(X509_NAME_get_entry(name, index)));
   if (len < 0) {
      return {};
   }
   std::string text((const char *)utf8, (size_t)len);
   OPENSSL_free(utf8);
   return text.find('\0') == std::string::npos ? text : std::string();
}

void CopyText(char *dst, size_t size, const std::string &text)
{
   snprintf(dst, size, "%s", text.c_str());
}

void AppendSubject(std::string &chain, X509 *cert)
{
   char line[256];
   X509_NAME_oneline(X509_get_subject_name(cert), line, sizeof line);
   chain += line;
   chain += '\n';
}

time_t SigningTime(CMS_ContentInfo *cms)
{
   STACK_OF(CMS_SignerInfo) *signers = CMS_get0_SignerInfos(cms);
   if (sk_CMS_SignerInfo_num(signers) != 1) {
      return 0;
   }
   CMS_SignerInfo *si = sk_CMS_SignerInfo_value(signers, 0);
   int index = CMS_signed_get_attr_by_NID(si, NID_pkcs9_signingTime, -1);
   if (index < 0) {
      return 0;
   }
   ASN1_TYPE *value = X509_ATTRIBUTE_get0_type(CMS_signed_get_attr(si, index), 0);
   struct tm tm = {};
   if (value == nullptr ||
       (value->type != V_ASN1_UTCTIME && value->type != V_ASN1_GENERALIZEDTIME) ||
       ASN1_TIME_to_tm(value->value.utctime, &tm) != 1) {
      return 0;
   }
   return timegm(&tm);
}

CodeSignStatus DecodeContent(const uint8_t *data, size_t size, CodeSignInfo *info)
{
   const unsigned char *p = data;
   CdPtr cd(d2i_BRIX_CODE_DIRECTORY(nullptr, &p, (long)size));
   if (!cd || p != data + size || ASN1_INTEGER_get(cd->version) != CODESIGN_VERSION ||
       ASN1_STRING_length(cd->digest) != 32 || ASN1_STRING_length(cd->identifier) <= 0 ||
       (size_t)ASN1_STRING_length(cd->identifier) >= sizeof info->identifier) {
      ERR_clear_error();
      return CODESIGN_MALFORMED;
   }
   const unsigned char *id = ASN1_STRING_get0_data(cd->identifier);
   size_t idLen = (size_t)ASN1_STRING_length(cd->identifier);
   if (memchr(id, '\0', idLen) != nullptr) {
      return CODESIGN_MALFORMED;
   }
   memcpy(info->identifier, id, idLen);
   info->identifier[idLen] = '\0';
   memcpy(info->digest, ASN1_STRING_get0_data(cd->digest), 32);
   return CODESIGN_OK;
}

CmsPtr ParseCms(const uint8_t *blob, size_t size)
{
   const unsigned char *p = blob;
   CmsPtr cms(d2i_CMS_ContentInfo(nullptr, &p, (long)size));
   if (!cms || p != blob + size || OBJ_obj2nid(CMS_get0_type(cms.get())) != NID_pkcs7_signed) {
      ERR_clear_error();
      return nullptr;
   }
   return cms;
}

/*
 * Verifies the CMS signature over its attached content, then the signer's chain against the
 * anchors (a failing chain is a fact for the requirement, not an error here).
 */
CodeSignStatus VerifyBlob(const uint8_t *blob, size_t size, X509_STORE *anchors,
                          CodeSignInfo *info)
{
   CmsPtr cms = ParseCms(blob, size);
   if (!cms) {
      return CODESIGN_MALFORMED;
   }
   BioPtr content(BIO_new(BIO_s_mem()));
   if (!content) {
      return CODESIGN_IO;
   }
   if (CMS_verify(cms.get(), nullptr, nullptr, nullptr, content.get(),
                  CMS_NO_SIGNER_CERT_VERIFY | CMS_BINARY) != 1) {
      ERR_clear_error();
      return CODESIGN_BAD_SIGNATURE;
   }
   const uint8_t *data = nullptr;
   long len = BIO_get_mem_data(content.get(), (char **)&data);
   CodeSignStatus status = DecodeContent(data, (size_t)len, info);
   if (status != CODESIGN_OK) {
      return status;
   }
   X509StackPtr signers(CMS_get0_signers(cms.get()));
   if (!signers || sk_X509_num(signers.get()) != 1) {
      // CMS_get0_signers returns a stack of borrowed certificates.
      sk_X509_free(signers.release());
      return CODESIGN_MALFORMED;
   }
   X509 *leaf = sk_X509_value(signers.get(), 0);
   sk_X509_free(signers.release());
   CopyText(info->leafName, sizeof info->leafName, CommonName(leaf));
   info->signingTime = SigningTime(cms.get());

   X509StackPtr certs(CMS_get1_certs(cms.get()));
   StoreCtxPtr ctx(X509_STORE_CTX_new());
   std::string chain;
   info->trusted = false;
   if (anchors != nullptr && ctx &&
       X509_STORE_CTX_init(ctx.get(), anchors, leaf, certs.get()) == 1) {
      info->trusted = X509_verify_cert(ctx.get()) == 1;
      if (info->trusted) {
         STACK_OF(X509) *verified = X509_STORE_CTX_get0_chain(ctx.get());
         for (int i = 0; i < sk_X509_num(verified); i++) {
            AppendSubject(chain, sk_X509_value(verified, i));
         }
      }
   }
   ERR_clear_error();
   // A leaf that names its uses must name code signing.
   if (info->trusted && (X509_get_extension_flags(leaf) & EXFLAG_XKUSAGE) != 0 &&
       (X509_get_extended_key_usage(leaf) & XKU_CODE_SIGN) == 0) {
      info->trusted = false;
   }
   if (!info->trusted) {
      chain.clear();
      AppendSubject(chain, leaf);
      for (int i = 0; certs && i < sk_X509_num(certs.get()); i++) {
         X509 *cert = sk_X509_value(certs.get(), i);
         if (X509_cmp(cert, leaf) != 0) {
            AppendSubject(chain, cert);
         }
      }
   }
   CopyText(info->chain, sizeof info->chain, chain);
   return CODESIGN_OK;
}

bool ReadFully(int fd, uint8_t *buf, size_t size, uint64_t offset)
{
   while (size > 0) {
      ssize_t n = pread(fd, buf, size, (off_t)offset);
      if (n < 0 && errno == EINTR) {
         continue;
      }
      if (n <= 0) {
         if (n == 0) {
            errno = EIO;  // the file shrank under us
         }
         return false;
      }
      buf += n;
      size -= (size_t)n;
      offset += (uint64_t)n;
   }
   return true;
}

}  // namespace

void InitCrypto()
{
   static const bool gStarted = OPENSSL_init_crypto(OPENSSL_INIT_NO_LOAD_CONFIG, nullptr) == 1;
   (void)gStarted;
}

bool DigestFd(int fd, uint64_t size, uint8_t digest[32])
{
   std::unique_ptr<EVP_MD_CTX, Deleter<EVP_MD_CTX, EVP_MD_CTX_free>> ctx(EVP_MD_CTX_new());
   uint8_t buf[kChunk];
   if (!ctx || EVP_DigestInit_ex(ctx.get(), EVP_sha256(), nullptr) != 1) {
      return false;
   }
   for (uint64_t offset = 0; offset < size;) {
      size_t want = (size_t)std::min<uint64_t>(size - offset, kChunk);
      if (!ReadFully(fd, buf, want, offset) || EVP_DigestUpdate(ctx.get(), buf, want) != 1) {
         return false;
      }
      offset += want;
   }
   return EVP_DigestFinal_ex(ctx.get(), digest, nullptr) == 1;
}

X509_STORE *AnchorStore(const char *anchorsPem, X509_STORE **owned)
{
   *owned = nullptr;
   if (anchorsPem == nullptr) {
      return CompiledAnchors();
   }
   *owned = StoreFromPem(anchorsPem);
   return *owned;
}

CodeSignStatus CheckFile(int fd, X509_STORE *anchors, CodeSignInfo *info, bool wantPayload,
                         std::vector<uint8_t> *payload)
{
   struct stat st;
   if (fstat(fd, &st) != 0) {
      return CODESIGN_IO;
   }
   if (!S_ISREG(st.st_mode)) {
      errno = EINVAL;
      return CODESIGN_IO;
   }
   uint64_t fileSize = (uint64_t)st.st_size;
   uint8_t tail[CODESIGN_INFO_LEN + CODESIGN_MARKER_LEN];
   size_t tailSize = (size_t)std::min<uint64_t>(fileSize, sizeof tail);
   if (!ReadFully(fd, tail, tailSize, fileSize - tailSize)) {
      return CODESIGN_IO;
   }
   uint64_t sigOffset;
   uint32_t sigSize;
   CodeSignStatus status = CodeSignFindTrailer(tail, tailSize, fileSize, &sigOffset, &sigSize);
   if (status != CODESIGN_OK) {
      return status;
   }
   std::vector<uint8_t> blob(sigSize);
   if (!ReadFully(fd, blob.data(), sigSize, sigOffset)) {
      return CODESIGN_IO;
   }
   status = VerifyBlob(blob.data(), sigSize, anchors, info);
   if (status != CODESIGN_OK) {
      return status;
   }
   info->payloadSize = sigOffset;
   uint8_t digest[32];
   if (wantPayload) {
      if (sigOffset > kMaxResources) {
         return CODESIGN_MALFORMED;
      }
      payload->resize(sigOffset);
      if (!ReadFully(fd, payload->data(), sigOffset, 0) ||
          EVP_Digest(payload->data(), sigOffset, digest, nullptr, EVP_sha256(), nullptr) != 1) {
         return CODESIGN_IO;
      }
   } else if (!DigestFd(fd, sigOffset, digest)) {
      return CODESIGN_IO;
   }
   return memcmp(digest, info->digest, 32) == 0 ? CODESIGN_OK : CODESIGN_ALTERED;
}

/* The CMS blob for content signed by the certificate and key, DER in out. */
bool MakeBlob(const std::string &identifier, const uint8_t digest[32], const char *certPem,
              const char *keyPem, const char *chainPem, std::vector<uint8_t> &out,
              std::string &error)
{
   auto readPemFile = [&](const char *path) -> BioPtr {
      BioPtr bio(BIO_new_file(path, "r"));
      if (!bio) {
         error = std::string("cannot read ") + path;
      }
      return bio;
   };
   BioPtr certBio = readPemFile(certPem);
   if (!certBio) {
      return false;
   }
   X509Ptr cert(PEM_read_bio_X509(certBio.get(), nullptr, nullptr, nullptr));
   BioPtr keyBio = readPemFile(keyPem);
   if (!keyBio) {
      return false;
   }
   KeyPtr key(PEM_read_bio_PrivateKey(keyBio.get(), nullptr, nullptr, nullptr));
   if (!cert || !key || X509_check_private_key(cert.get(), key.get()) != 1) {
      error = "certificate and key do not load or do not match";
      return false;
   }
   X509StackPtr chain(sk_X509_new_null());
   if (chainPem != nullptr) {
      BioPtr chainBio = readPemFile(chainPem);
      if (!chainBio) {
         return false;
      }
      while (X509 *extra = PEM_read_bio_X509(chainBio.get(), nullptr, nullptr, nullptr)) {
         sk_X509_push(chain.get(), extra);
      }
   }
   CdPtr cd(BRIX_CODE_DIRECTORY_new());
   if (!cd || ASN1_INTEGER_set(cd->version, CODESIGN_VERSION) != 1 ||
       ASN1_STRING_set(cd->identifier, identifier.data(), (int)identifier.size()) != 1 ||
       ASN1_OCTET_STRING_set(cd->digest, digest, 32) != 1) {
      error = "out of memory";
      return false;
   }
   unsigned char *der = nullptr;
   int derLen = i2d_BRIX_CODE_DIRECTORY(cd.get(), &der);
   if (derLen <= 0) {
      error = "cannot encode the code directory";
      return false;
   }
   BioPtr content(BIO_new_mem_buf(der, derLen));
   CmsPtr cms(CMS_sign(cert.get(), key.get(), chain.get(), content.get(), CMS_BINARY));
   OPENSSL_free(der);
   unsigned char *blob = nullptr;
   int blobLen = cms ? i2d_CMS_ContentInfo(cms.get(), &blob) : -1;
   ERR_clear_error();
   if (blobLen <= 0 || (uint32_t)blobLen > kMaxBlob) {
      error = "signing failed";
      return false;
   }
   out.assign(blob, blob + blobLen);
   OPENSSL_free(blob);
   return true;
}

void AppendTrailer(std::vector<uint8_t> &file, const std::vector<uint8_t> &blob)
{
   file.insert(file.end(), blob.begin(), blob.end());
   uint8_t info[CODESIGN_INFO_LEN];
   PutBigEndian32(info, CODESIGN_VERSION);
   PutBigEndian32(info + 4, (uint32_t)blob.size());
   file.insert(file.end(), info, info + sizeof info);
   const char *marker = CODESIGN_MARKER;
   file.insert(file.end(), marker, marker + CODESIGN_MARKER_LEN);
}

CodeSignStatus Evaluate(const CodeSignRequirement *requirement, const CodeSignInfo &info)
{
   if (requirement == nullptr) {
      return CODESIGN_OK;
   }
   Facts facts{info.identifier, info.leafName, info.trusted};
   return Evaluate(*requirement->root, facts);
}

}  // namespace codesign

extern "C" {

int CodeSign_CheckPathForm(const char *path)
{
   if (path == nullptr || !Unicode_IsBufferValid(path, -1, STRING_ENCODING_UTF8)) {
      return 1;
   }
   return strlen(path) < PATH_MAX ? 0 : 2;
}

const char *CodeSign_StatusText(CodeSignStatus status)
{
   switch (status) {
   case CODESIGN_OK:
      return "valid";
   case CODESIGN_UNSIGNED:
      return "code object is not signed at all";
   case CODESIGN_MALFORMED:
      return "signature is malformed";
   case CODESIGN_BAD_SIGNATURE:
      return "signature does not verify";
   case CODESIGN_ALTERED:
      return "contents were altered after signing";
   case CODESIGN_IDENTIFIER:
      return "identifier does not satisfy the requirement";
   case CODESIGN_UNTRUSTED:
      return "signer's chain does not reach a trusted anchor";
   case CODESIGN_LEAF_NAME:
      return "signer's common name does not satisfy the requirement";
   case CODESIGN_REQUIREMENT:
      return "requirement not satisfied";
   case CODESIGN_NOT_ROOT:
      return "a bundle entry is not owned by root";
   case CODESIGN_IO:
      return "cannot read the code";
   }
   return "unknown status";
}

CodeSignStatus CodeSignFindTrailer(const uint8_t *tail, size_t tailSize, uint64_t fileSize,
                                   uint64_t *sigOffset, uint32_t *sigSize)
{
   const size_t fixed = CODESIGN_INFO_LEN + CODESIGN_MARKER_LEN;
   if (tailSize < CODESIGN_MARKER_LEN || tailSize > fileSize ||
       memcmp(tail + tailSize - CODESIGN_MARKER_LEN, CODESIGN_MARKER, CODESIGN_MARKER_LEN) != 0) {
      return CODESIGN_UNSIGNED;
   }
   if (tailSize < fixed) {
      return CODESIGN_MALFORMED;
   }
   const uint8_t *info = tail + tailSize - fixed;
   uint32_t version = codesign::BigEndian32(info);
   uint32_t size = codesign::BigEndian32(info + 4);
   if (version != CODESIGN_VERSION || size == 0 || size > codesign::kMaxBlob ||
       size > fileSize - fixed) {
      return CODESIGN_MALFORMED;
   }
   *sigSize = size;
   *sigOffset = fileSize - fixed - size;
   return CODESIGN_OK;
}

CodeSignStatus CodeSignDecodeBlob(const uint8_t *blob, size_t size, CodeSignInfo *info)
{
   codesign::InitCrypto();
   codesign::CmsPtr cms = codesign::ParseCms(blob, size);
   if (!cms) {
      return CODESIGN_MALFORMED;
   }
   ASN1_OCTET_STRING **content = CMS_get0_content(cms.get());
   if (content == nullptr || *content == nullptr) {
      return CODESIGN_MALFORMED;
   }
   return codesign::DecodeContent(ASN1_STRING_get0_data(*content),
                                  (size_t)ASN1_STRING_length(*content), info);
}

}  // extern "C"
