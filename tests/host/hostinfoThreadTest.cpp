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
   std::vector<std::pair<uint32_t, uint64_t>> ids(16);
   testsupport::RunThreads(16, [&](int i) { Hostinfo_MachineID(&ids[i].first, &ids[i].second); });
   for (auto [host, hardware] : ids) {
      EXPECT_TRUE(host == HostinfoHostNameHash(name) && hardware == expectedHardware);
   }
   EXPECT_EQ(log.Text(), "");
}
