/*
 * Test helper: creates the preference store and prints, for each name given, the value and the
 * layer that gave it ("name=value@LAYER", "name=@none" when unset). The log goes to the file
 * named first.
 */
#include <stdio.h>
#include <stdlib.h>

#include "log.h"
#include "preference.h"

int main(int argc, char **argv)
{
   if (argc < 2 || Log_SetOutputFile(argv[1]) < 0) {
      return 2;
   }
   Preference_Init();
   for (int i = 2; i < argc; i++) {
      PreferenceLayer layer = Preference_Find(argv[i]);
      char *value = Preference_GetString("", argv[i]);
      printf("%s=%s@%s\n", argv[i], value,
             layer == PREF_NO_LAYER ? "none" : Preference_LayerName(layer));
      free(value);
   }
   Preference_Exit();
   return 0;
}
