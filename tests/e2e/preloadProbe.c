/* A library that leaves a mark when a loader runs it; it must never run in the opener. */
#include <fcntl.h>
#include <unistd.h>

__attribute__((constructor)) static void PreloadProbeMark(void)
{
   close(open(PRELOAD_MARKER, O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
}
