/*
 * The lock-file protocol's rules: the member text and its older form, machine and execution
 * identities, problematic and stale files, moved lock directories, read-only places, FileIO's
 * lock, and who goes first: the smaller number, then the smaller member name; shared with shared.
 */
#include <gmock/gmock.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <string>

#include "fileIO.h"
#include "fileLock.h"
#include "fileLockInt.h"
#include "msgList.h"
#include "testSupport.h"

using namespace testsupport;
using ::testing::HasSubstr;

namespace {

const char kOtherMachine[] = "uuid=52-00-00-00-00-00-00-00-00-00-00-00-00-00-00-01";
// A process that cannot exist: its id is above the largest one Linux hands out.
const char kDeadExecution[] = "4194305-1234";

/* Writes a member file into lockDir as another locker would. */
void WriteMember(const std::string &lockDir, const std::string &name, const char *machine,
                 const std::string &execution, const char *type, const char *lc = nullptr)
{
   char text[kFileLockMemberSize];
   EXPECT_TRUE(FileLockFormatMemberText(machine, execution.c_str(), 3, type, 0, lc, text));
   mkdir(lockDir.c_str(), 0777);
   WriteFile(lockDir + "/" + name, std::string(text, sizeof text));
}

/* One timed attempt at the lock; a lock it got is released when the attempt goes. */
struct Attempt {
   FileLockToken *token;
   int err;
   std::chrono::steady_clock::duration took;
   ~Attempt() { EXPECT_TRUE(token == nullptr || FileLock_Unlock(token, &err, nullptr)); }
};

Attempt TryLock(const std::string &path, bool shared, uint32_t waitMs, MsgList **msgs = nullptr)
{
   auto start = std::chrono::steady_clock::now();
   int err = 0;
   FileLockToken *token = FileLock_Lock(path.c_str(), shared, waitMs, &err, msgs);
   return {token, err, std::chrono::steady_clock::now() - start};
}

using std::chrono::milliseconds;

}  // namespace

TEST(FileLockMember, TextsAcceptedAndRefused)
{
   // Text, then the execution id, number and "lc" value read ("" for none), or "refused".
   const std::pair<const char *, const char *> cases[] = {
       {"uuid=ab 12-345 7 S 345", "12-345 7 "},
       {"uuid=ab  12-345   7 X 345 a=b lc=1", "12-345 7 1"},
       // The older form gains the start time in its execution id.
       {"Zm9vYmFyYmF6cXV4 4242 3 X 777 lc=5", "4242-777 3 5"},
       {"m 12-345 7 X 1 a=1 b=2 c=3 d=4 e=5 f=6 g=7 h=8 i=9 j=10 k=11", "12-345 7 "},
       {"m 12-345 7 X 1 a=1 b=2 c=3 d=4 e=5 f=6 g=7 h=8 i=9 j=10 k=11 l=12", "refused"},
       {"m 12-345 7 X", "refused"},
       {"m 12-345 seven X 1", "refused"},
       {"m 12-345 7 X 1 lc=", "refused"}};
   for (const auto &[text, expected] : cases) {
      FileLockMemberValues v;
      std::vector<std::string> argv;
      std::string buffer(text);
      buffer.resize(kFileLockMemberSize, '\0');
      bool ok = FileLockParseMemberText(buffer.data(), buffer.size(), &v, &argv);
      EXPECT_EQ(ok ? v.executionID + " " + std::to_string(v.lamportNumber) + " " +
                         (v.hasLocationChecksum ? v.locationChecksum : "")
                   : "refused",
                expected)
          << text;
   }
   char out[kFileLockMemberSize];
   EXPECT_FALSE(
       FileLockFormatMemberText(std::string(600, 'm').c_str(), "1-2", 1, "X", 2, nullptr, out));
}

