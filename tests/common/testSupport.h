/*
 * Shared test helpers: capturing the log, checking panics, scratch directories.
 */
#ifndef TESMAR_TEST_SUPPORT_H
#define TESMAR_TEST_SUPPORT_H

#include <gtest/gtest.h>

#include <barrier>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "log.h"

namespace testsupport {

/* Removes every log stamp from text. */
std::string StripStamps(const std::string &text);

/* Routes the log to an in-memory file for the lifetime of the object. */
class LogCapture {
  public:
   LogCapture();
   ~LogCapture();
   LogCapture(const LogCapture &) = delete;
   LogCapture &operator=(const LogCapture &) = delete;

   /* Everything logged so far, exactly as written. */
   std::string Raw() const;
   /* The same with every "YYYY-MM-DDTHH:MM:SS.mmm| " stamp removed. */
   std::string Text() const { return StripStamps(Raw()); }
   void Clear();

  private:
   int fd_;
   int previousFd_;
};

/* A fresh directory under the system's temporary directory, removed with its contents. */
class ScratchDir {
  public:
   ScratchDir();
   ~ScratchDir();
   ScratchDir(const ScratchDir &) = delete;
   ScratchDir &operator=(const ScratchDir &) = delete;
   const std::string &Path() const { return path_; }
   std::string operator/(const std::string &name) const { return path_ + "/" + name; }

  private:
   std::string path_;
};

/* Runs body(i) for i in [0, n) on n threads that start together, to widen race windows. */
template <typename Body>
void RunThreads(int n, Body body)
{
   std::barrier start(n);
   std::vector<std::thread> threads;
   for (int i = 0; i < n; i++) {
      threads.emplace_back([&, i] {
         start.arrive_and_wait();
         body(i);
      });
   }
   for (auto &t : threads) {
      t.join();
   }
}

/* Runs body in a forked child (fresh caches, its own ids); true when it exited returning true. */
bool InChild(const std::function<bool()> &body);

/* In a forked child: runs args[0] (searched on PATH when it has no slash); exits 127 if it cannot.
 */
[[noreturn]] void ExecOrExit(const std::vector<std::string> &args);

/* The text of a malloc'ed string, which is freed; "(null)" for NULL. */
std::string Take(char *s);

/* Whole-file contents in binary mode ("" when unreadable), and a truncating write. */
std::string ReadFile(const std::string &path);
void WriteFile(const std::string &path, const std::string &data);
/* True when something (a dangling link too) is at path. */
bool Exists(const std::string &path);

/* Escapes regular-expression metacharacters so that text matches itself in a death test. */
std::string RegexQuote(const std::string &text);

}  // namespace testsupport

/*
 * Expects statement to panic: "Panic: " followed by a match of messageRegex, exit status 1.
 * The log is routed to standard error inside the child so the death test can read it.
 */
#define EXPECT_PANIC_MATCHING(statement, messageRegex) \
   EXPECT_EXIT(                                        \
       {                                               \
          Log_SetOutputFd(2);                          \
          statement;                                   \
       },                                              \
       ::testing::ExitedWithCode(1), std::string("Panic: ") + (messageRegex))

/* As EXPECT_PANIC_MATCHING, with the exact message text. */
#define EXPECT_PANIC(statement, message) \
   EXPECT_PANIC_MATCHING(statement, ::testsupport::RegexQuote(message))

#endif
