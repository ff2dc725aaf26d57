/*
 * Prints what the table generators under tools/ take from ICU. Without arguments, ICU's
 * converter alias table (for genEncodingTable.py), one converter per line:
 *
 *    <canonical name> TAB <alias> TAB <alias> ... [TAB @<standard>=<name> ...]
 *
 * Aliases come in ICU's order; "@IANA=x", "@MIME=x" and "@WINDOWS=x" list the names that ICU
 * files under those standards. With --resolve it reads names, one per line, and prints each
 * with the converter ICU opens for it ("-" when none): <name> TAB <canonical name>. Built by CMake
 * as target icuAliasDump (not part of the library): cmake --build build --target icuAliasDump &&
 * build/lib/unicode/icuAliasDump > aliases.txt
 */
#include <unicode/uchar.h>
#include <unicode/ucnv.h>

#include <cstdio>
#include <cstring>

static int Resolve()
{
   char line[512];
   while (std::fgets(line, sizeof line, stdin) != nullptr) {
      line[std::strcspn(line, "\r\n")] = '\0';
      UErrorCode status = U_ZERO_ERROR;
      const char *canonical = ucnv_getAlias(line, 0, &status);
      std::printf("%s\t%s\n", line, U_SUCCESS(status) && canonical != nullptr ? canonical : "-");
   }
   return 0;
}

static int Fold()
{
   for (UChar32 c = 0; c <= 0xFFFF; c++) {
      UChar32 folded = u_foldCase(c, U_FOLD_CASE_DEFAULT);
      if (folded != c && folded <= 0xFFFF) {
         std::printf("%04X %04X\n", (unsigned)c, (unsigned)folded);
      }
   }
   return 0;
}

int main(int argc, char **argv)
{
   if (argc > 1 && std::strcmp(argv[1], "--resolve") == 0) {
      return Resolve();
   }
   if (argc > 1 && std::strcmp(argv[1], "--fold") == 0) {
      return Fold();
   }
   static const char *const standards[] = {"IANA", "MIME", "WINDOWS"};
   int32_t count = ucnv_countAvailable();
   for (int32_t i = 0; i < count; i++) {
      const char *name = ucnv_getAvailableName(i);
      UErrorCode status = U_ZERO_ERROR;
      uint16_t aliasCount = ucnv_countAliases(name, &status);
      if (U_FAILURE(status)) {
         continue;
      }
      std::printf("%s", name);
      for (uint16_t a = 0; a < aliasCount; a++) {
         status = U_ZERO_ERROR;
         const char *alias = ucnv_getAlias(name, a, &status);
         if (U_SUCCESS(status) && alias != nullptr) {
            std::printf("\t%s", alias);
         }
      }
      for (const char *standard : standards) {
         status = U_ZERO_ERROR;
         UEnumeration *names = ucnv_openStandardNames(name, standard, &status);
         if (U_FAILURE(status)) {
            continue;
         }
         const char *stdName;
         while ((stdName = uenum_next(names, nullptr, &status)) != nullptr && U_SUCCESS(status)) {
            std::printf("\t@%s=%s", standard, stdName);
         }
         uenum_close(names);
      }
      std::printf("\n");
   }
   return 0;
}
