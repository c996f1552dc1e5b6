// The rules of each value type that are not SNMP's: its default, its
// group-file text and the host values it takes. Every part of the library
// that converts a value goes through here; the SNMP rules of a type
// (snmp/snmpcodec.h) build on these.
//
// Thread safety: the codecs are immutable; they read and write only the
// values they are given.
#ifndef ZELTA_SRC_VALUES_VALUECODEC_H_
#define ZELTA_SRC_VALUES_VALUECODEC_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "zelta/tabledef.h"

namespace Quorvel::Kvan {

// Bounds of a published object or column: value bounds of an INTEGER
// (signed 32-bit values), length bounds of a STRING, kept as the 32 bits the
// host gave. Unset when either end is NO_RANGE.
struct Bounds {
  Bounds() = default;
  // From the unsigned fields of a range or a FieldType, NO_RANGE meaning none.
  Bounds(unsigned long lower, unsigned long upper)
      : set(lower != NO_RANGE && upper != NO_RANGE),
        min(static_cast<uint32_t>(lower)),
        max(static_cast<uint32_t>(upper)) {}
  // Bounds that are set.
  static Bounds of(uint32_t lower, uint32_t upper) {
    Bounds bounds;
    bounds.set = true;
    bounds.min = lower;
    bounds.max = upper;
    return bounds;
  }

  bool set = false;
  uint32_t min = 0;
  uint32_t max = 0;
};

// The rules of one scalar value type (every ValueType but TABLE).
class ValueCodec {
 public:
  // The codec of `type`; null for TABLE and for numbers that are no type.
  static const ValueCodec* of(ValueType type);

  ValueType type() const { return type_; }
  // The kind of Variant that holds values of this type.
  VariantType kind() const;
  Variant defaultValue() const;
  // True when `v` holds a value of this type (an IPADDRESS is a STRING).
  bool fits(const Variant& v) const { return v.getType() == kind(); }
  // False for the types whose default is no real value (an address): a cell
  // of a row created over SNMP must be set before its row can be active.
  bool hasCellDefault() const { return type_ != IPADDRESS && type_ != LOGADDRMAIN; }

  // ---- Group files
  // The type number written before the value: a logical address is written
  // as a type-4 string of its 8 bytes.
  int fileType() const { return type_ == LOGADDRMAIN ? STRING : type_; }
  // True when a triplet of type `written` may hold a value of this type.
  bool readsFileType(int written) const { return written == type_ || written == fileType(); }
  // Appends the value text of `v` (not the type).
  void appendFileValue(std::string& out, const Variant& v) const;
  // Reads the value text of a triplet, quotes included. TimeTicks read as an
  // unsigned count when `cell` is false and as a signed long in a table cell,
  // as files have always been read. UNDEFINED only for a logical address that
  // is no valid 8-byte text.
  Variant parseFileValue(std::string_view text, bool cell) const;

  // ---- Checks
  // The checks of a value that are not SNMP's own: a SET, a checked load and
  // an import ask the same. An INTEGER's value bounds (other types pass).
  bool inRange(long value, const Bounds& bounds) const;
  // A STRING's length bounds (other types pass).
  bool lengthFits(size_t length, const Bounds& bounds) const;
  // The value text of a triplet read as strictly as a SET value is taken: a
  // decimal number that fits the type's 32 bits (TimeTicks also as the
  // negative text of a count of 2^31 or more), a quoted text that decodes,
  // a dotted IPv4 address, a logical address of exactly 8 bytes. False when
  // the text is no value of this type.
  bool parseCheckedFileValue(std::string_view text, Variant& out) const;

  // ---- Host values
  // A value of this type from a number or a text the host hands over for a
  // table cell (the text of a logical address is its up to 8 characters).
  // False when it cannot hold one.
  bool fromNumber(long number, Variant& out) const;
  bool fromText(const std::string& text, Variant& out) const;

 protected:
  constexpr explicit ValueCodec(ValueType type) : type_(type) {}

 private:
  ValueType type_;
};

}  // namespace Quorvel::Kvan

#endif  // ZELTA_SRC_VALUES_VALUECODEC_H_
