// Net-SNMP's headers and the few helpers that the SNMP sources share.
//
// Net-SNMP defines short macros (NOACCESS, READ, FREE, ...) that clash with
// our names: include this header before any zelta header.
#ifndef ZELTA_SRC_SNMP_SNMPINTERNAL_H_
#define ZELTA_SRC_SNMP_SNMPINTERNAL_H_

// clang-format off
#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>
#include <net-snmp/agent/net-snmp-agent-includes.h>
#include <net-snmp/library/large_fd_set.h>
// clang-format on

#undef NOACCESS
#undef READ
#undef WRITE
#undef RESERVE1
#undef RESERVE2
#undef ACTION
#undef COMMIT
#undef FREE
#undef UNDO

#include <exception>
#include <string>
#include <type_traits>
#include <vector>

#include "zelta/logging.h"

static_assert(std::is_same<oid, unsigned long>::value, "OIDs are kept as vectors of unsigned long");

namespace Quorvel::Kvan::SNMP {

// Value of an SNMP SET binding as a 32-bit number: TimeTicks unsigned,
// INTEGER signed; anything else gives the marker 0xDEADBEEF (as a signed
// 32-bit value, -559038737), which only a validator can refuse.
long vbxToLong(const netsnmp_variable_list& vb);
// Value of a binding as bytes: an IpAddress as dotted text; an OCTET STRING
// of up to 1023 bytes as it is; anything else is logged and read as "ERROR".
std::string vbxToString(const netsnmp_variable_list& vb);

namespace internal {

// Longest OID we accept from a host or a manager.
constexpr size_t kMaxOidLen = MAX_OID_LEN;
// Longest OCTET STRING value a leaf or cell takes (vbxToString's buffer is
// 1024 bytes with a terminating zero).
constexpr size_t kMaxStringLen = 1023;

// Parses dotted text ("1.3.6.1", ".1.3.6.1"); false for anything else, for
// sub-identifiers above 2^32-1 and for more than kMaxOidLen of them.
bool parseOid(const std::string& text, std::vector<unsigned long>& out);
std::string oidToText(const unsigned long* subIds, size_t len);
// A binding's value as text for log lines.
std::string printable(const netsnmp_variable_list& vb);
// Marks a failed read: Net-SNMP maps SET errors to SNMPv1 by itself but not
// errors of GET requests, so v1 gets genErr here.
void setReadError(netsnmp_agent_request_info* reqinfo, netsnmp_request_info* request, int v2Status);

// Runs a request handler. Validators, fillers and hooks of the host run inside
// it; an exception they throw must not unwind through Net-SNMP's C frames
// (that would end the process), so it fails the request with genErr instead.
template <class Handler>
int guardHandler(Handler&& handler, netsnmp_request_info* requests) noexcept {
  // A copy: the exception, and the text it points to, are gone after the
  // catch block.
  std::string what = "unknown exception";
  try {
    return handler();
  } catch (const std::exception& e) {
    what = e.what();
  } catch (...) {
  }
  Log["libzelta"].append(ERROR, "SNMP: request failed, a hook threw: %s\n", what.c_str());
  netsnmp_request_set_error_all(requests, SNMP_ERR_GENERR);
  return SNMP_ERR_NOERROR;
}

}  // namespace internal
}  // namespace Quorvel::Kvan::SNMP

#endif  // ZELTA_SRC_SNMP_SNMPINTERNAL_H_
