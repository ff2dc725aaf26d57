/*
 * Usage: locationProbe TAGS KEY...
 * Initialises the location with each comma-separated tag of TAGS ("-" for none), then prints
 * "KEY=PATH" (or "KEY=(null)") per key. Warnings go to standard output in between.
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include "location.h"

int main(int argc, char **argv)
{
   if (argc < 2) {
      return 2;
   }
   std::string tags = argv[1];
   if (tags != "-") {
      size_t start = 0;
      while (start <= tags.size()) {
         size_t comma = tags.find(',', start);
         if (comma == std::string::npos) {
            comma = tags.size();
         }
         Location_Init(tags.substr(start, comma - start).c_str());
         start = comma + 1;
      }
   }
   for (int i = 2; i < argc; i++) {
      char *path = Location_GetResolver()(argv[i]);
      dprintf(1, "%s=%s\n", argv[i], path != nullptr ? path : "(null)");
      free(path);
   }
   return 0;
}
