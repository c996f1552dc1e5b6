// Which managers may talk to the agent, by source address: IPv4 addresses
// and prefixes ("192.0.2.7", "10.0.0.0/8") for each community and for the
// SNMPv3 user. A request from elsewhere is dropped without an answer, as one
// with an unknown community is. Communities are limited by Net-SNMP's own
// community lines, one per prefix; the v3 user by a hook on the agent's
// access check, after the message was authenticated.
//
// Thread safety: everything runs on the agent thread with the library lock
// held, while the engine initialises (and the hook inside request
// processing).
#ifndef ZELTA_SRC_SNMP_SOURCEFILTER_H_
#define ZELTA_SRC_SNMP_SOURCEFILTER_H_

#include <cstdint>
#include <string>
#include <vector>

#include "base/liblock.h"

namespace Quorvel::Kvan::SNMP {

// An IPv4 prefix, in host byte order.
struct SourcePrefix {
  uint32_t network = 0;
  int length = 32;
  bool contains(uint32_t address) const;
  // "10.0.0.0/8", as Net-SNMP's community lines take it.
  std::string text() const;
};

// The prefixes of `texts`, each "a.b.c.d" or "a.b.c.d/n" (no bit set past
// the prefix). An entry that is not one is left out with an ERROR line that
// names `whose`: a limit never opens wider than asked, so a list of bad
// entries only matches nothing.
std::vector<SourcePrefix> parseSources(const std::vector<std::string>& texts, const char* whose);

// True for an address in 127.0.0.0/8; "" (every interface) and anything that
// is no IPv4 address are not.
bool isLoopbackAddress(const std::string& address);

// Drops requests of the SNMPv3 `user` from sources outside `allowed`; every
// other request passes. Holds until the engine shuts down (Net-SNMP clears
// the hook with its other callbacks). The engine is initialising.
void limitV3UserSources(const std::string& user, std::vector<SourcePrefix> allowed) REQUIRES(libraryMutex());

}  // namespace Quorvel::Kvan::SNMP

#endif  // ZELTA_SRC_SNMP_SOURCEFILTER_H_
