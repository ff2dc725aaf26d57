/*
 * Machine identity: a host-name hash and the hardware address of the first Ethernet interface.
 *
 * Both values are computed without a lock on first use and published with a compare-and-swap
 * on a process-wide pointer; a thread that loses the race frees its copy and takes the winner's.
 */
#include <errno.h>
#include <ifaddrs.h>
#include <limits.h>
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>

#include "internal/publishOnce.h"
#include "hostinfo.h"
#include "hostinfoInt.h"
#include "log.h"
#include "str.h"
#include "util.h"

namespace {

std::atomic<uint32_t *> gCachedHostId{nullptr};
std::atomic<uint64_t *> gCachedHardwareId{nullptr};

/* Publishes a heap copy of value unless another thread was first; returns the value that stands. */
template <typename T>
T Publish(std::atomic<T *> &slot, T value)
{
   T *mine = static_cast<T *>(Util_SafeMalloc(sizeof(T)));
   *mine = value;
   return *tesmar::PublishOnce(slot, mine, [](T *loser) { free(loser); });
}

/* The link-level address of the interface called name, if the list has one. */
bool FindLinkAddress(const struct ifaddrs *list, const char *name, uint64_t *id)
{
   for (const struct ifaddrs *ifa = list; ifa != nullptr; ifa = ifa->ifa_next) {
      if (ifa->ifa_addr == nullptr || ifa->ifa_addr->sa_family != AF_PACKET ||
          ifa->ifa_name == nullptr || strcmp(ifa->ifa_name, name) != 0) {
         continue;
      }
      const struct sockaddr_ll *link = reinterpret_cast<const struct sockaddr_ll *>(ifa->ifa_addr);
      if (link->sll_halen != ETH_ALEN) {
         continue;
      }
      uint64_t value = 0;
      for (unsigned int i = 0; i < ETH_ALEN; i++) {
         value |= static_cast<uint64_t>(link->sll_addr[i]) << (8 * i);
      }
      *id = value;
      return true;
   }
   return false;
}

}  // namespace

uint32_t HostinfoHostNameHash(const char *hostName)
{
   uint32_t hash = 5381;
   for (const unsigned char *p = reinterpret_cast<const unsigned char *>(hostName); *p != '\0';
        p++) {
      hash = hash * 33 + *p;
   }
   return hash;
}

uint64_t HostinfoSelectHardwareID(const struct ifaddrs *list)
{
   static const char *const prefixes[] = {"en", "eth"};
   for (const char *prefix : prefixes) {
      for (unsigned int n = 0; n < 8; n++) {
         char name[8];
         Str_Sprintf(name, sizeof name, "%s%u", prefix, n);
         uint64_t id;
         if (FindLinkAddress(list, name, &id)) {
            return id;
         }
      }
   }
   return 0;
}

extern "C" {

char *Hostinfo_HostName(void)
{
   char name[HOST_NAME_MAX + 1];
   if (gethostname(name, sizeof name) != 0) {
      return nullptr;
   }
   name[sizeof name - 1] = '\0';
   return strdup(name);
}

void Hostinfo_MachineID(uint32_t *hostId, uint64_t *hardwareId)
{
   const uint32_t *knownHost = gCachedHostId.load(std::memory_order_acquire);
   uint32_t host;
   if (knownHost != nullptr) {
      host = *knownHost;
   } else {
      char *name = Hostinfo_HostName();
      if (name == nullptr) {
         Warning("%s Hostinfo_HostName failure; providing default.\n", "Hostinfo_MachineID");
         host = 0;
      } else {
         host = HostinfoHostNameHash(name);
         free(name);
      }
      host = Publish(gCachedHostId, host);
   }

   const uint64_t *knownHardware = gCachedHardwareId.load(std::memory_order_acquire);
   uint64_t hardware;
   if (knownHardware != nullptr) {
      hardware = *knownHardware;
   } else {
      struct ifaddrs *list;
      if (getifaddrs(&list) != 0) {
         int error = errno;
         Warning("%s getifaddrs failure: %s.\n", "ObtainHardwareID", strerror(error));
         Warning("%s ObtainHardwareID failure (%s); providing default.\n", "Hostinfo_MachineID",
                 strerror(error));
         hardware = 0;
      } else {
         hardware = HostinfoSelectHardwareID(list);
         freeifaddrs(list);
      }
      hardware = Publish(gCachedHardwareId, hardware);
   }

   *hostId = host;
   *hardwareId = hardware;
}

}  // extern "C"