TEST(FileLockMember, NamesChecksumsAndIdentities)
{
   for (const char *name : {"D65535.lck", "E123456789.lck"}) {  // longer numbers pass too
      EXPECT_TRUE(FileLockValidName(name)) << name;
   }
   for (const char *name : {"X00000.lck", "M0000a.lck", "M00000.lock"}) {
      EXPECT_FALSE(FileLockValidName(name)) << name;
   }
   EXPECT_EQ(Take(FileLockLocationChecksum("")), "5381");
   EXPECT_EQ(Take(FileLockLocationChecksum("/a\xc3")),  // bytes count as signed
             std::to_string(((5381u * 33 + '/') * 33 + 'a') * 33 + 0xFFFFFFC3u));

   const char *mine = FileLockGetMachineID();
   const char *old = FileLockGetOldMachineID();
   EXPECT_TRUE(strlen(old) == 16 && strchr(old, '/') == nullptr) << old;
   EXPECT_TRUE(FileLockMachineIDMatch(mine, mine));
   EXPECT_FALSE(FileLockMachineIDMatch(mine, kOtherMachine));
   EXPECT_FALSE(FileLockMachineIDMatch(old, mine));  // only theirs is a uuid
   EXPECT_TRUE(FileLockMachineIDMatch("abc", "abc"));
   EXPECT_TRUE(FileLockMachineIDMatch(mine, old));  // older form of this host
   LogCapture log;
   EXPECT_FALSE(FileLockMachineIDMatch(mine, "AAAAAAAAAAAAAAAAAAAA"));
   EXPECT_THAT(log.Text(), HasSubstr("OldMachineIDMatch: unexpected decode problem #2"));

   // A bare process id means start time 0; another start time means the id was reused.
   std::string pid = std::to_string(getpid());
   for (auto [id, valid] : {std::pair{Take(FileLockGetExecutionID()), true},
                            {pid, true},
                            {pid + "-0", true},
                            {pid + "-1", false},
                            {kDeadExecution, false},
                            {"garbage", true},
                            {"-5", true}}) {
      EXPECT_EQ(FileLockValidExecutionID(id.c_str()), valid) << id;
   }
   EXPECT_THAT(log.Text(), HasSubstr("FILE: FileLockValidExecutionID parse error on 'garbage'. "
                                     "Assuming valid.\n"));
}

TEST(FileLock, LockUnlockAndIsLocked)
{
   // A relative path is locked by its full name.
   ScratchDir dir;
   int err = -1;
   EXPECT_FALSE(FileLock_IsLocked((dir / "rel").c_str(), &err, nullptr));
   ASSERT_EQ(chdir(dir.Path().c_str()), 0);
   FileLockToken *token = FileLock_Lock("rel", false, 0, &err, nullptr);
   ASSERT_TRUE(token != nullptr && err == 0);
   EXPECT_TRUE(FileLock_IsLocked((dir / "rel").c_str(), &err, nullptr));
   EXPECT_TRUE(FileLock_Unlock(token, &err, nullptr));
   EXPECT_FALSE(FileLock_IsLocked((dir / "rel").c_str(), &err, nullptr));
   ASSERT_EQ(chdir("/"), 0);
}

