// Each value type's SNMP rules, built on its value rules
// (values/valuecodec.cpp). The switches on the type live here and there,
// nowhere else.
#include "snmp/snmpinternal.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "snmp/snmpcodec.h"
#include "zelta/logging.h"

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

// ---- Bindings as values and as text

namespace internal {

std::string printable(const netsnmp_variable_list& vb) {
  char buf[64];
  switch (vb.type) {
    case ASN_INTEGER:
      if (vb.val.integer == nullptr) return "";
      snprintf(buf, sizeof buf, "%ld", *vb.val.integer);
      return buf;
    case ASN_COUNTER:
    case ASN_GAUGE:
    case ASN_TIMETICKS:
    case ASN_UINTEGER:
      if (vb.val.integer == nullptr) return "";
      snprintf(buf, sizeof buf, "%lu", static_cast<unsigned long>(*vb.val.integer) & 0xFFFFFFFFul);
      return buf;
    case ASN_IPADDRESS:
      if (vb.val.string == nullptr || vb.val_len != 4) return "";
      snprintf(buf, sizeof buf, "%u.%u.%u.%u", vb.val.string[0], vb.val.string[1], vb.val.string[2], vb.val.string[3]);
      return buf;
    case ASN_OBJECT_ID:
      if (vb.val.objid == nullptr) return "";
      return oidToText(vb.val.objid, vb.val_len / sizeof(oid));
    case ASN_OCTET_STR:
    case ASN_OPAQUE: {
      if (vb.val.string == nullptr) return "";
      // Log lines are short; non-printable bytes would garble the terminal.
      size_t len = vb.val_len < kMaxStringLen ? vb.val_len : kMaxStringLen;
      std::string text(reinterpret_cast<const char*>(vb.val.string), len);
      for (char& c : text)
        if (static_cast<unsigned char>(c) < 0x20 || static_cast<unsigned char>(c) > 0x7e) c = '.';
      return text;
    }
    case SNMP_NOSUCHOBJECT:
      return "noSuchObject";
    case SNMP_NOSUCHINSTANCE:
      return "noSuchInstance";
    case SNMP_ENDOFMIBVIEW:
      return "endOfMibView";
    default:
      return "";
  }
}

}  // namespace internal

long vbxToLong(const netsnmp_variable_list& vb) {
  const long marker = static_cast<long>(static_cast<int32_t>(0xDEADBEEFu));
  if (vb.val.integer == nullptr || (vb.val_len != sizeof(long) && vb.val_len != sizeof(int32_t))) return marker;
  // Read only the bytes the binding holds; a 4-byte value set through
  // snmp_set_var_value must not be read as 8.
  long raw = 0;
  if (vb.val_len == sizeof(long)) {
    raw = *vb.val.integer;
  } else {
    int32_t small = 0;
    memcpy(&small, vb.val.integer, sizeof small);
    raw = small;
  }
  // 32-bit semantics on every build, as on the target.
  if (vb.type == ASN_TIMETICKS) return static_cast<long>(static_cast<int32_t>(static_cast<uint32_t>(raw)));
  if (vb.type == ASN_INTEGER) return static_cast<long>(static_cast<int32_t>(raw));
  return marker;
}

std::string vbxToString(const netsnmp_variable_list& vb) {
  if (vb.type == ASN_IPADDRESS) return internal::printable(vb);
  bool octets = vb.type == ASN_OCTET_STR || vb.type == ASN_OPAQUE;
  if (!octets || (vb.val.string == nullptr && vb.val_len > 0) || vb.val_len > internal::kMaxStringLen) {
    Log["libzelta"].append(ERROR, "vbxToString: cannot extract a valid value! ('%s')\n",
                           internal::printable(vb).c_str());
    return "ERROR";
  }
  if (vb.val_len == 0) {
    Log["libzelta"].append(VERBOSE, "vbxToString: value has length 0! ('%s')\n", internal::printable(vb).c_str());
    return std::string();
  }
  std::string value(reinterpret_cast<const char*>(vb.val.string), vb.val_len);
  Log["libzelta"].append(VERBOSE, "vbxToString: ok, extracted string ('%s')\n", value.c_str());
  return value;
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
