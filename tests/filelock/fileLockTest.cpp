/*
 * The lock-file protocol's rules: the member text and its older form, machine and execution
 * identities, ordering and shared/exclusive conflicts against members written by hand,
 * problematic and stale files, moved lock directories, read-only places, FileIO's lock.
 */
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <string>

#include "fileIO.h"
#include "fileLock.h"
#include "fileLockInt.h"
#include "msgList.h"
#include "testSupport.h"

using testsupport::Exists;
using testsupport::LogCapture;
using testsupport::ScratchDir;
using testsupport::WriteFile;

namespace {

const char kOtherMachine[] = "uuid=52-00-00-00-00-00-00-00-00-00-00-00-00-00-00-01";

/* A member file's text as another locker would write it. */
std::string MemberText(const char *machine, const std::string &execution, uint32_t number,
                       const char *type, const char *lc = nullptr)
{
   char text[kFileLockMemberSize];
   EXPECT_TRUE(FileLockFormatMemberText(machine, execution.c_str(), number, type, 0, lc, text));
   return std::string(text, sizeof text);
}

void WriteMember(const std::string &lockDir, const std::string &name, const std::string &text)
{
   mkdir(lockDir.c_str(), 0777);
   WriteFile(lockDir + "/" + name, text);
}

/* The execution id of a process that has ended. */
std::string DeadExecutionID()
{
   pid_t child = fork();
   if (child == 0) {
      _exit(0);
   }
   waitpid(child, nullptr, 0);
   return std::to_string(child) + "-1234";
}

/* One timed attempt at the lock; a lock it got is released when the attempt goes. */
struct Attempt {
   FileLockToken *token;
   int err;
   long ms;
   ~Attempt()
   {
      if (token != nullptr) {
         EXPECT_TRUE(FileLock_Unlock(token, &err, nullptr));
      }
   }
};

Attempt TryLock(const std::string &path, bool shared, uint32_t waitMs)
{
   auto start = std::chrono::steady_clock::now();
   int err = 0;
   FileLockToken *token = FileLock_Lock(path.c_str(), shared, waitMs, &err, nullptr);
   auto elapsed = std::chrono::steady_clock::now() - start;
   return {token, err, std::chrono::duration_cast<std::chrono::milliseconds>(elapsed).count()};
}

}  // namespace

TEST(FileLockMember, TextsAcceptedAndRefused)
{
   struct Case {
      const char *text;
      bool ok;
      const char *execution = nullptr;
      uint32_t number = 0;
      const char *lc = nullptr;  // nullptr: no "lc" field
   };
   const Case cases[] = {
       {"uuid=ab 12-345 7 X 345 lc=99", true, "12-345", 7, "99"},
       {"uuid=ab 12-345 7 S 345", true, "12-345", 7},
       {"uuid=ab  12-345   7 X 345 a=b lc=1", true, "12-345", 7, "1"},
       // The older form gains the start time in its execution id.
       {"Zm9vYmFyYmF6cXV4 4242 3 X 777 lc=5", true, "4242-777", 3, "5"},
       {"m 4242 3 X 777 other=5", true, "4242-777", 3},
       {"m 12-345 7 X 1 a=1 b=2 c=3 d=4 e=5 f=6 g=7 h=8 i=9 j=10 k=11", true, "12-345", 7},
       {"m 12-345 7 X 1 a=1 b=2 c=3 d=4 e=5 f=6 g=7 h=8 i=9 j=10 k=11 l=12", false},
       {"m 12-345 7 X", false},
       {"m 12-345 7 Y 1", false},
       {"m 12-345 7 XX 1", false},
       {"m 12-345 seven X 1", false},
       {"m 12-345 7 X 1 lc", false},
       {"m 12-345 7 X 1 =5", false},
       {"m 12-345 7 X 1 lc=", false},
       {"", false}};
   for (const Case &c : cases) {
      SCOPED_TRACE(c.text);
      FileLockMemberValues values;
      std::vector<std::string> argv;
      std::string buffer(c.text);
      buffer.resize(kFileLockMemberSize, '\0');
      ASSERT_EQ(FileLockParseMemberText(buffer.data(), buffer.size(), &values, &argv), c.ok);
      if (c.ok) {
         EXPECT_EQ(values.executionID, c.execution);
         EXPECT_EQ(values.lamportNumber, c.number);
         EXPECT_EQ(values.hasLocationChecksum, c.lc != nullptr);
         EXPECT_EQ(values.locationChecksum, c.lc != nullptr ? c.lc : "");
      }
   }
   char out[kFileLockMemberSize];
   EXPECT_FALSE(
       FileLockFormatMemberText(std::string(600, 'm').c_str(), "1-2", 1, "X", 2, nullptr, out));
}

