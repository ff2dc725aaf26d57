/*
 * The privileged helper end to end: the example helper and test clients as real processes,
 * plus the pidfd identity check in process.
 */
#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>

#include <chrono>

#include "codesignTestSupport.h"
#include "privilegedHelperInt.h"
#include "testSupport.h"

namespace {

using testsupport::ReadFile;
using testsupport::ScratchDir;
using testsupport::WriteFile;

const char kService[] = "com.tesmar.test.helper";
const char kClientId[] = "com.tesmar.test.client";

std::string Requirement(const std::string &identifier)
{
   return "identifier \"" + identifier +
          "\" and anchor apple generic and anchor trusted and "
          "cert leaf[subject.CN] = *\"Tesmar, Inc.\"*";
}

std::string InfoPlist(const std::string &body)
{
   return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>" + body +
          "</dict></plist>\n";
}

std::string AllowedClients(const std::vector<std::string> &requirements)
{
   std::string body = "<key>XPCService</key><dict><key>_AllowedClients</key><array>";
   for (const std::string &requirement : requirements) {
      body += "<string>" + requirement + "</string>";
   }
   return InfoPlist(body + "</array></dict>");
}

// The binary encoding of node, which is freed.
std::string Encode(plist_t node)
{
   char *raw = nullptr;
   uint32_t length = 0;
   plist_to_bin(node, &raw, &length);
   std::string bytes(raw, length);
   plist_to_bin_free(raw);
   plist_free(node);
   return bytes;
}

// The first three share the order of cstest::Signer.
enum class Signer { kMaker, kForeign, kUntrusted, kNone, kAltered };

// A copy of the test client, signed as identifier by signer.
std::string ClientCopy(const ScratchDir &dir, const std::string &name,
                       const std::string &identifier, Signer signer = Signer::kMaker)
{
   std::string path = dir / name;
   std::filesystem::copy_file(CLIENT_PROGRAM, path);
   if (signer == Signer::kNone) {
      return path;
   }
   bool altered = signer == Signer::kAltered;
   EXPECT_TRUE(
       cstest::Sign(path, identifier, altered ? cstest::Signer::kMaker : (cstest::Signer)signer));
   if (altered) {
      // One letter of a message text changed: the program still runs, its signature fails.
      std::string bytes = ReadFile(path);
      size_t at = bytes.rfind(std::string("connect\0", 8));  // the perror text, not the symbol
      EXPECT_NE(std::string::npos, at);
      bytes[at] = 'C';
      WriteFile(path, bytes);
   }
   return path;
}

pid_t Spawn(const std::vector<std::string> &args, const std::string &output)
{
   pid_t pid = fork();
   if (pid == 0) {
      dup2(open(output.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644), 1);
      testsupport::ExecOrExit(args);
   }
   return pid;
}

// Waits for a process this test started, killing it after boundMs; its exit status or -1.
int WaitBounded(pid_t pid, int boundMs)
{
   auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(boundMs);
   int status = 0;
   while (waitpid(pid, &status, WNOHANG) == 0) {
      if (std::chrono::steady_clock::now() > deadline) {
         kill(pid, SIGKILL);
         waitpid(pid, &status, 0);
         return -1;
      }
      usleep(2000);
   }
   return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

size_t Count(const std::string &text, const std::string &what)
{
   size_t count = 0;
   for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) {
      count++;
   }
   return count;
}

class Helper {
  public:
   Helper(const ScratchDir &dir, const std::string &infoPlist, std::vector<std::string> extra = {})
       : log_(dir / "helper.log"), socket_(dir / kService)
   {
      WriteFile(dir / "Info.plist", infoPlist);
      std::vector<std::string> args = {HELPER_PROGRAM, "--run-dir", dir.Path(), "--info-plist",
                                       dir / "Info.plist"};
      args.insert(args.end(), extra.begin(), extra.end());
      args.push_back(kService);
      struct stat before = {};
      stat(socket_.c_str(), &before);
      pid_ = Spawn(args, log_);
      // Ready when a new socket file is in place (a stale one may be there before).
      struct stat now = {};
      for (int i = 0; i < 2000 && (stat(socket_.c_str(), &now) != 0 || now.st_ino == before.st_ino);
           i++) {
         usleep(1000);
      }
   }
   ~Helper()
   {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
   }
   const std::string &Socket() const { return socket_; }
   pid_t Pid() const { return pid_; }
   std::string Log() const { return testsupport::StripStamps(ReadFile(log_)); }
   // The log once it holds count lines with text (it may lag the clients' exits a little).
   std::string LogWith(const std::string &text, size_t count = 1) const
   {
      std::string log = Log();
      for (int i = 0; i < 10000 && Count(log, text) < count; i++) {
         usleep(1000);
         log = Log();
      }
      return log;
   }
   // Runs a client to its end (bounded) and returns its exit status.
   int Run(const std::vector<std::string> &args, int boundMs = 20000) const
   {
      return WaitBounded(Start(args), boundMs);
   }
   pid_t Start(const std::vector<std::string> &args) const { return Spawn(args, log_ + ".client"); }

