#include <unistd.h>

#include <regex>

#include "log.h"
#include "testSupport.h"
#include "util.h"

TEST(Log, EntriesOutputFileAndDisabledOutput)
{
   testsupport::LogCapture log;
   Log("%s: plain %d.\n", "Fn", 1);
   Warning("%s: errno %d.\n", "Fn2", 13);
   const std::string stamp = R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}\| )";
   EXPECT_TRUE(std::regex_match(log.Raw(), std::regex(stamp + R"(Fn: plain 1\.\n)" + stamp +
                                                      R"(Warning: Fn2: errno 13\.\n)")))
       << log.Raw();
   log.Clear();

   Log("%s: Unable to retrieve path to executable.", "Fn");
   Log("next\n");
   // A message of 1024 bytes or more is lost; its stamp and prefix stay.
   Warning("%s", std::string(1024, 'y').c_str());
   Log("%s", std::string(1023, 'x').c_str());
   EXPECT_EQ(log.Text(),
             "Fn: Unable to retrieve path to executable.next\nWarning: " + std::string(1023, 'x'));
   // A file takes the output; a file that cannot be opened disables it.
   testsupport::ScratchDir dir;
   log.Clear();
   int fd = Log_SetOutputFile((dir / "log.txt").c_str());
   Log("one\n");
   EXPECT_TRUE(Log_SetOutputFile((dir / "missing/log.txt").c_str()) == -1 &&
               Log_GetOutputFd() == -1);
   Log("lost\n");
   EXPECT_EXIT(Panic("gone\n"), ::testing::ExitedWithCode(1), "^$");
   close(fd);
   EXPECT_EQ(log.Text(), "");
   EXPECT_EQ(testsupport::StripStamps(testsupport::ReadFile(dir / "log.txt")), "one\n");
}

TEST(LogDeath, FatalChecksAndFailedAllocationsNameTheirSource)
{
   int line = __LINE__ + 1;
   EXPECT_PANIC(VERIFY(1 + 1 == 3), "VERIFY tests/foundation/logTest:" + std::to_string(line));
   EXPECT_PANIC(VERIFY_BUG(42, false),
                "VERIFY tests/foundation/logTest:" + std::to_string(line + 1) + " bugNr=42\n");
   EXPECT_PANIC(NOT_REACHED(), "NOT_REACHED tests/foundation/logTest:");
   EXPECT_PANIC(NOT_IMPLEMENTED(), "NOT_IMPLEMENTED tests/foundation/logTest:");
   EXPECT_PANIC(Panic_MemAlloc("lib/public/dynbuf.cpp", 7), "MEM_ALLOC lib/public/dynbuf:7\n");
   EXPECT_PANIC(Panic("plain %d\n", 5), "plain 5\n");
   // An impossible size makes malloc fail without exhausting the machine.
   size_t huge = (size_t)-1 / 2;
   EXPECT_PANIC(UtilSafeMalloc0(huge), "Unrecoverable memory allocation failure\n");
   EXPECT_PANIC(UtilSafeMalloc1(huge, 77, "lib/misc/x.cpp", 12),
                "Unrecoverable memory allocation failure at lib/misc/x:12.  Bug number: 77\n");
}
