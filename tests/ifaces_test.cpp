#include <arpa/inet.h>
#include <dlfcn.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <ifaddrs.h>

#include "zelta/common.h"

using namespace Quorvel::Kvan::Common;

namespace {
bool failGetifaddrs = false;
}  // namespace

// Interposes the C library's getifaddrs for the whole test program, so the
// failure branch can be reached.
extern "C" int getifaddrs(ifaddrs** list) noexcept {
  if (failGetifaddrs) {
    errno = ENOMEM;
    return -1;
  }
  using Fn = int (*)(ifaddrs**);
  static Fn real = reinterpret_cast<Fn>(dlsym(RTLD_NEXT, "getifaddrs"));
  return real(list);
}

TEST(Ifaces, LoopbackIsListedWithItsAddressMaskAndZeroMac) {
  auto ifaces = getIfacesInfo();
  ASSERT_EQ(ifaces.count("lo"), 1u);
  const Iface& lo = ifaces["lo"];
  EXPECT_EQ(lo.address.s_addr, htonl(INADDR_LOOPBACK));
  EXPECT_EQ(lo.netmask.s_addr, htonl(0xFF000000));
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(lo.mac), 6), std::string(6, '\0'));
}

TEST(Ifaces, ListFailureGivesEmptyMapAndRedMarker) {
  failGetifaddrs = true;
  testing::internal::CaptureStderr();
  auto ifaces = getIfacesInfo();
  std::string err = testing::internal::GetCapturedStderr();
  failGetifaddrs = false;
  EXPECT_TRUE(ifaces.empty());
  const std::string head = "\033[00;31m[TRACE] ", tail = ": here!\033[00m\n\n";
  ASSERT_GT(err.size(), head.size() + tail.size());
  EXPECT_EQ(err.substr(0, head.size()), head);
  EXPECT_NE(err.find("ifaces.cpp:getIfacesInfo:"), std::string::npos) << err;
  EXPECT_EQ(err.substr(err.size() - tail.size()), tail);
}

TEST(Ifaces, MacOfUnknownOrOverlongNameIsFalseAndLeavesBuffer) {
  uint8_t mac[6] = {1, 2, 3, 4, 5, 6};
  EXPECT_FALSE(getMacAddress(mac, "nosuchif0"));
  EXPECT_FALSE(getMacAddress(mac, std::string(16, 'e')));  // no room for the terminator
  EXPECT_EQ(mac[0], 1);
  EXPECT_EQ(mac[5], 6);
  EXPECT_TRUE(getMacAddress(mac, "lo"));
  EXPECT_EQ(mac[0] | mac[1] | mac[2] | mac[3] | mac[4] | mac[5], 0);
}