  private:
   std::string log_;
   std::string socket_;
   pid_t pid_;
};

// The pidfd binds the checked executable to the process that connected.
TEST(HelperIdentity, PidfdRefusesAnotherOrAnEndedProcess)
{
   pid_t pids[2];
   for (pid_t &pid : pids) {
      if ((pid = fork()) == 0) {
         pause();
         _exit(0);
      }
   }
   auto [first, second] = pids;
   int pidfd = (int)syscall(SYS_pidfd_open, first, 0);
   ASSERT_GE(pidfd, 0);
   EXPECT_TRUE(PrivilegedHelperPidfdNames(pidfd, first));
   int exe = PrivilegedHelperOpenClientExe(pidfd, first);
   EXPECT_GE(exe, 0);
   close(exe);

   // Another live process under the checked pid (as after reuse) is refused.
   EXPECT_FALSE(PrivilegedHelperPidfdNames(pidfd, second));
   errno = 0;
   EXPECT_EQ(-1, PrivilegedHelperOpenClientExe(pidfd, second));
   EXPECT_EQ(ESRCH, errno);

   // So is the process once it has ended, reaped or not.
   kill(first, SIGKILL);
   siginfo_t info;
   waitid(P_PID, first, &info, WEXITED | WNOWAIT);
   EXPECT_FALSE(PrivilegedHelperPidfdNames(pidfd, first));
   waitpid(first, nullptr, 0);
   EXPECT_FALSE(PrivilegedHelperPidfdNames(pidfd, first));
   close(pidfd);
   kill(second, SIGKILL);
   waitpid(second, nullptr, 0);
}

TEST(HelperAdmission, AcceptsOnlyAllowedClients)
{
   const std::string refused = "Warning: Validation failed. Canceling connection.\n";
   const std::string two = AllowedClients({Requirement("other"), Requirement(kClientId)});
   const struct {
      const char *name;
      std::string infoPlist;
      const char *clientId;
      Signer signer;
      int clientStatus;
      std::string failures;  // the "Failed validation" lines' status codes, in order
      std::vector<std::string> logLines;
   } rows[] = {
       {"second requirement", two, kClientId, Signer::kMaker, 0, "5", {}},
       {"unsigned", two, kClientId, Signer::kNone, 3, "11", {refused}},
       {"wrong identifier", two, "com.tesmar.test.other", Signer::kMaker, 3, "55", {refused}},
       {"untrusted signer", two, kClientId, Signer::kUntrusted, 3, "56", {refused}},
       {"foreign signer", two, kClientId, Signer::kForeign, 3, "57", {refused}},
       {"altered", two, kClientId, Signer::kAltered, 3, "44", {refused}},
       {"unparsable requirement",
        AllowedClients({"identifier", Requirement(kClientId)}),
        kClientId,
        Signer::kMaker,
        0,
        "-",
        {}},
       {"empty array", AllowedClients({}), kClientId, Signer::kMaker, 3, "", {refused}},
       {"no XPCService",
        InfoPlist("<key>CFBundleIdentifier</key><string>x</string>"),
        kClientId,
        Signer::kMaker,
        3,
        "",
        {": Unable to find XPCService dictionary.\n", refused}},
       {"no _AllowedClients",
        InfoPlist("<key>XPCService</key><dict/>"),
        kClientId,
        Signer::kMaker,
        3,
        "",
        {": Unable to find _AllowedClients array.\n", refused}},
       {"not an array",
        InfoPlist("<key>XPCService</key><dict><key>_AllowedClients</key><string>" +
                  Requirement(kClientId) + "</string></dict>"),
        kClientId,
        Signer::kMaker,
        3,
        "",
        {": Unexpected _AllowedClients type.\n", refused}},
       {"unreadable Info.plist",
        "not a property list",
        kClientId,
        Signer::kMaker,
        3,
        "",
        {": Unable to find XPCService dictionary.\n", refused}},
   };
   for (const auto &row : rows) {
      SCOPED_TRACE(row.name);
      ScratchDir dir;
      Helper helper(dir, row.infoPlist);
      std::string client = ClientCopy(dir, "client", row.clientId, row.signer);
      pid_t pid = helper.Start({client, "echo", helper.Socket(), "3"});
      EXPECT_EQ(row.clientStatus, WaitBounded(pid, 20000));
      std::vector<std::string> lines = row.logLines;
      lines.push_back(": Received connection from " + client + "\n");
      if (row.clientStatus == 0) {
         char closed[64];  // the pid column is five wide
         snprintf(closed, sizeof closed, "%5d: Connection closed by client.\n", (int)pid);
         lines.push_back(closed);
      }
      std::string log = helper.LogWith(lines.back());
      EXPECT_EQ(0u, log.find(std::string("Starting service: ") + kService + "\n")) << log;
      for (const std::string &line : lines) {
         EXPECT_NE(std::string::npos, log.find(line)) << log;
      }
      // One line per failed requirement, in array order, with its status.
      std::string failures;
      const std::string failed = ": Failed validation. (";
      for (size_t at = log.find(failed); at != std::string::npos; at = log.find(failed, at + 1)) {
         failures += log[at + failed.size()];
      }
      EXPECT_EQ(row.failures, failures) << log;
   }
}

// A client that becomes another program, or lends its connection to another process, loses it.
TEST(HelperIdentity, ConnectionDoesNotOutliveTheCheckedProgram)
{
   ScratchDir dir;
   Helper helper(dir, AllowedClients({Requirement(kClientId)}));
   std::string signedClient = ClientCopy(dir, "client", kClientId);
   std::string unsignedClient = ClientCopy(dir, "other", kClientId, Signer::kNone);
   EXPECT_EQ(3, helper.Run({signedClient, "exec", helper.Socket(), unsignedClient, "2"}));
   EXPECT_EQ(3, helper.Run({signedClient, "fork", helper.Socket(), "2"}));
   std::string log = helper.Log();
   // The exec may land before the check (refused there) or after it (refused at the message).
   EXPECT_EQ(2u, Count(log, "Message from a process other than the validated client\n") +
                     Count(log, "Validation failed. Canceling connection.\n"))
       << log;
   // The same program re-executing itself keeps its connection.
   EXPECT_EQ(0, helper.Run({signedClient, "exec", helper.Socket(), signedClient, "2"}));
}

TEST(HelperService, PassesDescriptorsAndReplacesOnlyStaleSockets)
{
   ScratchDir dir;
   int stale = socket(AF_UNIX, SOCK_SEQPACKET, 0);  // left bound by an earlier run
   struct sockaddr_un addr = {};
   addr.sun_family = AF_UNIX;
   snprintf(addr.sun_path, sizeof addr.sun_path, "%s", (dir / kService).c_str());
   ASSERT_EQ(0, bind(stale, (const struct sockaddr *)&addr, sizeof addr));
   close(stale);

   Helper helper(dir, AllowedClients({Requirement(kClientId)}), {"--mode", "0660"});
   EXPECT_EQ(0, helper.Run({ClientCopy(dir, "client", kClientId), "passfd", helper.Socket()}));
   struct stat st;
   ASSERT_EQ(0, stat(helper.Socket().c_str(), &st));
   EXPECT_EQ(0660u, st.st_mode & 0777);

   // A second helper for the same name leaves the first alone.
   std::string second = dir / "second.log";
   EXPECT_EQ(1,
             WaitBounded(Spawn({HELPER_PROGRAM, "--run-dir", dir.Path(), kService}, second), 5000));
   EXPECT_NE(std::string::npos, ReadFile(second).find("Another helper already serves"));

   // A file that is not a socket is never replaced.
   ScratchDir other;
   WriteFile(other / kService, "keep me");
   EXPECT_EQ(1, WaitBounded(Spawn({HELPER_PROGRAM, "--run-dir", other.Path(), kService},
                                  other / "helper.log"),
                            5000));
   EXPECT_EQ("keep me", ReadFile(other / kService));
}

// A dictionary whose encoding is exactly size bytes (the data length steps the header size).
std::string EncodedDictOfSize(size_t size)
{
   for (size_t pad = 0; pad < 32; pad++) {
      size_t blob = size - 100;
      for (int round = 0; round < 4; round++) {
         plist_t dict = plist_new_dict();
         std::string filler(blob, 'a');
         plist_dict_set_item(dict, "d", plist_new_data(filler.data(), filler.size()));
         plist_dict_set_item(dict, "p", plist_new_string(std::string(pad, 'p').c_str()));
         std::string bytes = Encode(dict);
         if (bytes.size() == size) {
            return bytes;
         }
         blob = blob + size - bytes.size();
      }
   }
   return {};
}

TEST(HelperHostile, ServesOthersThroughHostilePeers)
{
   ScratchDir dir;
   Helper helper(dir, AllowedClients({Requirement(kClientId)}), {"--reply-timeout", "300"});
   std::string client = ClientCopy(dir, "client", kClientId);

   // Silent connections and a client that never reads its replies, while others are served.
   pid_t silent = helper.Start({client, "silent", helper.Socket(), "200", "3000"});
   pid_t noread = helper.Start({client, "noread", helper.Socket(), "3000", "3000"});
   helper.LogWith("Received connection from", 201);

   std::string atLimit = EncodedDictOfSize(PRIVILEGED_HELPER_MAX_MESSAGE);
   ASSERT_EQ((size_t)PRIVILEGED_HELPER_MAX_MESSAGE, atLimit.size());
   const struct {
      const char *name;
      std::string bytes;
      int status;  // 0 a reply came, 3 the helper ended the connection, 5 it stayed open
      const char *logLine;
   } rows[] = {
       {"garbage", "this is not a property list", 3, "Malformed message\n"},
       {"header only", "bplist00", 3, "Malformed message\n"},
       {"truncated", atLimit.substr(0, 4000), 3, "Malformed message\n"},
       {"xml", InfoPlist(""), 3, "Malformed message\n"},
       {"array", Encode(plist_new_array()), 5, ": Connection received unexpected event type.\n"},
       {"at the limit", atLimit, 0, nullptr},
       {"over the limit", atLimit + "x", 3, "Message too large\n"},
   };
   for (const auto &row : rows) {
      SCOPED_TRACE(row.name);
      WriteFile(dir / "datagram", row.bytes);
      std::string line = row.logLine != nullptr ? row.logLine : "";
      size_t before = line.empty() ? 0 : Count(helper.Log(), line);
      EXPECT_EQ(row.status, helper.Run({client, "raw", helper.Socket(), dir / "datagram"}));
      if (!line.empty()) {  // a line of its own, not one left by an earlier row
         EXPECT_EQ(before + 1, Count(helper.LogWith(line, before + 1), line)) << helper.Log();
      }
      EXPECT_EQ(0, helper.Run({client, "echo", helper.Socket(), "20"}));
   }
   EXPECT_EQ(0, WaitBounded(noread, 10000));
   EXPECT_NE(std::string::npos, helper.Log().find("Client does not read replies\n"));
   EXPECT_EQ(0, WaitBounded(silent, 10000));
   EXPECT_EQ(0, helper.Run({client, "echo", helper.Socket(), "20"}));
#if !HELPER_TEST_SANITIZED  // the sanitizers' own memory would swamp the figure
   std::string status = ReadFile("/proc/" + std::to_string(helper.Pid()) + "/status");
   size_t at = status.find("VmRSS:");
   long rss = at == std::string::npos ? -1 : atol(status.c_str() + at + 6);
   EXPECT_GT(rss, 0);
   EXPECT_LT(rss, 64 * 1024) << "helper resident set in KiB";
#endif
}

TEST(HelperLoad, SixtyFourClientsOfAThousandMessages)
{
   ScratchDir dir;
   Helper helper(dir, AllowedClients({Requirement(kClientId)}));
   std::string client = ClientCopy(dir, "client", kClientId);
   // Instrumented builds check every client's signature many times slower: a smaller load
   // there keeps the run bounded, the full one runs in the plain build.
   const int kClients = HELPER_TEST_SANITIZED ? 16 : 64;
   const char *kMessages = HELPER_TEST_SANITIZED ? "200" : "1000";
   std::vector<pid_t> clients;
   for (int i = 0; i < kClients; i++) {
      clients.push_back(helper.Start({client, "echo", helper.Socket(), kMessages}));
   }
   // Each client checks its replies in order and that no reply comes twice.
   for (pid_t pid : clients) {
      EXPECT_EQ(0, WaitBounded(pid, 120000));
   }
   // The helper logs each end once.
   EXPECT_EQ((size_t)kClients, Count(helper.LogWith("Connection closed by client.\n", kClients),
                                     "Connection closed by client.\n"));
}

}  // namespace
