/*
 * Signing helpers for the tests: the test authority's certificates and a signer per role.
 */
#pragma once

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <string>

#include "codeSign.h"
#include "testSupport.h"

namespace cstest {

inline const std::string kPki = PKI_DIR;

/* The maker's leaf, a leaf of the same CA without the maker's name, one of another CA. */
enum class Signer { kMaker, kForeign, kUntrusted };

inline bool Sign(const std::string &path, const std::string &identifier,
                 Signer signer = Signer::kMaker)
{
   const char *names[] = {"leaf", "foreign", "untrusted"};
   std::string base = kPki + "/" + names[(int)signer];
   char error[256];
   bool ok = CodeSign_Sign(path.c_str(), identifier.c_str(), (base + ".pem").c_str(),
                           (base + ".key").c_str(), nullptr, error, sizeof error);
   if (!ok) {
      fprintf(stderr, "sign %s: %s\n", path.c_str(), error);
   }
   return ok;
}

inline void WriteFile(const std::string &path, const std::string &text, mode_t mode = 0644)
{
   std::filesystem::create_directories(std::filesystem::path(path).parent_path());
   std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
   chmod(path.c_str(), mode);
}

using testsupport::ReadFile;

/* Rewrites the file at path through edit, keeping its mode. */
inline void Edit(const std::string &path, const std::function<void(std::string &)> &edit)
{
   std::string bytes = ReadFile(path);
   edit(bytes);
   testsupport::WriteFile(path, bytes);
}

/* A bundle folder with an Info.plist naming identifier, an executable and a link. */
inline void MakeBundle(const std::string &dir, const std::string &identifier)
{
   WriteFile(dir + "/Contents/Info.plist",
             "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>"
             "<key>CFBundleIdentifier</key><string>" +
                 identifier + "</string></dict></plist>\n");
   WriteFile(dir + "/Contents/MacOS/quillmod", "#!/bin/sh\nexit 0\n", 0755);
   std::filesystem::create_symlink("MacOS/quillmod", dir + "/Contents/current");
}

/* The status of checking path against requirement text (NULL: none). */
inline CodeSignStatus Check(const std::string &path, const char *requirement = nullptr,
                            bool requireRoot = false, CodeSignInfo *info = nullptr)
{
   CodeSignCode *code = CodeSign_OpenCode(path.c_str());
   if (code == nullptr) {
      return CODESIGN_IO;
   }
   CodeSignRequirement *req = requirement ? CodeSign_ParseRequirement(requirement) : nullptr;
   CodeSignStatus status = CodeSign_CheckValidity(code, req, requireRoot, nullptr, info);
   CodeSign_FreeRequirement(req);
   CodeSign_CloseCode(code);
   return status;
}

}  // namespace cstest
