/*
 * Host queries: processor identification, operating-system version and description, load,
 * memory use, kernel slab sizes and physical memory.
 */
#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sys/sysinfo.h>
#include <sys/utsname.h>
#include <unistd.h>

#if defined(__x86_64__) || defined(__i386__)
#include <cpuid.h>
#endif

#include <charconv>
#include <mutex>
#include <string>

#include "hostinfo.h"
#include "hostinfoInt.h"
#include "log.h"
#include "str.h"
#include "util.h"

namespace {

std::string_view NextLine(std::string_view *rest)
{
   size_t eol = rest->find('\n');
   std::string_view line = rest->substr(0, eol);
   *rest = eol == std::string_view::npos ? std::string_view() : rest->substr(eol + 1);
   return line;
}

/* Takes the decimal number that follows blanks at the start of text; false if there is none. */
bool TakeNumber(std::string_view *text, uint64_t *value)
{
   size_t start = text->find_first_not_of(" \t");
   if (start == std::string_view::npos) {
      return false;
   }
   const char *end = text->data() + text->size();
   auto [last, error] = std::from_chars(text->data() + start, end, *value);
   if (error != std::errc() || last == text->data() + start) {
      return false;
   }
   text->remove_prefix(static_cast<size_t>(last - text->data()));
   return true;
}

/*
 * Processor identification.
 */

#if defined(__x86_64__) || defined(__i386__)

/* Leaves beyond this many above a base are not read (some hypervisors report nonsense). */
constexpr unsigned int kMaxLeavesPerBase = 0x40;

void AppendLeaf(std::string *signature, unsigned int leaf)
{
   unsigned int eax, ebx, ecx, edx;
   __cpuid_count(leaf, 0, eax, ebx, ecx, edx);
   /* Drop what differs between the processors of one machine: APIC, core and node ids. */
   if (leaf == 1) {
      ebx &= 0x00FFFFFFu;
   } else if (leaf == 0xB || leaf == 0x1F) {
      edx = 0;
   } else if (leaf == 0x1A) {
      eax = 0; /* the core type of hybrid designs */
   } else if (leaf == 0x8000001Eu) {
      eax = 0;
      ebx &= ~0xFFu;
      ecx &= ~0xFFu;
   }
   char entry[48];
   Str_Sprintf(entry, sizeof entry, "%08X:%08X%08X%08X%08X-", leaf, eax, ebx, ecx, edx);
   signature->append(entry);
}

#endif

/*
 * Operating-system version and description, each worked out once.
 */

struct OSVersion {
   std::string release;
   int components[4] = {0, 0, 0, 0};
};

struct OSData {
   bool valid = false;
   std::string description;
   int wordSize = -1;
};

std::once_flag gOSVersionOnce;
OSVersion *gOSVersion;
std::once_flag gOSDataOnce;
OSData *gOSData;

void HostinfoOSVersionInit()
{
   gOSVersion = new OSVersion;
   struct utsname u;
   if (uname(&u) != 0) {
      Warning("%s: unable to get host OS version (uname): %s\n", "HostinfoOSVersionInit",
              strerror(errno));
      return;
   }
   gOSVersion->release = u.release;
   /* "6.1.0-18-amd64": dotted numbers up to the first other character. */
   std::string_view rest(gOSVersion->release);
   for (int &component : gOSVersion->components) {
      uint64_t value;
      auto [end, error] = std::from_chars(rest.data(), rest.data() + rest.size(), value);
      if (error != std::errc() || end == rest.data() || value > INT32_MAX) {
         break;
      }
      component = static_cast<int>(value);
      rest.remove_prefix(static_cast<size_t>(end - rest.data()));
      if (!rest.starts_with('.')) {
         break;
      }
      rest.remove_prefix(1);
   }
}

std::string OSReleaseField(const std::string &text, std::initializer_list<const char *> keys,
                           const char *fallback)
{
   std::string value;
   for (const char *key : keys) {
      if (HostinfoOSReleaseValue(text, key, &value) && !value.empty()) {
         return value;
      }
   }
   return fallback;
}

void HostinfoOSData()
{
   gOSData = new OSData;
   struct utsname u;
   if (uname(&u) != 0) {
      Warning("%s: uname failed %d\n", "HostinfoOSData", errno);
      return;
   }
   std::string release;
   if (!HostinfoReadFile("/etc/os-release", &release)) {
      HostinfoReadFile("/usr/lib/os-release", &release);
   }
   std::string name = OSReleaseField(release, {"NAME", "ID"}, "Linux");
   std::string version = OSReleaseField(release, {"VERSION_ID", "BUILD_ID"}, "unknown");
   std::string codename = OSReleaseField(release, {"VERSION_CODENAME", "BUILD_ID", "ID"}, "linux");

   char *description = Str_SafeAsprintf(nullptr, "%s %s (%s) %s %s", name.c_str(), version.c_str(),
                                        codename.c_str(), u.sysname, u.release);
   gOSData->description = description;
   free(description);
   gOSData->wordSize =
       strstr(u.machine, "64") != nullptr || strcmp(u.machine, "s390x") == 0 ? 64 : 32;
   gOSData->valid = true;
}

/* The value of "Key:   123 kB" in /proc/meminfo text, in bytes. */
bool MemInfoBytes(std::string_view text, std::string_view key, uint64_t *bytes)
{
   while (!text.empty()) {
      std::string_view line = NextLine(&text);
      if (line.size() > key.size() && line.starts_with(key) && line[key.size()] == ':') {
         uint64_t kib;
         std::string_view value = line.substr(key.size() + 1);
         if (!TakeNumber(&value, &kib) || kib > UINT64_MAX / 1024) {
            return false;
         }
         *bytes = kib * 1024;
         return true;
      }
   }
   return false;
}

/* A slab cache name is a single path component. */
bool ValidSlabName(const char *name)
{
   return name != nullptr && name[0] != '\0' && strchr(name, '/') == nullptr &&
          strcmp(name, ".") != 0 && strcmp(name, "..") != 0 && strlen(name) < 128;
}

}  // namespace

