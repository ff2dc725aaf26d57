#include "dictionary.h"

extern "C" const char *Dictionary_LookupString(const Dictionary *dict, const char *name)
{
   return nullptr;
}