TEST(FileLock, OrderByNumberThenNameAndKinds)
{
   // Another machine's member against ours (number 5, M00002.lck): must we wait for it?
   const std::tuple<uint32_t, const char *, const char *, const char *, bool> cases[] = {
       {4, "M00009.lck", "X", "X", true},  {6, "M00001.lck", "X", "X", false},
       {5, "M00001.lck", "X", "X", true},  {5, "M00003.lck", "X", "X", false},
       {4, "M00009.lck", "S", "S", false}, {4, "M00009.lck", "S", "X", true},
       {4, "M00009.lck", "X", "S", true}};
   char myName[] = "M00002.lck";
   for (const auto &[number, name, theirType, myType, waits] : cases) {
      FileLockMemberValues member;
      member.machineID = kOtherMachine;
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

TEST(FileLock, TimeoutMessagesAndMaximumWaitZero)
{
   ScratchDir dir;
   std::string path = dir / "data";
   WriteMember(path + ".lck", "M00001.lck", kOtherMachine, "999-1", "X");
   MsgList *msgs = nullptr;
   LogCapture log;
   Attempt zero = TryLock(path, false, 0, &msgs);
   EXPECT_TRUE(zero.token == nullptr && zero.err == EAGAIN && zero.took < milliseconds(100));
   EXPECT_STREQ(MsgList_GetMsgID(msgs), "msg.fileLock.posix");
   MsgList_Free(msgs);
   EXPECT_THAT(log.Text(), ::testing::Not(HasSubstr("timeout")));  // a zero wait logs nothing

   // A local holder that stays alive: the timeout names the process.
   WriteMember(path + ".lck", "M00001.lck", FileLockGetMachineID(), "1-0", "X");
   EXPECT_EQ(TryLock(path, true, 200).token, nullptr);
   EXPECT_THAT(log.Text(), HasSubstr("FILE: FileLockWaitForPossession timeout on '" + path +
                                     ".lck/M00001.lck' due to a local process '1-0'\n"));
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
   WriteMember(lockDir, "M00001.lck", kOtherMachine, "999-1", "X");
   std::string member = ReadFile(lockDir + "/M00001.lck");
   const std::tuple<std::string, std::string, std::string> files[] = {
       {"M00001.lck", member.substr(0, 511), "removing problematic lock file"},
       {"M00001.lck", member + "x", "removing problematic lock file"},
       {"M00001.lck", std::string("m 1-2 3 Q 5").append(501, '\0'), "argv[3]: 'Q'"},
       {"junk", "x",
        "FILE: FileLockScanDirectory discarding junk from " + lockDir + "'; invalid file name.\n"}};
   for (const auto &[name, bytes, message] : files) {
      mkdir(lockDir.c_str(), 0777);
      WriteFile(lockDir + "/" + name, bytes);
      LogCapture log;
      Attempt a = TryLock(path, false, 2000);
      EXPECT_TRUE(a.token != nullptr && a.took < milliseconds(150)) << message;
      EXPECT_THAT(log.Text(), HasSubstr(message));
      EXPECT_FALSE(Exists(lockDir + "/" + name));
   }
   // On this machine: a holder that is gone, and this process with another location.
   WriteMember(lockDir, "M00002.lck", FileLockGetMachineID(), kDeadExecution, "X");
   WriteMember(lockDir, "M00003.lck", FileLockGetMachineID(), Take(FileLockGetExecutionID()), "X",
               Take(FileLockLocationChecksum("/elsewhere/data.lck")).c_str());
   LogCapture log;
   EXPECT_NE(TryLock(path, false, 2000).token, nullptr);
   EXPECT_THAT(log.Text(), HasSubstr("M00002.lck from " + lockDir + "': invalid executionID"));
   EXPECT_THAT(log.Text(),
               HasSubstr("M00003.lck from " + lockDir + "': lock file has been moved."));
   EXPECT_FALSE(Exists(lockDir + "/M00002.lck") || Exists(lockDir + "/M00003.lck"));

   // A file where the lock directory belongs is replaced by the directory.
   rmdir(lockDir.c_str());
   WriteFile(lockDir, "not a directory");
   log.Clear();
   EXPECT_NE(TryLock(path, false, 0).token, nullptr);
   EXPECT_THAT(log.Text(), HasSubstr("FILE: FileLockCreateEntryDirectory: '" + lockDir +
                                     "' is not a directory. Removed.\n"));
}

/* An entry directory left by a chooser that died is discarded after about 8.4 s of watching. */
TEST(FileLock, AbandonedChoosingFlagAgesOut)
{
   ScratchDir dir;
   std::string lockDir = dir / "data.lck";
   mkdir(lockDir.c_str(), 0777);
   mkdir((lockDir + "/D04242.lck").c_str(), 0777);
   WriteFile(lockDir + "/E04242.lck", "partial");
   LogCapture log;
   Attempt a = TryLock(dir / "data", false, 20000);
   ASSERT_NE(a.token, nullptr);
   EXPECT_TRUE(a.took >= milliseconds(8000) && a.took < milliseconds(10000));
   EXPECT_THAT(log.Text(), HasSubstr("FILE: FileLockScanner discarding D04242.lck data from '" +
                                     lockDir + "'.\n"));
   EXPECT_FALSE(Exists(lockDir + "/D04242.lck") || Exists(lockDir + "/E04242.lck"));
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
   EXPECT_NE(TryLock(path, true, 1000).token, nullptr);
   EXPECT_THAT(
       log.Text(),
       HasSubstr("FILE: FileLockIntrinsicPortable implicit S lock succeeded on '" + path + "'.\n"));
   EXPECT_EQ(TryLock(path, false, 1000).err, EROFS);
   // FileIO: a read-only open with the lock works; a write open's lock fails as "lock failed".
   FileIODescriptor fd;
   const uint32_t kRead = FILEIO_OPEN_ACCESS_READ;
   EXPECT_EQ(FileIO_Open(&fd, path.c_str(), kRead | FILEIO_OPEN_LOCKED, FILEIO_OPEN),
             FILEIO_SUCCESS);
   FileIO_Close(&fd);
   EXPECT_EQ(FileIO_Open(&fd, path.c_str(),
                         kRead | FILEIO_OPEN_ACCESS_WRITE | FILEIO_OPEN_LOCK_ADVISORY, FILEIO_OPEN),
             FILEIO_LOCK_FAILED);
   EXPECT_EQ(umount2(mnt.c_str(), MNT_DETACH), 0);
}

TEST(FileLock, FileIOOpensWithTheLock)
{
   ScratchDir dir;
   std::string path = dir / "data";
   FileIODescriptor fd, second;
   ASSERT_EQ(FileIO_Open(&fd, path.c_str(), FILEIO_OPEN_ACCESS_WRITE | FILEIO_OPEN_LOCKED,
                         FILEIO_OPEN_CREATE),
             FILEIO_SUCCESS);
   // A second open waits its 3.5 s and reports the timeout as a generic error.
   LogCapture log;
   auto start = std::chrono::steady_clock::now();
   EXPECT_EQ(FileIO_Open(&second, path.c_str(), FILEIO_OPEN_ACCESS_READ | FILEIO_OPEN_LOCKED,
                         FILEIO_OPEN),
             FILEIO_ERROR);
   EXPECT_GE(std::chrono::steady_clock::now() - start, milliseconds(3500));
   EXPECT_THAT(log.Text(), HasSubstr("Warning: FILE: FileIO_Lock on '" + path +
                                     "' failed: " + strerror(EAGAIN)));
   EXPECT_FALSE(FileIO_Close(&fd));
   EXPECT_FALSE(Exists(path + ".lck"));
}