bool HostinfoOSReleaseValue(std::string_view text, std::string_view key, std::string *value)
{
   bool found = false;
   while (!text.empty()) {
      std::string_view line = NextLine(&text);
      size_t start = line.find_first_not_of(" \t");
      if (start == std::string_view::npos) {
         continue;
      }
      line.remove_prefix(start);
      if (line.size() <= key.size() || !line.starts_with(key) || line[key.size()] != '=') {
         continue;
      }
      std::string_view raw = line.substr(key.size() + 1);
      size_t last = raw.find_last_not_of(" \t\r");
      raw = last == std::string_view::npos ? std::string_view() : raw.substr(0, last + 1);

      /* Shell-style: quoted in "..." (with backslash escapes) or '...', or bare. */
      std::string parsed;
      char quote = !raw.empty() && (raw[0] == '"' || raw[0] == '\'') ? raw[0] : '\0';
      size_t i = quote != '\0' ? 1 : 0;
      for (; i < raw.size(); i++) {
         char c = raw[i];
         if (quote != '\0' && c == quote) {
            break;
         }
         if (c == '\\' && quote != '\'' && i + 1 < raw.size()) {
            c = raw[++i];
         }
         parsed.push_back(c);
      }
      *value = std::move(parsed);
      found = true; /* a later assignment overrides an earlier one */
   }
   return found;
}

