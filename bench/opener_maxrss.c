/*
 * Peak resident memory of one program run, without the launcher's own memory counting against
 * it: this small static process forks, the child executes the program, and the child's
 * ru_maxrss is written to OUTFILE in KiB. Usage: opener_maxrss OUTFILE PROGRAM [ARG...]
 * Exits with the program's status.
 */
#include <fcntl.h>
#include <stdio.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

int main(int argc, char **argv)
{
   if (argc < 3) {
      return 2;
   }
   pid_t pid = fork();
   if (pid == 0) {
      int devNull = open("/dev/null", O_WRONLY);
      dup2(devNull, 1);
      execv(argv[2], argv + 2);
      _exit(127);
   }
   int status;
   struct rusage usage;
   if (pid == -1 || wait4(pid, &status, 0, &usage) != pid) {
      return 2;
   }
   FILE *out = fopen(argv[1], "w");
   if (out == NULL || fprintf(out, "%ld\n", usage.ru_maxrss) < 0 || fclose(out) != 0) {
      return 2;
   }
   return WIFEXITED(status) ? WEXITSTATUS(status) : 2;
}
