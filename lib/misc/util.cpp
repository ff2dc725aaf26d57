/*
 * Expansion of a leading "~" or "~user" and of $NAME variables in file names, and the
 * process-wide replacement for the home directory.
 */
#include <errno.h>
#include <pwd.h>
#include <stdlib.h>
#include <string.h>
#include <sys/auxv.h>
#include <unistd.h>

#include <mutex>

#include "log.h"
#include "str.h"
#include "util.h"

namespace {

constexpr const char kFunction[] = "Util_ExpandString";
constexpr size_t kMaxChunks = 100;

std::mutex gOverrideLock;
char *gOverrideHome = nullptr;  // guarded by gOverrideLock

/* One piece of the name: a slice of the input and, once expanded, its replacement. */
struct Chunk {
   const char *start;
   size_t length;
   char *replacement;  // NULL: the slice stays as written
};

bool IsNameChar(char c)
{
   return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_';
}

/* ASCII comparison without regard to case, independent of the locale. */
bool EqualsIgnoringCase(const char *a, const char *b)
{
   for (;; a++, b++) {
      char ca = (*a >= 'a' && *a <= 'z') ? static_cast<char>(*a - 'a' + 'A') : *a;
      char cb = (*b >= 'a' && *b <= 'z') ? static_cast<char>(*b - 'a' + 'A') : *b;
      if (ca != cb) {
         return false;
      }
      if (ca == '\0') {
         return true;
      }
   }
}

/* A password-database entry with the storage its strings live in. */
class PasswdEntry {
  public:
   PasswdEntry() = default;
   ~PasswdEntry() { free(buffer_); }
   PasswdEntry(const PasswdEntry &) = delete;
   PasswdEntry &operator=(const PasswdEntry &) = delete;

   bool FindByName(const char *name)
   {
      return Fetch([name](passwd *entry, char *buffer, size_t size, passwd **result) {
         return getpwnam_r(name, entry, buffer, size, result);
      });
   }

   bool FindByUid(uid_t uid)
   {
      return Fetch([uid](passwd *entry, char *buffer, size_t size, passwd **result) {
         return getpwuid_r(uid, entry, buffer, size, result);
      });
   }

   const passwd &Entry() const { return entry_; }

  private:
   static constexpr size_t kFirstSize = 1024;
   static constexpr size_t kMaxSize = 1 << 20;

   /* Runs the lookup, growing the string storage while the system asks for more. */
   template <typename Lookup>
   bool Fetch(Lookup lookup)
   {
      for (size_t size = kFirstSize; size <= kMaxSize; size *= 2) {
         char *buffer = static_cast<char *>(realloc(buffer_, size));
         if (buffer == nullptr) {
            return false;
         }
         buffer_ = buffer;
         passwd *result = nullptr;
         int error = lookup(&entry_, buffer_, size, &result);
         if (error != ERANGE) {
            return error == 0 && result != nullptr;
         }
      }
      return false;
   }