extern "C" {

char *Hostinfo_GetCpuidSignature(void)
{
#if defined(__x86_64__) || defined(__i386__)
   std::string signature;
   static const unsigned int bases[] = {0, 0x80000000u};
   for (unsigned int base : bases) {
      unsigned int maxLeaf = __get_cpuid_max(base, nullptr);
      if (maxLeaf < base || (base == 0 && maxLeaf == 0)) {
         Log("HOSTINFO: No CPUID information available. Based = %08X.\n", base);
         continue;
      }
      unsigned int last = maxLeaf - base < kMaxLeavesPerBase ? maxLeaf : base + kMaxLeavesPerBase;
      for (unsigned int leaf = base; leaf <= last; leaf++) {
         AppendLeaf(&signature, leaf);
      }
   }
   if (!signature.empty()) {
      return Util_SafeStrdup(signature.c_str());
   }
#endif
   Log("HOSTINFO: No CPUID information available.\n");
   return nullptr;
}

const char *Hostinfo_OSVersionString(void)
{
   std::call_once(gOSVersionOnce, HostinfoOSVersionInit);
   return gOSVersion->release.c_str();
}

int Hostinfo_OSVersion(unsigned int component)
{
   std::call_once(gOSVersionOnce, HostinfoOSVersionInit);
   return component < 4 ? gOSVersion->components[component] : 0;
}

char *Hostinfo_GetOSName(void)
{
   std::call_once(gOSDataOnce, HostinfoOSData);
   return gOSData->valid ? Util_SafeStrdup(gOSData->description.c_str()) : nullptr;
}

int Hostinfo_GetOSWordSize(void)
{
   std::call_once(gOSDataOnce, HostinfoOSData);
   return gOSData->wordSize;
}

bool Hostinfo_GetLoadAverage(float *avg1, float *avg5, float *avg15)
{
   double loads[3];
   if (getloadavg(loads, 3) != 3) {
      return false; /* errno as reading /proc/loadavg left it */
   }
   *avg1 = static_cast<float>(loads[0]);
   *avg5 = static_cast<float>(loads[1]);
   *avg15 = static_cast<float>(loads[2]);
   return true;
}

void Hostinfo_LogLoadAverage(void)
{
   float avg1, avg5, avg15;
   if (Hostinfo_GetLoadAverage(&avg1, &avg5, &avg15)) {
      Log("LOADAVG: %.2f %.2f %.2f\n", avg1, avg5, avg15);
   }
}

void Hostinfo_LogMemUsage(void)
{
   std::string statm;
   if (!HostinfoReadFile("/proc/self/statm", &statm)) {
      return;
   }
   /* size resident shared text lib data dirty, in pages */
   int fields[7];
   std::string_view rest(statm);
   for (int &field : fields) {
      uint64_t value;
      if (!TakeNumber(&rest, &value)) {
         return;
      }
      field = value > INT32_MAX ? INT32_MAX : static_cast<int>(value);
   }
   Log("RUSAGE size=%d resident=%d share=%d trs=%d lrs=%d drs=%d dt=%d\n", fields[0], fields[1],
       fields[2], fields[3], fields[4], fields[5], fields[6]);
}

size_t Hostinfo_GetKernelZoneElemSize(const char *name)
{
   if (!ValidSlabName(name)) {
      return 0;
   }
   /*
    * SLUB publishes every cache (merged ones as aliases); some kernels let only root read the
    * sizes. A cache that does not exist is no failure.
    */
   std::string text;
   uint64_t size;
   if (access("/sys/kernel/slab", F_OK) == 0) {
      std::string path = std::string("/sys/kernel/slab/") + name + "/object_size";
      if (!HostinfoReadFile(path.c_str(), &text)) {
         if (errno != ENOENT) {
            Warning("%s: mach_zone_info failed %u.\n", "Hostinfo_GetKernelZoneElemSize",
                    static_cast<unsigned int>(errno));
         }
         return 0;
      }
      std::string_view number(text);
      return TakeNumber(&number, &size) ? static_cast<size_t>(size) : 0;
   }

   /* Otherwise the slab summary, readable by root only: "name active num objsize ...". */
   if (!HostinfoReadFile("/proc/slabinfo", &text)) {
      Warning("%s: mach_zone_info failed %u.\n", "Hostinfo_GetKernelZoneElemSize",
              static_cast<unsigned int>(errno));
      return 0;
   }
   std::string_view rest(text);
   size_t nameLength = strlen(name);
   while (!rest.empty()) {
      std::string_view line = NextLine(&rest);
      if (line.size() > nameLength && line.starts_with(name) && line[nameLength] == ' ') {
         std::string_view fields = line.substr(nameLength);
         uint64_t activeObjects, objects;
         return TakeNumber(&fields, &activeObjects) && TakeNumber(&fields, &objects) &&
                        TakeNumber(&fields, &size)
                    ? static_cast<size_t>(size)
                    : 0;
      }
   }
   return 0;
}

bool Hostinfo_GetMemoryInfoInPages(uint64_t *totalPages, uint64_t *availablePages)
{
   struct sysinfo info;
   long pageSize = sysconf(_SC_PAGESIZE);
   if (sysinfo(&info) != 0 || pageSize <= 0) {
      Warning("%s: Unable to retrieve host vm hw.memsize.\n", "Hostinfo_GetMemoryInfoInPages");
      return false;
   }
   uint64_t unit = info.mem_unit != 0 ? info.mem_unit : 1;
   uint64_t page = static_cast<uint64_t>(pageSize);
   uint64_t available = 0;
   std::string meminfo;
   if (!HostinfoReadFile("/proc/meminfo", &meminfo) ||
       !MemInfoBytes(meminfo, "MemAvailable", &available)) {
      /* Kernels before 3.14 do not estimate it: free memory and buffers. */
      available = (static_cast<uint64_t>(info.freeram) + info.bufferram) * unit;
   }
   *totalPages = static_cast<uint64_t>(info.totalram) * unit / page;
   *availablePages = available / page;
   return true;
}

}  // extern "C"
