#include <ifaddrs.h>
#include <limits.h>
#include <unistd.h>

#include "hostinfo.h"
#include "misc/hostinfoInt.h"
#include "testSupport.h"

/* Must be the process's first use of the machine id: concurrent first callers race to publish. */
TEST(HostinfoMachineIDThreads, ConcurrentFirstCallersAgree)
{
   char name[HOST_NAME_MAX + 1] = "";
   ASSERT_EQ(gethostname(name, sizeof name), 0);
   ifaddrs *list;
   ASSERT_EQ(getifaddrs(&list), 0);
   uint64_t expectedHardware = HostinfoSelectHardwareID(list);
   freeifaddrs(list);

   testsupport::LogCapture log;
   constexpr int kThreads = 16;
   std::vector<uint32_t> hosts(kThreads);
   std::vector<uint64_t> hardware(kThreads);
   testsupport::RunThreads(kThreads, [&](int i) { Hostinfo_MachineID(&hosts[i], &hardware[i]); });
   for (int i = 0; i < kThreads; i++) {
      EXPECT_EQ(hosts[i], HostinfoHostNameHash(name));
      EXPECT_EQ(hardware[i], expectedHardware);
   }
   EXPECT_EQ(log.Text(), "");
}
