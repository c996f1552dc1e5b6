// Net-SNMP first: its snmp_impl.h defines NOACCESS, which our headers use.
#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>

#include <arpa/inet.h>
#include <netdb.h>
#include <sys/socket.h>

#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>
#include <vector>

#include "base/liblock.h"
#include "zelta/logging.h"
#include "zelta/snmpclient.h"

namespace Quorvel::Kvan::SNMP {

static_assert(Vb::SYNTAX_INTEGER == ASN_INTEGER && Vb::SYNTAX_OCTETS == ASN_OCTET_STR && Vb::SYNTAX_NULL == ASN_NULL &&
              Vb::SYNTAX_OID == ASN_OBJECT_ID && Vb::SYNTAX_IPADDRESS == ASN_IPADDRESS &&
              Vb::SYNTAX_COUNTER32 == ASN_COUNTER && Vb::SYNTAX_GAUGE32 == ASN_GAUGE &&
              Vb::SYNTAX_TIMETICKS == ASN_TIMETICKS && Vb::SYNTAX_OPAQUE == ASN_OPAQUE &&
              Vb::SYNTAX_NO_SUCH_OBJECT == SNMP_NOSUCHOBJECT && Vb::SYNTAX_NO_SUCH_INSTANCE == SNMP_NOSUCHINSTANCE &&
              Vb::SYNTAX_END_OF_MIB_VIEW == SNMP_ENDOFMIBVIEW);

namespace {

constexpr char kCommunity[] = "vorpal";
constexpr long kTimeoutMicroseconds = 1000000;
constexpr int kRetries = 1;

// Dotted text (an optional leading dot, then decimal sub-identifiers of at most
// 32 bits) into sub-identifiers; false for anything else.
bool parseOid(const std::string& text, std::vector<oid>& out) {
  out.clear();
  size_t i = (!text.empty() && text[0] == '.') ? 1 : 0;
  if (i == text.size()) return false;
  while (i <= text.size()) {
    size_t end = text.find('.', i);
    if (end == std::string::npos) end = text.size();
    if (end == i || end - i > 10 || out.size() == MAX_OID_LEN) return false;
    unsigned long long value = 0;
    for (size_t k = i; k < end; ++k) {
      if (text[k] < '0' || text[k] > '9') return false;
      value = value * 10 + static_cast<unsigned>(text[k] - '0');
    }
    if (value > 0xFFFFFFFFull) return false;
    out.push_back(static_cast<oid>(value));
    i = end + 1;
  }
  return true;
}

std::string formatOid(const oid* parts, size_t count) {
  std::string text;
  for (size_t i = 0; i < count; ++i) {
    if (i) text += '.';
    text += std::to_string(parts[i]);
  }
  return text;
}

// The OID as the log lines show it: dotted without a leading dot, or the text
// as given when it is no OID.
std::string printableOid(const std::string& text) {
  std::vector<oid> parts;
  return parseOid(text, parts) ? formatOid(parts.data(), parts.size()) : text;
}

// Net-SNMP peer name with a numeric address ("udp:10.0.0.1:161",
// "udp6:[::1]:161"). Resolving here means Net-SNMP does no lookup of its own:
// a name that does not resolve fails before any session or packet exists, and
// stays apart from a session that cannot open. IPv4 wins when a name has both.
bool peerName(const std::string& address, int port, std::string& peer) {
  std::string host = address;
  if (host.size() > 2 && host.front() == '[' && host.back() == ']') host = host.substr(1, host.size() - 2);
  if (host.empty()) return false;
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_DGRAM;
  addrinfo* found = nullptr;
  if (getaddrinfo(host.c_str(), nullptr, &hints, &found) != 0) return false;
  const addrinfo* pick = nullptr;
  for (const addrinfo* a = found; a && !pick; a = a->ai_next)
    if (a->ai_family == AF_INET) pick = a;
  for (const addrinfo* a = found; a && !pick; a = a->ai_next)
    if (a->ai_family == AF_INET6) pick = a;
  char text[NI_MAXHOST];
  bool ok = pick && getnameinfo(pick->ai_addr, pick->ai_addrlen, text, sizeof text, nullptr, 0, NI_NUMERICHOST) == 0;
  bool v6 = ok && pick->ai_family == AF_INET6;
  freeaddrinfo(found);
  if (!ok) return false;
  std::string portText = std::to_string(static_cast<uint16_t>(port));
  peer = v6 ? "udp6:[" + std::string(text) + "]:" + portText : "udp:" + std::string(text) + ":" + portText;
  return true;
}

// Text for a status: positive ones are the agent's error status, negative
// ones Net-SNMP's own error codes. Unknown codes are formatted in a static
// buffer, hence the lock.
std::string statusText(int status) {
  LibraryLockGuard lock(libraryMutex());
  return status > 0 ? snmp_errstring(status) : snmp_api_errstring(status);
}

// One open single-session handle, closed on every way out. Opening and
// closing touch Net-SNMP's global state (transport list, counters), which the
// agent thread uses too: both run under the library lock.
class Session {
 public:
  // On failure handle() is null and `error` tells why.
  Session(const std::string& peer, std::string& error) {
    LibraryLockGuard lock(libraryMutex());
    // No init_snmp: snmp_sess_init does the set-up a client needs (transport
    // domains, request-id seed) and reads no configuration. An init_snmp here
    // would turn the agent's own later init_snmp into a no-op, and the agent
    // would start without its communities.
    netsnmp_session settings;
    snmp_sess_init(&settings);
    settings.version = SNMP_VERSION_1;
    settings.peername = const_cast<char*>(peer.c_str());
    settings.community = reinterpret_cast<u_char*>(const_cast<char*>(kCommunity));
    settings.community_len = sizeof kCommunity - 1;
    settings.retries = kRetries;
    settings.timeout = kTimeoutMicroseconds;
    sessionHandle = snmp_sess_open(&settings);  // copies peer name and community
    if (!sessionHandle) {
      int sysErrno = 0, snmpErrno = 0;
      char* text = nullptr;
      snmp_error(&settings, &sysErrno, &snmpErrno, &text);
      error = text ? text : snmp_api_errstring(snmpErrno);
      free(text);
    }
  }
  ~Session() {
    if (!sessionHandle) return;
    LibraryLockGuard lock(libraryMutex());
    snmp_sess_close(sessionHandle);
  }
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  void* handle() const { return sessionHandle; }

