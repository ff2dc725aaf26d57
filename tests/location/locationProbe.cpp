/*
 * Usage: locationProbe [-u] TAGS KEY...
 * With -u it first takes nobody as its real user id, keeping root as the effective one, as a
 * set-user-ID program would. It initialises the location with each comma-separated tag of TAGS,
 * then prints "KEY=PATH" (or "KEY=(null)") per key; warnings come in between.
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "location.h"

int main(int argc, char **argv)
{
   int first = argc > 1 && strcmp(argv[1], "-u") == 0 ? 2 : 1;
   if (argc <= first || (first == 2 && setresuid(65534, 0, 0) != 0)) {
      return 2;
   }
   for (char *tag = strtok(argv[first], ","); tag != nullptr; tag = strtok(nullptr, ",")) {
      Location_Init(tag);
   }
   for (int i = first + 1; i < argc; i++) {
      char *path = Location_GetResolver()(argv[i]);
      dprintf(1, "%s=%s\n", argv[i], path != nullptr ? path : "(null)");
      free(path);
   }
   return 0;
}
