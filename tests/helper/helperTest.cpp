/*
 * The privileged helper end to end: the example helper and test clients as real processes,
 * plus the pidfd identity check in process.
 */
#include <fcntl.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include <tuple>

#include "codesignTestSupport.h"
#include "privilegedHelperInt.h"
#include "testSupport.h"

namespace {

using testsupport::ReadFile;
using testsupport::ScratchDir;
using testsupport::WriteFile;

const char kService[] = "com.tesmar.test.helper";
const char kClientId[] = "com.tesmar.test.client";

const std::string kMakerReq =
    " and anchor apple generic and anchor trusted and cert leaf[subject.CN] = *\"Tesmar, Inc.\"*";
const std::string kClientReq = "identifier \"" + std::string(kClientId) + "\"" + kMakerReq;

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

// The first three share the order of cstest::Signer; kOtherName signs as another client.
enum class Signer { kMaker, kForeign, kUntrusted, kNone, kAltered, kOtherName };

// A copy of the test client, signed by signer.
std::string ClientCopy(const ScratchDir &dir, const std::string &name,
                       Signer signer = Signer::kMaker)
{
   std::string path = dir / name;
   std::filesystem::copy_file(CLIENT_PROGRAM, path);
   EXPECT_TRUE(
       signer == Signer::kNone ||
       cstest::Sign(path, signer == Signer::kOtherName ? "com.tesmar.test.other" : kClientId,
                    signer >= Signer::kAltered ? cstest::Signer::kMaker : (cstest::Signer)signer));
   if (signer == Signer::kAltered) {  // one letter of the perror text: it runs, its signature fails
      cstest::Edit(path, [](std::string &b) { b.at(b.rfind(std::string("connect\0", 8))) = 'C'; });
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
   int status = 0;
   for (int waited = 0; waitpid(pid, &status, WNOHANG) == 0; waited += 2) {
      if (waited >= boundMs && kill(pid, SIGKILL) == 0 && waitpid(pid, &status, 0) == pid) {
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

// The example helper serving kService from dir, killed at the end of the test.
struct Helper {
   Helper(const ScratchDir &dir, const std::string &infoPlist = AllowedClients({kClientReq}),
          std::vector<std::string> extra = {})
       : log(dir / "helper.log"), socket(dir / kService)
   {
      WriteFile(dir / "Info.plist", infoPlist);
      extra.insert(extra.begin(),
                   {HELPER_PROGRAM, "--run-dir", dir.Path(), "--info-plist", dir / "Info.plist"});
      extra.push_back(kService);
      struct stat before = {}, now = {};
      stat(socket.c_str(), &before);
      pid = Spawn(extra, log);
      // Ready when a new socket file is in place (a stale one may be there before).
      for (int i = 0; i < 2000 && (stat(socket.c_str(), &now) != 0 || now.st_ino == before.st_ino);
           i++) {
         usleep(1000);
      }
   }
   ~Helper() { (void)(kill(pid, SIGKILL) == 0 && waitpid(pid, nullptr, 0) == pid); }
   std::string Log() const { return testsupport::StripStamps(ReadFile(log)); }
   // The log once it holds count lines with text (it may lag the clients' exits a little).
   std::string LogWith(const std::string &text, size_t count = 1) const
   {
      for (int i = 0; i < 10000 && Count(Log(), text) < count; i++) {
         usleep(1000);
      }
      return Log();
   }
   pid_t Start(const std::vector<std::string> &args) const { return Spawn(args, log + ".client"); }
   // Runs a client to its end (bounded) and returns its exit status.
   int Run(const std::vector<std::string> &args) const { return WaitBounded(Start(args), 20000); }

   std::string log, socket;
   pid_t pid;
};

// The pidfd binds the checked executable to the process that connected.
TEST(HelperIdentity, PidfdRefusesAnotherOrAnEndedProcess)
{
   pid_t first = Spawn({"sleep", "60"}, "/dev/null"), second = Spawn({"sleep", "60"}, "/dev/null");
   int pidfd = (int)syscall(SYS_pidfd_open, first, 0);
   ASSERT_GE(pidfd, 0);
   EXPECT_EQ(0, close(PrivilegedHelperOpenClientExe(pidfd, first)));

   // Another live process under the checked pid (as after reuse) is refused.
   errno = 0;
   EXPECT_TRUE(PrivilegedHelperOpenClientExe(pidfd, second) == -1 && errno == ESRCH);

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
   const std::string two = AllowedClients({"identifier \"other\"" + kMakerReq, kClientReq});
   const std::string noDict = "<key>CFBundleIdentifier</key><string>x</string>";
   const std::string notArray = "<key>XPCService</key><dict><key>_AllowedClients</key><string>" +
                                kClientReq + "</string></dict>";
   // Info.plist, client, admitted, the first digit of each "Failed validation" line's status code
   // in order, a line logged before the refusal.
   const std::tuple<std::string, Signer, bool, std::string, const char *> rows[] = {
       {two, Signer::kMaker, true, "5", ""},
       {two, Signer::kNone, false, "11", ""},
       {two, Signer::kOtherName, false, "55", ""},
       {two, Signer::kUntrusted, false, "56", ""},
       {two, Signer::kForeign, false, "57", ""},
       {two, Signer::kAltered, false, "44", ""},
       {AllowedClients({"identifier", kClientReq}), Signer::kMaker, true, "-", ""},
       {AllowedClients({}), Signer::kMaker, false, "", ""},
       {InfoPlist(noDict), Signer::kMaker, false, "", ": Unable to find XPCService dictionary.\n"},
       {"not a property list", Signer::kMaker, false, "",
        ": Unable to find XPCService dictionary.\n"},
       {InfoPlist("<key>XPCService</key><dict/>"), Signer::kMaker, false, "",
        ": Unable to find _AllowedClients array.\n"},
       {InfoPlist(notArray), Signer::kMaker, false, "", ": Unexpected _AllowedClients type.\n"},
   };
   for (const auto &[infoPlist, signer, admitted, wantFailures, why] : rows) {
      SCOPED_TRACE(infoPlist + " " + std::to_string((int)signer));
      ScratchDir dir;
      Helper helper(dir, infoPlist);
      std::string client = ClientCopy(dir, "client", signer);
      pid_t pid = helper.Start({client, "echo", helper.socket, "3"});
      EXPECT_EQ(admitted ? 0 : 3, WaitBounded(pid, 20000));
      char closed[64];  // the pid column is five wide
      snprintf(closed, sizeof closed, "%5d: Connection closed by client.\n", (int)pid);
      std::vector<std::string> lines = {
          why, ": Received connection from " + client + "\n",
          admitted ? closed : "Warning: Validation failed. Canceling connection.\n"};
      std::string log = helper.LogWith(lines.back());
      EXPECT_EQ(0u, log.find(std::string("Starting service: ") + kService + "\n")) << log;
      for (const std::string &line : lines) {
         EXPECT_NE(std::string::npos, log.find(line)) << log;
      }
      std::string failures;
      const std::string failed = ": Failed validation. (";
      for (size_t at = log.find(failed); at != std::string::npos; at = log.find(failed, at + 1)) {
         failures += log[at + failed.size()];
      }
      EXPECT_EQ(wantFailures, failures) << log;
   }
}

// Many clients at once are each served in order; descriptors pass both ways; a client that
// becomes another program, or lends its connection to another process, loses it; only a stale
// socket is replaced.
TEST(HelperService, ServesLoadAndOnlyTheCheckedProgramAndReplacesOnlyStaleSockets)
{
   ScratchDir dir;
   {
      Helper killed(dir);
   }  // its socket stays behind, bound by no one
   Helper helper(dir, AllowedClients({kClientReq}), {"--mode", "0660"});
   std::string client = ClientCopy(dir, "client");
   // Instrumented builds check every client's signature many times slower: a smaller load
   // there keeps the run bounded, the full one runs in the plain build.
   const int kClients = HELPER_TEST_SANITIZED ? 16 : 64;
   const char *kMessages = HELPER_TEST_SANITIZED ? "200" : "1000";
   std::vector<pid_t> clients;
   for (int i = 0; i < kClients; i++) {
      clients.push_back(helper.Start({client, "echo", helper.socket, kMessages}));
   }
   // Each client checks its replies in order and that no reply comes twice.
   for (pid_t pid : clients) {
      EXPECT_EQ(0, WaitBounded(pid, 120000));
   }
   // The helper logs each end once.
   EXPECT_EQ((size_t)kClients, Count(helper.LogWith("Connection closed by client.\n", kClients),
                                     "Connection closed by client.\n"));

   EXPECT_EQ(0, helper.Run({client, "passfd", helper.socket}));
   struct stat st;
   EXPECT_TRUE(stat(helper.socket.c_str(), &st) == 0 && (st.st_mode & 0777) == 0660);

   EXPECT_EQ(3, helper.Run(
                    {client, "exec", helper.socket, ClientCopy(dir, "other", Signer::kNone), "2"}));
   EXPECT_EQ(3, helper.Run({client, "fork", helper.socket, "2"}));
   std::string log = helper.Log();
   // The exec may land before the check (refused there) or after it (refused at the message).
   EXPECT_EQ(2u, Count(log, "Message from a process other than the validated client\n") +
                     Count(log, "Validation failed. Canceling connection.\n"))
       << log;
   // The same program re-executing itself keeps its connection.
   EXPECT_EQ(0, helper.Run({client, "exec", helper.socket, client, "2"}));

   // A second helper for the same name leaves the first alone; a file that is not a socket is
   // never replaced.
   auto another = [](const ScratchDir &in) {
      return WaitBounded(Spawn({HELPER_PROGRAM, "--run-dir", in.Path(), kService}, in / "2.log"),
                         5000);
   };
   EXPECT_EQ(1, another(dir));
   EXPECT_NE(std::string::npos, ReadFile(dir / "2.log").find("Another helper already serves"));
   ScratchDir other;
   WriteFile(other / kService, "keep me");
   EXPECT_EQ(1, another(other));
   EXPECT_EQ("keep me", ReadFile(other / kService));
}

// A dictionary whose binary encoding is exactly size bytes: near that size its one data item
// grows the encoding byte for byte.
std::string EncodedDictOfSize(size_t size)
{
   auto encode = [](size_t blob) {
      plist_t dict = plist_new_dict();
      plist_dict_set_item(dict, "d", plist_new_data(std::string(blob, 'a').data(), blob));
      return Encode(dict);
   };
   return encode(2 * size - 100 - encode(size - 100).size());
}

TEST(HelperHostile, ServesOthersThroughHostilePeers)
{
   ScratchDir dir;
   Helper helper(dir, AllowedClients({kClientReq}), {"--reply-timeout", "300"});
   std::string client = ClientCopy(dir, "client");

   // Silent connections and a client that never reads its replies, while others are served.
   pid_t silent = helper.Start({client, "silent", helper.socket, "200", "3000"});
   pid_t noread = helper.Start({client, "noread", helper.socket, "3000", "3000"});
   helper.LogWith("Received connection from", 201);

   std::string atLimit = EncodedDictOfSize(PRIVILEGED_HELPER_MAX_MESSAGE);
   ASSERT_EQ((size_t)PRIVILEGED_HELPER_MAX_MESSAGE, atLimit.size());
   const std::string malformed = "Malformed message\n";
   // The status: 0 a reply came, 3 the helper ended the connection, 5 it stayed open.
   const std::tuple<std::string, int, std::string> rows[] = {
       {"bplist00", 3, malformed},
       {InfoPlist(""), 3, malformed},
       {Encode(plist_new_array()), 5, ": Connection received unexpected event type.\n"},
       {atLimit, 0, ""},
       {atLimit + "x", 3, "Message too large\n"},
   };
   for (const auto &[bytes, status, line] : rows) {
      SCOPED_TRACE(line + std::to_string(bytes.size()));
      WriteFile(dir / "datagram", bytes);
      size_t before = Count(helper.Log(), line);  // a line of its own, not an earlier row's
      EXPECT_EQ(status, helper.Run({client, "raw", helper.socket, dir / "datagram"}));
      if (!line.empty()) {
         EXPECT_EQ(before + 1, Count(helper.LogWith(line, before + 1), line));
      }
      EXPECT_EQ(0, helper.Run({client, "echo", helper.socket, "20"}));
   }
   EXPECT_EQ(0, WaitBounded(noread, 10000));
   EXPECT_NE(std::string::npos, helper.Log().find("Client does not read replies\n"));
   EXPECT_EQ(0, WaitBounded(silent, 10000));
#if !HELPER_TEST_SANITIZED  // the sanitizers' own memory would swamp the figure
   std::string status = ReadFile("/proc/" + std::to_string(helper.pid) + "/status");
   long rss = atol(status.substr(status.find("VmRSS:") + 6).c_str());
   EXPECT_TRUE(rss > 0 && rss < 64 * 1024) << "helper resident set " << rss << " KiB";
#endif
}

}  // namespace
