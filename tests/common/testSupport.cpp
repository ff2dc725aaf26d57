#include "testSupport.h"

#include <ftw.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <regex>

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
/*
 * The allocation-failure tests ask for impossible sizes and expect a null result, which the
 * address sanitizer gives only when told to; this makes a plain ctest run behave as test.sh's.
 */
extern "C" const char *__asan_default_options()
{
   return "allocator_may_return_null=1";
}
#endif
#endif

namespace testsupport {

LogCapture::LogCapture()
    : fd_(memfd_create("log-capture", MFD_CLOEXEC)), previousFd_(Log_GetOutputFd())
{
   EXPECT_GE(fd_, 0) << "memfd_create failed";
   Log_SetOutputFd(fd_);
}

LogCapture::~LogCapture()
{
   Log_SetOutputFd(previousFd_);
   close(fd_);
}

std::string LogCapture::Raw() const
{
   return ReadFile("/proc/self/fd/" + std::to_string(fd_));  // a fresh read from the start
}

void LogCapture::Clear()
{
   EXPECT_TRUE(ftruncate(fd_, 0) == 0 && lseek(fd_, 0, SEEK_SET) == 0) << "cannot clear the log";
}

std::string StripStamps(const std::string &text)
{
   static const std::regex stamp(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}\| )");
   return std::regex_replace(text, stamp, "");
}

ScratchDir::ScratchDir()
{
   const char *tmp = getenv("TMPDIR");
   path_ = std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/tesmar-test-XXXXXX";
   EXPECT_NE(mkdtemp(path_.data()), nullptr);
}

ScratchDir::~ScratchDir()
{
   nftw(
       path_.c_str(),
       [](const char *path, const struct stat *, int, struct FTW *) { return remove(path); }, 16,
       FTW_DEPTH | FTW_PHYS);
}

void ExecOrExit(const std::vector<std::string> &args)
{
   std::vector<char *> argv;
   for (const std::string &arg : args) {
      argv.push_back(const_cast<char *>(arg.c_str()));
   }
   argv.push_back(nullptr);
   execvp(argv[0], argv.data());
   _exit(127);
}

bool InChild(const std::function<bool()> &body)
{
   pid_t child = fork();
   if (child == 0) {
      _exit(body() ? 0 : 1);
   }
   int status = 0;
   waitpid(child, &status, 0);
   return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

std::string Take(char *s)
{
   std::string copy = s != nullptr ? s : "(null)";
   free(s);
   return copy;
}

std::string ReadFile(const std::string &path)
{
   std::ifstream in(path, std::ios::binary);
   return std::string(std::istreambuf_iterator<char>(in), {});
}

void WriteFile(const std::string &path, const std::string &data)
{
   std::ofstream(path, std::ios::binary | std::ios::trunc) << data;
}

bool Exists(const std::string &path)
{
   struct stat st;
   return lstat(path.c_str(), &st) == 0;
}

std::string RegexQuote(const std::string &text)
{
   static const std::regex meta(R"([\\^$.|?*+()[\]{}])");
   return std::regex_replace(text, meta, R"(\$&)");
}

}  // namespace testsupport
