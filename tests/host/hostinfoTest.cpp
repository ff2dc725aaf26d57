#include <ifaddrs.h>
#include <linux/if_packet.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gmock/gmock.h>

#include <regex>

#include "hostinfo.h"
#include "id.h"
#include "misc/hostinfoInt.h"
#include "testSupport.h"

using namespace std::string_view_literals;
using testsupport::LogCapture;
using testsupport::Take;

struct FakeInterface {
   const char *name;
   std::string_view address;
   int family = AF_PACKET;
};

/* The hardware identifier chosen from an interface list such as getifaddrs returns. */
static uint64_t SelectFrom(const std::vector<FakeInterface> &list)
{
   std::vector<sockaddr_ll> links(list.size());
   std::vector<ifaddrs> entries(list.size());
   for (size_t i = 0; i < list.size(); i++) {
      links[i].sll_family = static_cast<unsigned short>(list[i].family);
      links[i].sll_halen = static_cast<unsigned char>(list[i].address.size());
      list[i].address.copy(reinterpret_cast<char *>(links[i].sll_addr), sizeof links[i].sll_addr);
      entries[i].ifa_next = i + 1 < list.size() ? &entries[i + 1] : nullptr;
      entries[i].ifa_name = const_cast<char *>(list[i].name);
      entries[i].ifa_addr = reinterpret_cast<sockaddr *>(&links[i]);
   }
   return HostinfoSelectHardwareID(entries.data());
}

TEST(HostinfoMachineID, HostNameHashAndInterfaceOrder)
{
   EXPECT_EQ(HostinfoHostNameHash(""), 5381u);
   EXPECT_EQ(HostinfoHostNameHash("\xff"), 177828u);     /* bytes are unsigned */
   EXPECT_EQ(HostinfoHostNameHash("hello"), 261238937u); /* wraps at 32 bits */

   EXPECT_EQ(SelectFrom({{"en0", "\1\1\1\1\1\1"sv, AF_INET}, /* not link level */
                         {"en0", ""},                        /* no hardware address */
                         {"eth0", "\11\11\11\11\11\11"sv},   /* "en" names come first */
                         {"en2", "\2\2\2\2\2\2"sv},
                         {"en1", "\x02\xfc\x00\x11\x22\x33"sv}}),
             0x33221100fc02ull);
   EXPECT_EQ(
       SelectFrom(
           {{"lo", "\0\0\0\0\0\0"sv}, {"eth10", "\1\1\1\1\1\1"sv}, {"eth7", "\7\0\0\0\0\0"sv}}),
       7u);
   LogCapture log;
   EXPECT_EQ(SelectFrom({{"enp0s3", "abcdef"}, {"en8", "abcdef"}, {"eth0", "abcdef", AF_INET}}),
             0u);
   EXPECT_EQ(HostinfoSelectHardwareID(nullptr), 0u);
   EXPECT_EQ(log.Text(), "");
}

TEST(HostinfoOS, ReleaseFileVersionAndDescription)
{
   const char *text =
       "# comment NAME=wrong\nNAME=\"Some \\\"Linux\\\"\"\nID=plain  \n"
       "VERSION_CODENAME='single \\ quoted'\n  BUILD_ID=first\nBUILD_ID=second\n"
       "EMPTY=\nUNTERMINATED=\"open";
   const std::pair<const char *, const char *> kWant[] = {
       {"NAME", "Some \"Linux\""}, {"ID", "plain"}, {"VERSION_CODENAME", "single \\ quoted"},
       {"BUILD_ID", "second"},     {"EMPTY", ""},   {"UNTERMINATED", "open"}};
   for (auto [key, want] : kWant) {
      std::string value = "unset";
      EXPECT_TRUE(HostinfoOSReleaseValue(text, key, &value) && value == want) << key << value;
   }
   std::string value;
   EXPECT_FALSE(HostinfoOSReleaseValue(text, "VERSION_ID", &value) ||
                HostinfoOSReleaseValue(text, "NAM", &value));

   struct utsname u;
   ASSERT_EQ(uname(&u), 0);
   std::string numbers =
       std::to_string(Hostinfo_OSVersion(0)) + "." + std::to_string(Hostinfo_OSVersion(1)) + ".";
   EXPECT_EQ(std::string(u.release).rfind(numbers, 0), 0u) << u.release;
   EXPECT_EQ(Hostinfo_OSVersion(99), 0);
   EXPECT_THAT(Take(Hostinfo_GetOSName()),
               testing::MatchesRegex("[^ ].* [^ ]+ \\([^ ]+\\) " + std::string(u.sysname) + " " +
                                     testsupport::RegexQuote(u.release)));
}

