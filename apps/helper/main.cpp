/*
 * brix-helper: an example privileged helper.
 *
 *    brix-helper [--run-dir DIR] [--info-plist FILE] [--mode OCTAL] [--reply-timeout MS] SERVICE
 *
 * Serves SERVICE to the clients its Info.plist allows. Every dictionary it receives comes back
 * as the reply with "pid" (the client's process id) and "descriptors" (how many came with it)
 * added, and the descriptors are passed back too (a reply that would be over the size limit is
 * replaced by "tooLarge"). A dictionary whose "command" is "sleep" waits
 * "ms" milliseconds first.
 */
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <vector>

#include "privilegedHelper.h"

namespace {

void Usage(void)
{
   fprintf(stderr,
           "usage: brix-helper [--run-dir DIR] [--info-plist FILE] [--mode OCTAL] "
           "[--reply-timeout MS] SERVICE\n");
   exit(2);
}

void Handle(PrivilegedHelperConnection *connection, plist_t message, void *context)
{
   plist_t command = plist_dict_get_item(message, "command");
   const char *name = command != nullptr && plist_get_node_type(command) == PLIST_STRING
                          ? plist_get_string_ptr(command, nullptr)
                          : nullptr;
   if (name != nullptr && strcmp(name, "sleep") == 0) {
      uint64_t ms = 0;
      plist_t value = plist_dict_get_item(message, "ms");
      if (value != nullptr && plist_get_node_type(value) == PLIST_UINT) {
         plist_get_uint_val(value, &ms);
      }
      usleep((useconds_t)(ms < 10000 ? ms : 10000) * 1000);
   }
   std::vector<int> fds;
   for (size_t i = 0; i < PrivilegedHelperConnection_FdCount(connection); i++) {
      fds.push_back(PrivilegedHelperConnection_TakeFd(connection, i));
   }
   plist_t reply = plist_copy(message);
   plist_dict_set_item(reply, "pid", plist_new_uint((uint64_t)PrivilegedHelperConnection_Pid(connection)));
   plist_dict_set_item(reply, "descriptors", plist_new_uint(fds.size()));
   if (!PrivilegedHelperConnection_Reply(connection, reply, fds.data(), fds.size()) &&
       errno == EMSGSIZE) {
      // The echo of a message near the size limit does not fit: say so instead.
      plist_free(reply);
      reply = plist_new_dict();
      plist_dict_set_item(reply, "tooLarge", plist_new_bool(1));
      PrivilegedHelperConnection_Reply(connection, reply, nullptr, 0);
   }
   plist_free(reply);
   for (int fd : fds) {
      close(fd);
   }
}

}  // namespace

int main(int argc, char **argv)
{
   PrivilegedHelperOptions options = {};
   int i = 1;
   for (; i + 1 < argc && strncmp(argv[i], "--", 2) == 0; i += 2) {
      if (strcmp(argv[i], "--run-dir") == 0) {
         options.runDirectory = argv[i + 1];
      } else if (strcmp(argv[i], "--info-plist") == 0) {
         options.infoPlistPath = argv[i + 1];
      } else if (strcmp(argv[i], "--reply-timeout") == 0) {
         options.replyTimeoutMs = atoi(argv[i + 1]);
      } else if (strcmp(argv[i], "--mode") == 0) {
         options.socketMode = (unsigned)strtoul(argv[i + 1], nullptr, 8) & 0777;
      } else {
         Usage();
      }
   }
   if (i + 1 != argc) {
      Usage();
   }
   PrivilegedHelper_StartWithOptions(argv[i], &options, Handle, nullptr);
}
