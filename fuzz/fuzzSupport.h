/* Small helpers shared by the fuzz targets. */
#pragma once

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "codeset.h"

namespace fuzz {

/* Ends the run as a finding when condition does not hold. */
inline void Check(bool condition)
{
   if (!condition) {
      abort();
   }
}

/* The text of a malloc'ed string, which must not be NULL; it is freed. */
inline std::string Take(char *s)
{
   Check(s != nullptr);
   std::string copy = s;
   free(s);
   return copy;
}

/* A fresh directory, removed with its contents when the process exits; one per process. */
inline std::string TempDir()
{
   static std::string dir = "/tmp/fuzz.XXXXXX";
   Check(mkdtemp(dir.data()) != nullptr);
   atexit([] { std::filesystem::remove_all(dir); });
   return dir;
}

/* Routes conversions through ICU: CodeSet_Init only has to find a data file of that name. */
inline void InitCodeSetWithEmptyData(const char *file)
{
   std::string dir = TempDir();
   std::ofstream(dir + "/" + file).flush();
   CodeSet_Init(dir.c_str());
}

}  // namespace fuzz

using fuzz::Check;
using fuzz::Take;
