// The SMIv2 syntax of each value type, as a MIB module writes it. Only the
// MIB generator's library carries it: a device never writes its module.
#include "snmp/snmpinternal.h"

#include <algorithm>
#include <cstdint>
#include <string>

#include "snmp/snmpcodec.h"

namespace Quorvel::Kvan::SNMP {

std::string SnmpCodec::smiSyntax(const Bounds& bounds) const {
  const std::string range =
      std::to_string(static_cast<int32_t>(bounds.min)) + ".." + std::to_string(static_cast<int32_t>(bounds.max));
  const size_t longest = internal::kMaxStringLen;
  const std::string lengths = std::to_string(bounds.set ? bounds.min : 0) + ".." +
                              std::to_string(bounds.set ? std::min<size_t>(bounds.max, longest) : longest);
  switch (type()) {
    case INTEGER:
      return bounds.set ? "Integer32 (" + range + ")" : "Integer32";
    case TIMETICKS:
      return "TimeTicks";
    case IPADDRESS:
      return "IpAddress";
    case LOGADDRMAIN:
      return "OCTET STRING (SIZE (8))";
    default:
      return "OCTET STRING (SIZE (" + lengths + "))";
  }
}

const char* SnmpCodec::smiBaseType() const {
  switch (type()) {
    case INTEGER:
      return "Integer32";
    case TIMETICKS:
      return "TimeTicks";
    case IPADDRESS:
      return "IpAddress";
    default:
      return "OCTET STRING";
  }
}

}  // namespace Quorvel::Kvan::SNMP
