// A minimal SNMP client: read or write one object of another agent, typically
// a parameter of another device of the family. Every call is a blocking
// one-shot SNMPv1 exchange with community "vorpal" (one retry, one-second
// time-out): it opens its own session, sends one request and closes the
// session again. Vb is the value carried in and out, free of any Net-SNMP type.
//
// Thread safety: SNMPClient keeps no state between calls, and any host thread
// may call it, also while the library's SNMP agent runs; calls made at the same
// time wait for the network in parallel. A call blocks for at most about two
// seconds when nobody answers. A Vb is a plain value: one Vb may not be used by
// two threads at once while one of them changes it.
#ifndef ZELTA_SNMPCLIENT_H_
#define ZELTA_SNMPCLIENT_H_

#include <cstdint>
#include <string>

#include "zelta/export.h"

namespace Quorvel::Kvan::SNMP {

// One variable binding: an object identifier (dotted text) and a typed value.
// A new binding holds Null. The setters replace the value and its syntax; the
// getters return false, leaving `out` alone, when the value has another syntax.
class ZELTA_EXPORT Vb {
 public:
  // ASN.1 syntax codes as they appear on the wire.
  enum Syntax : int {
    SYNTAX_INTEGER = 0x02,
    SYNTAX_OCTETS = 0x04,
    SYNTAX_NULL = 0x05,
    SYNTAX_OID = 0x06,
    SYNTAX_IPADDRESS = 0x40,
    SYNTAX_COUNTER32 = 0x41,
    SYNTAX_GAUGE32 = 0x42,
    SYNTAX_TIMETICKS = 0x43,
    SYNTAX_OPAQUE = 0x44,
    SYNTAX_NO_SUCH_OBJECT = 0x80,
    SYNTAX_NO_SUCH_INSTANCE = 0x81,
    SYNTAX_END_OF_MIB_VIEW = 0x82,
  };

  Vb() = default;
  // `name` is the OID in dotted text, with or without a leading dot; the
  // value is Null.
  explicit Vb(const std::string& name) : oidText(name) {}

  // The binding's OID as last set.
  const std::string& getOid() const { return oidText; }
  void setOid(const std::string& name) { oidText = name; }

  // One of Syntax, or the code of a syntax this type does not model (its value
  // then reads as nothing).
  int getSyntax() const { return syntax; }
  // True for noSuchObject, noSuchInstance and endOfMibView.
  bool isException() const { return syntax >= SYNTAX_NO_SUCH_OBJECT && syntax <= SYNTAX_END_OF_MIB_VIEW; }

  void setNull();
  void setInteger(int32_t value);
  // OCTET STRING; any bytes.
  void setString(const std::string& value);
  // Dotted quad. False, and nothing changed, when `dotted` is not one.
  bool setIpAddress(const std::string& dotted);
  void setCounter32(uint32_t value);
  void setGauge32(uint32_t value);
  // Hundredths of a second.
  void setTimeTicks(uint32_t value);
  // An OBJECT IDENTIFIER value in dotted text. False, and nothing changed,
  // when `value` is not a valid OID.
  bool setOidValue(const std::string& value);

  bool getInteger(int32_t& out) const;
  // Counter32, Gauge32 and TimeTicks.
  bool getUnsigned(uint32_t& out) const;
  // OCTET STRING and Opaque: the raw bytes.
  bool getString(std::string& out) const;
  // IpAddress as a dotted quad.
  bool getIpAddress(std::string& out) const;
  // OBJECT IDENTIFIER value, dotted without a leading dot.
  bool getOidValue(std::string& out) const;

  // The value as text: numbers in decimal, addresses and OIDs dotted, octets
  // as they are when all are printable and as hex bytes ("0A FF 00") when not,
  // the exceptions by name ("noSuchObject"), Null and unmodelled syntaxes as "".
  std::string toString() const;

  // How the client moves a binding to and from Net-SNMP's; defined with the
  // library's sources, of no use to a host.
  struct Internal;

 private:
  std::string oidText;
  int syntax = SYNTAX_NULL;
  int64_t number = 0;  // INTEGER, or the unsigned syntaxes
  std::string bytes;   // octets, the 4 address bytes, or the OID value's text
};

// Blocking SNMPv1 GET and SET of one object. Failures are logged on channel
// "libzelta" (one line each) and reported by a false result; nothing throws.
class ZELTA_EXPORT SNMPClient {
 public:
  // Writes the value of `vb` to `objectId` (dotted text) on the agent at
  // `address` (host name, IPv4 or IPv6 address) and UDP `port` (used as 16
  // bits). The request carries two bindings with that value: first under vb's
  // own OID, then under `objectId`. Once a session is open vb's OID is
  // `objectId`, whatever the outcome.
  // True when the agent answers noError.
  static bool set(const std::string& address, const int& port, const std::string& objectId, Vb& vb);

  // Reads `objectId` (dotted text) from the agent at `address` and `port`. On
  // success `vb` becomes the returned binding; on failure it is left alone. An
  // error status or an exception value (noSuchObject, ...) is a failure.
  static bool get(const std::string& address, const int& port, const std::string& objectId, Vb& vb);
};

}  // namespace Quorvel::Kvan::SNMP

#endif  // ZELTA_SNMPCLIENT_H_