  // Sends `pdu` (always consumed) and waits for the answer without the lock,
  // so that other threads and the agent go on meanwhile. Returns 0 with
  // `response` set, the agent's error status, or a negative Net-SNMP error.
  int exchange(netsnmp_pdu* pdu, netsnmp_pdu*& response) {
    response = nullptr;
    netsnmp_pdu* answer = nullptr;
    int result = snmp_sess_synch_response(sessionHandle, pdu, &answer);
    int status;
    if (result == STAT_SUCCESS && answer) {
      status = static_cast<int>(answer->errstat);
    } else if (result == STAT_TIMEOUT) {
      status = SNMPERR_TIMEOUT;
    } else {
      const netsnmp_session* state = snmp_sess_session(sessionHandle);
      status = state && state->s_snmp_errno < 0 ? state->s_snmp_errno : SNMPERR_GENERR;
    }
    if (status == 0)
      response = answer;
    else if (answer)
      snmp_free_pdu(answer);
    return status;
  }

 private:
  void* sessionHandle = nullptr;
};

}  // namespace

// Moves values between Vb and Net-SNMP's bindings.
struct ZELTA_LOCAL Vb::Internal {
  // Appends `vb` to `pdu`; false when its OID or its OID value is no OID.
  static bool append(netsnmp_pdu* pdu, const Vb& vb) {
    std::vector<oid> name;
    if (!parseOid(vb.oidText, name)) return false;
    auto type = static_cast<u_char>(vb.syntax);
    long integer = static_cast<long>(vb.number);
    u_long unsignedValue = static_cast<u_long>(vb.number);
    std::vector<oid> oidValue;
    const void* value = nullptr;
    size_t length = 0;
    switch (vb.syntax) {
      case Vb::SYNTAX_INTEGER:
        value = &integer, length = sizeof integer;
        break;
      case Vb::SYNTAX_COUNTER32:
      case Vb::SYNTAX_GAUGE32:
      case Vb::SYNTAX_TIMETICKS:
        value = &unsignedValue, length = sizeof unsignedValue;
        break;
      case Vb::SYNTAX_OCTETS:
      case Vb::SYNTAX_OPAQUE:
      case Vb::SYNTAX_IPADDRESS:
        value = vb.bytes.data(), length = vb.bytes.size();
        break;
      case Vb::SYNTAX_OID:
        if (!parseOid(vb.bytes, oidValue)) return false;
        value = oidValue.data(), length = oidValue.size() * sizeof(oid);
        break;
      default:  // Null, exceptions and unmodelled syntaxes carry no value
        break;
    }
    return snmp_pdu_add_variable(pdu, name.data(), name.size(), type, value, length) != nullptr;
  }

