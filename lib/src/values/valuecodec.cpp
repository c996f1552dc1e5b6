// Each value type's rules that are not SNMP's. The switches on the type live
// here and in snmp/snmpcodec.cpp, nowhere else.
#include "values/valuecodec.h"

#include <arpa/inet.h>

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <cstring>

#include "base/filetext.h"
#include "zelta/addresses.h"
#include "zelta/encoding.h"

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

}  // namespace

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

// ---- Checks

bool ValueCodec::inRange(long value, const Bounds& bounds) const {
  return type_ != INTEGER || !bounds.set ||
         (value >= static_cast<int32_t>(bounds.min) && value <= static_cast<int32_t>(bounds.max));
}

bool ValueCodec::lengthFits(size_t length, const Bounds& bounds) const {
  return type_ != STRING || !bounds.set || (length >= bounds.min && length <= bounds.max);
}

bool ValueCodec::parseCheckedFileValue(std::string_view text, Variant& out) const {
  switch (type_) {
    case INTEGER:
    case TIMETICKS: {
      int64_t number = 0;
      const char* end = text.data() + text.size();
      const auto [stop, error] = std::from_chars(text.data(), end, number);
      if (text.empty() || error != std::errc() || stop != end) return false;
      if (type_ == INTEGER) {
        if (number < INT32_MIN || number > INT32_MAX) return false;
        out = Variant(static_cast<long>(number));
      } else {
        if (number < INT32_MIN || number > UINT32_MAX) return false;
        out = Variant(TimeTicksValue{static_cast<uint32_t>(number)});
      }
      return true;
    }
    case IPADDRESS:
      return fromText(std::string(text), out);
    case STRING:
    case LOGADDRMAIN: {
      const char* error = nullptr;
      const std::string bytes = Common::decodeQuoted(text, error);
      // One quoted text, nothing after its closing quote.
      if (error != nullptr || text.find('"', 1) != text.size() - 1) return false;
      if (type_ == STRING) {
        out = Variant(bytes);
        return true;
      }
      return bytes.size() == 8 && addressFromText(bytes, out);
    }
    default:
      return false;
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

}  // namespace Quorvel::Kvan