TEST(HostinfoProcess, StartTimesAndExistence)
{
   uint64_t before, renamed = 0, startUs;
   ASSERT_TRUE(Hostinfo_GetProcessStartTicks(getpid(), &before));
   /* A command name with ")" and numbers in it does not shift the fields. */
   char oldName[17] = "";
   ASSERT_EQ(prctl(PR_GET_NAME, oldName), 0);
   ASSERT_EQ(prctl(PR_SET_NAME, "x) 1 2 3 4 5"), 0);
   EXPECT_TRUE(Hostinfo_GetProcessStartTicks(getpid(), &renamed));
   prctl(PR_SET_NAME, oldName);
   EXPECT_EQ(renamed, before);

   ASSERT_TRUE(Hostinfo_GetProcessStartTime(getpid(), &startUs));
   uint64_t nowUs = time(nullptr) * 1000000ull;
   EXPECT_TRUE(startUs <= nowUs + 1000000 && startUs + 3600ull * 1000000 > nowUs); /* this hour */

   pid_t child;
   char *argv[] = {(char *)"true", nullptr};
   ASSERT_EQ(posix_spawn(&child, "/bin/true", nullptr, nullptr, argv, environ), 0);
   ASSERT_EQ(waitpid(child, nullptr, 0), child);
   EXPECT_EQ(Id_ProcessExists(child), ID_PROCESS_GONE);
   EXPECT_FALSE(Hostinfo_GetProcessStartTicks(child, &before) || errno != ENOENT);
   EXPECT_FALSE(Hostinfo_GetProcessStartTime(0, &startUs) || errno != EINVAL);
}

TEST(HostinfoQueries, SignatureLoadMemoryAndSlabs)
{
#if defined(__x86_64__) || defined(__i386__)  // processor identification leaves
   std::string leaf = "[0-9A-F]{8}:[0-9A-F]{32}-";
   std::string signature = Take(Hostinfo_GetCpuidSignature());
   EXPECT_TRUE(std::regex_match(signature, std::regex("00000000:[0-9A-F]{32}-(" + leaf +
                                                      ")*80000000:[0-9A-F]{32}-(" + leaf + ")*")))
       << signature;
#endif
   LogCapture log;
   Hostinfo_LogLoadAverage();
   Hostinfo_LogMemUsage();
   EXPECT_TRUE(std::regex_match(
       log.Text(), std::regex(R"(LOADAVG: \d+\.\d\d \d+\.\d\d \d+\.\d\d\n)"
                              R"(RUSAGE size=[1-9]\d* resident=[1-9]\d* share=\d+ trs=[1-9]\d* )"
                              R"(lrs=0 drs=[1-9]\d* dt=0\n)")))
       << log.Text();
   uint64_t total = 0, available = 0;
   ASSERT_TRUE(Hostinfo_GetMemoryInfoInPages(&total, &available));
   EXPECT_EQ(total, static_cast<uint64_t>(sysconf(_SC_PHYS_PAGES)));
   EXPECT_TRUE(available > 0 && available <= total);

   EXPECT_TRUE(Hostinfo_GetKernelZoneElemSize("kmalloc-64") == 64u ||
               (access("/sys/kernel/slab/kmalloc-64/object_size", R_OK) != 0 &&
                access("/proc/slabinfo", R_OK) != 0));
   for (const char *bad : {"no-such-cache", "../slab/kmalloc-64", "", (const char *)nullptr}) {
      EXPECT_EQ(Hostinfo_GetKernelZoneElemSize(bad), 0u) << (bad != nullptr ? bad : "NULL");
   }
}