TEST(FileLockMember, NamesChecksumsAndIdentities)
{
   // Longer numbers pass too.
   for (auto [name, valid] : {std::pair{"M00000.lck", true},
                              {"D65535.lck", true},
                              {"E123456789.lck", true},
                              {"X00000.lck", false},
                              {"M0000a.lck", false},
                              {"M00000.lock", false},
                              {"M0000", false}}) {
      EXPECT_EQ(FileLockValidName(name), valid) << name;
   }
   EXPECT_EQ(testsupport::Take(FileLockLocationChecksum("")), "5381");
   EXPECT_EQ(testsupport::Take(FileLockLocationChecksum("/a\xc3")),  // bytes count as signed
             std::to_string(((5381u * 33 + '/') * 33 + 'a') * 33 + 0xFFFFFFC3u));

   const char *mine = FileLockGetMachineID();
   EXPECT_EQ(std::string(mine).rfind("uuid=", 0), 0u);
   EXPECT_EQ(strchr(mine, ' '), nullptr);
   const char *old = FileLockGetOldMachineID();
   EXPECT_EQ(strlen(old), 16u);
   EXPECT_EQ(strchr(old, '/'), nullptr);

   EXPECT_TRUE(FileLockMachineIDMatch(mine, mine));
   EXPECT_FALSE(FileLockMachineIDMatch(mine, kOtherMachine));
   EXPECT_FALSE(FileLockMachineIDMatch(old, mine));  // only theirs is a uuid
   EXPECT_TRUE(FileLockMachineIDMatch("abc", "abc"));
   EXPECT_TRUE(FileLockMachineIDMatch(mine, old));  // older form of this host
   LogCapture log;
   EXPECT_FALSE(FileLockMachineIDMatch(mine, "AAAAAAAAAAAAAAAAAAAA"));
   EXPECT_NE(log.Text().find("OldMachineIDMatch: unexpected decode problem #2"), std::string::npos);

   // A bare process id means start time 0; another start time means the id was reused.
   std::string pid = std::to_string(getpid());
   for (auto [id, valid] : {std::pair{testsupport::Take(FileLockGetExecutionID()), true},
                            {pid, true},
                            {pid + "-0", true},
                            {pid + "-1", false},
                            {DeadExecutionID(), false},
                            {"garbage", true},
                            {"-5", true}}) {
      EXPECT_EQ(FileLockValidExecutionID(id.c_str()), valid) << id;
   }
   EXPECT_NE(log.Text().find("FILE: FileLockValidExecutionID parse error on 'garbage'. "
                             "Assuming valid.\n"),
             std::string::npos);
}

TEST(FileLock, LockUnlockAndIsLocked)
{
   ScratchDir dir;
   std::string path = dir / "data";
   int err = -1;
   EXPECT_FALSE(FileLock_IsLocked(path.c_str(), &err, nullptr));
   EXPECT_EQ(err, 0);
   FileLockToken *token = FileLock_Lock(path.c_str(), false, 0, &err, nullptr);
   ASSERT_NE(token, nullptr);
   EXPECT_EQ(err, 0);
   EXPECT_TRUE(FileLock_IsLocked(path.c_str(), &err, nullptr));
   // A second locker in this process waits like anybody else.
   {
      Attempt second = TryLock(path, true, 0);
      EXPECT_EQ(second.token, nullptr);
      EXPECT_EQ(second.err, EAGAIN);
      EXPECT_LT(second.ms, 100);
   }
   EXPECT_TRUE(FileLock_Unlock(token, &err, nullptr));
   EXPECT_FALSE(Exists(path + ".lck"));
   EXPECT_FALSE(FileLock_IsLocked(path.c_str(), &err, nullptr));

   // A relative path is locked by its full name.
   ASSERT_EQ(chdir(dir.Path().c_str()), 0);
   token = FileLock_Lock("rel", true, 0, &err, nullptr);
   ASSERT_NE(token, nullptr);
   EXPECT_TRUE(Exists(dir / "rel.lck"));
   EXPECT_TRUE(FileLock_IsLocked((dir / "rel").c_str(), &err, nullptr));
   EXPECT_TRUE(FileLock_Unlock(token, &err, nullptr));
   ASSERT_EQ(chdir("/"), 0);
}

