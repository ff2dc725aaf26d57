/*
 * Process start times from /proc: the kernel's start time (clock ticks after boot) of
 * /proc/<pid>/stat, and the boot time ("btime") of /proc/stat for the wall-clock form.
 */
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <charconv>

#include "hostinfo.h"
#include "hostinfoInt.h"
#include "internal/retry.h"
#include "internal/uniqueFd.h"
#include "str.h"

namespace {

/* text as a decimal number; false unless it is one, whole, without overflow. */
bool ParseUnsigned(std::string_view text, uint64_t *value)
{
   const char *last = text.data() + text.size();
   auto [end, error] = std::from_chars(text.data(), last, *value);
   return error == std::errc() && !text.empty() && end == last;
}

bool BootTimeSeconds(uint64_t *seconds)
{
   std::string stat;
   if (!HostinfoReadFile("/proc/stat", &stat)) {
      return false;
   }
   std::string_view rest(stat);
   while (!rest.empty()) {
      size_t eol = rest.find('\n');
      std::string_view line = rest.substr(0, eol);
      rest = eol == std::string_view::npos ? std::string_view() : rest.substr(eol + 1);
      if (line.starts_with("btime ") && ParseUnsigned(line.substr(6), seconds)) {
         return true;
      }
   }
   errno = EINVAL;
   return false;
}

}  // namespace

bool HostinfoReadFile(const char *path, std::string *contents)
{
   tesmar::UniqueFd fd(open(path, O_RDONLY | O_CLOEXEC));
   if (!fd) {
      return false;
   }
   contents->clear();
   char buf[4096];
   for (;;) {
      ssize_t n = tesmar::RetryEintr([&] { return read(fd.get(), buf, sizeof buf); });
      if (n < 0) {
         return false;  // the holder keeps errno across its close
      }
      if (n == 0) {
         return true;
      }
      contents->append(buf, static_cast<size_t>(n));
   }
}

bool HostinfoParseStatStartTicks(std::string_view stat, uint64_t *ticks)
{
   /* The command name sits in parentheses and may itself hold ")" and spaces. */
   size_t close = stat.rfind(')');
   if (close == std::string_view::npos) {
      return false;
   }
   std::string_view rest = stat.substr(close + 1);
   /* Fields after the name start at the state (field 3); the start time is field 22. */
   for (int field = 3; field <= 22; field++) {
      size_t start = rest.find_first_not_of(' ');
      if (start == std::string_view::npos) {
         return false;
      }
      rest = rest.substr(start);
      if (field == 22) {
         return ParseUnsigned(rest.substr(0, rest.find_first_of(" \n")), ticks);
      }
      size_t end = rest.find(' ');
      if (end == std::string_view::npos) {
         return false;
      }
      rest = rest.substr(end);
   }
   return false;
}

extern "C" {

bool Hostinfo_GetProcessStartTicks(pid_t pid, uint64_t *startTicks)
{
   if (pid <= 0) {
      errno = EINVAL;
      return false;
   }
   char path[32];
   Str_Sprintf(path, sizeof path, "/proc/%d/stat", static_cast<int>(pid));
   std::string stat;
   if (!HostinfoReadFile(path, &stat)) {
      return false;
   }
   if (!HostinfoParseStatStartTicks(stat, startTicks)) {
      errno = EINVAL;
      return false;
   }
   return true;
}

bool Hostinfo_GetProcessStartTime(pid_t pid, uint64_t *startTimeUs)
{
   uint64_t ticks;
   uint64_t bootSeconds;
   if (!Hostinfo_GetProcessStartTicks(pid, &ticks) || !BootTimeSeconds(&bootSeconds)) {
      return false;
   }
   long hz = sysconf(_SC_CLK_TCK);
   if (hz <= 0) {
      errno = EINVAL;
      return false;
   }
   uint64_t perSecond = static_cast<uint64_t>(hz);
   *startTimeUs =
       (bootSeconds + ticks / perSecond) * 1000000 + (ticks % perSecond) * 1000000 / perSecond;
   return true;
}

}  // extern "C"
