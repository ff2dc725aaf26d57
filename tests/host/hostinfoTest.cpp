#include <ifaddrs.h>
#include <linux/if_packet.h>
#include <sched.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/time.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>

#include <regex>

#include "hostinfo.h"
#include "id.h"
#include "misc/hostinfoInt.h"
#include "testSupport.h"

using testsupport::LogCapture;

struct FakeInterface {
   const char *name;
   std::vector<unsigned char> address;
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
      std::copy(list[i].address.begin(), list[i].address.end(), links[i].sll_addr);
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

   EXPECT_EQ(SelectFrom({{"en0", {1, 1, 1, 1, 1, 1}, AF_INET}, /* not link level */
                         {"en0", {}},                          /* no hardware address */
                         {"eth0", {9, 9, 9, 9, 9, 9}},         /* "en" names come first */
                         {"en2", {2, 2, 2, 2, 2, 2}},
                         {"en1", {0x02, 0xfc, 0x00, 0x11, 0x22, 0x33}}}),
             0x33221100fc02ull);
   EXPECT_EQ(SelectFrom({{"lo", {0, 0, 0, 0, 0, 0}},
                         {"eth10", {1, 1, 1, 1, 1, 1}},
                         {"eth7", {7, 0, 0, 0, 0, 0}}}),
             7u);
   LogCapture log;
   EXPECT_EQ(SelectFrom({{"enp0s3", {1, 2, 3, 4, 5, 6}},
                         {"en8", {1, 2, 3, 4, 5, 6}},
                         {"eth0", {1, 2, 3, 4, 5, 6}, AF_INET}}),
             0u);
   EXPECT_EQ(HostinfoSelectHardwareID(nullptr), 0u);
   EXPECT_EQ(log.Text(), "");
}

TEST(HostinfoOS, ReleaseFileVersionAndDescription)
{
   const char *text =
       "# comment NAME=wrong\n"
       "NAME=\"Some \\\"Linux\\\"\"\n"
       "ID=plain  \n"
       "VERSION_CODENAME='single \\ quoted'\n"
       "  BUILD_ID=first\n"
       "BUILD_ID=second\n"
       "EMPTY=\n"
       "UNTERMINATED=\"open";
   const std::pair<const char *, const char *> expected[] = {
       {"NAME", "Some \"Linux\""}, {"ID", "plain"}, {"VERSION_CODENAME", "single \\ quoted"},
       {"BUILD_ID", "second"},     {"EMPTY", ""},   {"UNTERMINATED", "open"}};
   for (auto [key, result] : expected) {
      std::string value = "unset";
      EXPECT_TRUE(HostinfoOSReleaseValue(text, key, &value)) << key;
      EXPECT_EQ(value, result);
   }
   std::string value;
   EXPECT_FALSE(HostinfoOSReleaseValue(text, "VERSION_ID", &value) ||
                HostinfoOSReleaseValue(text, "NAM", &value));

   struct utsname u;
   ASSERT_EQ(uname(&u), 0);
   EXPECT_STREQ(Hostinfo_OSVersionString(), u.release);
   std::string numbers =
       std::to_string(Hostinfo_OSVersion(0)) + "." + std::to_string(Hostinfo_OSVersion(1)) + ".";
   EXPECT_EQ(std::string(u.release).rfind(numbers, 0), 0u) << u.release;
   EXPECT_EQ(Hostinfo_OSVersion(99), 0);
   std::string description = testsupport::Take(Hostinfo_GetOSName());
   EXPECT_TRUE(std::regex_match(
       description, std::regex(std::string(R"([^ ].* [^ ]+ \([^ ]+\) )") + u.sysname + " " +
                               testsupport::RegexQuote(u.release))))
       << description;
}

TEST(HostinfoProcess, StartTimesAndExistence)
{
   EXPECT_EQ(Id_ProcessExists(getpid()), ID_PROCESS_EXISTS);
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
   struct timeval now;
   gettimeofday(&now, nullptr);
   uint64_t nowUs = static_cast<uint64_t>(now.tv_sec) * 1000000 + now.tv_usec;
   EXPECT_TRUE(startUs <= nowUs && startUs + 3600ull * 1000000 > nowUs); /* within the hour */

   pid_t child = fork();
   if (child == 0) {
      _exit(0);
   }
   ASSERT_EQ(waitpid(child, nullptr, 0), child);
   EXPECT_EQ(Id_ProcessExists(child), ID_PROCESS_GONE);
   EXPECT_FALSE(Hostinfo_GetProcessStartTicks(child, &before) || errno != ENOENT);
   EXPECT_FALSE(Hostinfo_GetProcessStartTime(0, &startUs) || errno != EINVAL);
   EXPECT_FALSE(Hostinfo_GetProcessStartTime(-1, &startUs));
}

TEST(HostinfoQueries, CpuidSignatureIsStableAcrossProcessors)
{
#if defined(__x86_64__) || defined(__i386__)
   std::string first = testsupport::Take(Hostinfo_GetCpuidSignature());
   EXPECT_TRUE(
       std::regex_match(first, std::regex("00000000:[0-9A-F]{32}-([0-9A-F]{8}:[0-9A-F]{32}-)*")))
       << first;
   EXPECT_NE(first.find("80000000:"), std::string::npos);
   cpu_set_t allowed;
   ASSERT_EQ(sched_getaffinity(0, sizeof allowed, &allowed), 0);
   for (int cpu = 0; cpu < CPU_SETSIZE; cpu++) {
      if (CPU_ISSET(cpu, &allowed)) {
         std::thread([&] {
            cpu_set_t one;
            CPU_ZERO(&one);
            CPU_SET(cpu, &one);
            ASSERT_EQ(sched_setaffinity(0, sizeof one, &one), 0);
            EXPECT_EQ(testsupport::Take(Hostinfo_GetCpuidSignature()), first)
                << "processor " << cpu;
         }).join();
      }
   }
#else
   GTEST_SKIP() << "no processor identification leaves on this architecture";
#endif
}

TEST(HostinfoQueries, LoadMemoryAndSlabs)
{
   float avg1, avg5, avg15;
   ASSERT_TRUE(Hostinfo_GetLoadAverage(&avg1, &avg5, &avg15));
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

   if (access("/sys/kernel/slab/kmalloc-64/object_size", R_OK) == 0 ||
       access("/proc/slabinfo", R_OK) == 0) {
      EXPECT_EQ(Hostinfo_GetKernelZoneElemSize("kmalloc-64"), 64u);
   }
   for (const char *bad : {"no-such-cache", "../slab/kmalloc-64", "", (const char *)nullptr}) {
      EXPECT_EQ(Hostinfo_GetKernelZoneElemSize(bad), 0u) << (bad != nullptr ? bad : "NULL");
   }
}