  // The answer's binding as a Vb; false when its value does not fit its
  // syntax (the lengths come from the network).
  static bool fromVariable(const netsnmp_variable_list& var, Vb& out) {
    Vb vb(formatOid(var.name, var.name_length));
    vb.syntax = var.type;
    switch (var.type) {
      case ASN_INTEGER:
        if (!var.val.integer || var.val_len != sizeof(long)) return false;
        vb.number = static_cast<int32_t>(*var.val.integer);
        break;
      case ASN_COUNTER:
      case ASN_GAUGE:
      case ASN_TIMETICKS:
        if (!var.val.integer || var.val_len != sizeof(long)) return false;
        vb.number = static_cast<uint32_t>(*var.val.integer);
        break;
      case ASN_OCTET_STR:
      case ASN_OPAQUE:
        if (var.val_len && !var.val.string) return false;
        vb.bytes.assign(reinterpret_cast<const char*>(var.val.string), var.val_len);
        break;
      case ASN_IPADDRESS:
        if (var.val_len != 4 || !var.val.string) return false;
        vb.bytes.assign(reinterpret_cast<const char*>(var.val.string), 4);
        break;
      case ASN_OBJECT_ID:
        if (var.val_len % sizeof(oid) || (var.val_len && !var.val.objid)) return false;
        vb.bytes = formatOid(var.val.objid, var.val_len / sizeof(oid));
        break;
      default:  // Null, exceptions and unmodelled syntaxes: no value
        break;
    }
    out = vb;
    return true;
  }
};

void Vb::setNull() {
  syntax = SYNTAX_NULL;
  number = 0;
  bytes.clear();
}

void Vb::setInteger(int32_t value) {
  setNull();
  syntax = SYNTAX_INTEGER;
  number = value;
}

void Vb::setString(const std::string& value) {
  setNull();
  syntax = SYNTAX_OCTETS;
  bytes = value;
}

bool Vb::setIpAddress(const std::string& dotted) {
  in_addr address;
  // inet_pton takes exactly four decimal parts, unlike inet_aton.
  if (inet_pton(AF_INET, dotted.c_str(), &address) != 1) return false;
  setNull();
  syntax = SYNTAX_IPADDRESS;
  bytes.assign(reinterpret_cast<const char*>(&address), 4);
  return true;
}

void Vb::setCounter32(uint32_t value) {
  setNull();
  syntax = SYNTAX_COUNTER32;
  number = value;
}

void Vb::setGauge32(uint32_t value) {
  setNull();
  syntax = SYNTAX_GAUGE32;
  number = value;
}

void Vb::setTimeTicks(uint32_t value) {
  setNull();
  syntax = SYNTAX_TIMETICKS;
  number = value;
}

bool Vb::setOidValue(const std::string& value) {
  std::vector<oid> parts;
  if (!parseOid(value, parts)) return false;
  setNull();
  syntax = SYNTAX_OID;
  bytes = formatOid(parts.data(), parts.size());
  return true;
}

bool Vb::getInteger(int32_t& out) const {
  if (syntax != SYNTAX_INTEGER) return false;
  out = static_cast<int32_t>(number);
  return true;
}

bool Vb::getUnsigned(uint32_t& out) const {
  if (syntax != SYNTAX_COUNTER32 && syntax != SYNTAX_GAUGE32 && syntax != SYNTAX_TIMETICKS) return false;
  out = static_cast<uint32_t>(number);
  return true;
}

bool Vb::getString(std::string& out) const {
  if (syntax != SYNTAX_OCTETS && syntax != SYNTAX_OPAQUE) return false;
  out = bytes;
  return true;
}

bool Vb::getIpAddress(std::string& out) const {
  if (syntax != SYNTAX_IPADDRESS) return false;
  char text[INET_ADDRSTRLEN];
  if (!inet_ntop(AF_INET, bytes.data(), text, sizeof text)) return false;
  out = text;
  return true;
}

bool Vb::getOidValue(std::string& out) const {
  if (syntax != SYNTAX_OID) return false;
  out = bytes;
  return true;
}

std::string Vb::toString() const {
  std::string text;
  switch (syntax) {
    case SYNTAX_INTEGER:
    case SYNTAX_COUNTER32:
    case SYNTAX_GAUGE32:
    case SYNTAX_TIMETICKS:
      return std::to_string(number);
    case SYNTAX_IPADDRESS:
      getIpAddress(text);
      return text;
    case SYNTAX_OID:
      return bytes;
    case SYNTAX_OCTETS:
    case SYNTAX_OPAQUE: {
      bool printable = true;
      for (unsigned char c : bytes)
        printable = printable && ((c >= 0x20 && c < 0x7f) || c == '\t' || c == '\n' || c == '\r');
      if (printable) return bytes;
      char hex[4];
      for (unsigned char c : bytes) {
        snprintf(hex, sizeof hex, text.empty() ? "%02X" : " %02X", c);
        text += hex;
      }
      return text;
    }
    case SYNTAX_NO_SUCH_OBJECT:
      return "noSuchObject";
    case SYNTAX_NO_SUCH_INSTANCE:
      return "noSuchInstance";
    case SYNTAX_END_OF_MIB_VIEW:
      return "endOfMibView";
    default:
      return text;
  }
}

bool SNMPClient::set(const std::string& address, const int& port, const std::string& objectId, Vb& vb) {
  std::string peer;
  if (!peerName(address, port, peer)) {
    Log["libzelta"].append(ERROR, "SNMPClient: set, invalid address or DNS name: %s\n", address.c_str());
    return false;
  }
  std::string error;
  Session session(peer, error);
  if (!session.handle()) {
    Log["libzelta"].append(ERROR, "SNMPClient: set, session creation failed, error '%s'\n", error.c_str());
    return false;
  }

  // Two bindings, the caller's as given first, then the same value under
  // `objectId`; callers rely on this exact request, also when both OIDs agree.
  netsnmp_pdu* pdu;
  bool built;
  {
    LibraryLockGuard lock(libraryMutex());  // request ids are a global counter
    pdu = snmp_pdu_create(SNMP_MSG_SET);
    built = Vb::Internal::append(pdu, vb);
    vb.setOid(objectId);
    built = Vb::Internal::append(pdu, vb) && built;
  }
  netsnmp_pdu* response = nullptr;
  int status = SNMPERR_BAD_NAME;
  if (built)
    status = session.exchange(pdu, response);
  else
    snmp_free_pdu(pdu);
  if (response) snmp_free_pdu(response);
  if (status != 0) {
    Log["libzelta"].append(WARNING, "SNMPClient: set(%s) failed\n", printableOid(objectId).c_str());
    return false;
  }
  return true;
}

bool SNMPClient::get(const std::string& address, const int& port, const std::string& objectId, Vb& vb) {
  std::string peer;
  if (!peerName(address, port, peer)) {
    Log["libzelta"].append(ERROR, "error: invalid address or DNS name: %s\n", address.c_str());
    return false;
  }
  std::string error;
  Session session(peer, error);
  if (!session.handle()) {
    Log["libzelta"].append(ERROR, "SNMPClient: get, session creation failed, error '%s'\n", error.c_str());
    return false;
  }

  std::vector<oid> name;
  netsnmp_pdu* response = nullptr;
  int status = SNMPERR_BAD_NAME;
  if (parseOid(objectId, name)) {
    netsnmp_pdu* pdu;
    {
      LibraryLockGuard lock(libraryMutex());  // request ids are a global counter
      pdu = snmp_pdu_create(SNMP_MSG_GET);
      snmp_add_null_var(pdu, name.data(), name.size());
    }
    status = session.exchange(pdu, response);
  }
  Vb answer;
  if (status == 0 && (!response->variables || !Vb::Internal::fromVariable(*response->variables, answer)))
    status = response->variables ? SNMPERR_BAD_PARSE : SNMPERR_NO_VARS;
  if (response) snmp_free_pdu(response);
  if (status != 0) {
    Log["libzelta"].append(WARNING, "SNMPClient: get(%s) failed, error '%s' (%d)\n", printableOid(objectId).c_str(),
                           statusText(status).c_str(), status);
    return false;
  }

  LogChannel& channel = Log["libzelta"];
  if (channel.level >= DEBUG)
    channel.append(DEBUG, "SNMPClient: get(%s) =>'%s'\n", answer.getOid().c_str(), answer.toString().c_str());
  if (answer.isException()) {
    channel.append(WARNING, "SNMPClient: get(%s) failed, error '%d'\n", answer.getOid().c_str(), answer.getSyntax());
    return false;
  }
  vb = answer;
  return true;
}

}  // namespace Quorvel::Kvan::SNMP