/* Who goes first: the smaller number, then the smaller member file name; shared with shared. */
TEST(FileLock, OrderByNumberThenName)
{
   const std::tuple<uint32_t, const char *, const char *, const char *, bool> cases[] = {
       {4, "M00009.lck", "X", "X", true},  {6, "M00001.lck", "X", "X", false},
       {5, "M00001.lck", "X", "X", true},  {5, "M00003.lck", "X", "X", false},
       {5, "M00002.lck", "X", "X", false}, {4, "M00009.lck", "S", "S", false},
       {4, "M00009.lck", "S", "X", true},  {4, "M00009.lck", "X", "S", true},
       {5, "M00001.lck", "S", "S", false}};
   char myName[] = "M00002.lck";
   for (const auto &[number, name, theirType, myType, waits] : cases) {
      FileLockMemberValues member;
      member.machineID = kOtherMachine;
      member.executionID = "999-1";
      member.lockType = theirType;
      member.memberName = name;
      member.lamportNumber = number;
      LockValues my{};
      my.machineID = const_cast<char *>(FileLockGetMachineID());
      my.lockType = myType;
      my.memberName = myName;
      my.lamportNumber = 5;
      my.msecMaxWaitTime = FILELOCK_TRY_LOCK;  // a wait shows as EAGAIN at once
      EXPECT_EQ(FileLockWaitForPossession("/nonexistent.lck", name, &member, &my),
                waits ? EAGAIN : 0)
          << number << " " << name << " " << theirType << " " << myType;
   }
}

/* Members written by hand: who goes first, and which kinds coexist. */
TEST(FileLock, OrderAndConflicts)
{
   ScratchDir dir;
   std::string path = dir / "data";
   std::string lockDir = path + ".lck";
   const std::tuple<const char *, bool, bool> cases[] = {
       {"X", false, false}, {"X", true, false}, {"S", false, false}, {"S", true, true}};
   for (const auto &[theirs, shared, granted] : cases) {
      SCOPED_TRACE(std::string(theirs) + (shared ? " shared" : " exclusive"));
      WriteMember(lockDir, "M00007.lck", MemberText(kOtherMachine, "999-1", 41, theirs));
      Attempt a = TryLock(path, shared, 300);
      EXPECT_EQ(a.token != nullptr, granted);
      EXPECT_EQ(a.err, granted ? 0 : EAGAIN);
      EXPECT_TRUE(granted ? a.ms < 150 : a.ms >= 300) << a.ms;
      EXPECT_TRUE(Exists(lockDir + "/M00007.lck")) << "another machine's member is left alone";
   }
   // A member file reads back with its name and values.
   WriteMember(lockDir, "M00007.lck", MemberText(kOtherMachine, "999-1", 0, "S"));
   FileLockMemberValues values;
   ASSERT_EQ(FileLockMemberValuesRead(lockDir.c_str(), "M00007.lck", &values), 0);
   EXPECT_EQ(values.memberName, "M00007.lck");
   EXPECT_EQ(values.machineID, kOtherMachine);
}

