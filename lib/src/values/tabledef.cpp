// Variant, the tagged value of parameters and table cells, and ExtraInfo.
#include "zelta/tabledef.h"

#include <cstring>
#include <string>
#include <utility>

#include "base/trace.h"
#include "zelta/addresses.h"

namespace Quorvel::Kvan {

ExtraInfo::ExtraInfo(RowIdx idx, int act, int col) : rowIdx(std::move(idx)), action(act), column(col) {}

// Every constructor starts from an all-zero value word, so that the inline
// payloads never carry stale bytes (the logical address is wider than a long
// on the 32-bit target).
Variant::Variant() {
#if UINTPTR_MAX > 0xFFFFFFFFu
  kindAndListener = 0;
#else
  type = VariantType::UNDEFINED;
  listener = nullptr;
#endif
  std::memset(&val, 0, sizeof(val));
}

Variant::Variant(int value) : Variant() {
  setKind(VariantType::LONG);
  val.l = value;
}

// A long is 32 bits on the target; wider builds keep the same wrap-around so
// that values read back the same everywhere.
Variant::Variant(long value) : Variant() {
  setKind(VariantType::LONG);
  val.l = static_cast<long>(static_cast<int32_t>(value));
}

Variant::Variant(TimeTicksValue value) : Variant() {
  setKind(VariantType::TIMETICKS);
  val.ticks = value;
}

Variant::Variant(const unsigned char* logaddr) : Variant() {
  setKind(VariantType::LOGADDRMAIN);
  Common::logaddrMainCpy(val.logaddr, logaddr);
}

Variant::Variant(const char* value) : Variant() {
  setKind(VariantType::STRING);
  val.str = new std::string(value);
}

Variant::Variant(std::string value) : Variant() {
  setKind(VariantType::STRING);
  val.str = new std::string(std::move(value));
}

Variant::Variant(const Table& value) : Variant() {
  setKind(VariantType::TABLEDEF);
  val.tbl = new Table(value);
}

Variant::Variant(const Variant& other) : Variant() { *this = other; }

Variant::Variant(Variant&& other) noexcept : Variant() {
  std::memcpy(&val, &other.val, sizeof(val));
  setKind(other.getType());
  std::memset(&other.val, 0, sizeof(other.val));
  other.setKind(VariantType::UNDEFINED);
}

Variant& Variant::operator=(Variant&& other) {
  ZELTA_ASSERT(getType() == VariantType::UNDEFINED || getType() == other.getType(),
               "type == VariantType::UNDEFINED || type == other.type");
  if (this == &other) return *this;
  // `other` may live inside this Variant's payload (a cell of a table it
  // holds): take its payload before freeing ours.
  decltype(val) taken;
  std::memcpy(&taken, &other.val, sizeof(taken));
  const VariantType newType = other.getType();
  std::memset(&other.val, 0, sizeof(other.val));
  other.setKind(VariantType::UNDEFINED);
  deleteInternalStorage();
  std::memcpy(&val, &taken, sizeof(val));
  setKind(newType);
  return *this;
}

Variant::~Variant() { deleteInternalStorage(); }

Variant& Variant::operator=(const Variant& other) {
  ZELTA_ASSERT(getType() == VariantType::UNDEFINED || getType() == other.getType(),
               "type == VariantType::UNDEFINED || type == other.type");
  if (this == &other) return *this;

  // The new payload is built before the old one is freed, and nothing of
  // `other` is read afterwards: it may live inside that payload (a cell of a
  // table held by this very Variant).
  const VariantType newType = other.getType();
  switch (newType) {
    case VariantType::UNDEFINED:
      deleteInternalStorage();
      break;
    case VariantType::LONG:
    case VariantType::TIMETICKS:
    case VariantType::LOGADDRMAIN:
      // The target is undefined or of the same inline kind: nothing to free.
      std::memcpy(&val, &other.val, sizeof(val));
      break;
    case VariantType::STRING: {
      std::string* copy = other.val.str != nullptr ? new std::string(*other.val.str) : nullptr;
      deleteInternalStorage();
      val.str = copy;
      break;
    }
    case VariantType::TABLEDEF: {
      Table* copy = other.val.tbl != nullptr ? new Table(*other.val.tbl) : nullptr;
      deleteInternalStorage();
      val.tbl = copy;
      break;
    }
    default:
      ZELTA_ASSERT(false, "false");
  }
  setKind(newType);
  return *this;
}

bool Variant::operator==(const Variant& other) const {
  ZELTA_ASSERT(getType() == other.getType(), "type == other.type");
  switch (getType()) {
    case VariantType::UNDEFINED:
      // Nothing is known about either side, so they are not called equal.
      return false;
    case VariantType::LONG:
      return val.l == other.val.l;
    case VariantType::TIMETICKS:
      return val.ticks.value == other.val.ticks.value;
    case VariantType::LOGADDRMAIN:
      return Common::logaddrMainEq(val.logaddr, other.val.logaddr);
    case VariantType::STRING:
    case VariantType::TABLEDEF:
      // Identity, not content: callers wanting text equality compare
      // getString() themselves. The marker shows where this is relied on.
      ZELTA_TRACE();
      return getType() == VariantType::STRING ? val.str == other.val.str : val.tbl == other.val.tbl;
  }
  ZELTA_ASSERT(false, "false");
  return false;
}

const long& Variant::getLong() const {
  ZELTA_ASSERT(getType() == VariantType::LONG, "type == VariantType::LONG && \"error: value is not a long!\"");
  return val.l;
}

const TimeTicksValue Variant::getTimeTicks() const {
  ZELTA_ASSERT(getType() == VariantType::TIMETICKS,
               "type == VariantType::TIMETICKS && \"error: value is not a TimeTicksValue!\"");
  return val.ticks;
}

const uint8_t (&Variant::getLogaddrMain() const)[8] {
  ZELTA_ASSERT(getType() == VariantType::LOGADDRMAIN,
               "type == VariantType::LOGADDRMAIN && \"error: value is not a logaddr_main_t!\"");
  return val.logaddr;
}

void Variant::toLogaddrMain(uint8_t* out) const {
  ZELTA_ASSERT(getType() == VariantType::LOGADDRMAIN,
               "type == VariantType::LOGADDRMAIN && \"error: value is not a logaddr_main_t!\"");
  Common::logaddrMainCpy(out, val.logaddr);
}

const std::string& Variant::getString() const {
  ZELTA_ASSERT(getType() == VariantType::STRING, "type == VariantType::STRING && \"error: value is not a string!\"");
  return *val.str;
}

const std::string& Variant::getIPAddress() const {
  ZELTA_ASSERT(getType() == VariantType::STRING, "type == VariantType::STRING && \"error: value is not an ip!\"");
  // An address never set reads as the wildcard address, and stays so, so
  // that later string reads agree with what SNMP showed.
  if (val.str->empty()) *val.str = "0.0.0.0";
  return *val.str;
}

const Table& Variant::getTable() const {
  ZELTA_ASSERT(getType() == VariantType::TABLEDEF, "type == VariantType::TABLEDEF && \"error: value is not a Table!\"");
  return *val.tbl;
}

Table* Variant::getMutableTable() {
  ZELTA_ASSERT(getType() == VariantType::TABLEDEF, "type == VariantType::TABLEDEF && \"error: value is not a Table!\"");
  ZELTA_ASSERT(val.tbl != nullptr, "val.tbl != __null");
  return val.tbl;
}

ZELTA_COLD std::string Variant::toString() const {
  switch (getType()) {
    case VariantType::UNDEFINED:
      return "[UNDEFINED]";
    case VariantType::LONG:
      return std::to_string(val.l);
    case VariantType::TIMETICKS:
      return std::to_string(val.ticks.value);
    case VariantType::LOGADDRMAIN:
      return "[LAD]";
    case VariantType::STRING:
      return *val.str;
    case VariantType::TABLEDEF:
      return "[TDEF]";
  }
  return "[ERROR]";
}

void Variant::setListener(IChangeListener* newListener) {
#if UINTPTR_MAX > 0xFFFFFFFFu
  kindAndListener = reinterpret_cast<uintptr_t>(newListener) | (kindAndListener & kKindBits);
#else
  listener = newListener;
#endif
}

void Variant::setKind(VariantType kind) {
#if UINTPTR_MAX > 0xFFFFFFFFu
  kindAndListener = (kindAndListener & ~kKindBits) | static_cast<uintptr_t>(kind);
#else
  type = kind;
#endif
}

bool Variant::callValidator(const Variant& proposed) {
  if (getListener() == nullptr) return true;
  if (getListener()->validate(proposed, nullptr)) return true;
  ZELTA_TRACE();
  return false;
}

bool Variant::callFiller(const ExtraInfo* info) {
  if (getListener() == nullptr) return true;
  if (getListener()->fill(*this, info)) return true;
  ZELTA_TRACE();
  return false;
}

void Variant::notifyListener(std::string reason, ExtraInfo* info) {
  if (getListener() != nullptr) getListener()->onChange(reason, info);
}

void Variant::deleteInternalStorage() {
  if (getType() == VariantType::STRING) {
    delete val.str;
  } else if (getType() == VariantType::TABLEDEF) {
    delete val.tbl;
  }
  std::memset(&val, 0, sizeof(val));
  setKind(VariantType::UNDEFINED);
}

}  // namespace Quorvel::Kvan
