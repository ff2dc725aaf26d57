/*
 * Product location: process tags, location keys and the product root derived from the running
 * executable's real path.
 */
#include "location.h"

#include <fcntl.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>

#include "hostinfo.h"
#include "internal/publishOnce.h"
#include "internal/uniqueFd.h"
#include "locationInt.h"
#include "log.h"
#include "str.h"

#ifndef BRIX_ROOT_PREFIX
#define BRIX_ROOT_PREFIX ""
#endif

namespace {

struct ProcessTag {
   const char *tag;
   uint32_t upCount;
};

struct LocationKey {
   const char *key;
   const char *relativePath;
};

struct LocationConfig {
   const ProcessTag *processTags;
   const char *rootEnvVar;    // environment variable that may hold the root, or null
   const char *lastUsedFile;  // file that may hold the root, or null
   const LocationKey *keys;
};

// The up-count is the executable's depth below the product root.
const ProcessTag kProcessTags[] = {
    {"viewer", 3},         {"usbgate", 3},     {"ui", 3},
    {"brix-daemon", 4},    {"brix-opener", 4}, {"usbgate-opener", 4},
    {"usbgate-daemon", 4}, {nullptr, 0},
};

const LocationKey kKeys[] = {
    {"rootDir", ""},
    {"resourcesDir", "/Contents/Resources"},
    {"sslDir", "/Contents/Frameworks"},
    {"msgDir", "/Contents/Library/messages"},
    {"viewerFile", "/Contents/Library/tesmar-viewer"},
    {"usbGateFile", "/Contents/Library/tesmar-usbgate"},
    {"keyMapDir", "/Contents/Library/keymaps"},
    {"reporterFile", "/Contents/Library/Larkview Problem Reporter.tool"},
    {"serviceOpenerFile", "/Contents/Library/services/Open BRIX Services"},
    {"serviceDaemonFile", "/Contents/Library/services/BRIX Services"},
    {"serviceScriptFile", "/Contents/Library/services/services.sh"},
    {"usbGateOpenerFile", "/Contents/Library/services/Open Tesmar USB Gate Service"},
    {"usbGateDaemonFile", "/Contents/Library/services/Tesmar USB Gate Service"},
    {"usbGateScriptFile", "/Contents/Library/services/usbGateService.sh"},
    {"usbGateKext", "/Contents/Library/kexts/quillmod.kext"},
    {"initFile", "/Contents/Library/Initialize BRIX.tool"},
    {"auxFile", "/Contents/Library/tesmar-aux"},
    {"idFile", "/Contents/Library/tesmar-id"},
    {"productInfo", "/Contents/Library/productInfo"},
    {nullptr, nullptr},
};

const LocationConfig kConfig = {kProcessTags, nullptr, nullptr, kKeys};

const char kAppSupportDir[] = "/Library/Application Support/Tesmar/Larkview";

std::atomic<uint32_t> gUpCount{0};
std::atomic<LocationInstallHook> gInstallHook{nullptr};
std::atomic<const char *> gRootPrefix{BRIX_ROOT_PREFIX};
std::atomic<char *> gAppSupportDir{nullptr};

const LocationKey *LocationFindKey(const char *key)
{
   for (const LocationKey *entry = kConfig.keys; entry->key != nullptr; entry++) {
      if (strcmp(entry->key, key) == 0) {
         return entry;
      }
   }
   return nullptr;
}

// The root recorded by the last run of the product; null when it cannot be read.
char *LocationLastUsed(const char *path)
{
   char text[1024];
   ssize_t length = -1;
   tesmar::UniqueFd fd(open(path, O_RDONLY | O_CLOEXEC));
   if (fd) {
      length = read(fd.get(), text, sizeof text);
   }
   if (length < 0 || length > (ssize_t)sizeof text - 1) {
      Log("%s: Failed opening lastLocationUsed.\n", "LocationLastUsed");
      return nullptr;
   }
   text[length] = '\0';
   char *copy = strdup(text);
   if (copy == nullptr) {
      Log("%s: Failed to copy last used path: %s\n", "LocationLastUsed", text);
   }
   return copy;
}

// The product root, newly allocated, or null after a warning.
char *LocationGetRoot(void)
{
   static const char kFn[] = "LocationGetRoot";
   uint32_t upCount = gUpCount.load();

   if (upCount == 0) {
      if (geteuid() != getuid()) {
         Warning("%s: Cannot get location root of a setuid process.\n", kFn);
         return nullptr;
      }
      const char *fromEnv = kConfig.rootEnvVar != nullptr ? getenv(kConfig.rootEnvVar) : nullptr;
      if (fromEnv != nullptr) {
         char *root = strdup(fromEnv);
         if (root == nullptr) {
            Warning("%s: Unable to copy the environment variable.\n", kFn);
         }
         return root;
      }
      if (kConfig.lastUsedFile != nullptr) {
         char *root = LocationLastUsed(kConfig.lastUsedFile);
         if (root == nullptr) {
            Warning(
                "%s: Unable to determine the product location. It is likely that the "
                "product has never been run on this machine.\n",
                kFn);
         }
         return root;
      }
   }

   char *exePath = Hostinfo_GetModulePath(0);
   if (exePath == nullptr) {
      Warning("%s: Unable to retrieve path to executable.", kFn);
      return nullptr;
   }
   char *root = realpath(exePath, nullptr);
   if (root == nullptr) {
      Warning("%s: Unable to get the realpath for %s", kFn, exePath);
      free(exePath);
      return nullptr;
   }
   free(exePath);

   for (uint32_t i = 0; i < upCount; i++) {
      char *slash = strrchr(root, '/');
      if (slash == nullptr) {
         Warning("%s: sUpCount (%u) is too large for %s\n", kFn, upCount, root);
         free(root);
         return nullptr;
      }
      *slash = '\0';
   }
   return root;
}

}  // namespace

