/*
 * Code objects (signed files and bundle folders), the bundle's CodeResources, and signing.
 * Trees are walked through descriptors: no link is followed, and a link is recorded as its
 * target.
 */
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <map>
#include <new>
#include <string>
#include <vector>

#include <openssl/evp.h>

#include "codeSignFile.h"
#include "propertyList.h"
#include "uniqueFd.h"

struct CodeSignCode {
   tesmar::UniqueFd fd;
   bool bundle = false;
};

namespace codesign {
namespace {

using tesmar::UniqueFd;

constexpr int kMaxDepth = 32;
constexpr size_t kMaxInfoPlist = 1u << 20;

struct FileEntry {
   std::string hash;  // 32 bytes
   uint64_t mode = 0;
   bool operator==(const FileEntry &) const = default;
};

struct Resources {
   std::string identifier;
   std::map<std::string, FileEntry> files;
   std::map<std::string, std::string> links;
};

UniqueFd OpenAt(int dirFd, const char *name, int flags)
{
   return UniqueFd(openat(dirFd, name, flags | O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK));
}

bool OwnedByRoot(const struct stat &st)
{
   return st.st_uid == 0 && st.st_gid == 0;
}

CodeSignStatus Walk(int dirFd, const std::string &prefix, int depth, bool requireRoot,
                    Resources &out)
{
   if (depth > kMaxDepth) {
      return CODESIGN_ALTERED;
   }
   UniqueFd listFd = OpenAt(dirFd, ".", O_DIRECTORY);
   DIR *dir = listFd ? fdopendir(listFd.get()) : nullptr;
   if (dir == nullptr) {
      return CODESIGN_IO;
   }
   listFd.release();
   std::vector<std::string> names;
   errno = 0;
   while (struct dirent *entry = readdir(dir)) {
      if (strcmp(entry->d_name, ".") != 0 && strcmp(entry->d_name, "..") != 0) {
         names.emplace_back(entry->d_name);
      }
   }
   int err = errno;
   closedir(dir);
   if (err != 0) {
      errno = err;
      return CODESIGN_IO;
   }
   for (const std::string &name : names) {
      std::string rel = prefix + name;
      struct stat st;
      if (fstatat(dirFd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
         return CODESIGN_IO;
      }
      if (requireRoot && !OwnedByRoot(st)) {
         return CODESIGN_NOT_ROOT;
      }
      if (S_ISDIR(st.st_mode)) {
         if (rel == "Contents/_CodeSignature") {
            continue;
         }
         UniqueFd sub = OpenAt(dirFd, name.c_str(), O_DIRECTORY);
         if (!sub) {
            return CODESIGN_IO;
         }
         CodeSignStatus status = Walk(sub.get(), rel + "/", depth + 1, requireRoot, out);
         if (status != CODESIGN_OK) {
            return status;
         }
      } else if (S_ISREG(st.st_mode)) {
         UniqueFd file = OpenAt(dirFd, name.c_str(), 0);
         struct stat opened;
         uint8_t digest[32];
         if (!file || fstat(file.get(), &opened) != 0) {
            return CODESIGN_IO;
         }
         if (!S_ISREG(opened.st_mode) || (requireRoot && !OwnedByRoot(opened))) {
            return requireRoot && !OwnedByRoot(opened) ? CODESIGN_NOT_ROOT : CODESIGN_ALTERED;
         }
         if (!DigestFd(file.get(), (uint64_t)opened.st_size, digest)) {
            return CODESIGN_IO;
         }
         out.files[rel] =
             FileEntry{std::string((const char *)digest, 32), (uint64_t)(opened.st_mode & 07777)};
      } else if (S_ISLNK(st.st_mode)) {
         char target[PATH_MAX];
         ssize_t n = readlinkat(dirFd, name.c_str(), target, sizeof target);
         if (n < 0 || (size_t)n >= sizeof target) {
            return CODESIGN_IO;
         }
         out.links[rel] = std::string(target, (size_t)n);
      } else {
         return CODESIGN_ALTERED;  // devices, FIFOs and sockets are not code
      }
   }
   return CODESIGN_OK;
}

std::string ToXml(const Resources &res)
{
   using Kind = PlistValue::Kind;
   auto string = [](std::string text) { return PlistValue{.kind = Kind::kString, .bytes = text}; };
   PlistValue files{.kind = Kind::kDict}, links{.kind = Kind::kDict};
   for (const auto &[path, entry] : res.files) {
      files.keys.push_back(path);
      files.items.push_back({.kind = Kind::kDict,
                             .keys = {"hash", "mode"},
                             .items = {{.kind = Kind::kData, .bytes = entry.hash},
                                       {.kind = Kind::kInteger, .integer = entry.mode}}});
   }
   for (const auto &[path, target] : res.links) {
      links.keys.push_back(path);
      links.items.push_back(string(target));
   }
   return PlistToXml({.kind = Kind::kDict,
                      .keys = {"files", "identifier", "links"},
                      .items = {files, string(res.identifier), links}});
}

bool ParseResources(const uint8_t *data, size_t size, Resources &res)
{
   using Kind = PlistValue::Kind;
   PlistValue root;
   const std::string *identifier = nullptr;
   if (!PlistParse(data, size, root) || (identifier = root.GetString("identifier")) == nullptr) {
      return false;
   }
   res.identifier = *identifier;
   const PlistValue *files = root.Get("files"), *links = root.Get("links");
   if (files == nullptr || files->kind != Kind::kDict || links == nullptr ||
       links->kind != Kind::kDict) {
      return false;
   }
   for (size_t i = 0; i < files->keys.size(); i++) {
      const PlistValue &item = files->items[i];
      const PlistValue *hash = item.Get("hash"), *mode = item.Get("mode");
      if (hash == nullptr || hash->kind != Kind::kData || hash->bytes.size() != 32 ||
          mode == nullptr || mode->kind != Kind::kInteger) {
         return false;
      }
      res.files[files->keys[i]] = FileEntry{hash->bytes, mode->integer};
   }
   for (size_t i = 0; i < links->keys.size(); i++) {
      if (links->items[i].kind != Kind::kString) {
         return false;
      }
      res.links[links->keys[i]] = links->items[i].bytes;
   }
   return true;
}

UniqueFd OpenResources(int bundleFd, bool create, bool requireRoot, CodeSignStatus *status)
{
   UniqueFd contents = OpenAt(bundleFd, "Contents", O_DIRECTORY);
   if (contents && create && mkdirat(contents.get(), "_CodeSignature", 0755) != 0 &&
       errno != EEXIST) {
      return UniqueFd();
   }
   UniqueFd sigDir = contents ? OpenAt(contents.get(), "_CodeSignature", O_DIRECTORY) : UniqueFd();
   struct stat st;
   if (sigDir && requireRoot && (fstat(sigDir.get(), &st) != 0 || !OwnedByRoot(st))) {
      *status = CODESIGN_NOT_ROOT;
      return UniqueFd();
   }
   if (create) {
      return sigDir;
   }
   UniqueFd file = sigDir ? OpenAt(sigDir.get(), "CodeResources", 0) : UniqueFd();
   if (!file) {
      *status = errno == ENOENT ? CODESIGN_UNSIGNED : CODESIGN_IO;
   }
   return file;
}

/* Writes data to name in dirFd through a temporary file renamed over it. */
bool WriteAtomic(int dirFd, const std::string &name, const std::vector<uint8_t> &data, mode_t mode,
                 std::string &error)
{
   std::string temp = "." + name + ".sign-" + std::to_string(getpid());
   UniqueFd fd(
       openat(dirFd, temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
   if (!fd) {
      error = "cannot create " + temp + ": " + strerror(errno);
      return false;
   }
   size_t done = 0;
   while (done < data.size()) {
      ssize_t n = write(fd.get(), data.data() + done, data.size() - done);
      if (n < 0 && errno == EINTR) {
         continue;
      }
      if (n <= 0) {
         break;
      }
      done += (size_t)n;
   }
   if (done != data.size() || fchmod(fd.get(), mode) != 0 || fsync(fd.get()) != 0 ||
       renameat(dirFd, temp.c_str(), dirFd, name.c_str()) != 0) {
      error = "cannot write " + name + ": " + strerror(errno);
      unlinkat(dirFd, temp.c_str(), 0);
      return false;
   }
   return true;
}

bool ReadWhole(int fd, std::vector<uint8_t> &out, size_t limit)
{
   struct stat st;
   if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || (uint64_t)st.st_size > limit) {
      return false;
   }
   out.resize((size_t)st.st_size);
   size_t done = 0;
   while (done < out.size()) {
      ssize_t n = pread(fd, out.data() + done, out.size() - done, (off_t)done);
      if (n < 0 && errno == EINTR) {
         continue;
      }
      if (n <= 0) {
         return false;
      }
      done += (size_t)n;
   }
   return true;
}

bool SignFile(const std::string &path, const std::string &identifier, const char *certPem,
              const char *keyPem, const char *chainPem, std::string &error)
{
   size_t slash = path.rfind('/');
   std::string dirName = slash == std::string::npos ? "."
                         : slash == 0               ? "/"
                                                    : path.substr(0, slash);
   std::string base = slash == std::string::npos ? path : path.substr(slash + 1);
   UniqueFd dir(open(dirName.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
   UniqueFd fd = dir ? OpenAt(dir.get(), base.c_str(), 0) : UniqueFd();
   std::vector<uint8_t> bytes;
   struct stat st;
   if (!fd || fstat(fd.get(), &st) != 0 || !ReadWhole(fd.get(), bytes, SIZE_MAX / 2)) {
      error = "cannot read " + path;
      return false;
   }
   // An earlier signature is replaced: the original bytes end where its blob begins.
   uint64_t sigOffset;
   uint32_t sigSize;
   size_t tail = std::min(bytes.size(), CODESIGN_INFO_LEN + CODESIGN_MARKER_LEN);
   if (CodeSignFindTrailer(bytes.data() + bytes.size() - tail, tail, bytes.size(), &sigOffset,
                           &sigSize) == CODESIGN_OK) {
      bytes.resize((size_t)sigOffset);
   }
   uint8_t digest[32];
   std::vector<uint8_t> blob;
   if (EVP_Digest(bytes.data(), bytes.size(), digest, nullptr, EVP_sha256(), nullptr) != 1 ||
       !MakeBlob(identifier, digest, certPem, keyPem, chainPem, blob, error)) {
      return false;
   }
   AppendTrailer(bytes, blob);
   return WriteAtomic(dir.get(), base, bytes, st.st_mode & 07777, error);
}

bool SignBundle(int bundleFd, const std::string &identifier, const char *certPem,
                const char *keyPem, const char *chainPem, std::string &error)
{
   Resources res;
   res.identifier = identifier;
   if (Walk(bundleFd, "", 0, false, res) != CODESIGN_OK) {
      error = "cannot read every entry of the bundle";
      return false;
   }
   std::string xml = ToXml(res);
   std::vector<uint8_t> bytes(xml.begin(), xml.end());
   uint8_t digest[32];
   std::vector<uint8_t> blob;
   CodeSignStatus ignored;
   UniqueFd sigDir = OpenResources(bundleFd, true, false, &ignored);
   if (!sigDir) {
      error = "cannot create Contents/_CodeSignature";
      return false;
   }
   if (EVP_Digest(bytes.data(), bytes.size(), digest, nullptr, EVP_sha256(), nullptr) != 1 ||
       !MakeBlob(identifier, digest, certPem, keyPem, chainPem, blob, error)) {
      return false;
   }
   AppendTrailer(bytes, blob);
   return WriteAtomic(sigDir.get(), "CodeResources", bytes, 0644, error);
}

}  // namespace
}  // namespace codesign

using namespace codesign;

extern "C" {

CodeSignCode *CodeSign_OpenCodeFd(int fd)
{
   UniqueFd own(fcntl(fd, F_DUPFD_CLOEXEC, 3));
   struct stat st;
   if (!own || fstat(own.get(), &st) != 0) {
      return nullptr;
   }
   bool bundle = false;
   if (S_ISDIR(st.st_mode)) {
      struct stat contents;
      if (fstatat(own.get(), "Contents", &contents, AT_SYMLINK_NOFOLLOW) != 0 ||
          !S_ISDIR(contents.st_mode)) {
         errno = ENOTSUP;
         return nullptr;
      }
      bundle = true;
   } else if (!S_ISREG(st.st_mode)) {
      errno = ENOTSUP;
      return nullptr;
   }
   CodeSignCode *code = new (std::nothrow) CodeSignCode;
   if (code == nullptr) {
      errno = ENOMEM;
      return nullptr;
   }
   code->fd = std::move(own);
   code->bundle = bundle;
   return code;
}

CodeSignCode *CodeSign_OpenCode(const char *path)
{
   UniqueFd fd(open(path, O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK));
   return fd ? CodeSign_OpenCodeFd(fd.get()) : nullptr;
}

void CodeSign_CloseCode(CodeSignCode *code)
{
   int err = errno;
   delete code;
   errno = err;
}

bool CodeSign_IsBundle(const CodeSignCode *code)
{
   return code->bundle;
}

CodeSignStatus CodeSign_CheckValidity(CodeSignCode *code, const CodeSignRequirement *requirement,
                                      bool requireRoot, const char *anchorsPem,
                                      CodeSignInfo *infoOut)
{
   codesign::InitCrypto();
   try {
      CodeSignInfo local;
      CodeSignInfo &info = infoOut != nullptr ? *infoOut : local;
      memset(&info, 0, sizeof info);
      X509_STORE *owned = nullptr;
      X509_STORE *anchors = AnchorStore(anchorsPem, &owned);
      std::unique_ptr<X509_STORE, void (*)(X509_STORE *)> keep(owned, X509_STORE_free);
      struct stat st;
      if (fstat(code->fd.get(), &st) != 0) {
         return CODESIGN_IO;
      }
      if (requireRoot && !OwnedByRoot(st)) {
         return CODESIGN_NOT_ROOT;
      }
      CodeSignStatus status = CODESIGN_OK;
      if (!code->bundle) {
         status = CheckFile(code->fd.get(), anchors, &info, false, nullptr);
         return status == CODESIGN_OK ? Evaluate(requirement, info) : status;
      }
      UniqueFd resFd = OpenResources(code->fd.get(), false, requireRoot, &status);
      if (!resFd) {
         return status;
      }
      if (requireRoot && (fstat(resFd.get(), &st) != 0 || !OwnedByRoot(st))) {
         return CODESIGN_NOT_ROOT;
      }
      std::vector<uint8_t> payload;
      status = CheckFile(resFd.get(), anchors, &info, true, &payload);
      if (status != CODESIGN_OK) {
         return status;
      }
      Resources signedRes, actual;
      if (!ParseResources(payload.data(), payload.size(), signedRes)) {
         return CODESIGN_MALFORMED;
      }
      if (signedRes.identifier != info.identifier) {
         return CODESIGN_ALTERED;
      }
      status = Walk(code->fd.get(), "", 0, requireRoot, actual);
      if (status != CODESIGN_OK) {
         return status;
      }
      if (actual.files != signedRes.files || actual.links != signedRes.links) {
         return CODESIGN_ALTERED;
      }
      return Evaluate(requirement, info);
   } catch (const std::bad_alloc &) {
      errno = ENOMEM;
      return CODESIGN_IO;
   }
}

bool CodeSign_Sign(const char *path, const char *identifier, const char *certPem,
                   const char *keyPem, const char *chainPem, char *error, size_t errorSize)
{
   codesign::InitCrypto();
   std::string why;
   bool ok = false;
   try {
      UniqueFd fd(open(path, O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK));
      struct stat st;
      if (!fd || fstat(fd.get(), &st) != 0) {
         why = std::string("cannot open ") + path + ": " + strerror(errno);
      } else if (identifier == nullptr || identifier[0] == '\0') {
         why = "an identifier is needed";
      } else if (S_ISDIR(st.st_mode)) {
         ok = SignBundle(fd.get(), identifier, certPem, keyPem, chainPem, why);
      } else if (S_ISREG(st.st_mode)) {
         ok = SignFile(path, identifier, certPem, keyPem, chainPem, why);
      } else {
         why = "neither a regular file nor a bundle folder";
      }
   } catch (const std::bad_alloc &) {
      why = "out of memory";
   }
   if (!ok && error != nullptr && errorSize > 0) {
      snprintf(error, errorSize, "%s", why.c_str());
   }
   return ok;
}

bool CodeSignParseResources(const uint8_t *data, size_t size, char *identifier,
                            size_t identifierSize, size_t *fileCount)
{
   try {
      Resources res;
      if (!ParseResources(data, size, res)) {
         return false;
      }
      snprintf(identifier, identifierSize, "%s", res.identifier.c_str());
      *fileCount = res.files.size() + res.links.size();
      return true;
   } catch (const std::bad_alloc &) {
      return false;
   }
}

char *CodeSign_BundleIdentifier(int bundleFd)
{
   try {
      UniqueFd contents = OpenAt(bundleFd, "Contents", O_DIRECTORY);
      UniqueFd info = contents ? OpenAt(contents.get(), "Info.plist", 0) : UniqueFd();
      std::vector<uint8_t> bytes;
      if (!info || !ReadWhole(info.get(), bytes, kMaxInfoPlist)) {
         return nullptr;
      }
      PlistValue root;
      const std::string *id = nullptr;
      if (!PlistParse(bytes.data(), bytes.size(), root) ||
          (id = root.GetString("CFBundleIdentifier")) == nullptr || id->empty()) {
         return nullptr;
      }
      return strdup(id->c_str());
   } catch (const std::bad_alloc &) {
      return nullptr;
   }
}

}  // extern "C"
