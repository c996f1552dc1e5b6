// Source-address limits of communities and of the SNMPv3 user.
#include "snmp/snmpinternal.h"

#include <net-snmp/agent/agent_callbacks.h>

#include <arpa/inet.h>
#include <netinet/in.h>

#include <cstdlib>
#include <utility>

#include "snmp/sourcefilter.h"
#include "zelta/logging.h"

namespace Quorvel::Kvan::SNMP {

namespace {

uint32_t maskOf(int length) { return length == 0 ? 0 : ~uint32_t{0} << (32 - length); }

bool parseAddress(const std::string& text, uint32_t& out) {
  in_addr address{};
  if (inet_pton(AF_INET, text.c_str(), &address) != 1) return false;
  out = ntohl(address.s_addr);
  return true;
}

bool parsePrefix(const std::string& text, SourcePrefix& out) {
  const size_t slash = text.find('/');
  out.length = 32;
  if (slash != std::string::npos) {
    const std::string bits = text.substr(slash + 1);
    if (bits.empty() || bits.size() > 2 || bits.find_first_not_of("0123456789") != std::string::npos) return false;
    out.length = atoi(bits.c_str());
    if (out.length > 32) return false;
  }
  return parseAddress(text.substr(0, slash), out.network) && (out.network & ~maskOf(out.length)) == 0;
}

// What the access-check hook compares with.
struct V3Limit {
  std::string user GUARDED_BY(libraryMutex());
  std::vector<SourcePrefix> allowed GUARDED_BY(libraryMutex());
};

V3Limit& v3Limit() {
  static auto* limit = new V3Limit();  // never destroyed: the hook may run at exit
  return *limit;
}

bool allowedSource(const netsnmp_pdu& pdu, const std::vector<SourcePrefix>& allowed) {
  // The agent listens on UDP over IPv4, whose transport data is an address pair.
  if (pdu.transport_data == nullptr || pdu.transport_data_length < static_cast<int>(sizeof(netsnmp_indexed_addr_pair)))
    return false;
  const auto* pair = static_cast<const netsnmp_indexed_addr_pair*>(pdu.transport_data);
  if (pair->remote_addr.sa.sa_family != AF_INET) return false;
  const uint32_t source = ntohl(pair->remote_addr.sin.sin_addr.s_addr);
  for (const SourcePrefix& prefix : allowed)
    if (prefix.contains(source)) return true;
  return false;
}

// The agent's first access check of a request, after authentication: like
// every call of Net-SNMP's, with the library lock held.
int checkV3Source(int, int, void* serverArg, void*) {
  libraryMutex().assertHeld();
  auto* view = static_cast<view_parameters*>(serverArg);
  if (view == nullptr || view->pdu == nullptr) return 0;
  const netsnmp_pdu& pdu = *view->pdu;
  const V3Limit& limit = v3Limit();
  if (pdu.version != SNMP_VERSION_3 || pdu.securityName == nullptr ||
      limit.user.compare(0, std::string::npos, pdu.securityName, pdu.securityNameLen) != 0)
    return 0;
  // The one refusal the agent answers in no version: the request is dropped
  // (counted as snmpUnknownContexts) instead of getting authorizationError.
  if (!allowedSource(pdu, limit.allowed)) view->errorcode = VACM_NOSUCHCONTEXT;
  return 0;
}

}  // namespace

bool SourcePrefix::contains(uint32_t address) const { return (address & maskOf(length)) == network; }

std::string SourcePrefix::text() const {
  in_addr address{};
  address.s_addr = htonl(network);
  char buffer[INET_ADDRSTRLEN] = "";
  inet_ntop(AF_INET, &address, buffer, sizeof buffer);
  return std::string(buffer) + "/" + std::to_string(length);
}

std::vector<SourcePrefix> parseSources(const std::vector<std::string>& texts, const char* whose) {
  std::vector<SourcePrefix> prefixes;
  for (const std::string& text : texts) {
    SourcePrefix prefix;
    if (parsePrefix(text, prefix))
      prefixes.push_back(prefix);
    else
      Log["libzelta"].append(ERROR,
                             "AgentEngine: source '%s' of the %s ignored: it is no IPv4 address or prefix "
                             "(a.b.c.d or a.b.c.d/n)\n",
                             text.c_str(), whose);
  }
  return prefixes;
}

bool isLoopbackAddress(const std::string& address) {
  uint32_t parsed = 0;
  return parseAddress(address, parsed) && (parsed >> 24) == 127;
}

void limitV3UserSources(const std::string& user, std::vector<SourcePrefix> allowed) {
  v3Limit().user = user;
  v3Limit().allowed = std::move(allowed);
  snmp_register_callback(SNMP_CALLBACK_APPLICATION, SNMPD_CALLBACK_ACM_CHECK_INITIAL, checkV3Source, nullptr);
}

}  // namespace Quorvel::Kvan::SNMP