TEST(FileLock, TimeoutMessagesAndMaximumWaitZero)
{
   ScratchDir dir;
   std::string path = dir / "data";
   WriteMember(path + ".lck", "M00001.lck", MemberText(kOtherMachine, "999-1", 3, "X"));
   MsgList *msgs = nullptr;
   int err = 0;
   LogCapture log;
   EXPECT_EQ(FileLock_Lock(path.c_str(), false, 0, &err, &msgs), nullptr);
   EXPECT_EQ(err, EAGAIN);
   EXPECT_STREQ(MsgList_GetMsgID(msgs), "msg.fileLock.posix");
   EXPECT_NE(testsupport::Take(MsgList_ToString(msgs))
                 .find("A file locking error (" + std::to_string(EAGAIN) + ") has occurred: "),
             std::string::npos);
   MsgList_Free(msgs);
   EXPECT_EQ(log.Text().find("timeout"), std::string::npos) << "a zero wait logs nothing";

   // A local holder that stays alive: the timeout names the process.
   WriteMember(path + ".lck", "M00001.lck", MemberText(FileLockGetMachineID(), "1-0", 3, "X"));
   EXPECT_EQ(TryLock(path, true, 200).token, nullptr);
   EXPECT_NE(log.Text().find("FILE: FileLockWaitForPossession timeout on '" + path +
                             ".lck/M00001.lck' due to a local process '1-0'\n"),
             std::string::npos)
       << log.Text();
}

/*
 * Files of others that are removed at once: bad sizes, bad contents, bad names, holders on this
 * machine whose process is gone, and members of this process that carry another location (the
 * lock directory was moved).
 */
TEST(FileLock, ProblematicAndStaleMembersAreRemoved)
{
   ScratchDir dir;
   std::string path = dir / "data";
   std::string lockDir = path + ".lck";
   std::string text = MemberText(kOtherMachine, "999-1", 3, "X");
   const char *mine = FileLockGetMachineID();
   std::string moved = testsupport::Take(FileLockLocationChecksum("/elsewhere/data.lck"));
   struct Case {
      std::string name, bytes, log;
   } const cases[] = {
       {"M00001.lck", text.substr(0, 511), "removing problematic lock file"},
       {"M00001.lck", text + "x", "removing problematic lock file"},
       {"M00001.lck", std::string("m 1-2 3 Q 5").append(501, '\0'), "argv[3]: 'Q'"},
       {"junk", "x",
        "FILE: FileLockScanDirectory discarding junk from " + lockDir + "'; invalid file name.\n"},
       {"M00002.lck", MemberText(mine, DeadExecutionID(), 9, "X"),
        "discarding M00002.lck from " + lockDir + "': invalid executionID"},
       {"M00003.lck",
        MemberText(mine, testsupport::Take(FileLockGetExecutionID()), 9, "X", moved.c_str()),
        "M00003.lck from " + lockDir + "': lock file has been moved."},
   };
   for (const Case &c : cases) {
      SCOPED_TRACE(c.log);
      WriteMember(lockDir, c.name, c.bytes);
      LogCapture log;
      Attempt a = TryLock(path, false, 2000);
      ASSERT_NE(a.token, nullptr);
      EXPECT_LT(a.ms, 150);
      EXPECT_NE(log.Text().find(c.log), std::string::npos) << log.Text();
      EXPECT_FALSE(Exists(lockDir + "/" + c.name));
   }

   // A file where the lock directory belongs is replaced by the directory.
   WriteFile(lockDir, "not a directory");
   LogCapture log;
   int err = 0;
   FileLockToken *token = FileLock_Lock(path.c_str(), false, 0, &err, nullptr);
   ASSERT_NE(token, nullptr);
   EXPECT_NE(log.Text().find("FILE: FileLockCreateEntryDirectory: '" + lockDir +
                             "' is not a directory. Removed.\n"),
             std::string::npos);
   FileLock_Unlock(token, &err, nullptr);
}

