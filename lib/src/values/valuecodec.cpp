// Each value type's rules. The switches on the type live here and nowhere
// else.
#include "snmp/snmpinternal.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstring>

#include "base/filetext.h"
#include "values/valuecodec.h"
#include "zelta/common.h"
#include "zelta/mibtypes.h"

namespace Quorvel::Kvan {

namespace {

const unsigned char kZeroAddress[8] = {0, 0, 0, 0, 0, 0, 0, 0};

// The decoder's answers for text that is no escaped string.
bool isDecodeError(const std::string& decoded) {
  return decoded == "[error]" || decoded == "[error - start]" || decoded == "[error - len]";
}

// A logical address from its text of up to 8 characters (left-padded with
// '0'); false for a longer text.
bool addressFromText(const std::string& text, Variant& out) {
  if (text.size() > 8) return false;
  uint8_t address[8];
  Common::logaddrMainSet(address, text);
  out = Variant(static_cast<const unsigned char*>(address));
  return true;
}

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

Bounds::Bounds(unsigned long lower, unsigned long upper)
    : set(lower != NO_RANGE && upper != NO_RANGE),
      min(static_cast<uint32_t>(lower)),
      max(static_cast<uint32_t>(upper)) {}

Bounds Bounds::of(uint32_t lower, uint32_t upper) {
  Bounds bounds;
  bounds.set = true;
  bounds.min = lower;
  bounds.max = upper;
  return bounds;
}

const ValueCodec* ValueCodec::of(ValueType type) {
  static const ValueCodec kCodecs[] = {ValueCodec(INTEGER), ValueCodec(STRING), ValueCodec(IPADDRESS),
                                       ValueCodec(TIMETICKS), ValueCodec(LOGADDRMAIN)};
  for (const ValueCodec& codec : kCodecs)
    if (codec.type_ == type) return &codec;
  return nullptr;
}

VariantType ValueCodec::kind() const {
  switch (type_) {
    case INTEGER:
      return VariantType::LONG;
    case TIMETICKS:
      return VariantType::TIMETICKS;
    case LOGADDRMAIN:
      return VariantType::LOGADDRMAIN;
    default:
      return VariantType::STRING;
  }
}

Variant ValueCodec::defaultValue() const {
  switch (type_) {
    case INTEGER:
      return Variant(0L);
    case TIMETICKS:
      return Variant(TimeTicksValue{0});
    case LOGADDRMAIN:
      return Variant(kZeroAddress);
    case IPADDRESS:
      return Variant("0.0.0.0");
    default:
      return Variant("");
  }
}

// ---- Group files

void ValueCodec::appendFileValue(std::string& out, const Variant& v) const {
  switch (type_) {
    case INTEGER:
      Common::appendNumber(out, v.getLong());
      break;
    case TIMETICKS:
      // Through the signed 32-bit output of the target: a count of 2^31 or
      // more is written negative, and the reader wraps it back.
      Common::appendNumber(out, static_cast<int32_t>(v.getTimeTicks().value));
      break;
    case IPADDRESS:
      out += v.getString();
      break;
    case STRING:
    case LOGADDRMAIN: {
      const std::string_view bytes = type_ == STRING
                                         ? std::string_view(v.getString())
                                         : std::string_view(reinterpret_cast<const char*>(v.getLogaddrMain()), 8);
      out += '"';
      Common::appendSerialized(out, bytes);
      out += '"';
      break;
    }
    default:
      break;
  }
}

Variant ValueCodec::parseFileValue(std::string_view text, bool cell) const {
  switch (type_) {
    case INTEGER:
      return Variant(static_cast<long>(Common::parseSigned32(text.data(), text.size())));
    case TIMETICKS:
      return Variant(TimeTicksValue{cell ? static_cast<uint32_t>(Common::parseSigned32(text.data(), text.size()))
                                         : Common::parseUnsigned32(text.data(), text.size())});
    case IPADDRESS:
      return Variant(std::string(text));
    case STRING:
      // The decoder's error text becomes the value, as it always has.
      return Variant(Common::deserialize(text));
    case LOGADDRMAIN: {
      const std::string bytes = Common::deserialize(text);
      Variant address;
      if (!isDecodeError(bytes)) addressFromText(bytes, address);
      return address;
    }
    default:
      return Variant();
  }
}

// ---- Host values

bool ValueCodec::fromNumber(long number, Variant& out) const {
  if (type_ == INTEGER) {
    out = Variant(number);
  } else if (type_ == TIMETICKS) {
    // A count of 2^31 or more may arrive as a negative long (32-bit target).
    out = Variant(TimeTicksValue{static_cast<uint32_t>(number)});
  } else {
    return false;
  }
  return true;
}

bool ValueCodec::fromText(const std::string& text, Variant& out) const {
  switch (type_) {
    case STRING:
      out = Variant(text);
      return true;
    case IPADDRESS: {
      in_addr address{};
      if (inet_pton(AF_INET, text.c_str(), &address) != 1) return false;
      out = Variant(text);
      return true;
    }
    case LOGADDRMAIN:
      return addressFromText(text, out);
    default:
      return false;
  }
}

// ---- SNMP

unsigned char ValueCodec::asnType() const {
  switch (type_) {
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

std::string ValueCodec::smiSyntax(const Bounds& bounds) const {
  const std::string range =
      std::to_string(static_cast<int32_t>(bounds.min)) + ".." + std::to_string(static_cast<int32_t>(bounds.max));
  const size_t longest = SNMP::internal::kMaxStringLen;
  const std::string lengths = std::to_string(bounds.set ? bounds.min : 0) + ".." +
                              std::to_string(bounds.set ? std::min<size_t>(bounds.max, longest) : longest);
  switch (type_) {
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

const char* ValueCodec::smiBaseType() const {
  switch (type_) {
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

bool ValueCodec::toSnmp(const Variant& v, SnmpValue& out) const {
  const VariantType held = v.getType();
  switch (type_) {
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
      out.bytes.assign(text, 0, std::min(text.size(), SNMP::internal::kMaxStringLen));
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

Variant ValueCodec::fromSnmp(const SnmpValue& value) const {
  Variant out;
  switch (type_) {
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
      if (!addressFromText(value.bytes, out)) out = Variant(kZeroAddress);
      break;
    default:
      break;
  }
  return out;
}

int ValueCodec::checkSet(const ::variable_list& vb, const Bounds& bounds, SnmpValue& out) const {
  switch (type_) {
    case INTEGER:
    case TIMETICKS:
      if (vb.type != asnType() || vb.val.integer == nullptr) return SNMP_ERR_WRONGTYPE;
      if (vb.val_len != sizeof(long) && vb.val_len != sizeof(int32_t)) return SNMP_ERR_WRONGLENGTH;
      out.num = SNMP::vbxToLong(vb);
      if (type_ == TIMETICKS) out.num = static_cast<long>(static_cast<uint32_t>(out.num));
      return SNMP_ERR_NOERROR;
    case IPADDRESS:
      if (vb.type != ASN_IPADDRESS || vb.val.string == nullptr) return SNMP_ERR_WRONGTYPE;
      if (vb.val_len != 4) return SNMP_ERR_WRONGLENGTH;
      out.bytes.assign(reinterpret_cast<const char*>(vb.val.string), 4);
      return SNMP_ERR_NOERROR;
    case STRING:
      if (!isOctets(vb)) return SNMP_ERR_WRONGTYPE;
      // Longer values cannot be converted; refused rather than read as "ERROR".
      if (vb.val_len > SNMP::internal::kMaxStringLen) return SNMP_ERR_WRONGLENGTH;
      if (bounds.set && (vb.val_len < bounds.min || vb.val_len > bounds.max)) return SNMP_ERR_WRONGLENGTH;
      out.bytes = SNMP::vbxToString(vb);
      return SNMP_ERR_NOERROR;
    case LOGADDRMAIN:
      if (!isOctets(vb)) return SNMP_ERR_WRONGTYPE;
      // Exactly 8 bytes, so that nothing longer ever reaches logaddrMainSet.
      if (vb.val_len != 8) return SNMP_ERR_WRONGLENGTH;
      out.bytes = SNMP::vbxToString(vb);
      return SNMP_ERR_NOERROR;
    default:
      return SNMP_ERR_NOTWRITABLE;
  }
}

bool ValueCodec::inRange(const SnmpValue& value, const Bounds& bounds) const {
  return type_ != INTEGER || !bounds.set ||
         (value.num >= static_cast<int32_t>(bounds.min) && value.num <= static_cast<int32_t>(bounds.max));
}

std::string_view ValueCodec::bindingBytes(const SnmpValue& value) const {
  if (type_ == INTEGER || type_ == TIMETICKS)
    return std::string_view(reinterpret_cast<const char*>(&value.num), sizeof value.num);
  return value.bytes;
}

void ValueCodec::answer(::variable_list* vb, const SnmpValue& value) const {
  const std::string_view bytes = bindingBytes(value);
  snmp_set_var_typed_value(vb, asnType(), bytes.data(), bytes.size());
}

}  // namespace Quorvel::Kvan