void LocationSetRootPrefix(const char *prefix)
{
   gRootPrefix.store(prefix);
}

extern "C" {

void Location_Init(const char *processTag)
{
   for (const ProcessTag *entry = kConfig.processTags; entry->tag != nullptr; entry++) {
      if (strcmp(entry->tag, processTag) == 0) {
         uint32_t current = gUpCount.load();
         if (entry->upCount == 0 || current != 0) {
            // A second initialisation is reported, yet still takes effect.
            Warning("%s: Invalid initialization: sUpCount %u, processTag %s.\n", "Location_Init",
                    current, processTag);
         }
         gUpCount.store(entry->upCount);
         return;
      }
   }
   Warning("%s: Invalid initialization: sUpCount %u, processTag %s.\n", "Location_Init",
           gUpCount.load(), processTag);
   gUpCount.store(0);
}

char *Location_Get(const char *key)
{
   const LocationKey *entry = LocationFindKey(key);
   if (entry == nullptr || entry->relativePath == nullptr) {
      return nullptr;
   }
   char *root = LocationGetRoot();
   if (root == nullptr) {
      return nullptr;
   }
   char *path = Str_Asprintf(nullptr, "%s%s", root, entry->relativePath);
   free(root);
   return path;
}

const char *Location_GetRelative(const char *key)
{
   const LocationKey *entry = LocationFindKey(key);
   return entry != nullptr ? entry->relativePath : nullptr;
}

LocationResolver Location_GetResolver(void)
{
   return Location_Get;
}

const char *Location_GetAppSupportDir(void)
{
   return tesmar::GetOrPublish(
       gAppSupportDir,
       [] { return Str_SafeAsprintf(nullptr, "%s%s", gRootPrefix.load(), kAppSupportDir); }, free);
}

void Location_SetInstallHook(LocationInstallHook hook)
{
   gInstallHook.store(hook);
}

LocationInstallHook Location_GetInstallHook(void)
{
   return gInstallHook.load();
}

}  // extern "C"