/* An entry directory left by a chooser that died is discarded after about 8.4 s of watching. */
TEST(FileLock, AbandonedChoosingFlagAgesOut)
{
   ScratchDir dir;
   std::string path = dir / "data";
   std::string lockDir = path + ".lck";
   mkdir(lockDir.c_str(), 0777);
   mkdir((lockDir + "/D04242.lck").c_str(), 0777);
   WriteFile(lockDir + "/E04242.lck", "partial");
   LogCapture log;
   Attempt a = TryLock(path, false, 20000);
   ASSERT_NE(a.token, nullptr);
   EXPECT_GE(a.ms, 8000);
   EXPECT_LT(a.ms, 10000);
   EXPECT_NE(log.Text().find("FILE: FileLockScanner discarding D04242.lck data from '" + lockDir +
                             "'.\n"),
             std::string::npos);
   EXPECT_FALSE(Exists(lockDir + "/D04242.lck"));
   EXPECT_FALSE(Exists(lockDir + "/E04242.lck"));
}

/* On a read-only file system a shared lock is implicit and an exclusive one fails. */
TEST(FileLock, ReadOnlyPlaces)
{
   if (geteuid() != 0) {
      GTEST_SKIP() << "needs root to mount a read-only file system";
   }
   ScratchDir dir;
   std::string mnt = dir / "ro";
   std::string path = mnt + "/data";
   ASSERT_EQ(mkdir(mnt.c_str(), 0755), 0);
   ASSERT_EQ(mount("tmpfs", mnt.c_str(), "tmpfs", 0, "size=64k"), 0) << strerror(errno);
   WriteFile(path, "x");
   ASSERT_EQ(mount(nullptr, mnt.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
   LogCapture log;
   int err = 0;
   FileLockToken *token = FileLock_Lock(path.c_str(), true, 1000, &err, nullptr);
   ASSERT_NE(token, nullptr);
   EXPECT_NE(log.Text().find("FILE: FileLockIntrinsicPortable implicit S lock succeeded on '" +
                             path + "'.\n"),
             std::string::npos);
   EXPECT_TRUE(FileLock_Unlock(token, &err, nullptr));
   EXPECT_EQ(FileLock_Lock(path.c_str(), false, 1000, &err, nullptr), nullptr);
   EXPECT_EQ(err, EROFS);
   // FileIO: a read-only open with the lock works; a write open's lock fails as "lock failed".
   FileIODescriptor fd;
   EXPECT_EQ(
       FileIO_Open(&fd, path.c_str(), FILEIO_OPEN_ACCESS_READ | FILEIO_OPEN_LOCKED, FILEIO_OPEN),
       FILEIO_SUCCESS);
   FileIO_Close(&fd);
   EXPECT_EQ(
       FileIO_Open(&fd, path.c_str(),
                   FILEIO_OPEN_ACCESS_READ | FILEIO_OPEN_ACCESS_WRITE | FILEIO_OPEN_LOCK_ADVISORY,
                   FILEIO_OPEN),
       FILEIO_LOCK_FAILED);
   EXPECT_EQ(umount2(mnt.c_str(), MNT_DETACH), 0);
}

TEST(FileLock, FileIOOpensWithTheLock)
{
   ScratchDir dir;
   std::string path = dir / "data";
   FileIODescriptor fd;
   ASSERT_EQ(FileIO_Open(&fd, path.c_str(), FILEIO_OPEN_ACCESS_WRITE | FILEIO_OPEN_LOCKED,
                         FILEIO_OPEN_CREATE),
             FILEIO_SUCCESS);
   EXPECT_NE(fd.lockToken, nullptr);
   int err = 0;
   EXPECT_TRUE(FileLock_IsLocked(path.c_str(), &err, nullptr));
   // A second open waits its 3.5 s and reports the timeout as a generic error.
   LogCapture log;
   FileIODescriptor second;
   auto start = std::chrono::steady_clock::now();
   EXPECT_EQ(FileIO_Open(&second, path.c_str(), FILEIO_OPEN_ACCESS_READ | FILEIO_OPEN_LOCKED,
                         FILEIO_OPEN),
             FILEIO_ERROR);
   EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(3500));
   EXPECT_NE(
       log.Text().find("Warning: FILE: FileIO_Lock on '" + path + "' failed: " + strerror(EAGAIN)),
       std::string::npos);
   EXPECT_FALSE(FileIO_Close(&fd));
   EXPECT_FALSE(FileLock_IsLocked(path.c_str(), &err, nullptr));
   EXPECT_FALSE(Exists(path + ".lck"));
}
