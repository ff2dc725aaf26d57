/*
 * The logging core: one time-stamped entry per call, written with three unbuffered writes to
 * the process-wide log descriptor. Each entry is formatted into a fixed buffer on the stack, so
 * logging keeps working when memory is exhausted.
 */
#include "log.h"

#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <atomic>

#include "str.h"

namespace {

std::atomic<int> gLogFd{STDOUT_FILENO};
std::atomic<bool> gPanicking{false};

constexpr size_t kLineSize = 1024;

void WriteAll(int fd, const char *data, size_t length)
{
   // Results are ignored: logging never fails visibly.
   ssize_t ignored = write(fd, data, length);
   (void)ignored;
}

void LogEntry(const char *prefix, const char *fmt, va_list args)
{
   int fd = gLogFd.load(std::memory_order_relaxed);
   if (fd == -1) {
      return;
   }

   struct timeval now;
   gettimeofday(&now, nullptr);
   time_t seconds = now.tv_sec;
   struct tm local;
   localtime_r(&seconds, &local);

   char line[kLineSize];
   int length = Str_Snprintf(line, sizeof line, "%04d-%02d-%02dT%02d:%02d:%02d.%03d| ",
                             local.tm_year + 1900, local.tm_mon + 1, local.tm_mday, local.tm_hour,
                             local.tm_min, local.tm_sec, (int)(now.tv_usec / 1000));
   if (length > 0) {
      WriteAll(fd, line, (size_t)length);
   }
   WriteAll(fd, prefix, strlen(prefix));

   /*
    * A message longer than the buffer is lost while its stamp and prefix remain. The failed
    * format's -1 is not handed to write: on Linux a huge count could write stack bytes.
    */
   length = Str_Vsnprintf(line, sizeof line, fmt, args);
   if (length > 0) {
      WriteAll(fd, line, (size_t)length);
   }
}

}  // namespace

extern "C" {

void LogV(const char *fmt, va_list args)
{
   LogEntry("", fmt, args);
}

void Log(const char *fmt, ...)
{
   va_list args;
   va_start(args, fmt);
   LogEntry("", fmt, args);
   va_end(args);
}

void WarningV(const char *fmt, va_list args)
{
   LogEntry("Warning: ", fmt, args);
}

void Warning(const char *fmt, ...)
{
   va_list args;
   va_start(args, fmt);
   LogEntry("Warning: ", fmt, args);
   va_end(args);
}

void PanicV(const char *fmt, va_list args)
{
   // A panic raised while exit handlers run after an earlier panic must not re-enter exit.
   if (gPanicking.exchange(true)) {
      LogEntry("Panic: ", fmt, args);
      _exit(1);
   }
   LogEntry("Panic: ", fmt, args);
   exit(1);
}

void Panic(const char *fmt, ...)
{
   va_list args;
   va_start(args, fmt);
   PanicV(fmt, args);
}

int Log_SetOutputFile(const char *path)
{
   int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
   gLogFd.store(fd, std::memory_order_relaxed);
   return fd;
}

int Log_GetOutputFd(void)
{
   return gLogFd.load(std::memory_order_relaxed);
}

void Log_SetOutputFd(int fd)
{
   gLogFd.store(fd, std::memory_order_relaxed);
}

int Log_SourcePathLength(const char *file)
{
   const char *base = strrchr(file, '/');
   const char *dot = strrchr(base != nullptr ? base : file, '.');
   return (int)(dot != nullptr ? dot - file : (ptrdiff_t)strlen(file));
}

void Panic_Verify(const char *file, int line)
{
   Panic("VERIFY %.*s:%d\n", Log_SourcePathLength(file), file, line);
}

void Panic_VerifyBug(const char *file, int line, int bugNr)
{
   Panic("VERIFY %.*s:%d bugNr=%d\n", Log_SourcePathLength(file), file, line, bugNr);
}

void Panic_NotReached(const char *file, int line)
{
   Panic("NOT_REACHED %.*s:%d\n", Log_SourcePathLength(file), file, line);
}

void Panic_NotImplemented(const char *file, int line)
{
   Panic("NOT_IMPLEMENTED %.*s:%d\n", Log_SourcePathLength(file), file, line);
}

void Panic_MemAlloc(const char *file, int line)
{
   Panic("MEM_ALLOC %.*s:%d\n", Log_SourcePathLength(file), file, line);
}

}  // extern "C"
