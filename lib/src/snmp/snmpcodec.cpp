// Each value type's SNMP rules, built on its value rules
// (values/valuecodec.cpp). The switches on the type live here and there,
// nowhere else.
#include "snmp/snmpinternal.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstring>

#include "snmp/snmpcodec.h"

namespace Quorvel::Kvan::SNMP {

namespace {

std::string dottedQuad(const std::string& fourBytes) {
  char text[INET_ADDRSTRLEN] = "0.0.0.0";
  if (fourBytes.size() == 4) inet_ntop(AF_INET, fourBytes.data(), text, sizeof text);
  return text;
}

// A binding's OCTET STRING: the value pointer may be null only when empty.
bool isOctets(const netsnmp_variable_list& vb) {
  return vb.type == ASN_OCTET_STR && (vb.val.string != nullptr || vb.val_len == 0);
}

}  // namespace

unsigned char SnmpCodec::asnType() const {
  switch (type()) {
    case INTEGER:
      return ASN_INTEGER;
    case TIMETICKS:
      return ASN_TIMETICKS;
    case IPADDRESS:
      return ASN_IPADDRESS;
    default:
      return ASN_OCTET_STR;
  }
}

bool SnmpCodec::toSnmp(const Variant& v, SnmpValue& out) const {
  const VariantType held = v.getType();
  switch (type()) {
    case INTEGER:
      if (held != VariantType::LONG) return false;
      out.num = static_cast<int32_t>(v.getLong());
      return true;
    case TIMETICKS:
      if (held == VariantType::LONG) {
        out.num = static_cast<long>(static_cast<uint32_t>(v.getLong()));
      } else if (held == VariantType::TIMETICKS) {
        out.num = static_cast<long>(v.getTimeTicks().value);
      } else {
        return false;
      }
      return true;
    case IPADDRESS: {
      if (held != VariantType::STRING) return false;
      in_addr address{};
      // A parameter holding no valid address reads as 0.0.0.0.
      if (inet_pton(AF_INET, v.getIPAddress().c_str(), &address) != 1) address.s_addr = 0;
      out.bytes.assign(reinterpret_cast<const char*>(&address.s_addr), 4);
      return true;
    }
    case STRING: {
      if (held != VariantType::STRING) return false;
      // Answers must fit a response; the parameter keeps its full value.
      const std::string& text = v.getString();
      out.bytes.assign(text, 0, std::min(text.size(), internal::kMaxStringLen));
      return true;
    }
    case LOGADDRMAIN:
      if (held != VariantType::LOGADDRMAIN) return false;
      out.bytes.assign(reinterpret_cast<const char*>(v.getLogaddrMain()), 8);
      return true;
    default:
      return false;
  }
}

Variant SnmpCodec::fromSnmp(const SnmpValue& value) const {
  Variant out;
  switch (type()) {
    case INTEGER:
    case TIMETICKS:
      fromNumber(value.num, out);
      break;
    case IPADDRESS:
      out = Variant(dottedQuad(value.bytes));
      break;
    case STRING:
      out = Variant(value.bytes);
      break;
    case LOGADDRMAIN:
      if (!fromText(value.bytes, out)) out = defaultValue();
      break;
    default:
      break;
  }
  return out;
}

int SnmpCodec::checkSet(const ::variable_list& vb, const Bounds& bounds, SnmpValue& out) const {
  switch (type()) {
    case INTEGER:
    case TIMETICKS:
      if (vb.type != asnType() || vb.val.integer == nullptr) return SNMP_ERR_WRONGTYPE;
      if (vb.val_len != sizeof(long) && vb.val_len != sizeof(int32_t)) return SNMP_ERR_WRONGLENGTH;
      out.num = vbxToLong(vb);
      if (type() == TIMETICKS) out.num = static_cast<long>(static_cast<uint32_t>(out.num));
      return SNMP_ERR_NOERROR;
    case IPADDRESS:
      if (vb.type != ASN_IPADDRESS || vb.val.string == nullptr) return SNMP_ERR_WRONGTYPE;
      if (vb.val_len != 4) return SNMP_ERR_WRONGLENGTH;
      out.bytes.assign(reinterpret_cast<const char*>(vb.val.string), 4);
      return SNMP_ERR_NOERROR;
    case STRING:
      if (!isOctets(vb)) return SNMP_ERR_WRONGTYPE;
      // Longer values cannot be converted; refused rather than read as "ERROR".
      if (vb.val_len > internal::kMaxStringLen) return SNMP_ERR_WRONGLENGTH;
      if (!lengthFits(vb.val_len, bounds)) return SNMP_ERR_WRONGLENGTH;
      out.bytes = vbxToString(vb);
      return SNMP_ERR_NOERROR;
    case LOGADDRMAIN:
      if (!isOctets(vb)) return SNMP_ERR_WRONGTYPE;
      // Exactly 8 bytes, so that nothing longer ever reaches logaddrMainSet.
      if (vb.val_len != 8) return SNMP_ERR_WRONGLENGTH;
      out.bytes = vbxToString(vb);
      return SNMP_ERR_NOERROR;
    default:
      return SNMP_ERR_NOTWRITABLE;
  }
}

std::string_view SnmpCodec::bindingBytes(const SnmpValue& value) const {
  if (type() == INTEGER || type() == TIMETICKS)
    return std::string_view(reinterpret_cast<const char*>(&value.num), sizeof value.num);
  return value.bytes;
}

void SnmpCodec::answer(::variable_list* vb, const SnmpValue& value) const {
  const std::string_view bytes = bindingBytes(value);
  snmp_set_var_typed_value(vb, asnType(), bytes.data(), bytes.size());
}

}  // namespace Quorvel::Kvan::SNMP
