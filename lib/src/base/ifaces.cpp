// IPv4 interface inventory from getifaddrs and SIOCGIFHWADDR.
#include <ifaddrs.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

#include "base/trace.h"
#include "zelta/addresses.h"

namespace Quorvel::Kvan::Common {

namespace {

// Copied out rather than cast: on ARM a sockaddr is less aligned than a
// sockaddr_in.
in_addr ipv4Of(const sockaddr* sa) {
  sockaddr_in in{};
  std::memcpy(&in, sa, sizeof in);
  return in.sin_addr;
}

}  // namespace

std::map<std::string, Iface> getIfacesInfo() {
  std::map<std::string, Iface> result;
  ifaddrs* list = nullptr;
  if (getifaddrs(&list) != 0) {
    ZELTA_TRACE_FAILURE();
    return result;
  }
  for (ifaddrs* ifa = list; ifa != nullptr; ifa = ifa->ifa_next) {
    if (ifa->ifa_addr == nullptr || ifa->ifa_addr->sa_family != AF_INET) continue;
    // A later address of the same interface replaces the earlier one.
    Iface& entry = result[ifa->ifa_name];
    entry = Iface{};
    entry.address = ipv4Of(ifa->ifa_addr);
    if (ifa->ifa_netmask != nullptr) entry.netmask = ipv4Of(ifa->ifa_netmask);
    // No hardware address (loopback, tunnels) leaves the zeros.
    getMacAddress(entry.mac, ifa->ifa_name);
  }
  freeifaddrs(list);
  return result;
}

bool getMacAddress(uint8_t* mac, const std::string& ifname) {
  ifreq req{};
  // The name and its terminator must fit the fixed-size field.
  if (ifname.size() >= sizeof req.ifr_name) return false;
  std::memcpy(req.ifr_name, ifname.c_str(), ifname.size() + 1);

  int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return false;
  bool ok = ioctl(fd, SIOCGIFHWADDR, &req) == 0;
  close(fd);
  if (ok) std::memcpy(mac, req.ifr_hwaddr.sa_data, 6);
  return ok;
}

}  // namespace Quorvel::Kvan::Common
