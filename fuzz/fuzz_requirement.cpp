/*
 * The requirement language: a text it accepts prints back to a text that parses to the same
 * tree (the printed form is canonical, so printing twice gives the same text).
 */
#include "codeSign.h"
#include "fuzzSupport.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
   std::string text((const char *)data, size);
   CodeSignRequirement *req =
       text.find('\0') == std::string::npos ? CodeSign_ParseRequirement(text.c_str()) : nullptr;
   if (req == nullptr) {
      return 0;
   }
   std::string printed = Take(CodeSign_RequirementText(req));
   CodeSignRequirement *again = CodeSign_ParseRequirement(printed.c_str());
   Check(again != nullptr && Take(CodeSign_RequirementText(again)) == printed);
   CodeSign_FreeRequirement(again);
   CodeSign_FreeRequirement(req);
   return 0;
}
