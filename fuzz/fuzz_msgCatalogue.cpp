/*
 * The message catalogue loader over arbitrary bytes: selecting the catalogue never fails
 * uncleanly, and every lookup afterwards gives a text.
 */
#include "fuzzSupport.h"
#include "log.h"
#include "msg.h"

static std::string gDir;

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
   Log_SetOutputFd(-1);
   gDir = fuzz::TempDir();
   std::filesystem::create_directories(gDir + "/messages/xx");
   return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
   std::ofstream(gDir + "/messages/xx/fuzz.tmsg", std::ios::binary)
       .write(reinterpret_cast<const char *>(data), (std::streamsize)size);
   Msg_SetLocaleEx("xx", "fuzz", gDir.c_str());
   for (const char *id : {"@&!*@*@(a)A", "@&!*@*@(msg.b)B", "@&!*@*@(button.ok)_OK"}) {
      Take(Msg_GetStringButton(id));
   }
   Msg_SetLocaleEx(nullptr, "fuzz", nullptr);
   return 0;
}
