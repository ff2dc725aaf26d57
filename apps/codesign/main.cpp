/*
 * brix-codesign: signs, verifies and displays code signatures.
 *
 *    brix-codesign sign --identifier ID --cert CERT.pem --key KEY.pem [--chain PEM] PATH
 *    brix-codesign verify [--requirement TEXT] [--anchors PEM] PATH
 *    brix-codesign display [--anchors PEM] PATH
 *
 * Exit status: 0 success, 1 a failed check or operation, 2 bad usage.
 */
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <string>
#include <vector>

#include "codeSign.h"

namespace {

const char kUsage[] =
    "usage: brix-codesign sign --identifier ID --cert CERT.pem --key KEY.pem [--chain PEM] PATH\n"
    "       brix-codesign verify [--requirement TEXT] [--anchors PEM] PATH\n"
    "       brix-codesign display [--anchors PEM] PATH\n";

int Usage(const char *why)
{
   if (why != nullptr) {
      fprintf(stderr, "brix-codesign: %s\n", why);
   }
   fputs(kUsage, stderr);
   return 2;
}

struct Options {
   const char *identifier = nullptr, *cert = nullptr, *key = nullptr, *chain = nullptr;
   const char *requirement = nullptr, *anchors = nullptr, *path = nullptr;
};

bool ReadText(const char *path, std::string &out)
{
   FILE *f = fopen(path, "r");
   if (f == nullptr) {
      return false;
   }
   char buf[4096];
   size_t n;
   while ((n = fread(buf, 1, sizeof buf, f)) > 0) {
      out.append(buf, n);
   }
   bool ok = !ferror(f);
   fclose(f);
   return ok;
}

/* Opens and checks path; prints the reason on failure. */
int Check(const Options &opt, bool show)
{
   std::string anchors;
   if (opt.anchors != nullptr && !ReadText(opt.anchors, anchors)) {
      fprintf(stderr, "brix-codesign: %s: %s\n", opt.anchors, strerror(errno));
      return 1;
   }
   // Without a requirement of its own a signature must at least reach a trusted anchor.
   const char *text = opt.requirement != nullptr ? opt.requirement : "anchor trusted";
   CodeSignRequirement *req = nullptr;
   if (!show) {
      req = CodeSign_ParseRequirement(text);
      if (req == nullptr) {
         fprintf(stderr, "brix-codesign: invalid requirement: %s\n", text);
         return 1;
      }
   }
   CodeSignCode *code = CodeSign_OpenCode(opt.path);
   if (code == nullptr) {
      fprintf(stderr, "brix-codesign: %s: %s\n", opt.path,
              errno == ENOTSUP ? "neither a regular file nor a bundle folder" : strerror(errno));
      CodeSign_FreeRequirement(req);
      return 1;
   }
   CodeSignInfo info;
   CodeSignStatus status =
       CodeSign_CheckValidity(code, req, false, opt.anchors ? anchors.c_str() : nullptr, &info);
   bool bundle = CodeSign_IsBundle(code);
   CodeSign_CloseCode(code);
   CodeSign_FreeRequirement(req);
   bool signedOk = status == CODESIGN_OK || status == CODESIGN_IDENTIFIER ||
                   status == CODESIGN_UNTRUSTED || status == CODESIGN_LEAF_NAME ||
                   status == CODESIGN_REQUIREMENT;
   if (show && signedOk) {
      printf("Executable=%s\n", opt.path);
      printf("Identifier=%s\n", info.identifier);
      printf("Format=%s\n", bundle ? "bundle" : "file");
      printf("CDHash=");
      for (uint8_t byte : info.digest) {
         printf("%02x", byte);
      }
      printf("\n");
      const char *line = info.chain;
      while (*line != '\0') {
         const char *end = strchr(line, '\n');
         int len = end ? (int)(end - line) : (int)strlen(line);
         printf("Authority=%.*s\n", len, line);
         line += len + (end ? 1 : 0);
      }
      printf("Trusted=%s\n", info.trusted ? "yes" : "no");
      if (info.signingTime != 0) {
         char when[64];
         struct tm tm;
         strftime(when, sizeof when, "%Y-%m-%d %H:%M:%S UTC", gmtime_r(&info.signingTime, &tm));
         printf("Signed Time=%s\n", when);
      }
   }
   if (status == CODESIGN_IO) {
      fprintf(stderr, "%s: %s: %s\n", opt.path, CodeSign_StatusText(status), strerror(errno));
      return 1;
   }
   if (status != CODESIGN_OK && !(show && signedOk)) {
      fprintf(stderr, "%s: %s\n", opt.path, CodeSign_StatusText(status));
      return 1;
   }
   if (!show) {
      fprintf(stderr, "%s: valid on disk\n%s: satisfies its requirement\n", opt.path, opt.path);
   }
   return 0;
}

}  // namespace

int main(int argc, char **argv)
{
   if (argc < 2) {
      return Usage(nullptr);
   }
   std::string command = argv[1];
   if (command == "--help" || command == "-h") {
      fputs(kUsage, stdout);
      return 0;
   }
   Options opt;
   for (int i = 2; i < argc; i++) {
      std::string arg = argv[i];
      const char **slot = arg == "--identifier"    ? &opt.identifier
                          : arg == "--cert"        ? &opt.cert
                          : arg == "--key"         ? &opt.key
                          : arg == "--chain"       ? &opt.chain
                          : arg == "--requirement" ? &opt.requirement
                          : arg == "--anchors"     ? &opt.anchors
                                                   : nullptr;
      if (slot != nullptr) {
         if (i + 1 >= argc) {
            return Usage(("missing value for " + arg).c_str());
         }
         *slot = argv[++i];
      } else if (arg.size() > 1 && arg[0] == '-') {
         return Usage(("unknown option " + arg).c_str());
      } else if (opt.path == nullptr) {
         opt.path = argv[i];
      } else {
         return Usage("only one path");
      }
   }
   if (opt.path == nullptr) {
      return Usage("a path is needed");
   }
   if (command == "sign") {
      if (opt.identifier == nullptr || opt.cert == nullptr || opt.key == nullptr) {
         return Usage("sign needs --identifier, --cert and --key");
      }
      char error[512];
      if (!CodeSign_Sign(opt.path, opt.identifier, opt.cert, opt.key, opt.chain, error,
                         sizeof error)) {
         fprintf(stderr, "brix-codesign: %s: %s\n", opt.path, error);
         return 1;
      }
      fprintf(stderr, "%s: signed as %s\n", opt.path, opt.identifier);
      return 0;
   }
   if (command == "verify") {
      return Check(opt, false);
   }
   if (command == "display") {
      return Check(opt, true);
   }
   return Usage(("unknown command " + command).c_str());
}
