/*
 * Feeds arbitrary path bytes to the path routines and checks their invariants: the split
 * parts join back into the path, stripping only removes trailing slashes, a join has exactly
 * one separator, extensions come and go at the end, and a full path is absolute without
 * doubled slashes (for UTF-8 input).
 *
 * The input is cut at its first NUL into two texts: a path and a second name.
 */
#include "file.h"
#include "fuzzSupport.h"
#include "unicodeBase.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
   std::string input(reinterpret_cast<const char *>(data), size);
   std::string path = input.c_str(), name = input.substr(std::min(path.size() + 1, size)).c_str();
   if (path.size() > 8192) {
      return 0;
   }
   char *dir = nullptr, *base = nullptr, *vol = nullptr;
   File_GetPathName(path.c_str(), &dir, &base);
   std::string d = Take(dir), b = Take(base);
   Check(path.find('/') == std::string::npos ? d.empty() && b == path : d + "/" + b == path);
   Check(b.find('/') == std::string::npos);
   File_SplitName(path.c_str(), &vol, &dir, &base);
   Check(Take(vol).empty() && Take(dir) + Take(base) == path);

   std::string stripped = Take(File_StripSlashes(path.c_str()));
   Check(path.starts_with(stripped) && !stripped.ends_with('/') &&
         path.find_first_not_of('/', stripped.size()) == std::string::npos);

   std::string joined = Take(File_PathJoin(path.c_str(), name.c_str()));
   std::string bare = name.substr(std::min(name.find_first_not_of('/'), name.size()));
   Check(joined == stripped + "/" + bare);

   std::string replaced = Take(File_ReplaceExtension(path.c_str(), ".ext", 0));
   Check(replaced.ends_with(".ext") &&
         Take(File_RemoveExtension(replaced.c_str())) + ".ext" == replaced);
   Check(path.starts_with(Take(File_RemoveExtension(path.c_str()))));

   // A full path is handed out as UTF-8, and a path that is not valid UTF-8 and does not
   // resolve is a conversion failure that panics by design: such input is not fed to it.
   if (path.size() < 4096 &&
       Unicode_IsBufferValid(path.data(), (ssize_t)path.size(), STRING_ENCODING_UTF8)) {
      if (char *full = File_FullPath(path.c_str())) {
         std::string f = Take(full);
         Check(!f.empty() && f[0] == '/' && f.find("//") == std::string::npos);
      }
   }
   return 0;
}
