// Addresses of the device: its logical address, MAC and IPv4 addresses as
// text, and the inventory of its IPv4 network interfaces.
//
// Thread safety: the functions hold no state and may be called from any
// thread.
#ifndef ZELTA_ADDRESSES_H_
#define ZELTA_ADDRESSES_H_

#include <netinet/in.h>

#include <cstdint>
#include <map>
#include <string>

#include "zelta/export.h"

namespace Quorvel::Kvan {

// The device's logical address: 8 ASCII characters, left-padded with '0',
// not NUL-terminated.
using logaddr_main_t = unsigned char[8];

namespace Common {

// ---- Logical address, MAC and IPv4

// Right-aligns `input` in the 8 bytes at `output`, padding with '0'.
// REQUIRES: output != nullptr and input.size() <= 8 (asserted).
ZELTA_EXPORT bool logaddrMainSet(uint8_t* output, std::string input);
// The 8 bytes as an 8-character string, zero bytes included.
ZELTA_EXPORT std::string logaddrMainToString(const unsigned char (&addr)[8]);
ZELTA_EXPORT void logaddrMainCpy(unsigned char* dst, const unsigned char* src);
ZELTA_EXPORT bool logaddrMainEq(const unsigned char* a, const unsigned char* b);
// "00:1A:2B:3C:4D:5E".
ZELTA_EXPORT std::string macToString(const unsigned char* mac);
// Dotted-decimal IPv4 only; logs a WARNING and returns false otherwise.
ZELTA_EXPORT bool isValidIpAddress(const std::string& text);
ZELTA_EXPORT std::string ntop(const in_addr* addr);
ZELTA_EXPORT std::string ntop(const sockaddr_in* sa);

// ---- Network interfaces

// One IPv4 interface: address and mask in network byte order, and the
// hardware address (zeros when it cannot be read).
struct Iface {
  in_addr address{};
  in_addr netmask{};
  uint8_t mac[6] = {0, 0, 0, 0, 0, 0};
};

// The IPv4 interfaces by name; an interface with several addresses holds the
// last one listed. Empty (with a red trace marker) when the list cannot be read.
ZELTA_EXPORT std::map<std::string, Iface> getIfacesInfo();
// Copies the 6-byte hardware address of `ifname` into `mac`. False, with
// `mac` untouched, when the interface is unknown or the name has 16 or more
// characters.
ZELTA_EXPORT bool getMacAddress(uint8_t* mac, const std::string& ifname);

}  // namespace Common
}  // namespace Quorvel::Kvan

#endif  // ZELTA_ADDRESSES_H_
