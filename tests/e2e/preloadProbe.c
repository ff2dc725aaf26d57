/* A library that leaves a mark when a loader runs it; it must never run in the opener. */
#include <fcntl.h>
#include <unistd.h>

__attribute__((constructor)) static void PreloadProbeMark(void)
{
   int fd = open(PRELOAD_MARKER, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
   if (fd >= 0) {
      (void)write(fd, "loaded\n", 7);
      close(fd);
   }
}
