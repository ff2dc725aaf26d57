/*
 * The signature reader over arbitrary files: the trailer, the CMS blob and the whole check of a
 * file holding the input.
 */
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>

#include "codeSign.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
   size_t tail = std::min(size, CODESIGN_INFO_LEN + CODESIGN_MARKER_LEN);
   uint64_t offset;
   uint32_t sigSize;
   CodeSignInfo info;
   if (CodeSignFindTrailer(data + size - tail, tail, size, &offset, &sigSize) == CODESIGN_OK) {
      CodeSignDecodeBlob(data + offset, sigSize, &info);
   }
   int fd = memfd_create("fuzz", MFD_CLOEXEC);
   CodeSignCode *code = write(fd, data, size) == (ssize_t)size ? CodeSign_OpenCodeFd(fd) : nullptr;
   if (code != nullptr) {
      CodeSign_CheckValidity(code, nullptr, false, nullptr, &info);
      CodeSign_CloseCode(code);
   }
   close(fd);
   return 0;
}
