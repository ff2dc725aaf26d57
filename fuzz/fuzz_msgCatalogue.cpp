/*
 * The message catalogue loader over arbitrary bytes: selecting the catalogue never fails
 * uncleanly, and every lookup afterwards gives a text.
 */
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "log.h"
#include "msg.h"

namespace {

std::string gDir;
std::string gFile;

void RemoveDir()
{
   unlink(gFile.c_str());
   rmdir((gDir + "/messages/xx").c_str());
   rmdir((gDir + "/messages").c_str());
   rmdir(gDir.c_str());
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
   Log_SetOutputFd(-1);
   char dir[] = "/tmp/fuzz_msgCatalogue.XXXXXX";
   if (mkdtemp(dir) == nullptr) {
      abort();
   }
   gDir = dir;
   mkdir((gDir + "/messages").c_str(), 0700);
   mkdir((gDir + "/messages/xx").c_str(), 0700);
   gFile = gDir + "/messages/xx/fuzz.tmsg";
   atexit(RemoveDir);
   return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
   FILE *f = fopen(gFile.c_str(), "wb");
   if (f == nullptr || fwrite(data, 1, size, f) != size || fclose(f) != 0) {
      abort();
   }
   Msg_SetLocaleEx("xx", "fuzz", gDir.c_str());
   for (const char *id : {"@&!*@*@(a)A", "@&!*@*@(msg.b)B", "@&!*@*@(button.ok)_OK"}) {
      char *text = Msg_GetStringButton(id);
      if (text == nullptr) {
         abort();
      }
      free(text);
   }
   Msg_SetLocaleEx(nullptr, "fuzz", nullptr);
   return 0;
}
