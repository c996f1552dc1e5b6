// OIDs as dotted text and back. Compiled into the device's library and into
// the MIB generator's, which parses the OIDs of its options.
#include "snmp/snmpinternal.h"

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

namespace Quorvel::Kvan::SNMP::internal {

bool parseOid(const std::string& text, std::vector<unsigned long>& out) {
  out.clear();
  size_t pos = (!text.empty() && text[0] == '.') ? 1 : 0;
  if (pos >= text.size()) return false;
  // Exactly the room the sub-identifiers need: published objects keep
  // their OIDs for good.
  const auto dots = static_cast<size_t>(std::count(text.begin() + static_cast<std::ptrdiff_t>(pos), text.end(), '.'));
  out.reserve(std::min(dots + 1, kMaxOidLen));
  while (pos <= text.size()) {
    uint64_t subId = 0;
    size_t digits = 0;
    while (pos < text.size() && text[pos] >= '0' && text[pos] <= '9') {
      subId = subId * 10 + static_cast<uint64_t>(text[pos] - '0');
      if (subId > 0xFFFFFFFFull) return false;
      ++pos;
      ++digits;
    }
    if (digits == 0 || out.size() >= kMaxOidLen) return false;
    out.push_back(static_cast<unsigned long>(subId));
    if (pos == text.size()) return true;
    if (text[pos] != '.') return false;
    ++pos;
  }
  return false;
}

std::string oidToText(const unsigned long* subIds, size_t len) {
  std::string text;
  for (size_t i = 0; i < len; ++i) {
    if (i > 0) text += '.';
    text += std::to_string(subIds[i]);
  }
  return text;
}

}  // namespace Quorvel::Kvan::SNMP::internal