   passwd entry_{};
   char *buffer_ = nullptr;
};

/* True when the process runs with privileges its caller does not have (set-user/group-ID). */
bool IsPrivilegedProgram()
{
   return getauxval(AT_SECURE) != 0 || getuid() != geteuid() || getgid() != getegid();
}

/* The home directory of an entry, or NULL (logged) when it has none. */
char *HomeOf(const PasswdEntry &passwd)
{
   const char *home = passwd.Entry().pw_dir;
   if (home == nullptr || home[0] == '\0') {
      Log("Could not get home directory for user.\n");
      return nullptr;
   }
   return Util_SafeStrdup(home);
}

/* The replacement for a leading "~" or "~user" chunk, or NULL to keep it as written. */
char *ExpandHome(const Chunk &chunk)
{
   {
      std::lock_guard<std::mutex> guard(gOverrideLock);
      if (gOverrideHome != nullptr) {
         return Util_SafeStrdup(gOverrideHome);
      }
   }

   PasswdEntry passwd;
   if (chunk.length > 1) {
      char *user = Util_SafeStrndup(chunk.start + 1, chunk.length - 1);
      bool found = passwd.FindByName(user);
      if (!found) {
         Log("Could not get passwd for user '%s'.\n", user);
      }
      free(user);
      return found ? HomeOf(passwd) : nullptr;
   }

   const char *fixedHome = getenv("CFFIXED_USER_HOME");
   if (fixedHome != nullptr && !IsPrivilegedProgram()) {
      return Util_SafeStrdup(fixedHome);
   }
   if (passwd.FindByUid(getuid())) {
      return HomeOf(passwd);
   }
   Log("Could not get passwd for current user.\n");
   const char *home = getenv("HOME");
   if (home == nullptr) {
      Log("Could not expand environment variable HOME.\n");
      return nullptr;
   }
   return Util_SafeStrdup(home);
}

/*
 * The replacement for a "$NAME" chunk (NAME not empty); NULL when memory runs out. An unset
 * PID or USER falls back to the process id or the real user's login name.
 */
char *ExpandVariable(const Chunk &chunk, const char *input)
{
   char *name = strndup(chunk.start + 1, chunk.length - 1);
   if (name == nullptr) {
      return nullptr;
   }
   char *replacement;
   const char *value = getenv(name);
   if (value != nullptr) {
      replacement = strdup(value);
   } else if (EqualsIgnoringCase(name, "PID")) {
      replacement = Str_Asprintf(nullptr, "%d", static_cast<int>(getpid()));
   } else if (EqualsIgnoringCase(name, "USER")) {
      PasswdEntry passwd;
      const char *login = "unknown";
      if (passwd.FindByUid(getuid()) && passwd.Entry().pw_name != nullptr) {
         login = passwd.Entry().pw_name;
      }
      replacement = strdup(login);
   } else {
      Log("Environment variable '%s' not defined in '%s'.\n", name, input);
      replacement = strdup("");
   }
   free(name);
   return replacement;
}

/* Cuts input into chunks; false (logged) when there would be more than kMaxChunks. */
bool CutIntoChunks(const char *input, Chunk *chunks, size_t *count)
{
   size_t pos = 0;
   size_t n = 0;
   while (input[pos] != '\0') {
      if (n == kMaxChunks) {
         Log("%s: Filename \"%s\" has too many chunks.\n", kFunction, input);
         return false;
      }
      size_t start = pos;
      if (input[pos] == '$') {
         pos++;
         while (IsNameChar(input[pos])) {
            pos++;
         }
      } else if (n == 0 && input[pos] == '~') {
         while (input[pos] != '\0' && input[pos] != '/') {
            pos++;
         }
      } else {
         while (input[pos] != '\0' && input[pos] != '$') {
            pos++;
         }
      }
      chunks[n++] = Chunk{input + start, pos - start, nullptr};
   }
   *count = n;
   return true;
}

/* The chunks joined into one new string, each replaced where it has a replacement. */
char *JoinChunks(const Chunk *chunks, size_t count)
{
   size_t total = 1;
   for (size_t k = 0; k < count; k++) {
      total += chunks[k].replacement != nullptr ? strlen(chunks[k].replacement) : chunks[k].length;
   }
   char *result = static_cast<char *>(malloc(total));
   if (result == nullptr) {
      return nullptr;
   }
   char *out = result;
   for (size_t k = 0; k < count; k++) {
      const char *piece =
          chunks[k].replacement != nullptr ? chunks[k].replacement : chunks[k].start;
      size_t length = chunks[k].replacement != nullptr ? strlen(piece) : chunks[k].length;
      memcpy(out, piece, length);
      out += length;
   }
   *out = '\0';
   return result;
}

char *Expand(const char *input)
{
   Chunk chunks[kMaxChunks];
   size_t count;
   if (!CutIntoChunks(input, chunks, &count)) {
      return nullptr;
   }

   bool ok = true;
   for (size_t k = 0; k < count && ok; k++) {
      Chunk &chunk = chunks[k];
      if (k == 0 && chunk.start[0] == '~') {
         chunk.replacement = ExpandHome(chunk);
      } else if (chunk.start[0] == '$' && chunk.length > 1) {
         chunk.replacement = ExpandVariable(chunk, input);
         if (chunk.replacement == nullptr) {
            Log("%s: Cannot allocate memory to expand $ in \"%s\".\n", kFunction, input);
            ok = false;
         }
      }
   }

   char *result = nullptr;
   if (ok) {
      result = JoinChunks(chunks, count);
      if (result == nullptr) {
         Log("%s: Cannot allocate memory for the expansion of \"%s\".\n", kFunction, input);
      }
   }
   for (size_t k = 0; k < count; k++) {
      Util_ZeroFreeString(chunks[k].replacement);
   }
   return result;
}

}  // namespace

extern "C" {

char *Util_ExpandString(const char *fileName)
{
   if (fileName == nullptr) {
      return nullptr;
   }
   if (fileName[0] != '~' && strchr(fileName, '$') == nullptr) {
      return strdup(fileName);
   }
   return Expand(fileName);
}

const char *Util_OverrideHomeDirectory(const char *path)
{
   char *copy = Util_SafeStrdup(path);
   std::lock_guard<std::mutex> guard(gOverrideLock);
   free(gOverrideHome);
   gOverrideHome = copy;
   return copy;
}

}  // extern "C"
