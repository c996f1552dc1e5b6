// The SNMP rules of each value type: its ASN.1 type, the checks a SET value
// must pass, its wire encoding and its SMIv2 syntax. They build on the value
// rules of values/valuecodec.h (defaults, host values); every SNMP source
// that converts a value goes through here.
//
// Thread safety: the codecs are immutable; they read and write only the
// values they are given.
#ifndef ZELTA_SRC_SNMP_SNMPCODEC_H_
#define ZELTA_SRC_SNMP_SNMPCODEC_H_

#include <string>
#include <string_view>

#include "values/valuecodec.h"
#include "zelta/mibtypes.h"

struct variable_list;  // netsnmp_variable_list

namespace Quorvel::Kvan::SNMP {

// A value as SNMP carries it: INTEGER and TimeTicks in `num`; the bytes of an
// OCTET STRING (a logical address: its 8 bytes) and the 4 bytes of an
// IpAddress in `bytes`.
struct SnmpValue {
  long num = 0;
  std::string bytes;
};

// The value and SNMP rules of one scalar value type (every ValueType but
// TABLE).
class SnmpCodec : public ValueCodec {
 public:
  // The codec of `type`; null for TABLE and for numbers that are no type.
  static const SnmpCodec* of(ValueType type);

  // The ASN.1 type on the wire.
  unsigned char asnType() const;
  // The SMIv2 syntax a MIB module gives it, with its bounds. A string's
  // lengths stop at the longest value a leaf takes. Defined in the MIB
  // generator's library (mibgen/smisyntax.cpp), not in the device's.
  std::string smiSyntax(const Bounds& bounds) const;
  // The same without bounds, as a SEQUENCE names it ("Integer32", "OCTET
  // STRING"); also what a module imports for it, unless built into ASN.1.
  const char* smiBaseType() const;
  // The value of `v` as SNMP answers it. False when `v` is of another kind.
  bool toSnmp(const Variant& v, SnmpValue& out) const;
  Variant fromSnmp(const SnmpValue& value) const;
  // A SET value's type and length, and a STRING's length bounds: 0, or
  // wrongType / wrongLength. On success `out` holds the value.
  int checkSet(const ::variable_list& vb, const Bounds& bounds, SnmpValue& out) const;
  // An INTEGER's value bounds (other types always pass).
  using ValueCodec::inRange;
  bool inRange(const SnmpValue& value, const Bounds& bounds) const { return inRange(value.num, bounds); }
  // The bytes of `value` as a binding of this type holds them: a number as
  // a long, the rest as they are.
  std::string_view bindingBytes(const SnmpValue& value) const;
  // Puts `value` into an answer binding.
  void answer(::variable_list* vb, const SnmpValue& value) const;

 private:
  constexpr explicit SnmpCodec(ValueType type) : ValueCodec(type) {}
};

// Inline, so that the MIB generator's library has it too.
inline const SnmpCodec* SnmpCodec::of(ValueType type) {
  static constexpr SnmpCodec kCodecs[] = {SnmpCodec(INTEGER), SnmpCodec(STRING), SnmpCodec(IPADDRESS),
                                          SnmpCodec(TIMETICKS), SnmpCodec(LOGADDRMAIN)};
  for (const SnmpCodec& codec : kCodecs)
    if (codec.type() == type) return &codec;
  return nullptr;
}

}  // namespace Quorvel::Kvan::SNMP

#endif  // ZELTA_SRC_SNMP_SNMPCODEC_H_
